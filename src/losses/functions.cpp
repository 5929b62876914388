#include "losses/functions.h"

#include "hardware/cpu/nn/cpu_losses.h"
#include "loss_operands.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_math/tensor_arithmetic.h"

namespace ornik::nn {

namespace {

struct Names {
    const char* name;
    const char* title;
};

Names names_of(ElementLoss loss) {
    switch (loss) {
        case ElementLoss::mean_square:
            return {"mean squared error", "Mean squared error"};
        case ElementLoss::absolute:
            return {"absolute error", "Absolute error"};
        case ElementLoss::smooth_l1:
            return {"smooth L1 loss", "Smooth L1 loss"};
        case ElementLoss::huber:
            return {"huber loss", "Huber loss"};
        case ElementLoss::binary_cross_entropy:
        case ElementLoss::binary_cross_entropy_with_logits:
            return {"binary cross entropy", "Binary cross entropy"};
        case ElementLoss::kl_divergence:
        case ElementLoss::kl_divergence_log_target:
            break;
    }
    return {"KL divergence", "KL divergence"};
}

std::unique_ptr<Tensor> make_loss(const Dims& terms, const Tensor* prediction, Reduction reduction) {
    return make_tensor(reduction == Reduction::none ? terms : Dims{}, prediction->Dtype());
}

// Of the loss, whose terms have that shape.
void check_upstream(const Where& at, const char* name, const Tensor* gradient, const Tensor* prediction,
                    const Dims& terms, Reduction reduction) {
    check_output_gradient(at, name, gradient, prediction, reduction == Reduction::none ? terms : Dims{});
}

// ---- Over elements ----

void check_elements(const Where& at, ElementLoss loss, const Tensor* prediction, const Tensor* target,
                    const ElementLossOptions& options) {
    const auto [name, title] = names_of(loss);
    check_loss_pair(at, name, title, prediction, target, true);
    for (const Tensor* w : {options.weight, options.positive_weight}) {
        if (w == nullptr) {
            continue;
        }
        check_alike(at, name, w, prediction);
        if (w->Shape() != prediction->Shape()) {
            fail(at, "A weight of shape ", w->Shape(), "does not fit a prediction of shape ", prediction->Shape());
        }
    }
    if (options.positive_weight != nullptr && loss != ElementLoss::binary_cross_entropy_with_logits) {
        fail(at, "A positive weight belongs to binary cross entropy with logits.");
    }
    const bool may_be_zero = loss == ElementLoss::smooth_l1;
    if (!(options.parameter > 0 || (may_be_zero && options.parameter == 0))) {
        fail(at, "The parameter of ", name, " should be ", may_be_zero ? "0 or above" : "above 0");
    }
}

// All terms, contiguous, before weight and reduction.
std::unique_ptr<Tensor> terms_of(const Where& at, ElementLoss loss, Tensor* prediction, Tensor* target,
                                 const ElementLossOptions& options, Reduction reduction) {
    const Borrowed x = Borrowed::contiguous(prediction);
    const Borrowed t = Borrowed::contiguous(target);
    const Borrowed w = Borrowed::contiguous(options.positive_weight);
    if (loss == ElementLoss::binary_cross_entropy) {
        check_probabilities(at, x.get());
    }
    std::unique_ptr<Tensor> result = make_loss(prediction->Shape(), prediction, reduction);
    device::cpu::element_loss({loss, x.get(), t.get(), w.get(), options.parameter}, reduction, result.get());
    return result;
}

// One value seen as a tensor of the shape.
std::unique_ptr<Tensor> spread(const Tensor* value, const Dims& shape) {
    return std::unique_ptr<Tensor>(share_storage_tensor(value->getStorage(), shape, Dims(shape.size(), 0),
                                                        value->Dtype(), value->StorageOffset()));
}

// The gradient of every weighted term before its weight.
std::unique_ptr<Tensor> weighted_upstream(Tensor* gradient, Tensor* weight, Reduction reduction) {
    std::unique_ptr<Tensor> result = make_tensor(weight->Shape(), weight->Dtype());
    if (reduction == Reduction::none) {
        mult(gradient, weight, result.get(), 0);
        return result;
    }
    std::unique_ptr<Tensor> share = make_tensor({}, weight->Dtype());
    share->fill_(reduction == Reduction::mean ? 1 / static_cast<double>(weight->Size()) : 1.0);
    share->mult_tensor_inplace(gradient);
    mult(spread(share.get(), weight->Shape()).get(), weight, result.get(), 0);
    return result;
}

// ---- Over classes ----

// Operands as the kernel takes them. The target's gradient is that of numbers, not of indices.
struct ClassOperands {
    LossOperands operands;
    Borrowed weight;
    device::cpu::ClassLoss loss;
    Dims members;
};

ClassOperands class_operands(const Where& at, const Names& names, Tensor* prediction, Tensor* target,
                             const ClassLossOptions& options, bool numbers_too) {
    LossOperands operands =
        check_class_loss(at, names.name, names.title, prediction, target, numbers_too, options.ignore_index, true);
    const Dims& shape = prediction->Shape();
    if (options.weight != nullptr) {
        check_alike(at, names.name, options.weight, prediction);
        if (options.weight->Shape() != Dims{shape.back()}) {
            fail(at, "A weight of shape ", options.weight->Shape(), "does not fit ", shape.back(), " classes.");
        }
    }
    if (!(options.label_smoothing >= 0 && options.label_smoothing <= 1)) {
        fail(at, "Label smoothing should be in the range of [0, 1].");
    }
    Borrowed weight = Borrowed::contiguous(options.weight);
    const device::cpu::ClassLoss loss{operands.prediction.get(),
                                      operands.target.get(),
                                      operands.has_indices,
                                      weight.get(),
                                      operands.has_indices ? std::optional(options.ignore_index) : std::nullopt,
                                      options.label_smoothing,
                                      options.reduction};
    return {std::move(operands), std::move(weight), loss, Dims(shape.begin(), shape.end() - 1)};
}

constexpr Names cross_entropy_names{"cross entropy", "Cross entropy"};
constexpr Names nll_names{"negative log-likelihood", "Negative log-likelihood"};

ClassOperands nll_operands(const Where& at, Tensor* prediction, Tensor* target, const ClassLossOptions& options) {
    if (options.label_smoothing != 0) {
        fail(at, "Label smoothing belongs to cross entropy.");
    }
    return class_operands(at, nll_names, prediction, target, options, false);
}

}  // namespace

std::unique_ptr<Tensor> element_loss(ElementLoss loss, Tensor* prediction, Tensor* target,
                                     const ElementLossOptions& options) {
    const Where at = where("ornik::nn::element_loss");
    check_elements(at, loss, prediction, target, options);
    if (options.weight == nullptr || prediction->Size() == 0) {
        return terms_of(at, loss, prediction, target, options, options.reduction);
    }
    std::unique_ptr<Tensor> terms = terms_of(at, loss, prediction, target, options, Reduction::none);
    mult(terms.get(), options.weight, terms.get(), 0);
    if (options.reduction == Reduction::none) {
        return terms;
    }
    return std::unique_ptr<Tensor>(options.reduction == Reduction::mean ? mean(terms.get()) : sum(terms.get()));
}

LossGradients element_loss_grad(ElementLoss loss, Tensor* loss_gradient, Tensor* prediction, Tensor* target,
                                const ElementLossOptions& options, const std::array<bool, 2>& wanted) {
    const Where at = where("ornik::nn::element_loss_grad");
    check_elements(at, loss, prediction, target, options);
    const Dims& shape = prediction->Shape();
    check_upstream(at, names_of(loss).name, loss_gradient, prediction, shape, options.reduction);
    const auto make = [&](bool is_wanted) { return is_wanted ? make_tensor(shape, prediction->Dtype()) : nullptr; };
    LossGradients result{make(wanted[0]), make(wanted[1])};
    if (prediction->Size() == 0) {
        return result;
    }
    const bool weighted = options.weight != nullptr;
    const std::unique_ptr<Tensor> each =
        weighted ? weighted_upstream(loss_gradient, options.weight, options.reduction) : nullptr;
    Tensor* positive_weight = options.positive_weight;
    std::unique_ptr<Tensor> ones;
    if (loss == ElementLoss::binary_cross_entropy_with_logits && positive_weight == nullptr) {
        const std::unique_ptr<Tensor> one = make_tensor({}, prediction->Dtype());
        one->fill_(1);
        ones = spread(one.get(), shape);
        positive_weight = ones.get();
    }
    const device::cpu::ElementTerms terms{loss, prediction, target, positive_weight, options.parameter};
    for (const bool of_target : {false, true}) {
        if (Tensor* const gradient = (of_target ? result.target : result.prediction).get()) {
            device::cpu::element_loss_grad(terms, weighted ? Reduction::none : options.reduction,
                                           weighted ? each.get() : loss_gradient, of_target, gradient);
        }
    }
    return result;
}

std::unique_ptr<Tensor> cross_entropy(Tensor* prediction, Tensor* target, const ClassLossOptions& options) {
    const ClassOperands from =
        class_operands(where("ornik::nn::cross_entropy"), cross_entropy_names, prediction, target, options, true);
    std::unique_ptr<Tensor> result = make_loss(from.members, prediction, options.reduction);
    device::cpu::cross_entropy(from.loss, result.get());
    return result;
}

LossGradients cross_entropy_grad(Tensor* loss_gradient, Tensor* prediction, Tensor* target,
                                 const ClassLossOptions& options, const std::array<bool, 2>& wanted) {
    const Where at = where("ornik::nn::cross_entropy_grad");
    const ClassOperands from = class_operands(at, cross_entropy_names, prediction, target, options, true);
    check_upstream(at, cross_entropy_names.name, loss_gradient, prediction, from.members, options.reduction);
    if (wanted[1] && from.loss.has_indices) {
        fail(at, "Class indices have no gradient.");
    }
    const auto make = [&](bool is_wanted) {
        return is_wanted ? make_tensor(prediction->Shape(), prediction->Dtype()) : nullptr;
    };
    LossGradients result{make(wanted[0]), make(wanted[1])};
    device::cpu::cross_entropy_grad(from.loss, Borrowed::contiguous(loss_gradient).get(), result.prediction.get(),
                                    result.target.get());
    return result;
}

std::unique_ptr<Tensor> nll_loss(Tensor* prediction, Tensor* target, const ClassLossOptions& options) {
    const ClassOperands from = nll_operands(where("ornik::nn::nll_loss"), prediction, target, options);
    std::unique_ptr<Tensor> result = make_loss(from.members, prediction, options.reduction);
    device::cpu::nll_loss(from.loss, result.get());
    return result;
}

std::unique_ptr<Tensor> nll_loss_grad(Tensor* loss_gradient, Tensor* prediction, Tensor* target,
                                      const ClassLossOptions& options) {
    const Where at = where("ornik::nn::nll_loss_grad");
    const ClassOperands from = nll_operands(at, prediction, target, options);
    check_upstream(at, nll_names.name, loss_gradient, prediction, from.members, options.reduction);
    std::unique_ptr<Tensor> result = make_tensor(prediction->Shape(), prediction->Dtype());
    device::cpu::nll_loss_grad(from.loss, Borrowed::contiguous(loss_gradient).get(), result.get());
    return result;
}

}  // namespace ornik::nn
