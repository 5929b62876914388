#include "apis/ornik.h"

#include <new>
#include <utility>

#include "layers/layer_activation.h"
#include "layers/layer_dense.h"
#include "losses/binary_cross_entropy.h"
#include "losses/mean_squared_error.h"
#include "losses/nll_loss.h"
#include "losses/soft_cross_entropy.h"

namespace ornik {

Layer* _Dense(int output_features, bool use_bias, std::string name) {
    if (output_features < 1) {
        fail(where("ornik::_Dense"), "Dense layer needs at least one output, however it has ", output_features);
    }
    return new (std::nothrow) LDense(output_features, use_bias, std::move(name), 0, 0);
}

Layer* _Activation(std::string activation, std::vector<float> parameters, std::string name) {
    return new (std::nothrow) LActivation(std::move(activation), std::move(parameters), std::move(name), 0, 0);
}

Layer* _Softmax(int axis, std::string name) {
    return _Activation("softmax", {static_cast<float>(axis)}, std::move(name));
}

Loss* getLoss(std::string name) {
    if (name == "mean_squared_error" || name == "mse") {
        return new (std::nothrow) LMeanSquaredError;
    }
    if (name == "binary_cross_entropy" || name == "bce") {
        return new (std::nothrow) LBinaryCrossEntropy;
    }
    if (name == "soft_cross_entropy" || name == "softmax_cross_entropy" || name == "sce") {
        return new (std::nothrow) LSoftCrossEntropy;
    }
    if (name == "nll_loss") {
        return new (std::nothrow) LNLL_Loss;
    }
    if (name == "none") {
        return new (std::nothrow) Loss("none");
    }
    return nullptr;
}

}  // namespace ornik
