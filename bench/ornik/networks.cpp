// networks.cpp: rows of convolutions, layers, losses and optimizer steps.
#include <functional>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "tensors.h"

namespace bench {

namespace {

void convolution_rows() {
    for (const bench::Conv& c : bench::convolutions) {
        const std::vector<int> kernel(2, c.kernel), strides(2, c.stride), padding(2, c.padding), ones(2, 1),
            zeros(2, 0);
        const auto outputs = static_cast<int>(c.outputs);
        const auto groups = static_cast<int>(c.groups);
        const std::shared_ptr<ornik::Layer> layer(
            c.transposed ? ornik::_ConvT2D(outputs, kernel, strides, padding, true, groups, ones, zeros, "")
                         : ornik::_Conv2D(outputs, kernel, strides, padding, true, groups, ones, ""));
        const std::int64_t type = c.float64 ? dtype::float64 : dtype::float32;
        const TensorPtr x = filled({c.batch, c.inputs, c.side, c.side}, 1, type);
        const TensorPtr w = filled({c.outputs, c.inputs / c.groups, c.kernel, c.kernel}, 2, type);
        const TensorPtr b = filled({c.outputs}, 3, type);
        const TensorPtr g(layer->forward_dyn(w.get(), b.get(), x.get()));
        g->fill_(1);
        bench::row(
            std::string("conv/") + c.name + "/forward", [=] { delete layer->forward_dyn(w.get(), b.get(), x.get()); },
            0, c.flops());
        bench::row(
            std::string("conv/") + c.name + "/gradients",
            [=] {
                for (const int node : {0, 1, 2}) {
                    delete layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), node);
                }
            },
            0, 2 * c.flops());
    }
}

using LayerPtr = std::shared_ptr<ornik::Layer>;

TensorPtr varied(const Dims& shape) {
    TensorPtr t = filled(shape, 0);
    auto* values = static_cast<float*>(t->getRawData());
    for (std::int64_t i = 0; i < t->Size(); ++i) {
        values[i] = static_cast<float>(i * 7919 % 1000) * 1e-3F - 0.5F;
    }
    return t;
}

// Forward, then the gradients of the training pass, of a normalization that `make` makes.
template <typename Norm>
void norm_rows(const std::string& name, const std::function<ornik::Layer*()>& make, const Dims& shape,
               std::int64_t parameters) {
    constexpr bool batch = std::is_same_v<Norm, ornik::LBatchNorm>;
    const TensorPtr x = varied(shape);
    const TensorPtr g = varied(shape);
    const TensorPtr gamma = filled({parameters}, 1);
    const TensorPtr beta = filled({parameters}, 0);
    const TensorPtr mean = filled({parameters}, 0);
    const TensorPtr variance = filled({parameters}, 1);
    const auto forward = [=](ornik::Layer& layer, bool training) {
        delete (batch ? layer.forward_dyn(gamma.get(), beta.get(), x.get(), training, mean.get(), variance.get())
                      : layer.forward_dyn(gamma.get(), beta.get(), x.get(), training));
    };
    const LayerPtr layer(make());
    bench::row(name + "/training", [=] { forward(*layer, true); });
    if (batch) {
        bench::row(name + "/inference", [=] { forward(*layer, false); });
    }
    // Rows run after all of them have been listed: what the gradients go back through is a layer of their own.
    const std::shared_ptr<Norm> trained(static_cast<Norm*>(make()));
    forward(*trained, true);
    const auto gradient = [=](int node) {
        std::vector<Tensor*> saved = trained->get_fwd_cache();
        delete trained->backward_dyn(gamma.get(), beta.get(), x.get(), g.get(), saved, node);
    };
    bench::row(name + "/input_gradient", [=] { gradient(0); });
    bench::row(name + "/gradients", [=] {
        std::vector<Tensor*> saved = trained->get_fwd_cache();
        for (Tensor* one : trained->gradients(gamma.get(), beta.get(), x.get(), g.get(), saved)) {
            delete one;
        }
    });
    bench::row(name + "/gradients_one_by_one", [=] {
        for (const int node : {0, 1, 2}) {
            gradient(node);
        }
    });
}

void pool_rows(const std::string& name, const LayerPtr& layer, const Dims& shape) {
    const TensorPtr x = varied(shape);
    bench::row(name + "/forward", [=] { delete layer->forward_dyn(x.get()); });
    const TensorPtr g(layer->forward_dyn(x.get()));
    bench::row(name + "/gradient", [=] {
        std::vector<Tensor*> saved = layer->get_fwd_cache();
        delete layer->backward_dyn(x.get(), g.get(), saved);
    });
}

void layer_rows() {
    const Dims images(std::begin(bench::image_shape), std::end(bench::image_shape));
    norm_rows<ornik::LBatchNorm>(
        "batch_norm", [] { return ornik::_BatchNormalization(true, 0.1F, 1e-5F, ""); }, images, images[1]);
    norm_rows<ornik::LGroupNorm>(
        "group_norm", [&] { return ornik::_GroupNormalization(8, static_cast<int>(images[1]), true, 1e-5F, ""); },
        images, images[1]);
    norm_rows<ornik::LLayerNorm>(
        "layer_norm", [] { return ornik::_LayerNormalization(true, 1e-5F, ""); },
        {bench::feature_rows, bench::features}, bench::features);
    const std::vector<int> two{2, 2}, three{3, 3}, none{0, 0}, one{1, 1};
    pool_rows("max_pool/2x2", LayerPtr(ornik::_MaxPool2D(two, two, none, "")), images);
    pool_rows("max_pool/3x3", LayerPtr(ornik::_MaxPool2D(three, two, one, "")), images);
    pool_rows("average_pool/2x2", LayerPtr(ornik::_AvgPool2D(two, two, none, "")), images);
    pool_rows("average_pool/3x3", LayerPtr(ornik::_AvgPool2D(three, two, one, "")), images);
}

void loss_rows() {
    const std::shared_ptr<ornik::Loss> loss(ornik::getLoss("softmax_cross_entropy"));
    for (const auto& size : bench::class_sizes) {
        const TensorPtr x = filled({size[0], size[1]}, 0.5);
        const TensorPtr classes = filled({size[0]}, 1, dtype::int64);
        bench::row("cross_entropy/forward/" + bench::by(size),
                   [=] { delete loss->loss_forward(x.get(), classes.get()); });
        bench::row("cross_entropy/forward_and_backward/" + bench::by(size), [=] {
            delete loss->loss_forward(x.get(), classes.get());
            delete loss->loss_backward(x.get(), classes.get());
        });
    }
}

void step_rows() {
    const auto vector = [](double value) { return filled({1'000'000}, value); };
    const TensorPtr p = vector(1), g = vector(1e-3), s = vector(0), t = vector(0), u = vector(0);
    const auto row = [](const std::string& name, const std::function<void()>& step) {
        bench::row(name + "/1000000", step);
    };
    row("sgd", [=] { ornik::sgd_step(p.get(), g.get(), 1e-3F, s.get(), 0.9F, false); });
    row("rmsprop", [=] { ornik::rmsprop_step(p.get(), g.get(), 1e-3F, 0.9F, 1e-8F, s.get()); });
    for (const bool amsgrad : {false, true}) {
        row(amsgrad ? "adam/amsgrad" : "adam", [=] {
            ornik::adam_step(p.get(), g.get(), 1e-3F, 0.9F, 0.999F, 1e-8F, 10, s.get(), t.get(), u.get(), amsgrad);
        });
    }
    row("adamw", [=] {
        ornik::adamw_step(p.get(), g.get(), 1e-3F, 0.9F, 0.999F, 1e-8F, 0.01F, 10, s.get(), t.get(), nullptr, false);
    });
    row("adamax", [=] { ornik::adam_max_step(p.get(), g.get(), 1e-3F, 0.9F, 0.999F, 1e-8F, 10, s.get(), t.get()); });
    row("adagrad", [=] { ornik::adam_grad_step(p.get(), g.get(), 1e-3F, 1e-8F, s.get()); });
    row("adadelta", [=] { ornik::adam_delta_step(p.get(), g.get(), 1e-3F, 0.9F, 1e-8F, s.get(), t.get()); });
}

}  // namespace

void network_rows() {
    convolution_rows();
    layer_rows();
    loss_rows();
    step_rows();
}

}  // namespace bench
