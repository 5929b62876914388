#include "hardware/cpu/nn/cpu_rows.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/element_math.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t sum_chunk = 128;          // rows
constexpr std::int64_t sum_grain = 1 << 16;      // additions worth a second thread
constexpr std::int64_t softmax_grain = 1 << 12;  // exponentials worth a second thread

template <typename T>
void add_rows(const T* in, std::int64_t begin, std::int64_t end, std::int64_t cols, T* sum) {
    std::fill_n(sum, cols, T(0));
    for (std::int64_t i = begin; i < end; ++i) {
        const T* row = in + i * cols;
        for (std::int64_t j = 0; j < cols; ++j) {
            sum[j] += row[j];
        }
    }
}

template <typename T>
void sum_real_rows(const T* in, std::int64_t rows, std::int64_t cols, T* out) {
    const std::int64_t chunks = (rows + sum_chunk - 1) / sum_chunk;
    std::vector<T> partial(static_cast<std::size_t>(chunks * cols));
    const std::int64_t grain = std::max<std::int64_t>(2, sum_grain / (sum_chunk * cols));
    parallel_for(chunks, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t chunk = begin; chunk < end; ++chunk) {
            add_rows(in, chunk * sum_chunk, std::min(rows, (chunk + 1) * sum_chunk), cols,
                     partial.data() + chunk * cols);
        }
    });
    add_rows(partial.data(), 0, chunks, cols, out);
}

// A contiguous tensor around one axis: [outer, n, inner].
struct AxisView {
    std::int64_t outer = 1;
    std::int64_t n = 1;
    std::int64_t inner = 1;
};

AxisView around(const Dims& shape, int axis) {
    AxisView view;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const auto d = static_cast<int>(i);
        (d < axis ? view.outer : (d == axis ? view.n : view.inner)) *= shape[i];
    }
    return view;
}

// Calls row(first element) for every run along the axis, in parallel; its elements are `inner` apart.
template <typename Row>
void for_each_run(const AxisView& view, const Row& row) {
    const std::int64_t grain = std::max<std::int64_t>(2, softmax_grain / view.n);
    parallel_for(view.outer * view.inner, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t run = begin; run < end; ++run) {
            row(run / view.inner * view.n * view.inner + run % view.inner);
        }
    });
}

}  // namespace

void sum_rows(const Tensor* in, Tensor* out) {
    const std::int64_t rows = in->Shape()[0];
    const std::int64_t cols = in->Shape()[1];
    dispatch(FloatOrComplexTypes{}, in->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;  // A complex row is a real row of twice the length.
        sum_real_rows(static_cast<const Real*>(in->getRawData()), rows,
                      cols * static_cast<std::int64_t>(sizeof(T) / sizeof(Real)),
                      static_cast<Real*>(out->getRawData()));
    });
}

void softmax(const Tensor* in, Tensor* out, int axis) {
    const AxisView view = around(in->Shape(), axis);
    dispatch(FloatTypes{}, in->Dtype(), [&]<typename T>() {
        const T* x = static_cast<const T*>(in->getRawData());
        T* y = static_cast<T*>(out->getRawData());
        for_each_run(view, [&](std::int64_t first) {
            const std::int64_t last = first + view.n * view.inner;
            T highest = -std::numeric_limits<T>::infinity();
            for (std::int64_t i = first; i < last; i += view.inner) {
                highest = std::max(highest, x[i]);
            }
            T sum = 0;
            for (std::int64_t i = first; i < last; i += view.inner) {
                y[i] = std::exp(x[i] - highest);
                sum += y[i];
            }
            for (std::int64_t i = first; i < last; i += view.inner) {
                y[i] /= sum;
            }
        });
    });
}

void softmax_grad(const Tensor* y, const Tensor* g, Tensor* out, int axis) {
    const AxisView view = around(y->Shape(), axis);
    dispatch(FloatTypes{}, y->Dtype(), [&]<typename T>() {
        const T* output = static_cast<const T*>(y->getRawData());
        const T* gradient = static_cast<const T*>(g->getRawData());
        T* result = static_cast<T*>(out->getRawData());
        for_each_run(view, [&](std::int64_t first) {
            const std::int64_t last = first + view.n * view.inner;
            T sum = 0;
            for (std::int64_t i = first; i < last; i += view.inner) {
                sum += gradient[i] * output[i];
            }
            for (std::int64_t i = first; i < last; i += view.inner) {
                result[i] = output[i] * (gradient[i] - sum);
            }
        });
    });
}

}  // namespace ornik::device::cpu
