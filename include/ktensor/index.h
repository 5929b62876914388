// index.h: what stands between the brackets when elements are picked.
//
//     x.index({0, Slice(1, {}, 2), ellipsis, newaxis})   // x[0, 1::2, ..., None]
//     x.index({mask}), x.index({rows, columns})          // by bool and integer tensors
//
// Items stand for axes in order; the axes that none is left for are taken whole, at the end or where an ellipsis
// stands. Programs that build items one by one hand over a std::vector<Index>.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "../tensor/slices.h"  // before `ellipsis`, which its enumerator would shadow
#include "ktensor.h"

namespace ornik {

/// Positions begin, begin + step, ... before `end`. Negative bounds count from the end, and both are clipped to the
/// axis; what is left out is the end that a walk in the direction of the step comes from or goes to. Any step but 0.
struct Slice {
    using Bound = std::optional<std::int64_t>;

    Slice() = default;
    explicit Slice(Bound from, Bound to = {}, std::int64_t by = 1) : begin(from), end(to), step(by) {}

    Bound begin;
    Bound end;
    std::int64_t step = 1;
};

struct Ellipsis {};
struct NewAxis {};
/// As many whole axes as the other items leave; once among the items.
inline constexpr Ellipsis ellipsis;
/// An axis of extent 1 in the result.
inline constexpr NewAxis newaxis;

class Index {
  public:
    enum class Kind : std::uint8_t { position, slice, rest, new_axis, truth, tensor };

    /// A position, which drops its axis; negative ones count from the end.
    template <std::integral T>
    requires(!std::same_as<T, bool>) Index(T position)  // NOLINT(google-explicit-constructor)
        : kind_(Kind::position), position_(clipped(position)) {}
    /// All or nothing of a new axis.
    template <std::same_as<bool> T>
    Index(T truth) : kind_(Kind::truth), position_(truth ? 1 : 0) {}  // NOLINT
    Index(const Slice& slice) : kind_(Kind::slice), slice_(slice) {}  // NOLINT
    Index(Ellipsis /*rest*/) noexcept : kind_(Kind::rest) {}          // NOLINT
    Index(NewAxis /*axis*/) noexcept : kind_(Kind::new_axis) {}       // NOLINT
    /// Positions of any integer dtype, or a mask: a bool tensor, which stands for as many axes as it has.
    Index(KTensor tensor) noexcept : kind_(Kind::tensor), tensor_(std::move(tensor)) {}  // NOLINT

    Kind kind() const noexcept { return kind_; }
    std::int64_t position() const noexcept { return position_; }
    bool truth() const noexcept { return position_ != 0; }
    const Slice& slice() const noexcept { return slice_; }
    const KTensor& tensor() const noexcept { return tensor_; }

  private:
    // What 64 bits do not hold is beyond every axis.
    template <std::integral T>
    static constexpr std::int64_t clipped(T position) {
        constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
        if constexpr (std::unsigned_integral<T> && sizeof(T) == sizeof(most)) {
            return position > static_cast<T>(most) ? most : static_cast<std::int64_t>(position);
        } else {
            return position;
        }
    }

    Kind kind_;
    std::int64_t position_ = 0;
    Slice slice_;
    KTensor tensor_;
};

/// Items, for the length of a call.
class IndexList {
  public:
    IndexList(std::initializer_list<Index> items) : items_(items.begin(), items.size()) {}
    IndexList(const std::vector<Index>& items) : items_(items) {}        // NOLINT(google-explicit-constructor)
    IndexList(std::span<const Index> items) noexcept : items_(items) {}  // NOLINT(google-explicit-constructor)

    std::span<const Index> items() const noexcept { return items_; }

  private:
    std::span<const Index> items_;
};

}  // namespace ornik
