// Layers and products of operands without elements: results have their shapes, gradients of parameters are zero.
#include "ornik.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using LayerPtr = std::unique_ptr<Layer>;

TensorPtr none(const Dims& shape, std::int64_t dtype = dtype::float32) { return make_empty(shape, dtype); }

void expect_none(Tensor* result, const Dims& shape) {
    const TensorPtr owned(result);
    ASSERT_NE(owned, nullptr);
    EXPECT_EQ(owned->Shape(), shape);
}

void expect_zeros(Tensor* result, const Dims& shape) {
    const TensorPtr owned(result);
    ASSERT_NE(owned, nullptr);
    EXPECT_EQ(owned->Shape(), shape);
    EXPECT_EQ(values_of<float>(owned), std::vector<float>(static_cast<std::size_t>(owned->Size()), 0.0F));
}

TEST(NoElements, WithoutFeaturesTheBiasIsAllThereIs) {
    const LayerPtr dense(_Dense(3, true, ""));
    const TensorPtr b = make<float>({3}, {1, 2, 3});
    const TensorPtr featureless(dense->forward_dyn(none({0, 3}).get(), b.get(), none({2, 0}).get()));
    EXPECT_EQ(values_of<float>(featureless), (std::vector<float>{1, 2, 3, 1, 2, 3}));
}

TEST(NoElements, Normalizations) {
    Tensor* const n = nullptr;
    std::vector<Tensor*> latest;
    for (const Dims& shape : {Dims{0, 4}, Dims{0, 4, 3}, Dims{2, 4, 0}}) {
        SCOPED_TRACE(shape_text(shape));
        const TensorPtr x = none(shape), mean = make<float>({4}, {1, 2, 3, 4}),
                        variance = make<float>({4}, {5, 6, 7, 8});
        const LayerPtr batch(_BatchNormalization(true, 0.1F, 1e-5F, "")),
            group(_GroupNormalization(2, 4, true, 1e-5F, ""));
        const LayerPtr layer(_LayerNormalization(true, 1e-5F, ""));
        const TensorPtr own(shape.back() == 0 ? none({0}).release() : Tensor::ones({shape.back()}, 0, dtype::float32));
        for (const bool training : {false, true}) {
            expect_none(batch->forward_dyn(n, n, x.get(), training, mean.get(), variance.get()), shape);
            EXPECT_EQ(values_of<float>(mean), (std::vector<float>{1, 2, 3, 4}));
            EXPECT_EQ(values_of<float>(variance), (std::vector<float>{5, 6, 7, 8}));
        }
        expect_none(group->forward_dyn(n, n, x.get(), true), shape);
        expect_none(layer->forward_dyn(own.get(), n, x.get(), true), shape);
        for (const LayerPtr* l : {&batch, &group}) {
            expect_none((*l)->backward_dyn(n, n, x.get(), x.get(), latest, 0), shape);
            expect_zeros((*l)->backward_dyn(n, n, x.get(), x.get(), latest, 1), {4});
            expect_zeros((*l)->backward_dyn(n, n, x.get(), x.get(), latest, 2), {4});
        }
        expect_none(layer->backward_dyn(own.get(), n, x.get(), x.get(), latest, 0), shape);
        expect_zeros(layer->backward_dyn(own.get(), n, x.get(), x.get(), latest, 1), {shape.back()});
    }
}

TEST(NoElements, ImagesOfNoSamples) {
    std::vector<Tensor*> latest;
    const LayerPtr pools[] = {LayerPtr(_MaxPool2D({2, 2}, {2, 2}, "valid", "")),
                              LayerPtr(_AvgPool2D({2, 2}, {2, 2}, "valid", ""))};
    for (const Dims& front : {Dims{0, 4}, Dims{2, 0}}) {
        const Dims in{front[0], front[1], 6, 4}, half{front[0], front[1], 3, 2};
        const TensorPtr x = none(in), g = none(half);
        for (const LayerPtr& pool : pools) {
            expect_none(pool->forward_dyn(x.get()), half);
            expect_none(pool->backward_dyn(x.get(), g.get(), latest = pool->get_fwd_cache()), in);
        }
        expect_none(interpolate(x.get(), {3, 2}, "bilinear", false), half);
        expect_none(interpolate_grad(g.get(), in, "nearest", false), in);
        const LayerPtr shuffle(_PixelShuffle(2, "")), unshuffle(_PixelUnshuffle(2, ""));
        const Dims coarse{front[0], 4 * front[1], 3, 2};
        const TensorPtr c = none(coarse);
        expect_none(shuffle->forward_dyn(c.get()), in);
        expect_none(shuffle->backward_dyn(x.get()), coarse);
        expect_none(unshuffle->forward_dyn(x.get()), coarse);
    }
}

TEST(NoElements, AttentionAndProducts) {
    const auto ones = [](const Dims& shape) { return TensorPtr(Tensor::ones(shape, 0, dtype::float32)); };
    struct Case {
        std::int64_t batch, n, m, d, e;
    };
    for (const Case& c :
         {Case{0, 2, 3, 4, 5}, Case{2, 0, 3, 4, 5}, Case{2, 3, 0, 4, 5}, Case{2, 3, 4, 5, 0}, Case{2, 3, 4, 0, 5}}) {
        const auto make_one = [&](std::int64_t rows, std::int64_t cols) {
            const Dims shape{c.batch, rows, cols};
            return numel_of(shape) == 0 ? none(shape) : ones(shape);
        };
        const TensorPtr q = make_one(c.n, c.d), k = make_one(c.m, c.d), v = make_one(c.m, c.e), g = make_one(c.n, c.e);
        Tensor* probabilities = nullptr;
        const TensorPtr y(scaled_dot_product_attention(q.get(), k.get(), v.get(), nullptr, &probabilities));
        const TensorPtr p(probabilities);
        EXPECT_EQ(y->Shape(), (Dims{c.batch, c.n, c.e}));
        for (const float value : values_of<float>(y)) {
            EXPECT_NEAR(value, c.m == 0 ? 0 : 1, 1e-6F);  // A mean of ones, or of nothing.
        }
        const AttentionGradients gradients =
            scaled_dot_product_attention_grad(q.get(), k.get(), v.get(), p.get(), g.get());
        EXPECT_EQ(gradients.query->Shape(), q->Shape());
        EXPECT_EQ(gradients.key->Shape(), k->Shape());
        EXPECT_EQ(gradients.value->Shape(), v->Shape());
    }
    const TensorPtr w = ones({4, 4});
    const MultiHeadParameters maps{{w.get()}, {w.get()}, {w.get()}, {w.get()}};
    for (const Dims& shape : {Dims{0, 3, 4}, Dims{2, 0, 4}}) {
        const TensorPtr x = none(shape);
        MultiHeadState state;
        expect_none(multi_head_attention(maps, 2, x.get(), x.get(), x.get(), nullptr, &state), shape);
        const MultiHeadGradients gradients = multi_head_attention_grad(maps, x.get(), x.get(), x.get(), state, x.get());
        EXPECT_EQ(gradients.inputs.query->Shape(), shape);
        EXPECT_EQ(values_of<float>(gradients.output.weight), std::vector<float>(16, 0.0F));
    }
    const TensorPtr a = none({0, 3}), b = ones({3, 2}), c = none({0, 2}), sum(Tensor::ones({3, 2}, 0, dtype::float32));
    for (const int accumulate : {0, 1}) {
        Tensor::dot(a.get(), 0, b.get(), 0, c.get(), accumulate);
        Tensor::dot(a.get(), 1, c.get(), 0, sum.get(), accumulate);
        EXPECT_EQ(values_of<float>(sum), std::vector<float>(6, 0.0F));
    }
    expect_none(kron(a.get(), b.get()), {0, 6});
    expect_none(kron_grad_t1(none({0, 6}).get(), a.get(), b.get()), {0, 3});
    expect_zeros(kron_grad_t2(none({0, 6}).get(), a.get(), b.get()), {3, 2});
    const TensorPtr batch = none({0, 2, 3}), other = none({0, 3, 4}), out = none({0, 2, 4});
    Tensor::bmm(batch.get(), 0, other.get(), 0, out.get());
    // In place there is nothing to do.
    a->add_tensor_inplace(a.get());
    a->mult_scalar_inplace(2.0F);
    a->masked_fill_inplace(none({0, 3}, dtype::boolean).get(), 1.0F);
}

}  // namespace
}  // namespace ornik::test
