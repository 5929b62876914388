// layer_end.h: activations that a prepared layer applies where its sums are made.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace ornik::nn {

/// Each is the function of that name, bit for bit: relu, hardsigmoid, hardswish of activation.h, relu6 as
/// hardtanh(x, 0, 6), the others as element-wise operations. float32 and float64, but none.
enum class LayerEnd { none, relu, relu6, sigmoid, tanh, silu, gelu, hardsigmoid, hardswish };

/// Their names, in their order.
inline constexpr std::array<std::string_view, 9> layer_end_names{"none", "relu", "relu6",       "sigmoid",  "tanh",
                                                                 "silu", "gelu", "hardsigmoid", "hardswish"};

constexpr std::string_view name_of(LayerEnd end) { return layer_end_names[static_cast<std::size_t>(end)]; }

constexpr std::optional<LayerEnd> layer_end_named(std::string_view name) {
    const auto place = std::find(layer_end_names.begin(), layer_end_names.end(), name);
    return place == layer_end_names.end() ? std::nullopt
                                          : std::optional(static_cast<LayerEnd>(place - layer_end_names.begin()));
}

}  // namespace ornik::nn
