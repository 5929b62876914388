// The bits of convolutions and of their gradients: every kernel against plain loops in the order that is promised.
#include <bit>
#include <cmath>
#include <cstring>
#include <random>

#include "hardware/thread_config.h"
#include "ornik.h"
#include "support/exact.h"
#include "support/gradients.h"

namespace ornik::test {
namespace {

struct Axis {
    std::int64_t image, kernel, stride, padding, dilation;
    std::int64_t grid() const { return (image + 2 * padding - (kernel - 1) * dilation - 1) / stride + 1; }
    bool exists() const { return image + 2 * padding >= (kernel - 1) * dilation + 1; }
    // Where a tap of target position t lies in the source: false when the two never meet.
    bool source(bool to_grid, std::int64_t t, std::int64_t tap, std::int64_t& at) const {
        at = to_grid ? t * stride - padding + tap * dilation : t + padding - tap * dilation;
        const bool meets = to_grid || at % stride == 0;
        at = to_grid ? at : at / stride - (at < 0 && !meets ? 1 : 0);
        return meets;
    }
};

// A convolution from image to grid.
struct Shape {
    std::int64_t batch, groups, image_channels, grid_channels;
    Axis rows, cols;
    std::int64_t kernel() const { return rows.kernel * cols.kernel; }
    std::int64_t image_plane() const { return rows.image * cols.image; }
    std::int64_t grid_plane() const { return rows.grid() * cols.grid(); }
    std::int64_t work() const { return batch * groups * image_channels * grid_channels * kernel() * grid_plane(); }
};

std::ostream& operator<<(std::ostream& to, const Axis& a) {
    return to << "{" << a.image << "," << a.kernel << "," << a.stride << "," << a.padding << "," << a.dilation << "}";
}
std::ostream& operator<<(std::ostream& to, const Shape& s) {
    return to << "{" << s.batch << "," << s.groups << "," << s.image_channels << "," << s.grid_channels << "," << s.rows
              << "," << s.cols << "}";
}

template <typename T>
using Values = std::vector<T>;

// The grid from the image, or the image from the grid.
template <typename T>
Values<T> sums(const Shape& s, bool to_grid, const Values<T>& source, const Values<T>& weight, const Values<T>& bias) {
    const std::int64_t from_channels = to_grid ? s.image_channels : s.grid_channels;
    const std::int64_t to_channels = to_grid ? s.grid_channels : s.image_channels;
    const std::int64_t from_rows = to_grid ? s.rows.image : s.rows.grid(),
                       to_rows = to_grid ? s.rows.grid() : s.rows.image;
    const std::int64_t from_cols = to_grid ? s.cols.image : s.cols.grid(),
                       to_cols = to_grid ? s.cols.grid() : s.cols.image;
    const std::int64_t block = static_cast<std::int64_t>(
        std::bit_floor(static_cast<std::uint64_t>(std::max<std::int64_t>(1, 288 / s.kernel()))));
    Values<T> result;
    for (std::int64_t at = 0; at < s.batch * s.groups * to_channels * to_rows * to_cols; ++at) {
        const std::int64_t col = at % to_cols, row = at / to_cols % to_rows, channel = at / to_cols / to_rows;
        const std::int64_t to = channel % to_channels, part = channel / to_channels, group = part % s.groups;
        T total{};
        bool any = false;
        for (std::int64_t first = 0; first < from_channels; first += block) {
            T sum{};
            for (std::int64_t from = first; from < std::min(first + block, from_channels); ++from) {
                const std::int64_t o = to_grid ? to : from, c = to_grid ? from : to;
                const T* kernel = weight.data() + ((group * s.grid_channels + o) * s.image_channels + c) * s.kernel();
                for (std::int64_t tap = 0; tap < s.kernel(); ++tap) {
                    std::int64_t y = 0, x = 0;
                    if (s.rows.source(to_grid, row, tap / s.cols.kernel, y) &&
                        s.cols.source(to_grid, col, tap % s.cols.kernel, x)) {
                        const bool inside = y >= 0 && y < from_rows && x >= 0 && x < from_cols;
                        const std::int64_t place = ((part * from_channels + from) * from_rows + y) * from_cols + x;
                        sum = fused_once(kernel[tap], inside ? source[static_cast<std::size_t>(place)] : T(0), sum);
                        any = true;
                    }
                }
            }
            total = first == 0 ? sum : total + sum;
        }
        const T start = bias.empty() ? T(0) : bias[static_cast<std::size_t>(group * to_channels + to)];
        result.push_back(bias.empty() ? total : any ? total + start : start);
    }
    return result;
}

// The gradient of the weight.
template <typename T>
Values<T> weight_sums(const Shape& s, const Values<T>& image, const Values<T>& grid) {
    const bool column = s.cols.image == 1 && s.cols.grid() == 1 && s.cols.kernel == 1 && s.cols.padding == 0;
    const std::int64_t rows = column ? 1 : s.rows.grid(), cols = column ? s.rows.grid() : s.cols.grid();
    const std::int64_t block_rows = std::clamp<std::int64_t>(256 / cols, 1, rows),
                       block_cols = std::min<std::int64_t>(cols, 256);
    const std::int64_t samples = std::clamp<std::int64_t>(256 / (rows * cols), 1, s.batch);
    const std::int64_t across = (cols + block_cols - 1) / block_cols,
                       tiles = (rows + block_rows - 1) / block_rows * across;
    const std::int64_t blocks = (s.batch + samples - 1) / samples * tiles;
    const std::int64_t count = s.groups * s.grid_channels * s.image_channels * s.kernel();
    const std::int64_t chunks = std::clamp<std::int64_t>((1 << 20) / count, 1, std::min<std::int64_t>(blocks, 16));
    Values<T> result;
    for (std::int64_t at = 0; at < count; ++at) {
        const std::int64_t tap = at % s.kernel(), c = at / s.kernel() % s.image_channels;
        const std::int64_t channel = at / s.kernel() / s.image_channels;  // of the grid
        const std::int64_t image_channel = channel / s.grid_channels * s.image_channels + c;
        T total{};
        for (std::int64_t chunk = 0; chunk < chunks; ++chunk) {
            T part{};
            const std::int64_t first = chunk * blocks / chunks;
            for (std::int64_t b = first; b < (chunk + 1) * blocks / chunks; ++b) {
                const std::int64_t n0 = b / tiles * samples, y0 = b % tiles / across * block_rows,
                                   x0 = b % tiles % across * block_cols;
                T sum{};
                for (std::int64_t n = n0; n < std::min(n0 + samples, s.batch); ++n) {
                    for (std::int64_t y = y0; y < std::min(y0 + block_rows, rows); ++y) {
                        for (std::int64_t x = x0; x < std::min(x0 + block_cols, cols); ++x) {
                            std::int64_t row = 0, col = 0;
                            s.rows.source(true, column ? x : y, tap / s.cols.kernel, row);
                            s.cols.source(true, column ? 0 : x, tap % s.cols.kernel, col);
                            const bool inside = row >= 0 && row < s.rows.image && col >= 0 && col < s.cols.image;
                            const std::int64_t from =
                                ((n * s.groups * s.image_channels + image_channel) * s.rows.image + row) *
                                    s.cols.image +
                                col;
                            const std::int64_t to = ((n * s.groups * s.grid_channels + channel) * rows + y) * cols + x;
                            sum = fused_once(grid[static_cast<std::size_t>(to)],
                                             inside ? image[static_cast<std::size_t>(from)] : T(0), sum);
                        }
                    }
                }
                part = b == first ? sum : part + sum;
            }
            total = chunk == 0 ? part : total + part;
        }
        result.push_back(total);
    }
    return result;
}

template <typename T>
void check(const Shape& s, unsigned seed) {
    const std::int64_t dtype = sizeof(T) == sizeof(float) ? dtype::float32 : dtype::float64;
    const Dims image_shape{s.batch, s.groups * s.image_channels, s.rows.image, s.cols.image};
    const Dims grid_shape{s.batch, s.groups * s.grid_channels, s.rows.grid(), s.cols.grid()};
    const TensorPtr image = random_tensor(image_shape, dtype, seed), grid = random_tensor(grid_shape, dtype, seed + 1);
    const TensorPtr weight =
        random_tensor({s.groups * s.grid_channels, s.image_channels, s.rows.kernel, s.cols.kernel}, dtype, seed + 2);
    const TensorPtr grid_bias = random_tensor({s.groups * s.grid_channels}, dtype, seed + 3);
    const TensorPtr image_bias = random_tensor({s.groups * s.image_channels}, dtype, seed + 4);
    nn::ConvParameters p;
    p.stride = {s.rows.stride, s.cols.stride};
    p.padding = {{{s.rows.padding, s.rows.padding}, {s.cols.padding, s.cols.padding}}};
    p.dilation = {s.rows.dilation, s.cols.dilation};
    p.groups = s.groups;
    const Values<T> ws = values_of<T>(weight), is = values_of<T>(image), gs = values_of<T>(grid);
    const auto same = [](const Values<T>& expected, const std::unique_ptr<Tensor>& actual) {
        const Values<T> values = values_of<T>(actual.get());
        return values.size() == expected.size() &&
               std::memcmp(values.data(), expected.data(), values.size() * sizeof(T)) == 0;
    };
    EXPECT_TRUE(same(sums(s, true, is, ws, values_of<T>(grid_bias)),
                     nn::convolution(image.get(), weight.get(), grid_bias.get(), p)))
        << "forward";
    EXPECT_TRUE(same(sums(s, false, gs, ws, {}), nn::convolution_input_grad(grid.get(), image_shape, weight.get(), p)))
        << "input gradient";
    EXPECT_TRUE(same(weight_sums(s, is, gs), nn::convolution_weight_grad(grid.get(), image.get(), weight->Shape(), p)))
        << "weight gradient";
    // The same sums as a layer of its own, where no row or column of the image goes unused.
    p.transposed = true;
    if ((s.rows.grid() - 1) * s.rows.stride + (s.rows.kernel - 1) * s.rows.dilation + 1 - 2 * s.rows.padding ==
            s.rows.image &&
        (s.cols.grid() - 1) * s.cols.stride + (s.cols.kernel - 1) * s.cols.dilation + 1 - 2 * s.cols.padding ==
            s.cols.image) {
        EXPECT_TRUE(same(sums(s, false, gs, ws, values_of<T>(image_bias)),
                         nn::convolution(grid.get(), weight.get(), image_bias.get(), p)))
            << "transposed";
    }
}

TEST(ConvolutionOrder, EveryKernelKeepsIt) {
    // Channels that fill vectors and that do not, on one side and on both; several blocks of channels, tiles, cuts
    // and samples of a tile; strides whose taps share slots and whose taps do not; narrow rows; planes of one column.
    // Of channels kept apart, planes of many tiles, of rows and of columns.
    const Axis three{14, 3, 1, 1, 1}, seven{7, 3, 1, 1, 1}, one{9, 1, 1, 0, 1};
    std::vector<Shape> shapes = {
        {1, 1, 70, 37, three, {15, 3, 1, 1, 1}},
        {3, 1, 40, 64, seven, seven},
        {1, 1, 300, 48, one, one},
        {2, 2, 260, 5, {23, 1, 1, 0, 1}, {24, 1, 1, 0, 1}},
        {9, 1, 16, 33, {3, 3, 1, 1, 1}, {2, 3, 1, 1, 1}},
        {2, 1, 35, 16, {23, 3, 2, 1, 1}, {21, 3, 2, 1, 1}},
        {1, 2, 24, 3, {9, 3, 2, 1, 2}, {40, 3, 1, 2, 2}},
        {1, 1, 3, 32, {30, 7, 2, 3, 1}, {31, 7, 2, 3, 1}},
        {2, 17, 1, 1, three, {33, 3, 1, 1, 1}},
        {2, 5, 1, 2, {12, 3, 2, 1, 1}, {40, 5, 2, 2, 1}},
        {1, 37, 1, 1, {40, 3, 2, 1, 1}, {31, 3, 2, 1, 1}},
        {2, 13, 1, 2, {40, 5, 1, 2, 1}, {23, 3, 1, 2, 2}},
        {1, 20, 1, 1, {5, 3, 1, 1, 1}, {860, 4, 3, 1, 1}},
        {2, 3, 1, 1, {9, 5, 1, 2, 1}, {50, 3, 2, 1, 1}},
        {2, 1, 5, 2, {200, 5, 3, 2, 1}, {1, 1, 1, 0, 1}},
        {1, 1, 2, 3, {3, 1, 1, 0, 1}, {1500, 4, 1, 0, 1}},
        {1, 1, 2, 20, {20, 19, 1, 9, 1}, {18, 17, 1, 8, 1}},
        {5, 1, 8, 6, {1, 1, 1, 0, 1}, {1, 1, 1, 0, 1}},
        {3, 1, 20, 2, {17, 3, 1, 1, 1}, {20, 3, 1, 1, 1}},
        {2, 1, 90, 130, {4, 3, 1, 1, 1}, {5, 3, 1, 1, 1}},
        {60, 1, 4, 20, {3, 2, 1, 0, 1}, {4, 2, 1, 0, 1}},
    };
    const std::size_t listed = shapes.size();
    std::mt19937 random(7);
    const auto below = [&](unsigned n) { return static_cast<std::int64_t>(random() % n); };
    const auto axis = [&] { return Axis{1 + below(20), 1 + below(4), 1 + below(3), below(3), 1 + below(2)}; };
    while (shapes.size() < listed + 40) {
        const Shape s{1 + below(3), 1 + below(3), 1 + below(below(3) == 0 ? 70 : 4), 1 + below(below(3) == 0 ? 70 : 4),
                      axis(),       axis()};
        if (s.rows.exists() && s.cols.exists() && s.work() < 100000) {
            shapes.push_back(s);
        }
    }
    constexpr int teams[] = {1, 2, 4, 7};
    for (std::size_t i = 0; i < shapes.size(); ++i) {
        SCOPED_TRACE(testing::Message() << shapes[i]);
        ConfigSetNumThreads(teams[i % std::size(teams)]);
        check<float>(shapes[i], static_cast<unsigned>(5 * i));
        if (i < listed) {
            check<double>(shapes[i], static_cast<unsigned>(5 * i));
        }
        if (HasFailure()) {
            break;
        }
    }
    ConfigSetNumThreads(4);
}

// Places at an edge, whose products with what lies beyond it may go unmade, show no difference: numbers whose products
// are below the least one leave zeros of either sign, and infinite weights make NaN of the edge's zeros.
template <typename T>
void check_edges(const Shape& s) {
    const std::int64_t dtype = sizeof(T) == sizeof(float) ? dtype::float32 : dtype::float64;
    const TensorPtr image = random_tensor({s.batch, s.image_channels, s.rows.image, s.cols.image}, dtype, 1);
    const TensorPtr weight = random_tensor({s.grid_channels, s.image_channels, s.rows.kernel, s.cols.kernel}, dtype, 2);
    const TensorPtr grid = random_tensor({s.batch, s.grid_channels, s.rows.grid(), s.cols.grid()}, dtype, 3);
    nn::ConvParameters p;
    p.padding = {{{s.rows.padding, s.rows.padding}, {s.cols.padding, s.cols.padding}}};
    const T tiny = std::sqrt(std::numeric_limits<T>::denorm_min());
    auto* pixels = static_cast<T*>(image->getRawData());
    auto* weights = static_cast<T*>(weight->getRawData());
    auto* gradients = static_cast<T*>(grid->getRawData());
    const auto expect_all = [&](const char* what) {
        Values<T> expected = sums(s, true, values_of<T>(image), values_of<T>(weight), {});
        const auto differs = [&](const std::unique_ptr<Tensor>& actual) {
            const Values<T> values = values_of<T>(actual.get());
            std::size_t at = 0;
            while (at < expected.size() &&
                   (std::isnan(expected[at])
                        ? std::isnan(values[at])
                        : std::signbit(expected[at]) == std::signbit(values[at]) && expected[at] == values[at])) {
                ++at;
            }
            return at < expected.size();
        };
        EXPECT_FALSE(differs(nn::convolution(image.get(), weight.get(), nullptr, p))) << what;
        const nn::PreparedConvolution layer(weight.get(), nullptr, p);
        EXPECT_FALSE(differs(layer(image.get()))) << what << ", prepared";
        if (layer.takes_blocks()) {
            EXPECT_FALSE(differs(layer.blocked(image.get()).planes())) << what << ", from planes to blocks";
            EXPECT_FALSE(differs(layer.blocked(nn::BlockedImage(image.get())).planes())) << what << ", in blocks";
        }
        expected = weight_sums(s, values_of<T>(image), values_of<T>(grid));
        EXPECT_FALSE(differs(nn::convolution_weight_grad(grid.get(), image.get(), weight->Shape(), p)))
            << what << ", weight gradient";
    };
    expect_all("ordinary numbers");
    std::mt19937 random(3);
    for (std::int64_t i = 0; i < image->Size(); ++i) {
        pixels[i] *= tiny;
    }
    for (std::int64_t i = 0; i < weight->Size(); ++i) {
        weights[i] *= random() % 4 == 0 ? tiny * T(8) : tiny;
    }
    for (std::int64_t i = 0; i < grid->Size(); ++i) {
        gradients[i] *= random() % 4 == 0 ? tiny * T(8) : tiny;
    }
    expect_all("products of about the least number");
    // Of a channel each: those that meet the first row and column, the last ones, and the middle of either.
    const std::int64_t row = s.cols.kernel, last = s.kernel() - 1, each = s.image_channels * s.kernel();
    weights[0] = std::numeric_limits<T>::infinity();
    weights[each + last] = std::numeric_limits<T>::quiet_NaN();
    weights[2 * each + s.rows.kernel / 2 * row] = std::numeric_limits<T>::infinity();
    weights[weight->Size() - 1 - s.rows.kernel / 2 * row] = -std::numeric_limits<T>::infinity();
    gradients[0] = std::numeric_limits<T>::infinity();
    gradients[grid->Size() - 1] = -std::numeric_limits<T>::infinity();
    expect_all("infinite weights");
}

TEST(ConvolutionOrder, EdgesThatAreLeftOutDoNotShow) {
    // Rows of one chain, of halves and of more pieces, and in several tiles; two rows to a chain; kernels that reach
    // beyond by more than one place, and far.
    const Axis seven{7, 3, 1, 1, 1}, wide{14, 3, 1, 1, 1};
    for (const Shape& s :
         {Shape{3, 1, 40, 64, seven, seven}, Shape{1, 1, 33, 40, seven, wide}, Shape{1, 1, 40, 32, wide, wide},
          Shape{2, 1, 9, 32, seven, {28, 3, 1, 1, 1}}, Shape{1, 1, 20, 32, {5, 5, 1, 2, 1}, {30, 3, 1, 1, 1}},
          Shape{1, 1, 17, 33, {7, 5, 1, 2, 1}, {7, 5, 1, 2, 1}}, Shape{2, 1, 6, 32, {2, 5, 1, 3, 1}, {9, 3, 1, 1, 1}},
          Shape{1, 1, 5, 32, {4, 1, 1, 2, 1}, {9, 5, 1, 6, 1}},
          Shape{1, 1, 3, 64, {2, 3, 1, 1, 1}, {1100, 3, 1, 1, 1}}}) {
        SCOPED_TRACE(testing::Message() << s);
        check_edges<float>(s);
        check_edges<double>(s);
    }
}

}  // namespace
}  // namespace ornik::test
