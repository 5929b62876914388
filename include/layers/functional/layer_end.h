// layer_end.h: activations that a prepared layer applies where its sums are made.
#pragma once

namespace ornik::nn {

/// Each is the function of that name, bit for bit: relu, hardsigmoid, hardswish of activation.h, relu6 as
/// hardtanh(x, 0, 6), the others as element-wise operations. float32 and float64, but none.
enum class LayerEnd { none, relu, relu6, sigmoid, tanh, silu, gelu, hardsigmoid, hardswish };

}  // namespace ornik::nn
