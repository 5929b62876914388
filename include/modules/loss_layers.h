// loss_layers.h: losses as modules, called with prediction and target. Formulas: ktensor/losses.h.
//
//     CrossEntropyLoss criterion;
//     KTensor loss = criterion(network(x), labels);
#pragma once

#include <utility>

#include "../ktensor/losses.h"
#include "module.h"

namespace ornik {

/// The functions of ktensor/losses.h with everything but prediction and target bound.
class LossModule : public Module {
  public:
    using Module::forward;
    KTensor forward(const KTensor& prediction, const KTensor& target) const { return loss(prediction, target); }
    KTensor operator()(const KTensor& prediction, const KTensor& target) const { return loss(prediction, target); }

  protected:
    virtual KTensor loss(const KTensor& prediction, const KTensor& target) const = 0;
};

class CrossEntropyLoss : public LossModule {
  public:
    explicit CrossEntropyLoss(ClassLossArguments arguments = {}) : arguments_(std::move(arguments)) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return cross_entropy(prediction, target, arguments_);
    }

  private:
    ClassLossArguments arguments_;
};

class NLLLoss : public LossModule {
  public:
    explicit NLLLoss(ClassLossArguments arguments = {}) : arguments_(std::move(arguments)) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return nll_loss(prediction, target, arguments_);
    }

  private:
    ClassLossArguments arguments_;
};

class MSELoss : public LossModule {
  public:
    explicit MSELoss(Reduction reduction = Reduction::mean) : reduction_(reduction) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return mse_loss(prediction, target, reduction_);
    }

  private:
    Reduction reduction_;
};

class L1Loss : public LossModule {
  public:
    explicit L1Loss(Reduction reduction = Reduction::mean) : reduction_(reduction) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return l1_loss(prediction, target, reduction_);
    }

  private:
    Reduction reduction_;
};

class SmoothL1Loss : public LossModule {
  public:
    explicit SmoothL1Loss(double beta = 1, Reduction reduction = Reduction::mean)
        : beta_(beta), reduction_(reduction) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return smooth_l1_loss(prediction, target, beta_, reduction_);
    }

  private:
    double beta_;
    Reduction reduction_;
};

class HuberLoss : public LossModule {
  public:
    explicit HuberLoss(double delta = 1, Reduction reduction = Reduction::mean)
        : delta_(delta), reduction_(reduction) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return huber_loss(prediction, target, delta_, reduction_);
    }

  private:
    double delta_;
    Reduction reduction_;
};

class BCELoss : public LossModule {
  public:
    explicit BCELoss(KTensor weight = KTensor(), Reduction reduction = Reduction::mean)
        : weight_(std::move(weight)), reduction_(reduction) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return binary_cross_entropy(prediction, target, weight_, reduction_);
    }

  private:
    KTensor weight_;
    Reduction reduction_;
};

class BCEWithLogitsLoss : public LossModule {
  public:
    explicit BCEWithLogitsLoss(KTensor weight = KTensor(), KTensor positive_weight = KTensor(),
                               Reduction reduction = Reduction::mean)
        : weight_(std::move(weight)), positive_weight_(std::move(positive_weight)), reduction_(reduction) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return binary_cross_entropy_with_logits(prediction, target, weight_, positive_weight_, reduction_);
    }

  private:
    KTensor weight_;
    KTensor positive_weight_;
    Reduction reduction_;
};

class KLDivLoss : public LossModule {
  public:
    explicit KLDivLoss(bool log_target = false, Reduction reduction = Reduction::mean)
        : log_target_(log_target), reduction_(reduction) {}

  protected:
    KTensor loss(const KTensor& prediction, const KTensor& target) const override {
        return kl_div(prediction, target, log_target_, reduction_);
    }

  private:
    bool log_target_;
    Reduction reduction_;
};

}  // namespace ornik
