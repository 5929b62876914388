#include "module.h"

namespace dtype = ornik::dtype;
using ornik::Tensor;

namespace {

enum Node { input_node = 0, weight_node = 1, bias_node = 2 };

TensorPtr own(Tensor* t) { return TensorPtr(t); }

Parameter filled(std::int64_t size, float value) {
    return {own(Tensor::full<float>({size}, value, ornik::device_cpu, dtype::float32)), nullptr};
}

}  // namespace

TensorPtr Sequential::forward(const TensorPtr& input, bool training) {
    TensorPtr x = input;
    for (const auto& module : modules_) {
        x = module->forward(x, training);
    }
    return x;
}

TensorPtr Sequential::backward(const TensorPtr& output_gradient) {
    TensorPtr gradient = output_gradient;
    // Null: nobody needs what lies before.
    for (auto module = modules_.rbegin(); module != modules_.rend() && gradient; ++module) {
        gradient = (*module)->backward(gradient);
    }
    return gradient;
}

std::vector<Parameter*> Sequential::parameters() {
    std::vector<Parameter*> all;
    for (const auto& module : modules_) {
        const std::vector<Parameter*> own_parameters = module->parameters();
        all.insert(all.end(), own_parameters.begin(), own_parameters.end());
    }
    return all;
}

Weighted::Weighted(ornik::Layer* layer, TensorPtr weight, TensorPtr bias, bool needs_input_gradient)
    : layer_(layer),
      weight_{std::move(weight), nullptr},
      bias_{std::move(bias), nullptr},
      needs_input_gradient_(needs_input_gradient) {}

TensorPtr Weighted::forward(const TensorPtr& input, bool /*training*/) {
    input_ = input;
    return own(layer_->forward_dyn(weight_.value.get(), bias_.value.get(), input.get()));
}

TensorPtr Weighted::backward(const TensorPtr& output_gradient) {
    const auto gradient = [&](int node) {
        return own(
            layer_->backward_dyn(weight_.value.get(), bias_.value.get(), input_.get(), output_gradient.get(), node));
    };
    weight_.gradient = gradient(weight_node);
    bias_.gradient = bias_.value ? gradient(bias_node) : nullptr;
    return needs_input_gradient_ ? gradient(input_node) : nullptr;
}

std::vector<Parameter*> Weighted::parameters() {
    return bias_.value ? std::vector<Parameter*>{&weight_, &bias_} : std::vector<Parameter*>{&weight_};
}

Normalization::Normalization(ornik::Layer* layer, std::int64_t size)
    : layer_(layer), gamma_(filled(size, 1)), beta_(filled(size, 0)) {}

TensorPtr Normalization::forward(const TensorPtr& input, bool training) {
    input_ = input;
    Tensor* const gamma = gamma_.value.get();
    Tensor* const beta = beta_.value.get();
    return own(running_mean_ ? layer_->forward_dyn(gamma, beta, input.get(), training, running_mean_.get(),
                                                   running_variance_.get())
                             : layer_->forward_dyn(gamma, beta, input.get(), training));
}

template <typename Norm>
std::array<Tensor*, 3> Normalization::all_gradients(Tensor* output_gradient) {
    std::vector<Tensor*> saved = layer_->get_fwd_cache();
    return static_cast<Norm&>(*layer_).gradients(gamma_.value.get(), beta_.value.get(), input_.get(), output_gradient,
                                                 saved);
}

TensorPtr Normalization::backward(const TensorPtr& output_gradient) {
    const std::array<Tensor*, 3> by_node = gradients(output_gradient.get());
    gamma_.gradient = own(by_node[weight_node]);
    beta_.gradient = own(by_node[bias_node]);
    return own(by_node[input_node]);
}

BatchNormalization::BatchNormalization(std::int64_t channels)
    : Normalization(ornik::_BatchNormalization(true, 0.1F, 1e-5F, ""), channels) {
    running_mean_ = filled(channels, 0).value;
    running_variance_ = filled(channels, 1).value;
}

std::array<Tensor*, 3> BatchNormalization::gradients(Tensor* output_gradient) {
    return all_gradients<ornik::LBatchNorm>(output_gradient);
}

LayerNormalization::LayerNormalization(std::int64_t width)
    : Normalization(ornik::_LayerNormalization(true, 1e-5F, ""), width) {}

std::array<Tensor*, 3> LayerNormalization::gradients(Tensor* output_gradient) {
    return all_gradients<ornik::LLayerNorm>(output_gradient);
}

Activation::Activation(const std::string& name) : layer_(ornik::_Activation(name, {}, name)) {}

TensorPtr Activation::forward(const TensorPtr& input, bool /*training*/) {
    input_ = input;
    output_ = own(layer_->forward_dyn(input.get()));
    return output_;
}

TensorPtr Activation::backward(const TensorPtr& output_gradient) {
    return own(layer_->backward_dyn(input_.get(), output_.get(), output_gradient.get()));
}

MaxPool::MaxPool() : layer_(ornik::_MaxPool2D({2, 2}, {2, 2}, std::vector<int>{0, 0}, "")) {}

TensorPtr MaxPool::forward(const TensorPtr& input, bool /*training*/) {
    input_ = input;
    return own(layer_->forward_dyn(input.get()));
}

TensorPtr MaxPool::backward(const TensorPtr& output_gradient) {
    std::vector<Tensor*> saved = layer_->get_fwd_cache();
    return own(layer_->backward_dyn(input_.get(), output_gradient.get(), saved));
}

TensorPtr Flatten::forward(const TensorPtr& input, bool /*training*/) {
    shape_ = input->Shape();
    return own(input->reshape({shape_[0], -1}));
}

TensorPtr Flatten::backward(const TensorPtr& output_gradient) { return own(output_gradient->reshape(shape_)); }
