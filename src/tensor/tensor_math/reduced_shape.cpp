#include "reduced_shape.h"

#include <algorithm>

namespace ornik {

namespace {

bool holds(const std::vector<int>& axes, std::size_t axis) {
    return std::binary_search(axes.begin(), axes.end(), static_cast<int>(axis));
}

}  // namespace

TensorResult expanded_over(const Where& at, const Tensor* t, const Dims& whole, const std::vector<int>& axes,
                           bool keep_dims) {
    Dims expected;
    Dims strides;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        const bool reduced = holds(axes, i);
        const std::size_t position = expected.size();
        const bool has_position = !reduced || keep_dims;
        strides.push_back(reduced || position >= t->Strides().size() ? 0 : t->Strides()[position]);
        if (has_position) {
            expected.push_back(reduced ? 1 : whole[i]);
        }
    }
    if (t->Shape() != expected) {
        fail(at, "The gradient has a shape of ", t->Shape(), ", the result has a shape of ", expected);
    }
    return new_view(t, whole, strides);
}

TensorResult reduced_axes_behind(const Tensor* t, const std::vector<int>& axes) {
    Dims shape;
    Dims strides;
    for (const bool reduced : {false, true}) {
        for (std::size_t i = 0; i < t->Shape().size(); ++i) {
            if (holds(axes, i) == reduced) {
                shape.push_back(t->Shape()[i]);
                strides.push_back(t->Strides()[i]);
            }
        }
    }
    return new_view(t, shape, strides);
}

TensorResult reduced_axis_last(const Tensor* t, const std::vector<int>& axes) {
    const TensorResult view = reduced_axes_behind(t, axes);
    std::int64_t kept = 1;
    std::int64_t reduced = 1;
    for (std::size_t i = 0; i < t->Shape().size(); ++i) {
        (holds(axes, i) ? reduced : kept) *= t->Shape()[i];
    }
    TensorResult result = new_result({kept, reduced}, t->Dtype());
    device::cpu::copy(view.get(), result.get());
    return result;
}

}  // namespace ornik
