// networks.cpp: linear maps, embeddings, attention and recurrent layers, and their gradients.
#include "ktensor/networks.h"

#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/operands.h"
#include "ktensor/products.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "layers/functional/embedding.h"
#include "layers/functional/linear.h"
#include "layers/functional/recurrent.h"
#include "tensor/nn/attention.h"
#include "tensor/nn/packing.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::conj_of;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

void linear_backward(Backward& pass) {
    if (!pass.recorded()) {
        Tensor* grad = pass.grad().tensor();
        if (pass.wants(1)) {
            pass.give(1, make_ktensor(nn::linear_weight_grad(grad, pass.saved_raw(0))));
        }
        if (pass.wants(2)) {
            pass.give(2, make_ktensor(nn::linear_bias_grad(grad)));
        }
        if (pass.wants(0)) {
            pass.give(0, make_ktensor(nn::linear_input_grad(grad, pass.saved_raw(1))));
        }
        return;
    }
    const KTensor& grad = pass.grad();
    const KTensor rows = reshape(grad, {-1, grad.size(-1)});
    if (pass.wants(0)) {
        pass.give(0, matmul(grad, conj_of(pass.saved(1))));
    }
    if (pass.wants(1)) {
        const Dims shape = pass.operand_shape(0);
        pass.give(1, matmul(transpose(rows), conj_of(reshape(pass.saved(0), {-1, shape.back()}))));
    }
    if (pass.wants(2)) {
        pass.give(2, sum(rows, {0}));
    }
}

}  // namespace

KTensor linear(const KTensor& x, const KTensor& weight, const KTensor& bias) {
    const Recorder record(Op::linear, {&x, &weight, &bias}, 2);
    KTensor y = make_ktensor(nn::linear(x.tensor(), weight.tensor(), bias.tensor()));
    if (record.active()) {
        record.finish(y, {record.operand_if(record.wants(1), 0), record.operand_if(record.wants(0), 1)},
                      linear_backward);
    }
    return y;
}

KTensor embedding(const KTensor& indices, const KTensor& weight, std::optional<std::int64_t> padding_index) {
    const Recorder record(Op::embedding, {&weight});
    autograd::check_defined("embedding", indices, 0);
    KTensor y = make_ktensor(nn::embedding(indices.tensor(), weight.tensor()));
    if (record.active()) {
        record.finish(y, {Recorder::own(indices)}, [padding_index](Backward& pass) {
            pass.give(0, make_ktensor(nn::embedding_grad(pass.grad().tensor(), pass.saved_raw(0),
                                                         pass.operand_shape(0)[0], padding_index)));
        });
    }
    return y;
}

// ---- Attention ----

namespace {

// The gradients that there are, of the first operands.
void give(Backward& pass, std::initializer_list<std::unique_ptr<Tensor>*> gradients) {
    std::size_t i = 0;
    for (std::unique_ptr<Tensor>* gradient : gradients) {
        if (*gradient) {
            pass.give(i, make_ktensor(std::move(*gradient)));
        }
        ++i;
    }
}

}  // namespace

std::pair<KTensor, KTensor> attention_with_probabilities(const KTensor& query, const KTensor& key, const KTensor& value,
                                                         const AttentionArguments& arguments) {
    const Recorder record(Op::scaled_dot_product_attention, {&query, &key, &value, &arguments.mask}, 3);
    const auto options = [causal = arguments.causal, scale = arguments.scale,
                          dropout = arguments.dropout](Tensor* mask) {
        return nn::AttentionOptions{mask, causal, scale, dropout};
    };
    nn::Attended result = nn::attention(query.tensor(), key.tensor(), value.tensor(), options(arguments.mask.tensor()));
    KTensor y = make_ktensor(std::move(result.output));
    const KTensor probabilities = make_ktensor(std::move(result.probabilities));
    if (record.active()) {
        const KTensor kept = KTensor(std::move(result.kept));
        record.finish(y,
                      {record.operand(0), record.operand(1), record.operand(2), Recorder::own(probabilities),
                       Recorder::own(kept), record.operand_if(record.wants(3), 3)},
                      [options](Backward& pass) {
                          nn::AttentionGradients gradients = nn::attention_grad(
                              pass.grad().tensor(), pass.saved_raw(0), pass.saved_raw(1), pass.saved_raw(2),
                              pass.saved_raw(3), pass.saved_raw(4), options(pass.saved_raw(5)),
                              {pass.wants(0), pass.wants(1), pass.wants(2), pass.wants(3)});
                          give(pass, {&gradients.query, &gradients.key, &gradients.value, &gradients.mask});
                      });
    }
    return {std::move(y), probabilities};
}

KTensor scaled_dot_product_attention(const KTensor& query, const KTensor& key, const KTensor& value,
                                     const AttentionArguments& arguments) {
    const Recorder record(Op::scaled_dot_product_attention, {&query, &key, &value, &arguments.mask}, 3);
    if (arguments.dropout != 0 || record.wants(3)) {
        return attention_with_probabilities(query, key, value, arguments).first;
    }
    const auto options = [causal = arguments.causal, scale = arguments.scale](Tensor* mask) {
        return nn::AttentionOptions{mask, causal, scale, 0};
    };
    nn::AttendedRows result =
        nn::attention_rows(query.tensor(), key.tensor(), value.tensor(), options(arguments.mask.tensor()));
    KTensor y = make_ktensor(std::move(result.output));
    if (record.active()) {
        const KTensor log_sums = make_ktensor(std::move(result.log_sums));
        record.finish(y,
                      {record.operand(0), record.operand(1), record.operand(2), Recorder::output(y),
                       Recorder::own(log_sums), Recorder::own(arguments.mask)},
                      [options](Backward& pass) {
                          nn::AttentionGradients gradients = nn::attention_rows_grad(
                              pass.grad().tensor(), pass.saved_raw(0), pass.saved_raw(1), pass.saved_raw(2),
                              {pass.saved_raw(3), pass.saved_raw(4)}, options(pass.saved_raw(5)),
                              {pass.wants(0), pass.wants(1), pass.wants(2)});
                          give(pass, {&gradients.query, &gradients.key, &gradients.value});
                      });
    }
    return y;
}

// ---- Recurrent layers ----

namespace {

// Operands in the order of nn::RecurrentGradients: input, hidden, cell, two weights, two biases. A GRU's cell is
// undefined.
RecurrentResult recurrent(Op op, const KTensor& x, const KTensor& hidden, const KTensor& cell,
                          const RecurrentParameters& parameters, bool reverse, const Dims& batch_sizes) {
    const Recorder record(op,
                          {&x, &hidden, &cell, &parameters.input_weight, &parameters.hidden_weight,
                           &parameters.input_bias, &parameters.hidden_bias},
                          1);
    autograd::check_defined(info_of(op).name, parameters.input_weight, 3);
    autograd::check_defined(info_of(op).name, parameters.hidden_weight, 4);
    const bool is_lstm = op == Op::lstm;
    const nn::RecurrentWeights weights{parameters.input_weight.tensor(), parameters.hidden_weight.tensor(),
                                       parameters.input_bias.tensor(), parameters.hidden_bias.tensor()};
    nn::Recurrent raw = is_lstm ? nn::lstm(x.tensor(), hidden.tensor(), cell.tensor(), weights, reverse, batch_sizes)
                                : nn::gru(x.tensor(), hidden.tensor(), weights, reverse, batch_sizes);
    RecurrentResult result{make_ktensor(std::move(raw.output)), make_ktensor(std::move(raw.hidden)),
                           KTensor(std::move(raw.cell))};
    if (!record.active()) {
        return result;
    }
    const KTensor gates = KTensor(std::move(raw.gates));
    const KTensor cells = KTensor(std::move(raw.cells));
    const auto keep = [&](std::size_t i, const KTensor& t) {
        return t.defined() ? record.operand(i) : autograd::Keep{};
    };
    const autograd::Keep kept[] = {record.operand(0),
                                   keep(1, hidden),
                                   keep(2, cell),
                                   record.operand(3),
                                   record.operand(4),
                                   keep(5, parameters.input_bias),
                                   keep(6, parameters.hidden_bias),
                                   Recorder::output(result.output),
                                   Recorder::own(gates),
                                   Recorder::own(cells)};
    std::vector<KTensor*> outputs{&result.output, &result.hidden};
    if (is_lstm) {
        outputs.push_back(&result.cell);
    }
    record.finish(
        std::span<KTensor* const>(outputs), std::span<const autograd::Keep>(kept),
        [is_lstm, reverse, batch_sizes](Backward& pass) {
            const auto raw_saved = [&](std::size_t k) { return pass.saved_raw(k); };
            const nn::RecurrentWeights w{raw_saved(3), raw_saved(4), raw_saved(5), raw_saved(6)};
            const nn::RecurrentSaved saved{raw_saved(7), raw_saved(8), raw_saved(9)};
            const nn::RecurrentUpstream upstream{pass.grad(0).tensor(), pass.grad(1).tensor(),
                                                 is_lstm ? pass.grad(2).tensor() : nullptr};
            nn::RecurrentWanted wanted;
            for (std::size_t i = 0; i < wanted.size(); ++i) {
                wanted[i] = pass.wants(i);
            }
            nn::RecurrentGradients g =
                is_lstm ? nn::lstm_grad(upstream, raw_saved(0), raw_saved(1), raw_saved(2), w, saved, reverse,
                                        batch_sizes, wanted)
                        : nn::gru_grad(upstream, raw_saved(0), raw_saved(1), w, saved, reverse, batch_sizes, wanted);
            std::unique_ptr<Tensor>* parts[] = {&g.input,         &g.hidden,     &g.cell,       &g.input_weight,
                                                &g.hidden_weight, &g.input_bias, &g.hidden_bias};
            for (std::size_t i = 0; i < std::size(parts); ++i) {
                if (*parts[i]) {
                    pass.give(i, make_ktensor(std::move(*parts[i])));
                }
            }
        });
    return result;
}

}  // namespace

RecurrentResult lstm(const KTensor& x, const KTensor& hidden, const KTensor& cell,
                     const RecurrentParameters& parameters, bool reverse, const Dims& batch_sizes) {
    return recurrent(Op::lstm, x, hidden, cell, parameters, reverse, batch_sizes);
}

RecurrentResult gru(const KTensor& x, const KTensor& hidden, const RecurrentParameters& parameters, bool reverse,
                    const Dims& batch_sizes) {
    return recurrent(Op::gru, x, hidden, {}, parameters, reverse, batch_sizes);
}

// ---- Classes and sequences ----

KTensor one_hot(const KTensor& indices, std::int64_t classes, std::int64_t dtype) {
    autograd::check_defined("one_hot", indices, 0);
    if (indices.dtype() >= dtype::float32 || indices.dtype() == dtype::boolean) {
        fail(ErrorKind::dtype, where("ornik::one_hot"), "one_hot(): ", autograd::describe(indices),
             " does not hold integers.");
    }
    if (indices.size() != 0) {
        const KTensor ends[] = {min(indices), max(indices)};
        for (const KTensor& end : ends) {
            const auto index = end.item<std::int64_t>();
            if (index < 0 || index >= classes) {
                fail(ErrorKind::index, where("ornik::one_hot"), "one_hot(): ", index, " is none of ", classes,
                     " classes.");
            }
        }
    }
    return astype(equal(unsqueeze(indices, -1), KTensor::arange(classes)), dtype);
}

namespace {

// Sequences of elements that have none.
KTensor no_elements(const KTensor& x, const Dims& lead, std::size_t dropped) {
    Dims shape = lead;
    shape.insert(shape.end(), x.shape().begin() + static_cast<std::ptrdiff_t>(dropped), x.shape().end());
    return KTensor::empty(shape, x.dtype());
}

}  // namespace

KTensor pack_sequences(const KTensor& padded, const Packing& packing) {
    const Recorder record(Op::pack_sequences, {&padded});
    const auto batch = static_cast<std::int64_t>(packing.lengths().size());
    const bool is_empty =
        padded.ndim() > 2 && padded.size() == 0 && padded.size(0) == batch && padded.size(1) >= packing.steps();
    KTensor y = is_empty ? no_elements(padded, {packing.entries()}, 2)
                         : make_ktensor(ornik::pack_sequences(padded.tensor(), packing));
    if (record.active()) {
        record.finish(y, {}, [packing = std::make_shared<const Packing>(packing)](Backward& pass) {
            pass.give(0, unpack_sequences(pass.grad(), *packing, pass.operand_shape(0)[1]));
        });
    }
    return y;
}

KTensor unpack_sequences(const KTensor& packed, const Packing& packing, std::int64_t steps, double padding) {
    const Recorder record(Op::unpack_sequences, {&packed});
    const auto batch = static_cast<std::int64_t>(packing.lengths().size());
    const std::int64_t extent = steps == 0 ? packing.steps() : steps;
    const bool is_empty =
        packed.ndim() > 1 && packed.size() == 0 && packed.size(0) == packing.entries() && extent >= packing.steps();
    KTensor y = is_empty ? no_elements(packed, {batch, extent}, 1)
                         : make_ktensor(ornik::unpack_sequences(packed.tensor(), packing, steps, padding));
    if (record.active()) {
        record.finish(y, {}, [packing = std::make_shared<const Packing>(packing)](Backward& pass) {
            pass.give(0, pack_sequences(pass.grad(), *packing));
        });
    }
    return y;
}

}  // namespace ornik
