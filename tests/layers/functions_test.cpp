// Pooling, activations, dropout, linear maps and embeddings as functions: values, gradients, and the layers' bits.
#include <cmath>
#include <limits>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using LayerPtr = std::unique_ptr<Layer>;

TEST(PoolFunctions, TheBitsOfTheLayers) {
    const TensorPtr x = random_tensor({2, 3, 9, 7}, dtype::float32, 1, Layout::transposed);
    const nn::PoolParameters p{{3, 2}, {2, 1}, {1, 0}};
    std::vector<Tensor*> saved;
    const LayerPtr max(_MaxPool2D({3, 2}, {2, 1}, std::vector<int>{1, 0}, ""));
    const nn::MaxPool y = nn::max_pool(x.get(), p);
    const TensorPtr g = random_tensor(y.output->Shape(), dtype::float32, 2, Layout::reversed);
    EXPECT_EQ(bytes_of(y.output), bytes_of(TensorPtr(max->forward_dyn(x.get()))));
    EXPECT_EQ(bytes_of(y.positions), bytes_of(max->get_fwd_cache()[0]));
    EXPECT_EQ(bytes_of(nn::max_pool_grad(g.get(), y.positions.get(), x->Shape(), p)),
              bytes_of(TensorPtr(max->backward_dyn(x.get(), g.get(), saved))));
    const LayerPtr average(_AvgPool2D({3, 2}, {2, 1}, std::vector<int>{1, 0}, ""));
    EXPECT_EQ(bytes_of(nn::average_pool(x.get(), p)), bytes_of(TensorPtr(average->forward_dyn(x.get()))));
    EXPECT_EQ(bytes_of(nn::average_pool_grad(g.get(), x->Shape(), p)),
              bytes_of(TensorPtr(average->backward_dyn(x.get(), g.get(), saved))));
    const TensorPtr row = random_tensor({1, 2, 11}, dtype::float32, 3);
    EXPECT_EQ(bytes_of(nn::max_pool(row.get(), {{4, 0}, {3, 0}, {2, 0}}).output),
              bytes_of(TensorPtr(LayerPtr(_MaxPool1D({4}, {3}, std::vector<int>{2}, ""))->forward_dyn(row.get()))));
}

TEST(PoolFunctions, AdaptiveWindows) {
    const std::int64_t outputs[][2] = {{1, 1}, {3, 2}, {4, 7}, {6, 10}};
    for (const std::int64_t dtype : {dtype::float64, dtype::complex128}) {
        for (const auto& [rows, cols] : outputs) {
            const TensorPtr x = random_tensor({2, 2, 6, 7}, dtype, 5, Layout::every_other);
            const std::array<std::int64_t, 2> extents{rows, cols};
            const TensorPtr y = nn::adaptive_average_pool(x.get(), extents);
            ASSERT_EQ(y->Shape(), (Dims{2, 2, rows, cols}));
            const auto in = values_of<Complex<double>>(TensorPtr(x->astype(dtype::complex128)));
            const auto out = values_of<Complex<double>>(TensorPtr(y->astype(dtype::complex128)));
            for (std::int64_t i = 0; i < 4 * rows * cols; ++i) {
                const std::int64_t r = i / cols % rows, c = i % cols, plane = i / (rows * cols);
                double real = 0, imag = 0, count = 0;
                for (std::int64_t a = r * 6 / rows; a * rows < (r + 1) * 6; ++a) {
                    for (std::int64_t b = c * 7 / cols; b * cols < (c + 1) * 7; ++b, ++count) {
                        const auto z = in[static_cast<std::size_t>((plane * 6 + a) * 7 + b)];
                        real += z.real;
                        imag += z.imag;
                    }
                }
                EXPECT_NEAR(out[static_cast<std::size_t>(i)].real, real / count, 1e-14);
                EXPECT_NEAR(out[static_cast<std::size_t>(i)].imag, imag / count, 1e-14);
            }
            const TensorPtr g = random_tensor(y->Shape(), dtype, 6, Layout::transposed);
            expect_gradient([&](Tensor* t) { return nn::adaptive_average_pool(t, extents); }, x, g,
                            nn::adaptive_average_pool_grad(g.get(), x->Shape()));
        }
    }
    const TensorPtr row = make<float>({1, 1, 3}, {1, 2, 6});
    EXPECT_EQ(values_of<float>(nn::adaptive_average_pool(row.get(), {2, 0})), (std::vector<float>{1.5F, 4}));
}

TEST(PoolFunctions, NoSamplesAndRefusals) {
    const TensorPtr none = make_empty({0, 2, 4, 4}, dtype::float64);
    const nn::PoolParameters two{{2, 2}, {2, 2}, {0, 0}};
    const nn::MaxPool y = nn::max_pool(none.get(), two);
    EXPECT_EQ(y.output->Shape(), (Dims{0, 2, 2, 2}));
    EXPECT_EQ(nn::max_pool_grad(y.output.get(), y.positions.get(), none->Shape(), two)->Shape(), none->Shape());
    EXPECT_EQ(nn::average_pool_grad(nn::average_pool(none.get(), two).get(), none->Shape(), two)->Shape(),
              none->Shape());
    EXPECT_EQ(nn::adaptive_average_pool(none.get(), {3, 3})->Shape(), (Dims{0, 2, 3, 3}));
    const TensorPtr g = make_empty({1, 1, 2, 2}, dtype::float32);
    const TensorPtr far = make<std::int32_t>({1, 1, 2, 2}, {0, 1, 2, 16});
    const Dims image{1, 1, 4, 4};
    const Refusal rows[] = {
        {"", [&] { nn::max_pool_grad(g.get(), g.get(), image, two); },
         "The saved positions of pooling should be one int32 tensor of its output's shape."},
        {"", [&] { nn::max_pool_grad(g.get(), far.get(), image, two); },
         "The saved positions of pooling are out of range."},
    };
    expect_refusals(rows, "ornik::nn::max_pool_grad", "src/layers/functional/pool.cpp");
}

struct Activation {
    const char* name;
    std::function<double(double)> reference;
    std::function<TensorPtr(Tensor*)> forward;
    std::function<void(Tensor*)> inplace;
    // From the input, and from the output where that is enough.
    std::function<TensorPtr(Tensor* x, Tensor* g)> backward;
    std::function<TensorPtr(Tensor* y, Tensor* g)> from_output;
};

double cut(double x, double low, double high) { return std::min(std::max(x, low), high); }
constexpr double selu_above = 1.05070098735548049342;
constexpr double selu_below = selu_above * 1.67326324235437728482;

const Activation activations[] = {
    {"relu", [](double x) { return std::max(x, 0.0); }, nn::relu, nn::relu_inplace, nn::relu_grad, nn::relu_grad},
    {"leaky_relu", [](double x) { return x > 0 ? x : 0.25 * x; }, [](auto* x) { return nn::leaky_relu(x, 0.25); },
     [](auto* x) { nn::leaky_relu_inplace(x, 0.25); }, [](auto* x, auto* g) { return nn::leaky_relu_grad(x, g, 0.25); },
     [](auto* y, auto* g) { return nn::leaky_relu_grad(y, g, 0.25); }},
    {"elu", [](double x) { return x > 0 ? x : 1.5 * std::expm1(x); }, [](auto* x) { return nn::elu(x, 1.5); },
     [](auto* x) { nn::elu_inplace(x, 1.5); },
     [](auto* x, auto* g) { return nn::elu_grad(x, nn::elu(x, 1.5).get(), g, 1.5); },
     [](auto* y, auto* g) { return nn::elu_grad(y, y, g, 1.5); }},
    {"selu", [](double x) { return x > 0 ? selu_above * x : selu_below * std::expm1(x); }, nn::selu, nn::selu_inplace,
     [](auto* x, auto* g) { return nn::selu_grad(nn::selu(x).get(), g); }, nn::selu_grad},
    {"hardtanh", [](double x) { return cut(x, -1, 2); }, [](auto* x) { return nn::hardtanh(x, -1, 2); },
     [](auto* x) { nn::hardtanh_inplace(x, -1, 2); }, [](auto* x, auto* g) { return nn::hardtanh_grad(x, g, -1, 2); },
     [](auto* y, auto* g) { return nn::hardtanh_grad(y, g, -1, 2); }},
    {"hardsigmoid", [](double x) { return cut(x + 3, 0, 6) / 6; }, nn::hardsigmoid, nn::hardsigmoid_inplace,
     nn::hardsigmoid_grad, nullptr},
    {"hardswish", [](double x) { return x * cut(x + 3, 0, 6) / 6; }, nn::hardswish, nn::hardswish_inplace,
     nn::hardswish_grad, nullptr},
    {"mish", [](double x) { return x * std::tanh(std::log1p(std::exp(x))); }, nn::mish, nn::mish_inplace, nn::mish_grad,
     nullptr},
};

TEST(ActivationFunctions, ValuesFormsAndGradients) {
    std::vector<double> points;
    for (int i = 0; i < 36; ++i) {
        points.push_back(0.31 * (i - 17.5));  // Kinks, at whole numbers, lie between them.
    }
    for (const Activation& f : activations) {
        for (const Layout layout : all_layouts) {
            SCOPED_TRACE(f.name + ("/" + name_of(layout)));
            const TensorPtr x = make<double>({4, 9}, points, layout);
            const TensorPtr y = f.forward(x.get());
            for (std::size_t i = 0; i < points.size(); ++i) {
                EXPECT_NEAR(values_of<double>(y)[i], f.reference(points[i]), 4e-15);
            }
            const TensorPtr g = random_tensor({4, 9}, dtype::float64, 7, layout);
            const TensorPtr gradient = f.backward(x.get(), g.get());
            expect_gradient(f.forward, x, g, gradient);
            if (f.from_output) {
                EXPECT_EQ(bytes_of(f.from_output(y.get(), g.get())), bytes_of(gradient));
            }
            f.inplace(x.get());
            EXPECT_EQ(bytes_of(x), bytes_of(y));
        }
        const TensorPtr none = make_empty({3, 0}, dtype::float64);
        EXPECT_EQ(f.forward(none.get())->Shape(), none->Shape());
        EXPECT_EQ(f.backward(none.get(), none.get())->Shape(), none->Shape());
        const float large = 3e38F;
        const TensorPtr ends = make<float>({3}, {-large, large, std::numeric_limits<float>::quiet_NaN()});
        const std::vector<float> y = values_of<float>(f.forward(ends.get()));
        EXPECT_TRUE(std::isfinite(y[0])) << f.name;
        EXPECT_TRUE(std::isnan(y[2])) << f.name;
        const TensorPtr one = make<float>({3}, {1, 1, 1});
        const std::vector<float> slopes = values_of<float>(f.backward(ends.get(), one.get()));
        EXPECT_TRUE(std::isfinite(slopes[0]) && std::isfinite(slopes[1])) << f.name;
    }
    const TensorPtr counts = make<std::int32_t>({3}, {-2, 3, 9});
    EXPECT_EQ(values_of<std::int32_t>(nn::hardtanh(counts.get(), 0, 6)), (std::vector<std::int32_t>{0, 3, 6}));
}

TEST(DropoutFunctions, TheDrawsOfTheMask) {
    for (const std::int64_t dtype : {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128}) {
        for (const Layout layout : all_layouts) {
            for (const double p : {0.0, 0.3, 1.0}) {
                const TensorPtr x = random_tensor({5, 401}, dtype, 1, layout);
                set_random_seed(11);
                const TensorPtr mask(Tensor::dropout_mask(x->Shape(), p, 0, dtype));
                const TensorPtr expected(x->mult_tensor(mask.get()));
                set_random_seed(11);
                const nn::Dropped d = nn::dropout(x.get(), p);
                EXPECT_TRUE(d.output->all_close(expected.get(), 0, 0));
                const TensorPtr kept(mask->not_equal_scalar(Scalar(0)));
                EXPECT_EQ(bytes_of(d.kept), bytes_of(kept));
                EXPECT_EQ(bytes_of(nn::dropout_grad(x.get(), d.kept.get(), p)), bytes_of(d.output));
            }
        }
    }
    const TensorPtr hot = make<float>({2}, {std::numeric_limits<float>::infinity(), 1});
    EXPECT_EQ(values_of<float>(nn::dropout(hot.get(), 1).output), (std::vector<float>{0, 0}));
    EXPECT_EQ(nn::dropout(make_empty({0, 3}, dtype::float64).get(), 0.5).output->Shape(), (Dims{0, 3}));
}

TEST(DropoutFunctions, WholeChannels) {
    set_random_seed(3);
    const TensorPtr x(Tensor::ones({4, 50, 3}, 0, dtype::float64));
    const nn::Dropped d = nn::dropout_channels(x.get(), 0.5);
    const std::vector<double> y = values_of<double>(d.output);
    const std::string kept = bytes_of(d.kept);
    ASSERT_EQ(kept.size(), 200U);
    for (std::size_t i = 0; i < y.size(); ++i) {
        EXPECT_EQ(y[i], kept[i / 3] != 0 ? 2 : 0);
    }
    EXPECT_GT(std::count(kept.begin(), kept.end(), 1), 60);
    EXPECT_LT(std::count(kept.begin(), kept.end(), 1), 140);
    EXPECT_EQ(bytes_of(nn::dropout_grad(x.get(), d.kept.get(), 0.5)), bytes_of(d.output));
}

TEST(LinearFunctions, ValuesAndGradients) {
    for (const std::int64_t dtype : {dtype::float64, dtype::complex128}) {
        for (const Layout layout : all_layouts) {
            const TensorPtr x = random_tensor({2, 3, 4}, dtype, 1, layout), w = random_tensor({5, 4}, dtype, 2, layout);
            const TensorPtr b = random_tensor({5}, dtype, 3, layout), g = random_tensor({2, 3, 5}, dtype, 4, layout);
            const TensorPtr y = nn::linear(x.get(), w.get(), b.get());
            // The dense layer has the transposed weight.
            const TensorPtr turned(w->permute({1, 0}));
            const LayerPtr dense(_Dense(5, true, ""));
            EXPECT_TRUE(y->all_close(TensorPtr(dense->forward_dyn(turned.get(), b.get(), x.get())).get(), 0, 1e-14));
            const auto grads = nn::linear_grad(g.get(), x.get(), w.get());
            const TensorPtr turned_back(grads.weight->permute({1, 0}));
            Tensor* const by_node[] = {grads.input.get(), turned_back.get(), grads.bias.get()};
            for (const int node : {0, 1, 2}) {
                const TensorPtr gradient(dense->backward_dyn(turned.get(), b.get(), x.get(), g.get(), node));
                EXPECT_TRUE(gradient->all_close(by_node[node], 0, 1e-14)) << node;
            }
            expect_gradient([&](Tensor* t) { return nn::linear(t, w.get(), b.get()); }, x, g, grads.input);
            expect_gradient([&](Tensor* t) { return nn::linear(x.get(), t, b.get()); }, w, g, grads.weight);
            expect_gradient([&](Tensor* t) { return nn::linear(x.get(), w.get(), t); }, b, g, grads.bias);
            const auto some = nn::linear_grad(g.get(), x.get(), w.get(), {false, true, false});
            EXPECT_TRUE(some.input == nullptr && some.bias == nullptr);
            EXPECT_EQ(bytes_of(some.weight), bytes_of(grads.weight));
            const nn::PreparedLinear prepared(w.get(), b.get());
            EXPECT_EQ(bytes_of(prepared(x.get())), bytes_of(y));
            if (dtype == dtype::float64) {
                const TensorPtr end = prepared(x.get(), nn::LinearEnd::relu, g.get());
                const auto found = values_of<double>(end), sums = values_of<double>(y), added = values_of<double>(g);
                for (std::size_t i = 0; i < found.size(); ++i) {
                    EXPECT_EQ(found[i], std::max(sums[i] + added[i], 0.0));
                }
            }
        }
    }
    const TensorPtr none = make_empty({0, 4}, dtype::float64), w = random_tensor({5, 4}, dtype::float64, 2),
                    row = make_empty({0, 5}, dtype::float64);
    EXPECT_EQ(nn::linear(none.get(), w.get(), nullptr)->Shape(), row->Shape());
    const nn::PreparedLinear prepared(w.get());
    EXPECT_EQ(prepared(none.get())->Shape(), row->Shape());
    const TensorPtr narrow(Tensor::ones({2, 3}, 0, dtype::float64)), single(Tensor::ones({2, 4}, 0, dtype::float32));
    EXPECT_REFUSAL(prepared(nullptr), "PreparedLinear needs an input.");
    EXPECT_REFUSAL(prepared(single.get()), "Not same data type");
    EXPECT_REFUSAL(prepared(narrow.get()), "PreparedLinear needs an input [..., 4], however it is ( 2, 3 ) ");
    EXPECT_REFUSAL(prepared(none.get(), nn::LinearEnd::relu, none.get()),
                   "PreparedLinear adds a residual of the shape ( 0, 5 ) , however it is ( 0, 4 ) ");
    EXPECT_REFUSAL(nn::PreparedLinear(narrow.get(), narrow.get()),
                   "The bias of PreparedLinear with 2 outputs has the shape ( 2, 3 ) ");
    const auto grads = nn::linear_grad(row.get(), none.get(), w.get());
    EXPECT_EQ(grads.input->Shape(), none->Shape());
    EXPECT_EQ(doubles_of(grads.weight.get()), std::vector<double>(20));
    EXPECT_EQ(doubles_of(grads.bias.get()), std::vector<double>(5));
}

TEST(EmbeddingFunctions, RowsAndPadding) {
    for (const Layout layout : all_layouts) {
        const TensorPtr w = random_tensor({6, 3}, dtype::complex128, 1, layout);
        const std::vector<std::int16_t> places{5, 0, 2, 2, 1, 5, 5, 0};
        const TensorPtr at = make<std::int16_t>({2, 4}, places, layout);
        const TensorPtr g = random_tensor({2, 4, 3}, dtype::complex128, 2, layout);
        const TensorPtr y = nn::embedding(at.get(), w.get());
        const auto table = values_of<Complex<double>>(w), rows = values_of<Complex<double>>(y);
        for (std::size_t i = 0; i < rows.size(); ++i) {
            EXPECT_EQ(rows[i], table[static_cast<std::size_t>(places[i / 3]) * 3 + i % 3]);
        }
        const LayerPtr layer(_Embedding(6, 3, ""));
        EXPECT_EQ(layer->get_name(), "embedding");
        EXPECT_EQ(bytes_of(y), bytes_of(TensorPtr(layer->forward_dyn(w.get(), nullptr, at.get()))));
        const TensorPtr grad = nn::embedding_grad(g.get(), at.get(), 6);
        EXPECT_EQ(bytes_of(grad), bytes_of(TensorPtr(layer->backward_dyn(w.get(), nullptr, at.get(), g.get(), 1))));
        expect_gradient([&](Tensor* t) { return nn::embedding(at.get(), t); }, w, g, grad);
        EXPECT_EQ(layer->backward_dyn(w.get(), nullptr, at.get(), g.get(), 0), nullptr);
        layer->_trainable = false;
        EXPECT_EQ(layer->backward_dyn(w.get(), nullptr, at.get(), g.get(), 1), nullptr);
        const auto values = values_of<Complex<double>>(grad);
        const auto padded = values_of<Complex<double>>(nn::embedding_grad(g.get(), at.get(), 6, 5));
        for (std::size_t i = 0; i < values.size(); ++i) {
            EXPECT_EQ(padded[i].real, i < 15 ? values[i].real : 0);
        }
    }
    const TensorPtr w = random_tensor({6, 3}, dtype::float64, 1), none = make_empty({0, 2}, dtype::int64);
    EXPECT_EQ(nn::embedding(none.get(), w.get())->Shape(), (Dims{0, 2, 3}));
    EXPECT_EQ(doubles_of(nn::embedding_grad(make_empty({0, 2, 3}, dtype::float64).get(), none.get(), 6).get()),
              std::vector<double>(18));
}

}  // namespace
}  // namespace ornik::test
