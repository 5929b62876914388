#include "hardware/cpu/nn/cpu_recurrent.h"

#include <algorithm>
#include <cmath>

#include "../elements/real_functions.h"
#include "descriptors/element_load.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t grain = 1 << 11;  // units worth a second thread

template <typename T>
T* at(void* matrix, std::int64_t row, std::int64_t width) {
    return static_cast<T*>(matrix) + row * width;
}
// Null stays null.
template <typename T>
const T* at(const void* matrix, std::int64_t row, std::int64_t width) {
    return matrix == nullptr ? nullptr : static_cast<const T*>(matrix) + row * width;
}

template <typename T>
const T* row_of(const PreviousState& previous, std::int64_t row, std::int64_t width) {
    return at<T>(row < previous.from_steps ? previous.steps : previous.initial, row, width);
}

template <typename Row>
void for_each_row(const RecurrentStep& step, const Row& visit) {
    dispatch(FloatTypes{}, step.dtype, [&]<typename T>() {
        parallel_for(step.rows, 1, std::max<std::int64_t>(2, grain / step.width), [&](auto begin, auto end) {
            for (std::int64_t row = begin; row < end; ++row) {
                visit.template operator()<T>(row);
            }
        });
    });
}

// In place: calls would keep the loops below from being vectorised.
template <typename T>
ORNIK_IN_PLACE T sigmoid(T x) {
    return real_functions::sigmoid(x);
}
template <typename T>
ORNIK_IN_PLACE T tanh(T x) {
    return real_functions::tanh(x);
}

}  // namespace

void lstm_gates(const RecurrentStep& step, void* gates, void* cell, void* hidden, void* cells, void* output) {
    const std::int64_t n = step.width;
    for_each_row(step, [=]<typename T>(std::int64_t row) {
        T* i = at<T>(gates, row, 4 * n);
        T *f = i + n, *g = f + n, *o = g + n;
        T *c = at<T>(cell, row, n), *h = at<T>(hidden, row, n);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t k = 0; k < n; ++k) {
            i[k] = sigmoid(i[k]);
            f[k] = sigmoid(f[k]);
            g[k] = tanh(g[k]);
            o[k] = sigmoid(o[k]);
            c[k] = f[k] * c[k] + i[k] * g[k];
            h[k] = o[k] * tanh(c[k]);
        }
        std::copy_n(c, n, at<T>(cells, row, n));
        std::copy_n(h, n, at<T>(output, row, n));
    });
}

void lstm_gates_grad(const RecurrentStep& step, const void* gates, const void* cells, const PreviousState& previous,
                     const void* output_gradient, const void* hidden, void* cell, void* into) {
    const std::int64_t n = step.width;
    for_each_row(step, [=]<typename T>(std::int64_t row) {
        const T* i = at<T>(gates, row, 4 * n);
        const T *f = i + n, *g = f + n, *o = g + n;
        const T *c = at<T>(cells, row, n), *before = row_of<T>(previous, row, n);
        const T *dy = at<T>(output_gradient, row, n), *dh = at<T>(hidden, row, n);
        T *dc = at<T>(cell, row, n), *di = at<T>(into, row, 4 * n);
        T *df = di + n, *dg = df + n, *d_o = dg + n;
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t k = 0; k < n; ++k) {
            const T total = dy == nullptr ? dh[k] : dh[k] + dy[k];
            const T bent = tanh(c[k]);
            const T through = dc[k] + total * o[k] * (T(1) - bent * bent);
            di[k] = through * g[k] * (i[k] * (T(1) - i[k]));
            df[k] = through * (before == nullptr ? T(0) : before[k]) * (f[k] * (T(1) - f[k]));
            dg[k] = through * i[k] * (T(1) - g[k] * g[k]);
            d_o[k] = total * bent * (o[k] * (T(1) - o[k]));
            dc[k] = through * f[k];
        }
    });
}

void gru_gates(const RecurrentStep& step, void* gates, const void* recurrent, const void* bias, void* hidden,
               void* output) {
    const std::int64_t n = step.width;
    for_each_row(step, [=]<typename T>(std::int64_t row) {
        T* r = at<T>(gates, row, 4 * n);
        T *z = r + n, *fresh = z + n, *state = fresh + n, *h = at<T>(hidden, row, n);
        const T *by_r = at<T>(recurrent, row, 3 * n), *b = at<T>(bias, 0, n);
        const T *by_z = by_r + n, *by_n = by_z + n;
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t k = 0; k < n; ++k) {
            r[k] = sigmoid(r[k] + by_r[k]);
            z[k] = sigmoid(z[k] + by_z[k]);
            state[k] = b == nullptr ? by_n[k] : by_n[k] + b[k];
            fresh[k] = tanh(fresh[k] + r[k] * state[k]);
            h[k] = (T(1) - z[k]) * fresh[k] + z[k] * h[k];
        }
        std::copy_n(h, n, at<T>(output, row, n));
    });
}

void gru_gates_grad(const RecurrentStep& step, const void* gates, const PreviousState& previous,
                    const void* output_gradient, void* hidden, void* by_input, void* by_hidden) {
    const std::int64_t n = step.width;
    for_each_row(step, [=]<typename T>(std::int64_t row) {
        const T* r = at<T>(gates, row, 4 * n);
        const T *z = r + n, *fresh = z + n, *state = fresh + n;
        const T *before = row_of<T>(previous, row, n), *dy = at<T>(output_gradient, row, n);
        T *dh = at<T>(hidden, row, n), *dr = at<T>(by_input, row, 3 * n), *hr = at<T>(by_hidden, row, 3 * n);
        T *dz = dr + n, *dn = dz + n, *hz = hr + n, *hn = hz + n;
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t k = 0; k < n; ++k) {
            const T total = dy == nullptr ? dh[k] : dh[k] + dy[k];
            const T old = before == nullptr ? T(0) : before[k];
            dn[k] = total * (T(1) - z[k]) * (T(1) - fresh[k] * fresh[k]);
            hn[k] = dn[k] * r[k];
            dz[k] = hz[k] = total * (old - fresh[k]) * (z[k] * (T(1) - z[k]));
            dr[k] = hr[k] = dn[k] * state[k] * (r[k] * (T(1) - r[k]));
            dh[k] = total * z[k];
        }
    });
}

}  // namespace ornik::device::cpu
