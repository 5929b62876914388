// networks.cpp: layers of networks, and losses.
#include "ktensor/networks.h"

#include <nanobind/stl/array.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/pair.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "ktensor/arithmetic.h"
#include "ktensor/convolutions.h"
#include "ktensor/images.h"
#include "ktensor/impl.h"
#include "ktensor/losses.h"
#include "ktensor/normalizations.h"
#include "ktensor/prepared.h"
#include "module.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

using Extents = std::array<std::int64_t, 2>;
using Triple = std::tuple<KTensor, KTensor, KTensor>;

// ---- Convolutions, pools, images ----

nn::ConvParameters conv_parameters(const Extents& stride, const std::array<Extents, 2>& padding,
                                   const Extents& dilation, std::int64_t groups, bool transposed,
                                   const Extents& output_padding) {
    return {.stride = stride,
            .padding = {{{padding[0][0], padding[0][1]}, {padding[1][0], padding[1][1]}}},
            .dilation = dilation,
            .groups = groups,
            .transposed = transposed,
            .output_padding = output_padding};
}

KTensor convolve(const KTensor& x, const KTensor& weight, const OptionalTensor& bias, const Extents& stride,
                 const std::array<Extents, 2>& padding, const Extents& dilation, std::int64_t groups, bool transposed,
                 const Extents& output_padding) {
    const nn::ConvParameters parameters =
        conv_parameters(stride, padding, dilation, groups, transposed, output_padding);
    return without_lock([&] { return convolution(x, weight, bias.tensor, parameters); });
}

// In training: nothing is kept.
KTensor ended(PreparedWeight& prepared, const KTensor& y, nn::LayerEnd end, const KTensor& residual) {
    prepared.drop();
    return apply_end(residual.defined() ? y + residual : y, end);
}

void add_prepared(nb::module_& m) {
    nb::class_<PreparedWeight>(m, "Prepared")
        .def(nb::init<>())
        .def(
            "__reduce__", [](nb::handle self) { return nb::make_tuple(self.type(), nb::tuple()); },
            nb::sig("def __reduce__(self) -> tuple[Any, ...]"))  // What is kept is made again.
        .def("drop", &PreparedWeight::drop)
        .def_prop_ro("bytes", &PreparedWeight::bytes)
        .def("linear",
             [](PreparedWeight& self, const std::string& end, const OptionalTensor& residual, Flag keep,
                const KTensor& x, const KTensor& weight, const OptionalTensor& bias) {
                 const nn::LayerEnd chosen = to_end(end);
                 return without_lock([&] {
                     return keep ? self.linear(x, weight, bias.tensor, chosen, residual.tensor)
                                 : ended(self, linear(x, weight, bias.tensor), chosen, residual.tensor);
                 });
             })
        .def("convolution", [](PreparedWeight& self, const std::string& end, const OptionalTensor& residual, Flag keep,
                               const KTensor& x, const KTensor& weight, const OptionalTensor& bias,
                               const Extents& stride, const std::array<Extents, 2>& padding, const Extents& dilation,
                               std::int64_t groups, bool transposed, const Extents& output_padding) {
            const nn::LayerEnd chosen = to_end(end);
            const nn::ConvParameters parameters =
                conv_parameters(stride, padding, dilation, groups, transposed, output_padding);
            return without_lock([&] {
                return keep ? self.convolution(x, weight, bias.tensor, parameters, chosen, residual.tensor)
                            : ended(self, convolution(x, weight, bias.tensor, parameters), chosen, residual.tensor);
            });
        });
}

void add_windows(nb::module_& m) {
    m.def("convolution", convolve);
    m.def("max_pool", [](const KTensor& x, const Extents& kernel, const Extents& stride, const Extents& padding) {
        return without_lock(x.size(), [&] { return max_pool(x, {kernel, stride, padding}); });
    });
    m.def("max_pool_with_positions",
          [](const KTensor& x, const Extents& kernel, const Extents& stride, const Extents& padding) {
              return without_lock(x.size(), [&] { return max_pool_with_positions(x, {kernel, stride, padding}); });
          });
    m.def("average_pool", [](const KTensor& x, const Extents& kernel, const Extents& stride, const Extents& padding) {
        return without_lock(x.size(), [&] { return average_pool(x, {kernel, stride, padding}); });
    });
    m.def("adaptive_average_pool", [](const KTensor& x, const Extents& output) {
        return without_lock(x.size(), [&] { return adaptive_average_pool(x, output); });
    });
    m.def("adaptive_max_pool", [](const KTensor& x, const Extents& output) {
        return without_lock(x.size(), [&] { return adaptive_max_pool(x, output); });
    });
    m.def("interpolate", [](const KTensor& x, const Shape& size, const Text& mode, Flag align_corners) {
        return without_lock(x.size(), [&] { return interpolate(x, size.dims, mode, align_corners); });
    });
    m.def("pixel_shuffle", [](const KTensor& x, Whole factor) {
        return without_lock(x.size(), [&] { return pixel_shuffle(x, factor); });
    });
    m.def("pixel_unshuffle", [](const KTensor& x, Whole factor) {
        return without_lock(x.size(), [&] { return pixel_unshuffle(x, factor); });
    });
}

// ---- Normalizations ----

void add_normalizations(nb::module_& m) {
    m.def("batch_norm", [](const KTensor& x, const OptionalTensor& mean, const OptionalTensor& variance,
                           const OptionalTensor& weight, const OptionalTensor& bias, Flag training, Real momentum,
                           Real eps) {
        return without_lock(x.size(), [&] {
            return batch_norm(x, mean.tensor, variance.tensor, weight.tensor, bias.tensor, training, momentum, eps);
        });
    });
    m.def("layer_norm",
          [](const KTensor& x, const Shape& shape, const OptionalTensor& weight, const OptionalTensor& bias, Real eps) {
              return without_lock(x.size(), [&] { return layer_norm(x, shape.dims, weight.tensor, bias.tensor, eps); });
          });
    m.def("group_norm",
          [](const KTensor& x, Whole groups, const OptionalTensor& weight, const OptionalTensor& bias, Real eps) {
              return without_lock(x.size(), [&] { return group_norm(x, groups, weight.tensor, bias.tensor, eps); });
          });
    m.def("normalize", [](const KTensor& x, const Axes& axes, Real eps) {
        return without_lock(x.size(), [&] { return normalize(x, axes.axes, eps); });
    });
    m.def("cosine_similarity", [](const KTensor& a, const KTensor& b, Axis axis, Real eps) {
        return without_lock(a.size(), [&] { return cosine_similarity(a, b, axis.axis, eps); });
    });
}

// ---- Linear maps, attention, recurrent layers ----

RecurrentParameters recurrent_parameters(const OptionalTensors& weights) {
    if (weights.list.size() != 4) {
        raise_error(PyExc_ValueError, "two weights and two biases are wanted, but got " +
                                          std::to_string(weights.list.size()) + " tensors");
    }
    return {weights.list[0], weights.list[1], weights.list[2], weights.list[3]};
}

void add_sequences(nb::module_& m) {
    m.def("linear", [](const KTensor& x, const KTensor& weight, const OptionalTensor& bias) {
        return without_lock(x.size(), [&] { return linear(x, weight, bias.tensor); });
    });
    m.def(
        "embedding",
        [](const KTensor& indices, const KTensor& weight, OptionalWhole padding_index) {
            return without_lock(indices.size(), [&] { return embedding(indices, weight, padding_index.value); });
        },
        nb::arg(), nb::arg(), nb::arg().none());
    m.def("one_hot",
          [](const KTensor& indices, Whole classes, Dtype dtype) { return one_hot(indices, classes, dtype.code); });
    m.def("pack_sequences", [](const KTensor& padded, const Shape& lengths) {
        return without_lock(padded.size(), [&] { return pack_sequences(padded, Packing(lengths.dims)); });
    });
    m.def("unpack_sequences", [](const KTensor& packed, const Shape& lengths, Whole steps, Real padding) {
        return without_lock(packed.size(),
                            [&] { return unpack_sequences(packed, Packing(lengths.dims), steps, padding); });
    });
    m.def(
        "packing",
        [](const Shape& lengths) {
            const Packing packing(lengths.dims);
            return std::pair(nb::steal(checked(tuple_of(packing.order()))),
                             nb::steal(checked(tuple_of(packing.batch_sizes()))));
        },
        nb::sig("def packing(lengths: int | collections.abc.Sequence[int], /) -> "
                "tuple[tuple[int, ...], tuple[int, ...]]"));
    m.def(
        "attention",
        [](const KTensor& query, const KTensor& key, const KTensor& value, const OptionalTensor& mask, Flag causal,
           Real scale, Real dropout, Flag with_probabilities) {
            return without_lock([&] {
                const AttentionArguments arguments{mask.tensor, causal, scale, dropout};
                return with_probabilities
                           ? attention_with_probabilities(query, key, value, arguments)
                           : std::pair(scaled_dot_product_attention(query, key, value, arguments), KTensor());
            });
        },
        nb::sig("def attention(query: ornik.KTensor, key: ornik.KTensor, value: ornik.KTensor, "
                "mask: None | ornik.KTensor, causal: bool, scale: float, dropout: float, with_probabilities: bool, /)"
                " -> tuple[ornik.KTensor, ornik.KTensor | None]"));
    m.def("lstm", [](const KTensor& x, const OptionalTensor& hidden, const OptionalTensor& cell,
                     const OptionalTensors& weights, Flag reverse, const Shape& batch_sizes) {
        const RecurrentParameters parameters = recurrent_parameters(weights);
        RecurrentResult y =
            without_lock([&] { return lstm(x, hidden.tensor, cell.tensor, parameters, reverse, batch_sizes.dims); });
        return Triple(std::move(y.output), std::move(y.hidden), std::move(y.cell));
    });
    m.def("gru", [](const KTensor& x, const OptionalTensor& hidden, const OptionalTensors& weights, Flag reverse,
                    const Shape& batch_sizes) {
        const RecurrentParameters parameters = recurrent_parameters(weights);
        RecurrentResult y = without_lock([&] { return gru(x, hidden.tensor, parameters, reverse, batch_sizes.dims); });
        return std::pair(std::move(y.output), std::move(y.hidden));
    });
}

// ---- Losses ----

Reduction reduction_of(const std::string& name) {
    if (name == "mean") {
        return Reduction::mean;
    }
    if (name == "sum") {
        return Reduction::sum;
    }
    if (name != "none") {
        raise_error(PyExc_ValueError, R"(a reduction is "mean", "sum" or "none", not ")" + name + '"');
    }
    return Reduction::none;
}

void add_losses(nb::module_& m) {
    using Plain = KTensor (*)(const KTensor&, const KTensor&, Reduction);
    constexpr std::pair<const char*, Plain> plain[] = {{"mse_loss", mse_loss}, {"l1_loss", l1_loss}};
    for (const auto& [name, function] : plain) {
        m.def(name, [function = function](const KTensor& x, const KTensor& target, const Text& reduction) {
            const Reduction by = reduction_of(reduction);
            return without_lock(x.size(), [&] { return function(x, target, by); });
        });
    }
    using Bent = KTensor (*)(const KTensor&, const KTensor&, double, Reduction);
    constexpr std::pair<const char*, Bent> bent[] = {{"smooth_l1_loss", smooth_l1_loss}, {"huber_loss", huber_loss}};
    for (const auto& [name, function] : bent) {
        m.def(name, [function = function](const KTensor& x, const KTensor& target, Real at, const Text& reduction) {
            const Reduction by = reduction_of(reduction);
            return without_lock(x.size(), [&] { return function(x, target, at, by); });
        });
    }
    m.def("cross_entropy", [](const KTensor& x, const KTensor& target, const OptionalTensor& weight, Whole ignore_index,
                              Real smoothing, const Text& reduction) {
        const ClassLossArguments arguments{reduction_of(reduction), weight.tensor, ignore_index, smoothing};
        return without_lock(x.size(), [&] { return cross_entropy(x, target, arguments); });
    });
    m.def("nll_loss", [](const KTensor& x, const KTensor& target, const OptionalTensor& weight, Whole ignore_index,
                         const Text& reduction) {
        const ClassLossArguments arguments{reduction_of(reduction), weight.tensor, ignore_index};
        return without_lock(x.size(), [&] { return nll_loss(x, target, arguments); });
    });
    m.def("binary_cross_entropy",
          [](const KTensor& x, const KTensor& target, const OptionalTensor& weight, const Text& reduction) {
              const Reduction by = reduction_of(reduction);
              return without_lock(x.size(), [&] { return binary_cross_entropy(x, target, weight.tensor, by); });
          });
    m.def("binary_cross_entropy_with_logits", [](const KTensor& x, const KTensor& target, const OptionalTensor& weight,
                                                 const OptionalTensor& positive_weight, const Text& reduction) {
        const Reduction by = reduction_of(reduction);
        return without_lock(x.size(), [&] {
            return binary_cross_entropy_with_logits(x, target, weight.tensor, positive_weight.tensor, by);
        });
    });
    m.def("kl_div", [](const KTensor& x, const KTensor& target, Flag log_target, const Text& reduction) {
        const Reduction by = reduction_of(reduction);
        return without_lock(x.size(), [&] { return kl_div(x, target, log_target, by); });
    });
}

}  // namespace

nn::LayerEnd to_end(const std::string& name) {
    const std::optional<nn::LayerEnd> end = nn::layer_end_named(name);
    if (!end) {
        raise_error(PyExc_ValueError, "no layer ends with \"" + name + "\"");
    }
    return *end;
}

void add_networks(nb::module_& m) {
    nb::list ends;
    for (const std::string_view name : nn::layer_end_names) {
        ends.append(nb::str(name.data(), name.size()));
    }
    m.attr("layer_ends") = nb::tuple(ends);
    add_prepared(m);
    add_windows(m);
    add_normalizations(m);
    add_sequences(m);
    add_losses(m);
}

}  // namespace ornik::python
