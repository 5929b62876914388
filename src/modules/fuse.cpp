// fuse.cpp: layers that end with what used to follow them.
#include "modules/fuse.h"

#include "modules/basic_layers.h"
#include "modules/convolution_layers.h"
#include "modules/fused_layers.h"
#include "modules/shape_layers.h"
#include "utils/error.h"

namespace ornik {

namespace {

using detail::FusedLayer;
using Shared = std::shared_ptr<Module>;

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

// What a module becomes by itself. A layer is a new one, open, even where it has been fused before.
Shared alone(const Shared& module) {
    if (const auto* linear = dynamic_cast<Linear*>(module.get())) {
        return std::make_shared<FusedLayer>(FusedLayer::Parts{"Linear", linear->weight, linear->bias, {}});
    }
    if (const auto* convolution = dynamic_cast<detail::Convolution*>(module.get())) {
        const nn::ConvParameters& parameters = convolution->conv_parameters();
        return std::make_shared<FusedLayer>(FusedLayer::Parts{parameters.transposed ? "ConvTranspose" : "Conv",
                                                              convolution->weight, convolution->bias, parameters});
    }
    if (Shared pool = detail::FusedPool::of(module)) {
        return pool;
    }
    Shared made = module->fused();
    const Shared& result = made ? made : module;
    if (const auto* layer = dynamic_cast<FusedLayer*>(result.get())) {
        return std::make_shared<FusedLayer>(layer->made_of());
    }
    return result;
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
    auto sequential = std::make_shared<detail::FusedChain>();
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
        result = std::make_shared<detail::FusedResidual>(closed(std::move(body)), std::move(last), std::move(shortcut),
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
        fail(where("ornik::fuse"), "fuse(): ", module.kind(),
             " does not say what it is made of; Sequential and Residual do, other modules by overriding fused().");
    }
    return result;
}

}  // namespace ornik
