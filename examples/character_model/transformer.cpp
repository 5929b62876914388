#include "transformer.h"

#include <cmath>

namespace dtype = ornik::dtype;
using ornik::Tensor;

namespace {

TensorPtr own(Tensor* t) { return TensorPtr(t); }

TensorPtr normal(const ornik::Dims& shape, double deviation) {
    return own(Tensor::randn(shape, 0, deviation, ornik::device_cpu, dtype::float32));
}

TensorPtr zeros(const ornik::Dims& shape) { return own(Tensor::zeros(shape, ornik::device_cpu, dtype::float32)); }

// Weights [inputs, outputs] that keep the scale of activations.
TensorPtr weight(std::int64_t inputs, std::int64_t outputs) {
    return normal({inputs, outputs}, 1 / std::sqrt(static_cast<double>(inputs)));
}

std::unique_ptr<Module> dense(std::int64_t inputs, std::int64_t outputs) {
    return std::make_unique<Weighted>(ornik::_Dense(static_cast<int>(outputs), true, ""), weight(inputs, outputs),
                                      zeros({outputs}));
}

// x + inner(x)
class Residual : public Module {
  public:
    explicit Residual(std::unique_ptr<Module> inner) : inner_(std::move(inner)) {}

    TensorPtr forward(const TensorPtr& input, bool training) override {
        return own(inner_->forward(input, training)->add_tensor(input.get()));
    }
    TensorPtr backward(const TensorPtr& output_gradient) override {
        return own(inner_->backward(output_gradient)->add_tensor(output_gradient.get()));
    }
    std::vector<Parameter*> parameters() override { return inner_->parameters(); }

  private:
    std::unique_ptr<Module> inner_;
};

// Multi-head attention of a sequence to its own past.
class CausalAttention : public Module {
  public:
    CausalAttention(std::int64_t width, int heads, std::int64_t context)
        : heads_(heads), ones_(own(Tensor::ones({context, context}, ornik::device_cpu, dtype::boolean))) {
        for (Parameter& p : weights_) {
            p.value = weight(width, width);
        }
    }

    TensorPtr forward(const TensorPtr& input, bool /*training*/) override {
        input_ = input;
        const std::string length = ":" + std::to_string(input->Shape()[1]);
        const TensorPtr square = own(ones_->select_ndim({length, length}));
        const TensorPtr past = own(square->tril(0));
        return own(ornik::multi_head_attention(projections(), heads_, input.get(), input.get(), input.get(), past.get(),
                                               &state_));
    }

    TensorPtr backward(const TensorPtr& output_gradient) override {
        ornik::MultiHeadGradients g = ornik::multi_head_attention_grad(projections(), input_.get(), input_.get(),
                                                                       input_.get(), state_, output_gradient.get());
        ornik::ProjectionGradients* const gradients[] = {&g.query, &g.key, &g.value, &g.output};
        for (std::size_t i = 0; i < std::size(weights_); ++i) {
            weights_[i].gradient = std::move(gradients[i]->weight);
        }
        return own(Tensor::add_tensors_list({g.inputs.query.get(), g.inputs.key.get(), g.inputs.value.get()}));
    }

    std::vector<Parameter*> parameters() override { return {&weights_[0], &weights_[1], &weights_[2], &weights_[3]}; }

  private:
    ornik::MultiHeadParameters projections() const {
        const auto projection = [this](std::size_t i) {
            return ornik::AttentionProjection{weights_[i].value.get(), nullptr};
        };
        return {projection(0), projection(1), projection(2), projection(3)};
    }

    int heads_;
    TensorPtr ones_;
    Parameter weights_[4];  // query, key, value, output
    ornik::MultiHeadState state_;
    TensorPtr input_;
};

template <typename... Modules>
std::unique_ptr<Module> sequence(std::unique_ptr<Modules>... modules) {
    std::vector<std::unique_ptr<Module>> list;
    (list.push_back(std::move(modules)), ...);
    return std::make_unique<Sequential>(std::move(list));
}

}  // namespace

Transformer::Transformer(const TransformerSize& size)
    : embedding_(ornik::_Embedding(static_cast<int>(size.vocabulary), static_cast<int>(size.width), "")),
      characters_{normal({size.vocabulary, size.width}, 0.3), nullptr},
      positions_{normal({size.context, size.width}, 0.1), nullptr} {
    std::vector<std::unique_ptr<Module>> modules;
    for (int i = 0; i < size.blocks; ++i) {
        modules.push_back(std::make_unique<Residual>(
            sequence(std::make_unique<LayerNormalization>(size.width),
                     std::make_unique<CausalAttention>(size.width, size.heads, size.context))));
        modules.push_back(std::make_unique<Residual>(
            sequence(std::make_unique<LayerNormalization>(size.width), dense(size.width, 4 * size.width),
                     std::make_unique<Activation>("gelu"), dense(4 * size.width, size.width))));
    }
    modules.push_back(std::make_unique<LayerNormalization>(size.width));
    modules.push_back(dense(size.width, size.vocabulary));
    blocks_ = std::make_unique<Sequential>(std::move(modules));
}

TensorPtr Transformer::forward(const TensorPtr& characters, bool training) {
    input_ = characters;
    const TensorPtr embedded = own(embedding_->forward_dyn(characters_.value.get(), nullptr, characters.get()));
    const TensorPtr positions =
        own(positions_.value->select_ndim_without_copy({":" + std::to_string(characters->Shape()[1])}));
    const TensorPtr repeated = own(Tensor::broadcast_to(positions.get(), embedded->Shape()));
    embedded->add_tensor_inplace(repeated.get());
    return blocks_->forward(embedded, training);
}

void Transformer::backward(const TensorPtr& score_gradient) {
    const TensorPtr gradient = blocks_->backward(score_gradient);
    characters_.gradient =
        own(embedding_->backward_dyn(characters_.value.get(), nullptr, input_.get(), gradient.get(), 1));
    const TensorPtr used = own(ornik::sum(gradient.get(), {0}));
    positions_.gradient =
        own(positions_.value->select_ndim_grad(used.get(), {":" + std::to_string(input_->Shape()[1])}));
}

std::vector<Parameter*> Transformer::parameters() {
    std::vector<Parameter*> all = blocks_->parameters();
    all.insert(all.end(), {&characters_, &positions_});
    return all;
}
