// axes.cpp: axes as users name them.
#include "ktensor/axes.h"

#include <algorithm>

#include "ktensor/impl.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik::autograd {

std::size_t wrap_axis(const char* operation, const KTensor& x, int axis) {
    const int rank = x.ndim();
    if (axis < -rank || axis >= rank) {
        fail(ErrorKind::index, where("ornik::KTensor"), operation, "(): ", describe(x), " has no axis ", axis, ".");
    }
    return static_cast<std::size_t>(axis < 0 ? axis + rank : axis);
}

std::vector<std::size_t> wrap_axes(const char* operation, const KTensor& x, const std::vector<int>& axes) {
    std::vector<std::size_t> result;
    result.reserve(axes.size());
    for (const int axis : axes) {
        const std::size_t wrapped = wrap_axis(operation, x, axis);
        if (std::find(result.begin(), result.end(), wrapped) != result.end()) {
            fail(ErrorKind::index, where("ornik::KTensor"), operation, "(): axis ", axis, " of ", describe(x),
                 " is named twice.");
        }
        result.push_back(wrapped);
    }
    return result;
}

namespace {

// The shape with extent 1 on the reduced axes, which have been checked.
Dims kept_shape(const Dims& shape, const std::vector<int>& axes) {
    if (axes.empty()) {
        return Dims(shape.size(), 1);
    }
    Dims kept = shape;
    const int rank = static_cast<int>(shape.size());
    for (const int axis : axes) {
        kept[static_cast<std::size_t>(axis < 0 ? axis + rank : axis)] = 1;
    }
    return kept;
}

}  // namespace

KTensor expand_reduced(const KTensor& reduced, const Dims& shape, const std::vector<int>& axes, bool keep_dims) {
    const KTensor kept = keep_dims ? reduced : reshape(reduced, kept_shape(shape, axes));
    return broadcast_to(kept, shape);
}

std::int64_t reduced_count(const Dims& shape, const std::vector<int>& axes) {
    const Dims kept = kept_shape(shape, axes);
    std::int64_t count = 1;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        count *= kept[i] == shape[i] ? 1 : shape[i];
    }
    return count;
}

}  // namespace ornik::autograd
