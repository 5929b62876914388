// graph_test.cpp: recording, walking and dropping graphs.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "gradcheck.h"
#include "ktensor/activations.h"
#include "ktensor/products.h"
#include "random/generator.h"
#include "support/expect_error.h"

namespace ornik {
namespace {

using Floats = std::vector<float>;
using gradcheck::Op;

KTensor leaf(const Floats& numbers) { return KTensor::from(numbers).requires_grad(); }

TEST(Graph, ProductRule) {
    KTensor x = KTensor::full({3}, 2.0F).requires_grad();
    KTensor y = KTensor::full({2, 3}, 5.0F).requires_grad();
    (x * y + x).backward(KTensor::ones({2, 3}));
    EXPECT_EQ(x.grad().to_vector<float>(), Floats(3, 12.0F));
    EXPECT_EQ(y.grad().to_vector<float>(), Floats(6, 2.0F));
}

TEST(Graph, GradientsAddUpAndNobodyElsesMemoryMoves) {
    KTensor a = leaf({1, 2});
    KTensor b = leaf({3, 4});
    const KTensor seed = KTensor::from(Floats{1, 1});
    (a + b).backward(seed);  // One tensor reaches both leaves.
    const KTensor kept = a.grad();
    mul_(*std::make_unique<KTensor>(a.grad()), Scalar(5.0F));
    EXPECT_EQ(b.grad().to_vector<float>(), Floats({1, 1}));
    EXPECT_EQ(seed.to_vector<float>(), Floats({1, 1}));
    (a * b).backward(seed);
    EXPECT_EQ(a.grad().to_vector<float>(), Floats({8, 9}));
    EXPECT_TRUE(kept.is(a.grad()));
    EXPECT_EQ(b.grad().to_vector<float>(), Floats({2, 3}));
    const std::vector<KTensor> apart = grad({a * b}, {a, b}, {seed});
    EXPECT_EQ(apart[1].to_vector<float>(), Floats({1, 2}));
    EXPECT_EQ(b.grad().to_vector<float>(), Floats({2, 3}));
}

TEST(Graph, DiamondsStayLinear) {
    KTensor x = leaf({1});
    KTensor y = x * 1.0F;
    for (int i = 0; i < 60; ++i) {
        y = y * 0.5F + y * 0.5F;
    }
    y.backward();
    EXPECT_EQ(x.grad().item<float>(), 1.0F);
}

TEST(Graph, LongChainsNeedNoStack) {
    KTensor x = leaf({1});
    KTensor y = x + 1.0F;
    {
        const KTensor dropped = x + 1.0F;
        KTensor z = dropped;
        for (int i = 0; i < 200000; ++i) {
            z = z + 1.0F;
        }
    }
    for (int i = 0; i < 200000; ++i) {
        y = y + 1.0F;
    }
    y.backward();
    EXPECT_EQ(x.grad().item<float>(), 1.0F);
    std::thread([&] { y = KTensor(); }).join();
}

TEST(Graph, SecondDerivativesThroughBothPasses) {
    KTensor x = leaf({3});
    const KTensor y = x * x * x;
    const KTensor first = grad({y}, {x}, {}, {.create_graph = true})[0];
    EXPECT_EQ(first.item<float>(), 27.0F);
    EXPECT_EQ(grad({first}, {x})[0].item<float>(), 18.0F);
}

TEST(Graph, InteriorInputsCutTheWalk) {
    KTensor x = leaf({2});
    const KTensor middle = x * 3.0F;
    const KTensor y = middle * middle;
    EXPECT_EQ(grad({y}, {middle}, {}, {.retain_graph = true})[0].item<float>(), 12.0F);
    const std::vector<KTensor> both = grad({y}, {middle, x});
    EXPECT_EQ(both[1].item<float>(), 36.0F);
    const KTensor unused = leaf({1});
    EXPECT_FALSE(grad({x * 2.0F}, {x, unused}, {}, {.allow_unused = true})[1].defined());
}

TEST(Graph, HooksSeeTheWholeGradientAndMayReplaceIt) {
    KTensor x = leaf({2});
    KTensor y = x * 1.0F;
    y.retain_grad();
    float seen = 0;
    y.register_hook([&](const KTensor& gradient) {
        seen = gradient.item<float>();
        return gradient * 10.0F;
    });
    const std::int64_t number = x.register_hook([](const KTensor& gradient) { return gradient + 1.0F; });
    const KTensor total = y + y;
    total.backward(KTensor(), true);
    EXPECT_EQ(seen, 2.0F);
    EXPECT_EQ(y.grad().item<float>(), 2.0F);
    EXPECT_EQ(x.grad().item<float>(), 21.0F);
    x.remove_hook(number);
    x.zero_grad();
    total.backward();
    EXPECT_EQ(x.grad().item<float>(), 20.0F);
}

TEST(Graph, NothingIsRecordedWithoutNeed) {
    const KTensor x = leaf({2});
    {
        const NoGrad frozen;
        EXPECT_FALSE((x * 2.0F).wants_grad());
        const GradMode on(true);
        EXPECT_TRUE((x * 2.0F).wants_grad());
    }
    EXPECT_FALSE((x.detach() * 2.0F).wants_grad());
    EXPECT_FALSE(greater(x, Scalar(0.0F)).wants_grad());
    EXPECT_FALSE(floor(x).wants_grad());
}

// ---- In place ----

TEST(InPlace, ResultsTakeTheTargetsPlace) {
    KTensor x = leaf({2, 3});
    KTensor y = x * 1.0F;
    mul_(y, x);  // saves the old y
    exp_(y);
    relu_(y);
    add_(y, KTensor::from(Floats{1, 1}));
    y.backward(KTensor::ones({2}));
    const Floats expected{2 * 2 * std::exp(4.0F), 2 * 3 * std::exp(9.0F)};
    EXPECT_NEAR(x.grad().to_vector<float>()[0], expected[0], 1e-3F);
    EXPECT_NEAR(x.grad().to_vector<float>()[1], expected[1], 1e-1F);
}

TEST(InPlace, RefusalsAreWhole) {
    KTensor x = leaf({2, 3});
    const KTensor whole = KTensor::from(Floats{1, 2, 3, 4});
    KTensor plain = clone(whole);
    const KTensor part = reshape(plain, {2, 2});
    EXPECT_REFUSAL(add_(x, Scalar(1.0F)),
                   "add_(): a leaf that asks for gradients, [2] float32, can be changed in place only inside NoGrad.");
    copy_(plain, KTensor::from(Floats{1, 1, 1, 1}) * sum(x));
    EXPECT_REFUSAL(part + 1.0F,
                   "add_scalar(): the memory of operand 0, [2, 2] float32, was changed in place through another tensor "
                   "while that was recorded: its gradient would be wrong. Make the view again after the change.");
    KTensor numbers = KTensor({1, 2});
    EXPECT_REFUSAL(add_(numbers, x), "add_(): [2] int64 can not hold a result that gradients go through.");
    const KTensor y = exp(x);
    KTensor alias = y.detach();
    mul_(alias, Scalar(2.0F));
    EXPECT_REFUSAL(y.backward(KTensor::ones({2})),
                   "backward(): [2] float32, saved by exp(), was changed in place since: its version is 1, not 0.");
    EXPECT_FALSE(x.grad().defined());
}

// ---- Refusals ----

TEST(Refusals, AreWhole) {
    KTensor x = leaf({1, 2});
    KTensor ints({1, 2});
    const KTensor y = x * x;
    EXPECT_REFUSAL(x + KTensor(), "add(): operand 1 is an undefined KTensor.");
    EXPECT_REFUSAL(
        x * KTensor::ones({3}),
        "mul(): [2] float32 and [3] float32 do not broadcast: axis 0 of the common shape has 2 and 3 elements.");
    EXPECT_REFUSAL(ints.requires_grad(),
                   "requires_grad(): floating and complex tensors have gradients, not [2] int64.");
    EXPECT_REFUSAL(y.backward(),
                   "backward(): without a seed it needs a single real element to start from, not [2] float32.");
    EXPECT_REFUSAL(y.backward(KTensor::ones({2}, dtype::float64)),
                   "backward(): the seed for [2] float32 is no [2] float64.");
    EXPECT_REFUSAL(ints.backward(), "backward(): [2] int64 was not computed from anything that asks for gradients.");
    const KTensor total = sum(y);
    total.backward();
    EXPECT_REFUSAL(total.backward(),
                   "backward(): the backward pass of sum() has run already, and what it had saved is released. Ask the "
                   "first pass to retain the graph.");
    EXPECT_REFUSAL(grad({sum(x * x)}, {leaf({1})}), "grad(): no output depends on input 0, [1] float32.");
    EXPECT_REFUSAL(grad({sum(leaky_relu(x))}, {x}, {}, {.create_graph = true}),
                   "grad(): second derivatives of leaky_relu() are not available.");
    EXPECT_REFUSAL(matmul(x, KTensor::ones({3, 2})),
                   "matmul(): there is no product of [2] float32 and [3, 2] float32.");
    EXPECT_REFUSAL(reshape(x, {3, -1}), "reshape(): [2] float32 has 2 elements, which do not make [3, -1] float32.");
    EXPECT_REFUSAL(sum(x, {1}), "sum(): [2] float32 has no axis 1.");
}

// ---- Operations of a program's own, and checkpoints ----

KTensor cube(const KTensor& x, float error = 1) {
    return custom(
        "cube", {x},
        [](const std::vector<KTensor>& in) {
            return CustomResult{{in[0] * in[0] * in[0]}, {in[0]}};
        },
        [error](const std::vector<KTensor>& kept, const std::vector<KTensor>& gradients) {
            return std::vector<KTensor>{gradients[0] * kept[0] * kept[0] * (3.0F * error)};
        })[0];
}

TEST(Custom, HasFirstAndSecondDerivatives) {
    gradcheck::check({Op::custom, {{2, 3}}, gradcheck::real_only, [](const auto& x) { return cube(x[0]); }});
}

TEST(Custom, AWrongGradientIsFound) {
    static const gradcheck::Row row{Op::custom, {{1}}, {"", false, 1}, [](const auto& x) { return cube(x[0], 1.01F); }};
    EXPECT_NONFATAL_FAILURE(gradcheck::Check(row, false, false).run(), "gradient of operand 0");
}

TEST(Checkpoint, SameBitsWithDropoutAndOutsideTensors) {
    const KTensor x0 = KTensor::randn({8, 16});
    const KTensor w0 = KTensor::randn({16, 16});
    const auto run = [&](bool again) {
        KTensor x = clone(x0).requires_grad();
        KTensor w = clone(w0).requires_grad();
        const KTensor outer = w * 2.0F;  // An outside result, used by the segment.
        set_random_seed(3);
        const Segment segment = [&](const std::vector<KTensor>& in) {
            return std::vector<KTensor>{dropout(tanh(matmul(in[0], outer)), 0.5) * sum(w)};
        };
        const KTensor y = again ? checkpoint(segment, {x})[0] : segment({x})[0];
        sum(y * y).backward();
        std::vector<float> all = x.grad().to_vector<float>();
        const std::vector<float> rest = w.grad().to_vector<float>();
        all.insert(all.end(), rest.begin(), rest.end());
        all.push_back(KTensor::rand({1}).item<float>());
        return all;
    };
    EXPECT_EQ(run(true), run(false));
}

// ---- Threads and memory ----

TEST(Threads, SeparateGraphsMayShareLeaves) {
    KTensor w = leaf({1, 2});
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < 50; ++k) {
                sum(w * 2.0F).backward();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(w.grad().to_vector<float>(), Floats({400, 400}));
}

// Another's operation in place gives the tensor another node each time.
TEST(Threads, ResultsAreLookedAtWhileTheyChange) {
    KTensor w = leaf({1, 2});
    KTensor y = w * 1.0F;
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&, view = y]() mutable {
            while (!done) {
                const std::int64_t number = view.register_hook([](const KTensor& g) { return g * 2.0F; });
                EXPECT_FALSE(view.is_leaf());
                try {
                    EXPECT_TRUE(reshape(view, {2, 1}).wants_grad());
                } catch (const Error& refused) {  // In the middle of a change.
                    EXPECT_EQ(refused.kind(), ErrorKind::state);
                }
                view.remove_hook(number);
            }
        });
    }
    for (int k = 0; k < 300; ++k) {
        y += 1.0F;
    }
    done = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(y.to_vector<float>(), Floats({301, 302}));
    EXPECT_FALSE(w.grad().defined());
}

TEST(Threads, OneGraphIsWalkedByOne) {
    KTensor x = leaf({1});
    const KTensor y = x * 2.0F;
    const KTensor middle = y * 3.0F;
    int seen = 0;
    KTensor(middle).register_hook([&](const KTensor&) {
        EXPECT_REFUSAL(
            y.backward(),
            "backward(): mul_scalar() is part of a graph that another thread, or a pass around this one, is walking.");
        ++seen;
        return KTensor();
    });
    (middle * 1.0F).backward();
    EXPECT_EQ(seen, 1);
}

}  // namespace
}  // namespace ornik
