// Losses, attention and interpolation have the same bits at every team size.
#include <cstring>

#include "apis/ornik.h"
#include "hardware/thread_config.h"
#include "support/gradients.h"
#include "tensor/nn/attention.h"
#include "tensor/nn/interpolate.h"

namespace ornik::test {
namespace {

TEST(Team, SameBitsAtEverySize) {
    const TensorPtr x = random_tensor({4, 6, 70, 20}, dtype::float32, 1);
    const TensorPtr p(TensorPtr(x->mult_tensor(x.get()))->reshape({336, 100}));
    const TensorPtr classes(Tensor::ones({336}, 0, dtype::int64));
    std::vector<float> first;
    for (const int team : {1, 2, 4, 7}) {
        ConfigSetNumThreads(team);
        std::vector<TensorPtr> results;
        for (const std::string name : {"mse", "bce", "sce", "nll_loss"}) {
            const std::unique_ptr<Loss> loss(getLoss(name));
            Tensor* target = name == "nll_loss" ? classes.get() : p.get();
            results.emplace_back(loss->loss_forward(p.get(), target));
            results.emplace_back(loss->loss_backward(p.get(), target));
        }
        Tensor* kept = nullptr;
        const TensorPtr y(scaled_dot_product_attention(x.get(), x.get(), x.get(), nullptr, &kept));
        results.emplace_back(kept);
        AttentionGradients g = scaled_dot_product_attention_grad(x.get(), x.get(), x.get(), kept, y.get());
        results.push_back(std::move(g.query));
        results.push_back(std::move(g.key));
        results.emplace_back(interpolate(x.get(), {90, 17}, "bilinear"));
        results.emplace_back(interpolate_grad(results.back().get(), x->Shape(), "bilinear"));
        std::vector<float> all = values_of<float>(y);
        for (const TensorPtr& result : results) {
            const std::vector<float> values = values_of<float>(result);
            all.insert(all.end(), values.begin(), values.end());
        }
        first = team == 1 ? all : first;
        EXPECT_EQ(std::memcmp(all.data(), first.data(), all.size() * sizeof(float)), 0) << team;
    }
    ConfigSetNumThreads(4);
}

}  // namespace
}  // namespace ornik::test
