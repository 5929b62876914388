// containers.cpp: modules in a row.
#include "modules/containers.h"

#include "ktensor/arithmetic.h"
#include "utils/error.h"

namespace ornik {

void Sequential::append(std::shared_ptr<Module> module) { add_part(std::to_string(parts().size()), std::move(module)); }

KTensor Sequential::forward(const KTensor& x) {
    KTensor result = x;
    for (const auto& [name, part] : parts()) {
        result = part->forward(result);
    }
    return result;
}

Residual::Residual(std::shared_ptr<Module> body, std::shared_ptr<Module> shortcut, std::shared_ptr<Module> activation)
    : body_(std::move(body)), shortcut_(std::move(shortcut)), activation_(std::move(activation)) {
    if (!body_) {
        fail(where("ornik::Residual"), "Residual(): there is no body.");
    }
    const auto add_present = [this](const char* name, const std::shared_ptr<Module>& part) {
        if (part) {
            add_part(name, part);
        }
    };
    add_present("body", body_);
    add_present("shortcut", shortcut_);
    add_present("activation", activation_);
}

KTensor Residual::forward(const KTensor& x) {
    const KTensor sum = body_->forward(x) + (shortcut_ ? shortcut_->forward(x) : x);
    return activation_ ? activation_->forward(sum) : sum;
}

}  // namespace ornik
