// carried.cpp: images in blocks and in planes.
#include "ktensor/carried.h"

#include <new>

#include "ktensor/impl.h"
#include "utils/error.h"

namespace ornik {

const KTensor& Carried::tensor() const {
    if (!tensor_.defined() && image_) {
        tensor_ = autograd::make_ktensor(image_->planes());
    }
    return tensor_;
}

const nn::BlockedImage& Carried::image() const {
    if (!image_) {
        image_.emplace(tensor_.tensor());
    }
    return *image_;
}

namespace detail {

bool is_refusal(const std::exception& error) {
    const auto* const refused = dynamic_cast<const Error*>(&error);
    return refused != nullptr && (refused->kind() == ErrorKind::argument || refused->kind() == ErrorKind::index ||
                                  refused->kind() == ErrorKind::dtype || refused->kind() == ErrorKind::device);
}

bool is_shortage(const std::exception& error) {
    const auto* const refused = dynamic_cast<const Error*>(&error);
    return dynamic_cast<const std::bad_alloc*>(&error) != nullptr ||
           (refused != nullptr && refused->kind() == ErrorKind::memory);
}

}  // namespace detail

}  // namespace ornik
