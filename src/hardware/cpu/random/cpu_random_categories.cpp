// cpu_random_categories.cpp: draws of categories in proportion to weights.
#include <cmath>
#include <limits>
#include <mutex>
#include <numeric>
#include <vector>

#include "draw_blocks.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/random/cpu_random.h"
#include "hardware/parallel.h"
#include "random_math.h"

namespace ornik::device::cpu {

namespace {

using namespace random;

constexpr std::int64_t grain_elements = 32768;

// body(row) for every row of `cols` elements.
template <typename Body>
void for_rows(std::int64_t rows, std::int64_t cols, const Body& body) {
    const std::int64_t grain = std::max<std::int64_t>(2, grain_elements / std::max<std::int64_t>(cols, 1));
    parallel_for(rows, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t row = begin; row < end; ++row) {
            body(row);
        }
    });
}

// How many of n ascending numbers are at most x. The steps do not branch on the data: half of such branches would be
// mispredicted.
std::int64_t count_up_to(const double* numbers, std::int64_t n, double x) {
    const double* begin = numbers;
    while (n > 0) {
        const std::int64_t half = (n + 1) / 2;
        begin += half & -static_cast<std::int64_t>(begin[half - 1] <= x);
        n -= half;
    }
    return begin - numbers;
}

// Independent draws: the place of a random share of the row's sum among its running sums.
template <typename T>
void draw_independent(generator::Lease& source, const T* weights, std::int64_t rows, std::int64_t cols, std::int64_t n,
                      std::int64_t* out) {
    const std::unique_ptr<Tensor> buffer(Tensor::empty({rows * cols}, 0, dtype::float64));
    double* const sums = static_cast<double*>(buffer->getRawData());
    for_rows(rows, cols, [&](std::int64_t row) {
        double sum = 0;
        for (std::int64_t i = row * cols; i < (row + 1) * cols; ++i) {
            sum += static_cast<double>(weights[i]);
            sums[i] = sum;
        }
    });
    draw_words(source, rows * n, [&](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
        for (std::int64_t i = 0; i < count; ++i) {
            const double* const row = sums + (first + i) / n * cols;
            const double share = to_double(words[i] >> 11) * unit53 * row[cols - 1];
            out[first + i] = count_up_to(row, cols - 1, share);
        }
    });
}

// Distinct draws: every category gets an exponential waiting time with its weight as the rate, and the
// first n arrivals are the draws, in order.
template <typename T>
void draw_distinct(generator::Lease& source, const T* weights, std::int64_t rows, std::int64_t cols, std::int64_t n,
                   std::int64_t* out) {
    const std::unique_ptr<Tensor> buffer(Tensor::empty({rows * cols}, 0, dtype::float64));
    double* const times = static_cast<double*>(buffer->getRawData());
    draw_words(source, rows * cols, [&](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
        for (std::int64_t i = 0; i < count; ++i) {
            const double u = (to_double(words[i] >> 11) + 0.5) * unit53;
            const auto weight = static_cast<double>(weights[first + i]);
            const double time = std::fmin(-log_positive(u) / weight, std::numeric_limits<double>::max());
            times[first + i] = weight > 0 ? time : std::numeric_limits<double>::infinity();
        }
    });
    for_rows(rows, cols, [&](std::int64_t row) {
        const double* const time = times + row * cols;
        std::vector<std::int64_t> order(static_cast<std::size_t>(cols));
        std::iota(order.begin(), order.end(), std::int64_t{0});
        std::partial_sort(order.begin(), order.begin() + n, order.end(), [time](std::int64_t a, std::int64_t b) {
            return time[a] < time[b] || (time[a] == time[b] && a < b);
        });
        std::copy_n(order.begin(), n, out + row * n);
    });
}

}  // namespace

WeightSummary summarize_weights(const Tensor* weights, std::int64_t rows) {
    WeightSummary summary;
    const std::int64_t cols = weights->Size() / rows;
    summary.fewest_positive = cols;
    std::mutex mutex;
    dispatch(FloatTypes{}, weights->Dtype(), [&]<typename T>() {
        const T* const data = static_cast<const T*>(weights->getRawData());
        for_rows(rows, cols, [&](std::int64_t row) {
            double sum = 0;
            std::int64_t positive = 0;
            std::int64_t refused = 0;
            for (std::int64_t i = row * cols; i < (row + 1) * cols; ++i) {
                const auto weight = static_cast<double>(data[i]);
                refused += weight >= 0 && weight <= std::numeric_limits<double>::max() ? 0 : 1;
                positive += weight > 0 ? 1 : 0;
                sum += weight;
            }
            const std::lock_guard lock(mutex);
            summary.valid = summary.valid && refused == 0;
            summary.sums_positive = summary.sums_positive && sum > 0 && std::isfinite(sum);
            summary.fewest_positive = std::min(summary.fewest_positive, positive);
        });
    });
    return summary;
}

void multinomial(generator::Lease& source, const Tensor* weights, std::int64_t rows, bool replacement, Tensor* out) {
    dispatch(FloatTypes{}, weights->Dtype(), [&]<typename T>() {
        const auto draw = replacement ? draw_independent<T> : draw_distinct<T>;
        draw(source, static_cast<const T*>(weights->getRawData()), rows, weights->Size() / rows, out->Size() / rows,
             static_cast<std::int64_t*>(out->getRawData()));
    });
}

}  // namespace ornik::device::cpu
