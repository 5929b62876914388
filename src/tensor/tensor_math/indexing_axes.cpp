// indexing_axes.cpp: indexing several axes at once, and masks.
#include "hardware/cpu/index/cpu_index.h"
#include "indices.h"
#include "tensor/broadcast.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

namespace {

void check_mask(const Where& at, const Tensor* mask) {
    check_cpu(at, mask);
    if (!mask->isBool()) {
        fail(ErrorKind::dtype, at, "Mask should be a bool tensor");
    }
}

}  // namespace

Tensor* index_get(Tensor* x, const std::vector<Tensor*>& indices) {
    const Where at = where("ornik::index_get");
    check_cpu(at, x);
    const Indices checked(at, x->Shape(), indices);
    TensorResult result = new_result(checked.selected_shape(), x->Dtype());
    device::cpu::take_slices(checked.walk(x, result.get()));
    return result.release();
}

void index_put_(Tensor* x, const std::vector<Tensor*>& indices, Tensor* values, bool accumulate) {
    const Where at = where("ornik::index_put_");
    check_cpu(at, x, values);
    check_not_expanded(at, x);
    const Indices checked(at, x->Shape(), indices);
    if (!Tensor::sameDtype(x, values)) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    const TensorResult expanded(Tensor::broadcast_to(values, checked.selected_shape()));
    const TensorResult source = row_major_copy(expanded.get());
    const device::cpu::SliceWalk walk = checked.walk(x, source.get());
    announce_write(at, x);
    device::cpu::put_slices(walk, accumulate);
}

Tensor* index_get_grad(Tensor* grad, const Dims& shape, const std::vector<Tensor*>& indices) {
    const Where at = where("ornik::index_get_grad");
    check_cpu(at, grad);
    check_dtype(at, is_float_or_complex(grad));
    const Indices checked(at, shape, indices);
    check_source(at, grad, grad, checked.selected_shape());
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    const TensorResult source = row_major_copy(grad);
    device::cpu::put_slices(checked.walk(result.get(), source.get()), true);
    return result.release();
}

Tensor* index_put_grad(Tensor* grad, const std::vector<Tensor*>& indices) {
    const Where at = where("ornik::index_put_grad");
    check_cpu(at, grad);
    const Indices checked(at, grad->Shape(), indices);
    TensorResult result = row_major_copy(grad);
    checked.clear(result.get());
    return result.release();
}

Tensor* index_put_values_grad(Tensor* grad, const Dims& values_shape, const std::vector<Tensor*>& indices,
                              bool accumulate) {
    const Where at = where("ornik::index_put_values_grad");
    check_cpu(at, grad);
    const Indices checked(at, grad->Shape(), indices);
    return gradient_of_value(at, checked.taken(grad, !accumulate).get(), values_shape).release();
}

Tensor* masked_select(Tensor* x, Tensor* mask) {
    const Where at = where("ornik::masked_select");
    check_cpu(at, x);
    check_mask(at, mask);
    const Dims shape = infer_size_impl(x->Shape(), mask->Shape());
    const TensorResult whole_mask = truth_of(TensorResult(Tensor::broadcast_to(mask, shape)).get());
    TensorResult whole(Tensor::broadcast_to(x, shape));
    if (!whole->is_contiguous()) {
        whole = row_major_copy(whole.get());
    }
    const device::cpu::TrueRanks ranks = device::cpu::true_ranks(whole_mask.get());
    TensorResult result = new_result({ranks.count()}, x->Dtype());
    device::cpu::masked_take(whole.get(), whole_mask.get(), ranks, result.get());
    return result.release();
}

Tensor* masked_select_grad(Tensor* grad, const Dims& shape, Tensor* mask) {
    const Where at = where("ornik::masked_select_grad");
    check_cpu(at, grad);
    check_dtype(at, is_float_or_complex(grad));
    check_mask(at, mask);
    const Dims whole_shape = infer_size_impl(shape, mask->Shape());
    const TensorResult whole_mask = truth_of(TensorResult(Tensor::broadcast_to(mask, whole_shape)).get());
    const device::cpu::TrueRanks ranks = device::cpu::true_ranks(whole_mask.get());
    check_source(at, grad, grad, {ranks.count()});
    const TensorResult source = row_major_copy(grad);
    TensorResult whole = filled_result(whole_shape, grad->Dtype(), 0.0F);
    device::cpu::masked_put(source.get(), whole_mask.get(), ranks, whole.get());
    if (whole_shape == shape) {
        return whole.release();
    }
    // What was broadcast adds up.
    std::vector<int> repeated;
    const std::size_t lead = whole_shape.size() - shape.size();
    for (std::size_t i = 0; i < whole_shape.size(); ++i) {
        if (i < lead || shape[i - lead] != whole_shape[i]) {
            repeated.push_back(static_cast<int>(i));
        }
    }
    const TensorResult added(sum(whole.get(), repeated, true));
    TensorResult result = new_result(shape, grad->Dtype());
    device::cpu::copy(added.get(), result.get());
    return result.release();
}

Tensor* nonzero(Tensor* x) {
    check_cpu(where("ornik::nonzero"), x);
    return coordinates(true_positions_of(x).get(), x->Shape()).release();
}

}  // namespace ornik
