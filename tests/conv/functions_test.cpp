// Convolutions as functions: exactly against a list of products on small whole numbers, and against the layers.
#include <complex>
#include <random>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

using nn::ConvParameters;
using Wide = std::complex<double>;

// Visits (input element, weight element, output element) of every product, by the definition.
template <typename Visit>
void for_each_product(Dims in, Dims weight, Dims out, const ConvParameters& p, const Visit& visit) {
    for (Dims* shape : {&in, &weight, &out}) {
        shape->resize(4, 1);
    }
    // A transposed convolution exchanges what is read and what is written.
    const Dims& image = p.transposed ? out : in;
    const Dims& grid = p.transposed ? in : out;
    std::int64_t w = 0;
    for (std::int64_t o = 0; o < weight[0]; ++o) {
        for (std::int64_t c = 0; c < weight[1]; ++c) {
            for (std::int64_t i = 0; i < weight[2]; ++i) {
                for (std::int64_t j = 0; j < weight[3]; ++j, ++w) {
                    for (std::int64_t k = 0; k < in[0] * grid[2] * grid[3]; ++k) {
                        const std::int64_t n = k / (grid[2] * grid[3]), y = k / grid[3] % grid[2], x = k % grid[3];
                        const std::int64_t row = y * p.stride[0] - p.padding[0].begin + i * p.dilation[0];
                        const std::int64_t col = x * p.stride[1] - p.padding[1].begin + j * p.dilation[1];
                        if (row < 0 || row >= image[2] || col < 0 || col >= image[3]) {
                            continue;
                        }
                        const std::int64_t group = o / (weight[0] / p.groups);
                        const std::int64_t at_image =
                            ((n * image[1] + group * weight[1] + c) * image[2] + row) * image[3] + col;
                        const std::int64_t at_grid = ((n * grid[1] + o) * grid[2] + y) * grid[3] + x;
                        visit(p.transposed ? at_grid : at_image, w, p.transposed ? at_image : at_grid);
                    }
                }
            }
        }
    }
}

std::vector<Wide> wide(const Tensor* t) {
    std::vector<Wide> result;
    for (const Complex<double> z : values_of<Complex<double>>(TensorPtr(t->astype(dtype::complex128)))) {
        result.emplace_back(z.real, z.imag);
    }
    return result;
}

TensorPtr whole_numbers(const Dims& shape, std::int64_t dtype, unsigned seed, Layout layout) {
    TensorPtr t = random_tensor(shape, dtype::complex128, seed);
    auto* parts = static_cast<double*>(t->getRawData());
    std::transform(parts, parts + 2 * t->Size(), parts, [](double x) { return std::round(3 * x); });
    TensorPtr result = make_empty(shape, dtype, layout);
    result->copy_from_(t.get());
    return result;
}

struct Random {
    std::mt19937 engine;
    std::int64_t operator()(int low, int high) {
        return low + static_cast<int>(engine() % static_cast<unsigned>(high - low + 1));
    }
};

TEST(ConvFunctions, ValuesAndGradientsOfRandomSizes) {
    Random draw{std::mt19937(5)};
    const std::int64_t dtypes[] = {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128};
    int used = 0;
    for (unsigned round = 0; round < 160; ++round) {
        SCOPED_TRACE(testing::Message() << "case " << round);
        const bool flat = round % 3 == 0;
        ConvParameters p;
        p.transposed = round % 2 == 1;
        p.groups = draw(1, 3);
        Dims in{draw(1, 2), 0}, weight{p.groups * draw(1, 2), draw(1, 2)};
        in[1] = p.transposed ? weight[0] : weight[1] * p.groups;
        for (std::size_t i = 0; i < (flat ? 1U : 2U); ++i) {
            p.stride[i] = draw(1, 3);
            p.dilation[i] = draw(1, 2);
            p.padding[i] = {draw(0, 2), draw(0, 2)};
            p.output_padding[i] = p.transposed && p.stride[i] > 1 ? draw(0, 1) : 0;
            in.push_back(draw(5, 7));
            weight.push_back(draw(1, 3));
        }
        const std::int64_t dtype = dtypes[round % 4];
        const Layout layout = all_layouts[round % 5];
        const TensorPtr x = whole_numbers(in, dtype, 3 * round, layout);
        const TensorPtr w = whole_numbers(weight, dtype, 3 * round + 1, layout);
        const std::int64_t channels = p.transposed ? weight[1] * p.groups : weight[0];
        const TensorPtr b = whole_numbers({channels}, dtype, 3 * round + 2, layout);
        const TensorPtr y = nn::convolution(x.get(), w.get(), b.get(), p);
        const TensorPtr g = whole_numbers(y->Shape(), dtype, 3 * round + 7, layout);
        const std::array<bool, 3> wanted{round % 5 != 0, round % 7 != 0, round % 6 != 0};
        const nn::ConvGradients grads = nn::convolution_grad(g.get(), x.get(), w.get(), p, wanted);

        const std::vector<Wide> xs = wide(x.get()), ws = wide(w.get()), bs = wide(b.get()), gs = wide(g.get());
        const std::size_t positions = gs.size() / static_cast<std::size_t>(in[0] * channels);
        std::vector<Wide> ys(gs.size()), gx(xs.size()), gw(ws.size()), gb(bs.size());
        for (std::size_t i = 0; i < ys.size(); ++i) {
            ys[i] = bs[i / positions % bs.size()];
            gb[i / positions % bs.size()] += gs[i];
        }
        for_each_product(in, weight, y->Shape(), p, [&](auto xi, auto wi, auto yi) {
            const auto i = static_cast<std::size_t>(xi), j = static_cast<std::size_t>(wi),
                       o = static_cast<std::size_t>(yi);
            ys[o] += xs[i] * ws[j];
            gx[i] += gs[o] * std::conj(ws[j]);
            gw[j] += gs[o] * std::conj(xs[i]);
            ++used;
        });
        EXPECT_EQ(wide(y.get()), ys);
        const auto expect = [](const TensorPtr& t, bool is_wanted, const Dims& shape, const std::vector<Wide>& values) {
            ASSERT_EQ(t != nullptr, is_wanted);
            if (t) {
                EXPECT_EQ(t->Shape(), shape);
                EXPECT_EQ(wide(t.get()), values);
            }
        };
        expect(grads.input, wanted[0], in, gx);
        expect(grads.weight, wanted[1], weight, gw);
        expect(grads.bias, wanted[2], {channels}, gb);
    }
    EXPECT_GT(used, 10000);
}

TEST(ConvFunctions, TheBitsOfTheLayers) {
    const TensorPtr x = random_tensor({2, 4, 9, 8}, dtype::float32, 1);
    const TensorPtr w = random_tensor({6, 2, 3, 2}, dtype::float32, 2);
    const TensorPtr b = random_tensor({6}, dtype::float32, 3);
    ConvParameters p;
    p.stride = {2, 1};
    p.padding = {{{1, 1}, {2, 2}}};
    p.groups = 2;
    const std::unique_ptr<Layer> layer(_Conv2D(6, {3, 2}, {2, 1}, std::vector<int>{1, 2}, true, 2, {1, 1}, ""));
    EXPECT_EQ(bytes_of(nn::convolution(x.get(), w.get(), b.get(), p)),
              bytes_of(TensorPtr(layer->forward_dyn(w.get(), b.get(), x.get()))));
    const TensorPtr g = random_tensor({2, 6, 5, 11}, dtype::float32, 4);
    const nn::ConvGradients grads = nn::convolution_grad(g.get(), x.get(), w.get(), p);
    const TensorPtr* by_node[] = {&grads.input, &grads.weight, &grads.bias};
    for (int node = 0; node < 3; ++node) {
        EXPECT_EQ(bytes_of(*by_node[node]),
                  bytes_of(TensorPtr(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), node))));
    }
}

TEST(ConvFunctions, NoSamples) {
    const TensorPtr w = random_tensor({2, 3, 3}, dtype::float64, 1);
    const TensorPtr x(new Tensor);
    x->initialize_none_tensor({0, 3, 5}, dtype::float64, 0, layout::dense);
    const TensorPtr y = nn::convolution(x.get(), w.get(), nullptr);
    EXPECT_EQ(y->Shape(), (Dims{0, 2, 3}));
    const nn::ConvGradients grads = nn::convolution_grad(y.get(), x.get(), w.get());
    EXPECT_EQ(grads.input->Shape(), x->Shape());
    EXPECT_EQ(doubles_of(grads.weight.get()), std::vector<double>(18));
    EXPECT_EQ(doubles_of(grads.bias.get()), std::vector<double>(2));
    EXPECT_EQ(nn::same_padding(4, 1).begin, 1);
    EXPECT_EQ(nn::same_padding(4, 1).end, 2);
}

TEST(ConvFunctions, Refusals) {
    const TensorPtr x = random_tensor({1, 4, 5, 5}, dtype::float32, 1),
                    w = random_tensor({6, 2, 3, 3}, dtype::float32, 2);
    const TensorPtr wide_x = random_tensor({1, 4, 5, 5}, dtype::float64, 1);
    const TensorPtr whole = make_empty({1, 4, 5, 5}, dtype::int32), b = make_empty({5}, dtype::float32);
    const TensorPtr g = make_empty({1, 6, 3, 2}, dtype::float32), row = make_empty({4}, dtype::float32);
    const auto with = [](auto&& change) {
        ConvParameters p;
        p.groups = 2;
        change(p);
        return p;
    };
    const ConvParameters plain = with([](ConvParameters&) {});
    const auto refuse = [&](const ConvParameters& p) {
        return [&, p] { nn::convolution(x.get(), w.get(), nullptr, p); };
    };
    const Refusal rows[] = {
        {"convolution", [&] { nn::convolution(nullptr, w.get(), nullptr); },
         "A convolution needs an input and a weight."},
        {"convolution", [&] { nn::convolution(whole.get(), w.get(), nullptr); },
         "A convolution takes floating or complex tensors, not numpy.int32"},
        {"convolution", [&] { nn::convolution(wide_x.get(), w.get(), nullptr, plain); },
         "Not same data type for inputs of convolution."},
        {"convolution", [&] { nn::convolution(row.get(), w.get(), nullptr, plain); },
         "A convolution needs an input (N, C, L) or (N, C, H, W) and a weight of as many axes: input ( 4 ) , weight "
         "( 6, 2, 3, 3 ) "},
        {"convolution", [&] { nn::convolution(x.get(), w.get(), nullptr); },
         "A weight ( 6, 2, 3, 3 ) in 1 groups does not fit an input ( 1, 4, 5, 5 ) "},
        {"convolution", [&] { nn::convolution(x.get(), w.get(), b.get(), plain); },
         "The bias of a convolution with 6 output channels has the shape ( 5 ) "},
        {"convolution", refuse(with([](ConvParameters& p) {
             p.stride = {1, 0};
         })),
         "Strides and dilations of a convolution should be >= 1, however they are 0 and 1"},
        {"convolution", refuse(with([](ConvParameters& p) { p.padding[0].end = -1; })),
         "The padding of a convolution should be >= 0, however it is 0 and -1"},
        {"convolution", refuse(with([](ConvParameters& p) {
             p.output_padding = {1, 0};
         })),
         "The output padding should be 0, or that of a transposed convolution and less than its stride or dilation, "
         "however it is 1"},
        {"convolution", refuse(with([](ConvParameters& p) {
             p.dilation = {3, 1};
         })),
         "Invalid output shape: an extent of 5 under a kernel of 3 gives 0"},
        {"convolution_weight_grad", [&] { nn::convolution_weight_grad(g.get(), x.get(), w->Shape(), plain); },
         "The output of convolution has the shape ( 1, 6, 3, 3 ) but its gradient the shape ( 1, 6, 3, 2 ) "},
        {"convolution_input_grad", [&] { nn::convolution_input_grad(nullptr, x->Shape(), w.get(), plain); },
         "The gradient of convolution needs its output's gradient."},
    };
    expect_refusals(rows, "ornik::nn::", "src/layers/functional/conv.cpp");
}

}  // namespace
}  // namespace ornik::test
