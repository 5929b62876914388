// LSTM and GRU layers against loops over single numbers; gradients against differences.
#include <cmath>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using Values = std::vector<double>;

struct Case {
    bool lstm, reverse, packed, biases, states;
    Dims lengths() const { return packed ? Dims{4, 2, 2, 1} : Dims{3, 3}; }
    Dims batch_sizes() const { return packed ? nn_sizes() : Dims{}; }
    Dims nn_sizes() const { return Packing(lengths()).batch_sizes(); }
};
constexpr std::int64_t in = 3, width = 5;

std::vector<Case> all_cases() {
    std::vector<Case> cases;
    for (int i = 0; i < 32; ++i) {
        cases.push_back({(i & 1) != 0, (i & 2) != 0, (i & 4) != 0, (i & 8) != 0, (i & 16) != 0});
    }
    return cases;
}

// Operands in the order of RecurrentGradients; null where the case has none.
struct Operands {
    TensorPtr all[7];
    Operands(const Case& c, Layout layout) {
        const auto n = static_cast<std::int64_t>(c.lengths().size());
        const std::int64_t rows = (c.lstm ? 4 : 3) * width;
        const Dims input = c.packed ? Dims{9, in} : Dims{3, n, in};
        const Dims shapes[] = {input, {n, width}, {n, width}, {rows, in}, {rows, width}, {rows}, {rows}};
        for (std::size_t i = 0; i < 7; ++i) {
            const bool present = i == 0 || (i < 3 ? c.states && (i == 1 || c.lstm) : i < 5 || c.biases);
            all[i] = present ? random_tensor(shapes[i], dtype::float64, static_cast<unsigned>(i) + 1, layout) : nullptr;
        }
    }
    Tensor* operator[](std::size_t i) const { return all[i].get(); }
    nn::RecurrentWeights weights() const { return {all[3].get(), all[4].get(), all[5].get(), all[6].get()}; }
};

nn::Recurrent run(const Case& c, const Operands& o) {
    return c.lstm ? nn::lstm(o[0], o[1], o[2], o.weights(), c.reverse, c.batch_sizes())
                  : nn::gru(o[0], o[1], o.weights(), c.reverse, c.batch_sizes());
}

nn::RecurrentGradients run_back(const Case& c, const Operands& o, const nn::Recurrent& y,
                                const nn::RecurrentUpstream& g, const nn::RecurrentWanted& wanted = nn::all_recurrent) {
    return c.lstm ? nn::lstm_grad(g, o[0], o[1], o[2], o.weights(), y.saved(), c.reverse, c.batch_sizes(), wanted)
                  : nn::gru_grad(g, o[0], o[1], o.weights(), y.saved(), c.reverse, c.batch_sizes(), wanted);
}

double sigmoid(double x) { return 1 / (1 + std::exp(-x)); }

TEST(Recurrent, ValuesAgainstLoops) {
    for (const Case& c : all_cases()) {
        for (const Layout layout : all_layouts) {
            SCOPED_TRACE(testing::Message()
                         << c.lstm << c.reverse << c.packed << c.biases << c.states << name_of(layout));
            const Operands o(c, layout);
            const nn::Recurrent y = run(c, o);
            Values v[7];
            for (std::size_t i = 0; i < 7; ++i) {
                v[i] = o[i] == nullptr ? Values(200, 0.0) : doubles_of(o[i]);
            }
            const Dims sizes = c.nn_sizes(), lengths = c.lengths();
            const auto row = [&](std::int64_t step, std::size_t sequence) {
                std::size_t first = 0;
                for (std::int64_t t = 0; t < step; ++t) {
                    first += static_cast<std::size_t>(sizes[static_cast<std::size_t>(t)]);
                }
                return first + sequence;
            };
            const Values output = doubles_of(y.output.get()), last = doubles_of(y.hidden.get());
            const Values last_cell = c.lstm ? doubles_of(y.cell.get()) : Values{};
            for (std::size_t s = 0; s < lengths.size(); ++s) {
                Values h(v[1].begin() + static_cast<std::ptrdiff_t>(s * width),
                         v[1].begin() + static_cast<std::ptrdiff_t>((s + 1) * width));
                Values cell(v[2].begin() + static_cast<std::ptrdiff_t>(s * width),
                            v[2].begin() + static_cast<std::ptrdiff_t>((s + 1) * width));
                for (std::int64_t k = 0; k < lengths[s]; ++k) {
                    const std::size_t e = row(c.reverse ? lengths[s] - 1 - k : k, s);
                    // Both parts of a gate's input, biases included.
                    const auto parts = [&](std::size_t gate, std::size_t unit) {
                        const std::size_t r = gate * width + unit;
                        double x = v[5][r], state = v[6][r];
                        for (std::size_t j = 0; j < in; ++j) {
                            x += v[3][r * in + j] * v[0][e * in + j];
                        }
                        for (std::size_t j = 0; j < width; ++j) {
                            state += v[4][r * width + j] * h[j];
                        }
                        return std::pair(x, state);
                    };
                    Values next(width);
                    for (std::size_t u = 0; u < width; ++u) {
                        const auto [x0, h0] = parts(0, u);
                        const auto [x1, h1] = parts(1, u);
                        const auto [x2, h2] = parts(2, u);
                        if (c.lstm) {
                            const auto [x3, h3] = parts(3, u);
                            cell[u] = sigmoid(x1 + h1) * cell[u] + sigmoid(x0 + h0) * std::tanh(x2 + h2);
                            next[u] = sigmoid(x3 + h3) * std::tanh(cell[u]);
                        } else {
                            const double z = sigmoid(x1 + h1);
                            next[u] = (1 - z) * std::tanh(x2 + sigmoid(x0 + h0) * h2) + z * h[u];
                        }
                        EXPECT_NEAR(output[e * width + u], next[u], 1e-14);
                    }
                    h = next;
                }
                for (std::size_t u = 0; u < width; ++u) {
                    EXPECT_NEAR(last[s * width + u], h[u], 1e-14);
                    if (c.lstm) {
                        EXPECT_NEAR(last_cell[s * width + u], cell[u], 1e-14);
                    }
                }
            }
        }
    }
}

TEST(Recurrent, Gradients) {
    int turn = 0;
    for (const Case& c : all_cases()) {
        SCOPED_TRACE(testing::Message() << c.lstm << c.reverse << c.packed << c.biases << c.states);
        const Layout layout = all_layouts[++turn % 5];
        Operands o(c, layout);
        const nn::Recurrent y = run(c, o);
        const TensorPtr dy = random_tensor(y.output->Shape(), dtype::float64, 11, layout);
        const TensorPtr dh = random_tensor(y.hidden->Shape(), dtype::float64, 12, layout);
        const TensorPtr dc = c.lstm ? random_tensor(y.hidden->Shape(), dtype::float64, 13, layout) : nullptr;
        const auto gradients = run_back(c, o, y, {dy.get(), dh.get(), dc.get()});
        const TensorPtr* by_operand[] = {&gradients.input,        &gradients.hidden,        &gradients.cell,
                                         &gradients.input_weight, &gradients.hidden_weight, &gradients.input_bias,
                                         &gradients.hidden_bias};
        // One number that all three results take part in.
        const auto total = [&](Tensor* /*changed*/) {
            const nn::Recurrent now = run(c, o);
            double sum = weighted_sum(now.output.get(), dy.get()) + weighted_sum(now.hidden.get(), dh.get());
            sum += c.lstm ? weighted_sum(now.cell.get(), dc.get()) : 0;
            return make<double>({}, {sum});
        };
        const TensorPtr one = make<double>({}, {1});
        for (std::size_t i = 0; i < 7; ++i) {
            if (o[i] != nullptr) {
                expect_gradient(total, o[i], one.get(), by_operand[i]->get());
            }
            nn::RecurrentWanted wanted{};
            wanted[i] = true;
            const auto some = run_back(c, o, y, {dy.get(), dh.get(), dc.get()}, wanted);
            const TensorPtr* alone[] = {&some.input,         &some.hidden,     &some.cell,       &some.input_weight,
                                        &some.hidden_weight, &some.input_bias, &some.hidden_bias};
            for (std::size_t k = 0; k < 7; ++k) {
                ASSERT_EQ(*alone[k] != nullptr, k == i && (c.lstm || k != 2));
            }
            if (*alone[i]) {
                EXPECT_EQ(bytes_of(*alone[i]), bytes_of(*by_operand[i]));
            }
        }
        // Absent gradients count as zeros.
        const TensorPtr zero_y(Tensor::zeros_like(dy.get())), zero(Tensor::zeros_like(dh.get()));
        EXPECT_EQ(bytes_of(run_back(c, o, y, {nullptr, dh.get(), nullptr}).input_weight),
                  bytes_of(run_back(c, o, y, {zero_y.get(), dh.get(), c.lstm ? zero.get() : nullptr}).input_weight));
    }
}

TEST(Recurrent, NothingToDoAndRefusals) {
    const Case c{true, false, false, true, true};
    const Operands o(c, Layout::contiguous);
    const TensorPtr none(new Tensor);
    none->initialize_none_tensor({0, 2, in}, dtype::float64, 0, layout::dense);
    const nn::Recurrent y = nn::lstm(none.get(), o[1], o[2], o.weights());
    EXPECT_EQ(y.output->Shape(), (Dims{0, 2, width}));
    EXPECT_EQ(bytes_of(y.hidden), bytes_of(o[1]));
    const TensorPtr dh = random_tensor({2, width}, dtype::float64, 1);
    const auto grads = nn::lstm_grad({nullptr, dh.get(), nullptr}, none.get(), o[1], o[2], o.weights(), y.saved());
    EXPECT_EQ(bytes_of(grads.hidden), bytes_of(dh));
    EXPECT_EQ(doubles_of(grads.hidden_bias.get()), Values(4 * width));

    const TensorPtr flat = make_empty({6, in}, dtype::float64);
    const auto refused = [&](const Dims& sizes) {
        return [&, sizes] { nn::lstm(flat.get(), o[1], o[2], o.weights(), false, sizes); };
    };
    const Refusal rows[] = {
        {"lstm", refused({2, 1, 3}), "The batch sizes of lstm should be positive and not rise: ( 2, 1, 3 ) "},
        {"lstm", refused({2, 2, 1}), "The batch sizes of lstm have 5 entries, its input 6"},
    };
    expect_refusals(rows, "ornik::nn::", "src/layers/functional/recurrent.cpp");
}

}  // namespace
}  // namespace ornik::test
