// Attention: values against plain loops, gradients against differences.
#include "tensor/nn/attention.h"

#include <cmath>
#include <limits>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"
#include "tensor/nn/interpolate.h"

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
    const Values values = doubles_of(t);
    ASSERT_EQ(values.size(), expected.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_NEAR(values[i], expected[i], bound) << "entry " << i;
    }
}

struct Mask {
    std::string name;
    TensorPtr tensor;
    Values bias;  // What it adds to scores [2, 2, 3, 5].
};

std::vector<Mask> masks() {
    const auto triangle = [](std::int64_t k) {
        return TensorPtr(TensorPtr(Tensor::ones({3, 5}, 0, dtype::boolean))->tril(k));
    };
    std::vector<Mask> all;
    all.push_back({"none", nullptr, {}});
    all.push_back({"causal", triangle(0), {}});
    all.push_back({"first position sees nothing", triangle(-1), {}});
    all.push_back({"added", random_tensor({2, 1, 1, 5}, dtype::float64, 9, Layout::every_other), {}});
    const Values added = values_of<double>(all[3].tensor);
    for (int i = 0; i < 60; ++i) {
        const int row = i / 5 % 3;
        const int col = i % 5;
        const double hidden = -std::numeric_limits<double>::infinity();
        all[0].bias.push_back(0);
        all[1].bias.push_back(col <= row ? 0 : hidden);
        all[2].bias.push_back(col < row ? 0 : hidden);
        all[3].bias.push_back(added[static_cast<std::size_t>(i / 30 * 5 + col)]);
    }
    return all;
}

// Compares gradients[i] of run(inputs) for inputs[i] with differences.
template <typename Run>
void expect_gradients(const Run& run, const std::vector<TensorPtr>& inputs, const Tensor* weight,
                      const std::vector<const Tensor*>& gradients) {
    std::vector<Tensor*> all;
    for (const TensorPtr& t : inputs) {
        all.push_back(t.get());
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        SCOPED_TRACE("input " + std::to_string(i));
        const auto function = [&](Tensor* t) {
            std::vector<Tensor*> changed = all;
            changed[i] = t;
            return run(changed);
        };
        expect_gradient(function, all[i], weight, gradients[i]);
    }
}

// The masks are tried through multi-head attention, below.
TEST(Attention, DotProductAgainstLoops) {
    const TensorPtr g = random_tensor({2, 2, 3, 6}, dtype::float64, 4, Layout::transposed);
    for (const std::int64_t type : {dtype::float32, dtype::float64}) {
        std::vector<TensorPtr> in;
        std::vector<Values> wide;
        for (const Dims& shape : {Dims{2, 2, 3, 4}, Dims{2, 2, 5, 4}, Dims{2, 2, 5, 6}}) {
            in.push_back(random_tensor(shape, type, static_cast<unsigned>(in.size()), all_layouts[in.size() + 1]));
            wide.push_back(doubles_of(in.back().get()));
        }
        const Values no_bias(15, 0.0);
        Values expected(72);
        for (std::size_t b = 0; b < 4; ++b) {
            attend(&wide[0][b * 12], &wide[1][b * 20], &wide[2][b * 30], no_bias.data(), &expected[b * 18], 3, 5, 4, 6,
                   4, 6);
        }
        Tensor* kept = nullptr;
        const auto run = [&](const auto& t, Tensor** probabilities) {
            return TensorPtr(scaled_dot_product_attention(&*t[0], &*t[1], &*t[2], nullptr, probabilities));
        };
        const TensorPtr out = run(in, &kept);
        const TensorPtr probabilities(kept);
        EXPECT_EQ(out->Shape(), g->Shape());
        expect_values(out.get(), expected, type == dtype::float64 ? 1e-14 : 1e-6);
        if (type == dtype::float64) {
            const AttentionGradients r =
                scaled_dot_product_attention_grad(in[0].get(), in[1].get(), in[2].get(), kept, g.get());
            expect_gradients([&](const std::vector<Tensor*>& t) { return run(t, nullptr); }, in, g.get(),
                             {r.query.get(), r.key.get(), r.value.get()});
        }
    }
}

// x [rows, in] times w [in, out] plus b.
Values dense(const Values& x, const TensorPtr& w, const TensorPtr& b) {
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
    // Two heads of d = 3 and e = 2 over inputs of different widths: three inputs; weights and biases of query and
    // key; weight of value, which has no bias; weight and bias of output.
    std::vector<TensorPtr> in;
    for (const Dims& shape : {Dims{2, 3, 4}, Dims{2, 5, 7}, Dims{2, 5, 3}, Dims{4, 6}, Dims{6}, Dims{7, 6}, Dims{1, 6},
                              Dims{3, 4}, Dims{4, 5}, Dims{5}}) {
        in.push_back(random_tensor(shape, dtype::float64, static_cast<unsigned>(in.size()), Layout::transposed));
    }
    const auto parameters = [](const auto& t) {
        return MultiHeadParameters{{&*t[3], &*t[4]}, {&*t[5], &*t[6]}, {&*t[7], nullptr}, {&*t[8], &*t[9]}};
    };
    const TensorPtr g = random_tensor({2, 3, 5}, dtype::float64, 20, Layout::transposed);
    const TensorPtr none;
    for (const Mask& mask : masks()) {
        SCOPED_TRACE(mask.name);
        const auto run = [&](const auto& t, MultiHeadState* state) {
            return TensorPtr(multi_head_attention(parameters(t), 2, &*t[0], &*t[1], &*t[2], mask.tensor.get(), state));
        };
        const Values q = dense(values_of<double>(in[0]), in[3], in[4]);
        const Values k = dense(values_of<double>(in[1]), in[5], in[6]);
        const Values v = dense(values_of<double>(in[2]), in[7], none);
        Values merged(24);
        for (std::size_t b = 0; b < 2; ++b) {
            for (std::size_t h = 0; h < 2; ++h) {
                attend(&q[b * 18 + h * 3], &k[b * 30 + h * 3], &v[b * 20 + h * 2], &mask.bias[(b * 2 + h) * 15],
                       &merged[b * 12 + h * 2], 3, 5, 3, 2, 6, 4);
            }
        }
        MultiHeadState state;
        expect_values(run(in, &state).get(), dense(merged, in[8], in[9]), 1e-14);
        const MultiHeadGradients r =
            multi_head_attention_grad(parameters(in), in[0].get(), in[1].get(), in[2].get(), state, g.get());
        EXPECT_EQ(r.value.bias, nullptr);
        expect_gradients(
            [&](const std::vector<Tensor*>& t) { return run(t, nullptr); }, in, g.get(),
            {r.inputs.query.get(), r.inputs.key.get(), r.inputs.value.get(), r.query.weight.get(), r.query.bias.get(),
             r.key.weight.get(), r.key.bias.get(), r.value.weight.get(), r.output.weight.get(), r.output.bias.get()});
    }
}

// Losses, attention and interpolation at every team size.
TEST(Team, SameBitsAtEverySize) {
    const TensorPtr x = random_tensor({4, 6, 70, 20}, dtype::float32, 1);
    const TensorPtr p(TensorPtr(x->mult_tensor(x.get()))->reshape({336, 100}));
    const TensorPtr classes(Tensor::ones({336}, 0, dtype::int64));
    expect_same_bits([&] {
        std::vector<TensorPtr> results;
        for (const std::string name : {"mse", "bce", "sce", "nll_loss"}) {
            const std::unique_ptr<Loss> loss(getLoss(name));
            Tensor* target = name == "nll_loss" ? classes.get() : p.get();
            results.emplace_back(loss->loss_forward(p.get(), target));
            results.emplace_back(loss->loss_backward(p.get(), target));
        }
        Tensor* kept = nullptr;
        const TensorPtr y(scaled_dot_product_attention(x.get(), x.get(), x.get(), nullptr, &kept));
        results.emplace_back(y->clone());
        results.emplace_back(kept);
        AttentionGradients g = scaled_dot_product_attention_grad(x.get(), x.get(), x.get(), kept, y.get());
        results.push_back(std::move(g.query));
        results.push_back(std::move(g.key));
        results.emplace_back(interpolate(x.get(), {90, 17}, "bilinear"));
        results.emplace_back(interpolate_grad(results.back().get(), x->Shape(), "bilinear"));
        return results;
    });
}

// The options that the plain function does not have.
TEST(AttentionFunctions, CausalScaledAndMaskedGradients) {
    const TensorPtr triangle(TensorPtr(Tensor::ones({3, 5}, 0, dtype::boolean))->tril(0));
    int turn = 0;
    for (const bool causal : {false, true}) {
        for (const Dims& shape : {Dims{2, 2, 3, 5}, Dims{2, 1, 5}, Dims{5}, Dims{3, 1}}) {
            const Layout layout = all_layouts[++turn % 5];
            SCOPED_TRACE(testing::Message() << causal << " " << turn);
            const TensorPtr q = random_tensor({2, 2, 3, 4}, dtype::float64, 1, layout);
            const TensorPtr k = random_tensor({2, 2, 5, 4}, dtype::float64, 2, layout);
            const TensorPtr v = random_tensor({2, 2, 5, 3}, dtype::float64, 3, layout);
            const TensorPtr m = random_tensor(shape, dtype::float64, 4, layout);
            const nn::AttentionOptions options{.mask = m.get(), .causal = causal, .scale = 0.7};
            const auto attend_to = [&](Tensor* a, Tensor* b, Tensor* c) {
                return std::move(nn::attention(a, b, c, options).output);
            };
            const nn::Attended y = nn::attention(q.get(), k.get(), v.get(), options);
            // The same by the plain function: its scale is 1 / 2 here, and a mask of -infinities stands for causal.
            const TensorPtr scaled(q->mult_scalar(1.4));
            const TensorPtr low(Tensor::full({3, 5}, -std::numeric_limits<double>::infinity(), 0, dtype::float64));
            const TensorPtr wide(Tensor::broadcast_to(m.get(), {2, 2, 3, 5}));
            const TensorPtr seen(Tensor::broadcast_to(triangle.get(), {2, 2, 3, 5}));
            const TensorPtr all_low(Tensor::broadcast_to(low.get(), {2, 2, 3, 5}));
            const TensorPtr mask(causal ? where(seen.get(), wide.get(), all_low.get()) : wide->clone());
            const TensorPtr same(scaled_dot_product_attention(scaled.get(), k.get(), v.get(), mask.get()));
            expect_values(y.output.get(), doubles_of(same.get()), 1e-14);
            const TensorPtr g = random_tensor({2, 2, 3, 3}, dtype::float64, 5, layout);
            const auto grads = nn::attention_grad(g.get(), q.get(), k.get(), v.get(), y.probabilities.get(), nullptr,
                                                  options, {true, true, true, true});
            expect_gradient([&](Tensor* t) { return attend_to(t, k.get(), v.get()); }, q.get(), g.get(),
                            grads.query.get());
            expect_gradient([&](Tensor* t) { return attend_to(q.get(), t, v.get()); }, k.get(), g.get(),
                            grads.key.get());
            expect_gradient([&](Tensor* t) { return attend_to(q.get(), k.get(), t); }, v.get(), g.get(),
                            grads.value.get());
            expect_gradient([&](Tensor* /*m*/) { return attend_to(q.get(), k.get(), v.get()); }, m.get(), g.get(),
                            grads.mask.get());
            const auto some = nn::attention_grad(g.get(), q.get(), k.get(), v.get(), y.probabilities.get(), nullptr,
                                                 options, {false, false, true, false});
            EXPECT_TRUE(some.query == nullptr && some.key == nullptr && some.mask == nullptr);
            EXPECT_EQ(bytes_of(some.value), bytes_of(grads.value));
        }
    }
}

// Without probabilities the same comes out, over any number of tiles of queries and keys and all layouts.
TEST(AttentionFunctions, WithoutProbabilities) {
    struct Case {
        std::int64_t n, m;
        bool causal;
        int mask;  // none, added to every query alike, bool that hides keys and the whole of some rows
    };
    int turn = 0;
    for (const Case& c : {Case{3, 5, false, 0},
                          {130, 300, false, 1},
                          {300, 260, true, 0},
                          {140, 530, true, 2},
                          {7, 270, false, 2},
                          {4, 0, false, 0}}) {
        SCOPED_TRACE(testing::Message() << c.n << " " << c.m << " " << c.causal << " " << c.mask);
        const Layout layout = all_layouts[++turn % 5];
        for (const std::int64_t type : {dtype::float64, dtype::float32}) {
            const auto made = [&](std::int64_t rows, std::int64_t cols, unsigned seed) {
                return rows == 0 ? make_empty({2, 2, rows, cols}, type)
                                 : random_tensor({2, 2, rows, cols}, type, seed, layout);
            };
            const TensorPtr q = made(c.n, 9, 1), k = made(c.m, 9, 2), v = made(c.m, 6, 3), g = made(c.n, 6, 4);
            const TensorPtr ones(Tensor::ones({c.n, std::max<std::int64_t>(1, c.m)}, 0, dtype::boolean));
            const TensorPtr mask(c.mask == 0   ? nullptr
                                 : c.mask == 1 ? random_tensor({2, 1, c.m}, type, 5).release()
                                               : ones->tril(-2));
            const nn::AttentionOptions options{.mask = mask.get(), .causal = c.causal, .scale = c.n == 7 ? -0.5 : 0};
            const nn::Attended whole = nn::attention(q.get(), k.get(), v.get(), options);
            const nn::AttendedRows rows = nn::attention_rows(q.get(), k.get(), v.get(), options);
            const double bound = type == dtype::float64 ? 1e-13 : 2e-5;
            expect_values(rows.output.get(), doubles_of(whole.output.get()), bound);
            const nn::AttentionGradients expected =
                nn::attention_grad(g.get(), q.get(), k.get(), v.get(), whole.probabilities.get(), nullptr, options);
            const auto gradients = [&](const std::array<bool, 3>& wanted) {
                return nn::attention_rows_grad(g.get(), q.get(), k.get(), v.get(),
                                               {rows.output.get(), rows.log_sums.get()}, options, wanted);
            };
            const nn::AttentionGradients got = gradients({true, true, true});
            expect_values(got.query.get(), doubles_of(expected.query.get()), bound);
            expect_values(got.key.get(), doubles_of(expected.key.get()), bound);
            expect_values(got.value.get(), doubles_of(expected.value.get()), bound);
            EXPECT_TRUE(gradients({false, true, false}).query == nullptr);
            EXPECT_EQ(bytes_of(gradients({true, false, false}).query), bytes_of(got.query));
            EXPECT_EQ(bytes_of(gradients({false, false, true}).value), bytes_of(got.value));
            expect_same_bits([&] { return nn::attention_rows(q.get(), k.get(), v.get(), options).output.release(); });
            expect_same_bits([&] { return gradients({false, true, false}).key.release(); });
        }
    }
    const TensorPtr q = random_tensor({2, 3}, dtype::float32, 1);
    EXPECT_REFUSAL(nn::attention_rows(q.get(), q.get(), q.get(), {.dropout = 0.5}),
                   "Attention without probabilities has no dropout.");
    EXPECT_REFUSAL(nn::attention_rows_grad(q.get(), q.get(), q.get(), q.get(), {q.get(), q.get()}),
                   "Attention needs its output of shape ( 2, 3 )  and logarithms of sums of shape ( 2 ) , their shapes "
                   "are ( 2, 3 )  and ( 2, 3 ) ");
    // An output laid out as permuted heads are.
    const TensorPtr heads(random_tensor({2, 5, 3, 4}, dtype::float32, 1)->permute({0, 2, 1, 3}));
    EXPECT_EQ(nn::attention_rows(heads.get(), heads.get(), heads.get()).output->Strides(), heads->Strides());
}

TEST(AttentionFunctions, DropoutAndNoElements) {
    const TensorPtr q = random_tensor({2, 3, 4}, dtype::float64, 1), k = random_tensor({2, 5, 4}, dtype::float64, 2);
    const TensorPtr v = random_tensor({2, 5, 3}, dtype::float64, 3), g = random_tensor({2, 3, 3}, dtype::float64, 4);
    const nn::AttentionOptions options{.dropout = 0.4};
    const auto run = [&](Tensor* a, Tensor* b, Tensor* c) {
        set_random_seed(5);
        return nn::attention(a, b, c, options);
    };
    const nn::Attended y = run(q.get(), k.get(), v.get());
    set_random_seed(5);
    const TensorPtr mask(Tensor::dropout_mask({2, 3, 5}, 0.4, 0, dtype::float64));
    const TensorPtr dropped(y.probabilities->mult_tensor(mask.get())),
        expected(Tensor::zeros({2, 3, 3}, 0, dtype::float64));
    Tensor::bmm(dropped.get(), 0, v.get(), 0, expected.get());
    EXPECT_EQ(bytes_of(y.output), bytes_of(expected));
    const auto grads =
        nn::attention_grad(g.get(), q.get(), k.get(), v.get(), y.probabilities.get(), y.kept.get(), options);
    expect_gradient([&](Tensor* t) { return std::move(run(t, k.get(), v.get()).output); }, q.get(), g.get(),
                    grads.query.get());
    expect_gradient([&](Tensor* t) { return std::move(run(q.get(), t, v.get()).output); }, k.get(), g.get(),
                    grads.key.get());
    expect_gradient([&](Tensor* t) { return std::move(run(q.get(), k.get(), t).output); }, v.get(), g.get(),
                    grads.value.get());

    const TensorPtr no_keys = make_empty({2, 0, 4}, dtype::float64), no_values = make_empty({2, 0, 3}, dtype::float64),
                    no_batch = make_empty({0, 3, 4}, dtype::float64);
    EXPECT_EQ(doubles_of(nn::attention(q.get(), no_keys.get(), no_values.get()).output.get()), Values(18));
    const nn::Attended none = nn::attention(no_batch.get(), no_batch.get(), no_batch.get());
    EXPECT_EQ(none.output->Shape(), no_batch->Shape());
    EXPECT_EQ(nn::attention_grad(no_batch.get(), no_batch.get(), no_batch.get(), no_batch.get(),
                                 none.probabilities.get(), nullptr)
                  .key->Shape(),
              no_batch->Shape());
}

}  // namespace
}  // namespace ornik::test
