// step_parameters.h: the numbers of an optimizer's step; optimizers/steps.h has the formulas.
#pragma once

#include <cstdint>

namespace ornik::nn {

struct SgdParameters {
    float lr = 0;
    float momentum = 0;
    float dampening = 0;
    float weight_decay = 0;
    bool nesterov = false;
    bool first = false;  ///< the buffer holds nothing yet
};

struct RmspropParameters {
    float lr = 0;
    float alpha = 0.99F;
    float eps = 1e-8F;
    float momentum = 0;
    float weight_decay = 0;
};

struct AdamParameters {
    float lr = 0;
    float beta1 = 0.9F;
    float beta2 = 0.999F;
    float eps = 1e-8F;
    float weight_decay = 0;
    std::int32_t step = 1;  ///< counts from 1
};

struct AdagradParameters {
    float lr = 0;
    float eps = 1e-10F;
    float weight_decay = 0;
};

struct AdadeltaParameters {
    float lr = 1;
    float rho = 0.9F;
    float eps = 1e-6F;
    float weight_decay = 0;
};

}  // namespace ornik::nn
