// optimizer.h: one optimizer step over all parameters of a network.
#pragma once

#include "module.h"

/// SGD with Nesterov momentum.
inline void sgd_update(const std::vector<Parameter*>& parameters, float learning_rate, float momentum) {
    for (Parameter* p : parameters) {
        if (p->state.empty()) {
            p->state.emplace_back(ornik::Tensor::zeros_like(p->value.get()));
        }
        ornik::sgd_step(p->value.get(), p->gradient.get(), learning_rate, p->state[0].get(), momentum, true);
    }
}

/// AdamW; `step` counts from 1.
inline void adamw_update(const std::vector<Parameter*>& parameters, float learning_rate, float weight_decay, int step) {
    for (Parameter* p : parameters) {
        while (p->state.size() < 2) {
            p->state.emplace_back(ornik::Tensor::zeros_like(p->value.get()));
        }
        ornik::adamw_step(p->value.get(), p->gradient.get(), learning_rate, 0.9F, 0.99F, 1e-8F, weight_decay, step,
                          p->state[0].get(), p->state[1].get(), nullptr, false);
    }
}
