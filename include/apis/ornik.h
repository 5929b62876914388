// apis/ornik.h: the factories of layers and losses. Each returns a new object that the caller deletes.
#pragma once

#include <string>
#include <vector>

#include "../export.h"
#include "../layers/layer.h"
#include "../losses/loss.h"

namespace ornik {

/// A one-dimensional convolution, see layers/conv/layer_conv1D.h. Kernel, strides, dilation and padding hold one
/// number each. A second one, which a two-dimensional convolution of width 1 needs, is appended to the caller's
/// vectors, also when the call fails: to kernel, strides and dilation first, then to the padding.
[[nodiscard]] ORNIK_API Layer* _Conv1D(int output_channels, std::vector<int>& kernel, std::vector<int>& strides,
                                       std::vector<int>& padding, bool use_bias, int groups, std::vector<int>& dilation,
                                       std::string name);
/// With a named padding.
[[nodiscard]] ORNIK_API Layer* _Conv1D(int output_channels, std::vector<int>& kernel, std::vector<int>& strides,
                                       std::string padding, bool use_bias, int groups, std::vector<int>& dilation,
                                       std::string name);

/// A two-dimensional convolution, see layers/conv/layer_conv2D.h. Vectors hold rows and columns.
[[nodiscard]] ORNIK_API Layer* _Conv2D(int output_channels, const std::vector<int>& kernel,
                                       const std::vector<int>& strides, const std::vector<int>& padding, bool use_bias,
                                       int groups, const std::vector<int>& dilation, std::string name);
[[nodiscard]] ORNIK_API Layer* _Conv2D(int output_channels, const std::vector<int>& kernel,
                                       const std::vector<int>& strides, std::string padding, bool use_bias, int groups,
                                       const std::vector<int>& dilation, std::string name);

/// A transposed two-dimensional convolution, see layers/conv/layer_convT2D.h.
[[nodiscard]] ORNIK_API Layer* _ConvT2D(int output_channels, const std::vector<int>& kernel,
                                        const std::vector<int>& strides, const std::vector<int>& padding, bool use_bias,
                                        int groups, const std::vector<int>& dilation,
                                        const std::vector<int>& output_padding, std::string name);
[[nodiscard]] ORNIK_API Layer* _ConvT2D(int output_channels, const std::vector<int>& kernel,
                                        const std::vector<int>& strides, std::string padding, bool use_bias, int groups,
                                        const std::vector<int>& dilation, const std::vector<int>& output_padding,
                                        std::string name);

/// A dense layer, see layers/layer_dense.h.
[[nodiscard]] ORNIK_API Layer* _Dense(int output_features, bool use_bias, std::string name);

/// An activation by name, see layers/layer_activation.h.
[[nodiscard]] ORNIK_API Layer* _Activation(std::string activation, std::vector<float> parameters, std::string name);

/// Softmax along an axis.
[[nodiscard]] ORNIK_API Layer* _Softmax(int axis, std::string name);

/// A table of rows looked up by index, see layers/layer_embedding.h.
[[nodiscard]] ORNIK_API Layer* _Embedding(int vocabulary_size, int embedding_width, std::string name);

/// Normalizations, see layers/normalization/. Without `affine`, gamma and beta are not used.
[[nodiscard]] ORNIK_API Layer* _BatchNormalization(bool affine, float momentum, float eps, std::string name);
[[nodiscard]] ORNIK_API Layer* _GroupNormalization(int groups, int channels, bool affine, float eps, std::string name);
[[nodiscard]] ORNIK_API Layer* _LayerNormalization(bool affine, float eps, std::string name);

/// Pooling with a padding per axis or a padding type, see layers/pool/layer_pool.h.
[[nodiscard]] ORNIK_API Layer* _MaxPool1D(std::vector<int> kernel, std::vector<int> strides, std::vector<int> padding,
                                          std::string name);
[[nodiscard]] ORNIK_API Layer* _MaxPool1D(std::vector<int> kernel, std::vector<int> strides, std::string padding,
                                          std::string name);
[[nodiscard]] ORNIK_API Layer* _AvgPool1D(std::vector<int> kernel, std::vector<int> strides, std::vector<int> padding,
                                          std::string name);
[[nodiscard]] ORNIK_API Layer* _AvgPool1D(std::vector<int> kernel, std::vector<int> strides, std::string padding,
                                          std::string name);
[[nodiscard]] ORNIK_API Layer* _MaxPool2D(std::vector<int> kernel, std::vector<int> strides, std::vector<int> padding,
                                          std::string name);
[[nodiscard]] ORNIK_API Layer* _MaxPool2D(std::vector<int> kernel, std::vector<int> strides, std::string padding,
                                          std::string name);
[[nodiscard]] ORNIK_API Layer* _AvgPool2D(std::vector<int> kernel, std::vector<int> strides, std::vector<int> padding,
                                          std::string name);
[[nodiscard]] ORNIK_API Layer* _AvgPool2D(std::vector<int> kernel, std::vector<int> strides, std::string padding,
                                          std::string name);

/// Channels become resolution, or back, see layers/layer_pixel_shuffle.h.
[[nodiscard]] ORNIK_API Layer* _PixelShuffle(int upscale_factor, std::string name);
[[nodiscard]] ORNIK_API Layer* _PixelUnshuffle(int downscale_factor, std::string name);

/// A loss by its exact name; null for any other:
///
///   "mean_squared_error", "mse"                            losses/mean_squared_error.h
///   "binary_cross_entropy", "bce"                          losses/binary_cross_entropy.h
///   "soft_cross_entropy", "softmax_cross_entropy", "sce"   losses/soft_cross_entropy.h
///   "nll_loss"                                             losses/nll_loss.h
///   "none"                                                 a Loss whose operations return null
[[nodiscard]] ORNIK_API Loss* getLoss(std::string name);

}  // namespace ornik
