// tensor_shape.cpp: broadcasting, and views of a tensor under another shape.
#include <algorithm>
#include <memory>

#include "tensor/broadcast.h"
#include "tensor/geometry.h"
#include "tensor/tensor.h"
#include "utils/utils.h"

namespace ornik {

Dims infer_size_impl(const Dims& a, const Dims& b) {
    const std::size_t rank = std::max(a.size(), b.size());
    Dims result(rank);
    for (std::size_t i = rank; i-- > 0;) {
        const std::int64_t size_a = detail::aligned_entry(a, i, rank);
        const std::int64_t size_b = detail::aligned_entry(b, i, rank);
        if (size_a != size_b && size_a != 1 && size_b != 1) {
            fail(where("ornik::infer_size_impl"), "The size of tensor a (", size_a,
                 ") must match the size of tensor b (", size_b, ") at non-singleton dimension ", i);
        }
        result[i] = size_a == 1 ? size_b : size_a;
    }
    return result;
}

namespace {

std::unique_ptr<Tensor> expanded_view(const Tensor* t, const Dims& shape) {
    const auto [sizes, strides] = inferExpandGeometryImpl(t->Shape(), t->Strides(), shape);
    auto view = std::make_unique<Tensor>();
    view->init_none_tensor_with_shared_storage(sizes, strides, t->Dtype(), t->Device(), t->getStorage(), t->Layout(),
                                               t->StorageOffset());
    return view;
}

}  // namespace

std::vector<Tensor*> Tensor::broadcast(const Tensor* a, const Tensor* b) {
    const Dims shape = infer_size_impl(a->Shape(), b->Shape());
    std::unique_ptr<Tensor> view_a = expanded_view(a, shape);
    std::unique_ptr<Tensor> view_b = expanded_view(b, shape);
    std::vector<Tensor*> views(2);
    views[0] = view_a.release();
    views[1] = view_b.release();
    return views;
}

Tensor* Tensor::broadcast_to(const Tensor* t, const Dims& shape) {
    just_if_broadcastable(t->Shape(), shape);
    return expanded_view(t, shape).release();
}

Tensor* view_tensor(const Tensor* t, const Dims& shape) {
    const Dims strides = view_strides(t->Shape(), t->Strides(), t->Size(), shape);
    if (strides.empty()) {
        fail(where("ornik::view_tensor"), "Can not view this tensor.");
    }
    return view_tensor(t->getStorage(), shape, strides, t->Device(), t->Dtype(), t->StorageOffset());
}

Tensor* Tensor::diagonal(std::int64_t offset, int dim1, int dim2) const {
    const Where at = where("ornik::Tensor::diagonal");
    if (ndim_ < 1) {
        fail(at, "input should be at least 1d\n");
    }
    const auto first = static_cast<std::size_t>(maybe_wrap_dim(dim1, ndim_));
    const auto second = static_cast<std::size_t>(maybe_wrap_dim(dim2, ndim_));
    if (first == second) {
        fail(at, "diagonal needs two different axes, both are axis ", first, ".");
    }
    // The diagonal starts `offset` steps along dim2, or -offset steps along dim1, and moves one step
    // along both at a time. A displacement beyond the matrix leaves nothing.
    const std::int64_t skip_rows = -std::clamp<std::int64_t>(offset, -shape_[first], 0);
    const std::int64_t skip_cols = std::clamp<std::int64_t>(offset, 0, shape_[second]);
    const std::int64_t length = std::min(shape_[first] - skip_rows, shape_[second] - skip_cols);
    const std::int64_t start = length > 0 ? skip_rows * strides_[first] + skip_cols * strides_[second] : 0;
    Dims shape;
    Dims strides;
    for (std::size_t i = 0; i < shape_.size(); ++i) {
        if (i != first && i != second) {
            shape.push_back(shape_[i]);
            strides.push_back(strides_[i]);
        }
    }
    shape.push_back(length);
    strides.push_back(strides_[first] + strides_[second]);
    return view_tensor(getStorage(), shape, strides, device_, dtype_, StorageOffset() + start);
}

}  // namespace ornik
