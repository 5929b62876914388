// reductions_grad.cpp: gradients of reductions.
#include "descriptors/reduce_descriptor.h"
#include "hardware/cpu/axis/cpu_scan.h"
#include "hardware/cpu/axis/cpu_sort.h"
#include "hardware/cpu/reduce/cpu_reduce_grad.h"
#include "reduced_shape.h"
#include "results.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

namespace {

// One gradient: its arguments, checked, and views of them under x's shape.
class Gradient {
  public:
    Gradient(const Where& at, const Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims,
             bool serves_complex, DtypeRule grad_dtype = same_dtype)
        : x_(x) {
        check_cpu(at, grad, x);
        check_dtype(at, serves_complex ? is_float_or_complex(x) : x->isFloat());
        if (grad->Dtype() != grad_dtype(x->Dtype())) {
            fail(ErrorKind::dtype, at, "Not same data type");
        }
        at_ = at;
        keep_dims_ = keep_dims;
        axes_ = reduce_axes(at, axes, x->ndim());
        grad_ = expanded_over(at, grad, x->Shape(), axes_, keep_dims);
        for (const int axis : axes_) {
            count_ *= x->Shape()[static_cast<std::size_t>(axis)];
        }
    }

    const Tensor* grad() const { return grad_.get(); }
    const Tensor* x() const { return x_; }
    const std::vector<int>& axes() const { return axes_; }
    std::int64_t count() const { return count_; }

    // reduction(x, axes, keep_dims) and a view of it under x's shape.
    template <typename Reduction>
    const Tensor* of_x(const Reduction& reduction) {
        return expanded(x_, reduction);
    }
    template <typename Reduction>
    const Tensor* expanded(Tensor* t, const Reduction& reduction) {
        const TensorResult value(reduction(t));
        views_.push_back(new_view(value.get(), x_->Shape(), expanded_strides(value.get())));
        return views_.back().get();
    }

    // A view, under x's shape, of the result as the caller kept it.
    const Tensor* kept(const Tensor* y, std::int64_t dtype) {
        check_cpu(at_, y);
        if (y->Dtype() != dtype) {
            fail(ErrorKind::dtype, at_, "Not same data type");
        }
        views_.push_back(expanded_over(at_, y, x_->Shape(), axes_, keep_dims_));
        return views_.back().get();
    }

    // kernel(out) in a new tensor of x's shape and dtype; nothing is computed for no elements.
    template <typename Kernel>
    Tensor* result(const Kernel& kernel) {
        TensorResult out = new_result(x_->Shape(), x_->Dtype());
        if (out->Size() > 0) {
            kernel(out.get());
        }
        return out.release();
    }

  private:
    Dims expanded_strides(const Tensor* value) const {
        Dims strides = value->Strides();  // Reduced with keep_dims.
        for (const int axis : axes_) {
            strides[static_cast<std::size_t>(axis)] = 0;
        }
        return strides;
    }

    Tensor* x_;
    Where at_{};
    bool keep_dims_ = false;
    std::vector<int> axes_;
    std::int64_t count_ = 1;
    TensorResult grad_;
    std::vector<TensorResult> views_;
};

using Reduction = Tensor* (*)(Tensor*, const std::vector<int>&, bool);

// `y` is the result, or null to compute it by `extreme`.
Tensor* extreme_grad(const Where& at, Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes,
                     bool keep_dims, Reduction extreme) {
    Gradient g(at, grad, x, axes, keep_dims, false);
    const Tensor* kept = y != nullptr ? g.kept(y, x->Dtype()) : nullptr;
    return g.result([&](Tensor* out) {
        const TensorResult mark = new_result(x->Shape(), x->Dtype());
        const Tensor* value = kept != nullptr ? kept : g.of_x([&](Tensor* t) { return extreme(t, g.axes(), true); });
        device::cpu::mark_equal(x, value, mark.get());
        const Tensor* count = g.expanded(mark.get(), [&](Tensor* t) { return sum(t, g.axes(), true); });
        device::cpu::shared_grad(g.grad(), mark.get(), count, out);
    });
}

}  // namespace

Tensor* sum_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    Gradient g(where("ornik::sum_grad"), grad, x, axes, keep_dims, true);
    return g.result([&](Tensor* out) { device::cpu::copy(g.grad(), out); });
}

Tensor* mean_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    Gradient g(where("ornik::mean_grad"), grad, x, axes, keep_dims, true);
    return g.result([&](Tensor* out) { device::cpu::scaled(g.grad(), 1.0 / static_cast<double>(g.count()), out); });
}

Tensor* prod_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    Gradient g(where("ornik::prod_grad"), grad, x, axes, keep_dims, true);
    return g.result([&](Tensor* out) {
        const TensorResult rows = reduced_axis_last(x, g.axes());
        const std::int64_t kept = rows->Shape()[0];
        const TensorResult gradients = new_result({kept, 1}, x->Dtype());
        device::cpu::copy(grad, gradients.get());
        const TensorResult result = new_result(rows->Shape(), x->Dtype());
        device::cpu::prod_grad(rows.get(), gradients.get(), result.get(), 1);
        device::cpu::copy(result.get(), reduced_axes_behind(out, g.axes()).get());
    });
}

Tensor* median_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    Gradient g(where("ornik::median_grad"), grad, x, axes, keep_dims, false);
    return g.result([&](Tensor* out) {
        const TensorResult rows = reduced_axis_last(x, g.axes());
        const TensorResult gradients = row_major_copy(grad);
        const TensorResult result = new_result(rows->Shape(), x->Dtype());
        device::cpu::median_grad(rows.get(), gradients.get(), result.get());
        device::cpu::copy(result.get(), reduced_axes_behind(out, g.axes()).get());
    });
}

Tensor* l2_norm_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    Gradient g(where("ornik::l2_norm_grad"), grad, x, axes, keep_dims, true, part_dtype);
    return g.result([&](Tensor* out) {
        device::cpu::l2_norm_grad(g.grad(), x, g.of_x([&](Tensor* t) { return l2_norm(t, g.axes(), true); }), out);
    });
}

Tensor* l2_norm_grad_from(Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes, bool keep_dims) {
    Gradient g(where("ornik::l2_norm_grad_from"), grad, x, axes, keep_dims, true, part_dtype);
    const Tensor* norm = g.kept(y, grad->Dtype());
    return g.result([&](Tensor* out) { device::cpu::l2_norm_grad(g.grad(), x, norm, out); });
}

Tensor* var_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims, double correction) {
    Gradient g(where("ornik::var_grad"), grad, x, axes, keep_dims, false);
    return g.result([&](Tensor* out) {
        const Tensor* middle = g.of_x([&](Tensor* t) { return mean(t, g.axes(), true); });
        device::cpu::var_grad(g.grad(), x, middle, 2.0 / (static_cast<double>(g.count()) - correction), out);
    });
}

namespace {

// `y` is the deviation, or null to compute it.
Tensor* deviation_grad(const Where& at, Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes,
                       bool keep_dims, double correction) {
    Gradient g(at, grad, x, axes, keep_dims, false);
    const Tensor* kept = y != nullptr ? g.kept(y, x->Dtype()) : nullptr;
    return g.result([&](Tensor* out) {
        const Tensor* middle = g.of_x([&](Tensor* t) { return mean(t, g.axes(), true); });
        const Tensor* spread =
            kept != nullptr ? kept : g.of_x([&](Tensor* t) { return std_dev(t, g.axes(), true, correction); });
        const double factor = 1.0 / (static_cast<double>(g.count()) - correction);
        device::cpu::std_dev_grad(g.grad(), x, middle, spread, factor, out);
    });
}

}  // namespace

Tensor* std_dev_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims, double correction) {
    return deviation_grad(where("ornik::std_dev_grad"), grad, x, nullptr, axes, keep_dims, correction);
}

Tensor* std_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims, double correction) {
    return deviation_grad(where("ornik::std_grad"), grad, x, nullptr, axes, keep_dims, correction);
}

Tensor* std_dev_grad_from(Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes, bool keep_dims,
                          double correction) {
    const Where at = where("ornik::std_dev_grad_from");
    check_given(at, y);
    return deviation_grad(at, grad, x, y, axes, keep_dims, correction);
}

Tensor* logsumexp_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    Gradient g(where("ornik::logsumexp_grad"), grad, x, axes, keep_dims, false);
    return g.result([&](Tensor* out) {
        const Tensor* y = g.of_x([&](Tensor* t) { return logsumexp(t, g.axes(), true); });
        device::cpu::log_sum_exp_grad(g.grad(), x, y, out);
    });
}

Tensor* logsumexp_grad_from(Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes, bool keep_dims) {
    Gradient g(where("ornik::logsumexp_grad_from"), grad, x, axes, keep_dims, false);
    const Tensor* log_sum = g.kept(y, x->Dtype());
    return g.result([&](Tensor* out) { device::cpu::log_sum_exp_grad(g.grad(), x, log_sum, out); });
}

Tensor* max_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return extreme_grad(where("ornik::max_grad"), grad, x, nullptr, axes, keep_dims, max);
}

Tensor* min_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes, bool keep_dims) {
    return extreme_grad(where("ornik::min_grad"), grad, x, nullptr, axes, keep_dims, min);
}

Tensor* extreme_grad_from(Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes, bool keep_dims) {
    const Where at = where("ornik::extreme_grad_from");
    check_given(at, y);
    return extreme_grad(at, grad, x, y, axes, keep_dims, nullptr);
}

Tensor* trace_grad(Tensor* grad, Tensor* x, std::int64_t offset, int dim1, int dim2) {
    const Where at = where("ornik::trace_grad");
    check_cpu(at, grad, x);
    const TensorResult source(x->diagonal(offset, dim1, dim2));
    const Gradient g(at, grad, source.get(), {-1}, false, true);
    TensorResult result = filled_result(x->Shape(), x->Dtype(), 0.0F);
    const TensorResult diagonal(result->diagonal(offset, dim1, dim2));
    device::cpu::copy(g.grad(), diagonal.get());
    return result.release();
}

}  // namespace ornik
