// checkpoints_test.cpp: states written elsewhere give the results and gradients that they gave there
// (make_checkpoints.py), module by module and step by step.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <set>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/files.h"
#include "ktensor/impl.h"
#include "ktensor/reductions.h"
#include "modules/layers.h"
#include "modules/optimizers.h"

namespace ornik {
namespace {

using Tensors = std::vector<KTensor>;
using Entries = std::map<std::string, KTensor>;

// The cases of a file: what stands behind "case/", by the case.
std::map<std::string, Entries> cases_of(const std::string& file) {
    std::map<std::string, Entries> cases;
    for (const auto& [name, tensor] : load(std::filesystem::path(ORNIK_TEST_FILES) / (file + ".safetensors"))) {
        const std::size_t slash = name.find('/');
        cases[name.substr(0, slash)].emplace(name.substr(slash + 1), tensor);
    }
    return cases;
}

// Those whose names begin so, without the beginning.
NamedTensors starting(const Entries& entries, const std::string& begin) {
    NamedTensors result;
    for (const auto& [name, tensor] : entries) {
        if (name.starts_with(begin)) {
            result.emplace_back(name.substr(begin.size()), tensor);
        }
    }
    return result;
}

void expect_close(const KTensor& actual, const KTensor& expected, const std::string& what, double tolerance = 1e-5) {
    ASSERT_TRUE(actual.defined()) << what;
    ASSERT_EQ(actual.shape(), expected.shape()) << what;
    const auto as_doubles = [](const KTensor& t) { return astype(t.detach(), dtype::float64).to_vector<double>(); };
    const std::vector<double> left = as_doubles(actual);
    const std::vector<double> right = as_doubles(expected);
    for (std::size_t i = 0; i < left.size(); ++i) {
        EXPECT_LE(std::abs(left[i] - right[i]), tolerance * (1 + std::abs(right[i]))) << what << ", element " << i;
    }
}

struct Row {
    std::string name;
    std::function<std::unique_ptr<Module>()> make;
    std::function<Tensors(Module&, const Tensors&)> call;
    bool training = true;
};

// A module made from arguments, called with its operands.
template <typename M>
Row row(
    std::string name, const std::function<M()>& make,
    const std::function<Tensors(M&, const Tensors&)>& call = [](M& m,
                                                                const Tensors& x) { return Tensors{m.forward(x[0])}; },
    bool training = true) {
    return {std::move(name), [make] { return std::make_unique<M>(make()); },
            [call](Module& m, const Tensors& x) { return call(dynamic_cast<M&>(m), x); }, training};
}

void check(const Row& row, const Entries& entries) {
    SCOPED_TRACE(row.name);
    const std::unique_ptr<Module> module = row.make();
    module->load_state(starting(entries, "state."));
    module->train(row.training);
    Tensors inputs;
    for (const auto& [number, tensor] : starting(entries, "in.")) {
        inputs.push_back(tensor.is_floating() ? tensor.detach().requires_grad() : tensor);
    }
    const Tensors outputs = row.call(*module, inputs);
    const NamedTensors expected = starting(entries, "out.");
    ASSERT_EQ(outputs.size(), expected.size());
    Tensors recorded;
    Tensors seeds;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        expect_close(outputs[i], expected[i].second, "result " + std::to_string(i));
        if (outputs[i].wants_grad()) {
            recorded.push_back(outputs[i]);
            seeds.push_back(entries.at("seed." + std::to_string(i)));
        }
    }
    backward(recorded, seeds);
    for (const auto& [number, gradient] : starting(entries, "grad.in.")) {
        expect_close(inputs[std::stoul(number)].grad(), gradient, "gradient of operand " + number);
    }
    const NamedTensors gradients = starting(entries, "grad.state.");
    EXPECT_EQ(gradients.size(), module->named_parameters().size());
    for (const auto& [name, parameter] : module->named_parameters()) {
        expect_close(parameter.grad(), entries.at("grad.state." + name), "gradient of " + name);
    }
    for (const auto& [name, buffer] : module->named_buffers()) {
        expect_close(buffer, entries.at("after." + name), name + " afterwards");
    }
}

void check_all(const std::string& file, const std::vector<Row>& rows) {
    const std::map<std::string, Entries> cases = cases_of(file);
    std::set<std::string> named;
    for (const Row& row : rows) {
        ASSERT_TRUE(cases.contains(row.name)) << row.name;
        check(row, cases.at(row.name));
        named.insert(row.name);
    }
    EXPECT_EQ(named.size(), cases.size());
}

TEST(Checkpoints, Layers) {
    check_all(
        "layers",
        {row<Linear>("linear", [] { return Linear(5, 3); }),
         row<Linear>("linear_plain", [] { return Linear(5, 3, false); }),
         row<Conv1d>("conv1d",
                     [] { return Conv1d(4, 6, 3, {.stride = {2}, .padding = {1}, .dilation = {2}, .groups = 2}); }),
         row<Conv2d>(
             "conv2d",
             [] {
                 return Conv2d(6, 9, {3, 2}, {.stride = {2, 1}, .padding = {1, 0}, .dilation = {1, 2}, .groups = 3});
             }),
         row<Conv2d>("conv2d_same",
                     [] {
                         return Conv2d(2, 3, {4, 3}, {.same = true});
                     }),
         row<ConvTranspose1d>("conv_transpose1d",
                              [] {
                                  return ConvTranspose1d(
                                      4, 6, 3, {.stride = {2}, .padding = {1}, .groups = 2, .output_padding = {1}});
                              }),
         row<ConvTranspose2d>("conv_transpose2d",
                              [] {
                                  return ConvTranspose2d(
                                      6, 3, {3, 2},
                                      {.stride = {2, 3}, .padding = {1, 0}, .groups = 3, .output_padding = {1, 2}});
                              }),
         row<BatchNorm2d>("batch_norm_train", [] { return BatchNorm2d(3); }),
         row<BatchNorm1d>(
             "batch_norm_eval", [] { return BatchNorm1d(3); },
             [](BatchNorm1d& m, const Tensors& x) { return Tensors{m(x[0])}; }, false),
         row<BatchNorm1d>(
             "batch_norm_mean", [] { return BatchNorm1d(3, {.momentum = std::nullopt}); },
             [](BatchNorm1d& m, const Tensors& x) {
                 const KTensor first = m(x[0]);
                 return Tensors{first, m(x[0] * 2.0 + 1.0)};
             }),
         row<LayerNorm>("layer_norm",
                        [] {
                            return LayerNorm({3, 5});
                        }),
         row<LayerNorm>("layer_norm_plain", [] { return LayerNorm({5}, 1e-5, true, false); }),
         row<GroupNorm>("group_norm", [] { return GroupNorm(3, 6); }),
         row<InstanceNorm2d>("instance_norm", [] { return InstanceNorm2d(3, 1e-5, true); }),
         row<RMSNorm>("rms_norm",
                      [] {
                          return RMSNorm({3, 5});
                      }),
         row<Embedding>("embedding", [] { return Embedding(7, 5, 2); }), row<PReLU>("prelu", [] { return PReLU(3); })});
}

template <typename Loss>
Row loss(std::string name, const std::function<Loss()>& make) {
    return row<Loss>(std::move(name), make, [](Loss& m, const Tensors& x) { return Tensors{m(x[0], x[1])}; });
}

TEST(Checkpoints, Functions) {
    const KTensor weight({0.5F, 2.0F, 1.5F, 1.0F, 0.7F});
    const nn::PoolParameters window{{3, 2}, {2, 1}, {1, 0}};
    check_all("functions",
              {row<ReLU>("relu", [] { return ReLU(); }),
               row<ReLU6>("relu6", [] { return ReLU6(); }),
               row<SiLU>("silu", [] { return SiLU(); }),
               row<SELU>("selu", [] { return SELU(); }),
               row<Mish>("mish", [] { return Mish(); }),
               row<Hardswish>("hardswish", [] { return Hardswish(); }),
               row<Hardsigmoid>("hardsigmoid", [] { return Hardsigmoid(); }),
               row<Sigmoid>("sigmoid", [] { return Sigmoid(); }),
               row<LogSigmoid>("log_sigmoid", [] { return LogSigmoid(); }),
               row<Tanh>("tanh", [] { return Tanh(); }),
               row<GELU>("gelu", [] { return GELU(); }),
               row<GELU>("gelu_tanh", [] { return GELU(true); }),
               row<Softplus>("softplus", [] { return Softplus(); }),
               row<Softplus>("softplus_beta", [] { return Softplus(0.7); }),
               row<LeakyReLU>("leaky_relu", [] { return LeakyReLU(0.2F); }),
               row<ELU>("elu", [] { return ELU(0.7F); }),
               row<Hardtanh>("hardtanh", [] { return Hardtanh(-0.5, 1.5); }),
               row<Softmax>("softmax", [] { return Softmax(0); }),
               row<LogSoftmax>("log_softmax", [] { return LogSoftmax(); }),
               row<MaxPool2d>("max_pool2d", [=] { return MaxPool2d(window); }),
               row<AvgPool2d>("avg_pool2d", [=] { return AvgPool2d(window); }),
               row<AdaptiveAvgPool2d>("adaptive_avg_pool2d",
                                      [] {
                                          return AdaptiveAvgPool2d({3, 4});
                                      }),
               row<AdaptiveMaxPool2d>("adaptive_max_pool2d",
                                      [] {
                                          return AdaptiveMaxPool2d({3, 4});
                                      }),
               row<Upsample>("upsample_nearest", [] { return Upsample(1.5); }),
               row<Upsample>("upsample_bilinear",
                             [] {
                                 return Upsample({5, 9}, "bilinear");
                             }),
               row<Upsample>("upsample_corners",
                             [] {
                                 return Upsample({5, 9}, "bilinear", true);
                             }),
               row<MaxPool1d>("max_pool1d", [] { return MaxPool1d(3, 2, 1); }),
               row<AvgPool1d>("avg_pool1d", [] { return AvgPool1d(3); }),
               row<AdaptiveAvgPool1d>("adaptive_avg_pool1d", [] { return AdaptiveAvgPool1d(3); }),
               row<PixelShuffle>("pixel_shuffle", [] { return PixelShuffle(2); }),
               row<PixelUnshuffle>("pixel_unshuffle", [] { return PixelUnshuffle(2); }),
               row<Flatten>("flatten", [] { return Flatten(0, 1); }),
               row<Unflatten>("unflatten",
                              [] {
                                  return Unflatten(1, {2, -1});
                              }),
               loss<CrossEntropyLoss>("cross_entropy", [] { return CrossEntropyLoss(); }),
               loss<CrossEntropyLoss>(
                   "cross_entropy_smooth",
                   [=] { return CrossEntropyLoss({.weight = weight, .ignore_index = 0, .label_smoothing = 0.2}); }),
               loss<NLLLoss>("nll", [] { return NLLLoss({.reduction = Reduction::sum}); }),
               loss<MSELoss>("mse", [] { return MSELoss(); }),
               loss<L1Loss>("l1", [] { return L1Loss(Reduction::none); }),
               loss<SmoothL1Loss>("smooth_l1", [] { return SmoothL1Loss(0.7); }),
               loss<HuberLoss>("huber", [] { return HuberLoss(0.7); }),
               loss<BCEWithLogitsLoss>("bce_logits", [=] { return BCEWithLogitsLoss({}, weight); }),
               loss<KLDivLoss>("kl_div", [] { return KLDivLoss(true, Reduction::sum); }),
               loss<BCELoss>("bce", [] { return BCELoss(); })});
}

// With weights of each head: query, key, value, and masks, as many as there are.
Tensors cross(MultiheadAttention& m, const Tensors& x) {
    MultiheadArguments arguments{.want_weights = true, .average_weights = false};
    arguments.mask = x.size() > 3 ? x[3] : KTensor();
    arguments.key_padding_mask = x.size() > 4 ? x[4] : KTensor();
    const MultiheadResult result = m.forward(x[0], x[1], x[2], arguments);
    return {result.output, result.weights};
}

Tensors causal(MultiheadAttention& m, const Tensors& x) {
    return {m.forward(x[0], x[0], x[0], {.causal = true}).output};
}

Tensors causal_with_weights(MultiheadAttention& m, const Tensors& x) {
    const MultiheadResult result = m.forward(x[0], x[0], x[0], {.causal = true, .want_weights = true});
    return {result.output, result.weights};
}

TEST(Checkpoints, Attention) {
    using M = MultiheadAttention;
    check_all("attention",
              {row<M>("self", [] { return M(12, 3); }), row<M>("single", [] { return M(12, 3); }),
               row<M>(
                   "cross", [] { return M(12, 3, {.batch_first = true}); }, cross),
               row<M>(
                   "widths", [] { return M(12, 4, {.bias = false, .key_width = 5, .value_width = 7}); }, cross),
               row<M>(
                   "mask_per_head", [] { return M(12, 2, {.batch_first = true}); },
                   [](M& m, const Tensors& x) {
                       Tensors operands = x;
                       operands[3] = reshape(x[3], {4, 4, 6});
                       return cross(m, operands);
                   }),
               row<M>(
                   "extra", [] { return M(12, 3, {.extra_key = true, .zero_key = true}); }, cross),
               row<M>(
                   "causal", [] { return M(12, 3, {.batch_first = true}); }, causal),
               row<M>(
                   "causal_extra", [] { return M(12, 3, {.zero_key = true}); }, causal_with_weights)});
}

TEST(Checkpoints, Transformers) {
    const TransformerOptions plain{.feed_forward = 10, .dropout = 0};
    const auto changed = [&](const std::function<void(TransformerOptions&)>& change) {
        TransformerOptions options = plain;
        change(options);
        return options;
    };
    const TransformerOptions first = changed([](auto& o) {
        o.norm_first = o.batch_first = true;
        o.activation = gelu;
        o.eps = 1e-3;
    });
    const TransformerOptions stack = changed([](auto& o) { o.norm_first = o.final_norm = true; });
    const TransformerOptions batches = changed([](auto& o) { o.batch_first = o.final_norm = true; });
    using Layer = TransformerEncoderLayer;
    using DecoderLayer = TransformerDecoderLayer;
    check_all("transformers",
              {row<Layer>("norm_last", [=] { return Layer(6, 3, plain); }),
               row<Layer>(
                   "norm_first", [=] { return Layer(6, 3, first); },
                   [](Layer& m, const Tensors& x) { return Tensors{m.forward(x[0], {.key_padding_mask = x[1]})}; }),
               row<Layer>(
                   "causal", [=] { return Layer(6, 3, changed([](auto& o) { o.bias = false; })); },
                   [](Layer& m, const Tensors& x) { return Tensors{m.forward(x[0], {.causal = true})}; }),
               row<TransformerEncoder>(
                   "encoder", [=] { return TransformerEncoder(2, 6, 3, stack); },
                   [](TransformerEncoder& m, const Tensors& x) { return Tensors{m.forward(x[0], {.causal = true})}; }),
               row<TransformerDecoder>(
                   "decoder", [=] { return TransformerDecoder(2, 6, 3, batches); },
                   [](TransformerDecoder& m, const Tensors& x) {
                       return Tensors{m.forward(x[0], x[1], {.self = {.causal = true}})};
                   }),
               row<DecoderLayer>(
                   "decoder_first", [=] { return DecoderLayer(6, 3, changed([](auto& o) { o.norm_first = true; })); },
                   [](DecoderLayer& m, const Tensors& x) { return Tensors{m.forward(x[0], x[1])}; })});
}

Tensors lstm_call(LSTM& m, const Tensors& x) {
    const auto r = x.size() > 1 ? m.with_states(x[0], x[1], x[2]) : m.with_states(x[0]);
    return {r.output, r.hidden, r.cell};
}

Tensors gru_call(GRU& m, const Tensors& x) {
    const auto r = x.size() > 1 ? m.with_states(x[0], x[1]) : m.with_states(x[0]);
    return {r.output, r.hidden};
}

// Operands are the padded batch, lengths, and states, as many as there are.
template <bool batch_first>
Tensors packed_lstm(LSTM& m, const Tensors& x) {
    const PackedSequence packed = pack_padded(x[0], x[1].to_vector<std::int64_t>(), batch_first);
    const auto r = x.size() > 2 ? m.with_states(packed, x[2], x[3]) : m.with_states(packed);
    return {pad_packed(r.output, batch_first), r.hidden, r.cell};
}

template <bool batch_first>
Tensors packed_gru(GRU& m, const Tensors& x) {
    const PackedSequence packed = pack_padded(x[0], x[1].to_vector<std::int64_t>(), batch_first);
    const auto r = x.size() > 2 ? m.with_states(packed, x[2]) : m.with_states(packed);
    return {pad_packed(r.output, batch_first), r.hidden};
}

TEST(Checkpoints, RecurrentLayers) {
    const RecurrentOptions deep{.layers = 2, .batch_first = true, .bidirectional = true};
    const RecurrentOptions time_first{.layers = 2, .bidirectional = true};
    const RecurrentOptions plain{.layers = 2, .bias = false, .batch_first = true, .bidirectional = true};
    check_all("recurrent", {row<LSTM>(
                                "lstm", [] { return LSTM(3, 4); }, lstm_call),
                            row<LSTM>(
                                "lstm_deep", [=] { return LSTM(3, 5, deep); }, lstm_call),
                            row<LSTM>(
                                "lstm_packed", [=] { return LSTM(3, 5, time_first); }, packed_lstm<false>),
                            row<LSTM>(
                                "lstm_packed_states", [=] { return LSTM(3, 5, plain); }, packed_lstm<true>),
                            row<LSTM>(
                                "lstm_single", [] { return LSTM(3, 5); }, lstm_call),
                            row<GRU>(
                                "gru", [] { return GRU(3, 4); }, gru_call),
                            row<GRU>(
                                "gru_deep", [=] { return GRU(3, 5, deep); }, gru_call),
                            row<GRU>(
                                "gru_packed", [=] { return GRU(3, 5, time_first); }, packed_gru<false>),
                            row<GRU>(
                                "gru_packed_states", [=] { return GRU(3, 5, plain); }, packed_gru<true>),
                            row<LSTMCell>(
                                "lstm_cell", [] { return LSTMCell(3, 5); },
                                [](LSTMCell& m, const Tensors& x) {
                                    const LSTMCell::State state = m.step(x[0], {x[1], x[2]});
                                    return Tensors{state.hidden, state.cell};
                                }),
                            row<GRUCell>(
                                "gru_cell", [] { return GRUCell(3, 5, false); },
                                [](GRUCell& m, const Tensors& x) { return Tensors{m.step(x[0], x[1])}; })});
}

// ---- Optimizers: six steps with given gradients, interrupted by saving and loading before the fifth ----

template <typename Method, typename Options>
void check_steps(const std::map<std::string, Entries>& cases, const std::string& name, const Options& options) {
    SCOPED_TRACE(name);
    const Entries& entries = cases.at(name);
    Tensors parameters{entries.at("before.0").detach(), entries.at("before.1").detach()};
    Options second = options;
    second.lr *= 2;
    const auto make = [&] {
        using Groups = std::vector<ParameterGroup<Options>>;
        return std::make_unique<Method>(Groups{{{parameters[0]}, options}, {{parameters[1]}, second}});
    };
    for (KTensor& parameter : parameters) {
        parameter.requires_grad();
    }
    std::unique_ptr<Optimizer> method = make();
    for (int step = 0; step < 6; ++step) {
        if (step == 3) {
            method->set_learning_rate(1, method->learning_rate(1) * 0.1);
        }
        if (step == 4) {
            const NamedTensors state = method->state();
            method = make();
            method->load_state(state);
        }
        const std::string number = std::to_string(step) + ".";
        parameters[0].set_grad(step == 2 ? KTensor() : entries.at("grad." + number + "0"));
        parameters[1].set_grad(entries.at("grad." + number + "1"));
        method->step();
        for (std::size_t i = 0; i < 2; ++i) {
            const std::string place = number + std::to_string(i);
            expect_close(parameters[i], entries.at("after." + place), "parameter after " + place, 2e-6);
        }
    }
}

TEST(Checkpoints, Optimizers) {
    const std::map<std::string, Entries> cases = cases_of("optimizers");
    EXPECT_EQ(cases.size(), 11U);
    check_steps<SGD>(cases, "sgd", SgdOptions{.lr = 0.1, .weight_decay = 0.01});
    check_steps<SGD>(cases, "sgd_momentum", SgdOptions{.lr = 0.1, .momentum = 0.9, .dampening = 0.3});
    check_steps<SGD>(cases, "sgd_nesterov",
                     SgdOptions{.lr = 0.1, .momentum = 0.9, .weight_decay = 0.01, .nesterov = true});
    check_steps<Adam>(cases, "adam", AdamOptions{.lr = 0.05, .beta1 = 0.8, .beta2 = 0.95, .weight_decay = 0.1});
    check_steps<Adam>(cases, "adam_amsgrad", AdamOptions{.lr = 0.05, .amsgrad = true});
    check_steps<AdamW>(cases, "adamw", AdamOptions{.lr = 0.05, .weight_decay = 0.2});
    check_steps<Adamax>(cases, "adamax", AdamaxOptions{.lr = 0.05, .weight_decay = 0.1});
    check_steps<Adagrad>(cases, "adagrad", AdagradOptions{.lr = 0.2, .lr_decay = 0.1, .weight_decay = 0.1});
    check_steps<Adadelta>(cases, "adadelta", AdadeltaOptions{.lr = 1, .rho = 0.8, .weight_decay = 0.1});
    check_steps<RMSprop>(cases, "rmsprop", RmspropOptions{.lr = 0.02, .alpha = 0.9, .weight_decay = 0.1});
    check_steps<RMSprop>(cases, "rmsprop_centered", RmspropOptions{.lr = 0.02, .momentum = 0.5, .centered = true});
}

}  // namespace
}  // namespace ornik
