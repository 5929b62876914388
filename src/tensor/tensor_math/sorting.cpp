#include "tensor/tensor_math/sorting.h"

#include "hardware/cpu/axis/cpu_sort.h"
#include "hardware/cpu/index/cpu_index.h"
#include "index_checks.h"
#include "results.h"

namespace ornik {

namespace {

// Checks what sorting needs; returns the wrapped axis.
int check_sortable(const Where& at, const Tensor* x, int axis) {
    check_cpu(at, x);
    check_dtype(at, is_real(x));
    const int wrapped = maybe_warp_dim(axis, x->ndim());
    const std::int64_t extent = x->Shape()[static_cast<std::size_t>(wrapped)];
    if (extent >= device::cpu::max_sorted_extent) {
        fail(at, "Too many elements to sort: ", extent);
    }
    return wrapped;
}

std::vector<Tensor*> first_in_order(const Tensor* x, int axis, std::int64_t k, bool descending) {
    Dims shape = x->Shape();
    shape[static_cast<std::size_t>(axis)] = k;
    TensorResult values = new_result(shape, x->Dtype());
    TensorResult positions = new_result(shape, dtype::int64);
    device::cpu::sort(x, values.get(), positions.get(), axis, descending);
    return released(values, positions);
}

Dims as_rows(const Tensor* t) {
    const std::int64_t last = t->Shape().empty() ? 1 : t->Shape().back();
    return {last == 0 ? 0 : t->Size() / last, last};
}

}  // namespace

std::vector<Tensor*> sort(Tensor* x, int axis, bool descending) {
    const int wrapped = check_sortable(where("ornik::sort"), x, axis);
    return first_in_order(x, wrapped, x->Shape()[static_cast<std::size_t>(wrapped)], descending);
}

Tensor* argsort(Tensor* x, int axis, bool descending) {
    const int wrapped = check_sortable(where("ornik::argsort"), x, axis);
    TensorResult positions = new_result(x->Shape(), dtype::int64);
    device::cpu::sort(x, nullptr, positions.get(), wrapped, descending);
    return positions.release();
}

std::vector<Tensor*> topk(Tensor* x, std::int64_t k, int axis, bool largest) {
    const Where at = where("ornik::topk");
    const int wrapped = check_sortable(at, x, axis);
    const std::int64_t extent = x->Shape()[static_cast<std::size_t>(wrapped)];
    if (k < 0 || k > extent) {
        fail(at, "k is ", k, ", the axis has ", extent, " elements");
    }
    return first_in_order(x, wrapped, k, largest);
}

Tensor* sort_grad(Tensor* grad, Tensor* positions, const Dims& shape, int axis) {
    const Where at = where("ornik::sort_grad");
    check_cpu(at, grad, positions);
    check_dtype(at, is_float_or_complex(grad) && positions->Dtype() == dtype::int64);
    const int wrapped = maybe_warp_dim(axis, static_cast<int>(shape.size()));
    Dims expected = shape;
    if (!positions->Shape().empty() && positions->Shape().size() == shape.size()) {
        expected[static_cast<std::size_t>(wrapped)] = positions->Shape()[static_cast<std::size_t>(wrapped)];
    }
    if (grad->Shape() != expected || positions->Shape() != expected) {
        fail(at, "The gradient has a shape of ", grad->Shape(), ", the positions have a shape of ", positions->Shape(),
             ", the sorted tensor has a shape of ", shape);
    }
    check_positions(at, positions, shape[static_cast<std::size_t>(wrapped)]);
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    device::cpu::scatter(positions, grad, result.get(), wrapped, true);
    return result.release();
}

std::vector<Tensor*> unique(Tensor* x) {
    const Where at = where("ornik::unique");
    check_cpu(at, x);
    check_dtype(at, is_real(x));
    const TensorResult copy = row_major_copy(x);
    const TensorResult flat = new_view(copy.get(), {x->Size()}, {1});
    check_sortable(at, flat.get(), 0);
    const TensorResult sorted = new_result({x->Size()}, x->Dtype());
    const TensorResult places = new_result({x->Size()}, dtype::int64);
    device::cpu::sort(flat.get(), sorted.get(), places.get(), 0, false);
    const std::int64_t count = device::cpu::count_different(sorted.get());
    TensorResult values = new_result({count}, x->Dtype());
    TensorResult inverse = new_result(x->Shape(), dtype::int64);
    TensorResult counts = new_result({count}, dtype::int64);
    device::cpu::collect_different(sorted.get(), places.get(), values.get(), inverse.get(), counts.get());
    return released(values, inverse, counts);
}

Tensor* searchsorted(Tensor* sorted, Tensor* values, bool right) {
    const Where at = where("ornik::searchsorted");
    check_cpu(at, sorted, values);
    check_dtype(at, is_real(sorted));
    if (!Tensor::sameDtype(sorted, values)) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    const Dims& shape = sorted->Shape();
    const bool one_row = shape.size() == 1;
    if (!one_row) {
        const bool same_rank = shape.size() == values->Shape().size() && !shape.empty();
        if (!same_rank || !std::equal(shape.begin(), shape.end() - 1, values->Shape().begin())) {
            fail(at, "Incompatible shape: sorted has a shape of ", shape, ", values has a shape of ", values->Shape());
        }
    }
    const TensorResult rows_copy = row_major_copy(sorted);
    const TensorResult values_copy = row_major_copy(values);
    TensorResult result = new_result(values->Shape(), dtype::int64);
    const std::int64_t n = shape.back();
    const Dims value_rows = one_row ? Dims{1, values->Size()} : as_rows(values);
    const TensorResult rows = new_view(rows_copy.get(), {one_row ? 1 : value_rows[0], n}, {n, 1});
    const TensorResult value_view = new_view(values_copy.get(), value_rows, {value_rows[1], 1});
    device::cpu::search_sorted(rows.get(), value_view.get(), result.get(), right);
    return result.release();
}

}  // namespace ornik
