// Convolutions and their gradients exactly, on small whole numbers, against a list of products; layers against the
// functions.
#include <complex>
#include <random>

#include "ornik.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"

namespace ornik::test {
namespace {

using nn::ConvParameters;
using LayerPtr = std::unique_ptr<Layer>;
using Wide = std::complex<double>;

struct Axis {
    int input, kernel, stride, padding, dilation, output_padding;
    int behind = -1;  // The padding at the end, where it differs.
};

struct Case {
    bool transposed;
    std::int64_t batch, groups, inputs, outputs;  // channels per group
    Axis rows, cols;
    bool flat = false;  // The first axis alone.

    Dims in() const { return cut({batch, groups * inputs, rows.input, cols.input}); }
    // Of the functions; a layer for transposed ones has outputs before inputs.
    Dims weight() const {
        return cut({groups * (transposed ? inputs : outputs), transposed ? outputs : inputs, rows.kernel, cols.kernel});
    }
    Dims cut(Dims shape) const { return flat ? Dims(shape.begin(), shape.end() - 1) : shape; }
    std::int64_t extent(const Axis& a) const {
        const std::int64_t reach = (a.kernel - 1) * a.dilation + 1;
        const std::int64_t padding = a.padding + (a.behind < 0 ? a.padding : a.behind);
        return transposed ? (a.input - 1) * a.stride + reach - padding + a.output_padding
                          : (a.input + padding < reach ? 0 : (a.input + padding - reach) / a.stride + 1);
    }
    std::int64_t work() const {
        const bool sensible = extent(rows) > 0 && (flat || extent(cols) > 0);
        return sensible
                   ? numel_of(weight()) * batch * (transposed ? rows.input * cols.input : extent(rows) * extent(cols))
                   : 1 << 30;
    }
    ConvParameters parameters() const {
        ConvParameters p;
        for (std::size_t i = 0; i < (flat ? 1U : 2U); ++i) {
            const Axis& a = i == 0 ? rows : cols;
            p.stride[i] = a.stride;
            p.padding[i] = {a.padding, a.behind < 0 ? a.padding : a.behind};
            p.dilation[i] = a.dilation;
            p.output_padding[i] = a.output_padding;
        }
        p.groups = groups;
        p.transposed = transposed;
        return p;
    }
    bool has_layer() const { return !flat && rows.behind < 0 && cols.behind < 0; }
    LayerPtr layer() const {
        const std::vector<int> kernel{rows.kernel, cols.kernel}, strides{rows.stride, cols.stride};
        const std::vector<int> padding{rows.padding, cols.padding}, dilation{rows.dilation, cols.dilation};
        const int channels = static_cast<int>(groups * outputs), parts = static_cast<int>(groups);
        return LayerPtr(transposed ? _ConvT2D(channels, kernel, strides, padding, true, parts, dilation,
                                              {rows.output_padding, cols.output_padding}, "")
                                   : _Conv2D(channels, kernel, strides, padding, true, parts, dilation, ""));
    }
    // A weight or its gradient as the layer has it, from the function's or back.
    TensorPtr exchanged(const Tensor* w, bool back) const {
        const std::int64_t first = back ? outputs : inputs, second = back ? inputs : outputs;
        const TensorPtr split(TensorPtr(w->clone())->reshape({groups, first, second, rows.kernel, cols.kernel}));
        const TensorPtr turned(TensorPtr(split->permute({0, 2, 1, 3, 4}))->clone());
        return TensorPtr(turned->reshape({groups * second, first, rows.kernel, cols.kernel}));
    }
};

std::ostream& operator<<(std::ostream& to, const Axis& a) {
    return to << "{" << a.input << "," << a.kernel << "," << a.stride << "," << a.padding << "," << a.dilation << ","
              << a.output_padding << "," << a.behind << "}";
}
std::ostream& operator<<(std::ostream& to, const Case& c) {
    return to << "{" << c.transposed << "," << c.batch << "," << c.groups << "," << c.inputs << "," << c.outputs << ","
              << c.rows << "," << c.cols << "," << c.flat << "}";
}

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

void check(const Case& c, std::int64_t dtype, Layout layout, unsigned seed) {
    const ConvParameters p = c.parameters();
    const TensorPtr x = whole_numbers(c.in(), dtype, 5 * seed, layout);
    const TensorPtr w = whole_numbers(c.weight(), dtype, 5 * seed + 1, layout);
    const std::int64_t channels = c.groups * c.outputs;
    const TensorPtr b = whole_numbers({channels}, dtype, 5 * seed + 2, layout);
    const TensorPtr y = nn::convolution(x.get(), w.get(), b.get(), p);
    ASSERT_EQ(y->Shape(), c.cut({c.batch, channels, c.extent(c.rows), c.extent(c.cols)}));
    const TensorPtr g = whole_numbers(y->Shape(), dtype, 5 * seed + 3, layout);
    const std::array<bool, 3> wanted{seed % 5 != 0, seed % 7 != 0, seed % 6 != 0};
    const nn::ConvGradients grads = nn::convolution_grad(g.get(), x.get(), w.get(), p, wanted);

    const std::vector<Wide> xs = wide(x.get()), ws = wide(w.get()), bs = wide(b.get()), gs = wide(g.get());
    const std::size_t positions = gs.size() / static_cast<std::size_t>(c.batch * channels);
    std::vector<Wide> ys(gs.size()), gx(xs.size()), gw(ws.size()), gb(bs.size());
    for (std::size_t i = 0; i < ys.size(); ++i) {
        ys[i] = bs[i / positions % bs.size()];
        gb[i / positions % bs.size()] += gs[i];
    }
    for_each_product(c.in(), c.weight(), y->Shape(), p, [&](auto xi, auto wi, auto yi) {
        const auto i = static_cast<std::size_t>(xi), j = static_cast<std::size_t>(wi), o = static_cast<std::size_t>(yi);
        ys[o] += xs[i] * ws[j];
        gx[i] += gs[o] * std::conj(ws[j]);
        gw[j] += gs[o] * std::conj(xs[i]);
    });
    EXPECT_EQ(wide(y.get()), ys);
    const TensorPtr* by_node[] = {&grads.input, &grads.weight, &grads.bias};
    const std::vector<Wide> expected[] = {gx, gw, gb};
    const LayerPtr layer = c.has_layer() ? c.layer() : nullptr;
    const TensorPtr layer_weight = layer && c.transposed ? c.exchanged(w.get(), false) : TensorPtr(w->clone());
    if (layer) {
        EXPECT_EQ(wide(TensorPtr(layer->forward_dyn(layer_weight.get(), b.get(), x.get())).get()), ys);
    }
    for (std::size_t node = 0; node < 3; ++node) {
        ASSERT_EQ(*by_node[node] != nullptr, wanted[node]);
        EXPECT_TRUE(!wanted[node] || wide(by_node[node]->get()) == expected[node]) << "gradient " << node;
        if (layer) {
            TensorPtr gradient(
                layer->backward_dyn(layer_weight.get(), b.get(), x.get(), g.get(), static_cast<int>(node)));
            gradient = node == 1 && c.transposed ? c.exchanged(gradient.get(), true) : std::move(gradient);
            EXPECT_EQ(wide(gradient.get()), expected[node]) << "layer, gradient " << node;
        }
    }
}

TEST(Convolution, MatchesLoops) {
    // Beyond one tile, block of channels, cut of output channels, panel; pointwise; one channel per group;
    // strides beyond the kernel; planes of one column; a kernel beyond a block; a kernel larger than the input;
    // several tiles of rows with ends; small planes of many channels, in one cut and several.
    std::vector<Case> cases = {
        {false, 2, 1, 70, 41, {5, 3, 1, 1, 1, 0}, {7, 3, 1, 1, 1, 0}},
        {false, 1, 1, 2, 3, {4, 3, 1, 1, 1, 0}, {900, 3, 1, 1, 1, 0}},
        {false, 2, 1, 3, 5, {45, 3, 2, 1, 1, 0}, {47, 2, 3, 0, 2, 0}},
        {false, 2, 2, 40, 6, {23, 1, 1, 0, 1, 0}, {19, 1, 1, 0, 1, 0}},
        {false, 3, 9, 1, 1, {13, 3, 1, 1, 1, 0}, {45, 3, 1, 1, 1, 0}},
        {false, 2, 9, 1, 1, {75, 3, 2, 1, 1, 0}, {71, 5, 2, 2, 1, 0}},
        {false, 2, 1, 3, 4, {9, 1, 3, 0, 1, 0}, {11, 2, 4, 1, 1, 0}},
        {false, 2, 1, 3, 4, {1100, 5, 1, 2, 3, 0}, {1, 1, 1, 0, 1, 0}},
        {false, 1, 1, 2, 2, {23, 19, 1, 0, 1, 0}, {20, 17, 1, 2, 1, 0}},
        {false, 1, 1, 2, 3, {2, 5, 1, 4, 2, 0}, {3, 4, 1, 4, 3, 0}},
        {true, 2, 1, 6, 34, {9, 4, 2, 1, 1, 0}, {11, 4, 2, 1, 1, 0}},
        {true, 2, 2, 3, 5, {7, 2, 3, 0, 1, 2}, {6, 1, 4, 0, 1, 3}},
        {true, 2, 9, 1, 1, {8, 4, 2, 1, 1, 0}, {9, 3, 2, 1, 1, 1}},
        {true, 1, 1, 2, 3, {300, 4, 2, 1, 1, 0}, {1, 1, 1, 0, 1, 0}},
        {false, 1, 1, 9, 6, {31, 3, 1, 1, 1, 0}, {28, 3, 1, 1, 1, 0}},
        {false, 2, 2, 40, 47, {7, 3, 1, 1, 1, 0}, {9, 3, 1, 1, 1, 0}},
        {false, 2, 1, 33, 300, {4, 2, 1, 0, 1, 0}, {5, 2, 1, 0, 1, 0}},
        {false, 1, 1, 130, 24, {3, 1, 1, 0, 1, 0}, {3, 1, 1, 0, 1, 0}},
    };
    std::mt19937 random(20261);
    const auto below = [&](unsigned n) { return static_cast<int>(random() % n); };
    const auto axis = [&](bool transposed) {
        const int stride = 1 + below(3), dilation = 1 + below(2);
        const int behind = below(3) == 0 ? below(3) : -1, added = transposed ? below(static_cast<unsigned>(stride)) : 0;
        return Axis{1 + below(14), 1 + below(4), stride, below(3), dilation, added, behind};
    };
    const std::size_t listed = cases.size();
    while (cases.size() < listed + 400) {
        const bool transposed = below(3) == 0, flat = below(6) == 0;
        const Case c{transposed,
                     1 + below(3),
                     1 + below(3),
                     1 + below(below(4) == 0 ? 40 : 4),
                     1 + below(9),
                     axis(transposed),
                     flat ? Axis{1, 1, 1, 0, 1, 0} : axis(transposed),
                     flat};
        if (c.work() < 120000) {
            cases.push_back(c);
        }
    }
    for (std::size_t i = 0; i < cases.size(); ++i) {
        for (int turn = 0; turn < (i < listed ? 2 : 1); ++turn) {
            const std::int64_t dtype = dtype::float32 + (i < listed ? turn : below(4));
            const Layout layout = all_layouts[i % std::size(all_layouts)];
            SCOPED_TRACE(testing::Message() << cases[i] << " " << dtype_name(dtype) << " " << name_of(layout));
            check(cases[i], dtype, layout, static_cast<unsigned>(i));
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST(Convolution, BitsDoNotDependOnTheTeamNorOnTheWayIn) {
    const Axis three{29, 3, 1, 1, 1, 0}, two{29, 4, 2, 1, 1, 0}, seven{7, 3, 1, 1, 1, 0};
    for (const Case& c : {Case{false, 3, 1, 40, 36, three, three}, Case{false, 2, 33, 1, 1, three, two},
                          Case{true, 2, 1, 20, 7, two, two}, Case{false, 2, 1, 64, 72, seven, seven}}) {
        const TensorPtr x = random_tensor(c.in(), dtype::float32, 1), w = random_tensor(c.weight(), dtype::float32, 2);
        const TensorPtr b = random_tensor({c.groups * c.outputs}, dtype::float32, 3);
        const ConvParameters p = c.parameters();
        const TensorPtr g = random_tensor(nn::convolution(x.get(), w.get(), b.get(), p)->Shape(), dtype::float32, 4);
        const auto compute = [&] {
            std::vector<TensorPtr> all;
            all.push_back(nn::convolution(x.get(), w.get(), b.get(), p));
            nn::ConvGradients grads = nn::convolution_grad(g.get(), x.get(), w.get(), p);
            for (TensorPtr* gradient : {&grads.input, &grads.weight, &grads.bias}) {
                all.push_back(std::move(*gradient));
            }
            return all;
        };
        expect_same_bits(compute, testing::PrintToString(c));
        const std::vector<TensorPtr> all = compute();
        const LayerPtr layer = c.layer();
        if (!c.transposed) {
            EXPECT_EQ(bytes_of(TensorPtr(layer->forward_dyn(w.get(), b.get(), x.get()))), bytes_of(all[0])) << c;
            for (int node = 0; node < 3; ++node) {
                EXPECT_EQ(bytes_of(TensorPtr(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), node))),
                          bytes_of(all[static_cast<std::size_t>(node) + 1]))
                    << c;
            }
        }
    }
}

TEST(ConvFunctions, NoSamples) {
    const TensorPtr w = random_tensor({2, 3, 3}, dtype::float64, 1);
    const TensorPtr x = make_empty({0, 3, 5}, dtype::float64);
    const TensorPtr y = nn::convolution(x.get(), w.get(), nullptr);
    EXPECT_EQ(y->Shape(), (Dims{0, 2, 3}));
    const nn::ConvGradients grads = nn::convolution_grad(y.get(), x.get(), w.get());
    EXPECT_EQ(grads.input->Shape(), x->Shape());
    EXPECT_EQ(doubles_of(grads.weight.get()), std::vector<double>(18));
    EXPECT_EQ(doubles_of(grads.bias.get()), std::vector<double>(2));
    EXPECT_EQ(nn::same_padding(4, 1).begin, 1);
    EXPECT_EQ(nn::same_padding(4, 1).end, 2);
}

TEST(ConvFunctions, OutputPaddingBelongsToTransposedOnes) {
    const TensorPtr x = random_tensor({1, 4, 5, 5}, dtype::float32, 1),
                    w = random_tensor({6, 4, 3, 3}, dtype::float32, 2);
    ConvParameters p;
    p.output_padding = {1, 0};
    expect_error([&] { nn::convolution(x.get(), w.get(), nullptr, p); },
                 "The output padding should be 0, or that of a transposed convolution and less than its stride or "
                 "dilation, however it is 1",
                 "ornik::nn::convolution", "src/layers/functional/conv.cpp");
}

}  // namespace
}  // namespace ornik::test
