// elements.cpp: functions of one operand, and their gradients.
//
// A gradient is computed by the library's name_grad, in one pass; in a pass that is itself recorded it is the product
// with the slope, made of recorded operations.
#include "ktensor/elements.h"

#include <numbers>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/real_pairs.h"
#include "tensor/tensor_math/tensor_element_math.h"

namespace ornik {

using autograd::Backward;
using autograd::conj_of;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

// What the derivative needs: the operand, the result, both or nothing.
enum class Needs { x, y, both };

struct UnaryRow {
    Op op;
    Needs needs;
    Tensor* (Tensor::*forward)();
    Tensor* (*gradient)(Tensor* x, Tensor* y, Tensor* grad);
    KTensor (*slope)(const KTensor& x, const KTensor& y);
};

KTensor gradient_of(const UnaryRow& row, Backward& pass) {
    const bool from_y = row.needs == Needs::y;
    if (pass.recorded()) {
        const KTensor kept = pass.saved(0);
        const KTensor y = row.needs == Needs::both ? pass.saved(1) : kept;
        return mul(pass.grad(), conj_of(row.slope(from_y ? KTensor() : kept, y)));
    }
    // Slopes that need the result alone read nothing else, and the others do not read the result.
    Tensor* kept = pass.saved_raw(0);
    Tensor* y = row.needs == Needs::both ? pass.saved_raw(1) : kept;
    return make_ktensor(row.gradient(kept, y, pass.grad().tensor()));
}

KTensor unary(const UnaryRow& row, const KTensor& x) {
    const Recorder record(row.op, {&x});
    KTensor y = make_ktensor((x.tensor()->*row.forward)());
    if (record.active()) {
        const bool both = row.needs == Needs::both;
        record.finish(y,
                      {row.needs == Needs::y ? Recorder::output(y) : record.operand(0),
                       both ? Recorder::output(y) : autograd::Keep{}},
                      [&row](Backward& pass) { pass.give(0, gradient_of(row, pass)); });
    }
    return y;
}

KTensor& unary_in_place(const char* name, const UnaryRow& row, KTensor& x, void (Tensor::*forward)()) {
    const bool recorded = grad_enabled() && x.wants_grad();
    autograd::check_in_place(name, x, recorded);
    if (recorded) {
        autograd::take_over(x, unary(row, row.needs == Needs::x ? autograd::old_value(x) : x));
    } else {
        (x.tensor()->*forward)();
    }
    return x;
}

namespace slope {

using X = const KTensor&;

constexpr double ln2 = std::numbers::ln2;
constexpr double ln10 = std::numbers::ln10;

// clang-format off
KTensor exp(X, X y)        { return y; }
KTensor exp2(X, X y)       { return y * ln2; }
KTensor expm1(X, X y)      { return y + 1.0; }
KTensor log(X x, X)        { return reciprocal(x); }
KTensor log2(X x, X)       { return reciprocal(x * ln2); }
KTensor log10(X x, X)      { return reciprocal(x * ln10); }
KTensor log1p(X x, X)      { return reciprocal(x + 1.0); }
KTensor sqrt(X, X y)       { return 0.5 / y; }
KTensor rsqrt(X, X y)      { return y * y * y * -0.5; }
KTensor reciprocal(X, X y) { return neg(y * y); }
KTensor sin(X x, X)        { return ornik::cos(x); }
KTensor cos(X x, X)        { return neg(ornik::sin(x)); }
KTensor tan(X, X y)        { return y * y + 1.0; }
KTensor asin(X x, X)       { return ornik::rsqrt((1.0 - x) * (x + 1.0)); }
KTensor acos(X x, X)       { return neg(ornik::rsqrt((1.0 - x) * (x + 1.0))); }
KTensor atan(X x, X)       { return ornik::reciprocal(x * x + 1.0); }
KTensor sinh(X x, X)       { return ornik::cosh(x); }
KTensor cosh(X x, X)       { return ornik::sinh(x); }
KTensor tanh(X, X y)       { return (1.0 - y) * (y + 1.0); }
KTensor asinh(X x, X)      { return ornik::rsqrt(x * x + 1.0); }
KTensor acosh(X x, X)      { return ornik::rsqrt(x - 1.0) * ornik::rsqrt(x + 1.0); }
KTensor atanh(X x, X)      { return ornik::reciprocal((1.0 - x) * (x + 1.0)); }
KTensor sigmoid(X, X y)    { return y * (1.0 - y); }
KTensor logsigmoid(X x, X) { return ornik::sigmoid(neg(x)); }
KTensor softplus(X x, X)   { return ornik::sigmoid(x); }
KTensor sqr(X x, X)        { return x * 2.0; }
KTensor erf(X x, X)        { return ornik::exp(neg(x * x)) * (2.0 * std::numbers::inv_sqrtpi); }
// clang-format on

KTensor silu(X x, X) {
    const KTensor s = ornik::sigmoid(x);
    return s * (x * (1.0 - s) + 1.0);
}

// The distribution function of the normal distribution, and x times its density.
KTensor gelu(X x, X) {
    const KTensor density = ornik::exp(x * x * -0.5) * (0.5 * std::numbers::sqrt2 * std::numbers::inv_sqrtpi);
    return ornik::erf(x * (0.5 * std::numbers::sqrt2)) * 0.5 + 0.5 + x * density;
}

}  // namespace slope

}  // namespace

#define ORNIK_UNARY_FUNCTION(name, needs)                                                                 \
    KTensor name(const KTensor& x) {                                                                      \
        static constexpr UnaryRow row{Op::name, Needs::needs, &Tensor::name, &name##_grad, &slope::name}; \
        return unary(row, x);                                                                             \
    }                                                                                                     \
    KTensor& name##_(KTensor& x) {                                                                        \
        static constexpr UnaryRow row{Op::name, Needs::needs, &Tensor::name, &name##_grad, &slope::name}; \
        return unary_in_place(#name "_", row, x, &Tensor::name##_inplace);                                \
    }

ORNIK_UNARY_FUNCTION(exp, y)
ORNIK_UNARY_FUNCTION(exp2, y)
ORNIK_UNARY_FUNCTION(expm1, y)
ORNIK_UNARY_FUNCTION(log, x)
ORNIK_UNARY_FUNCTION(log2, x)
ORNIK_UNARY_FUNCTION(log10, x)
ORNIK_UNARY_FUNCTION(log1p, x)
ORNIK_UNARY_FUNCTION(sqrt, y)
ORNIK_UNARY_FUNCTION(rsqrt, y)
ORNIK_UNARY_FUNCTION(reciprocal, y)
ORNIK_UNARY_FUNCTION(sin, x)
ORNIK_UNARY_FUNCTION(cos, x)
ORNIK_UNARY_FUNCTION(tan, y)
ORNIK_UNARY_FUNCTION(asin, x)
ORNIK_UNARY_FUNCTION(acos, x)
ORNIK_UNARY_FUNCTION(atan, x)
ORNIK_UNARY_FUNCTION(sinh, x)
ORNIK_UNARY_FUNCTION(cosh, x)
ORNIK_UNARY_FUNCTION(tanh, y)
ORNIK_UNARY_FUNCTION(asinh, x)
ORNIK_UNARY_FUNCTION(acosh, x)
ORNIK_UNARY_FUNCTION(atanh, x)
ORNIK_UNARY_FUNCTION(sigmoid, y)
ORNIK_UNARY_FUNCTION(logsigmoid, x)
ORNIK_UNARY_FUNCTION(softplus, x)
ORNIK_UNARY_FUNCTION(silu, x)
ORNIK_UNARY_FUNCTION(gelu, x)
ORNIK_UNARY_FUNCTION(erf, x)
ORNIK_UNARY_FUNCTION(sqr, x)

#undef ORNIK_UNARY_FUNCTION

// ---- Linear ones: nothing to keep ----

namespace {

// x = operation(x) in place; the operation keeps nothing of x.
KTensor& linear_in_place(const char* name, KTensor& x, KTensor (*operation)(const KTensor&),
                         void (Tensor::*forward)()) {
    const bool recorded = grad_enabled() && x.wants_grad();
    autograd::check_in_place(name, x, recorded);
    if (recorded) {
        autograd::take_over(x, operation(x));
    } else {
        (x.tensor()->*forward)();
    }
    return x;
}

}  // namespace

KTensor neg(const KTensor& x) {
    const Recorder record(Op::neg, {&x});
    KTensor y = make_ktensor(x.tensor()->neg());
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) { pass.give(0, neg(pass.grad())); });
    }
    return y;
}

KTensor conj(const KTensor& x) {
    const Recorder record(Op::conj, {&x});
    KTensor y = make_ktensor(x.tensor()->conj());
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) { pass.give(0, conj(pass.grad())); });
    }
    return y;
}

KTensor& neg_(KTensor& x) { return linear_in_place("neg_", x, neg, &Tensor::neg_inplace); }
KTensor& conj_(KTensor& x) { return linear_in_place("conj_", x, conj, &Tensor::conj_inplace); }

KTensor real(const KTensor& x) {
    const Recorder record(Op::real, {&x});
    KTensor y = make_ktensor(x.tensor()->real());
    if (record.active()) {
        // The conversion to x's dtype adds the imaginary part 0.
        record.finish(y, {}, [](Backward& pass) { pass.give(0, pass.take_grad()); });
    }
    return y;
}

KTensor imag(const KTensor& x) {
    const Recorder record(Op::imag, {&x});
    KTensor y = make_ktensor(x.tensor()->imag());
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) {
            const bool complex = is_dtype_class(pass.operand_dtype(0), DtypeClass::complex);
            const Scalar unit = complex ? Scalar(std::complex<float>(0, 1)) : Scalar(0.0F);
            pass.give(0, mul(pass.grad(), unit));
        });
    }
    return y;
}

// ---- Magnitude and angle: complex operands have no derivative, but a gradient in their parts ----

namespace {

KTensor is_zero(const KTensor& x) { return equal(x, Scalar(0.0F)); }

}  // namespace

KTensor abs(const KTensor& x) {
    const Recorder record(Op::abs, {&x});
    KTensor y = make_ktensor(x.tensor()->abs());
    if (record.active()) {
        record.finish(y, {record.operand(0), Recorder::output(y)}, [](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, abs_grad(pass.saved_raw(0), pass.saved_raw(1), pass.grad().tensor()));
                return;
            }
            const KTensor kept = pass.saved(0);
            if (!kept.is_complex()) {
                pass.give(0, mul(pass.grad(), sign(kept)));
                return;
            }
            const KTensor length = pass.saved(1);
            pass.give(0, mul(div(kept, where(is_zero(length), Scalar(1.0F), length)), pass.grad()));
        });
    }
    return y;
}

KTensor angle(const KTensor& x) {
    const Recorder record(Op::angle, {&x});
    KTensor y = make_ktensor(x.tensor()->angle());
    if (record.active()) {
        record.finish(y, {record.operand(0), Recorder::output(y)}, [](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, angle_grad(pass.saved_raw(0), pass.saved_raw(1), pass.grad().tensor()));
                return;
            }
            // (-im, re) / |z|^2 = i / conj(z)
            const KTensor kept = pass.saved(0);
            pass.give(0, kept.is_complex() ? mul(div(Scalar(std::complex<float>(0, 1)), conj(kept)), pass.grad())
                                           : mul(pass.grad(), Scalar(0.0F)));
        });
    }
    return y;
}

// ---- Steps: constants to what is recorded ----

#define ORNIK_STEP_FUNCTION(name)                \
    KTensor name(const KTensor& x) {             \
        autograd::check_defined(#name, x, 0);    \
        return make_ktensor(x.tensor()->name()); \
    }
#define ORNIK_STEP_IN_PLACE(name)                                                                 \
    KTensor& name##_(KTensor& x) {                                                                \
        autograd::check_in_place(#name "_", x, false);                                            \
        if (grad_enabled() && x.wants_grad()) {                                                   \
            fail(ErrorKind::state, where("ornik::KTensor"), #name "_(): ", autograd::describe(x), \
                 " has a past that gradients go through, which a step in place would cut off.");  \
        }                                                                                         \
        x.tensor()->name##_inplace();                                                             \
        return x;                                                                                 \
    }

ORNIK_STEP_FUNCTION(floor)
ORNIK_STEP_FUNCTION(ceil)
ORNIK_STEP_FUNCTION(trunc)
ORNIK_STEP_FUNCTION(bitwise_not)
ORNIK_STEP_FUNCTION(is_nan)
ORNIK_STEP_FUNCTION(is_inf)
ORNIK_STEP_FUNCTION(is_finite)
ORNIK_STEP_FUNCTION(logical_not)
ORNIK_STEP_IN_PLACE(sign)
ORNIK_STEP_IN_PLACE(floor)
ORNIK_STEP_IN_PLACE(ceil)
ORNIK_STEP_IN_PLACE(round)
ORNIK_STEP_IN_PLACE(trunc)
ORNIK_STEP_IN_PLACE(bitwise_not)

// Zeros have none here.
KTensor sign(const KTensor& x) {
    autograd::check_defined("sign", x, 0);
    KTensor y = make_ktensor(x.tensor()->sign());
    return y.is_floating() || y.is_complex() ? add(y, Scalar(0.0F)) : y;
}

KTensor round(const KTensor& x) {
    autograd::check_defined("round", x, 0);
    return x.is_complex() ? view_as_complex(round(view_as_real(x.detach()))) : make_ktensor(x.tensor()->round());
}

KTensor signbit(const KTensor& x) {
    autograd::check_defined("signbit", x, 0);
    return make_ktensor(signbit(x.tensor()));
}

#undef ORNIK_STEP_FUNCTION
#undef ORNIK_STEP_IN_PLACE

}  // namespace ornik
