// Pooling, normalizations, activations and dropout as functions: the layers' bits, and what the layers lack.
#include <cmath>
#include <limits>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using LayerPtr = std::unique_ptr<Layer>;

TensorPtr nothing(const Dims& shape, std::int64_t dtype = dtype::float64) {
    TensorPtr t(new Tensor);
    t->initialize_none_tensor(shape, dtype, 0, layout::dense);
    return t;
}

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
            expect_gradient([&](Tensor* t) { return nn::adaptive_average_pool(t, extents); }, x.get(), g.get(),
                            nn::adaptive_average_pool_grad(g.get(), x->Shape()).get());
        }
    }
    const TensorPtr row = make<float>({1, 1, 3}, {1, 2, 6});
    EXPECT_EQ(values_of<float>(nn::adaptive_average_pool(row.get(), {2, 0})), (std::vector<float>{1.5F, 4}));
}

TEST(PoolFunctions, NoSamplesAndRefusals) {
    const TensorPtr none = nothing({0, 2, 4, 4});
    const nn::PoolParameters two{{2, 2}, {2, 2}, {0, 0}};
    const nn::MaxPool y = nn::max_pool(none.get(), two);
    EXPECT_EQ(y.output->Shape(), (Dims{0, 2, 2, 2}));
    EXPECT_EQ(nn::max_pool_grad(y.output.get(), y.positions.get(), none->Shape(), two)->Shape(), none->Shape());
    EXPECT_EQ(nn::average_pool_grad(nn::average_pool(none.get(), two).get(), none->Shape(), two)->Shape(),
              none->Shape());
    EXPECT_EQ(nn::adaptive_average_pool(none.get(), {3, 3})->Shape(), (Dims{0, 2, 3, 3}));
    const TensorPtr x = random_tensor({1, 1, 4, 4}, dtype::float32, 1), g = make_empty({1, 1, 2, 2}, dtype::float32);
    const TensorPtr far = make<std::int32_t>({1, 1, 2, 2}, {0, 1, 2, 16}), flat = make_empty({4}, dtype::float32);
    const Refusal rows[] = {
        {"max_pool", [&] { nn::max_pool(nullptr, two); }, "max_pool needs an input."},
        {"max_pool", [&] { nn::max_pool(flat.get(), two); },
         "max_pool needs an input (N, C, L) or (N, C, H, W), however it is ( 4 ) "},
        {"max_pool", [&] { nn::max_pool(far.get(), two); }, "Not valid dtype for this function."},
        {"max_pool",
         [&] {
             nn::max_pool(x.get(), {{2, 2}, {1, 0}, {0, 0}});
         },
         "Kernel and stride of max_pool should be at least 1, however they are 2 and 0"},
        {"average_pool",
         [&] {
             nn::average_pool(x.get(), {{2, 2}, {1, 1}, {0, 2}});
         },
         "The padding of average_pool should be at least 0 and less than its kernel, however it is 2"},
        {"average_pool",
         [&] {
             nn::average_pool(x.get(), {{5, 1}, {1, 1}, {0, 0}});
         },
         "Invalid output shape: a window of 5 does not fit into 4 positions of average_pool's input"},
        {"average_pool_grad", [&] { nn::average_pool_grad(x.get(), x->Shape(), two); },
         "The output of average_pool has the shape ( 1, 1, 2, 2 ) but its gradient the shape ( 1, 1, 4, 4 ) "},
        {"max_pool_grad", [&] { nn::max_pool_grad(g.get(), g.get(), x->Shape(), two); },
         "The saved positions of pooling should be one int32 tensor of its output's shape."},
        {"max_pool_grad", [&] { nn::max_pool_grad(g.get(), far.get(), x->Shape(), two); },
         "The saved positions of pooling are out of range."},
        {"adaptive_average_pool",
         [&] {
             nn::adaptive_average_pool(x.get(), {2, 0});
         },
         "adaptive_average_pool needs output extents of at least 1, however one is 0"},
    };
    expect_refusals(rows, "ornik::nn::", "src/layers/functional/pool.cpp");
}

// One normalization in three forms, of x [4, 6, 5].
struct Norm {
    const char* name;
    Dims parameters;
    std::function<nn::Normalized(Tensor* x, Tensor* gamma, Tensor* beta)> forward;
    std::function<nn::NormGradients(Tensor* g, Tensor* x, Tensor* gamma, Tensor* mean, Tensor* variance,
                                    const std::array<bool, 3>& wanted)>
        backward;
    std::function<TensorPtr(Tensor* gamma, Tensor* beta, Tensor* x)> layer;
};

const Norm norms[] = {
    {"batch",
     {6},
     [](auto* x, auto* w, auto* b) { return nn::batch_norm(x, w, b, 1e-3); },
     [](auto* g, auto* x, auto* w, auto* m, auto* v, auto& k) {
         return nn::batch_norm_grad(g, x, w, m, v, 1e-3, false, k);
     },
     [](auto* w, auto* b, auto* x) {
         return TensorPtr(LBatchNorm(true, 0.1F, 1e-3F, "", 0, 0).forward_dyn(w, b, x, true, nullptr, nullptr));
     }},
    {"layer",
     {6, 5},
     [](auto* x, auto* w, auto* b) { return nn::layer_norm(x, 2, w, b, 1e-3); },
     [](auto* g, auto* x, auto* w, auto* m, auto* v, auto& k) {
         return nn::layer_norm_grad(g, x, 2, w, m, v, 1e-3, k);
     },
     [](auto* w, auto* b, auto* x) { return TensorPtr(LLayerNorm(true, 1e-3F, "", 0, 0).forward_dyn(w, b, x, true)); }},
    {"group",
     {6},
     [](auto* x, auto* w, auto* b) { return nn::group_norm(x, 3, w, b, 1e-3); },
     [](auto* g, auto* x, auto* w, auto* m, auto* v, auto& k) {
         return nn::group_norm_grad(g, x, 3, w, m, v, 1e-3, k);
     },
     [](auto* w, auto* b, auto* x) {
         return TensorPtr(LGroupNorm(3, 6, true, 1e-3F, "", 0, 0).forward_dyn(w, b, x, true));
     }},
};

TEST(NormFunctions, ValuesGradientsAndSubsets) {
    for (const Norm& norm : norms) {
        SCOPED_TRACE(norm.name);
        const TensorPtr x = random_tensor({4, 6, 5}, dtype::float64, 1, Layout::transposed);
        const TensorPtr w = random_tensor(norm.parameters, dtype::float64, 2, Layout::every_other);
        const TensorPtr b = random_tensor(norm.parameters, dtype::float64, 3);
        const TensorPtr g = random_tensor({4, 6, 5}, dtype::float64, 4, Layout::reversed);
        const nn::Normalized y = norm.forward(x.get(), w.get(), b.get());
        const TensorPtr same = norm.layer(w.get(), b.get(), x.get());
        const std::vector<double> ys = values_of<double>(y.output), expected = values_of<double>(same);
        for (std::size_t i = 0; i < ys.size(); ++i) {
            EXPECT_NEAR(ys[i], expected[i], 1e-7);  // The layer's eps is a single-precision number.
        }
        const auto output = [&](Tensor* a, Tensor* c, Tensor* d) { return std::move(norm.forward(a, c, d).output); };
        const auto all = norm.backward(g.get(), x.get(), w.get(), y.mean.get(), y.variance.get(), {true, true, true});
        expect_gradient([&](Tensor* t) { return output(t, w.get(), b.get()); }, x.get(), g.get(), all.input.get());
        expect_gradient([&](Tensor* t) { return output(x.get(), t, b.get()); }, w.get(), g.get(), all.gamma.get());
        expect_gradient([&](Tensor* t) { return output(x.get(), w.get(), t); }, b.get(), g.get(), all.beta.get());
        for (std::size_t one = 0; one < 3; ++one) {
            std::array<bool, 3> wanted{};
            wanted[one] = true;
            const auto some = norm.backward(g.get(), x.get(), w.get(), y.mean.get(), y.variance.get(), wanted);
            const TensorPtr* got[] = {&some.input, &some.gamma, &some.beta};
            const TensorPtr* whole[] = {&all.input, &all.gamma, &all.beta};
            for (std::size_t i = 0; i < 3; ++i) {
                ASSERT_EQ(*got[i] != nullptr, i == one);
            }
            EXPECT_EQ(bytes_of(*got[one]), bytes_of(*whole[one]));
        }
        const TensorPtr none = nothing({0, 6, 5});
        const nn::Normalized empty = norm.forward(none.get(), w.get(), b.get());
        EXPECT_EQ(empty.output->Shape(), none->Shape());
        const auto zero =
            norm.backward(none.get(), none.get(), w.get(), empty.mean.get(), empty.variance.get(), {true, true, true});
        EXPECT_EQ(zero.input->Shape(), none->Shape());
        EXPECT_EQ(doubles_of(zero.gamma.get()), std::vector<double>(static_cast<std::size_t>(w->Size())));
    }
}

TEST(NormFunctions, RunningStatistics) {
    const TensorPtr x = random_tensor({3, 2, 4}, dtype::float64, 1), w = random_tensor({2}, dtype::float64, 2);
    const nn::Normalized batch = nn::batch_norm(x.get(), nullptr, nullptr);
    const TensorPtr mean = make<double>({2}, {1, 2}), variance = make<double>({2}, {3, 4});
    nn::update_running_statistics(mean.get(), variance.get(), batch.mean.get(), batch.variance.get(), 0, 0.5F);
    EXPECT_EQ(values_of<double>(mean), (std::vector<double>{1, 2}));
    nn::update_running_statistics(mean.get(), variance.get(), batch.mean.get(), batch.variance.get(), 12, 0.25);
    for (std::size_t c = 0; c < 2; ++c) {
        const double m = values_of<double>(batch.mean)[c], v = values_of<double>(batch.variance)[c];
        EXPECT_NEAR(values_of<double>(mean)[c], 0.75 * static_cast<double>(1 + c) + 0.25 * m, 1e-14);
        EXPECT_NEAR(values_of<double>(variance)[c], 0.75 * static_cast<double>(3 + c) + 0.25 * v * 12 / 11, 1e-14);
    }
    // By fixed statistics the gradient does not pass through them.
    const auto by = [&](Tensor* t) { return nn::batch_norm_by(t, mean.get(), variance.get(), w.get(), nullptr); };
    const TensorPtr g = random_tensor({3, 2, 4}, dtype::float64, 3);
    expect_gradient(by, x.get(), g.get(),
                    nn::batch_norm_grad(g.get(), x.get(), w.get(), mean.get(), variance.get(), 1e-5, true).input.get());
    const TensorPtr wide = random_tensor({3, 4}, dtype::float64, 4), single = make_empty({2}, dtype::float32);
    Tensor* const m = mean.get();
    Tensor* const v = variance.get();
    const Refusal rows[] = {
        {"batch_norm", [&] { nn::batch_norm(x.get(), nullptr, nullptr, 0); }, "eps should be a positive number"},
        {"batch_norm", [&] { nn::batch_norm(m, nullptr, nullptr); },
         "batchnorm needs an input [N, C, ...], however it is ( 2 ) "},
        {"batch_norm_by", [&] { nn::batch_norm_by(x.get(), nullptr, nullptr, nullptr, nullptr); },
         "batchnorm needs running statistics for inference, both or neither in training."},
        {"update_running_statistics", [=] { nn::update_running_statistics(m, m, m, v, 2, 0.1); },
         "The running statistics of batchnorm overlap in memory."},
        {"update_running_statistics", [=] { nn::update_running_statistics(m, v, m, v, 2, 1.5); },
         "The momentum of batchnorm should be in [0, 1]"},
        {"update_running_statistics", [&] { nn::update_running_statistics(m, v, single.get(), v, 2, 0.1); },
         "Not same data type for inputs of batchnorm."},
        {"layer_norm", [&] { nn::layer_norm(x.get(), 0, nullptr, nullptr); },
         "layer norm needs an input with at least the axes of its parameters, however it is ( 3, 2, 4 ) "},
        {"group_norm", [&] { nn::group_norm(wide.get(), 3, nullptr, nullptr); },
         "group norm can not divide 4 channels into 3 groups"},
        {"group_norm_grad", [&] { nn::group_norm_grad(wide.get(), wide.get(), 2, nullptr, m, v, 1e-5); },
         "The saved statistics of group norm should be two tensors of shape ( 3, 2 ) "},
    };
    expect_refusals(rows, "ornik::nn::", "src/layers/functional/normalization.cpp");
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
            expect_gradient(f.forward, x.get(), g.get(), gradient.get());
            if (f.from_output) {
                EXPECT_EQ(bytes_of(f.from_output(y.get(), g.get())), bytes_of(gradient));
            }
            f.inplace(x.get());
            EXPECT_EQ(bytes_of(x), bytes_of(y));
        }
        const TensorPtr none = nothing({3, 0});
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

TEST(ActivationFunctions, Refusals) {
    const TensorPtr x = random_tensor({2, 2}, dtype::float32, 1), wide = random_tensor({2, 2}, dtype::float64, 1);
    const TensorPtr whole = make_empty({2, 2}, dtype::int32), row = make_empty({4}, dtype::float32);
    const TensorPtr twice(Tensor::broadcast_to(TensorPtr(Tensor::ones({1}, 0, dtype::float32)).get(), {2}));
    const Refusal rows[] = {
        {"mish", [&] { nn::mish(whole.get()); }, "Not valid dtype for this function."},
        {"relu", [&] { nn::relu(nullptr); }, "An activation needs its input."},
        {"relu_grad", [&] { nn::relu_grad(x.get(), wide.get()); }, "Not same data type for inputs of activation."},
        {"relu_grad", [&] { nn::relu_grad(x.get(), row.get()); },
         "The output of activation has the shape ( 2, 2 ) but its gradient the shape ( 4 ) "},
        {"elu_grad", [&] { nn::elu_grad(x.get(), row.get(), x.get()); }, "Not same shape for inputs of activation."},
        {"elu", [&] { nn::elu(x.get(), std::numeric_limits<float>::infinity()); },
         "The parameter of an activation should be finite"},
        {"hardtanh", [&] { nn::hardtanh(x.get(), 1, 1); }, "The bounds of hardtanh should be low < high"},
        {"selu_inplace", [&] { nn::selu_inplace(twice.get()); },
         "Output can not be an expanded view: shape ( 2 ) , strides ( 0 ) "},
    };
    expect_refusals(rows, "ornik::nn::", "src/layers/functional/activation.cpp");
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
    EXPECT_EQ(nn::dropout(nothing({0, 3}).get(), 0.5).output->Shape(), (Dims{0, 3}));
}

TEST(DropoutFunctions, WholeChannelsAndRefusals) {
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
    const TensorPtr whole = make_empty({3}, dtype::int32), row = make_empty({3}, dtype::float32);
    const Refusal rows[] = {
        {"dropout", [&] { nn::dropout(whole.get(), 0.5); }, "dropout only support float or complex as dtype."},
        {"dropout", [&] { nn::dropout(row.get(), 1.5); }, "Probability should be in the range of [0, 1]."},
        {"dropout_channels", [&] { nn::dropout_channels(row.get(), 0.5); },
         "dropout of channels needs an input [N, C, ...], however it is ( 3 ) "},
        {"dropout_grad", [&] { nn::dropout_grad(row.get(), d.kept.get(), 0.5); },
         "dropout needs a bool mask of the leading axes of ( 3 ) "},
    };
    expect_refusals(rows, "ornik::nn::", "src/layers/functional/dropout.cpp");
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
            expect_gradient([&](Tensor* t) { return nn::linear(t, w.get(), b.get()); }, x.get(), g.get(),
                            grads.input.get());
            expect_gradient([&](Tensor* t) { return nn::linear(x.get(), t, b.get()); }, w.get(), g.get(),
                            grads.weight.get());
            expect_gradient([&](Tensor* t) { return nn::linear(x.get(), w.get(), t); }, b.get(), g.get(),
                            grads.bias.get());
            const auto some = nn::linear_grad(g.get(), x.get(), w.get(), {false, true, false});
            EXPECT_TRUE(some.input == nullptr && some.bias == nullptr);
            EXPECT_EQ(bytes_of(some.weight), bytes_of(grads.weight));
        }
    }
    const TensorPtr none = nothing({0, 4}), w = random_tensor({5, 4}, dtype::float64, 2), row = nothing({0, 5});
    EXPECT_EQ(nn::linear(none.get(), w.get(), nullptr)->Shape(), row->Shape());
    const auto grads = nn::linear_grad(row.get(), none.get(), w.get());
    EXPECT_EQ(grads.input->Shape(), none->Shape());
    EXPECT_EQ(doubles_of(grads.weight.get()), std::vector<double>(20));
    EXPECT_EQ(doubles_of(grads.bias.get()), std::vector<double>(5));
    const TensorPtr single = make_empty({2, 4}, dtype::float32), whole = make_empty({2, 4}, dtype::int32);
    const TensorPtr x = make_empty({2, 4}, dtype::float64), scalar = make_empty({}, dtype::float64);
    const Refusal rows[] = {
        {"linear", [&] { nn::linear(nullptr, w.get(), nullptr); },
         "linear needs an input, a weight and, for its gradients, that of the output."},
        {"linear", [&] { nn::linear(whole.get(), w.get(), nullptr); }, "Not valid dtype for this function."},
        {"linear", [&] { nn::linear(single.get(), w.get(), nullptr); }, "Not same data type for inputs of linear."},
        {"linear", [&] { nn::linear(row.get(), w.get(), nullptr); },
         "linear needs an input [..., in] and a weight [out, in], however they are ( 0, 5 ) and ( 5, 4 ) "},
        {"linear", [&] { nn::linear(x.get(), w.get(), x.get()); },
         "The bias of linear with 5 outputs has the shape ( 2, 4 ) "},
        {"linear_input_grad", [&] { nn::linear_input_grad(x.get(), w.get()); },
         "linear needs an output gradient [..., out] and a weight [out, in], however they are ( 2, 4 ) and ( 5, 4 ) "},
        {"linear_weight_grad", [&] { nn::linear_weight_grad(w.get(), x.get()); },
         "linear needs an output gradient [..., out] and an input [..., in], however they are ( 5, 4 ) and ( 2, 4 ) "},
        {"linear_bias_grad", [&] { nn::linear_bias_grad(scalar.get()); },
         "linear needs an output gradient [..., out], however it is empty vector\n"},
    };
    expect_refusals(rows, "ornik::nn::", "src/layers/functional/linear.cpp");
}

TEST(EmbeddingFunctions, RowsPaddingAndRefusals) {
    for (const Layout layout : all_layouts) {
        const TensorPtr w = random_tensor({6, 3}, dtype::complex128, 1, layout);
        const TensorPtr at = make<std::int32_t>({2, 4}, {5, 0, 2, 2, 1, 5, 5, 0}, layout);
        const TensorPtr g = random_tensor({2, 4, 3}, dtype::complex128, 2, layout);
        const TensorPtr y = nn::embedding(at.get(), w.get());
        const LayerPtr layer(_Embedding(6, 3, ""));
        EXPECT_EQ(bytes_of(y), bytes_of(TensorPtr(layer->forward_dyn(w.get(), nullptr, at.get()))));
        const TensorPtr grad = nn::embedding_grad(g.get(), at.get(), 6);
        EXPECT_EQ(bytes_of(grad), bytes_of(TensorPtr(layer->backward_dyn(w.get(), nullptr, at.get(), g.get(), 1))));
        const auto values = values_of<Complex<double>>(grad);
        const auto padded = values_of<Complex<double>>(nn::embedding_grad(g.get(), at.get(), 6, 5));
        for (std::size_t i = 0; i < values.size(); ++i) {
            EXPECT_EQ(padded[i].real, i < 15 ? values[i].real : 0);
        }
    }
    const TensorPtr w = random_tensor({6, 3}, dtype::float64, 1), none = nothing({0, 2}, dtype::int64);
    EXPECT_EQ(nn::embedding(none.get(), w.get())->Shape(), (Dims{0, 2, 3}));
    EXPECT_EQ(doubles_of(nn::embedding_grad(nothing({0, 2, 3}).get(), none.get(), 6).get()), std::vector<double>(18));
    const TensorPtr far = make<std::int64_t>({1}, {6}), g = make_empty({1, 3}, dtype::float64);
    const Refusal rows[] = {
        {"embedding", [&] { nn::embedding(nullptr, w.get()); }, "Embedding needs a weight and an input."},
        {"embedding", [&] { nn::embedding(w.get(), w.get()); }, "Embedding needs integers as input."},
        {"embedding", [&] { nn::embedding(far.get(), far.get()); }, "Embedding only supports float or complex."},
        {"embedding", [&] { nn::embedding(far.get(), TensorPtr(w->flatten(0, 1)).get()); },
         "Embedding needs a weight [rows, width], however it is ( 18 ) "},
        {"embedding", [&] { nn::embedding(far.get(), w.get()); }, "Embedding index out of range, there are 6 rows."},
        {"embedding_grad", [&] { nn::embedding_grad(w.get(), far.get(), 6); },
         "Embedding needs a gradient of its output's shape."},
        {"embedding_grad", [&] { nn::embedding_grad(g.get(), far.get(), 7, 7); },
         "Embedding needs a padding index inside its rows, of which there are 7"},
    };
    expect_refusals(rows, "ornik::nn::", "src/layers/functional/embedding.cpp");
}

}  // namespace
}  // namespace ornik::test
