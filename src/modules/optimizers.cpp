// optimizers.cpp: the steps of each optimizer.
#include "modules/optimizers.h"

#include <algorithm>
#include <limits>

#include "optimizers/optimizers.h"
#include "optimizers/steps.h"

namespace ornik {

namespace {

float single(double value) { return static_cast<float>(value); }

std::int32_t step_number(std::int64_t steps) {
    return static_cast<std::int32_t>(std::min<std::int64_t>(steps, std::numeric_limits<std::int32_t>::max()));
}

}  // namespace

void SGD::update(Slot& slot, const KTensor& gradient) {
    const SgdOptions& o = options_[slot.group];
    const bool first = slot.kept.empty();
    Tensor* buffer = o.momentum != 0 ? kept(slot, "momentum_buffer") : nullptr;
    nn::sgd_step(slot.parameter.tensor(), gradient.tensor(), buffer,
                 {single(o.lr), single(o.momentum), single(o.dampening), single(o.weight_decay), o.nesterov, first});
}

void Adam::update(Slot& slot, const KTensor& gradient) {
    const AdamOptions& o = options_[slot.group];
    Tensor* m = kept(slot, "exp_avg");
    Tensor* v = kept(slot, "exp_avg_sq");
    nn::adam_step(slot.parameter.tensor(), gradient.tensor(), m, v, o.amsgrad ? kept(slot, "max_exp_avg_sq") : nullptr,
                  {single(o.lr), single(o.beta1), single(o.beta2), single(o.eps), single(o.weight_decay),
                   step_number(slot.steps)});
}

void AdamW::update(Slot& slot, const KTensor& gradient) {
    const AdamOptions& o = options_[slot.group];
    Tensor* m = kept(slot, "exp_avg");
    Tensor* v = kept(slot, "exp_avg_sq");
    adamw_step(slot.parameter.tensor(), gradient.tensor(), single(o.lr), single(o.beta1), single(o.beta2),
               single(o.eps), single(o.weight_decay), step_number(slot.steps), m, v,
               o.amsgrad ? kept(slot, "max_exp_avg_sq") : nullptr, o.amsgrad);
}

void Adamax::update(Slot& slot, const KTensor& gradient) {
    const AdamaxOptions& o = options_[slot.group];
    Tensor* m = kept(slot, "exp_avg");
    nn::adamax_step(slot.parameter.tensor(), gradient.tensor(), m, kept(slot, "exp_inf"),
                    {single(o.lr), single(o.beta1), single(o.beta2), single(o.eps), single(o.weight_decay),
                     step_number(slot.steps)});
}

void Adagrad::update(Slot& slot, const KTensor& gradient) {
    const AdagradOptions& o = options_[slot.group];
    const double lr = o.lr / (1 + static_cast<double>(slot.steps - 1) * o.lr_decay);
    nn::adagrad_step(slot.parameter.tensor(), gradient.tensor(), kept(slot, "sum"),
                     {single(lr), single(o.eps), single(o.weight_decay)});
}

void Adadelta::update(Slot& slot, const KTensor& gradient) {
    const AdadeltaOptions& o = options_[slot.group];
    Tensor* average = kept(slot, "square_avg");
    nn::adadelta_step(slot.parameter.tensor(), gradient.tensor(), average, kept(slot, "acc_delta"),
                      {single(o.lr), single(o.rho), single(o.eps), single(o.weight_decay)});
}

void RMSprop::update(Slot& slot, const KTensor& gradient) {
    const RmspropOptions& o = options_[slot.group];
    Tensor* average = kept(slot, "square_avg");
    Tensor* mean = o.centered ? kept(slot, "grad_avg") : nullptr;
    nn::rmsprop_step(slot.parameter.tensor(), gradient.tensor(), average, mean,
                     o.momentum != 0 ? kept(slot, "momentum_buffer") : nullptr,
                     {single(o.lr), single(o.alpha), single(o.eps), single(o.momentum), single(o.weight_decay)});
}

}  // namespace ornik
