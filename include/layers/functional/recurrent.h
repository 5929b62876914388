// recurrent.h: one layer and direction of an LSTM or a GRU over all steps, and its gradients.
//
//     ornik::nn::RecurrentWeights w{w_ih, w_hh, b_ih, b_hh};
//     ornik::nn::Recurrent y = ornik::nn::lstm(x, h0, c0, w);
//     ornik::nn::RecurrentGradients g = ornik::nn::lstm_grad({dy, nullptr, nullptr}, x, h0, c0, w, y.saved());
//
// x is [steps, N, in], or packed (tensor/nn/packing.h): [entries, in] with the batch sizes, which do not rise. States
// are [N, H], null for zeros; of packed sequences in the order of the packing, and each one's last state is that after
// its own last step. `reverse` starts with the last step of each sequence. float32 and float64, any strides.
//
//   LSTM, gates i f g o (Hochreiter and Schmidhuber, 1997; Gers and others, 2000), from a = x W_ih^T + b_ih + h W_hh^T
//   + b_hh:
//       i f o = sigmoid(a),  g = tanh(a),  c' = f c + i g,  h' = o tanh(c')
//   GRU, gates r z n (Cho and others, 2014):
//       r z = sigmoid(a),  n = tanh(x W_in^T + b_in + r (h W_hn^T + b_hn)),  h' = (1 - z) n + z h
//
// The input's product is one for all steps, and so are the gradients' but for that of the state.
#pragma once

#include <array>
#include <memory>

#include "../../export.h"
#include "../../tensor/tensor.h"

namespace ornik::nn {

/// [gates H, in], [gates H, H], and [gates H] or null; 4 gates of an LSTM, 3 of a GRU. Not owned.
struct RecurrentWeights {
    Tensor* input = nullptr;
    Tensor* hidden = nullptr;
    Tensor* input_bias = nullptr;
    Tensor* hidden_bias = nullptr;
};

/// What the gradients need of a forward pass, besides its arguments. Not owned.
struct RecurrentSaved {
    Tensor* output = nullptr;
    Tensor* gates = nullptr;
    Tensor* cells = nullptr;
};

struct Recurrent {
    std::unique_ptr<Tensor> output;  ///< [steps, N, H] or [entries, H]
    std::unique_ptr<Tensor> hidden;  ///< last state [N, H]
    std::unique_ptr<Tensor> cell;    ///< last state [N, H] of an LSTM; null of a GRU
    std::unique_ptr<Tensor> gates;   ///< [entries, 4 H] after their functions; of a GRU r, z, n and h W_hn^T + b_hn
    std::unique_ptr<Tensor> cells;   ///< [entries, H] of an LSTM

    RecurrentSaved saved() const { return {output.get(), gates.get(), cells.get()}; }
};

/// The gradients of a forward pass's results; null for none.
struct RecurrentUpstream {
    Tensor* output = nullptr;
    Tensor* hidden = nullptr;
    Tensor* cell = nullptr;
};

/// Those that are not wanted are null.
struct RecurrentGradients {
    std::unique_ptr<Tensor> input;
    std::unique_ptr<Tensor> hidden;
    std::unique_ptr<Tensor> cell;
    std::unique_ptr<Tensor> input_weight;
    std::unique_ptr<Tensor> hidden_weight;
    std::unique_ptr<Tensor> input_bias;
    std::unique_ptr<Tensor> hidden_bias;
};

/// In the order of RecurrentGradients.
using RecurrentWanted = std::array<bool, 7>;
inline constexpr RecurrentWanted all_recurrent{true, true, true, true, true, true, true};

ORNIK_API Recurrent lstm(Tensor* input, Tensor* hidden, Tensor* cell, const RecurrentWeights& weights,
                         bool reverse = false, const Dims& batch_sizes = {});
ORNIK_API RecurrentGradients lstm_grad(const RecurrentUpstream& upstream, Tensor* input, Tensor* hidden, Tensor* cell,
                                       const RecurrentWeights& weights, const RecurrentSaved& saved,
                                       bool reverse = false, const Dims& batch_sizes = {},
                                       const RecurrentWanted& wanted = all_recurrent);

ORNIK_API Recurrent gru(Tensor* input, Tensor* hidden, const RecurrentWeights& weights, bool reverse = false,
                        const Dims& batch_sizes = {});
ORNIK_API RecurrentGradients gru_grad(const RecurrentUpstream& upstream, Tensor* input, Tensor* hidden,
                                      const RecurrentWeights& weights, const RecurrentSaved& saved,
                                      bool reverse = false, const Dims& batch_sizes = {},
                                      const RecurrentWanted& wanted = all_recurrent);

}  // namespace ornik::nn
