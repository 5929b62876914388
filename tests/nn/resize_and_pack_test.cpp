// Interpolation against its definition, packing against a worked batch; gradients against differences.
#include <cmath>
#include <cstring>
#include <limits>

#include "support/gradients.h"
#include "tensor/nn/interpolate.h"
#include "tensor/nn/packing.h"

namespace ornik::test {
namespace {

struct Resize {
    std::int64_t in_rows, in_cols, out_rows, out_cols;
};
struct Mode {
    std::string name;
    bool corners;
};
const std::vector<Mode> modes = {{"nearest", false}, {"bilinear", false}, {"bilinear", true}};

// A linear function of the position that a mode reads, held inside the image.
double position(const Mode& mode, std::int64_t i, std::int64_t in, std::int64_t out) {
    if (mode.name == "nearest") {
        return static_cast<double>(i * in / out);
    }
    const double n = static_cast<double>(in);
    const double at = !mode.corners ? (static_cast<double>(i) + 0.5) * n / static_cast<double>(out) - 0.5
                      : out == 1    ? 0
                                    : static_cast<double>(i) * (n - 1) / static_cast<double>(out - 1);
    return std::fmin(std::fmax(at, 0), n - 1);
}

TEST(Interpolate, AgainstItsDefinitionAndDifferences) {
    for (const Resize& r : {Resize{3, 4, 7, 9}, Resize{5, 6, 2, 3}, Resize{1, 3, 4, 1}, Resize{4, 1, 1, 5},
                            Resize{3, 3, 3, 3}, Resize{2, 5, 6, 10}}) {
        for (const Mode& mode : modes) {
            SCOPED_TRACE(mode.name + std::to_string(mode.corners) + std::to_string(r.out_rows));
            const TensorPtr x = random_tensor({2, 2, r.in_rows, r.in_cols}, dtype::float64, 1, Layout::transposed);
            const TensorPtr g = random_tensor({2, 2, r.out_rows, r.out_cols}, dtype::float64, 2, Layout::reversed);
            const auto resize = [&](Tensor* t) {
                return interpolate(t, {r.out_rows, r.out_cols}, mode.name, mode.corners);
            };
            const TensorPtr y(resize(x.get()));
            ASSERT_EQ(y->Shape(), g->Shape());
            // Hat functions around the position: what every pixel of the image weighs.
            const std::vector<double> in = values_of<double>(x), out = values_of<double>(y);
            for (std::int64_t i = 0; i < y->Size(); ++i) {
                const double row = position(mode, i / r.out_cols % r.out_rows, r.in_rows, r.out_rows);
                const double col = position(mode, i % r.out_cols, r.in_cols, r.out_cols);
                double expected = 0;
                for (std::int64_t p = 0; p < r.in_rows * r.in_cols; ++p) {
                    expected += std::fmax(0, 1 - std::fabs(row - static_cast<double>(p / r.in_cols))) *
                                std::fmax(0, 1 - std::fabs(col - static_cast<double>(p % r.in_cols))) *
                                in[static_cast<std::size_t>(i / (r.out_rows * r.out_cols) * r.in_rows * r.in_cols + p)];
                }
                EXPECT_NEAR(out[static_cast<std::size_t>(i)], expected, 1e-14) << i;
            }
            expect_gradient(resize, x, g, interpolate_grad(g.get(), x->Shape(), mode.name, mode.corners));
        }
    }
}

TEST(Interpolate, InfinityStaysInItsPixel) {
    const float inf = std::numeric_limits<float>::infinity();
    const TensorPtr x = make<float>({1, 1, 1, 3}, {1, inf, 3});
    EXPECT_EQ(values_of<float>(TensorPtr(interpolate(x.get(), {1, 6}, "nearest"))),
              (std::vector<float>{1, 1, inf, inf, 3, 3}));
    EXPECT_EQ(values_of<float>(TensorPtr(interpolate(x.get(), {1, 3}, "bilinear"))), (std::vector<float>{1, inf, 3}));
    EXPECT_EQ(values_of<float>(TensorPtr(interpolate_grad(x.get(), {1, 1, 1, 3}, "bilinear", true))),
              (std::vector<float>{1, inf, 3}));
}

TEST(Packing, AWorkedBatch) {
    const Packing packing({1, 3, 0, 3, 2});
    EXPECT_EQ(packing.order(), (Dims{1, 3, 4, 0, 2}));
    EXPECT_EQ(packing.batch_sizes(), (Dims{4, 3, 2}));
    EXPECT_EQ(packing.entries(), 9);
    // Entry t of sequence i is 10 i + t; padding is -1.
    const std::vector<std::int16_t> padded = {0,  -1, -1, -1, 10, 11, 12, -1, -1, -1,
                                              -1, -1, 30, 31, 32, -1, 40, 41, -1, -1};
    const std::vector<std::int16_t> packed = {10, 30, 40, 0, 11, 31, 41, 12, 32};
    for (const Layout layout : all_layouts) {
        const TensorPtr all = make<std::int16_t>({5, 4}, padded, layout);
        const TensorPtr dense = make<std::int16_t>({9}, packed, layout);
        EXPECT_EQ(values_of<std::int16_t>(TensorPtr(pack_sequences(all.get(), packing))), packed) << name_of(layout);
        EXPECT_EQ(values_of<std::int16_t>(TensorPtr(unpack_sequences(dense.get(), packing, 4, -1))), padded);
    }
    const TensorPtr features = random_tensor({9, 2, 3}, dtype::complex128, 1);
    const TensorPtr there(unpack_sequences(features.get(), packing));
    EXPECT_EQ(there->Shape(), (Dims{5, 3, 2, 3}));
    const TensorPtr back(pack_sequences(there.get(), packing));
    EXPECT_EQ(std::memcmp(back->getRawData(), features->getRawData(), 9 * 6 * 16), 0);
}

TEST(Packing, Gradients) {
    const Packing packing({2, 3});
    const TensorPtr padded = random_tensor({2, 4, 2}, dtype::float64, 1, Layout::transposed);
    const TensorPtr packed = random_tensor({5, 2}, dtype::float64, 2, Layout::reversed);
    expect_gradient([&](Tensor* t) { return pack_sequences(t, packing); }, padded, packed,
                    pack_sequences_grad(packed.get(), packing, 4));
    expect_gradient([&](Tensor* t) { return unpack_sequences(t, packing, 4, 7); }, packed, padded,
                    unpack_sequences_grad(padded.get(), packing));
}

}  // namespace
}  // namespace ornik::test
