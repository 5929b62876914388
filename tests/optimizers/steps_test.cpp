// Optimizer steps against scalar loops over 100 steps, and what every step refuses.
#include "optimizers/steps.h"

#include <array>
#include <cmath>
#include <cstring>
#include <random>

#include "../src/optimizers/adam_step_with_grad.h"
#include "hardware/thread_config.h"
#include "optimizers/optimizers.h"
#include "support/expect_error.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

constexpr float lr = 0.01F, b1 = 0.9F, b2 = 0.99F, eps = 1e-6F, decay = 0.1F;
using States = Tensor* const*;

template <typename T>
T corrected(float beta, int t) {
    return static_cast<T>(1 / (1 - std::pow(static_cast<double>(beta), t)));
}

template <typename T>
void adam(T& p, T g, int t, T* s, bool decays, bool amsgrad) {
    s[0] = T(b1) * s[0] + T(1.0F - b1) * g;
    s[1] = T(b2) * s[1] + T(1.0F - b2) * (g * g);
    s[2] = amsgrad ? std::max(s[2], s[1]) : s[2];
    p = decays ? p + T(-(lr * decay)) * p : p;
    p = T(-lr) * (corrected<T>(b1, t) * s[0] / (std::sqrt(corrected<T>(b2, t) * s[amsgrad ? 2 : 1]) + T(eps))) + p;
}

template <typename T>
void sgd(T& p, T g, T* s, bool nesterov) {
    s[0] = T(b1) * s[0] + T(-lr) * g;
    p = nesterov ? p + (T(b1) * s[0] + T(-lr) * g) : p + s[0];
}

template <typename T>
void rmsprop(T& p, T g, T* s, float beta, bool centered, bool buffered) {
    s[0] = T(beta) * s[0] + T(1.0F - beta) * (g * g);
    T square = s[0];
    if (centered) {
        s[1] = T(beta) * s[1] + T(1.0F - beta) * g;
        square = std::max(square - s[1] * s[1], T(0));
    }
    T d = g / (std::sqrt(square) + T(eps));
    if (buffered) {
        d = s[centered ? 2 : 1] = T(b1) * s[centered ? 2 : 1] + d;
    }
    p = T(-lr) * d + p;
}

template <typename T>
void adamax(T& p, T g, int t, T* s) {
    s[0] = T(b1) * s[0] + T(1.0F - b1) * g;
    s[1] = std::max(T(b2) * s[1], std::abs(g) + T(eps));
    p = T(-lr) * (corrected<T>(b1, t) * s[0] / s[1]) + p;
}

template <typename T>
void adagrad(T& p, T g, T* s) {
    s[0] = s[0] + g * g;
    p = T(-lr) * (g / (std::sqrt(s[0]) + T(eps))) + p;
}

template <typename T>
void adadelta(T& p, T g, T* s) {
    s[0] = T(b1) * s[0] + T(1.0F - b1) * (g * g);
    const T d = std::sqrt(s[1] + T(eps)) / std::sqrt(s[0] + T(eps)) * g;
    s[1] = T(b1) * s[1] + T(1.0F - b1) * (d * d);
    p = -d + p;
}

struct Step {
    const char* name;
    std::size_t states;
    std::function<void(Tensor* p, Tensor* g, int t, States s)> run;
};

// Calls visit(step, reference) for every step; the reference updates one element in the arithmetic of its type.
template <typename Visit>
void for_each_step(const Visit& visit) {
    using P = Tensor*;
    for (const bool on : {false, true}) {
        visit(Step{"sgd_step", 1, [=](P p, P g, int, States s) { sgd_step(p, g, lr, s[0], b1, on); }},
              [=]<typename T>(T& p, T g, int, T* s) { sgd(p, g, s, on); });
        const auto run = [=](P p, P g, int t, States s) { adam_step(p, g, lr, b1, b2, eps, t, s[0], s[1], s[2], on); };
        visit(Step{"adam_step", 3, run}, [=]<typename T>(T& p, T g, int t, T* s) { adam(p, g, t, s, false, on); });
    }
    visit(Step{"rmsprop_step", 1, [](P p, P g, int, States s) { rmsprop_step(p, g, lr, b1, eps, s[0]); }},
          []<typename T>(T& p, T g, int, T* s) { rmsprop(p, g, s, b1, false, false); });
    const auto adamw = [](P p, P g, int t, States s) {
        adamw_step(p, g, lr, b1, b2, eps, decay, t, s[0], s[1], s[2], true);
    };
    visit(Step{"adamw_step", 3, adamw}, []<typename T>(T& p, T g, int t, T* s) { adam(p, g, t, s, true, true); });
    const auto run_adamax = [](P p, P g, int t, States s) { adam_max_step(p, g, lr, b1, b2, eps, t, s[0], s[1]); };
    visit(Step{"adam_max_step", 2, run_adamax}, []<typename T>(T& p, T g, int t, T* s) { adamax(p, g, t, s); });
    visit(Step{"adam_grad_step", 1, [](P p, P g, int, States s) { adam_grad_step(p, g, lr, eps, s[0]); }},
          []<typename T>(T& p, T g, int, T* s) { adagrad(p, g, s); });
    visit(Step{"adam_delta_step", 2, [](P p, P g, int, States s) { adam_delta_step(p, g, 1.0F, b1, eps, s[0], s[1]); }},
          []<typename T>(T& p, T g, int, T* s) { adadelta(p, g, s); });
    // With weight decay.
    for (const bool nesterov : {false, true}) {
        const auto run = [=](P p, P g, int t, States s) {
            nn::sgd_step(p, g, s[0], {lr, b1, nesterov ? 0 : 0.25F, decay, nesterov, t == 1});
        };
        visit(Step{"nn::sgd_step", 1, run}, [nesterov]<typename T>(T& p, T g, int t, T* s) {
            g = g + T(decay) * p;
            s[0] = t == 1 ? g : T(b1) * s[0] + T(nesterov ? 1 : 0.75F) * g;
            p = T(-lr) * (nesterov ? g + T(b1) * s[0] : s[0]) + p;
        });
    }
    for (const int form : {0, 1, 2, 3}) {
        const bool centered = form > 1, buffered = form % 2 == 1;
        const auto run = [=](P p, P g, int, States s) {
            nn::rmsprop_step(p, g, s[0], centered ? s[1] : nullptr, buffered ? s[centered ? 2 : 1] : nullptr,
                             {lr, b2, eps, buffered ? b1 : 0, decay});
        };
        visit(Step{"nn::rmsprop_step", std::size_t{1} + (form > 0 ? 1 : 0) + (form == 3 ? 1 : 0), run},
              [=]<typename T>(T& p, T g, int, T* s) { rmsprop(p, g + T(decay) * p, s, b2, centered, buffered); });
    }
    const auto parameters = [](int t) { return nn::AdamParameters{lr, b1, b2, eps, decay, t}; };
    const nn::AdagradParameters of_adagrad{lr, eps, decay};
    const nn::AdadeltaParameters of_adadelta{1.0F, b1, eps, decay};
    const auto run_adam = [=](P p, P g, int t, States s) { nn::adam_step(p, g, s[0], s[1], s[2], parameters(t)); };
    visit(Step{"nn::adam_step", 3, run_adam},
          []<typename T>(T& p, T g, int t, T* s) { adam(p, g + T(decay) * p, t, s, false, true); });
    visit(Step{"nn::adamax_step", 2,
               [=](P p, P g, int t, States s) { nn::adamax_step(p, g, s[0], s[1], parameters(t)); }},
          []<typename T>(T& p, T g, int t, T* s) { adamax(p, g + T(decay) * p, t, s); });
    visit(Step{"nn::adagrad_step", 1, [=](P p, P g, int, States s) { nn::adagrad_step(p, g, s[0], of_adagrad); }},
          []<typename T>(T& p, T g, int, T* s) { adagrad(p, g + T(decay) * p, s); });
    visit(Step{"nn::adadelta_step", 2,
               [=](P p, P g, int, States s) { nn::adadelta_step(p, g, s[0], s[1], of_adadelta); }},
          []<typename T>(T& p, T g, int, T* s) { adadelta(p, g + T(decay) * p, s); });
}

// The parts of all elements, real numbers of type T.
template <typename T>
std::vector<T> parts_of(const Tensor* t) {
    const TensorPtr dense(t->clone());
    const T* data = static_cast<const T*>(dense->getRawData());
    return {data, data + dense->Size() * (t->isComplexType() ? 2 : 1)};
}

template <typename T>
void write_parts(Tensor* out, const std::vector<T>& parts) {
    const TensorPtr dense(Tensor::empty(out->Shape(), 0, out->Dtype()));
    std::memcpy(dense->getRawData(), parts.data(), parts.size() * sizeof(T));
    copy_tensor(dense.get(), out);
}

// `count` steps on tensors of `rows` x 3 elements with parts of type T.
template <typename T>
void compare(std::int64_t dtype, Layout layout, std::int64_t rows, int count, const Step& step, const auto& reference) {
    const std::string label = std::string(step.name) + " " + dtype_name(dtype) + " " + name_of(layout);
    std::mt19937 random(17);
    std::vector<TensorPtr> t;  // parameter, gradient, states
    for (int i = 0; i < 5; ++i) {
        t.push_back(make_empty({rows, 3}, dtype, i == 1 ? Layout::transposed : layout));
        t.back()->fill_(0);
    }
    Tensor* const state[] = {t[2].get(), t[3].get(), t[4].get()};
    const void* const addresses[] = {t[0]->getRawData(), t[2]->getRawData()};
    std::vector<T> p(parts_of<T>(t[0].get())), g(p.size());
    for (T& value : p) {
        value = static_cast<T>(random() * 0x1p-31 - 1.0);
    }
    write_parts(t[0].get(), p);
    std::vector<double> exact(p.begin(), p.end());
    std::vector<std::array<T, 3>> s(p.size());
    std::vector<std::array<double, 3>> exact_s(p.size());
    for (int now = 1; now <= count; ++now) {
        for (std::size_t i = 0; i < p.size(); ++i) {
            g[i] = static_cast<T>((random() * 0x1p-31 - 1.0) * (i % 11 == 0 ? 0 : (i % 2 == 0 ? 3 : 1e-3)));
            reference(p[i], g[i], now, s[i].data());
            reference(exact[i], static_cast<double>(g[i]), now, exact_s[i].data());
        }
        write_parts(t[1].get(), g);
        const std::uint32_t versions[] = {t[0]->getStorage()->version(), t[2]->getStorage()->version()};
        step.run(t[0].get(), t[1].get(), now, state);
        ASSERT_EQ(t[0]->getStorage()->version() - versions[0], 1U) << label;
        ASSERT_EQ(t[2]->getStorage()->version() - versions[1], 1U) << label;
    }
    EXPECT_TRUE(addresses[0] == t[0]->getRawData() && addresses[1] == t[2]->getRawData()) << label;
    EXPECT_EQ(parts_of<T>(t[1].get()), g) << label;
    // In single precision a bias correction is rounded from a double, so that bits can be compared.
    constexpr bool same_bits = sizeof(T) == 4;
    const std::vector<T> got = parts_of<T>(t[0].get());
    for (std::size_t i = 0; i < p.size(); ++i) {
        ASSERT_NEAR(got[i], p[i], same_bits ? 0 : 1e-14) << label << " at " << i;
        ASSERT_NEAR(got[i], exact[i], same_bits ? 2e-5 : 1e-14) << label << " at " << i;
    }
    // Decay brings that rounding into the states, too.
    const double slack = same_bits || !label.starts_with("nn::adam") ? 0 : 1e-14;
    for (std::size_t k = 0; k < step.states; ++k) {
        const std::vector<T> kept = parts_of<T>(state[k]);
        for (std::size_t i = 0; i < p.size(); ++i) {
            ASSERT_NEAR(kept[i], s[i][k], slack) << label << " state " << k << " at " << i;
        }
    }
}

TEST(Steps, FollowScalarLoops) {
    for_each_step([](const Step& step, const auto& reference) {
        for (const Layout layout : all_layouts) {
            compare<float>(dtype::float32, layout, 7, 100, step, reference);
            compare<double>(dtype::complex128, layout, 7, 100, step, reference);
        }
        compare<double>(dtype::float64, Layout::every_other, 7, 100, step, reference);
        compare<float>(dtype::complex64, Layout::reversed, 7, 100, step, reference);
        for (const int team : {1, 4, 7}) {  // Above the grain.
            ConfigSetNumThreads(team);
            compare<float>(dtype::float32, Layout::contiguous, 20000, 3, step, reference);
        }
        ConfigSetNumThreads(4);
    });
}

TEST(Steps, AnAdamStepThatFindsItsGradientTakesRealNumbers) {
    const TensorPtr z(Tensor::ones({2}, 0, dtype::complex64));
    expect_error([&] { adam_step_with_grad(z.get(), z.get(), {}, z.get(), z.get(), nullptr); },
                 "'adam_step_with_grad' only supports float.", "ornik::adam_step_with_grad",
                 "src/optimizers/optim_adam.cpp");
}

TEST(Steps, IdleArgumentsAndZeroGradients) {
    const TensorPtr p = make<float>({2}, {1, -2}), g = make<float>({2}, {0, 0});
    const TensorPtr m(Tensor::zeros_like(p.get())), v(Tensor::zeros_like(p.get()));
    adam_step(p.get(), g.get(), lr, b1, b2, eps, 1, m.get(), v.get(), nullptr, false);
    adam_step(p.get(), g.get(), lr, b1, b2, eps, 2, m.get(), v.get(), v.get(), false);
    rmsprop_step(p.get(), g.get(), lr, b1, eps, v.get());
    EXPECT_EQ(values_of<float>(p), (std::vector<float>{1, -2}));
    EXPECT_EQ(values_of<float>(v), (std::vector<float>{0, 0}));
}

// Halving lr halves the step, which a velocity that holds lr does not do; without momentum there is no buffer.
TEST(Steps, BufferedMomentumFollowsTheRate) {
    const TensorPtr p = make<float>({1}, {0}), g = make<float>({1}, {1}), b = make<float>({1}, {7});
    nn::sgd_step(p.get(), g.get(), b.get(), {.lr = 1, .momentum = 0.5F, .first = true});
    EXPECT_EQ(values_of<float>(p), std::vector<float>{-1});
    nn::sgd_step(p.get(), g.get(), b.get(), {.lr = 0.5F, .momentum = 0.5F});
    EXPECT_EQ(values_of<float>(b), std::vector<float>{1.5F});
    EXPECT_EQ(values_of<float>(p), std::vector<float>{-1.75F});
    nn::sgd_step(p.get(), g.get(), nullptr, {.lr = 0.25F, .weight_decay = 1});
    EXPECT_EQ(values_of<float>(p), std::vector<float>{-1.5625F});
    const Refusal sgd[] = {
        {"sgd_step", [&] { nn::sgd_step(p.get(), g.get(), nullptr, {.momentum = 0.5F}); },
         "'sgd_step' needs a buffer with momentum, and none without."},
        {"sgd_step",
         [&] { nn::sgd_step(p.get(), g.get(), b.get(), {.momentum = 0.5F, .dampening = 0.5F, .nesterov = true}); },
         "'sgd_step' by Nesterov needs momentum and no dampening."},
    };
    expect_refusals(sgd, "ornik::nn::", "src/optimizers/optim_sgd.cpp");
    expect_error([&] { nn::rmsprop_step(p.get(), g.get(), b.get(), nullptr, nullptr, {.momentum = 0.5F}); },
                 "'rmsprop_step' with momentum needs a buffer.", "ornik::nn::rmsprop_step",
                 "src/optimizers/optim_rmsprop.cpp");
}

}  // namespace
}  // namespace ornik::test
