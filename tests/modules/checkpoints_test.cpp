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

/// What a module is called with, and what it gives: one operand and one result, unless a case says otherwise.
struct OfOne {
    Tensors operator()(Module& m, const Tensors& x) const { return {m.forward(x[0])}; }
};
struct OfTwo {
    Tensors operator()(auto& m, const Tensors& x) const { return {m(x[0], x[1])}; }
};

/// The cases of a file, each of which a test is to check.
class Checkpoint {
  public:
    explicit Checkpoint(const std::string& file) : cases_(cases_of(file)) {}
    ~Checkpoint() { EXPECT_EQ(checked_.size(), cases_.size()); }

    template <typename M, typename Call = OfOne>
    void check(const std::string& name, M module, const Call& call = {}, bool training = true) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(cases_.contains(name));
        checked_.insert(name);
        const Entries& entries = cases_.at(name);
        module.load_state(starting(entries, "state."));
        module.train(training);
        Tensors inputs;
        for (const auto& [number, tensor] : starting(entries, "in.")) {
            inputs.push_back(tensor.is_floating() ? tensor.detach().requires_grad() : tensor);
        }
        const Tensors outputs = call(module, inputs);
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
        EXPECT_EQ(starting(entries, "grad.state.").size(), module.named_parameters().size());
        for (const auto& [parameter_name, parameter] : module.named_parameters()) {
            expect_close(parameter.grad(), entries.at("grad.state." + parameter_name), "gradient of " + parameter_name);
        }
        for (const auto& [buffer_name, buffer] : module.named_buffers()) {
            expect_close(buffer, entries.at("after." + buffer_name), buffer_name + " afterwards");
        }
    }

  private:
    std::map<std::string, Entries> cases_;
    std::set<std::string> checked_;
};

TEST(Checkpoints, Layers) {
    Checkpoint file("layers");
    file.check("linear", Linear(5, 3));
    file.check("linear_plain", Linear(5, 3, false));
    file.check("conv1d", Conv1d(4, 6, 3, {.stride = {2}, .padding = {1}, .dilation = {2}, .groups = 2}));
    const ConvOptions strided{.stride = {2, 1}, .padding = {1, 0}, .dilation = {1, 2}, .groups = 3};
    file.check("conv2d", Conv2d(6, 9, {3, 2}, strided));
    file.check("conv2d_same", Conv2d(2, 3, {4, 3}, {.same = true}));
    const ConvOptions upwards1d{.stride = {2}, .padding = {1}, .groups = 2, .output_padding = {1}};
    file.check("conv_transpose1d", ConvTranspose1d(4, 6, 3, upwards1d));
    const ConvOptions upwards2d{.stride = {2, 3}, .padding = {1, 0}, .groups = 3, .output_padding = {1, 2}};
    file.check("conv_transpose2d", ConvTranspose2d(6, 3, {3, 2}, upwards2d));
    file.check("batch_norm_train", BatchNorm2d(3));
    file.check("batch_norm_eval", BatchNorm1d(3), OfOne(), false);
    const auto twice = [](BatchNorm1d& m, const Tensors& x) {
        const KTensor first = m(x[0]);
        return Tensors{first, m(x[0] * 2.0 + 1.0)};
    };
    file.check("batch_norm_mean", BatchNorm1d(3, {.momentum = std::nullopt}), twice);
    file.check("layer_norm", LayerNorm({3, 5}));
    file.check("layer_norm_plain", LayerNorm({5}, 1e-5, true, false));
    file.check("group_norm", GroupNorm(3, 6));
    file.check("instance_norm", InstanceNorm2d(3, 1e-5, true));
    file.check("rms_norm", RMSNorm({3, 5}));
    file.check("embedding", Embedding(7, 5, 2));
    file.check("prelu", PReLU(3));
}

TEST(Checkpoints, Functions) {
    const KTensor weight({0.5F, 2.0F, 1.5F, 1.0F, 0.7F});
    const nn::PoolParameters window{{3, 2}, {2, 1}, {1, 0}};
    Checkpoint file("functions");
    file.check("relu", ReLU());
    file.check("relu6", ReLU6());
    file.check("silu", SiLU());
    file.check("selu", SELU());
    file.check("mish", Mish());
    file.check("hardswish", Hardswish());
    file.check("hardsigmoid", Hardsigmoid());
    file.check("sigmoid", Sigmoid());
    file.check("log_sigmoid", LogSigmoid());
    file.check("tanh", Tanh());
    file.check("gelu", GELU());
    file.check("gelu_tanh", GELU(true));
    file.check("softplus", Softplus());
    file.check("softplus_beta", Softplus(0.7));
    file.check("leaky_relu", LeakyReLU(0.2F));
    file.check("elu", ELU(0.7F));
    file.check("hardtanh", Hardtanh(-0.5, 1.5));
    file.check("softmax", Softmax(0));
    file.check("log_softmax", LogSoftmax());
    file.check("max_pool2d", MaxPool2d(window));
    file.check("avg_pool2d", AvgPool2d(window));
    file.check("adaptive_avg_pool2d", AdaptiveAvgPool2d({3, 4}));
    file.check("adaptive_max_pool2d", AdaptiveMaxPool2d({3, 4}));
    file.check("upsample_nearest", Upsample(1.5));
    file.check("upsample_bilinear", Upsample({5, 9}, "bilinear"));
    file.check("upsample_corners", Upsample({5, 9}, "bilinear", true));
    file.check("max_pool1d", MaxPool1d(3, 2, 1));
    file.check("avg_pool1d", AvgPool1d(3));
    file.check("adaptive_avg_pool1d", AdaptiveAvgPool1d(3));
    file.check("pixel_shuffle", PixelShuffle(2));
    file.check("pixel_unshuffle", PixelUnshuffle(2));
    file.check("flatten", Flatten(0, 1));
    file.check("unflatten", Unflatten(1, {2, -1}));
    const ClassLossArguments smooth{.weight = weight, .ignore_index = 0, .label_smoothing = 0.2};
    file.check("cross_entropy", CrossEntropyLoss(), OfTwo());
    file.check("cross_entropy_smooth", CrossEntropyLoss(smooth), OfTwo());
    file.check("nll", NLLLoss({.reduction = Reduction::sum}), OfTwo());
    file.check("mse", MSELoss(), OfTwo());
    file.check("l1", L1Loss(Reduction::none), OfTwo());
    file.check("smooth_l1", SmoothL1Loss(0.7), OfTwo());
    file.check("huber", HuberLoss(0.7), OfTwo());
    file.check("bce_logits", BCEWithLogitsLoss({}, weight), OfTwo());
    file.check("kl_div", KLDivLoss(true, Reduction::sum), OfTwo());
    file.check("bce", BCELoss(), OfTwo());
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
    Checkpoint file("attention");
    const auto by_head = [](M& m, Tensors x) {
        x[3] = reshape(x[3], {4, 4, 6});
        return cross(m, x);
    };
    file.check("self", M(12, 3));
    file.check("single", M(12, 3));
    file.check("cross", M(12, 3, {.batch_first = true}), cross);
    file.check("widths", M(12, 4, {.bias = false, .key_width = 5, .value_width = 7}), cross);
    file.check("mask_per_head", M(12, 2, {.batch_first = true}), by_head);
    file.check("extra", M(12, 3, {.extra_key = true, .zero_key = true}), cross);
    file.check("causal", M(12, 3, {.batch_first = true}), causal);
    file.check("causal_extra", M(12, 3, {.zero_key = true}), causal_with_weights);
}

TEST(Checkpoints, Transformers) {
    const auto changed = [](const std::function<void(TransformerOptions&)>& change) {
        TransformerOptions options{.feed_forward = 10, .dropout = 0};
        change(options);
        return options;
    };
    const TransformerOptions plain = changed([](auto&) {});
    const TransformerOptions first = changed([](auto& o) {
        o.norm_first = o.batch_first = true;
        o.activation = gelu;
        o.eps = 1e-3;
    });
    const TransformerOptions no_bias = changed([](auto& o) { o.bias = false; });
    const TransformerOptions stack = changed([](auto& o) { o.norm_first = o.final_norm = true; });
    const TransformerOptions batches = changed([](auto& o) { o.batch_first = o.final_norm = true; });
    const TransformerOptions norm_first = changed([](auto& o) { o.norm_first = true; });
    const auto padded = [](auto& m, const Tensors& x) { return Tensors{m.forward(x[0], {.key_padding_mask = x[1]})}; };
    const auto masked = [](auto& m, const Tensors& x) { return Tensors{m.forward(x[0], {.causal = true})}; };
    const auto decoded = [](auto& m, const Tensors& x) {
        return Tensors{m.forward(x[0], x[1], {.self = {.causal = true}})};
    };
    const auto of_both = [](auto& m, const Tensors& x) { return Tensors{m.forward(x[0], x[1])}; };
    Checkpoint file("transformers");
    file.check("norm_last", TransformerEncoderLayer(6, 3, plain));
    file.check("norm_first", TransformerEncoderLayer(6, 3, first), padded);
    file.check("causal", TransformerEncoderLayer(6, 3, no_bias), masked);
    file.check("encoder", TransformerEncoder(2, 6, 3, stack), masked);
    file.check("decoder", TransformerDecoder(2, 6, 3, batches), decoded);
    file.check("decoder_first", TransformerDecoderLayer(6, 3, norm_first), of_both);
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
    const auto lstm_step = [](LSTMCell& m, const Tensors& x) {
        const LSTMCell::State state = m.step(x[0], {x[1], x[2]});
        return Tensors{state.hidden, state.cell};
    };
    const auto gru_step = [](GRUCell& m, const Tensors& x) { return Tensors{m.step(x[0], x[1])}; };
    Checkpoint file("recurrent");
    file.check("lstm", LSTM(3, 4), lstm_call);
    file.check("lstm_deep", LSTM(3, 5, deep), lstm_call);
    file.check("lstm_packed", LSTM(3, 5, time_first), packed_lstm<false>);
    file.check("lstm_packed_states", LSTM(3, 5, plain), packed_lstm<true>);
    file.check("lstm_single", LSTM(3, 5), lstm_call);
    file.check("gru", GRU(3, 4), gru_call);
    file.check("gru_deep", GRU(3, 5, deep), gru_call);
    file.check("gru_packed", GRU(3, 5, time_first), packed_gru<false>);
    file.check("gru_packed_states", GRU(3, 5, plain), packed_gru<true>);
    file.check("lstm_cell", LSTMCell(3, 5), lstm_step);
    file.check("gru_cell", GRUCell(3, 5, false), gru_step);
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
