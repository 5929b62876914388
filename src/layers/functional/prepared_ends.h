// prepared_ends.h: checks of what prepared layers end with. Internal.
#pragma once

#include <array>

#include "hardware/cpu/elements/cpu_row_end.h"
#include "layers/functional/layer_end.h"
#include "tensor/checks.h"

namespace ornik::nn {

inline device::cpu::RowEnd row_end_of(LayerEnd end) {
    using device::cpu::RowEnd;
    constexpr std::array rows{RowEnd::none, RowEnd::relu, RowEnd::relu6,       RowEnd::sigmoid,  RowEnd::tanh,
                              RowEnd::silu, RowEnd::gelu, RowEnd::hardsigmoid, RowEnd::hardswish};
    return rows.at(static_cast<std::size_t>(end));
}

inline void check_residual_shape(const Where& at, const char* name, const Dims& residual, const Dims& shape) {
    if (residual != shape) {
        fail(at, name, " adds a residual of the shape ", shape, ", however it is ", residual);
    }
}

/// Of a layer by name whose result has the shape.
inline void check_ends(const Where& at, const char* name, const Tensor* input, LayerEnd end, const Tensor* residual,
                       const Dims& shape) {
    if (end != LayerEnd::none && input->isComplexType()) {
        fail(ErrorKind::dtype, at, "Not valid dtype for this function.");
    }
    if (residual != nullptr) {
        check_operands(at, residual);
        check_alike(at, name, residual, input);
        check_residual_shape(at, name, residual->Shape(), shape);
    }
}

}  // namespace ornik::nn
