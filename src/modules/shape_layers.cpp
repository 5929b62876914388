// shape_layers.cpp: other shapes and resolutions.
#include "modules/shape_layers.h"

#include <cmath>

#include "arguments.h"
#include "ktensor/images.h"
#include "ktensor/shapes.h"

namespace ornik {

Flatten::Flatten(int start, int end) : start_(start), end_(end) {
    set_arguments(Arguments().add_unless("start", start, 1).add_unless("end", end, -1).text());
}

KTensor Flatten::forward(const KTensor& x) { return flatten(x, start_, end_); }

Unflatten::Unflatten(int axis, Dims extents) : axis_(axis), extents_(std::move(extents)) {
    if (extents_.empty()) {
        fail(where("ornik::Unflatten"), "Unflatten(): there are no extents.");
    }
    set_arguments(Arguments().add("axis", axis).add("extents", extents_).text());
}

KTensor Unflatten::forward(const KTensor& x) {
    const std::int64_t extent = x.size(axis_);  // Refuses axes that are not there.
    const std::int64_t place = axis_ < 0 ? axis_ + x.ndim() : axis_;
    Dims parts = extents_;
    std::int64_t product = 1;
    std::int64_t* open = nullptr;
    bool fits = true;
    for (std::int64_t& part : parts) {
        fits = fits && (part > 0 || (part == -1 && open == nullptr)) && (part == -1 || part <= extent / product);
        if (!fits) {
            break;
        }
        open = part == -1 ? &part : open;
        product *= part == -1 ? 1 : part;
    }
    fits = fits && (open != nullptr ? extent % product == 0 : extent == product);
    if (!fits) {
        fail(where("ornik::Unflatten"), "Unflatten(): ", extent, " elements do not fall into ", shape_text(extents_),
             ".");
    }
    if (open != nullptr) {
        *open = extent / product;
    }
    Dims shape = x.shape();
    shape.erase(shape.begin() + place);
    shape.insert(shape.begin() + place, parts.begin(), parts.end());
    return reshape(x, shape);
}

PixelShuffle::PixelShuffle(std::int64_t factor) : factor_(factor) {
    check_positive("PixelShuffle", {factor});
    set_arguments(Arguments().add("factor", factor).text());
}

KTensor PixelShuffle::forward(const KTensor& x) { return pixel_shuffle(x, factor_); }

PixelUnshuffle::PixelUnshuffle(std::int64_t factor) : factor_(factor) {
    check_positive("PixelUnshuffle", {factor});
    set_arguments(Arguments().add("factor", factor).text());
}

KTensor PixelUnshuffle::forward(const KTensor& x) { return pixel_unshuffle(x, factor_); }

Upsample::Upsample(std::array<std::int64_t, 2> size, const std::string& mode, bool align_corners)
    : size_(size), mode_(mode), align_corners_(align_corners) {
    check_positive("Upsample", {size[0], size[1]});
    set_arguments(Arguments().add("size", size).add("mode", mode).text());
}

Upsample::Upsample(double factor, const std::string& mode, bool align_corners)
    : factor_(factor), mode_(mode), align_corners_(align_corners) {
    if (!(factor > 0) || std::isinf(factor)) {
        fail(where("ornik::Upsample"), "Upsample(): a factor is above 0, not ", std::to_string(factor), ".");
    }
    set_arguments(Arguments().add("factor", factor).add("mode", mode).text());
}

KTensor Upsample::forward(const KTensor& x) {
    if (factor_ == 0) {
        return interpolate(x, {size_[0], size_[1]}, mode_, align_corners_);
    }
    const auto scaled = [&](int axis) {
        return static_cast<std::int64_t>(std::floor(static_cast<double>(x.size(axis)) * factor_));
    };
    return interpolate(x, {scaled(-2), scaled(-1)}, mode_, align_corners_);
}

}  // namespace ornik
