// recurrent_layers.h: LSTM and GRU in layers and directions, over padded and packed batches.
//
//     LSTM network(10, 20, {.layers = 2, .bidirectional = true});
//     KTensor y = network(x);                                  // x [steps, N, 10] -> [steps, N, 40]
//     auto [output, hidden, cell] = network.with_states(x);    // states [4, N, 20] after each sequence's last step
//
// Parameters of layer k: weight_ih_l{k} [gates H, in], weight_hh_l{k} [gates H, H], bias_ih_l{k} and bias_hh_l{k}
// [gates H]; those of the reverse direction end in _reverse; all uniform within 1 / sqrt(H). Formulas and order of the
// gates: layers/functional/recurrent.h. Layers above the first read the outputs of both directions side by side.
// States are [layers directions, N, H]: l0, l0_reverse, l1, ...; undefined ones count as zeros. One sequence [steps,
// in] has states without N.
#pragma once

#include <cstdint>
#include <vector>

#include "../ktensor/networks.h"
#include "module.h"
#include "packed_sequence.h"

namespace ornik {

struct RecurrentOptions {
    std::int64_t layers = 1;
    bool bias = true;
    bool batch_first = false;  ///< padded batches are [N, steps, ...]; the states keep their form
    double dropout = 0;        ///< in training, of the outputs of all layers but the last
    bool bidirectional = false;
};

/// Of a padded batch (KTensor) or a packed one (PackedSequence).
template <typename Sequence>
struct LstmResult {
    Sequence output;
    KTensor hidden;
    KTensor cell;
};
template <typename Sequence>
struct GruResult {
    Sequence output;
    KTensor hidden;
};

namespace detail {

class ORNIK_API Recurrent : public Module {
  public:
    /// The outputs of the last layer's directions, side by side.
    KTensor forward(const KTensor& x) override { return run(x, KTensor(), KTensor()).output; }

    [[nodiscard]] const RecurrentParameters& parameters_of(std::int64_t layer, bool reverse = false) const;

  protected:
    enum class Kind { lstm, gru };
    Recurrent(Kind kind, std::int64_t in, std::int64_t hidden, const RecurrentOptions& options);
    LstmResult<KTensor> run(const KTensor& x, const KTensor& hidden, const KTensor& cell);
    LstmResult<PackedSequence> run(const PackedSequence& x, const KTensor& hidden, const KTensor& cell);

  private:
    const char* name() const { return kind_ == Kind::lstm ? "LSTM" : "GRU"; }
    LstmResult<KTensor> run_layers(const KTensor& x, const KTensor& hidden, const KTensor& cell,
                                   const Dims& batch_sizes);
    void check_state(const KTensor& state, std::int64_t batch) const;

    Kind kind_;
    std::int64_t in_;
    std::int64_t hidden_;
    RecurrentOptions options_;
    std::vector<RecurrentParameters> weights_;
};

}  // namespace detail

class ORNIK_API LSTM : public detail::Recurrent {
  public:
    LSTM(std::int64_t in, std::int64_t hidden, const RecurrentOptions& options = {})
        : Recurrent(Kind::lstm, in, hidden, options) {}
    LstmResult<KTensor> with_states(const KTensor& x, const KTensor& hidden = KTensor(),
                                    const KTensor& cell = KTensor()) {
        return run(x, hidden, cell);
    }
    /// States in the order of the batch, not of the packing.
    LstmResult<PackedSequence> with_states(const PackedSequence& x, const KTensor& hidden = KTensor(),
                                           const KTensor& cell = KTensor()) {
        return run(x, hidden, cell);
    }
};

class ORNIK_API GRU : public detail::Recurrent {
  public:
    GRU(std::int64_t in, std::int64_t hidden, const RecurrentOptions& options = {})
        : Recurrent(Kind::gru, in, hidden, options) {}
    GruResult<KTensor> with_states(const KTensor& x, const KTensor& hidden = KTensor()) {
        auto result = run(x, hidden, KTensor());
        return {std::move(result.output), std::move(result.hidden)};
    }
    GruResult<PackedSequence> with_states(const PackedSequence& x, const KTensor& hidden = KTensor()) {
        auto result = run(x, hidden, KTensor());
        return {std::move(result.output), std::move(result.hidden)};
    }
};

/// One step at a time: weight_ih, weight_hh, bias_ih, bias_hh. x [N, in], states [N, H].
class ORNIK_API LSTMCell : public Module {
  public:
    LSTMCell(std::int64_t in, std::int64_t hidden, bool bias = true);
    struct State {
        KTensor hidden;
        KTensor cell;
    };
    State step(const KTensor& x, const State& state = {}) const;

    RecurrentParameters weights;
};

class ORNIK_API GRUCell : public Module {
  public:
    GRUCell(std::int64_t in, std::int64_t hidden, bool bias = true);
    KTensor step(const KTensor& x, const KTensor& hidden = KTensor()) const;

    RecurrentParameters weights;
};

}  // namespace ornik
