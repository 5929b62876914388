// Losses as classes: what their names make, and numbers at the ends of their domains. Values and gradients are those of
// the functions.
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

TEST(Losses, BinaryCrossEntropyNearItsEnds) {
    const LossPtr loss(getLoss("bce"));
    struct Case {
        float p, t, value, gradient;
    };
    // 1 - p is exact, and log(1 - p) keeps the digits of a small p.
    for (const Case& c : {Case{0, 0, 0, 1}, Case{1, 1, 0, -1}, Case{0, 1, 100, -1e12F}, Case{1, 0, 100, 1e12F},
                          Case{1e-10F, 0, 1e-10F, 1}, Case{1e-10F, 1, 23.025851F, -1e10F},
                          Case{1 - 0x1p-24F, 0, 16.635532F, 0x1p24F}}) {
        const TensorPtr p = make<float>({1}, {c.p}), t = make<float>({1}, {c.t});
        EXPECT_FLOAT_EQ(values_of<float>(TensorPtr(loss->loss_forward(p.get(), t.get())))[0], c.value) << c.p << c.t;
        EXPECT_FLOAT_EQ(values_of<float>(TensorPtr(loss->loss_backward(p.get(), t.get())))[0], c.gradient)
            << c.p << c.t;
    }
    const TensorPtr nan = make<float>({1}, {std::numeric_limits<float>::quiet_NaN()});
    EXPECT_TRUE(std::isnan(value_of(loss, nan, make<float>({1}, {1}))));
}

TEST(Losses, ShapesOfClassIndices) {
    const LossPtr nll(getLoss("nll_loss")), cross_entropy(getLoss("sce"));
    const TensorPtr x = random_tensor({2, 3, 4}, dtype::float64, 11, Layout::transposed);
    const std::vector<std::uint8_t> classes = {0, 3, 2, 2, 1, 0};
    const TensorPtr flat = make<std::uint8_t>({2, 3}, classes, Layout::transposed);
    const TensorPtr column = make<std::uint8_t>({2, 3, 1}, classes);
    for (const LossPtr* loss : {&nll, &cross_entropy}) {
        EXPECT_EQ(value_of(*loss, x, flat), value_of(*loss, x, column));
        EXPECT_EQ(bytes_of(TensorPtr((*loss)->loss_backward(x.get(), flat.get()))),
                  bytes_of(TensorPtr((*loss)->loss_backward(x.get(), column.get()))));
    }
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
