// Losses as functions: values against their definitions, gradients against differences, for every reduction.
#include <cmath>
#include <limits>
#include <optional>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using nn::ElementLoss;
using nn::Reduction;
constexpr Reduction reductions[] = {Reduction::none, Reduction::sum, Reduction::mean};
constexpr double nan = std::numeric_limits<double>::quiet_NaN();

// Numbers of (low, high).
TensorPtr between(double low, double high, const Dims& shape, unsigned seed, Layout layout) {
    TensorPtr t = random_tensor(shape, dtype::float64, seed, layout);
    t->mult_scalar_inplace((high - low) / 2);
    t->add_scalar_inplace((high + low) / 2);
    return t;
}

std::vector<double> reduced(std::vector<double> terms, Reduction reduction, double members) {
    if (reduction == Reduction::none) {
        return terms;
    }
    double sum = 0;
    for (const double term : terms) {
        sum += term;
    }
    return {reduction == Reduction::mean ? sum / members : sum};
}

void expect_near(const Tensor* t, const std::vector<double>& expected) {
    const std::vector<double> values = doubles_of(t);
    ASSERT_EQ(values.size(), expected.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        EXPECT_NEAR(values[i], expected[i], 1e-13 * (1 + std::abs(expected[i])));
    }
}

struct ElementCase {
    const char* name;
    ElementLoss loss;
    double parameter, low, high;  // of the prediction
    std::function<double(double x, double t, double w)> term;
};

double bce(double p, double t, double w) { return -(w * t * std::log(p) + (1 - t) * std::log(1 - p)); }
const ElementCase element_cases[] = {
    {"mean_square", ElementLoss::mean_square, 1, -2, 2, [](double x, double t, double) { return (x - t) * (x - t); }},
    {"absolute", ElementLoss::absolute, 1, -2, 2, [](double x, double t, double) { return std::abs(x - t); }},
    {"smooth_l1", ElementLoss::smooth_l1, 0.75, -2, 2,
     [](double x, double t, double) {
         const double d = std::abs(x - t);
         return d < 0.75 ? d * d / 1.5 : d - 0.375;
     }},
    {"smooth_l1 of 0", ElementLoss::smooth_l1, 0, -2, 2, [](double x, double t, double) { return std::abs(x - t); }},
    {"huber", ElementLoss::huber, 0.5, -2, 2,
     [](double x, double t, double) {
         const double d = std::abs(x - t);
         return d <= 0.5 ? d * d / 2 : 0.5 * (d - 0.25);
     }},
    {"bce", ElementLoss::binary_cross_entropy, 1, 0.05, 0.95, [](double x, double t, double) { return bce(x, t, 1); }},
    {"bce with logits", ElementLoss::binary_cross_entropy_with_logits, 1, -4, 4,
     [](double x, double t, double w) { return bce(1 / (1 + std::exp(-x)), t, w); }},
    {"kl", ElementLoss::kl_divergence, 1, -2, 0, [](double x, double t, double) { return t * (std::log(t) - x); }},
    {"kl of logarithms", ElementLoss::kl_divergence_log_target, 1, -2, 0,
     [](double x, double t, double) { return std::exp(t) * (t - x); }},
};

TEST(LossFunctions, OverElements) {
    unsigned seed = 0;
    for (const ElementCase& c : element_cases) {
        for (const Reduction reduction : reductions) {
            for (const bool weighted : {false, true}) {
                const Layout layout = all_layouts[++seed % 5];
                SCOPED_TRACE(testing::Message() << c.name << " reduction " << static_cast<int>(reduction)
                                                << " weighted " << weighted << " " << name_of(layout));
                const TensorPtr x = between(c.low, c.high, {3, 5}, seed, layout);
                const TensorPtr t = between(0.1, 0.9, {3, 5}, seed + 100, layout);
                const TensorPtr w = between(0.5, 2, {3, 5}, seed + 200, layout);
                // One weight for each row of positives.
                const TensorPtr column = between(0.5, 2, {3, 1}, seed + 300, layout);
                const TensorPtr rows(Tensor::broadcast_to(column.get(), {3, 5}));
                const bool knows_positive = c.loss == ElementLoss::binary_cross_entropy_with_logits && weighted;
                const nn::ElementLossOptions options{reduction, weighted ? w.get() : nullptr,
                                                     knows_positive ? rows.get() : nullptr, c.parameter};
                std::vector<double> terms;
                for (std::size_t i = 0; i < 15; ++i) {
                    terms.push_back((weighted ? doubles_of(w.get())[i] : 1) *
                                    c.term(doubles_of(x.get())[i], doubles_of(t.get())[i],
                                           knows_positive ? doubles_of(rows.get())[i] : 1));
                }
                const auto loss = [&](Tensor* a, Tensor* b) { return nn::element_loss(c.loss, a, b, options); };
                const TensorPtr y = loss(x.get(), t.get());
                EXPECT_EQ(y->Shape(), reduction == Reduction::none ? (Dims{3, 5}) : Dims{});
                expect_near(y.get(), reduced(terms, reduction, 15));
                const TensorPtr g = random_tensor(y->Shape(), dtype::float64, seed + 400, layout);
                const nn::LossGradients grads = nn::element_loss_grad(c.loss, g.get(), x.get(), t.get(), options);
                expect_gradient([&](Tensor* a) { return loss(a, t.get()); }, x, g, grads.prediction);
                expect_gradient([&](Tensor* b) { return loss(x.get(), b); }, t, g, grads.target);
                const nn::LossGradients one =
                    nn::element_loss_grad(c.loss, g.get(), x.get(), t.get(), options, {false, true});
                EXPECT_EQ(one.prediction, nullptr);
                EXPECT_EQ(bytes_of(one.target), bytes_of(grads.target));
            }
        }
    }
    const TensorPtr far = make<float>({4}, {-200, 200, -200, 200}), sides = make<float>({4}, {0, 0, 1, 1});
    EXPECT_EQ(values_of<float>(nn::element_loss(ElementLoss::binary_cross_entropy_with_logits, far.get(), sides.get(),
                                                {.reduction = Reduction::none})),
              (std::vector<float>{0, 200, 200, 0}));
    const TensorPtr zeros = make<double>({2}, {0, 1}), low = make<double>({2}, {-1000, -1});
    EXPECT_EQ(doubles_of(nn::element_loss(ElementLoss::kl_divergence, low.get(), zeros.get()).get())[0], 0.5);
}

struct ClassCase {
    bool indices, weighted, ignoring;
    double smoothing;
};

TEST(LossFunctions, OverClasses) {
    constexpr std::int64_t classes = 4, members = 6;
    unsigned seed = 0;
    for (const ClassCase& c :
         {ClassCase{true, false, false, 0}, ClassCase{true, true, false, 0}, ClassCase{true, false, true, 0},
          ClassCase{true, true, true, 0.3}, ClassCase{true, false, false, 0.2}, ClassCase{false, false, false, 0},
          ClassCase{false, true, false, 0.3}, ClassCase{false, false, false, 1}}) {
        for (const Reduction reduction : reductions) {
            for (const bool nll : {false, true}) {
                if (nll && (!c.indices || c.smoothing != 0)) {
                    continue;
                }
                const Layout layout = all_layouts[++seed % 5];
                SCOPED_TRACE(testing::Message() << "case " << seed << " nll " << nll);
                const TensorPtr x = between(-3, 3, {2, 3, classes}, seed, layout);
                const TensorPtr w = between(0.5, 2, {classes}, seed + 100, layout);
                const TensorPtr shares = between(0, 1, {2, 3, classes}, seed + 200, layout);
                std::vector<std::int16_t> labels{3, 0, 2, 1, 1, 3};
                if (c.ignoring) {
                    labels[1] = labels[4] = 7;
                }
                const TensorPtr indices = make<std::int16_t>({2, 3}, labels, layout);
                Tensor* const target = c.indices ? indices.get() : shares.get();
                const nn::ClassLossOptions options{reduction, c.weighted ? w.get() : nullptr, c.ignoring ? 7 : -100,
                                                   c.smoothing};
                const std::vector<double> xs = doubles_of(x.get()), ws = doubles_of(w.get()),
                                          ts = doubles_of(shares.get());
                std::vector<double> terms(members);
                double divisor = c.indices ? 0 : members;
                for (std::size_t i = 0; i < members; ++i) {
                    if (c.indices && labels[i] == 7) {
                        continue;
                    }
                    double total = 0;
                    for (std::size_t k = 0; k < classes; ++k) {
                        total += std::exp(xs[i * classes + k]);
                    }
                    for (std::size_t k = 0; k < classes; ++k) {
                        const double weight = c.weighted ? ws[k] : 1;
                        const double hit = c.indices ? labels[i] == static_cast<int>(k) : ts[i * classes + k];
                        const double share = (1 - c.smoothing) * hit + c.smoothing / classes;
                        const double logarithm = xs[i * classes + k] - (nll ? 0 : std::log(total));
                        terms[i] -= weight * share * logarithm;
                        divisor += c.indices ? weight * hit : 0;
                    }
                }
                const auto loss = [&](Tensor* a, Tensor* b) {
                    return nll ? nn::nll_loss(a, b, options) : nn::cross_entropy(a, b, options);
                };
                const TensorPtr y = loss(x.get(), target);
                EXPECT_EQ(y->Shape(), reduction == Reduction::none ? (Dims{2, 3}) : Dims{});
                expect_near(y.get(), reduced(terms, reduction, divisor));
                const TensorPtr g = random_tensor(y->Shape(), dtype::float64, seed + 300, layout);
                const TensorPtr gradient = nll ? nn::nll_loss_grad(g.get(), x.get(), target, options)
                                               : nn::cross_entropy_grad(g.get(), x.get(), target, options).prediction;
                expect_gradient([&](Tensor* a) { return loss(a, target); }, x, g, gradient);
                if (!c.indices) {
                    const nn::LossGradients grads =
                        nn::cross_entropy_grad(g.get(), x.get(), target, options, {false, true});
                    EXPECT_EQ(grads.prediction, nullptr);
                    expect_gradient([&](Tensor* b) { return loss(x.get(), b); }, target, g.get(), grads.target.get());
                }
            }
        }
    }
}

TEST(LossFunctions, TheBitsOfTheClassesAndNoMembers) {
    const TensorPtr one(Tensor::ones({}, 0, dtype::float32));
    const TensorPtr x = random_tensor({50, 10}, dtype::float32, 1), t = random_tensor({50, 10}, dtype::float32, 2);
    const TensorPtr p(x->sigmoid()), q(t->sigmoid()), labels(Tensor::randint({50}, 0, 10, 0, dtype::int64));
    const auto compare = [&](const char* name, Tensor* a, Tensor* b, const TensorPtr& loss, const TensorPtr& gradient) {
        const std::unique_ptr<Loss> object(getLoss(name));
        EXPECT_EQ(bytes_of(loss), bytes_of(TensorPtr(object->loss_forward(a, b)))) << name;
        EXPECT_EQ(bytes_of(gradient), bytes_of(TensorPtr(object->loss_backward(a, b)))) << name;
    };
    compare("mse", x.get(), t.get(), nn::element_loss(ElementLoss::mean_square, x.get(), t.get()),
            nn::element_loss_grad(ElementLoss::mean_square, one.get(), x.get(), t.get()).prediction);
    compare("bce", p.get(), q.get(), nn::element_loss(ElementLoss::binary_cross_entropy, p.get(), q.get()),
            nn::element_loss_grad(ElementLoss::binary_cross_entropy, one.get(), p.get(), q.get()).prediction);
    for (Tensor* target : {labels.get(), q.get()}) {
        compare("sce", x.get(), target, nn::cross_entropy(x.get(), target),
                nn::cross_entropy_grad(one.get(), x.get(), target).prediction);
    }
    compare("nll_loss", x.get(), labels.get(), nn::nll_loss(x.get(), labels.get()),
            nn::nll_loss_grad(one.get(), x.get(), labels.get()));

    const TensorPtr none = make_empty({0, 3}, dtype::float64), no_labels = make_empty({0}, dtype::int64);
    for (const Reduction reduction : reductions) {
        const double expected = reduction == Reduction::mean ? nan : 0;
        const TensorPtr losses[] = {nn::cross_entropy(none.get(), no_labels.get(), {.reduction = reduction}),
                                    nn::element_loss(ElementLoss::absolute, none.get(), none.get(),
                                                     {.reduction = reduction, .weight = none.get()})};
        for (const TensorPtr& loss : losses) {
            ASSERT_EQ(loss->Size(), reduction == Reduction::none ? 0 : 1);
            if (loss->Size() > 0) {
                const double value = doubles_of(loss.get())[0];
                EXPECT_TRUE(value == expected || (std::isnan(value) && std::isnan(expected)));
            }
        }
        EXPECT_EQ(nn::cross_entropy_grad(losses[0].get(), none.get(), no_labels.get(), {.reduction = reduction})
                      .prediction->Shape(),
                  none->Shape());
    }
}

// What single wrong arguments of the usual options do not meet.
TEST(LossFunctions, Refusals) {
    const TensorPtr x = between(0, 1, {2, 3}, 1, Layout::contiguous), beyond = make<double>({1}, {1.5});
    const TensorPtr labels = make<std::int32_t>({2}, {0, 2}), one = make<double>({}, {1});
    const auto element = [&](Tensor* p, const nn::ElementLossOptions& options, ElementLoss loss) {
        return [=] { nn::element_loss(loss, p, p, options); };
    };
    const Refusal rows[] = {
        {"element_loss", element(x.get(), {.parameter = 0}, ElementLoss::huber),
         "The parameter of huber loss should be above 0"},
        {"element_loss", element(x.get(), {.parameter = -1}, ElementLoss::smooth_l1),
         "The parameter of smooth L1 loss should be 0 or above"},
        {"element_loss", element(beyond.get(), {}, ElementLoss::binary_cross_entropy),
         "Binary cross entropy needs probabilities between 0 and 1."},
        {"cross_entropy_grad",
         [&] {
             nn::cross_entropy_grad(one.get(), x.get(), labels.get(), {.ignore_index = 3}, {true, true});
         },
         "Class indices have no gradient."},
        {"nll_loss", [&] { nn::nll_loss(x.get(), labels.get(), {.label_smoothing = 0.1}); },
         "Label smoothing belongs to cross entropy."},
    };
    expect_refusals(rows, "ornik::nn::", "src/losses/functions.cpp");
}

}  // namespace
}  // namespace ornik::test
