// cpu_recurrent.h: the gates of one step of an LSTM or GRU. Internal.
//
// Rows are sequences; every matrix of a step is contiguous, of one dtype, float32 or float64, with at least `rows`
// rows, and starts at an address that the caller computed. States are updated in place.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

/// The state before a step, row by row: of the first `from_steps` rows in `steps`, of the others in `initial` (null:
/// zeros). [rows, H]
struct PreviousState {
    const void* steps;
    std::int64_t from_steps;
    const void* initial;
};

struct RecurrentStep {
    std::int64_t dtype;
    std::int64_t rows;
    std::int64_t width;  ///< H
};

/// gates [rows, 4 H]: what goes into i, f, g, o becomes what comes out; cell [rows, H] becomes the next one, which is
/// copied to `cells`; the next hidden state goes to `hidden` and `output`.
void lstm_gates(const RecurrentStep& step, void* gates, void* cell, void* hidden, void* cells, void* output);

/// `hidden` and `cell` hold the gradients of the state after the step, to which that of the output (null: none) is
/// added; `into` [rows, 4 H] receives those of what went into the gates, `cell` that of the cell before.
void lstm_gates_grad(const RecurrentStep& step, const void* gates, const void* cells, const PreviousState& previous,
                     const void* output_gradient, const void* hidden, void* cell, void* into);

/// gates [rows, 4 H] hold what the input puts into r, z, n (the fourth part is not read); `recurrent` [rows, 3 H] what
/// the state does, n's bias apart (null: none). They become r, z, n and the state's part of n.
void gru_gates(const RecurrentStep& step, void* gates, const void* recurrent, const void* bias, void* hidden,
               void* output);

/// `hidden` holds the gradient of the state after the step and receives the part of that before which does not pass
/// through a product. `by_input` and `by_hidden` [rows, 3 H]: of what the input and the state put into the gates.
void gru_gates_grad(const RecurrentStep& step, const void* gates, const PreviousState& previous,
                    const void* output_gradient, void* hidden, void* by_input, void* by_hidden);

}  // namespace ornik::device::cpu
