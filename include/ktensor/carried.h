// carried.h: what one part of a fused network hands to the next. Internal.
#pragma once

#include <exception>
#include <optional>
#include <utility>

#include "../layers/functional/blocked_image.h"
#include "ktensor.h"

namespace ornik {

/// A tensor, or images in blocks; the other form of it is made when it is first asked for. Of one thread.
class ORNIK_API Carried {
  public:
    explicit Carried(KTensor tensor) : tensor_(std::move(tensor)) {}
    explicit Carried(nn::BlockedImage image) : image_(std::move(image)), is_blocked_(true) {}

    /// Did it come in blocks?
    [[nodiscard]] bool is_blocked() const { return is_blocked_; }
    /// The tensor where it came as one, else undefined: images in blocks have no past.
    [[nodiscard]] KTensor with_past() const { return is_blocked_ ? KTensor() : tensor_; }
    [[nodiscard]] const KTensor& tensor() const;
    [[nodiscard]] const nn::BlockedImage& image() const;

  private:
    mutable KTensor tensor_;
    mutable std::optional<nn::BlockedImage> image_;
    bool is_blocked_ = false;
};

namespace detail {

/// What a form of an operation that is quicker throws for operands that are not for it: the plain form serves them, or
/// refuses them in its own words.
ORNIK_API bool is_refusal(const std::exception& error);
ORNIK_API bool is_shortage(const std::exception& error);

/// make(), or nothing where operands are refused or memory is short.
template <typename Make>
auto unless_refused(const Make& make) -> decltype(make()) {
    try {
        return make();
    } catch (const std::exception& error) {
        if (!is_refusal(error) && !is_shortage(error)) {
            throw;
        }
        return {};
    }
}

}  // namespace detail

}  // namespace ornik
