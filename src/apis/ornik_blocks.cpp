// Factories of normalizations, pooling, embedding and pixel shuffles.
#include <new>
#include <utility>

#include "apis/ornik.h"
#include "layers/layer_embedding.h"
#include "layers/layer_pixel_shuffle.h"
#include "layers/normalization/layer_batchnorm.h"
#include "layers/normalization/layer_groupnorm.h"
#include "layers/normalization/layer_layernorm.h"
#include "layers/pool/layer_pool.h"

namespace ornik {

Layer* _Embedding(int vocabulary_size, int embedding_width, std::string name) {
    return new (std::nothrow) LEmbedding(vocabulary_size, embedding_width, std::move(name), 0, 0);
}

Layer* _BatchNormalization(bool affine, float momentum, float eps, std::string name) {
    return new (std::nothrow) LBatchNorm(affine, momentum, eps, std::move(name), 0, 0);
}

Layer* _GroupNormalization(int groups, int channels, bool affine, float eps, std::string name) {
    return new (std::nothrow) LGroupNorm(groups, channels, affine, eps, std::move(name), 0, 0);
}

Layer* _LayerNormalization(bool affine, float eps, std::string name) {
    return new (std::nothrow) LLayerNorm(affine, eps, std::move(name), 0, 0);
}

Layer* _MaxPool1D(std::vector<int> kernel, std::vector<int> strides, std::vector<int> padding, std::string name) {
    return new (std::nothrow) LMaxPool1D(kernel, strides, padding, "custom", std::move(name), 0, 0);
}

Layer* _MaxPool1D(std::vector<int> kernel, std::vector<int> strides, std::string padding, std::string name) {
    return new (std::nothrow) LMaxPool1D(kernel, strides, {}, padding, std::move(name), 0, 0);
}

Layer* _AvgPool1D(std::vector<int> kernel, std::vector<int> strides, std::vector<int> padding, std::string name) {
    return new (std::nothrow) LAveragePool1D(kernel, strides, padding, "custom", std::move(name), 0, 0);
}

Layer* _AvgPool1D(std::vector<int> kernel, std::vector<int> strides, std::string padding, std::string name) {
    return new (std::nothrow) LAveragePool1D(kernel, strides, {}, padding, std::move(name), 0, 0);
}

Layer* _MaxPool2D(std::vector<int> kernel, std::vector<int> strides, std::vector<int> padding, std::string name) {
    return new (std::nothrow) LMaxPool2D(kernel, strides, padding, "custom", std::move(name), 0, 0);
}

Layer* _MaxPool2D(std::vector<int> kernel, std::vector<int> strides, std::string padding, std::string name) {
    return new (std::nothrow) LMaxPool2D(kernel, strides, {}, padding, std::move(name), 0, 0);
}

Layer* _AvgPool2D(std::vector<int> kernel, std::vector<int> strides, std::vector<int> padding, std::string name) {
    return new (std::nothrow) LAveragePool2D(kernel, strides, padding, "custom", std::move(name), 0, 0);
}

Layer* _AvgPool2D(std::vector<int> kernel, std::vector<int> strides, std::string padding, std::string name) {
    return new (std::nothrow) LAveragePool2D(kernel, strides, {}, padding, std::move(name), 0, 0);
}

Layer* _PixelShuffle(int upscale_factor, std::string name) {
    return new (std::nothrow) LPixelShuffle(upscale_factor, std::move(name), 0, 0);
}

Layer* _PixelUnshuffle(int downscale_factor, std::string name) {
    return new (std::nothrow) LPixelUnshuffle(downscale_factor, std::move(name), 0, 0);
}

}  // namespace ornik
