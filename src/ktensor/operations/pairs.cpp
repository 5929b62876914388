// pairs.cpp: element-wise functions of two operands and choices between them, with their gradients.
#include "hardware/cpu/any_scalar.h"
#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_math/promotion.h"
#include "tensor/tensor_math/real_pairs.h"
#include "tensor/tensor_math/tensor_element_math.h"

namespace ornik {

using autograd::Backward;
using autograd::conj_of;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;
using autograd::Shown;

namespace {

using BinaryMember = Tensor* (Tensor::*)(Tensor*);
using BinaryGradient = Tensor* (*)(Tensor* a, Tensor* b, Tensor* grad);
using RecordedGradient = KTensor (*)(const KTensor& a, const KTensor& b, const KTensor& grad);

struct BinaryRow {
    const char* name;
    Op op;
    bool floating;  // integers are computed in floating numbers
    BinaryMember forward;
    BinaryGradient dx;
    BinaryGradient dy;
    RecordedGradient recorded_dx;
    RecordedGradient recorded_dy;
};

KTensor call(const char* name, BinaryMember member, const KTensor& a, const KTensor& b) {
    const Dims shape = autograd::broadcast_shape(name, a, b);
    const Shown left(a, shape);
    const Shown right(b, shape);
    return make_ktensor((left.get()->*member)(right.get()));
}

KTensor gradient_of(const Backward& pass, BinaryGradient raw, RecordedGradient recorded) {
    if (pass.recorded()) {
        return recorded(pass.saved(0), pass.saved(1), pass.grad());
    }
    const Dims& shape = pass.grad().shape();
    const KTensor a = pass.saved(0);
    const KTensor b = pass.saved(1);
    return make_ktensor(raw(Shown(a, shape).get(), Shown(b, shape).get(), pass.grad().tensor()));
}

KTensor binary(const BinaryRow& row, const KTensor& left, const KTensor& right) {
    autograd::check_defined(row.name, left, 0);
    autograd::check_defined(row.name, right, 1);
    const std::int64_t sum = promotion::of_tensors(left.dtype(), right.dtype());
    const std::int64_t r = row.floating ? operations::floating_dtype(sum) : sum;
    const KTensor a = astype(left, r);
    const KTensor b = astype(right, r);
    const Recorder record(row.op, {&a, &b});
    KTensor y = call(row.name, row.forward, a, b);
    if (record.active()) {
        record.finish(y, {record.operand(0), record.operand(1)}, [&row](Backward& pass) {
            if (pass.wants(0)) {
                pass.give(0, gradient_of(pass, row.dx, row.recorded_dx));
            }
            if (pass.wants(1)) {
                pass.give(1, gradient_of(pass, row.dy, row.recorded_dy));
            }
        });
    }
    return y;
}

KTensor& binary_in_place(const BinaryRow& row, const char* name, KTensor& a, const KTensor& b,
                         void (Tensor::*forward)(Tensor*)) {
    autograd::check_defined(name, b, 1);
    const bool recorded = grad_enabled() && (a.wants_grad() || b.wants_grad());
    autograd::check_in_place(name, a, recorded);
    const std::int64_t sum = promotion::of_tensors(a.dtype(), b.dtype());
    autograd::check_holds(name, a, autograd::broadcast_shape(name, a, b),
                          row.floating ? operations::floating_dtype(sum) : sum);
    if (recorded) {
        autograd::take_over(a, astype(binary(row, autograd::old_value(a), b), a.dtype()));
    } else {
        (a.tensor()->*forward)(Shown(b, a.shape()).get());
    }
    return a;
}

// A number as the operand that it meets sees it.
KTensor beside(const char* name, const KTensor& t, const Scalar& number) {
    autograd::check_defined(name, t, 0);
    const Scalar weak = autograd::weak_scalar(number, t.dtype());
    return autograd::scalar_tensor(weak, promotion::with_scalar(t.dtype(), weak.Dtype()));
}

using X = const KTensor&;

KTensor ones_like(X g) { return KTensor::ones(g.shape(), g.dtype()); }

// Gradients that are grad times a constant: its value comes from the gradient of 1.
template <BinaryGradient raw>
KTensor constant_slope(X a, X b, X grad) {
    const KTensor one = ones_like(grad);
    const KTensor factor = make_ktensor(raw(Shown(a, grad.shape()).get(), Shown(b, grad.shape()).get(), one.tensor()));
    return mul(grad, factor);
}

KTensor pow_slope_a(X a, X b, X grad) {
    // b = 0 has slope 0, also where a to the power -1 has no value.
    const KTensor slope = b * pow(a, b - 1.0);
    return mul(grad, conj_of(where(equal(b, Scalar(0.0F)), Scalar(0.0F), slope)));
}

KTensor pow_slope_b(X a, X b, X grad) {
    const KTensor zero = equal(a, Scalar(0.0F));
    const KTensor slope = pow(a, b) * log(where(zero, Scalar(1.0F), a));
    return mul(grad, conj_of(slope));
}

KTensor atan2_slope_a(X a, X b, X grad) { return grad * b / (a * a + b * b); }
KTensor atan2_slope_b(X a, X b, X grad) { return neg(grad * a / (a * a + b * b)); }

}  // namespace

// Without the forms that take a number on the right.
#define ORNIK_TENSOR_PAIR(name, floating, dx, dy)                                                          \
    static constexpr BinaryRow name##_row{#name,           Op::name,        floating, &Tensor::name,       \
                                          &name##_dx_grad, &name##_dy_grad, &dx,      &dy};                \
    KTensor name(const KTensor& a, const KTensor& b) { return binary(name##_row, a, b); }                  \
    KTensor name(const Scalar& a, const KTensor& b) { return binary(name##_row, beside(#name, b, a), b); } \
    KTensor& name##_(KTensor& a, const KTensor& b) {                                                       \
        return binary_in_place(name##_row, #name "_", a, b, &Tensor::name##_inplace);                      \
    }
#define ORNIK_ARITHMETIC_PAIR(name, floating, dx, dy)                                                      \
    ORNIK_TENSOR_PAIR(name, floating, dx, dy)                                                              \
    KTensor name(const KTensor& a, const Scalar& b) { return binary(name##_row, a, beside(#name, a, b)); } \
    KTensor& name##_(KTensor& a, const Scalar& b) { return name##_(a, beside(#name "_", a, b)); }

// The power that programs take most: a product, which rounds right and costs a twentieth.
static bool is_square(const KTensor& a, const Scalar& b) {
    return a.defined() && a.is_floating() && !is_dtype_class(b.Dtype(), DtypeClass::complex) &&
           AnyScalar(b).as<double>() == 2;
}

ORNIK_TENSOR_PAIR(pow, false, pow_slope_a, pow_slope_b)
KTensor pow(const KTensor& a, const Scalar& b) {
    return is_square(a, b) ? sqr(a) : binary(pow_row, a, beside("pow", a, b));
}
KTensor& pow_(KTensor& a, const Scalar& b) { return is_square(a, b) ? sqr_(a) : pow_(a, beside("pow_", a, b)); }
ORNIK_ARITHMETIC_PAIR(fmod, false, constant_slope<fmod_dx_grad>, constant_slope<fmod_dy_grad>)
ORNIK_ARITHMETIC_PAIR(remainder, false, constant_slope<remainder_dx_grad>, constant_slope<remainder_dy_grad>)
ORNIK_ARITHMETIC_PAIR(maximum, false, constant_slope<maximum_dx_grad>, constant_slope<maximum_dy_grad>)
ORNIK_ARITHMETIC_PAIR(minimum, false, constant_slope<minimum_dx_grad>, constant_slope<minimum_dy_grad>)
ORNIK_ARITHMETIC_PAIR(atan2, true, atan2_slope_a, atan2_slope_b)

#undef ORNIK_ARITHMETIC_PAIR
#undef ORNIK_TENSOR_PAIR

// ---- Functions of real numbers (real_pairs.h) ----

namespace {

using FreePair = Tensor* (*)(Tensor* a, Tensor* b);

KTensor call(const char* name, FreePair function, const KTensor& a, const KTensor& b) {
    const Dims shape = autograd::broadcast_shape(name, a, b);
    const Shown left(a, shape);
    const Shown right(b, shape);
    return make_ktensor(function(left.get(), right.get()));
}

// What a step gives is a constant to what is recorded.
KTensor step(const char* name, FreePair function, const KTensor& a, const KTensor& b) {
    autograd::check_defined(name, a, 0);
    autograd::check_defined(name, b, 1);
    return call(name, function, a, b);
}

// Both in the floating dtype that they promote to.
std::pair<KTensor, KTensor> in_floating(const char* name, const KTensor& a, const KTensor& b) {
    autograd::check_defined(name, a, 0);
    autograd::check_defined(name, b, 1);
    const std::int64_t dtype = operations::floating_dtype(promotion::of_tensors(a.dtype(), b.dtype()));
    return {astype(a, dtype), astype(b, dtype)};
}

}  // namespace

KTensor hypot(const KTensor& left, const KTensor& right) {
    const auto [a, b] = in_floating("hypot", left, right);
    const Recorder record(Op::hypot, {&a, &b});
    KTensor y = call("hypot", ornik::hypot, a, b);
    if (record.active()) {
        record.finish(y, {record.operand(0), record.operand(1), Recorder::output(y)}, [](Backward& pass) {
            const KTensor length = pass.saved(2);
            const KTensor slope = div(pass.grad(), where(equal(length, Scalar(0.0F)), Scalar(1.0F), length));
            for (std::size_t i = 0; i < 2; ++i) {
                if (pass.wants(i)) {
                    pass.give(i, mul(slope, pass.saved(i)));
                }
            }
        });
    }
    return y;
}

KTensor logaddexp(const KTensor& left, const KTensor& right) {
    const auto [a, b] = in_floating("logaddexp", left, right);
    const Recorder record(Op::logaddexp, {&a, &b});
    KTensor y = call("logaddexp", ornik::logaddexp, a, b);
    if (record.active()) {
        record.finish(y, {record.operand(0), record.operand(1)}, [](Backward& pass) {
            for (std::size_t i = 0; i < 2; ++i) {
                if (pass.wants(i)) {
                    pass.give(i, mul(pass.grad(), sigmoid(sub(pass.saved(i), pass.saved(1 - i)))));
                }
            }
        });
    }
    return y;
}

KTensor copysign(const KTensor& left, const KTensor& right) {
    const auto [a, b] = in_floating("copysign", left, right);
    const Recorder record(Op::copysign, {&a});
    KTensor y = call("copysign", ornik::copysign, a, b);
    if (record.active()) {
        record.finish(y, {Recorder::own(mul(sign(a.detach()), sign(y.detach())))},
                      [](Backward& pass) { pass.give(0, mul(pass.grad(), pass.saved(0))); });
    }
    return y;
}

KTensor floor_divide(const KTensor& a, const KTensor& b) { return step("floor_divide", ornik::floor_divide, a, b); }
KTensor nextafter(const KTensor& a, const KTensor& b) { return step("nextafter", ornik::nextafter, a, b); }

#define ORNIK_WITH_NUMBERS(name)                                                             \
    KTensor name(const KTensor& a, const Scalar& b) { return name(a, beside(#name, a, b)); } \
    KTensor name(const Scalar& a, const KTensor& b) { return name(beside(#name, b, a), b); }
ORNIK_WITH_NUMBERS(hypot)
ORNIK_WITH_NUMBERS(logaddexp)
ORNIK_WITH_NUMBERS(copysign)
ORNIK_WITH_NUMBERS(floor_divide)
ORNIK_WITH_NUMBERS(nextafter)
#undef ORNIK_WITH_NUMBERS

// ---- Comparisons, logic, bits ----

namespace {

KTensor plain(const char* name, BinaryMember member, const KTensor& a, const KTensor& b) {
    autograd::check_defined(name, a, 0);
    autograd::check_defined(name, b, 1);
    return call(name, member, a, b);
}

}  // namespace

#define ORNIK_PLAIN_PAIR(name)                                                                                      \
    KTensor name(const KTensor& a, const KTensor& b) { return plain(#name, &Tensor::name, a, b); }                  \
    KTensor name(const KTensor& a, const Scalar& b) { return plain(#name, &Tensor::name, a, beside(#name, a, b)); } \
    KTensor name(const Scalar& a, const KTensor& b) { return plain(#name, &Tensor::name, beside(#name, b, a), b); }
#define ORNIK_BIT_PAIR(name)                                                                        \
    ORNIK_PLAIN_PAIR(name)                                                                          \
    KTensor& name##_(KTensor& a, const KTensor& b) {                                                \
        autograd::check_defined(#name "_", a, 0);                                                   \
        autograd::check_defined(#name "_", b, 1);                                                   \
        autograd::check_holds(#name "_", a, autograd::broadcast_shape(#name "_", a, b), a.dtype()); \
        a.tensor()->name##_inplace(Shown(b, a.shape()).get());                                      \
        return a;                                                                                   \
    }                                                                                               \
    KTensor& name##_(KTensor& a, const Scalar& b) { return name##_(a, beside(#name "_", a, b)); }

ORNIK_PLAIN_PAIR(equal)
ORNIK_PLAIN_PAIR(not_equal)
ORNIK_PLAIN_PAIR(greater)
ORNIK_PLAIN_PAIR(greater_equal)
ORNIK_PLAIN_PAIR(less)
ORNIK_PLAIN_PAIR(less_equal)
ORNIK_PLAIN_PAIR(logical_and)
ORNIK_PLAIN_PAIR(logical_or)
ORNIK_PLAIN_PAIR(logical_xor)
ORNIK_BIT_PAIR(bitwise_and)
ORNIK_BIT_PAIR(bitwise_or)
ORNIK_BIT_PAIR(bitwise_xor)
ORNIK_BIT_PAIR(left_shift)
ORNIK_BIT_PAIR(right_shift)

#undef ORNIK_PLAIN_PAIR
#undef ORNIK_BIT_PAIR

// ---- Choices ----

KTensor where(const KTensor& condition, const KTensor& left, const KTensor& right) {
    autograd::check_defined("where", condition, 0);
    autograd::check_defined("where", left, 1);
    autograd::check_defined("where", right, 2);
    if (condition.dtype() != dtype::boolean) {
        fail(ErrorKind::dtype, where("ornik::where"), "where(): the condition is bool, not ", describe(condition), ".");
    }
    const std::int64_t r = promotion::of_tensors(left.dtype(), right.dtype());
    const KTensor a = astype(left, r);
    const KTensor b = astype(right, r);
    const Recorder record(Op::where, {&a, &b});
    const KTensor shaped = KTensor(std::unique_ptr<Tensor>(
        Tensor::broadcast_to(condition.tensor(), autograd::broadcast_shape("where", condition, a))));
    const Dims shape = autograd::broadcast_shape("where", shaped, b);
    KTensor y = make_ktensor(ornik::where(Shown(condition, shape).get(), Shown(a, shape).get(), Shown(b, shape).get()));
    if (record.active()) {
        record.finish(y, {Recorder::own(condition)}, [](Backward& pass) {
            const KTensor chosen = pass.saved(0);
            const KTensor zero = KTensor::zeros({}, pass.grad().dtype());
            if (pass.wants(0)) {
                pass.give(0, where(chosen, pass.grad(), zero));
            }
            if (pass.wants(1)) {
                pass.give(1, where(chosen, zero, pass.grad()));
            }
        });
    }
    return y;
}

KTensor where(const KTensor& condition, const KTensor& a, const Scalar& b) {
    return where(condition, a, beside("where", a, b));
}

KTensor where(const KTensor& condition, const Scalar& a, const KTensor& b) {
    return where(condition, beside("where", b, a), b);
}

KTensor masked_fill(const KTensor& x, const KTensor& mask, const Scalar& value) {
    autograd::check_defined("masked_fill", x, 0);
    autograd::check_defined("masked_fill", mask, 1);
    autograd::check_holds("masked_fill", x, autograd::broadcast_shape("masked_fill", x, mask), x.dtype());
    return where(mask, value, x);
}

KTensor& masked_fill_(KTensor& x, const KTensor& mask, const Scalar& value) {
    autograd::check_defined("masked_fill_", mask, 1);
    const bool recorded = grad_enabled() && x.wants_grad();
    autograd::check_in_place("masked_fill_", x, recorded);
    const Scalar weak = autograd::weak_scalar(value, x.dtype());
    autograd::check_holds("masked_fill_", x, autograd::broadcast_shape("masked_fill_", x, mask),
                          promotion::with_scalar(x.dtype(), weak.Dtype()));
    if (recorded) {
        autograd::take_over(x, masked_fill(x, mask, value));
    } else {
        x.tensor()->masked_fill_inplace(Shown(mask, x.shape()).get(), weak);
    }
    return x;
}

namespace {

using Bounds = std::pair<Scalar, Scalar>;

KTensor bounded(Op op, const KTensor& x, KTensor (*forward)(Tensor*, const Bounds&), const Bounds& bounds,
                KTensor (*inside)(const KTensor& x, const Bounds&)) {
    const Recorder record(op, {&x});
    KTensor y = forward(x.tensor(), bounds);
    if (record.active()) {
        record.finish(y, {record.operand(0)}, [bounds, inside](Backward& pass) {
            const KTensor kept = pass.saved(0).detach();
            pass.give(0, where(inside(kept, bounds), pass.grad(), Scalar(0.0F)));
        });
    }
    return y;
}

KTensor above(const KTensor& x, const Bounds& bounds) { return greater_equal(x, bounds.first); }
KTensor below(const KTensor& x, const Bounds& bounds) { return less_equal(x, bounds.second); }

}  // namespace

KTensor clamp(const KTensor& x, const Scalar& min, const Scalar& max) {
    autograd::check_defined("clamp", x, 0);
    return bounded(
        Op::clamp, x, [](Tensor* t, const Bounds& b) { return make_ktensor(t->clamp(b.first, b.second)); },
        {autograd::weak_scalar(min, x.dtype()), autograd::weak_scalar(max, x.dtype())},
        [](const KTensor& t, const Bounds& b) { return logical_and(above(t, b), below(t, b)); });
}

KTensor clamp_min(const KTensor& x, const Scalar& min) {
    autograd::check_defined("clamp_min", x, 0);
    const Scalar bound = autograd::weak_scalar(min, x.dtype());
    return bounded(
        Op::clamp_min, x, [](Tensor* t, const Bounds& b) { return make_ktensor(t->clamp_min(b.first)); },
        {bound, bound}, above);
}

KTensor clamp_max(const KTensor& x, const Scalar& max) {
    autograd::check_defined("clamp_max", x, 0);
    const Scalar bound = autograd::weak_scalar(max, x.dtype());
    return bounded(
        Op::clamp_max, x, [](Tensor* t, const Bounds& b) { return make_ktensor(t->clamp_max(b.second)); },
        {bound, bound}, below);
}

namespace {

template <typename Operation, typename Forward>
KTensor& clamped(const char* name, KTensor& x, Operation&& operation, Forward&& forward) {
    const bool recorded = grad_enabled() && x.defined() && x.wants_grad();
    autograd::check_in_place(name, x, recorded);
    if (recorded) {
        autograd::take_over(x, operation(autograd::old_value(x)));
    } else {
        forward(x.tensor());
    }
    return x;
}

}  // namespace

KTensor& clamp_(KTensor& x, const Scalar& min, const Scalar& max) {
    return clamped(
        "clamp_", x, [&](const KTensor& t) { return clamp(t, min, max); },
        [&](Tensor* t) {
            t->clamp_inplace(autograd::weak_scalar(min, t->Dtype()), autograd::weak_scalar(max, t->Dtype()));
        });
}

KTensor& clamp_min_(KTensor& x, const Scalar& min) {
    return clamped(
        "clamp_min_", x, [&](const KTensor& t) { return clamp_min(t, min); },
        [&](Tensor* t) { t->clamp_min_inplace(autograd::weak_scalar(min, t->Dtype())); });
}

KTensor& clamp_max_(KTensor& x, const Scalar& max) {
    return clamped(
        "clamp_max_", x, [&](const KTensor& t) { return clamp_max(t, max); },
        [&](Tensor* t) { t->clamp_max_inplace(autograd::weak_scalar(max, t->Dtype())); });
}

KTensor is_close(const KTensor& a, const KTensor& b, double rtol, double atol, bool equal_nan) {
    autograd::check_defined("is_close", a, 0);
    autograd::check_defined("is_close", b, 1);
    const Dims shape = autograd::broadcast_shape("is_close", a, b);
    return make_ktensor(Shown(a, shape).get()->is_close(Shown(b, shape).get(), rtol, atol, equal_nan));
}

bool all_close(const KTensor& a, const KTensor& b, double rtol, double atol, bool equal_nan) {
    autograd::check_defined("all_close", a, 0);
    autograd::check_defined("all_close", b, 1);
    const Dims shape = autograd::broadcast_shape("all_close", a, b);
    return Shown(a, shape).get()->all_close(Shown(b, shape).get(), rtol, atol, equal_nan);
}

}  // namespace ornik
