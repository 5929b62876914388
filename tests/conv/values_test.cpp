// Convolutions and their gradients: against loops over pairs, exactly, on small whole numbers.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <complex>
#include <cstring>
#include <random>

#include "apis/ornik.h"
#include "hardware/cpu/product/cpu_taps.h"
#include "hardware/thread_config.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

using LayerPtr = std::unique_ptr<Layer>;
using Wide = std::complex<double>;
using Values = std::vector<Wide>;

struct AxisCase {
    int input, kernel, stride, padding, dilation, output_padding;
    int output(bool transposed) const {
        const int reach = (kernel - 1) * dilation + 1;
        return transposed ? (input - 1) * stride + reach - 2 * padding + output_padding
                          : (input + 2 * padding < reach ? 0 : (input + 2 * padding - reach) / stride + 1);
    }
};

struct Case {
    bool transposed;
    int batch, groups, inputs, outputs;  // channels per group
    AxisCase rows, cols;

    Dims input() const { return {batch, groups * inputs, rows.input, cols.input}; }
    Dims output() const { return {batch, groups * outputs, rows.output(transposed), cols.output(transposed)}; }
    Dims weight() const { return {groups * outputs, inputs, rows.kernel, cols.kernel}; }
    std::int64_t work() const {
        return numel_of(weight()) * batch * (transposed ? numel_of(input()) / inputs : numel_of(output()) / outputs);
    }
    LayerPtr layer(bool bias) const {
        const std::vector<int> kernel{rows.kernel, cols.kernel}, strides{rows.stride, cols.stride},
            padding{rows.padding, cols.padding}, dilation{rows.dilation, cols.dilation};
        return LayerPtr(transposed ? _ConvT2D(groups * outputs, kernel, strides, padding, bias, groups, dilation,
                                              {rows.output_padding, cols.output_padding}, "")
                                   : _Conv2D(groups * outputs, kernel, strides, padding, bias, groups, dilation, ""));
    }
    // Calls visit(input, output, weight element) for every product in the sum.
    template <typename Visit>
    void for_each_pair(const Visit& visit) const {
        const Dims in = input(), out = output();
        const Dims& image = transposed ? out : in;
        const Dims& grid = transposed ? in : out;
        for (std::int64_t n = 0; n < batch; ++n) {
            std::int64_t w = 0;
            for (std::int64_t o = 0; o < groups * outputs; ++o) {
                for (std::int64_t c = o / outputs * inputs; c < (o / outputs + 1) * inputs; ++c) {
                    for (std::int64_t i = 0; i < rows.kernel; ++i) {
                        for (std::int64_t j = 0; j < cols.kernel; ++j, ++w) {
                            for (std::int64_t y = 0; y < grid[2]; ++y) {
                                const std::int64_t r = y * rows.stride - rows.padding + i * rows.dilation;
                                for (std::int64_t x = 0; x < grid[3] && r >= 0 && r < image[2]; ++x) {
                                    const std::int64_t q = x * cols.stride - cols.padding + j * cols.dilation;
                                    if (q >= 0 && q < image[3]) {
                                        const std::int64_t at_image = r * image[3] + q, at_grid = y * grid[3] + x;
                                        visit((n * in[1] + c) * in[2] * in[3] + (transposed ? at_grid : at_image),
                                              (n * out[1] + o) * out[2] * out[3] + (transposed ? at_image : at_grid),
                                              w);
                                    }
                                }
                            }
                        }
                    }
                }
            }
        }
    }
};

std::ostream& operator<<(std::ostream& to, const AxisCase& a) {
    return to << "{" << a.input << "," << a.kernel << "," << a.stride << "," << a.padding << "," << a.dilation << ","
              << a.output_padding << "}";
}
std::ostream& operator<<(std::ostream& to, const Case& c) {
    return to << "{" << c.transposed << "," << c.batch << "," << c.groups << "," << c.inputs << "," << c.outputs << ","
              << c.rows << "," << c.cols << "}";
}

Values small_numbers(std::int64_t n, bool is_complex, std::mt19937& random) {
    Values values;
    for (std::int64_t i = 0; i < n; ++i) {
        const int real = static_cast<int>(random() % 7) - 3, imag = static_cast<int>(random() % 7) - 3;
        values.emplace_back(real, is_complex ? imag : 0);
    }
    return values;
}

TensorPtr tensor_of(const Dims& shape, std::int64_t dtype, const Values& values, Layout layout) {
    std::vector<Complex<double>> wide;
    for (const Wide& v : values) {
        wide.emplace_back(v);
    }
    TensorPtr result = make_empty(shape, dtype, layout);
    const TensorPtr converted(make(shape, wide)->astype(dtype));
    result->copy_from_(converted.get());
    return result;
}

void expect_values(const Tensor* t, const Dims& shape, const Values& expected, const char* what) {
    ASSERT_NE(t, nullptr) << what;
    ASSERT_EQ(t->Shape(), shape) << what;
    const TensorPtr wide(t->astype(dtype::complex128));
    const auto values = values_of<Complex<double>>(wide);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(Wide(values[i].real, values[i].imag), expected[i]) << what << " at " << i;
    }
}

void check_case(const Case& c, std::int64_t dtype, Layout layout, std::mt19937& random) {
    const bool is_complex = is_dtype_class(dtype, DtypeClass::complex);
    const Values x = small_numbers(numel_of(c.input()), is_complex, random);
    const Values w = small_numbers(numel_of(c.weight()), is_complex, random);
    const Values b = small_numbers(c.weight()[0], is_complex, random);
    const Values g = small_numbers(numel_of(c.output()), is_complex, random);
    Values y(g.size()), dx(x.size()), dw(w.size()), db(b.size());
    const auto plane = static_cast<std::size_t>(c.output()[2] * c.output()[3]);
    for (std::size_t i = 0; i < y.size(); ++i) {
        y[i] = b[i / plane % b.size()];
        db[i / plane % b.size()] += g[i];
    }
    c.for_each_pair([&](std::int64_t in, std::int64_t out, std::int64_t element) {
        const auto i = static_cast<std::size_t>(in), o = static_cast<std::size_t>(out),
                   k = static_cast<std::size_t>(element);
        y[o] += x[i] * w[k];
        dx[i] += g[o] * std::conj(w[k]);
        dw[k] += g[o] * std::conj(x[i]);
    });
    const TensorPtr input = tensor_of(c.input(), dtype, x, layout);
    const TensorPtr weight = tensor_of(c.weight(), dtype, w, layout);
    const TensorPtr bias = tensor_of({c.weight()[0]}, dtype, b, layout);
    const TensorPtr gradient = tensor_of(c.output(), dtype, g, layout);
    const LayerPtr layer = c.layer(true);
    const TensorPtr output(layer->forward_dyn(weight.get(), bias.get(), input.get()));
    expect_values(output.get(), c.output(), y, "output");
    const auto backward = [&](int node) {
        return TensorPtr(layer->backward_dyn(weight.get(), bias.get(), input.get(), gradient.get(), node));
    };
    expect_values(backward(0).get(), c.input(), dx, "input gradient");
    expect_values(backward(1).get(), c.weight(), dw, "weight gradient");
    expect_values(backward(2).get(), {c.weight()[0]}, db, "bias gradient");
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
        const int stride = 1 + below(3);
        const int dilation = 1 + below(2);
        return AxisCase{1 + below(14), 1 + below(4), stride, below(3), dilation, transposed ? below(stride) : 0};
    };
    const std::size_t listed = cases.size();
    while (cases.size() < listed + 400) {
        const bool transposed = below(3) == 0;
        const Case c{transposed,   1 + below(3),     1 + below(3),    1 + below(below(4) == 0 ? 40 : 4),
                     1 + below(9), axis(transposed), axis(transposed)};
        if (c.output()[2] > 0 && c.output()[3] > 0 && c.work() < 120000) {
            cases.push_back(c);
        }
    }
    const auto check = [&](std::size_t i, std::int64_t dtype) {
        const Layout layout = all_layouts[i % std::size(all_layouts)];
        check_case(cases[i], dtype, layout, random);
        ASSERT_FALSE(testing::Test::HasFatalFailure())
            << cases[i] << " " << dtype_name(dtype) << " " << name_of(layout);
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        check(i, i < listed ? dtype::float32 : dtype::float32 + below(4));
        if (i < listed) {
            check(i, dtype::float64);
        }
    }
}

TensorPtr random_tensor(const Dims& shape, std::int64_t dtype, unsigned seed) {
    std::mt19937 random(seed);
    Values values;
    for (std::int64_t i = 0; i < numel_of(shape); ++i) {
        const double real = random() * 0x1p-31 - 1, imag = random() * 0x1p-31 - 1;
        values.emplace_back(real, imag);
    }
    return tensor_of(shape, dtype, values, Layout::contiguous);
}

// The real part of the sum of a conj(b).
double inner(const Tensor* a, const Tensor* b) {
    const auto p = values_of<Complex<double>>(TensorPtr(a->astype(dtype::complex128)));
    const auto q = values_of<Complex<double>>(TensorPtr(b->astype(dtype::complex128)));
    double sum = 0;
    for (std::size_t i = 0; i < p.size(); ++i) {
        sum += p[i].real * q[i].real + p[i].imag * q[i].imag;
    }
    return sum;
}

TEST(Convolution, GradientsAgreeWithDifferences) {
    const AxisCase rows{7, 3, 2, 1, 2, 1}, cols{6, 2, 1, 1, 1, 0};
    for (const std::int64_t dtype : {dtype::float64, dtype::complex128}) {
        for (const bool transposed : {false, true}) {
            const Case c{transposed, 2, 2, 3, 2, rows, cols};
            const LayerPtr layer = c.layer(true);
            const Dims shapes[] = {c.input(), c.weight(), {c.weight()[0]}};
            TensorPtr arguments[3];
            for (unsigned i = 0; i < 3; ++i) {
                arguments[i] = random_tensor(shapes[i], dtype, i + 1);
            }
            const TensorPtr g = random_tensor(c.output(), dtype, 9);
            const auto value = [&] {
                const TensorPtr y(layer->forward_dyn(arguments[1].get(), arguments[2].get(), arguments[0].get()));
                return inner(y.get(), g.get());
            };
            for (int node = 0; node < 3; ++node) {
                const TensorPtr gradient =
                    (value(), TensorPtr(layer->backward_dyn(arguments[1].get(), arguments[2].get(), arguments[0].get(),
                                                            g.get(), node)));
                // The layer is linear in each argument: central differences are exact at any distance.
                const TensorPtr step = random_tensor(shapes[node], dtype, 20);
                arguments[node]->add_tensor_inplace(step.get());
                const double above = value();
                arguments[node]->sub_tensor_inplace(step.get());
                arguments[node]->sub_tensor_inplace(step.get());
                const double below = value();
                arguments[node]->add_tensor_inplace(step.get());
                EXPECT_NEAR((above - below) / 2, inner(gradient.get(), step.get()), 1e-11) << transposed << node;
            }
        }
    }
}

TEST(Convolution, TransposedIsTheAdjoint) {
    for (const int stride : {1, 2, 3}) {
        const AxisCase axis{11, 3, stride, 1, 1, 0};
        const Case forward{false, 2, 1, 4, 5, axis, axis};
        AxisCase back = axis;
        back.input = axis.output(false);
        back.output_padding = axis.input - back.output(true);
        const Case adjoint{true, 2, 1, 5, 4, back, back};
        const TensorPtr x = random_tensor(forward.input(), dtype::float64, 1);
        const TensorPtr y = random_tensor(forward.output(), dtype::float64, 2);
        const TensorPtr w = random_tensor(forward.weight(), dtype::float64, 3);
        const TensorPtr exchanged(
            share_storage_tensor(w->getStorage(), adjoint.weight(), {9, 36, 3, 1}, w->Dtype(), w->StorageOffset()));
        const TensorPtr cx(forward.layer(false)->forward_dyn(w.get(), nullptr, x.get()));
        const TensorPtr ty(adjoint.layer(false)->forward_dyn(exchanged.get(), nullptr, y.get()));
        ASSERT_EQ(ty->Shape(), x->Shape());
        EXPECT_NEAR(inner(cx.get(), y.get()), inner(x.get(), ty.get()), 1e-10) << stride;
    }
}

TEST(Convolution, BitsDoNotDependOnTheTeam) {
    const AxisCase three{29, 3, 1, 1, 1, 0}, two{29, 4, 2, 1, 1, 0}, seven{7, 3, 1, 1, 1, 0};
    for (const Case& c : {Case{false, 3, 1, 40, 36, three, three}, Case{false, 2, 33, 1, 1, three, two},
                          Case{true, 2, 1, 20, 7, two, two}, Case{false, 2, 1, 64, 72, seven, seven}}) {
        std::vector<std::vector<float>> first;
        for (const int team : {1, 2, 4, 7}) {
            ConfigSetNumThreads(team);
            const LayerPtr layer = c.layer(true);
            const TensorPtr x = random_tensor(c.input(), dtype::float32, 1);
            const TensorPtr w = random_tensor(c.weight(), dtype::float32, 2);
            const TensorPtr b = random_tensor({c.weight()[0]}, dtype::float32, 3);
            const TensorPtr g = random_tensor(c.output(), dtype::float32, 4);
            std::vector<std::vector<float>> results{
                values_of<float>(TensorPtr(layer->forward_dyn(w.get(), b.get(), x.get())))};
            for (const int node : {0, 1, 2}) {
                results.push_back(
                    values_of<float>(TensorPtr(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), node))));
            }
            first = first.empty() ? results : first;
            for (std::size_t i = 0; i < results.size(); ++i) {
                EXPECT_EQ(0, std::memcmp(results[i].data(), first[i].data(), first[i].size() * sizeof(float)))
                    << c << " result " << i << " team " << team;
            }
        }
    }
    ConfigSetNumThreads(4);
}

// Every number of targets and packets, whole and cut, on small whole numbers: exactly the sums, and nothing written
// beside them.
template <typename T>
void check_tap_sums() {
    std::mt19937 random(3);
    const auto number = [&] { return static_cast<T>(static_cast<int>(random() % 9) - 4); };
    const std::int64_t width = device::cpu::tap_packet<T>();
    for (std::int64_t count = 1; count < 9 * 10; ++count) {
        const std::int64_t targets = 1 + count % 9, packets = 1 + count / 9, steps = 1 + count % 7;
        const std::int64_t out_stride = packets * (width + 1);
        std::vector<T> slots(static_cast<std::size_t>(packets * width + steps * 3 + width));
        std::vector<T> weights(static_cast<std::size_t>(targets * steps)), starts(static_cast<std::size_t>(targets));
        for (std::vector<T>* v : {&slots, &weights, &starts}) {
            std::generate(v->begin(), v->end(), number);
        }
        std::vector<device::cpu::TapPacket> places;
        for (std::int64_t p = 0; p < packets; ++p) {
            places.push_back(
                {(packets - 1 - p) * width, p * (width + 1), (p + count) % 3 == 0 ? 1 + count % width : width});
        }
        std::vector<std::int64_t> step_slots, step_weights, target_weights;
        for (std::int64_t k = 0; k < steps; ++k) {
            step_slots.push_back(k * 5 % steps * 3);
            step_weights.push_back(k * targets);
        }
        for (std::int64_t o = 0; o < targets; ++o) {
            target_weights.push_back(targets - 1 - o);
        }
        for (const bool started : {false, true}) {
            std::vector<T> out(static_cast<std::size_t>(targets * out_stride), T(7)), expected = out;
            for (std::int64_t o = 0; o < targets; ++o) {
                for (const device::cpu::TapPacket& place : places) {
                    for (std::int64_t i = 0; i < place.count; ++i) {
                        T& sum = expected[static_cast<std::size_t>(o * out_stride + place.out + i)];
                        sum = started ? starts[static_cast<std::size_t>(o)] : sum;
                        for (std::size_t k = 0; k < step_slots.size(); ++k) {
                            sum += weights[static_cast<std::size_t>(target_weights[static_cast<std::size_t>(o)] +
                                                                    step_weights[k])] *
                                   slots[static_cast<std::size_t>(step_slots[k] + place.slot + i)];
                        }
                    }
                }
            }
            device::cpu::tap_sums<T>({slots.data(), step_slots.data(), weights.data(), step_weights.data(),
                                      target_weights.data(), steps, targets, started ? starts.data() : nullptr,
                                      places.data(), packets, out.data(), out_stride});
            ASSERT_EQ(out, expected) << count;
        }
    }
}

TEST(TapSums, AgreeWithLoops) {
    check_tap_sums<float>();
    check_tap_sums<double>();
}

}  // namespace
}  // namespace ornik::test
