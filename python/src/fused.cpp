// fused.cpp: networks for inference, made of descriptions of their parts.
//
// A description is a tuple (kind, numbers, tensors, parts, detail); what fuse() has made of it can be described, too:
//     kind                   numbers                                               tensors              detail
//     "Conv2d", ...          normalized, stride, padding, dilation, groups,        weight, bias         the end
//                            transposed, output padding
//     "Linear"               normalized                                            weight, bias         the end
//     "BatchNorm"                                                                  mean, variance,      eps
//                                                                                  weight, bias
//     "MaxPool2d", "AvgPool2d"    kernel, stride, padding
//     "AdaptiveAvgPool2d"    extents
//     "ReLU", ...                                                                                       the end
//     "Residual"; parts: body, shortcut, activation
//     "Sequential"; parts: those in a row
#include <nanobind/stl/string.h>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "module.h"
#include "modules/convolution_layers.h"
#include "modules/fuse.h"
#include "modules/fused_layers.h"
#include "modules/pooling_layers.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

using detail::FusedLayer;
using detail::FusedResidual;
using Shared = std::shared_ptr<Module>;

// ---- From descriptions ----

// An activation as a part of its own.
class Activation : public Module {
  public:
    Activation(std::string name, nn::LayerEnd end) : name_(std::move(name)), end_(end) {}
    KTensor forward(const KTensor& x) override { return apply_end(x, end_); }
    std::optional<nn::LayerEnd> as_end() const override { return end_; }
    std::string type_name() const override { return name_; }

  private:
    std::string name_;
    nn::LayerEnd end_;
};

Shared layer_of(std::string kind, const Dims& n, std::vector<KTensor> tensors, nn::LayerEnd end) {
    FusedLayer::Parts parts{std::move(kind), tensors.at(0), tensors.at(1), {}, n.at(0) != 0, end};
    if (n.size() > 1) {
        parts.convolution = nn::ConvParameters{.stride = {n.at(1), n.at(2)},
                                               .padding = {{{n.at(3), n.at(4)}, {n.at(5), n.at(6)}}},
                                               .dilation = {n.at(7), n.at(8)},
                                               .groups = n.at(9),
                                               .transposed = n.at(10) != 0,
                                               .output_padding = {n.at(11), n.at(12)}};
    }
    return std::make_shared<FusedLayer>(std::move(parts));
}

Shared norm_of(const std::vector<KTensor>& tensors, double eps) {
    auto norm = std::make_shared<BatchNorm>(
        tensors.at(0).size(0), BatchNormOptions{.eps = eps, .affine = false, .track_running_stats = false});
    norm->running_mean = tensors[0];
    norm->running_var = tensors.at(1);
    norm->weight = tensors.at(2);
    norm->bias = tensors.at(3);
    return norm;
}

// Null for None.
Shared module_of(nb::handle description) {
    if (description.is_none()) {
        return nullptr;
    }
    std::string kind = to_text(nb::object(description[0]).ptr()).value;
    const Dims n = to_shape(nb::object(description[1]).ptr()).dims;
    std::vector<KTensor> tensors = to_tensors(nb::object(description[2]).ptr(), true);
    const nb::object parts = description[3];
    const nb::object detail = description[4];
    if (kind == "Sequential") {
        auto row = std::make_shared<Sequential>();
        for (const nb::handle part : parts) {
            row->append(module_of(part));
        }
        return row;
    }
    if (kind == "Residual") {
        return std::make_shared<Residual>(module_of(parts[0]), module_of(parts[1]), module_of(parts[2]));
    }
    if (kind == "BatchNorm") {
        return norm_of(tensors, to_real(detail.ptr()));
    }
    if (kind == "AdaptiveAvgPool2d") {
        return std::make_shared<AdaptiveAvgPool2d>(std::array{n.at(0), n.at(1)});
    }
    if (kind == "MaxPool2d" || kind == "AvgPool2d") {
        const nn::PoolParameters p{{n.at(0), n.at(1)}, {n.at(2), n.at(3)}, {n.at(4), n.at(5)}};
        return kind == "MaxPool2d" ? Shared(std::make_shared<MaxPool2d>(p)) : std::make_shared<AvgPool2d>(p);
    }
    const nn::LayerEnd end = to_end(to_text(detail.ptr()));
    return tensors.empty() ? Shared(std::make_shared<Activation>(std::move(kind), end))
                           : layer_of(std::move(kind), n, std::move(tensors), end);
}

// ---- To descriptions ----

nb::tuple described(const char* kind, const Dims& numbers, const std::vector<KTensor>& tensors, const nb::object& parts,
                    const nb::object& detail) {
    return nb::make_tuple(kind, nb::steal(checked(tuple_of(numbers))), nb::steal(checked(list_of(tensors))), parts,
                          detail);
}

nb::object text_of(nn::LayerEnd end) { return nb::str(nn::name_of(end).data()); }

nb::tuple description_of(const FusedLayer::Parts& layer, nn::LayerEnd end) {
    Dims numbers{layer.is_normalized ? 1 : 0};
    if (layer.convolution) {
        const nn::ConvParameters& p = *layer.convolution;
        for (const std::int64_t n : {p.stride[0], p.stride[1], p.padding[0].begin, p.padding[0].end, p.padding[1].begin,
                                     p.padding[1].end, p.dilation[0], p.dilation[1], p.groups,
                                     std::int64_t{p.transposed ? 1 : 0}, p.output_padding[0], p.output_padding[1]}) {
            numbers.push_back(n);
        }
    }
    return described(layer.kind.c_str(), numbers, {layer.weight, layer.bias}, nb::tuple(), text_of(end));
}

nb::tuple description_of(const Module& module);

// None where there is no such part.
nb::object part_of(const Module& module, const char* name) {
    for (const auto& [known, part] : module.parts()) {
        if (known == name) {
            return description_of(*part);
        }
    }
    return nb::none();
}

nb::tuple residual_of(nb::object body, const Module& module, nb::object activation) {
    return described("Residual", {}, {}, nb::make_tuple(body, part_of(module, "shortcut"), activation), nb::none());
}

nb::tuple description_of(const FusedResidual& module) {
    const nb::object first = part_of(module, "first");
    const FusedLayer::Parts& last = module.last().made_of();
    nb::object activation = part_of(module, "activation");
    if (last.end != nn::LayerEnd::none) {
        activation = described(nn::name_of(last.end).data(), {}, {}, nb::tuple(), text_of(last.end));
    }
    const nb::tuple layer = description_of(last, nn::LayerEnd::none);
    nb::object row = first.is_none() ? nb::make_tuple(layer) : nb::make_tuple(first, layer);
    return residual_of(described("Sequential", {}, {}, row, nb::none()), module, std::move(activation));
}

nb::tuple description_of(const Module& module) {
    if (const auto* layer = dynamic_cast<const FusedLayer*>(&module)) {
        return description_of(layer->made_of(), layer->made_of().end);
    }
    if (const auto* residual = dynamic_cast<const FusedResidual*>(&module)) {
        return description_of(*residual);
    }
    if (const auto* pool = dynamic_cast<const detail::FusedPool*>(&module)) {
        return description_of(*pool->plain());
    }
    if (const auto* pool = dynamic_cast<const detail::Pool*>(&module)) {
        const nn::PoolParameters& p = pool->pool_parameters();
        return described(dynamic_cast<const MaxPool2d*>(pool) != nullptr ? "MaxPool2d" : "AvgPool2d",
                         {p.kernel[0], p.kernel[1], p.stride[0], p.stride[1], p.padding[0], p.padding[1]}, {},
                         nb::tuple(), nb::none());
    }
    if (const auto* pool = dynamic_cast<const AdaptiveAvgPool2d*>(&module)) {
        return described("AdaptiveAvgPool2d", {pool->output()[0], pool->output()[1]}, {}, nb::tuple(), nb::none());
    }
    if (const auto* norm = dynamic_cast<const BatchNorm*>(&module)) {
        return described("BatchNorm", {}, {norm->running_mean, norm->running_var, norm->weight, norm->bias},
                         nb::tuple(), nb::float_(norm->options().eps));
    }
    if (const auto* activation = dynamic_cast<const Activation*>(&module)) {
        return described(activation->type_name().c_str(), {}, {}, nb::tuple(), text_of(*activation->as_end()));
    }
    if (dynamic_cast<const Residual*>(&module) != nullptr) {
        return residual_of(part_of(module, "body"), module, part_of(module, "activation"));
    }
    nb::list row;
    for (const auto& [name, part] : module.parts()) {
        row.append(description_of(*part));
    }
    return described("Sequential", {}, {}, row, nb::none());
}

struct Fused {
    explicit Fused(nb::handle description) {
        Sequential row;
        row.append(module_of(description));
        row.eval();
        network = fuse(row);
    }
    Shared network;
};

}  // namespace

void add_fused(nb::module_& m) {
    nb::class_<Fused>(m, "Fused")
        .def(nb::init<nb::handle>(), nb::arg(), nb::sig("def __init__(self, description: tuple[Any, ...], /) -> None"))
        .def(
            "__reduce__",
            [](nb::handle self) {
                return nb::make_tuple(self.type(),
                                      nb::make_tuple(description_of(*nb::cast<const Fused&>(self).network)));
            },
            nb::sig("def __reduce__(self) -> tuple[Any, ...]"))
        .def("__repr__", [](const Fused& self) { return self.network->to_string(); })
        .def(
            "state", [](const Fused& self) { return to_dict(self.network->state()); },
            nb::sig("def state(self) -> dict[str, ornik.KTensor]"))
        .def("__call__",
             [](const Fused& self, const KTensor& x) { return without_lock([&] { return self.network->forward(x); }); })
        // Of a residual that ends with a layer, another tensor in the shortcut's place.
        .def("adding", [](const Fused& self, const KTensor& x, const KTensor& added) {
            auto& residual = dynamic_cast<FusedResidual&>(*self.network);
            return without_lock([&] { return residual.forward(x, added); });
        });
}

}  // namespace ornik::python
