// reductions.cpp: reductions over axes.
#include "tensor/tensor_math/reductions.h"

#include <limits>

#include "hardware/cpu/axis/cpu_sort.h"
#include "hardware/cpu/reduce/cpu_reduce.h"
#include "reduced_shape.h"
#include "results.h"
#include "tensor/broadcast.h"

namespace ornik {

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

using Kernel = void (*)(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);

ReduceDescriptor plan_of(const Tensor* x, const std::vector<int>& wrapped, bool keep_dims,
                         ReduceOrder order = ReduceOrder::any) {
    return make_reduce_descriptor(x->Shape(), x->Strides(), wrapped, keep_dims, order);
}

// kernel(x) in a new tensor of `dtype`; `of_nothing` where no elements are reduced.
template <typename T, typename Run>
Tensor* reduced(const ReduceDescriptor& plan, std::int64_t dtype, T of_nothing, const Run& kernel) {
    if (plan.count == 0) {
        return filled_result(plan.result_shape, dtype, of_nothing).release();
    }
    TensorResult result = new_result(plan.result_shape, dtype);
    kernel(result.get());
    return result.release();
}

void check_some(const Where& at, const ReduceDescriptor& plan) {
    if (plan.count == 0) {
        fail(at, "Can not reduce no elements.");
    }
}

template <typename T>
Tensor* reduce_to(const Where& at, const Tensor* x, const std::vector<int>& axes, bool keep_dims, std::int64_t dtype,
                  T of_nothing, Kernel kernel) {
    check_cpu(x);
    const ReduceDescriptor plan = plan_of(x, reduce_axes(at, axes, x->ndim()), keep_dims);
    return reduced(plan, dtype, of_nothing, [&](Tensor* out) { kernel(plan, x, out); });
}

// Reductions of real numbers that need at least one of them.
Tensor* reduce_order(const Where& at, const Tensor* x, const std::vector<int>& axes, bool keep_dims, std::int64_t dtype,
                     ReduceOrder order, Kernel kernel) {
    check_cpu(x);
    check_dtype(at, is_real(x));
    const ReduceDescriptor plan = plan_of(x, reduce_axes(at, axes, x->ndim()), keep_dims, order);
    check_some(at, plan);
    return reduced(plan, dtype, 0.0F, [&](Tensor* out) { kernel(plan, x, out); });
}

Tensor* variance(const Where& at, const Tensor* x, const std::vector<int>& axes, double correction, bool keep_dims,
                 bool root) {
    check_cpu(x);
    check_dtype(at, is_real(x));
    const ReduceDescriptor plan = plan_of(x, reduce_axes(at, axes, x->ndim()), keep_dims);
    return reduced(plan, mean_dtype(x->Dtype()), nan,
                   [&](Tensor* out) { device::cpu::reduce_variance(plan, x, out, correction, root); });
}

}  // namespace

Tensor* sum(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::sum"), x, axes, keep_dims, total_dtype(x->Dtype()), 0.0F, device::cpu::reduce_sum);
}

Tensor* sum_to_shape(const Tensor* t, const Dims& shape) {
    check_cpu(t);
    if (t->Shape() == shape) {
        return new_view(t, shape, t->Strides()).release();
    }
    const Dims padded = just_if_broadcastable(shape, t->Shape());
    std::vector<int> axes;
    for (std::size_t i = 0; i < padded.size(); ++i) {
        if (padded[i] != t->Shape()[i]) {
            axes.push_back(static_cast<int>(i));
        }
    }
    if (axes.empty()) {  // Leading axes of extent 1.
        const auto lead = static_cast<std::ptrdiff_t>(padded.size() - shape.size());
        return new_view(t, shape, Dims(t->Strides().begin() + lead, t->Strides().end())).release();
    }
    ReduceDescriptor plan = plan_of(t, axes, true);
    plan.result_shape = shape;
    TensorResult total(
        reduced(plan, total_dtype(t->Dtype()), 0.0F, [&](Tensor* out) { device::cpu::reduce_sum(plan, t, out); }));
    if (total->Dtype() == t->Dtype()) {
        return total.release();
    }
    TensorResult result = new_result(shape, t->Dtype());
    device::cpu::copy(total.get(), result.get());
    return result.release();
}

Tensor* prod(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::prod"), x, axes, keep_dims, total_dtype(x->Dtype()), 1.0F, device::cpu::reduce_prod);
}

Tensor* mean(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::mean"), x, axes, keep_dims, mean_dtype(x->Dtype()), nan, device::cpu::reduce_mean);
}

Tensor* l2_norm(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::l2_norm"), x, axes, keep_dims, part_dtype(mean_dtype(x->Dtype())), 0.0F,
                     device::cpu::reduce_l2_norm);
}

Tensor* any(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::any"), x, axes, keep_dims, dtype::boolean, false, device::cpu::reduce_any);
}

Tensor* all(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::all"), x, axes, keep_dims, dtype::boolean, true, device::cpu::reduce_all);
}

Tensor* var(Tensor* x, const std::vector<int>& axes, double correction, bool keep_dims) {
    return variance(where("ornik::var"), x, axes, correction, keep_dims, false);
}

Tensor* std_dev(Tensor* x, const std::vector<int>& axes, double correction, bool keep_dims) {
    return variance(where("ornik::std_dev"), x, axes, correction, keep_dims, true);
}

Tensor* logsumexp(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    const Where at = where("ornik::logsumexp");
    check_dtype(at, x->isFloat());
    return reduce_to(at, x, axes, keep_dims, x->Dtype(), -std::numeric_limits<double>::infinity(),
                     device::cpu::reduce_log_sum_exp);
}

Tensor* trace(Tensor* x, std::int64_t offset, int dim1, int dim2) {
    check_cpu(x);
    const TensorResult diagonal(x->diagonal(offset, dim1, dim2));
    return sum(diagonal.get(), {-1}, false);
}

Tensor* max(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_order(where("ornik::max"), x, axes, keep_dims, x->Dtype(), ReduceOrder::any, device::cpu::reduce_max);
}

Tensor* min(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_order(where("ornik::min"), x, axes, keep_dims, x->Dtype(), ReduceOrder::any, device::cpu::reduce_min);
}

Tensor* argmax(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_order(where("ornik::argmax"), x, axes, keep_dims, dtype::int64, ReduceOrder::row_major,
                        device::cpu::reduce_argmax);
}

Tensor* argmin(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_order(where("ornik::argmin"), x, axes, keep_dims, dtype::int64, ReduceOrder::row_major,
                        device::cpu::reduce_argmin);
}

Tensor* median(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    const Where at = where("ornik::median");
    check_cpu(x);
    check_dtype(at, is_real(x));
    const std::vector<int> wrapped = reduce_axes(at, axes, x->ndim());
    const ReduceDescriptor plan = plan_of(x, wrapped, keep_dims);
    check_some(at, plan);
    const TensorResult rows = reduced_axis_last(x, wrapped);
    TensorResult result = new_result(plan.result_shape, mean_dtype(x->Dtype()));
    const TensorResult column = new_view(result.get(), {plan.outputs, 1}, {1, 1});
    device::cpu::median(rows.get(), column.get());
    return result.release();
}

}  // namespace ornik
