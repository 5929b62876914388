// arithmetic.cpp: sums, differences, products, quotients and their gradients.
#include "ktensor/arithmetic.h"

#include "hardware/cpu/any_scalar.h"
#include "ktensor/autograd.h"
#include "ktensor/joins.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/promotion.h"
#include "tensor/tensor_math/tensor_arithmetic.h"

namespace ornik {

using autograd::Backward;
using autograd::conj_of;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;
using autograd::Shown;

namespace {

using Core = void (*)(Tensor* a, Tensor* b, Tensor* out);

// core(a, b), both already of dtype r.
KTensor compute(const char* name, const KTensor& a, const KTensor& b, Core core) {
    if (a.shape() == b.shape()) {
        std::unique_ptr<Tensor> out = autograd::empty_tensor(a.shape(), a.dtype());
        if (out->Size() != 0) {
            core(a.tensor(), b.tensor(), out.get());
        }
        return make_ktensor(std::move(out));
    }
    const Dims shape = autograd::broadcast_shape(name, a, b);
    std::unique_ptr<Tensor> out = autograd::empty_tensor(shape, a.dtype());
    if (out->Size() != 0) {
        core(Shown(a, shape).get(), Shown(b, shape).get(), out.get());
    }
    return make_ktensor(std::move(out));
}

// The two operands in the dtype of their result.
class Promoted {
  public:
    Promoted(const KTensor& left, const KTensor& right, std::int64_t r)
        : a(left.dtype() == r ? left : converted_a_ = astype(left, r)),
          b(right.dtype() == r ? right : converted_b_ = astype(right, r)) {}
    Promoted(const Promoted&) = delete;
    Promoted& operator=(const Promoted&) = delete;

  private:
    KTensor converted_a_;
    KTensor converted_b_;

  public:
    const KTensor& a;
    const KTensor& b;
};

std::int64_t sum_dtype(const char* name, const KTensor& a, const KTensor& b) {
    autograd::check_defined(name, a, 0);
    autograd::check_defined(name, b, 1);
    return promotion::of_tensors(a.dtype(), b.dtype());
}

}  // namespace

KTensor add(const KTensor& a, const KTensor& b) {
    const Promoted x(a, b, sum_dtype("add", a, b));
    const Recorder record(Op::add, {&x.a, &x.b});
    KTensor y = compute("add", x.a, x.b, [](Tensor* p, Tensor* q, Tensor* out) { add(1, p, 1, q, out, 0); });
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) {
            pass.give(0, pass.grad());
            pass.give(1, pass.take_grad());
        });
    }
    return y;
}

KTensor add_all(const std::vector<KTensor>& terms) {
    const std::vector<KTensor> operands = broadcast_together(autograd::promoted("add_all", terms));
    const Recorder record(Op::add_all, operands);
    KTensor y = make_ktensor(autograd::copy_of(*operands[0].tensor()));
    for (std::size_t i = 1; i < operands.size() && y.size() != 0; ++i) {
        add(1, y.tensor(), 1, operands[i].tensor(), y.tensor(), 0);
    }
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) {
            for (std::size_t i = 0; i < pass.operand_count(); ++i) {
                pass.give(i, pass.grad());
            }
        });
    }
    return y;
}

KTensor sub(const KTensor& a, const KTensor& b) {
    const std::int64_t r = sum_dtype("sub", a, b);
    if (a.dtype() == dtype::boolean || b.dtype() == dtype::boolean) {
        fail(ErrorKind::dtype, where("ornik::sub"), "sub(): not of bool tensors: ", describe(a), " and ", describe(b),
             ".");
    }
    const Promoted x(a, b, r);
    const Recorder record(Op::sub, {&x.a, &x.b});
    KTensor y = compute("sub", x.a, x.b, [](Tensor* p, Tensor* q, Tensor* out) { sub(1, p, 1, q, out, 0); });
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) {
            pass.give(0, pass.grad());
            if (pass.wants(1)) {
                pass.give(1, mul(pass.take_grad(), Scalar(-1.0F)));
            }
        });
    }
    return y;
}

KTensor mul(const KTensor& a, const KTensor& b) {
    const Promoted x(a, b, sum_dtype("mul", a, b));
    const Recorder record(Op::mul, {&x.a, &x.b});
    KTensor y = compute("mul", x.a, x.b, [](Tensor* p, Tensor* q, Tensor* out) { mult(p, q, out, 0); });
    if (record.active()) {
        record.finish(y, {record.operand_if(record.wants(1), 0), record.operand_if(record.wants(0), 1)},
                      [](Backward& pass) {
                          if (pass.wants(0)) {
                              pass.give(0, mul(pass.grad(), conj_of(pass.saved(1))));
                          }
                          if (pass.wants(1)) {
                              pass.give(1, mul(pass.grad(), conj_of(pass.saved(0))));
                          }
                      });
    }
    return y;
}

KTensor div(const KTensor& a, const KTensor& b) {
    autograd::check_defined("div", a, 0);
    autograd::check_defined("div", b, 1);
    const Promoted x(a, b, promotion::of_quotient(a.dtype(), b.dtype()));
    const Recorder record(Op::div, {&x.a, &x.b});
    KTensor y = compute("div", x.a, x.b, [](Tensor* p, Tensor* q, Tensor* out) { div(p, q, out, 0); });
    if (record.active()) {
        record.finish(y, {record.operand(1), record.wants(1) ? Recorder::output(y) : autograd::Keep{}},
                      [](Backward& pass) {
                          const KTensor divisor = conj_of(pass.saved(0));
                          if (pass.wants(0)) {
                              pass.give(0, div(pass.grad(), divisor));
                          }
                          if (pass.wants(1)) {
                              const KTensor quotient = conj_of(pass.saved(1));
                              pass.give(1, mul(div(mul(pass.grad(), quotient), divisor), Scalar(-1.0F)));
                          }
                      });
    }
    return y;
}

// ---- With numbers ----

namespace {

// tensor->add_scalar(scalar) and the like, for a scalar of any type.
template <typename Call>
KTensor with_scalar(const KTensor& a, const Scalar& scalar, std::int64_t empty_dtype, Call&& call) {
    if (a.size() == 0) {
        return make_ktensor(autograd::empty_tensor(a.shape(), empty_dtype));
    }
    Tensor* result = nullptr;
    const AnyScalar any(scalar);
    dispatch(AllTypes{}, scalar.Dtype(), [&]<typename T>() { result = call(a.tensor(), any.as<T>()); });
    return make_ktensor(result);
}

}  // namespace

KTensor add(const KTensor& a, const Scalar& b) {
    const Recorder record(Op::add_scalar, {&a});
    const Scalar number = autograd::weak_scalar(b, a.dtype());
    KTensor y = with_scalar(a, number, promotion::with_scalar(a.dtype(), number.Dtype()),
                            [](Tensor* t, auto value) { return t->add_scalar(value); });
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) { pass.give(0, pass.take_grad()); });
    }
    return y;
}

KTensor sub(const KTensor& a, const Scalar& b) {
    const Recorder record(Op::add_scalar, {&a});
    const Scalar number = autograd::weak_scalar(b, a.dtype());
    KTensor y = with_scalar(a, number, promotion::with_scalar(a.dtype(), number.Dtype()),
                            [](Tensor* t, auto value) { return t->sub_scalar(value); });
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) { pass.give(0, pass.take_grad()); });
    }
    return y;
}

KTensor mul(const KTensor& a, const Scalar& b) {
    const Recorder record(Op::mul_scalar, {&a});
    const Scalar number = autograd::weak_scalar(b, a.dtype());
    KTensor y = with_scalar(a, number, promotion::with_scalar(a.dtype(), number.Dtype()),
                            [](Tensor* t, auto value) { return t->mult_scalar(value); });
    if (record.active()) {
        record.finish(y, {}, [factor = autograd::conj_scalar(number)](Backward& pass) {
            pass.give(0, mul(pass.grad(), factor));
        });
    }
    return y;
}

KTensor div(const KTensor& a, const Scalar& b) {
    const Recorder record(Op::div_scalar, {&a});
    const Scalar number = autograd::weak_scalar(b, a.dtype());
    if (is_dtype_class(number.Dtype(), DtypeClass::complex) && !a.is_complex()) {
        return div(a, autograd::scalar_tensor(number, number.Dtype()));
    }
    KTensor y = with_scalar(a, number, promotion::quotient_with_scalar(a.dtype()),
                            [](Tensor* t, auto value) { return t->div_scalar(value); });
    if (record.active()) {
        record.finish(y, {}, [divisor = autograd::conj_scalar(number)](Backward& pass) {
            pass.give(0, div(pass.grad(), divisor));
        });
    }
    return y;
}

namespace {

KTensor number_beside(const char* name, const Scalar& a, const KTensor& b) {
    autograd::check_defined(name, b, 1);
    const Scalar number = autograd::weak_scalar(a, b.dtype());
    return autograd::scalar_tensor(number, promotion::with_scalar(b.dtype(), number.Dtype()));
}

}  // namespace

KTensor sub(const Scalar& a, const KTensor& b) { return sub(number_beside("sub", a, b), b); }

KTensor div(const Scalar& a, const KTensor& b) { return div(number_beside("div", a, b), b); }

// ---- In place ----

namespace {

bool is_recorded(const KTensor& a, const KTensor& b) { return grad_enabled() && (a.wants_grad() || b.wants_grad()); }

// a = operation(a, b), or, when nothing is recorded, what `direct` does.
template <typename Operation, typename Direct>
KTensor& in_place(const char* name, KTensor& a, const KTensor& b, std::int64_t r, bool saves_a, Operation&& operation,
                  Direct&& direct) {
    autograd::check_in_place(name, a, is_recorded(a, b));
    autograd::check_holds(name, a, autograd::broadcast_shape(name, a, b), r);
    if (!is_recorded(a, b)) {
        if (a.size() != 0) {
            direct(a.tensor(), Shown(b, a.shape()).get());
        }
        return a;
    }
    autograd::take_over(a, astype(operation(saves_a ? autograd::old_value(a) : a, b), a.dtype()));
    return a;
}

}  // namespace

KTensor& add_(KTensor& a, const KTensor& b) {
    return in_place(
        "add_", a, b, sum_dtype("add_", a, b), false, [](const KTensor& x, const KTensor& y) { return add(x, y); },
        [](Tensor* x, Tensor* y) { x->add_tensor_inplace(y); });
}

KTensor& sub_(KTensor& a, const KTensor& b) {
    return in_place(
        "sub_", a, b, sum_dtype("sub_", a, b), false, [](const KTensor& x, const KTensor& y) { return sub(x, y); },
        [](Tensor* x, Tensor* y) { x->sub_tensor_inplace(y); });
}

KTensor& mul_(KTensor& a, const KTensor& b) {
    return in_place(
        "mul_", a, b, sum_dtype("mul_", a, b), b.wants_grad(),
        [](const KTensor& x, const KTensor& y) { return mul(x, y); },
        [](Tensor* x, Tensor* y) { x->mult_tensor_inplace(y); });
}

KTensor& div_(KTensor& a, const KTensor& b) {
    autograd::check_defined("div_", a, 0);
    autograd::check_defined("div_", b, 1);
    return in_place(
        "div_", a, b, promotion::of_quotient(a.dtype(), b.dtype()), false,
        [](const KTensor& x, const KTensor& y) { return div(x, y); },
        [](Tensor* x, Tensor* y) { x->div_tensor_inplace(y); });
}

namespace {

// A number beside a target in place, of a dtype that does not widen it.
KTensor number_for(const char* name, const KTensor& a, const Scalar& b) {
    autograd::check_defined(name, a, 0);
    const Scalar number = autograd::weak_scalar(b, a.dtype());
    const std::int64_t r = promotion::with_scalar(a.dtype(), number.Dtype());
    autograd::check_holds(name, a, a.shape(), r);
    return autograd::scalar_tensor(number, a.dtype());
}

}  // namespace

KTensor& add_(KTensor& a, const Scalar& b) { return add_(a, number_for("add_", a, b)); }
KTensor& sub_(KTensor& a, const Scalar& b) { return sub_(a, number_for("sub_", a, b)); }
KTensor& mul_(KTensor& a, const Scalar& b) { return mul_(a, number_for("mul_", a, b)); }
KTensor& div_(KTensor& a, const Scalar& b) { return div_(a, number_for("div_", a, b)); }

}  // namespace ornik
