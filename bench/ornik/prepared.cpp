// prepared.cpp: rows of layers in inference: weights laid out beforehand, bias and ReLU where the sums are made.
#include "layers/functional/prepared_convolution.h"
#include "layers/functional/prepared_linear.h"
#include "tensors.h"

namespace bench {

void prepared_rows() {
    namespace nn = ornik::nn;
    for (const Product& p : products) {
        if (p.batch == 1 && !p.float64) {
            const TensorPtr x = filled({p.rows, p.depth}, 1);
            const auto layer =
                std::make_shared<nn::PreparedLinear>(filled({p.cols, p.depth}, 2).get(), filled({p.cols}, 3).get());
            row(
                std::string("product/") + p.name + "/prepared", [=] { (*layer)(x.get(), nn::LayerEnd::relu); }, 0,
                p.flops());
        }
    }
    for (const Conv& c : convolutions) {
        if (!c.transposed && !c.float64) {
            nn::ConvParameters parameters;
            parameters.stride = {c.stride, c.stride};
            parameters.padding = {{{c.padding, c.padding}, {c.padding, c.padding}}};
            parameters.groups = c.groups;
            const TensorPtr x = filled({c.batch, c.inputs, c.side, c.side}, 1);
            const auto layer = std::make_shared<nn::PreparedConvolution>(
                filled({c.outputs, c.inputs / c.groups, c.kernel, c.kernel}, 2).get(), filled({c.outputs}, 3).get(),
                parameters);
            row(
                std::string("conv/") + c.name + "/prepared", [=] { (*layer)(x.get(), nn::LayerEnd::relu); }, 0,
                c.flops());
            if (layer->takes_blocks()) {
                const nn::BlockedImage blocks(x.get());
                row(
                    std::string("conv/") + c.name + "/blocked", [=] { layer->blocked(blocks, nn::LayerEnd::relu); }, 0,
                    c.flops());
            }
        }
    }
}

}  // namespace bench
