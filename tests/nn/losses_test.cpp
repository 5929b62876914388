// Losses over elements and the negative log-likelihood: values against their definitions, gradients against
// differences.
#include <cmath>
#include <limits>

#include "apis/ornik.h"
#include "losses/binary_cross_entropy.h"
#include "losses/mean_squared_error.h"
#include "losses/nll_loss.h"
#include "losses/soft_cross_entropy.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using LossPtr = std::unique_ptr<Loss>;

double value_of(const LossPtr& loss, const TensorPtr& prediction, const TensorPtr& target) {
    const TensorPtr value(loss->loss_forward(prediction.get(), target.get()));
    EXPECT_EQ(value->Shape(), Dims{});
    EXPECT_EQ(value->Dtype(), prediction->Dtype());
    return doubles_of(value.get())[0];
}

TensorPtr probabilities(const Dims& shape, std::int64_t dtype, unsigned seed, Layout layout = Layout::contiguous) {
    TensorPtr t = random_tensor(shape, dtype, seed, layout);
    t->mult_scalar_inplace(0.45F);
    t->add_scalar_inplace(0.5F);
    return t;
}

TEST(Losses, NamesMakeTheirClasses) {
    const auto made = []<typename Class>(const char* name) {
        return dynamic_cast<Class*>(LossPtr(getLoss(name)).get()) != nullptr;
    };
    for (const char* name : {"mse", "mean_squared_error"}) {
        EXPECT_TRUE(made.operator()<LMeanSquaredError>(name));
    }
    for (const char* name : {"bce", "binary_cross_entropy"}) {
        EXPECT_TRUE(made.operator()<LBinaryCrossEntropy>(name));
    }
    for (const char* name : {"soft_cross_entropy", "softmax_cross_entropy", "sce"}) {
        EXPECT_TRUE(made.operator()<LSoftCrossEntropy>(name));
    }
    EXPECT_TRUE(made.operator()<LNLL_Loss>("nll_loss"));
    for (const char* name : {"MSE", "SCE", "", "unknown"}) {
        EXPECT_EQ(getLoss(name), nullptr) << name;
    }
    const LossPtr none(getLoss("none"));
    EXPECT_EQ(none->get_name(), "none");
    EXPECT_EQ(none->loss_forward(nullptr, nullptr), nullptr);
    EXPECT_EQ(none->loss_backward(nullptr, nullptr), nullptr);
}

TEST(Losses, OverElementsAgainstTheirDefinitions) {
    const TensorPtr unit = make<double>({}, {1});
    for (const std::string name : {"mse", "bce"}) {
        const LossPtr loss(getLoss(name));
        for (const Dims& shape : {Dims{}, Dims{7}, Dims{2, 3, 2, 3}}) {
            const TensorPtr x = probabilities(shape, dtype::float64, 1, Layout::transposed);
            const TensorPtr t = probabilities(shape, dtype::float64, 2, Layout::reversed);
            const std::vector<double> p = values_of<double>(x);
            const std::vector<double> w = values_of<double>(t);
            double expected = 0;
            for (std::size_t i = 0; i < p.size(); ++i) {
                expected += name == "mse" ? (p[i] - w[i]) * (p[i] - w[i])
                                          : -(w[i] * std::log(p[i]) + (1 - w[i]) * std::log(1 - p[i]));
            }
            expected /= static_cast<double>(p.size());
            EXPECT_NEAR(value_of(loss, x, t), expected, 1e-14) << name;
            EXPECT_NEAR(value_of(loss, TensorPtr(x->astype(dtype::float32)), TensorPtr(t->astype(dtype::float32))),
                        expected, 1e-6)
                << name;
            expect_gradient([&](Tensor* v) { return loss->loss_forward(v, t.get()); }, x, unit,
                            loss->loss_backward(x.get(), t.get()));
        }
    }
}

TEST(Losses, BinaryCrossEntropyNearItsEnds) {
    const LossPtr loss(getLoss("bce"));
    struct Case {
        float p, t, value, gradient;
    };
    // 1 - p is exact, and log(1 - p) keeps the digits of a small p.
    for (const Case& c : {Case{0, 0, 0, 1}, Case{1, 1, 0, -1}, Case{0, 1, 100, -1e12F}, Case{1, 0, 100, 1e12F},
                          Case{1e-10F, 0, 1e-10F, 1}, Case{1e-10F, 1, 23.025851F, -1e10F},
                          Case{1 - 0x1p-24F, 0, 16.635532F, 0x1p24F}}) {
        const TensorPtr p = make<float>({1}, {c.p});
        const TensorPtr t = make<float>({1}, {c.t});
        EXPECT_FLOAT_EQ(values_of<float>(TensorPtr(loss->loss_forward(p.get(), t.get())))[0], c.value) << c.p << c.t;
        EXPECT_FLOAT_EQ(values_of<float>(TensorPtr(loss->loss_backward(p.get(), t.get())))[0], c.gradient)
            << c.p << c.t;
    }
    const TensorPtr nan = make<float>({1}, {std::numeric_limits<float>::quiet_NaN()});
    EXPECT_TRUE(std::isnan(value_of(loss, nan, make<float>({1}, {1}))));
}

TEST(Losses, ClassIndicesAndWeights) {
    const LossPtr nll(getLoss("nll_loss")), cross_entropy(getLoss("sce"));
    const TensorPtr unit = make<double>({}, {1});
    const TensorPtr x = random_tensor({2, 3, 4}, dtype::float64, 11, Layout::transposed);
    const std::vector<double> in = values_of<double>(x);
    const std::vector<std::uint8_t> classes = {0, 3, 2, 2, 1, 0};
    std::vector<double> one_hot(24, 0.0);
    double likelihood = 0;
    for (std::size_t row = 0; row < 6; ++row) {
        likelihood -= in[row * 4 + classes[row]] / 6;
        one_hot[row * 4 + classes[row]] = 1;
    }
    const auto entropy = [&](const std::vector<double>& weights) {
        double total = 0;
        for (std::size_t i = 0; i < 24; ++i) {
            double sum = 0;
            for (std::size_t c = 0; c < 4; ++c) {
                sum += std::exp(in[i / 4 * 4 + c]);
            }
            total += weights[i] * (std::log(sum) - in[i]) / 6;
        }
        return total;
    };
    const auto check = [&](const LossPtr& loss, const TensorPtr& target, double expected, double bound) {
        EXPECT_NEAR(value_of(loss, x, target), expected, bound);
        expect_gradient([&](Tensor* v) { return loss->loss_forward(v, target.get()); }, x, unit,
                        loss->loss_backward(x.get(), target.get()));
    };
    for (const TensorPtr& target :
         {make<std::uint8_t>({2, 3}, classes, Layout::transposed), make<std::uint8_t>({2, 3, 1}, classes)}) {
        check(nll, target, likelihood, 1e-15);
        check(cross_entropy, target, entropy(one_hot), 1e-14);
    }
    check(cross_entropy, make<double>({2, 3, 4}, one_hot, Layout::reversed), entropy(one_hot), 1e-14);
    const TensorPtr mixed = random_tensor({2, 3, 4}, dtype::float64, 12);
    check(cross_entropy, mixed, entropy(values_of<double>(mixed)), 1e-14);
    const TensorPtr one_member = make<float>({3}, {-1, -2, -3});
    EXPECT_EQ(value_of(nll, one_member, make<std::int64_t>({}, {1})), 2.0);
    EXPECT_EQ(value_of(cross_entropy, make<float>({1, 2}, {1000, -1000}), make<std::int64_t>({1}, {1})), 2000.0);
}

// Rows of every length around a vector's, one entry far below the others.
TEST(Losses, CrossEntropyOfRowsOfAnyLength) {
    const LossPtr loss(getLoss("sce"));
    for (std::int64_t n = 1; n < 40; ++n) {
        const TensorPtr x = random_tensor({1, n}, dtype::float64, static_cast<unsigned>(n));
        static_cast<double*>(x->getRawData())[n / 2] = -1e4;
        std::vector<long double> p;
        long double total = 0;
        for (const double value : values_of<double>(x)) {
            p.push_back(std::exp(static_cast<long double>(value)));
            total += p.back();
        }
        const TensorPtr target = make<std::int64_t>({1}, {n - 1});
        EXPECT_NEAR(value_of(loss, x, target), static_cast<double>(std::log(total / p.back())), 1e-14) << n;
        const std::vector<double> gradient = values_of<double>(TensorPtr(loss->loss_backward(x.get(), target.get())));
        for (std::size_t c = 0; c < p.size(); ++c) {
            EXPECT_NEAR(gradient[c], static_cast<double>(p[c] / total - (c + 1 == p.size() ? 1 : 0)), 1e-15) << n;
        }
    }
}

}  // namespace
}  // namespace ornik::test
