// reductions.cpp: reductions over axes.
#include "tensor/tensor_math/reductions.h"

#include <algorithm>
#include <limits>

#include "hardware/cpu/axis/cpu_sort.h"
#include "hardware/cpu/reduce/cpu_reduce.h"
#include "reduced_shape.h"
#include "results.h"
#include "tensor/broadcast.h"

namespace ornik {

namespace {

constexpr std::int64_t norm_dtype(std::int64_t dtype) { return part_dtype(mean_dtype(dtype)); }

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

using Kernel = void (*)(const ReduceDescriptor& plan, const Tensor* in, Tensor* out);

// x as a reduction reads it: its own elements, or a row-major copy where those that belong together lie so far apart
// that one is worth it.
class Operand {
  public:
    Operand(const Tensor* x, const std::vector<int>& axes, bool keep_dims, ReduceOrder order)
        : x_(x), plan_(plan_of(x, axes, keep_dims, order)) {
        constexpr std::int64_t few = 1 << 14;
        if (plan_.form == ReduceDescriptor::Form::scattered && x->Size() > few && !is_expanded(x)) {
            copy_ = row_major_copy(x);
            x_ = copy_.get();
            plan_ = plan_of(x_, axes, keep_dims, order);
        }
    }

    const Tensor* x() const { return x_; }
    const ReduceDescriptor& plan() const { return plan_; }

  private:
    static ReduceDescriptor plan_of(const Tensor* x, const std::vector<int>& axes, bool keep_dims, ReduceOrder order) {
        return make_reduce_descriptor(x->Shape(), x->Strides(), axes, keep_dims, order);
    }
    // A copy could be larger than memory.
    static bool is_expanded(const Tensor* x) {
        return std::find(x->Strides().begin(), x->Strides().end(), 0) != x->Strides().end();
    }

    const Tensor* x_;
    ReduceDescriptor plan_;
    TensorResult copy_;
};

/// The order of a reduction, by the operand's dtype.
using OrderRule = ReduceOrder (*)(std::int64_t dtype);
ReduceOrder any_order(std::int64_t /*dtype*/) { return ReduceOrder::any; }
ReduceOrder row_major_order(std::int64_t /*dtype*/) { return ReduceOrder::row_major; }
ReduceOrder fixed_order(std::int64_t /*dtype*/) { return ReduceOrder::fixed; }
// Sums of floating elements are rounded, sums of integers are not.
ReduceOrder unless_integer(std::int64_t dtype) {
    return dtype < ornik::dtype::float32 ? ReduceOrder::any : ReduceOrder::fixed;
}

// kernel(out) in a new tensor of `dtype`; `of_nothing` where no elements are reduced.
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
Tensor* reduce_to(const Where& at, const Tensor* x, const std::vector<int>& axes, bool keep_dims, DtypeRule dtype,
                  T of_nothing, OrderRule order, Kernel kernel) {
    check_cpu(at, x);
    const Operand operand(x, reduce_axes(at, axes, x->ndim()), keep_dims, order(x->Dtype()));
    return reduced(operand.plan(), dtype(x->Dtype()), of_nothing,
                   [&](Tensor* out) { kernel(operand.plan(), operand.x(), out); });
}

// Reductions of real numbers that need at least one of them.
Tensor* reduce_order(const Where& at, const Tensor* x, const std::vector<int>& axes, bool keep_dims, DtypeRule dtype,
                     OrderRule order, Kernel kernel) {
    check_cpu(at, x);
    check_dtype(at, is_real(x));
    const Operand operand(x, reduce_axes(at, axes, x->ndim()), keep_dims, order(x->Dtype()));
    check_some(at, operand.plan());
    return reduced(operand.plan(), dtype(x->Dtype()), 0.0F,
                   [&](Tensor* out) { kernel(operand.plan(), operand.x(), out); });
}

Tensor* variance(const Where& at, const Tensor* x, const std::vector<int>& axes, bool keep_dims, double correction,
                 bool root) {
    check_cpu(at, x);
    check_dtype(at, is_real(x));
    const Operand operand(x, reduce_axes(at, axes, x->ndim()), keep_dims, ReduceOrder::fixed);
    return reduced(operand.plan(), mean_dtype(x->Dtype()), nan, [&](Tensor* out) {
        device::cpu::reduce_variance(operand.plan(), operand.x(), out, correction, root);
    });
}

}  // namespace

Tensor* sum(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::sum"), x, axes, keep_dims, total_dtype, 0.0F, unless_integer,
                     device::cpu::reduce_sum);
}

Tensor* sum_to_shape(const Tensor* t, const Dims& shape) {
    check_cpu(where("ornik::sum_to_shape"), t);
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
    const Operand operand(t, axes, true, unless_integer(t->Dtype()));
    TensorResult total = new_result(shape, total_dtype(t->Dtype()));
    if (operand.plan().count == 0) {
        device::cpu::fill(total.get(), 0.0F);
    } else {
        device::cpu::reduce_sum(operand.plan(), operand.x(), total.get());
    }
    if (total->Dtype() == t->Dtype()) {
        return total.release();
    }
    TensorResult result = new_result(shape, t->Dtype());
    device::cpu::copy(total.get(), result.get());
    return result.release();
}

Tensor* prod(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::prod"), x, axes, keep_dims, total_dtype, 1.0F, unless_integer,
                     device::cpu::reduce_prod);
}

Tensor* mean(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::mean"), x, axes, keep_dims, mean_dtype, nan, unless_integer,
                     device::cpu::reduce_mean);
}

Tensor* l2_norm(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::l2_norm"), x, axes, keep_dims, norm_dtype, 0.0F, fixed_order,
                     device::cpu::reduce_l2_norm);
}

Tensor* any(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::any"), x, axes, keep_dims, bool_dtype, false, any_order, device::cpu::reduce_any);
}

Tensor* all(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_to(where("ornik::all"), x, axes, keep_dims, bool_dtype, true, any_order, device::cpu::reduce_all);
}

Tensor* var(Tensor* x, const std::vector<int>& axes, bool keep_dims, double correction) {
    return variance(where("ornik::var"), x, axes, keep_dims, correction, false);
}

Tensor* std_dev(Tensor* x, const std::vector<int>& axes, bool keep_dims, double correction) {
    return variance(where("ornik::std_dev"), x, axes, keep_dims, correction, true);
}

Tensor* std(Tensor* x, const std::vector<int>& axes, bool keep_dims, double correction) {
    return variance(where("ornik::std"), x, axes, keep_dims, correction, true);
}

Tensor* logsumexp(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    const Where at = where("ornik::logsumexp");
    check_cpu(at, x);
    check_dtype(at, x->isFloat());
    return reduce_to(at, x, axes, keep_dims, same_dtype, -std::numeric_limits<double>::infinity(), fixed_order,
                     device::cpu::reduce_log_sum_exp);
}

Tensor* trace(Tensor* x, std::int64_t offset, int dim1, int dim2) {
    check_cpu(where("ornik::trace"), x);
    const TensorResult diagonal(x->diagonal(offset, dim1, dim2));
    return sum(diagonal.get(), {-1}, false);
}

Tensor* max(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_order(where("ornik::max"), x, axes, keep_dims, same_dtype, unless_integer, device::cpu::reduce_max);
}

Tensor* min(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_order(where("ornik::min"), x, axes, keep_dims, same_dtype, unless_integer, device::cpu::reduce_min);
}

Tensor* argmax(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_order(where("ornik::argmax"), x, axes, keep_dims, position_dtype, row_major_order,
                        device::cpu::reduce_argmax);
}

Tensor* argmin(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return reduce_order(where("ornik::argmin"), x, axes, keep_dims, position_dtype, row_major_order,
                        device::cpu::reduce_argmin);
}

Tensor* median(Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    const Where at = where("ornik::median");
    check_cpu(at, x);
    check_dtype(at, is_real(x));
    const std::vector<int> wrapped = reduce_axes(at, axes, x->ndim());
    const ReduceDescriptor plan =
        make_reduce_descriptor(x->Shape(), x->Strides(), wrapped, keep_dims, ReduceOrder::any);
    check_some(at, plan);
    const TensorResult rows = reduced_axis_last(x, wrapped);
    TensorResult result = new_result(plan.result_shape, mean_dtype(x->Dtype()));
    const TensorResult column = new_view(result.get(), {plan.outputs, 1}, {1, 1});
    device::cpu::median(rows.get(), column.get());
    return result.release();
}

}  // namespace ornik
