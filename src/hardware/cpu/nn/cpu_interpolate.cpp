#include "hardware/cpu/nn/cpu_interpolate.h"

#include <algorithm>
#include <cmath>

#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

using Taps = std::vector<InterpolationTap>;

constexpr std::int64_t grain = 1 << 14;  // output elements worth a second thread

// Calls visit(part) for every part of `size` elements: a plane or a line.
template <typename Visit>
void for_each_part(std::int64_t parts, std::int64_t size, const Visit& visit) {
    parallel_for(parts, 1, std::max<std::int64_t>(2, grain / size), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t part = begin; part < end; ++part) {
            visit(part);
        }
    });
}

// A neighbour of no weight counts nothing, not 0 times infinity.
template <typename T>
T between(T a, T b, T weight) {
    return weight == T(0) ? a : a + weight * (b - a);
}

template <typename T>
void add_between(T* row, const InterpolationTap& col, T gradient) {
    if (col.weight == 0) {
        row[col.first] += gradient;
        return;
    }
    const T right = gradient * static_cast<T>(col.weight);
    row[col.first] += gradient - right;
    row[col.second] += right;
}

}  // namespace

Taps nearest_taps(std::int64_t in, std::int64_t out) {
    Taps taps;
    // floor(i in / out) in steps: no product that could overflow, no rounding.
    std::int64_t position = 0;
    std::int64_t rest = 0;
    for (std::int64_t i = 0; i < out; ++i) {
        taps.push_back({position, position, 0.0});
        position += in / out;
        rest += in % out;
        if (rest >= out) {
            rest -= out;
            ++position;
        }
    }
    return taps;
}

Taps linear_taps(std::int64_t in, std::int64_t out, bool align_corners) {
    Taps taps;
    const auto last = static_cast<double>(in - 1);
    for (std::int64_t i = 0; i < out; ++i) {
        const auto index = static_cast<double>(i);
        double position = 0;
        if (!align_corners) {
            position = (index + 0.5) * static_cast<double>(in) / static_cast<double>(out) - 0.5;
        } else if (out > 1) {
            position = index * last / static_cast<double>(out - 1);
        }
        position = std::clamp(position, 0.0, last);
        const double whole = std::floor(position);
        const auto first = static_cast<std::int64_t>(whole);
        const double weight = position - whole;
        taps.push_back({first, weight > 0 ? first + 1 : first, weight});
    }
    return taps;
}

void interpolate(const Tensor* in, const Taps& rows, const Taps& cols, Tensor* out) {
    const std::int64_t in_cols = in->Shape().back();
    const std::int64_t in_plane = in->Shape().end()[-2] * in_cols;
    const auto out_cols = static_cast<std::int64_t>(cols.size());
    const std::int64_t out_plane = static_cast<std::int64_t>(rows.size()) * out_cols;
    // Rows of all planes are independent.
    dispatch(FloatTypes{}, in->Dtype(), [&]<typename T>() {
        const T* source = static_cast<const T*>(in->getRawData());
        T* result = static_cast<T*>(out->getRawData());
        const auto height = static_cast<std::int64_t>(rows.size());
        for_each_part(in->Size() / in_plane * height, out_cols, [&](std::int64_t line) {
            const InterpolationTap& row = rows[static_cast<std::size_t>(line % height)];
            const T* plane = source + line / height * in_plane;
            const T* upper = plane + row.first * in_cols;
            const T* lower = plane + row.second * in_cols;
            T* y = result + line / height * out_plane + line % height * out_cols;
            const auto down = static_cast<T>(row.weight);
            for (const InterpolationTap& col : cols) {
                const auto right = static_cast<T>(col.weight);
                *y++ = between(between(upper[col.first], upper[col.second], right),
                               between(lower[col.first], lower[col.second], right), down);
            }
        });
    });
}

void interpolate_grad(const Tensor* gradient, const Taps& rows, const Taps& cols, Tensor* in_gradient) {
    const std::int64_t in_cols = in_gradient->Shape().back();
    const std::int64_t in_plane = in_gradient->Shape().end()[-2] * in_cols;
    const std::int64_t out_plane = static_cast<std::int64_t>(rows.size() * cols.size());
    dispatch(FloatTypes{}, gradient->Dtype(), [&]<typename T>() {
        for_each_part(in_gradient->Size() / in_plane, std::max(in_plane, out_plane), [&](std::int64_t plane) {
            const T* g = static_cast<const T*>(gradient->getRawData()) + plane * out_plane;
            T* result = static_cast<T*>(in_gradient->getRawData()) + plane * in_plane;
            std::fill_n(result, in_plane, T(0));
            for (const InterpolationTap& row : rows) {
                T* upper = result + row.first * in_cols;
                T* lower = result + row.second * in_cols;
                const auto down = static_cast<T>(row.weight);
                for (const InterpolationTap& col : cols) {
                    const T below = down == T(0) ? T(0) : *g * down;
                    add_between(upper, col, *g++ - below);
                    if (down != T(0)) {
                        add_between(lower, col, below);
                    }
                }
            }
        });
    });
}

}  // namespace ornik::device::cpu
