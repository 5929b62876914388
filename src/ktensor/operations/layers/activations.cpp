// activations.cpp: activations and dropout, and their gradients.
#include "ktensor/activations.h"

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "layers/functional/activation.h"
#include "layers/functional/dropout.h"

namespace ornik {

using autograd::Backward;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

// An activation whose gradient needs its operand or its result; `gradient(kept, grad)` gives it.
template <typename Forward, typename Gradient>
KTensor activation(Op op, bool keeps_result, const KTensor& x, Forward&& forward, Gradient&& gradient) {
    const Recorder record(op, {&x});
    KTensor y = make_ktensor(forward(x.tensor()));
    if (record.active()) {
        record.finish(y, {keeps_result ? Recorder::output(y) : record.operand(0)}, [gradient](Backward& pass) {
            pass.give(0, make_ktensor(gradient(pass.saved_raw(0), pass.grad().tensor())));
        });
    }
    return y;
}

void relu_backward(Backward& pass) {
    if (pass.recorded()) {
        pass.give(0, where(greater(pass.saved(0).detach(), Scalar(0.0F)), pass.grad(), Scalar(0.0F)));
    } else {
        pass.give(0, make_ktensor(nn::relu_grad(pass.saved_raw(0), pass.grad().tensor())));
    }
}

// `operation` keeps x itself, so that its target must not be what it is given, or its result alone.
template <typename Operation, typename Forward>
KTensor& in_place(const char* name, KTensor& x, bool keeps_result, Operation&& operation, Forward&& forward) {
    const bool recorded = grad_enabled() && x.defined() && x.wants_grad();
    autograd::check_in_place(name, x, recorded);
    if (recorded) {
        autograd::take_over(x, operation(keeps_result ? x : autograd::old_value(x)));
    } else {
        forward(x.tensor());
    }
    return x;
}

}  // namespace

KTensor relu(const KTensor& x) {
    const Recorder record(Op::relu, {&x});
    KTensor y = make_ktensor(nn::relu(x.tensor()));
    if (record.active()) {
        record.finish(y, {Recorder::output(y)}, relu_backward);
    }
    return y;
}

KTensor leaky_relu(const KTensor& x, float slope) {
    return activation(
        Op::leaky_relu, slope > 0, x, [=](Tensor* t) { return nn::leaky_relu(t, slope); },
        [=](Tensor* kept, Tensor* grad) { return nn::leaky_relu_grad(kept, grad, slope); });
}

KTensor elu(const KTensor& x, float alpha) {
    const Recorder record(Op::elu, {&x});
    KTensor y = make_ktensor(nn::elu(x.tensor(), alpha));
    if (record.active()) {
        const bool result_alone = alpha > 0;
        record.finish(y, {result_alone ? autograd::Keep{} : record.operand(0), Recorder::output(y)},
                      [alpha](Backward& pass) {
                          Tensor* result = pass.saved_raw(1);
                          Tensor* operand = pass.saved_raw(0) != nullptr ? pass.saved_raw(0) : result;
                          pass.give(0, make_ktensor(nn::elu_grad(operand, result, pass.grad().tensor(), alpha)));
                      });
    }
    return y;
}

KTensor selu(const KTensor& x) { return activation(Op::selu, true, x, nn::selu, nn::selu_grad); }

KTensor hardtanh(const KTensor& x, double low, double high) {
    return activation(
        Op::hardtanh, true, x, [=](Tensor* t) { return nn::hardtanh(t, low, high); },
        [=](Tensor* kept, Tensor* grad) { return nn::hardtanh_grad(kept, grad, low, high); });
}

KTensor hardsigmoid(const KTensor& x) {
    return activation(Op::hardsigmoid, false, x, nn::hardsigmoid, nn::hardsigmoid_grad);
}

KTensor hardswish(const KTensor& x) { return activation(Op::hardswish, false, x, nn::hardswish, nn::hardswish_grad); }

KTensor mish(const KTensor& x) { return activation(Op::mish, false, x, nn::mish, nn::mish_grad); }

// ---- In place ----

KTensor& relu_(KTensor& x) { return in_place("relu_", x, true, relu, nn::relu_inplace); }

KTensor& leaky_relu_(KTensor& x, float slope) {
    return in_place(
        "leaky_relu_", x, slope > 0, [=](const KTensor& t) { return leaky_relu(t, slope); },
        [=](Tensor* t) { nn::leaky_relu_inplace(t, slope); });
}

KTensor& elu_(KTensor& x, float alpha) {
    return in_place(
        "elu_", x, alpha > 0, [=](const KTensor& t) { return elu(t, alpha); },
        [=](Tensor* t) { nn::elu_inplace(t, alpha); });
}

KTensor& selu_(KTensor& x) { return in_place("selu_", x, true, selu, nn::selu_inplace); }

KTensor& hardtanh_(KTensor& x, double low, double high) {
    return in_place(
        "hardtanh_", x, true, [=](const KTensor& t) { return hardtanh(t, low, high); },
        [=](Tensor* t) { nn::hardtanh_inplace(t, low, high); });
}

KTensor& hardsigmoid_(KTensor& x) { return in_place("hardsigmoid_", x, false, hardsigmoid, nn::hardsigmoid_inplace); }

KTensor& hardswish_(KTensor& x) { return in_place("hardswish_", x, false, hardswish, nn::hardswish_inplace); }

KTensor& mish_(KTensor& x) { return in_place("mish_", x, false, mish, nn::mish_inplace); }

namespace {

KTensor dropped(const KTensor& x, double p, bool training, nn::Dropped (*drop)(Tensor*, double)) {
    const Recorder record(Op::dropout, {&x});
    const bool is_fit = (x.is_floating() || x.is_complex()) && x.ndim() >= 2;  // For both kinds: nothing to refuse.
    if (!training || (p == 0 && is_fit)) {
        return x;
    }
    nn::Dropped result = drop(x.tensor(), p);
    KTensor y = make_ktensor(std::move(result.output));
    if (record.active()) {
        const KTensor kept = make_ktensor(std::move(result.kept));
        record.finish(y, {Recorder::own(kept)}, [p](Backward& pass) {
            if (!pass.recorded()) {
                pass.give(0, make_ktensor(nn::dropout_grad(pass.grad().tensor(), pass.saved_raw(0), p)));
                return;
            }
            KTensor mask = astype(pass.saved(0), pass.grad().dtype());
            while (mask.ndim() < pass.grad().ndim()) {
                mask = unsqueeze(mask, -1);
            }
            pass.give(0, p < 1 ? mul(mul(pass.grad(), mask), Scalar(1 / (1 - p))) : mul(pass.grad(), mask));
        });
    }
    return y;
}

}  // namespace

KTensor dropout(const KTensor& x, double p, bool training) { return dropped(x, p, training, nn::dropout); }

KTensor dropout_channels(const KTensor& x, double p, bool training) {
    return dropped(x, p, training, nn::dropout_channels);
}

}  // namespace ornik
