// inference.cpp: whole networks through libtorch.
#include "tensors.h"

namespace bench {

namespace {

using namespace torch::nn;

void add_normalized(Sequential& to, std::int64_t in, std::int64_t out, std::int64_t kernel, std::int64_t stride,
                    std::int64_t groups = 1) {
    to->push_back(Conv2d(Conv2dOptions(in, out, kernel).stride(stride).padding(kernel / 2).groups(groups).bias(false)));
    to->push_back(BatchNorm2d(out));
}

template <typename Activation>
void add_active(Sequential& to, std::int64_t in, std::int64_t out, std::int64_t kernel, std::int64_t stride,
                std::int64_t groups = 1) {
    add_normalized(to, in, out, kernel, stride, groups);
    to->push_back(Activation());
}

void add_classes(Sequential& to, std::int64_t channels) {
    to->push_back(AdaptiveAvgPool2d(AdaptiveAvgPool2dOptions({1, 1})));
    to->push_back(Flatten());
    to->push_back(Linear(channels, 1000));
}

struct ResidualImpl : torch::nn::Module {
    ResidualImpl(Sequential body_part, Sequential shortcut_part, bool with_relu)
        : body(register_module("body", std::move(body_part))),
          shortcut(register_module("shortcut", std::move(shortcut_part))),
          relu(with_relu) {}
    at::Tensor forward(const at::Tensor& x) {
        const at::Tensor y = body->forward(x).add_(shortcut->is_empty() ? x : shortcut->forward(x));
        return relu ? at::relu(y) : y;
    }

    Sequential body, shortcut;
    bool relu;
};
TORCH_MODULE(Residual);

Sequential resnet() {
    Sequential network;
    add_active<ReLU>(network, 3, 64, 7, 2);
    network->push_back(MaxPool2d(MaxPool2dOptions(3).stride(2).padding(1)));
    std::int64_t in = 64;
    for (const Stage& stage : resnet_stages) {
        for (std::int64_t block = 0; block < stage.blocks; ++block) {
            const std::int64_t stride = block == 0 ? stage.stride : 1;
            Sequential body, shortcut;
            add_active<ReLU>(body, in, stage.channels, 3, stride);
            add_normalized(body, stage.channels, stage.channels, 3, 1);
            if (in != stage.channels) {
                add_normalized(shortcut, in, stage.channels, 1, stride);
            }
            network->push_back(Residual(body, shortcut, true));
            in = stage.channels;
        }
    }
    add_classes(network, in);
    return network;
}

Sequential mobile_net() {
    Sequential network;
    add_active<ReLU6>(network, 3, 32, 3, 2);
    std::int64_t in = 32;
    for (const Stage& stage : mobile_stages) {
        for (std::int64_t block = 0; block < stage.blocks; ++block) {
            const std::int64_t stride = block == 0 ? stage.stride : 1;
            const std::int64_t inner = in * stage.widening;
            Sequential body;
            if (stage.widening > 1) {
                add_active<ReLU6>(body, in, inner, 1, 1);
            }
            add_active<ReLU6>(body, inner, inner, 3, stride, inner);
            add_normalized(body, inner, stage.channels, 1, 1);
            if (stride == 1 && in == stage.channels) {
                network->push_back(Residual(body, Sequential(), false));
            } else {
                network->extend(*body);
            }
            in = stage.channels;
        }
    }
    add_active<ReLU6>(network, in, 1280, 1, 1);
    add_classes(network, 1280);
    return network;
}

void image_rows(const std::string& name, Sequential network) {
    network->eval();
    for (const std::int64_t batch : inference_batches) {
        const at::Tensor images = at::rand({batch, 3, image_side, image_side});
        for (const char* const kind : {"/", "/unfused/"}) {
            row("inference/" + name + kind + std::to_string(batch), [=]() mutable { network->forward(images); });
        }
    }
}

}  // namespace

void inference_rows() {
    image_rows("resnet18", resnet());
    image_rows("mobilenet_v2", mobile_net());
    TransformerEncoderLayer layer(TransformerEncoderLayerOptions(encoder.width, encoder.heads)
                                      .dim_feedforward(encoder.inner)
                                      .activation(torch::kGELU));
    layer->eval();
    for (const std::int64_t batch : inference_batches) {
        const at::Tensor x = at::randn({encoder.length, batch, encoder.width});
        row("inference/encoder/" + std::to_string(batch), [=]() mutable { layer->forward(x); });
    }
}

}  // namespace bench
