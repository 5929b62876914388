// recurrent_layers.cpp: layers and directions of LSTM and GRU.
#include "modules/recurrent_layers.h"

#include "arguments.h"
#include "ktensor/activations.h"
#include "ktensor/impl.h"
#include "ktensor/indexing.h"
#include "ktensor/joins.h"
#include "ktensor/shapes.h"
#include "modules/initialization.h"

namespace ornik {

using autograd::describe;

namespace {

// [layers directions, N, H] with the sequences in another order.
KTensor reordered(const KTensor& state, const Dims& order) {
    return state.defined() ? index_select(state, 1, KTensor::from(order)) : state;
}

Dims inverse_of(const Dims& order) {
    Dims inverse(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        inverse[static_cast<std::size_t>(order[i])] = static_cast<std::int64_t>(i);
    }
    return inverse;
}

std::vector<KTensor> parted(const KTensor& state, std::size_t count) {
    return state.defined() ? unbind(state, 0) : std::vector<KTensor>(count);
}

// The four of one layer and direction, each handed to `add(name, value)` first.
template <typename Add>
RecurrentParameters recurrent_parameters(std::int64_t gates, std::int64_t in, std::int64_t hidden, bool bias,
                                         const Add& add) {
    const double bound = init::fan_in_bound(hidden);
    RecurrentParameters p;
    p.input_weight = add("weight_ih", init::uniform({gates * hidden, in}, bound));
    p.hidden_weight = add("weight_hh", init::uniform({gates * hidden, hidden}, bound));
    if (bias) {
        p.input_bias = add("bias_ih", init::uniform({gates * hidden}, bound));
        p.hidden_bias = add("bias_hh", init::uniform({gates * hidden}, bound));
    }
    return p;
}

}  // namespace

namespace detail {

Recurrent::Recurrent(Kind kind, std::int64_t in, std::int64_t hidden, const RecurrentOptions& options)
    : kind_(kind), in_(in), hidden_(hidden), options_(options) {
    check_positive(name(), {in, hidden, options.layers});
    check_probability(name(), options.dropout);
    const std::int64_t directions = options.bidirectional ? 2 : 1;
    for (std::int64_t layer = 0; layer < options.layers; ++layer) {
        for (std::int64_t direction = 0; direction < directions; ++direction) {
            const std::string suffix = "_l" + std::to_string(layer) + (direction == 1 ? "_reverse" : "");
            weights_.push_back(recurrent_parameters(
                kind == Kind::lstm ? 4 : 3, layer == 0 ? in : directions * hidden, hidden, options.bias,
                [&](const char* part, KTensor value) { return add_parameter(part + suffix, std::move(value)); }));
        }
    }
    set_arguments(Arguments()
                      .add("in", in)
                      .add("hidden", hidden)
                      .add_unless("layers", options.layers, std::int64_t{1})
                      .add_unless("bias", options.bias, true)
                      .add_unless("batch_first", options.batch_first, false)
                      .add_unless("dropout", options.dropout, 0.0)
                      .add_unless("bidirectional", options.bidirectional, false)
                      .text());
}

const RecurrentParameters& Recurrent::parameters_of(std::int64_t layer, bool reverse) const {
    if (layer < 0 || layer >= options_.layers || (reverse && !options_.bidirectional)) {
        fail(ErrorKind::index, where("ornik::Recurrent"), name(), "::parameters_of(): there is no ",
             reverse ? "reverse " : "", "layer ", layer, ".");
    }
    return weights_[static_cast<std::size_t>(layer * (options_.bidirectional ? 2 : 1) + (reverse ? 1 : 0))];
}

void Recurrent::check_state(const KTensor& state, std::int64_t batch) const {
    const Dims wanted{static_cast<std::int64_t>(weights_.size()), batch, hidden_};
    if (state.defined() && state.shape() != wanted) {
        fail(where("ornik::Recurrent"), name(), "(): a state is ", describe(state), ", not ",
             describe(wanted, state.dtype()), ".");
    }
}

// x is [steps, N, in], or packed [entries, in] with the sequences of the states in the order of the packing.
LstmResult<KTensor> Recurrent::run_layers(const KTensor& x, const KTensor& hidden, const KTensor& cell,
                                          const Dims& batch_sizes) {
    const std::vector<KTensor> hiddens = parted(hidden, weights_.size());
    const std::vector<KTensor> cells = parted(cell, weights_.size());
    const std::size_t directions = options_.bidirectional ? 2 : 1;
    std::vector<KTensor> last_hiddens;
    std::vector<KTensor> last_cells;
    KTensor y = x;
    for (std::size_t first = 0; first < weights_.size(); first += directions) {
        if (first > 0 && options_.dropout > 0) {
            y = dropout(y, options_.dropout, is_training());
        }
        std::vector<KTensor> outputs;
        for (std::size_t i = first; i < first + directions; ++i) {
            const bool reverse = i > first;
            RecurrentResult result = kind_ == Kind::lstm
                                         ? lstm(y, hiddens[i], cells[i], weights_[i], reverse, batch_sizes)
                                         : gru(y, hiddens[i], weights_[i], reverse, batch_sizes);
            outputs.push_back(std::move(result.output));
            last_hiddens.push_back(std::move(result.hidden));
            last_cells.push_back(std::move(result.cell));
        }
        y = directions == 1 ? outputs[0] : concat(outputs, -1);
    }
    return {y, stack(last_hiddens, 0), kind_ == Kind::lstm ? stack(last_cells, 0) : KTensor()};
}

LstmResult<KTensor> Recurrent::run(const KTensor& x, const KTensor& hidden, const KTensor& cell) {
    if (!x.defined() || (x.ndim() != 2 && x.ndim() != 3) || x.size(-1) != in_) {
        fail(where("ornik::Recurrent"), name(), "(): ", describe(x), " is no ",
             options_.batch_first ? "[N, steps, " : "[steps, N, ", in_, "] or [steps, ", in_, "].");
    }
    if (x.ndim() == 2) {
        const auto widened = [](const KTensor& state) { return state.defined() ? unsqueeze(state, 1) : state; };
        check_state(widened(hidden), 1);
        check_state(widened(cell), 1);
        const LstmResult<KTensor> result = run_layers(unsqueeze(x, 1), widened(hidden), widened(cell), {});
        const auto narrowed = [](const KTensor& t) { return t.defined() ? squeeze(t, {1}) : t; };
        return {narrowed(result.output), narrowed(result.hidden), narrowed(result.cell)};
    }
    check_state(hidden, x.size(options_.batch_first ? 0 : 1));
    check_state(cell, x.size(options_.batch_first ? 0 : 1));
    if (!options_.batch_first) {
        return run_layers(x, hidden, cell, {});
    }
    LstmResult<KTensor> result = run_layers(swapaxes(x, 0, 1), hidden, cell, {});
    result.output = swapaxes(result.output, 0, 1);
    return result;
}

LstmResult<PackedSequence> Recurrent::run(const PackedSequence& x, const KTensor& hidden, const KTensor& cell) {
    const Packing& packing = x.packing;
    if (!x.data.defined() || x.data.ndim() != 2 || x.data.size(0) != packing.entries() || x.data.size(1) != in_) {
        fail(where("ornik::Recurrent"), name(), "(): ", describe(x.data), " is no packed [", packing.entries(), ", ",
             in_, "].");
    }
    const auto batch = static_cast<std::int64_t>(packing.order().size());
    check_state(hidden, batch);
    check_state(cell, batch);
    LstmResult<KTensor> result =
        run_layers(x.data, reordered(hidden, packing.order()), reordered(cell, packing.order()), packing.batch_sizes());
    const Dims back = inverse_of(packing.order());
    return {{std::move(result.output), packing}, reordered(result.hidden, back), reordered(result.cell, back)};
}

}  // namespace detail

// ---- Cells ----

namespace {

// One step of x [N, in].
RecurrentResult stepped(const char* name, const KTensor& x, const KTensor& hidden, const KTensor& cell,
                        const RecurrentParameters& weights, bool is_lstm) {
    if (!x.defined() || x.ndim() != 2 || x.size(1) != weights.input_weight.size(1)) {
        fail(where("ornik::Recurrent"), name, "(): ", describe(x), " is no [N, ", weights.input_weight.size(1), "].");
    }
    const KTensor steps = unsqueeze(x, 0);
    return is_lstm ? lstm(steps, hidden, cell, weights) : gru(steps, hidden, weights);
}

}  // namespace

LSTMCell::LSTMCell(std::int64_t in, std::int64_t hidden, bool bias) {
    check_positive("LSTMCell", {in, hidden});
    weights = recurrent_parameters(
        4, in, hidden, bias, [this](const char* name, KTensor value) { return add_parameter(name, std::move(value)); });
    set_arguments(Arguments().add("in", in).add("hidden", hidden).add_unless("bias", bias, true).text());
}

LSTMCell::State LSTMCell::step(const KTensor& x, const State& state) const {
    RecurrentResult result = stepped("LSTMCell", x, state.hidden, state.cell, weights, true);
    return {std::move(result.hidden), std::move(result.cell)};
}

GRUCell::GRUCell(std::int64_t in, std::int64_t hidden, bool bias) {
    check_positive("GRUCell", {in, hidden});
    weights = recurrent_parameters(
        3, in, hidden, bias, [this](const char* name, KTensor value) { return add_parameter(name, std::move(value)); });
    set_arguments(Arguments().add("in", in).add("hidden", hidden).add_unless("bias", bias, true).text());
}

KTensor GRUCell::step(const KTensor& x, const KTensor& hidden) const {
    return stepped("GRUCell", x, hidden, KTensor(), weights, false).hidden;
}

}  // namespace ornik
