// indexing.cpp: slices and elements along one axis.
#include "tensor/tensor_math/indexing.h"

#include "hardware/cpu/index/cpu_index.h"
#include "index_checks.h"
#include "results.h"
#include "slices.h"
#include "tensor/overlap.h"

namespace ornik {

namespace {

// ---- Slices of one axis ----

// A checked index_select or index_add: the positions, and the shape of the selected slices.
struct Selection {
    int axis;
    TensorResult positions;
    Dims shape;
};

Selection select_axis(const Where& at, const Dims& shape, int axis, const Tensor* index) {
    Selection selection{maybe_warp_dim(axis, static_cast<int>(shape.size())), as_positions(at, index), shape};
    if (index->ndim() > 1) {
        fail(at, "Index should have at most one axis, it has a shape of ", index->Shape());
    }
    std::int64_t& extent = selection.shape[static_cast<std::size_t>(selection.axis)];
    check_positions(at, selection.positions.get(), extent);
    extent = index->Size();
    return selection;
}

device::cpu::SliceWalk walk_of(const Selection& selection, const Tensor* x, const Tensor* other) {
    IndexedAxes indexed(x->Shape().size());
    indexed.axes[static_cast<std::size_t>(selection.axis)] = selection.positions.get();
    return slice_walk(indexed, x, other, {selection.positions->Size()}, static_cast<std::size_t>(selection.axis));
}

void add_checked(const Selection& selection, Tensor* x, const Tensor* source) {
    device::cpu::put_slices(walk_of(selection, x, source), true);
}

Selection check_index_add(const Where& at, const Tensor* x, int axis, const Tensor* index, const Tensor* source) {
    check_cpu(at, x, source);
    Selection selection = select_axis(at, x->Shape(), axis, index);
    check_source(at, x, source, selection.shape);
    return selection;
}

// ---- One index per element ----

struct Places {
    int axis;
    TensorResult positions;
};

Places check_places(const Where& at, const Dims& shape, int axis, const Tensor* index) {
    Places places{maybe_warp_dim(axis, static_cast<int>(shape.size())), as_positions(at, index)};
    bool fits = index->Shape().size() == shape.size();
    for (std::size_t i = 0; fits && i < shape.size(); ++i) {
        fits = static_cast<int>(i) == places.axis || index->Shape()[i] <= shape[i];
    }
    if (!fits) {
        fail(at, "Index has a shape of ", index->Shape(), ", which does not fit into ", shape);
    }
    check_positions(at, places.positions.get(), shape[static_cast<std::size_t>(places.axis)]);
    return places;
}

Places check_scatter(const Where& at, const Tensor* x, int axis, const Tensor* index, const Tensor* source) {
    check_cpu(at, x, source);
    Places places = check_places(at, x->Shape(), axis, index);
    check_source(at, x, source, index->Shape());
    return places;
}

Tensor* scattered(const Where& at, const Tensor* x, int axis, const Tensor* index, const Tensor* source,
                  bool accumulate) {
    const Places places = check_scatter(at, x, axis, index, source);
    TensorResult result = row_major_copy(x);
    device::cpu::scatter(places.positions.get(), source, result.get(), places.axis, accumulate);
    return result.release();
}

void scatter_into(const Where& at, Tensor* x, int axis, const Tensor* index, const Tensor* source, bool accumulate) {
    const Places places = check_scatter(at, x, axis, index, source);
    check_not_expanded(at, x);
    const TensorResult apart_positions = apart_from(places.positions.get(), x);
    const TensorResult apart_source = apart_from(source, x);
    announce_write(at, x);
    device::cpu::scatter(apart_positions.get(), apart_source.get(), x, places.axis, accumulate);
}

void check_gradient(const Where& at, const Tensor* grad) {
    check_cpu(at, grad);
    check_dtype(at, is_float_or_complex(grad));
}

}  // namespace

void check_source(const Where& at, const Tensor* x, const Tensor* source, const Dims& shape) {
    if (!Tensor::sameDtype(x, source)) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    if (source->Shape() != shape) {
        fail(at, "The source has a shape of ", source->Shape(), ", the indexed elements have a shape of ", shape);
    }
}

TensorResult apart_from(const Tensor* t, const Tensor* x) {
    return memory_overlap(t, x) == Overlap::none ? new_view(t, t->Shape(), t->Strides()) : row_major_copy(t);
}

Tensor* index_select(Tensor* x, int axis, Tensor* index) {
    const Where at = where("ornik::index_select");
    check_cpu(at, x);
    const Selection selection = select_axis(at, x->Shape(), axis, index);
    TensorResult result = new_result(selection.shape, x->Dtype());
    device::cpu::take_slices(walk_of(selection, x, result.get()));
    return result.release();
}

Tensor* index_add(Tensor* x, int axis, Tensor* index, Tensor* source) {
    const Selection selection = check_index_add(where("ornik::index_add"), x, axis, index, source);
    TensorResult result = row_major_copy(x);
    add_checked(selection, result.get(), source);
    return result.release();
}

void index_add_(Tensor* x, int axis, Tensor* index, Tensor* source) {
    const Where at = where("ornik::index_add_");
    const Selection selection = check_index_add(at, x, axis, index, source);
    check_not_expanded(at, x);
    const TensorResult apart_source = apart_from(source, x);
    announce_write(at, x);
    add_checked(selection, x, apart_source.get());
}

Tensor* index_select_grad(Tensor* grad, const Dims& shape, int axis, Tensor* index) {
    const Where at = where("ornik::index_select_grad");
    check_gradient(at, grad);
    const Selection selection = select_axis(at, shape, axis, index);
    check_source(at, grad, grad, selection.shape);
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    add_checked(selection, result.get(), grad);
    return result.release();
}

Tensor* take(Tensor* x, Tensor* index) {
    const Where at = where("ornik::take");
    check_cpu(at, x);
    const TensorResult positions = as_positions(at, index);
    check_positions(at, positions.get(), x->Size());
    const TensorResult copy = x->is_contiguous() ? nullptr : row_major_copy(x);
    const TensorResult flat = new_view(copy ? copy.get() : x, {x->Size()}, {1});
    TensorResult result = new_result(index->Shape(), x->Dtype());
    IndexedAxes indexed(1);
    indexed.axes[0] = positions.get();
    device::cpu::take_slices(slice_walk(indexed, flat.get(), result.get(), index->Shape(), 0));
    return result.release();
}

Tensor* take_grad(Tensor* grad, const Dims& shape, Tensor* index) {
    const Where at = where("ornik::take_grad");
    check_gradient(at, grad);
    const std::int64_t numel = checked_numel(at, shape);
    const TensorResult positions = as_positions(at, index);
    check_positions(at, positions.get(), numel);
    check_source(at, grad, grad, index->Shape());
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    const TensorResult flat = new_view(result.get(), {numel}, {1});
    const TensorResult source = row_major_copy(grad);
    IndexedAxes indexed(1);
    indexed.axes[0] = positions.get();
    device::cpu::put_slices(slice_walk(indexed, flat.get(), source.get(), index->Shape(), 0), true);
    return result.release();
}

Tensor* gather(Tensor* x, int axis, Tensor* index) {
    const Where at = where("ornik::gather");
    check_cpu(at, x);
    const Places places = check_places(at, x->Shape(), axis, index);
    TensorResult result = new_result(index->Shape(), x->Dtype());
    device::cpu::gather(x, places.positions.get(), result.get(), places.axis);
    return result.release();
}

Tensor* scatter(Tensor* x, int axis, Tensor* index, Tensor* source) {
    return scattered(where("ornik::scatter"), x, axis, index, source, false);
}

Tensor* scatter_add(Tensor* x, int axis, Tensor* index, Tensor* source) {
    return scattered(where("ornik::scatter_add"), x, axis, index, source, true);
}

void scatter_(Tensor* x, int axis, Tensor* index, Tensor* source) {
    scatter_into(where("ornik::scatter_"), x, axis, index, source, false);
}

void scatter_add_(Tensor* x, int axis, Tensor* index, Tensor* source) {
    scatter_into(where("ornik::scatter_add_"), x, axis, index, source, true);
}

Tensor* gather_grad(Tensor* grad, const Dims& shape, int axis, Tensor* index) {
    const Where at = where("ornik::gather_grad");
    check_gradient(at, grad);
    const Places places = check_places(at, shape, axis, index);
    check_source(at, grad, grad, index->Shape());
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    device::cpu::scatter(places.positions.get(), grad, result.get(), places.axis, true);
    return result.release();
}

Tensor* scatter_grad(Tensor* grad, int axis, Tensor* index) {
    const Where at = where("ornik::scatter_grad");
    check_gradient(at, grad);
    const Places places = check_places(at, grad->Shape(), axis, index);
    TensorResult result = row_major_copy(grad);
    const TensorResult zero = filled_result({}, grad->Dtype(), 0.0F);
    const TensorResult zeros = new_view(zero.get(), index->Shape(), Dims(index->Shape().size(), 0));
    device::cpu::scatter(places.positions.get(), zeros.get(), result.get(), places.axis, false);
    return result.release();
}

Tensor* scatter_source_grad(Tensor* grad, int axis, Tensor* index) {
    const Where at = where("ornik::scatter_source_grad");
    check_gradient(at, grad);
    const Places places = check_places(at, grad->Shape(), axis, index);
    TensorResult result = new_result(index->Shape(), grad->Dtype());
    device::cpu::scatter_source_grad(grad, places.positions.get(), result.get(), places.axis);
    return result.release();
}

}  // namespace ornik
