// fuse.cpp: layers that end with what used to follow them.
#include "modules/fuse.h"

#include <optional>
#include <vector>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/impl.h"
#include "ktensor/prepared.h"
#include "ktensor/shapes.h"
#include "modules/basic_layers.h"
#include "modules/convolution_layers.h"
#include "modules/normalization_layers.h"
#include "modules/shape_layers.h"

namespace ornik {

namespace {

using Shared = std::shared_ptr<Module>;

const char* text_of(nn::LayerEnd end) {
    constexpr const char* names[] = {"none", "relu", "relu6",       "sigmoid",  "tanh",
                                     "silu", "gelu", "hardsigmoid", "hardswish"};
    return names[static_cast<std::size_t>(end)];
}

// A convolution or linear map with a normalization folded in and an end.
class FusedLayer : public Module {
  public:
    explicit FusedLayer(const Linear& layer) : FusedLayer("Linear", layer.weight, layer.bias) {}
    explicit FusedLayer(const detail::Convolution& layer)
        : FusedLayer(layer.conv_parameters().transposed ? "ConvTranspose" : "Conv", layer.weight, layer.bias) {
        convolution_ = layer.conv_parameters();
    }

    KTensor forward(const KTensor& x) override { return forward(x, KTensor()); }
    KTensor forward(const KTensor& x, const KTensor& residual) {
        if (is_training()) {
            fail(ErrorKind::state, where("ornik::fuse"),
                 "forward(): a fused module is for inference; train the one that it was made from.");
        }
        if (convolution_) {
            return prepared_.convolution(x, weight_, bias_, *convolution_, end_, residual);
        }
        if (normalized_ && x.ndim() != 2) {
            fail(where("ornik::fuse"), "forward(): a linear map with a batch normalization folded in takes [N, ",
                 weight_.size(1), "], not ", autograd::describe(x), ".");
        }
        return prepared_.linear(x, weight_, bias_, end_, residual);
    }

    // False where the layer has an end already, or another number of channels.
    bool take(const BatchNorm& norm) {
        const std::int64_t channels = outputs();
        if (end_ != nn::LayerEnd::none || !norm.running_mean.defined() || norm.running_mean.size(0) != channels ||
            weight_.is_complex()) {
            return false;
        }
        const NoGrad values_alone;
        const auto wide = [](const KTensor& t) { return astype(t.detach(), dtype::float64); };
        KTensor scale = 1.0 / sqrt(wide(norm.running_var) + norm.options().eps);
        if (norm.weight.defined()) {
            scale = scale * wide(norm.weight);
        }
        const KTensor mean = wide(norm.running_mean);
        KTensor shift = (bias_.defined() ? wide(bias_) - mean : -mean) * scale;
        if (norm.bias.defined()) {
            shift = shift + wide(norm.bias);
        }
        // The weight as [groups, in, out, ...] or [out, ...].
        Dims parts = weight_.shape();
        Dims spread(parts.size(), 1);
        if (convolution_ && convolution_->transposed) {
            parts[0] /= convolution_->groups;
            parts.insert(parts.begin(), convolution_->groups);
            spread.insert(spread.begin(), convolution_->groups);
            spread[2] = parts[2];
        } else {
            spread[0] = channels;
        }
        const std::int64_t dtype = weight_.dtype();
        const Dims shape = weight_.shape();
        weight_ = astype(reshape(reshape(wide(weight_), parts) * reshape(scale, spread), shape), dtype);
        bias_ = astype(shift, dtype);
        normalized_ = true;
        return true;
    }
    bool take(nn::LayerEnd end) {
        if (end_ != nn::LayerEnd::none || weight_.is_complex()) {
            return false;
        }
        end_ = end;
        return true;
    }
    bool has_end() const { return end_ != nn::LayerEnd::none; }

    // Nothing is taken any more.
    void close() {
        add_buffer("weight", weight_);
        add_buffer("bias", bias_);
        set_arguments(std::string(kind_) + (normalized_ ? ", normalized" : "") +
                      (has_end() ? std::string(", ") + text_of(end_) : std::string()));
        eval();
    }

  protected:
    std::string type_name() const override { return "Fused"; }

  private:
    FusedLayer(const char* kind, const KTensor& weight, const KTensor& bias)
        : kind_(kind), weight_(weight.detach()), bias_(bias.defined() ? bias.detach() : KTensor()) {}
    std::int64_t outputs() const {
        return convolution_ && convolution_->transposed ? weight_.size(1) * convolution_->groups : weight_.size(0);
    }

    const char* kind_;
    KTensor weight_;
    KTensor bias_;
    std::optional<nn::ConvParameters> convolution_;
    bool normalized_ = false;
    nn::LayerEnd end_ = nn::LayerEnd::none;
    PreparedWeight prepared_;
};

// end(last(first(x)) + shortcut(x)); the sum, and the end where the layer has it, inside the last layer.
class FusedResidual : public Module {
  public:
    FusedResidual(Shared first, std::shared_ptr<FusedLayer> last, Shared shortcut, Shared activation)
        : first_(std::move(first)),
          last_(std::move(last)),
          shortcut_(std::move(shortcut)),
          activation_(std::move(activation)) {
        const auto add_present = [this](const char* name, const Shared& part) {
            if (part) {
                add_part(name, part);
            }
        };
        add_present("first", first_);
        add_present("last", last_);
        add_present("shortcut", shortcut_);
        add_present("activation", activation_);
    }
    KTensor forward(const KTensor& x) override {
        const KTensor added = shortcut_ ? shortcut_->forward(x) : x;
        const KTensor y = last_->forward(first_ ? first_->forward(x) : x, added);
        return activation_ ? activation_->forward(y) : y;
    }

  private:
    Shared first_;
    std::shared_ptr<FusedLayer> last_;
    Shared shortcut_;
    Shared activation_;
};

// The modules of nested Sequentials, in order.
void flatten_into(Module& module, std::vector<Shared>& list) {
    for (const auto& [name, part] : module.parts()) {
        if (dynamic_cast<Sequential*>(part.get()) != nullptr) {
            flatten_into(*part, list);
        } else {
            list.push_back(part);
        }
    }
}

bool is_nothing(Module& module) {
    return dynamic_cast<Dropout*>(&module) != nullptr || dynamic_cast<DropoutChannels*>(&module) != nullptr ||
           dynamic_cast<Identity*>(&module) != nullptr;
}

// What a module becomes by itself.
Shared alone(const Shared& module) {
    if (const auto* linear = dynamic_cast<Linear*>(module.get())) {
        return std::make_shared<FusedLayer>(*linear);
    }
    if (const auto* convolution = dynamic_cast<detail::Convolution*>(module.get())) {
        return std::make_shared<FusedLayer>(*convolution);
    }
    Shared made = module->fused();
    return made ? made : module;
}

// Layers are left open: the last one may take more.
std::vector<Shared> fused_chain(const std::vector<Shared>& modules) {
    std::vector<Shared> result;
    for (const Shared& module : modules) {
        auto* last = result.empty() ? nullptr : dynamic_cast<FusedLayer*>(result.back().get());
        const auto* norm = dynamic_cast<BatchNorm*>(module.get());
        const std::optional<nn::LayerEnd> end = module->as_end();
        const bool taken = last != nullptr && ((norm != nullptr && last->take(*norm)) || (end && last->take(*end)));
        if (!taken && !is_nothing(*module)) {
            result.push_back(alone(module));
        }
    }
    return result;
}

std::vector<Shared> fused_parts(const Shared& module) {
    std::vector<Shared> list;
    if (dynamic_cast<Sequential*>(module.get()) != nullptr) {
        flatten_into(*module, list);
    } else {
        list.push_back(module);
    }
    return fused_chain(list);
}

// Null for none.
Shared closed(std::vector<Shared> modules, bool always = false) {
    for (const Shared& module : modules) {
        if (auto* layer = dynamic_cast<FusedLayer*>(module.get())) {
            layer->close();
        }
    }
    if (modules.size() == 1) {
        return modules.front();
    }
    if (modules.empty() && !always) {
        return nullptr;
    }
    auto sequential = std::make_shared<Sequential>();
    for (Shared& module : modules) {
        sequential->append(std::move(module));
    }
    sequential->eval();
    return sequential;
}

}  // namespace

Shared Sequential::fused() {
    std::vector<Shared> list;
    flatten_into(*this, list);
    return closed(fused_chain(list), true);
}

Shared Residual::fused() {
    std::vector<Shared> body = fused_parts(body_);
    Shared shortcut = shortcut_ ? closed(fused_parts(shortcut_)) : nullptr;
    auto last = body.empty() ? nullptr : std::dynamic_pointer_cast<FusedLayer>(body.back());
    Shared activation = activation_;
    Shared result;
    if (last && !last->has_end()) {
        body.pop_back();
        const std::optional<nn::LayerEnd> end = activation ? activation->as_end() : std::nullopt;
        if (end && last->take(*end)) {
            activation = nullptr;
        }
        last->close();
        result = std::make_shared<FusedResidual>(closed(std::move(body)), std::move(last), std::move(shortcut),
                                                 std::move(activation));
    } else {
        result = std::make_shared<Residual>(closed(std::move(body), true), std::move(shortcut), std::move(activation));
    }
    result->eval();
    return result;
}

Shared fuse(Module& module) {
    module.apply([&](Module& part) {
        // Containers and activations do the same in training.
        if (part.is_training() && part.parts().empty() && !part.as_end()) {
            fail(ErrorKind::state, where("ornik::fuse"), "fuse(): the module is in training; eval() it first.");
        }
    });
    Shared result = module.fused();
    if (!result) {
        const std::string text = module.to_string();
        fail(where("ornik::fuse"), "fuse(): ", text.substr(0, text.find('(')),
             " does not say what it is made of; Sequential and Residual do, other modules by overriding fused().");
    }
    return result;
}

}  // namespace ornik
