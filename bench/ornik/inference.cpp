// inference.cpp: whole networks, called as they are and fused.
#include "tensors.h"

namespace bench {

namespace {

using ornik::KTensor;
using ornik::Module;
using Shared = std::shared_ptr<Module>;
using Chain = std::shared_ptr<ornik::Sequential>;

Chain chain() { return std::make_shared<ornik::Sequential>(); }

// A convolution that keeps the extents under stride 1, and its normalization.
void add_normalized(ornik::Sequential& to, std::int64_t in, std::int64_t out, std::int64_t kernel, std::int64_t stride,
                    std::int64_t groups = 1) {
    to.append(ornik::Conv2d(
        in, out, kernel,
        {.stride = {stride, stride}, .padding = {kernel / 2, kernel / 2}, .groups = groups, .bias = false}));
    to.append(ornik::BatchNorm2d(out));
}

template <typename Activation>
void add_active(ornik::Sequential& to, std::int64_t in, std::int64_t out, std::int64_t kernel, std::int64_t stride,
                std::int64_t groups = 1) {
    add_normalized(to, in, out, kernel, stride, groups);
    to.append(Activation());
}

void add_classes(ornik::Sequential& to, std::int64_t channels) {
    to.append(ornik::AdaptiveAvgPool2d({1, 1}));
    to.append(ornik::Flatten());
    to.append(ornik::Linear(channels, 1000));
}

Shared resnet() {
    const Chain network = chain();
    add_active<ornik::ReLU>(*network, 3, 64, 7, 2);
    network->append(ornik::MaxPool2d(3, 2, 1));
    std::int64_t in = 64;
    for (const Stage& stage : resnet_stages) {
        for (std::int64_t block = 0; block < stage.blocks; ++block) {
            const std::int64_t stride = block == 0 ? stage.stride : 1;
            const Chain body = chain();
            add_active<ornik::ReLU>(*body, in, stage.channels, 3, stride);
            add_normalized(*body, stage.channels, stage.channels, 3, 1);
            Chain shortcut;
            if (in != stage.channels) {
                shortcut = chain();
                add_normalized(*shortcut, in, stage.channels, 1, stride);
            }
            network->append(std::make_shared<ornik::Residual>(body, shortcut, std::make_shared<ornik::ReLU>()));
            in = stage.channels;
        }
    }
    add_classes(*network, in);
    return network;
}

Shared mobile_net() {
    const Chain network = chain();
    add_active<ornik::ReLU6>(*network, 3, 32, 3, 2);
    std::int64_t in = 32;
    for (const Stage& stage : mobile_stages) {
        for (std::int64_t block = 0; block < stage.blocks; ++block) {
            const std::int64_t stride = block == 0 ? stage.stride : 1;
            const std::int64_t inner = in * stage.widening;
            const Chain body = chain();
            if (stage.widening > 1) {
                add_active<ornik::ReLU6>(*body, in, inner, 1, 1);
            }
            add_active<ornik::ReLU6>(*body, inner, inner, 3, stride, inner);
            add_normalized(*body, inner, stage.channels, 1, 1);
            if (stride == 1 && in == stage.channels) {
                network->append(std::make_shared<ornik::Residual>(body));
            } else {
                network->append(body);
            }
            in = stage.channels;
        }
    }
    add_active<ornik::ReLU6>(*network, in, 1280, 1, 1);
    add_classes(*network, 1280);
    return network;
}

void row_of(const std::string& name, const Shared& network, const KTensor& x) {
    row("inference/" + name, [=] {
        const ornik::NoGrad inference;
        const KTensor y = network->forward(x);
    });
}

void image_rows(const char* name, const Shared& network) {
    network->eval();
    const Shared fused = ornik::fuse(*network);
    for (const std::int64_t batch : inference_batches) {
        const KTensor images = KTensor::rand({batch, 3, image_side, image_side});
        const std::string size = "/" + std::to_string(batch);
        row_of(name + size, fused, images);
        row_of(std::string(name) + "/unfused" + size, network, images);
    }
}

}  // namespace

void inference_rows() {
    image_rows("resnet18", resnet());
    image_rows("mobilenet_v2", mobile_net());
    const auto layer = std::make_shared<ornik::TransformerEncoderLayer>(
        encoder.width, encoder.heads,
        ornik::TransformerOptions{.feed_forward = encoder.inner, .activation = ornik::gelu, .batch_first = true});
    layer->eval();
    for (const std::int64_t batch : inference_batches) {
        row_of("encoder/" + std::to_string(batch), layer, KTensor::randn({batch, encoder.length, encoder.width}));
    }
}

}  // namespace bench
