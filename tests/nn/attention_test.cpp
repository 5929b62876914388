// Attention: values against plain loops, gradients against differences.
#include "tensor/nn/attention.h"

#include <cmath>
#include <cstring>
#include <limits>

#include "hardware/thread_config.h"
#include "support/expect_error.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using Values = std::vector<double>;

// softmax(q k^T / sqrt(d) + bias) v of one head; q [n, d], k [m, d], v [m, e] have rows `pitch` entries apart.
void attend(const double* q, const double* k, const double* v, const double* bias, double* out, std::size_t n,
            std::size_t m, std::size_t d, std::size_t e, std::size_t pitch_d, std::size_t pitch_e) {
    for (std::size_t i = 0; i < n; ++i) {
        Values p(m);
        double sum = 0;
        for (std::size_t j = 0; j < m; ++j) {
            double score = 0;
            for (std::size_t c = 0; c < d; ++c) {
                score += q[i * pitch_d + c] * k[j * pitch_d + c];
            }
            p[j] = std::exp(score / std::sqrt(static_cast<double>(d)) + bias[i * m + j]);
            sum += p[j];
        }
        for (std::size_t c = 0; c < e; ++c) {
            out[i * pitch_e + c] = 0;
            for (std::size_t j = 0; j < m && sum > 0; ++j) {
                out[i * pitch_e + c] += p[j] / sum * v[j * pitch_e + c];
            }
        }
    }
}

void expect_values(const Tensor* t, const Values& expected, double bound) {
    const TensorPtr wide(t->astype(dtype::float64));
    const Values values = values_of<double>(wide);
    ASSERT_EQ(values.size(), expected.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_NEAR(values[i], expected[i], bound) << "entry " << i;
    }
}

constexpr double hidden = -std::numeric_limits<double>::infinity();

struct Mask {
    const char* name;
    TensorPtr tensor;
    Values bias;  // What it adds, for scores [2, 2, 3, 5].
};

std::vector<Mask> masks() {
    std::vector<Mask> all;
    all.push_back({"none", nullptr, Values(60, 0.0)});
    // Position i sees the keys up to i; one row for all heads. Row 0 of the second sees nothing.
    TensorPtr causal(TensorPtr(Tensor::ones({3, 5}, 0, dtype::boolean))->tril(0));
    Values causal_bias;
    for (int i = 0; i < 60; ++i) {
        causal_bias.push_back(i % 5 <= i / 5 % 3 ? 0 : hidden);
    }
    all.push_back({"causal", std::move(causal), causal_bias});
    TensorPtr blind(TensorPtr(Tensor::ones({3, 5}, 0, dtype::boolean))->tril(-1));
    Values blind_bias;
    for (int i = 0; i < 60; ++i) {
        blind_bias.push_back(i % 5 < i / 5 % 3 ? 0 : hidden);
    }
    all.push_back({"blind", std::move(blind), blind_bias});
    TensorPtr added = random_tensor({2, 1, 1, 5}, dtype::float64, 9, Layout::every_other);
    Values added_bias;
    for (int i = 0; i < 60; ++i) {
        added_bias.push_back(values_of<double>(added)[static_cast<std::size_t>(i / 30 * 5 + i % 5)]);
    }
    all.push_back({"added", std::move(added), added_bias});
    return all;
}

TEST(Attention, DotProductAgainstLoops) {
    const TensorPtr q = random_tensor({2, 2, 3, 4}, dtype::float64, 1, Layout::transposed);
    const TensorPtr k = random_tensor({2, 2, 5, 4}, dtype::float64, 2, Layout::reversed);
    const TensorPtr v = random_tensor({2, 2, 5, 6}, dtype::float64, 3, Layout::every_other);
    const TensorPtr g = random_tensor({2, 2, 3, 6}, dtype::float64, 4, Layout::transposed);
    for (const Mask& mask : masks()) {
        SCOPED_TRACE(mask.name);
        Values expected(72);
        for (std::size_t b = 0; b < 4; ++b) {
            attend(values_of<double>(q).data() + b * 12, values_of<double>(k).data() + b * 20,
                   values_of<double>(v).data() + b * 30, mask.bias.data() + b * 15, expected.data() + b * 18, 3, 5, 4,
                   6, 4, 6);
        }
        Tensor* m = mask.tensor.get();
        Tensor* kept = nullptr;
        const TensorPtr out(scaled_dot_product_attention(q.get(), k.get(), v.get(), m, &kept));
        const TensorPtr probabilities(kept);
        EXPECT_EQ(out->Shape(), (Dims{2, 2, 3, 6}));
        expect_values(out.get(), expected, 1e-14);
        const bool single = m == nullptr || m->isBool();
        const TensorPtr q32(q->astype(dtype::float32));
        const TensorPtr k32(k->astype(dtype::float32));
        const TensorPtr v32(v->astype(dtype::float32));
        const TensorPtr m32(single ? nullptr : m->astype(dtype::float32));
        expect_values(
            TensorPtr(scaled_dot_product_attention(q32.get(), k32.get(), v32.get(), single ? m : m32.get())).get(),
            expected, 1e-6);
        const AttentionGradients gradients =
            scaled_dot_product_attention_grad(q.get(), k.get(), v.get(), probabilities.get(), g.get());
        const auto forward = [&](Tensor* a, Tensor* b, Tensor* c) {
            return TensorPtr(scaled_dot_product_attention(a, b, c, m));
        };
        expect_gradient([&](Tensor* t) { return forward(t, k.get(), v.get()); }, q.get(), g.get(),
                        gradients.query.get());
        expect_gradient([&](Tensor* t) { return forward(q.get(), t, v.get()); }, k.get(), g.get(), gradients.key.get());
        expect_gradient([&](Tensor* t) { return forward(q.get(), k.get(), t); }, v.get(), g.get(),
                        gradients.value.get());
    }
}

// x [rows, in] times w [in, out] plus b.
Values dense(const Values& x, const Tensor* w, const Tensor* b) {
    const auto in = static_cast<std::size_t>(w->Shape()[0]);
    const auto out = static_cast<std::size_t>(w->Shape()[1]);
    Values y(x.size() / in * out);
    for (std::size_t i = 0; i < y.size(); ++i) {
        y[i] = b == nullptr ? 0 : values_of<double>(b)[i % out];
        for (std::size_t c = 0; c < in; ++c) {
            y[i] += x[i / out * in + c] * values_of<double>(w)[c * out + i % out];
        }
    }
    return y;
}

TEST(Attention, MultiHeadAgainstLoops) {
    // Two heads of d = 3 and e = 2 over inputs of different widths.
    const auto tensor = [](const Dims& shape, unsigned seed) {
        return random_tensor(shape, dtype::float64, seed, Layout::transposed);
    };
    std::vector<TensorPtr> own;
    for (const Dims& shape : {Dims{2, 3, 4}, Dims{2, 5, 7}, Dims{2, 5, 3}, Dims{4, 6}, Dims{6}, Dims{7, 6}, Dims{1, 6},
                              Dims{3, 4}, Dims{4, 5}, Dims{5}}) {
        own.push_back(tensor(shape, static_cast<unsigned>(own.size())));
    }
    // Positions: three inputs; weights and biases of query and key; weight of value, which has no bias; of output.
    const auto run = [&](const std::vector<Tensor*>& t, Tensor* mask, MultiHeadState* state) {
        return TensorPtr(multi_head_attention({{t[3], t[4]}, {t[5], t[6]}, {t[7], nullptr}, {t[8], t[9]}}, 2, t[0],
                                              t[1], t[2], mask, state));
    };
    std::vector<Tensor*> all;
    for (const TensorPtr& t : own) {
        all.push_back(t.get());
    }
    const TensorPtr g = tensor({2, 3, 5}, 20);
    for (const Mask& mask : masks()) {
        SCOPED_TRACE(mask.name);
        const Values q = dense(values_of<double>(own[0]), all[3], all[4]);
        const Values k = dense(values_of<double>(own[1]), all[5], all[6]);
        const Values v = dense(values_of<double>(own[2]), all[7], nullptr);
        Values merged(24);
        for (std::size_t b = 0; b < 2; ++b) {
            for (std::size_t h = 0; h < 2; ++h) {
                attend(q.data() + b * 18 + h * 3, k.data() + b * 30 + h * 3, v.data() + b * 20 + h * 2,
                       mask.bias.data() + (b * 2 + h) * 15, merged.data() + b * 12 + h * 2, 3, 5, 3, 2, 6, 4);
            }
        }
        MultiHeadState state;
        expect_values(run(all, mask.tensor.get(), &state).get(), dense(merged, all[8], all[9]), 1e-14);
        const MultiHeadGradients r =
            multi_head_attention_grad({{all[3], all[4]}, {all[5], all[6]}, {all[7], nullptr}, {all[8], all[9]}}, all[0],
                                      all[1], all[2], state, g.get());
        EXPECT_EQ(r.value.bias, nullptr);
        const Tensor* gradients[] = {
            r.inputs.query.get(), r.inputs.key.get(), r.inputs.value.get(), r.query.weight.get(),  r.query.bias.get(),
            r.key.weight.get(),   r.key.bias.get(),   r.value.weight.get(), r.output.weight.get(), r.output.bias.get()};
        for (std::size_t i = 0; i < all.size(); ++i) {
            SCOPED_TRACE(i);
            const auto function = [&](Tensor* t) {
                std::vector<Tensor*> changed = all;
                changed[i] = t;
                return run(changed, mask.tensor.get(), nullptr);
            };
            expect_gradient(function, all[i], g.get(), gradients[i]);
        }
    }
}

TEST(Attention, SameBitsAtEveryTeamSize) {
    const TensorPtr x = random_tensor({4, 6, 70, 20}, dtype::float32, 1);
    std::vector<float> first;
    for (const int team : {1, 2, 4, 7}) {
        ConfigSetNumThreads(team);
        Tensor* kept = nullptr;
        const TensorPtr y(scaled_dot_product_attention(x.get(), x.get(), x.get(), nullptr, &kept));
        const TensorPtr probabilities(kept);
        const AttentionGradients g =
            scaled_dot_product_attention_grad(x.get(), x.get(), x.get(), probabilities.get(), y.get());
        std::vector<float> all = values_of<float>(y);
        for (const Tensor* t : {g.query.get(), g.key.get(), g.value.get()}) {
            const std::vector<float> values = values_of<float>(t);
            all.insert(all.end(), values.begin(), values.end());
        }
        first = first.empty() ? all : first;
        EXPECT_EQ(std::memcmp(all.data(), first.data(), all.size() * sizeof(float)), 0) << team;
    }
    ConfigSetNumThreads(4);
}

TEST(Attention, Refusals) {
    const auto ones = [](const Dims& shape, std::int64_t type = dtype::float32) {
        return TensorPtr(Tensor::ones(shape, 0, type));
    };
    const TensorPtr x = ones({1, 3, 4});
    const auto dot = [&](const TensorPtr& key, const TensorPtr& mask, const std::string& message) {
        expect_error([&] { scaled_dot_product_attention(x.get(), key.get(), x.get(), mask.get()); }, message,
                     "ornik::scaled_dot_product_attention", "src/tensor/nn/attention.cpp");
    };
    dot(nullptr, nullptr, "Attention needs all of its tensors but mask and biases.");
    dot(ones({1, 3, 4}, dtype::float64), nullptr, "Not same data type for inputs of attention.");
    dot(ones({1, 2, 4}), nullptr,
        "Attention needs a query [..., n, d], a key [..., m, d] and a value [..., m, e]: query ( 1, 3, 4 ) , key "
        "( 1, 2, 4 ) , value ( 1, 3, 4 ) ");
    dot(x, ones({3, 3}, dtype::int64), "The mask of attention should be bool or of the inputs' data type.");
    dot(x, ones({2, 3, 3}), "A mask of shape ( 2, 3, 3 ) does not broadcast to scores of shape ( 1, 3, 3 ) ");
    expect_error([&] { scaled_dot_product_attention_grad(x.get(), x.get(), x.get(), x.get(), x.get()); },
                 "Attention needs probabilities of shape ( 1, 3, 3 ) , their shape is ( 1, 3, 4 ) ",
                 "ornik::scaled_dot_product_attention_grad", "src/tensor/nn/attention.cpp");
    const TensorPtr w = ones({4, 4});
    const auto heads = [&](const TensorPtr& key_weight, int count, const std::string& message) {
        expect_error(
            [&] {
                multi_head_attention(
                    {{w.get(), nullptr}, {key_weight.get(), nullptr}, {w.get(), nullptr}, {w.get(), nullptr}}, count,
                    x.get(), x.get(), x.get());
            },
            message, "ornik::multi_head_attention", "src/tensor/nn/multi_head_attention.cpp");
    };
    heads(ones({4, 6}), 2, "Queries and keys should be equally wide, they are 4 and 6");
    heads(ones({3, 4}), 2, "Multi-head attention needs a key weight [4, out], however it is ( 3, 4 ) ");
    heads(w, 3, "Widths of 4 and 4 can not be cut into 3 heads.");
    expect_error(
        [&] {
            MultiHeadState state;
            const MultiHeadParameters parameters{
                {w.get(), nullptr}, {w.get(), nullptr}, {w.get(), nullptr}, {w.get(), nullptr}};
            const TensorPtr longer = ones({1, 5, 4});
            delete multi_head_attention(parameters, 2, longer.get(), x.get(), x.get(), nullptr, &state);
            multi_head_attention_grad(parameters, x.get(), x.get(), x.get(), state, x.get());
        },
        "The state of multi-head attention is not of these inputs.", "ornik::multi_head_attention_grad",
        "src/tensor/nn/multi_head_attention.cpp");
}

}  // namespace
}  // namespace ornik::test
