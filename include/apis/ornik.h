// apis/ornik.h: the factories of layers and losses. Each returns a new object that the caller deletes.
#pragma once

#include <string>
#include <vector>

#include "../export.h"
#include "../layers/layer.h"
#include "../losses/loss.h"

namespace ornik {

/// A dense layer, see layers/layer_dense.h.
ORNIK_API Layer* _Dense(int output_features, bool use_bias, std::string name);

/// An activation by name, see layers/layer_activation.h.
ORNIK_API Layer* _Activation(std::string activation, std::vector<float> parameters, std::string name);

/// Softmax along an axis.
ORNIK_API Layer* _Softmax(int axis, std::string name);

/// A loss by its exact name; null for any other:
///
///   "mean_squared_error", "mse"                            losses/mean_squared_error.h
///   "binary_cross_entropy", "bce"                          losses/binary_cross_entropy.h
///   "soft_cross_entropy", "softmax_cross_entropy", "sce"   losses/soft_cross_entropy.h
///   "nll_loss"                                             losses/nll_loss.h
///   "none"                                                 a Loss whose operations return null
ORNIK_API Loss* getLoss(std::string name);

}  // namespace ornik
