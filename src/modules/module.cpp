// module.cpp: the tree of parameters.
#include "modules/module.h"

#include <algorithm>
#include <cstdlib>
#include <ostream>
#include <typeinfo>
#if __has_include(<cxxabi.h>)
#include <cxxabi.h>
#endif

#include "ktensor/autograd.h"
#include "ktensor/impl.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

using autograd::describe;

Module::~Module() = default;
Module::Module(Module&&) noexcept = default;
Module& Module::operator=(Module&&) noexcept = default;

KTensor Module::forward(const KTensor& /*x*/) {
    fail(ErrorKind::not_implemented, where("ornik::Module::forward"),
         "forward(): this module does not lead from one tensor to one.");
}

// ---- Registration ----

void Module::check_name(const std::string& name) const {
    const auto is_taken = [&](const auto& list) {
        return std::any_of(list.begin(), list.end(), [&](const auto& entry) { return entry.first == name; });
    };
    if (name.empty() || name.find('.') != std::string::npos || is_taken(parameters_) || is_taken(buffers_) ||
        is_taken(parts_)) {
        fail(where("ornik::Module::add"), "add(): \"", name, "\" is no new name without points.");
    }
}

KTensor Module::add_parameter(const std::string& name, KTensor value) {
    check_name(name);
    if (value.defined()) {
        value.requires_grad();
        parameters_.emplace_back(name, value);
    }
    return value;
}

KTensor Module::add_buffer(const std::string& name, KTensor value, bool is_count) {
    check_name(name);
    if (value.defined()) {
        buffers_.emplace_back(name, value);
        if (is_count) {
            counts_.emplace_back(name, value);
        }
    }
    return value;
}

void Module::add_part(const std::string& name, std::shared_ptr<Module> part) {
    check_name(name);
    parts_.emplace_back(name, std::move(part));
}

// ---- Lists ----

const NamedTensors& Module::list_of(What what) const {
    return what == What::parameters ? parameters_ : what == What::buffers ? buffers_ : counts_;
}

void Module::collect(const std::string& prefix, What what, bool repeated, NamedTensors& result) const {
    for (const auto& [name, tensor] : list_of(what)) {
        const auto is_same = [&t = tensor](const auto& entry) { return entry.second.is(t); };
        if (repeated || std::none_of(result.begin(), result.end(), is_same)) {
            result.emplace_back(prefix + name, tensor);
        }
    }
    for (const auto& [name, part] : parts_) {
        part->collect(prefix + name + ".", what, repeated, result);
    }
}

NamedTensors Module::named_parameters() const {
    NamedTensors result;
    collect("", What::parameters, false, result);
    return result;
}

NamedTensors Module::named_buffers() const {
    NamedTensors result;
    collect("", What::buffers, false, result);
    return result;
}

std::vector<KTensor> Module::parameters() const {
    std::vector<KTensor> result;
    for (auto& [name, tensor] : named_parameters()) {
        result.push_back(std::move(tensor));
    }
    return result;
}

std::int64_t Module::parameter_count() const {
    std::int64_t count = 0;
    for (const KTensor& parameter : parameters()) {
        count += parameter.size();
    }
    return count;
}

NamedTensors Module::state() const {
    NamedTensors result;
    collect("", What::parameters, true, result);
    collect("", What::buffers, true, result);
    return result;
}

// ---- Values ----

void Module::load_state(const NamedTensors& values, bool strict) {
    const NamedTensors own = state();
    NamedTensors counts;
    collect("", What::counts, true, counts);
    const auto find = [](const NamedTensors& list, const std::string& name) {
        return std::find_if(list.begin(), list.end(), [&](const auto& entry) { return entry.first == name; });
    };
    const auto comes_under_another_name = [&](const KTensor& tensor) {
        return std::any_of(own.begin(), own.end(), [&](const auto& entry) {
            return entry.second.is(tensor) && find(values, entry.first) != values.end();
        });
    };
    std::string faults;
    for (const auto& [name, tensor] : own) {
        if (const auto value = find(values, name); value == values.end()) {
            if (!comes_under_another_name(tensor) && find(counts, name) == counts.end()) {
                faults += " " + name + " is missing;";
            }
        } else if (!value->second.defined() || value->second.shape() != tensor.shape()) {
            faults += " " + name + " is " + describe(tensor) + ", not " + describe(value->second) + ";";
        }
    }
    for (const auto& [name, tensor] : values) {
        if (strict && find(own, name) == own.end()) {
            faults += " " + name + " is unknown;";
        }
    }
    if (!faults.empty()) {
        faults.back() = '.';
        fail(where("ornik::Module::load_state"), "load_state():", faults);
    }
    const NoGrad values_alone;
    for (auto [name, tensor] : own) {
        if (const auto value = find(values, name); value != values.end()) {
            copy_(tensor, value->second);
        } else if (!comes_under_another_name(tensor)) {
            copy_(tensor, KTensor::zeros_like(tensor));
        }
    }
}

void Module::train(bool on) {
    training_ = on;
    for (const auto& [name, part] : parts_) {
        part->train(on);
    }
}

void Module::zero_grad() {
    for (KTensor& parameter : parameters()) {
        parameter.zero_grad();
    }
}

void Module::to(std::int64_t dtype) {
    if (!is_dtype_class(dtype, DtypeClass::floating) && !is_dtype_class(dtype, DtypeClass::complex)) {
        fail(ErrorKind::dtype, where("ornik::Module::to"), "to(): parameters are floating or complex, not ",
             dtype_name(dtype), ".");
    }
    const NoGrad values_alone;
    for (auto& [name, tensor] : state()) {
        if (tensor.is_floating() || tensor.is_complex()) {
            tensor.zero_grad();
            tensor.impl()->data = astype(tensor.detach(), dtype).impl()->data;
        }
    }
}

void Module::apply(const std::function<void(Module&)>& function) {
    for (const auto& [name, part] : parts_) {
        part->apply(function);
    }
    function(*this);
}

// ---- Inference ----

std::shared_ptr<Module> Module::fused() { return nullptr; }
std::optional<nn::LayerEnd> Module::as_end() const { return std::nullopt; }

// ---- Text ----

std::string Module::type_name() const {
    const char* mangled = typeid(*this).name();
#if __has_include(<cxxabi.h>)
    int status = 0;
    const std::unique_ptr<char, void (*)(void*)> text(abi::__cxa_demangle(mangled, nullptr, nullptr, &status),
                                                      std::free);
    std::string name = status == 0 ? text.get() : mangled;
#else
    std::string name = mangled;
#endif
    name.erase(std::min(name.find('<'), name.size()));  // Template arguments say nothing about a module.
    const std::size_t end = name.find_last_of(": ");    // Namespaces, and some compilers' "class ".
    return end == std::string::npos ? name : name.substr(end + 1);
}

std::string Module::to_string() const {
    std::string text = type_name() + "(" + arguments_;
    for (const auto& [name, part] : parts_) {
        text += "\n  (" + name + "): ";
        for (const char c : part->to_string()) {
            text += c == '\n' ? std::string("\n  ") : std::string(1, c);
        }
    }
    return text + (parts_.empty() ? ")" : "\n)");
}

std::ostream& operator<<(std::ostream& stream, const Module& module) { return stream << module.to_string(); }

}  // namespace ornik
