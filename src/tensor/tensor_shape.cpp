// tensor_shape.cpp: broadcasting, views of a tensor under another shape, and what copies when no view exists.
#include "tensor/tensor_shape.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <numeric>

#include "descriptors/offset_calculator.h"
#include "hardware/cpu/index/cpu_indexing.h"
#include "tensor/broadcast.h"
#include "tensor/checks.h"
#include "tensor/geometry.h"
#include "tensor/make_tensor.h"
#include "utils/shape_rules.h"
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
    check_given(where("ornik::Tensor::broadcast"), a, b);
    const Dims shape = infer_size_impl(a->Shape(), b->Shape());
    std::unique_ptr<Tensor> view_a = expanded_view(a, shape);
    std::unique_ptr<Tensor> view_b = expanded_view(b, shape);
    std::vector<Tensor*> views(2);
    views[0] = view_a.release();
    views[1] = view_b.release();
    return views;
}

Tensor* Tensor::broadcast_to(const Tensor* t, const Dims& shape) {
    check_given(where("ornik::Tensor::broadcast_to"), t);
    just_if_broadcastable(t->Shape(), shape);
    return expanded_view(t, shape).release();
}

namespace {

// A view of t with another geometry; the offset moves by `start` elements.
std::unique_ptr<Tensor> share(const Tensor* t, const Dims& shape, const Dims& strides, std::int64_t start = 0) {
    return std::unique_ptr<Tensor>(
        share_storage_tensor(t->getStorage(), shape, strides, t->Dtype(), t->StorageOffset() + start));
}

// Null when the strides admit no view.
std::unique_ptr<Tensor> view_or_null(const Tensor* t, const Dims& shape) {
    const Dims strides = view_strides(t->Shape(), t->Strides(), t->Size(), shape);
    return strides.empty() ? nullptr : share(t, shape, strides);
}

// New contiguous elements for a tensor that goes to `shape`; see reshape_ for fewer than two elements. What is there
// to copy is counted by t's shape.
std::unique_ptr<Tensor> elements_for(const Where& at, const Tensor* t, const Dims& shape, std::int64_t numel) {
    check_operands(at, t);
    const std::int64_t present = checked_numel(at, t->Shape());
    if (numel == present) {
        return std::unique_ptr<Tensor>(t->clone());
    }
    if (present == 0) {
        return std::unique_ptr<Tensor>(Tensor::zeros(shape, t->Device(), t->Dtype()));
    }
    std::unique_ptr<Tensor> result(Tensor::empty(shape, t->Device(), t->Dtype()));
    copy_tensor(share(t, shape, Dims(shape.size(), 0)).get(), result.get());
    return result;
}

}  // namespace

Tensor* view_tensor(const Tensor* t, const Dims& shape) {
    check_given(where("ornik::view_tensor"), t);
    const Dims strides = view_strides(t->Shape(), t->Strides(), t->Size(), shape);
    if (strides.empty()) {
        fail(where("ornik::view_tensor"), "Can not view this tensor.");
    }
    return view_tensor(t->getStorage(), shape, strides, t->Device(), t->Dtype(), t->StorageOffset());
}

Tensor* view(const Tensor* t, const Dims& shape) {
    check_given(where("ornik::view"), t);
    std::unique_ptr<Tensor> result = view_or_null(t, shape);
    if (!result) {
        fail(where("ornik::view"),
             "Target view shape is not compatible with input tensor's size and stride (at least one dimension spans "
             "across two contiguous subspaces). Use .reshape(...) instead.");
    }
    return result.release();
}

Tensor* reshape(const Tensor* t, const Dims& shape) {
    check_given(where("ornik::reshape"), t);
    std::unique_ptr<Tensor> result = view_or_null(t, shape);
    if (!result) {
        result.reset(t->clone());
        result->reshape_(shape);
    }
    return result.release();
}

Tensor* reshape_copy(const Tensor* t, const Dims& shape) {
    check_given(where("ornik::reshape_copy"), t);
    return t->reshape_copy(shape);
}

Tensor* Tensor::view(const Dims& shape) const { return ornik::view(this, infer_final_reshape(shape, shape_, size_)); }

Tensor* Tensor::reshape(const Dims& shape) const {
    return ornik::reshape(this, infer_final_reshape(shape, shape_, size_));
}

// Takes over a contiguous storage that holds the elements of `shape`.
void Tensor::adopt(const std::shared_ptr<tensorT::Tensor_storage>& storage, const Dims& shape) {
    const std::int64_t numel = checked_numel(where("ornik::Tensor::adopt"), shape);
    assert(numel <= storage->byte_size() / itemsize());
    set_geometry(shape, shape2stride(shape), numel);
    meta_->setStorage(storage);
    meta_->SetOffset(0);
}

void Tensor::reshape_(const Dims& shape) {
    const Where at = where("ornik::Tensor::reshape_");
    check_new_shape(shape);
    const Dims strides = view_strides(shape_, strides_, size_, shape);
    const std::int64_t numel = checked_numel(at, shape);
    if (!strides.empty() && (numel == size_ || shape_.empty())) {
        check_inside(at, shape, strides, StorageOffset(), dtype_, borrow_storage());
        set_geometry(shape, strides, numel);
        return;
    }
    adopt(elements_for(at, this, shape, numel)->getStorage(), shape);
}

Tensor* Tensor::reshape_copy(const Dims& shape) const {
    const Where at = where("ornik::Tensor::reshape_copy");
    check_new_shape(shape);
    std::unique_ptr<Tensor> result = elements_for(at, this, shape, checked_numel(at, shape));
    result->adopt(result->getStorage(), shape);
    return result.release();
}

Tensor* Tensor::flatten(int start, int end) const {
    const auto first = static_cast<std::size_t>(maybe_wrap_dim(start, ndim_));
    const auto last = static_cast<std::size_t>(maybe_wrap_dim(end, ndim_));
    if (first > last) {
        fail(where("ornik::Tensor::flatten"), "Not correct dim for flatten.");
    }
    if (shape_.empty()) {
        return reshape({1});
    }
    std::uint32_t joined = 1;  // The product of 32-bit values.
    for (std::size_t i = first; i <= last; ++i) {
        joined *= static_cast<std::uint32_t>(shape_[i]);
    }
    Dims shape(shape_.begin(), shape_.begin() + static_cast<std::ptrdiff_t>(first));
    shape.push_back(static_cast<std::int32_t>(joined));
    shape.insert(shape.end(), shape_.begin() + static_cast<std::ptrdiff_t>(last) + 1, shape_.end());
    return reshape(shape);
}

void Tensor::flatten_() { reshape_({-1}); }

Tensor* permute(const Tensor* t, const std::vector<int>& dims) {
    const Where at = where("ornik::permute");
    check_given(at, t);
    const auto rank = static_cast<std::size_t>(t->ndim());
    if (dims.size() != rank) {
        fail(at, "permute size ", dims.size(), " not equal to tensor shape ", rank);
    }
    std::vector<bool> taken(rank);
    for (const int dim : dims) {
        const auto axis = static_cast<std::size_t>(maybe_wrap_dim(dim, t->ndim()));
        if (taken[axis]) {
            fail(at, "dim ", dim, " is not valid ");
        }
        taken[axis] = true;
    }
    return share(t, gather_dims(t->Shape(), dims), gather_dims(t->Strides(), dims)).release();
}

Tensor* Tensor::permute(const std::vector<int>& dims) const { return ornik::permute(this, dims); }

Tensor* Tensor::transpose() const {
    if (ndim_ < 2) {
        fail(where("ornik::Tensor::transpose"), "shape < 2, can not transpose.");
    }
    std::vector<int> order(shape_.size());
    std::iota(order.rbegin(), order.rend(), 0);
    return permute(order);
}

Tensor* Tensor::swapaxis(int a, int b) const {
    const auto refuse = [] {
        fail(ErrorKind::index, where("ornik::Tensor::swapaxis"), "Invalid axis,axis should >=0 ");
    };
    if (a < -1 || b < -1) {
        refuse();
    }
    std::vector<int> order(shape_.size());
    std::iota(order.begin(), order.end(), 0);
    if (a != b) {
        if (std::min(a, b) < 0 || std::max(a, b) >= ndim_) {
            refuse();
        }
        std::swap(order[static_cast<std::size_t>(a)], order[static_cast<std::size_t>(b)]);
    }
    return permute(order);
}

namespace {

void check_squeeze_axis(const Where& at, int axis, int rank) {
    if (axis > rank - 1) {
        fail(at, "Number of dimensions exceeded (", axis, " >= ", rank, ").");
    }
    if (axis < -1) {
        fail(ErrorKind::index, at, "The axis must be greater or equal than zero; ");
    }
}

std::unique_ptr<Tensor> without_axes(const Tensor* t, const std::vector<bool>& dropped) {
    Dims shape;
    Dims strides;
    for (std::size_t i = 0; i < dropped.size(); ++i) {
        if (!dropped[i]) {
            shape.push_back(t->Shape()[i]);
            strides.push_back(t->Strides()[i]);
        }
    }
    return std::unique_ptr<Tensor>(
        view_tensor(t->getStorage(), shape, strides, t->Device(), t->Dtype(), t->StorageOffset()));
}

}  // namespace

Tensor* Tensor::squeeze() const {
    std::vector<bool> dropped;
    for (const std::int64_t extent : shape_) {
        dropped.push_back(extent == 1);
    }
    return without_axes(this, dropped).release();
}

Tensor* Tensor::squeeze(int axis) const {
    check_squeeze_axis(where("compute_squeeze"), axis, ndim_);
    std::vector<bool> dropped(shape_.size());
    if (axis >= 0) {
        const auto index = static_cast<std::size_t>(axis);
        dropped[index] = shape_[index] == 1;
    }
    return without_axes(this, dropped).release();
}

Tensor* Tensor::squeeze(const std::vector<int>& axes) const {
    const Where at = where("compute_squeeze");
    std::vector<bool> dropped(shape_.size());
    for (const int axis : axes) {
        check_squeeze_axis(at, axis, ndim_);
        if (axis == -1) {
            continue;
        }
        const auto index = static_cast<std::size_t>(axis);
        if (shape_[index] != 1) {
            fail(at, "The dimension of squeeze axis of input must be 1; ");
        }
        dropped[index] = true;
    }
    return without_axes(this, dropped).release();
}

Tensor* Tensor::unsqueeze(int axis) const {
    const Where at = where("compute_unsqueeze");
    if (axis > ndim_) {
        fail(at, "Number of dimensions exceeded (", axis, " >= ", ndim_, ").");
    }
    if (axis < 0) {
        fail(ErrorKind::index, at, "The axis must be greater or equal than zero");
    }
    const auto index = static_cast<std::size_t>(axis);
    Dims shape = shape_;
    Dims strides = strides_;
    // What the row-major stride of the new axis would be.
    const std::int64_t step = index < shape_.size() ? shape_[index] * strides_[index] : 1;
    shape.insert(shape.begin() + axis, 1);
    strides.insert(strides.begin() + axis, step);
    return view_tensor(getStorage(), shape, strides, device_, dtype_, StorageOffset());
}

Tensor* view_as_real(const Tensor* t) {
    check_given(where("ornik::view_as_real"), t);
    if (!t->isComplexType()) {
        fail(ErrorKind::dtype, where("ornik::view_as_real"), "'view_as_real' only supports complex.");
    }
    Dims shape = t->Shape();
    Dims strides = t->Strides();
    for (std::int64_t& stride : strides) {
        stride *= 2;
    }
    shape.push_back(2);
    strides.push_back(1);
    const std::int64_t part = t->Dtype() == dtype::complex64 ? dtype::float32 : dtype::float64;
    return share_storage_tensor(t->getStorage(), shape, strides, part, 2 * t->StorageOffset());
}

Tensor* view_as_complex(const Tensor* t) {
    const Where at = where("ornik::view_as_complex");
    check_given(at, t);
    if (!t->isFloatingType()) {
        fail(ErrorKind::dtype, at, "'view_as_complex' only supports float32 and float64.");
    }
    Dims shape = t->Shape();
    Dims strides = t->Strides();
    if (shape.empty() || shape.back() != 2 || strides.back() != 1) {
        fail(at, "'view_as_complex' needs a last axis of 2 neighbouring elements: shape ", shape, ", strides ",
             strides);
    }
    shape.pop_back();
    strides.pop_back();
    bool even = t->StorageOffset() % 2 == 0;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        even = even && (shape[i] < 2 || strides[i] % 2 == 0);
        strides[i] /= 2;
    }
    if (!even) {
        fail(at, "'view_as_complex' needs even strides and an even offset: strides ", t->Strides(), ", offset ",
             t->StorageOffset());
    }
    const std::int64_t whole = t->Dtype() == dtype::float32 ? dtype::complex64 : dtype::complex128;
    return share_storage_tensor(t->getStorage(), shape, strides, whole, t->StorageOffset() / 2);
}

Tensor* Tensor::flip(const std::vector<int>& dims) const {
    std::vector<bool> reversed(shape_.size());
    for (const int dim : dims) {
        const int axis = maybe_wrap_dim(dim, ndim_);
        if (!shape_.empty()) {
            reversed[static_cast<std::size_t>(axis)] = true;
        }
    }
    std::unique_ptr<Tensor> result(empty(shape_, device_, dtype_));
    Dims strides = strides_;
    std::int64_t start = 0;
    for (std::size_t i = 0; i < strides.size(); ++i) {
        if (reversed[i] && shape_[i] > 1) {
            start += (shape_[i] - 1) * strides[i];
            strides[i] = -strides[i];
        }
    }
    copy_tensor(share(this, shape_, strides, start).get(), result.get());
    return result.release();
}

Tensor* Tensor::diagonal(std::int64_t offset, int dim1, int dim2) const {
    const Where at = where("ornik::Tensor::diagonal");
    if (ndim_ < 1) {
        fail(at, "input should be at least 1d\n");
    }
    check_extents(at, shape_);
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

namespace {

void check_joinable(const Where& at, const std::vector<Tensor*>& tensors, int axis) {
    const Tensor* first = tensors.front();
    for (std::size_t i = 1; i < tensors.size(); ++i) {
        const Tensor* t = tensors[i];
        if (t->Device() != first->Device()) {
            fail(ErrorKind::device, at, "All tensors must be on the same device");
        }
        if (t->Dtype() != first->Dtype()) {
            fail(ErrorKind::dtype, at, "All tensors must be on the same data type");
        }
        if (t->ndim() != first->ndim()) {
            fail(at, "The number of dimensions of all tensors must match (", first->ndim(), " != ", t->ndim(), ").");
        }
        const auto joined = static_cast<std::size_t>(maybe_wrap_dim(axis, first->ndim()));
        for (std::size_t d = 0; d < first->Shape().size(); ++d) {
            if (d != joined && t->Shape()[d] != first->Shape()[d]) {
                fail(at, "The dimensions across of all tensors must match (", first->Shape()[d], " != ", t->Shape()[d],
                     ").");
            }
        }
    }
}

void check_no_null(const Where& at, const std::vector<Tensor*>& tensors) {
    if (std::find(tensors.begin(), tensors.end(), nullptr) != tensors.end()) {
        fail(at, "A tensor of the list is null.");
    }
}

}  // namespace

Tensor* concat(const std::vector<Tensor*>& tensors, unsigned axis) {
    const Where at = where("ornik::concat");
    if (tensors.empty()) {
        fail(at, "Concat requires a minimum of one tensors");
    }
    check_no_null(at, tensors);
    const Tensor* first = tensors.front();
    if (tensors.size() == 1) {
        return first->clone();
    }
    check_joinable(at, tensors, static_cast<int>(axis));
    if (axis >= static_cast<unsigned>(first->ndim())) {
        fail(ErrorKind::index, at, "input axis: ", axis, " is larger than max dim ", first->ndim());
    }
    Dims shape = first->Shape();
    shape[axis] = 0;
    for (const Tensor* t : tensors) {
        shape[axis] += t->Shape()[axis];
    }
    std::unique_ptr<Tensor> result(Tensor::empty(shape, first->Device(), first->Dtype()));
    if (!result->is_contiguous()) {
        fail(at, "concat output must be contiguous.");
    }
    std::int64_t start = 0;
    for (const Tensor* t : tensors) {
        if (t->Size() > 0) {
            const std::unique_ptr<Tensor> slab = share(result.get(), t->Shape(), result->Strides(), start);
            copy_tensor(t, slab.get());
        }
        start += t->Shape()[axis] * result->Strides()[axis];
    }
    return result.release();
}

Tensor* stack(const std::vector<Tensor*>& tensors, unsigned axis) {
    const Where at = where("ornik::stack");
    if (tensors.size() < 2) {
        fail(at, "Stack requires a minimum of two tensors");
    }
    check_no_null(at, tensors);
    const Tensor* first = tensors.front();
    const int stacked_dim = first->ndim() + 1;
    const int position = maybe_wrap_dim(static_cast<int>(axis), stacked_dim);
    for (const Tensor* t : tensors) {
        if (t->Shape() != first->Shape()) {
            fail(at, "Inputs for stack() must have same shape");
        }
    }
    std::vector<std::unique_ptr<Tensor>> views;
    std::vector<Tensor*> widened;
    for (const Tensor* t : tensors) {
        views.push_back(std::unique_ptr<Tensor>(t->unsqueeze(position)));
        widened.push_back(views.back().get());
    }
    check_joinable(at, widened, position);
    if (position >= widened.front()->ndim()) {
        fail(ErrorKind::index, at, "The axis ", position, "must smaller than stacked tensor's dim ",
             widened.front()->ndim());
    }
    return concat(widened, static_cast<unsigned>(position));
}

namespace {

// What tile and its gradient work on: each repeated axis of extent s as the two axes [repetitions, s], without those
// of extent 1.
struct TileAxes {
    Dims shape;    // of the result: [..., r, s, ...]
    Dims strides;  // of the tensor that is repeated, 0 along the repetitions

    TileAxes(const Dims& input_shape, const Dims& input_strides, const std::vector<int>& reps) {
        const std::size_t rank = std::max(input_shape.size(), reps.size());
        for (std::size_t i = 0; i < rank; ++i) {
            const std::size_t back = rank - i;  // Both lists are aligned at their ends.
            const std::int64_t times = back <= reps.size() ? reps[reps.size() - back] : 1;
            if (times > 1) {
                shape.push_back(times);
                strides.push_back(0);
            }
            const std::int64_t extent = back <= input_shape.size() ? input_shape[input_shape.size() - back] : 1;
            if (extent > 1) {
                shape.push_back(extent);
                strides.push_back(input_strides[input_shape.size() - back]);
            }
        }
    }
};

// tile for more axes than a copy can have: one repeated axis after the other, the last one first.
std::unique_ptr<Tensor> tile_by_axis(const Tensor* t, const Dims& shape, const std::vector<int>& reps) {
    std::unique_ptr<Tensor> tiled(t->clone());
    std::int64_t inner = 1;  // Elements of the result from this axis on.
    for (std::size_t back = 1; back <= shape.size(); ++back) {
        inner *= shape[shape.size() - back];
        const std::int64_t times = back <= reps.size() ? reps[reps.size() - back] : 1;
        if (times > 1) {
            const std::int64_t once = inner / times;
            const Dims repeated{tiled->Size() / once, times, once};
            std::unique_ptr<Tensor> result(Tensor::empty(repeated, t->Device(), t->Dtype()));
            copy_tensor(share(tiled.get(), repeated, {once, 0, 1}).get(), result.get());
            tiled = std::move(result);
        }
    }
    return share(tiled.get(), shape, shape2stride(shape));
}

// infer_tile_shape, with an error for an extent that does not fit into its 32-bit product.
Dims checked_tile_shape(const Where& at, const Dims& shape, const std::vector<int>& reps) {
    Dims result = infer_tile_shape(shape, reps);
    for (std::size_t back = 1; back <= std::min(shape.size(), reps.size()); ++back) {
        const std::int64_t extent = shape[shape.size() - back];
        const std::int64_t times = reps[reps.size() - back];
        if (result[result.size() - back] / times != extent || result[result.size() - back] % times != 0) {
            fail(at, "Too many elements for a tensor: shape ", shape, " repeated ", times, " times.");
        }
    }
    return result;
}

}  // namespace

Tensor* tile(const Tensor* t, const std::vector<int>& reps) {
    const Where at = where("ornik::tile");
    check_operands(at, t);
    const Dims shape = checked_tile_shape(at, t->Shape(), reps);
    const TileAxes axes(t->Shape(), t->Strides(), reps);
    if (axes.shape.size() > OffsetCalculator_cpu<std::int64_t>::max_dims) {
        return tile_by_axis(t, shape, reps).release();
    }
    std::unique_ptr<Tensor> result(Tensor::empty(shape, t->Device(), t->Dtype()));
    copy_tensor(share(t, axes.shape, axes.strides).get(),
                share(result.get(), axes.shape, shape2stride(axes.shape)).get());
    return result.release();
}

Tensor* TileGrad(const Tensor* grad, const Dims& input_shape, const std::vector<int>& reps) {
    const Where at = where("ornik::TileGrad");
    check_operands(at, grad);
    const Dims tiled = checked_tile_shape(at, input_shape, reps);
    if (grad->Shape() != tiled) {
        fail(at, "TileGrad needs a gradient of the tiled shape: gradient ", grad->Shape(), ", tiled ", tiled);
    }
    const TileAxes axes(input_shape, shape2stride(input_shape), reps);
    std::unique_ptr<Tensor> sum(grad->clone());
    std::int64_t outer = 1;
    std::int64_t inner = sum->Size();
    for (std::size_t i = 0; i < axes.shape.size(); ++i) {
        inner /= axes.shape[i];
        if (axes.strides[i] != 0) {
            outer *= axes.shape[i];
            continue;
        }
        std::unique_ptr<Tensor> folded(Tensor::empty({outer * inner}, grad->Device(), grad->Dtype()));
        device::cpu::AxisGroups all{axes.shape[i], {0, axes.shape[i]}, Dims(static_cast<std::size_t>(axes.shape[i]))};
        std::iota(all.members.begin(), all.members.end(), 0);
        device::cpu::sum_groups(sum.get(), outer, all, inner, folded.get());
        sum = std::move(folded);
    }
    sum->reshape_(input_shape);
    return sum.release();
}

namespace {

// The elements in row-major order under another shape; there may be none.
Tensor* row_major(const Tensor* t, const Dims& shape) {
    std::unique_ptr<Tensor> result = make_output(shape, t);
    copy_tensor(t, result.get());
    return result.release();
}

void check_rank(const Where& at, const Dims& shape, std::size_t rank) {
    if (shape.size() != rank) {
        fail(at, "Input should have ", rank, " dimensions, its shape is ", shape);
    }
}

}  // namespace

Tensor* permute_12_reshape_b_n_embed_dims(const Tensor* x) {
    const Where at = where("ornik::permute_12_reshape_b_n_embed_dims");
    check_operands(at, x);
    const Dims& shape = x->Shape();
    check_rank(at, shape, 4);
    const std::unique_ptr<Tensor> tokens_first(x->permute({0, 2, 1, 3}));
    return row_major(tokens_first.get(), {shape[0], shape[2], shape[1] * shape[3]});
}

Tensor* permute_12_reshape_b_n_embed_dims_grad(const Tensor* grad, const Dims& input_shape) {
    const Where at = where("ornik::permute_12_reshape_b_n_embed_dims_grad");
    check_operands(at, grad);
    check_rank(at, input_shape, 4);
    const Dims merged{input_shape[0], input_shape[2], input_shape[1] * input_shape[3]};
    if (grad->Shape() != merged) {
        fail(at, "Gradient should have the shape ", merged, ", its shape is ", grad->Shape());
    }
    return reshape_permute_select(grad, static_cast<int>(input_shape[1]));
}

namespace {

// The axes of a projection [b, n, parts, heads, d] with one part picked, in the order [b, heads, n, d].
std::unique_ptr<Tensor> picked_heads(const Tensor* projection, int heads, int parts, int index) {
    const Dims& shape = projection->Shape();
    const std::int64_t depth = shape[2] / parts / heads;
    const Dims& strides = projection->Strides();
    return share(projection, {shape[0], heads, shape[1], depth},
                 {strides[0], depth * strides[2], strides[1], strides[2]}, index * heads * depth * strides[2]);
}

void check_part(const Where& at, int parts, int index) {
    if (parts < 1 || index < 0 || index >= parts) {
        fail(at, "Part ", index, " of ", parts, " does not exist.");
    }
}

}  // namespace

Tensor* reshape_permute_select(const Tensor* x, int heads, int parts, int index) {
    const Where at = where("ornik::reshape_permute_select");
    check_operands(at, x);
    check_rank(at, x->Shape(), 3);
    check_part(at, parts, index);
    if (heads < 1 || x->Shape()[2] % (std::int64_t{heads} * parts) != 0) {
        fail(at, "The last axis of shape ", x->Shape(), "can not be cut into ", parts, " parts of ", heads, " heads.");
    }
    const std::unique_ptr<Tensor> picked = picked_heads(x, heads, parts, index);
    return row_major(picked.get(), picked->Shape());
}

Tensor* reshape_permute_select_grad(const Tensor* grad, int parts, int index) {
    const Where at = where("ornik::reshape_permute_select_grad");
    check_operands(at, grad);
    const Dims& shape = grad->Shape();
    check_rank(at, shape, 4);
    check_part(at, parts, index);
    const Dims projection{shape[0], shape[2], parts * shape[1] * shape[3]};
    std::unique_ptr<Tensor> result = make_output(projection, grad);
    if (parts > 1) {
        result->fill_(0);
    }
    copy_tensor(grad, picked_heads(result.get(), static_cast<int>(shape[1]), parts, index).get());
    return result.release();
}

}  // namespace ornik
