// optimizers.h: optimizers over lists of parameters, clipping, and schedules of the learning rate.
//
//     Adam optimizer(network.parameters(), {.lr = 1e-3});
//     for (...) {
//         optimizer.zero_grad();
//         loss.backward();
//         clip_grad_norm(network.parameters(), 1.0);
//         optimizer.step();
//     }
//
// A parameter without a gradient is left alone, and its own step count does not move. Formulas, and names of the state,
// are those of the large frameworks (optimizers/steps.h); hyper-parameters are single-precision numbers to the steps.
#pragma once

#include "clipping.h"
#include "optimizer.h"
#include "schedules.h"

namespace ornik {

struct SgdOptions {
    double lr = 1e-3;
    double momentum = 0;
    double dampening = 0;
    double weight_decay = 0;
    bool nesterov = false;
};

class ORNIK_API SGD : public detail::GroupedOptimizer<SgdOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct AdamOptions {
    double lr = 1e-3;
    double beta1 = 0.9;
    double beta2 = 0.999;
    double eps = 1e-8;
    double weight_decay = 0;  ///< added to the gradient; of AdamW taken from the parameter
    bool amsgrad = false;
};

class ORNIK_API Adam : public detail::GroupedOptimizer<AdamOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

/// Weight decay apart from the gradient; 1e-2 is the usual one.
class ORNIK_API AdamW : public Adam {
  public:
    using Adam::Adam;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct AdamaxOptions {
    double lr = 2e-3;
    double beta1 = 0.9;
    double beta2 = 0.999;
    double eps = 1e-8;
    double weight_decay = 0;
};

class ORNIK_API Adamax : public detail::GroupedOptimizer<AdamaxOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct AdagradOptions {
    double lr = 1e-2;
    double lr_decay = 0;
    double eps = 1e-10;
    double weight_decay = 0;
};

class ORNIK_API Adagrad : public detail::GroupedOptimizer<AdagradOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct AdadeltaOptions {
    double lr = 1;
    double rho = 0.9;
    double eps = 1e-6;
    double weight_decay = 0;
};

class ORNIK_API Adadelta : public detail::GroupedOptimizer<AdadeltaOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct RmspropOptions {
    double lr = 1e-2;
    double alpha = 0.99;
    double eps = 1e-8;
    double momentum = 0;
    double weight_decay = 0;
    bool centered = false;
};

class ORNIK_API RMSprop : public detail::GroupedOptimizer<RmspropOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

}  // namespace ornik
