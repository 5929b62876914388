// losses.cpp: losses and their gradients.
#include "ktensor/losses.h"

#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

// ---- Over classes ----

nn::ClassLossOptions class_options(const ClassLossArguments& arguments, Tensor* weight) {
    return {arguments.reduction, weight, arguments.ignore_index, arguments.label_smoothing};
}

// Arguments without their tensor, which the node saves.
ClassLossArguments numbers_of(const ClassLossArguments& arguments) {
    ClassLossArguments numbers = arguments;
    numbers.weight = KTensor();
    return numbers;
}

void give_both(Backward& pass, nn::LossGradients gradients) {
    if (gradients.prediction) {
        pass.give(0, make_ktensor(std::move(gradients.prediction)));
    }
    if (gradients.target) {
        pass.give(1, make_ktensor(std::move(gradients.target)));
    }
}

}  // namespace

KTensor cross_entropy(const KTensor& prediction, const KTensor& target, const ClassLossArguments& arguments) {
    const Recorder record(Op::cross_entropy, {&prediction, &target});
    KTensor y = make_ktensor(
        nn::cross_entropy(prediction.tensor(), target.tensor(), class_options(arguments, arguments.weight.tensor())));
    if (record.active()) {
        record.finish(y, {record.operand(0), record.operand(1), Recorder::own(arguments.weight)},
                      [numbers = numbers_of(arguments)](Backward& pass) {
                          give_both(pass,
                                    nn::cross_entropy_grad(pass.grad().tensor(), pass.saved_raw(0), pass.saved_raw(1),
                                                           class_options(numbers, pass.saved_raw(2)),
                                                           {pass.wants(0), pass.wants(1)}));
                      });
    }
    return y;
}

KTensor nll_loss(const KTensor& prediction, const KTensor& target, const ClassLossArguments& arguments) {
    const Recorder record(Op::nll_loss, {&prediction, &target});
    KTensor y = make_ktensor(
        nn::nll_loss(prediction.tensor(), target.tensor(), class_options(arguments, arguments.weight.tensor())));
    if (record.active()) {
        record.finish(
            y, {record.operand(0), record.operand(1), Recorder::own(arguments.weight)},
            [numbers = numbers_of(arguments)](Backward& pass) {
                pass.give(0, make_ktensor(nn::nll_loss_grad(pass.grad().tensor(), pass.saved_raw(0), pass.saved_raw(1),
                                                            class_options(numbers, pass.saved_raw(2)))));
            });
    }
    return y;
}

// ---- Over elements ----

namespace {

struct ElementArguments {
    nn::ElementLoss loss;
    Reduction reduction;
    double parameter = 1;

    nn::ElementLossOptions options(Tensor* weight, Tensor* positive_weight) const {
        return {reduction, weight, positive_weight, parameter};
    }
};

KTensor element_loss(Op op, const ElementArguments& arguments, const KTensor& left, const KTensor& right,
                     const KTensor& weight = KTensor(), const KTensor& positive_weight = KTensor()) {
    const char* name = info_of(op).name;
    autograd::check_defined(name, left, 0);
    autograd::check_defined(name, right, 1);
    const Dims shape = autograd::broadcast_shape(name, left, right);
    const auto shown = [&](const KTensor& t) { return t.defined() && t.shape() != shape ? broadcast_to(t, shape) : t; };
    const KTensor prediction = shown(left);
    const KTensor target = shown(right);
    const KTensor weights = shown(weight);
    const KTensor positive = shown(positive_weight);
    const Recorder record(op, {&prediction, &target});
    KTensor y = make_ktensor(nn::element_loss(arguments.loss, prediction.tensor(), target.tensor(),
                                              arguments.options(weights.tensor(), positive.tensor())));
    if (record.active()) {
        record.finish(y, {record.operand(0), record.operand(1), Recorder::own(weights), Recorder::own(positive)},
                      [arguments](Backward& pass) {
                          give_both(pass, nn::element_loss_grad(arguments.loss, pass.grad().tensor(), pass.saved_raw(0),
                                                                pass.saved_raw(1),
                                                                arguments.options(pass.saved_raw(2), pass.saved_raw(3)),
                                                                {pass.wants(0), pass.wants(1)}));
                      });
    }
    return y;
}

}  // namespace

KTensor mse_loss(const KTensor& prediction, const KTensor& target, Reduction reduction) {
    return element_loss(Op::mse_loss, {nn::ElementLoss::mean_square, reduction}, prediction, target);
}

KTensor l1_loss(const KTensor& prediction, const KTensor& target, Reduction reduction) {
    return element_loss(Op::l1_loss, {nn::ElementLoss::absolute, reduction}, prediction, target);
}

KTensor smooth_l1_loss(const KTensor& prediction, const KTensor& target, double beta, Reduction reduction) {
    return element_loss(Op::smooth_l1_loss, {nn::ElementLoss::smooth_l1, reduction, beta}, prediction, target);
}

KTensor huber_loss(const KTensor& prediction, const KTensor& target, double delta, Reduction reduction) {
    return element_loss(Op::huber_loss, {nn::ElementLoss::huber, reduction, delta}, prediction, target);
}

KTensor binary_cross_entropy(const KTensor& prediction, const KTensor& target, const KTensor& weight,
                             Reduction reduction) {
    return element_loss(Op::binary_cross_entropy, {nn::ElementLoss::binary_cross_entropy, reduction}, prediction,
                        target, weight);
}

KTensor binary_cross_entropy_with_logits(const KTensor& prediction, const KTensor& target, const KTensor& weight,
                                         const KTensor& positive_weight, Reduction reduction) {
    return element_loss(Op::binary_cross_entropy_with_logits,
                        {nn::ElementLoss::binary_cross_entropy_with_logits, reduction}, prediction, target, weight,
                        positive_weight);
}

KTensor kl_div(const KTensor& prediction, const KTensor& target, bool log_target, Reduction reduction) {
    const nn::ElementLoss loss =
        log_target ? nn::ElementLoss::kl_divergence_log_target : nn::ElementLoss::kl_divergence;
    return element_loss(Op::kl_div, {loss, reduction}, prediction, target);
}

}  // namespace ornik
