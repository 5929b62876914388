#include "hardware/cpu/product/cpu_kron.h"

#include <algorithm>

#include "hardware/cpu/copy/element_access.h"
#include "hardware/cpu/dispatch.h"

namespace ornik::device::cpu {

namespace {

struct Extents {
    explicit Extents(const Tensor* t) : rows(t->Shape()[0]), cols(t->Shape()[1]) {}
    std::int64_t rows;
    std::int64_t cols;
};

}  // namespace

void kron(const Tensor* a, const Tensor* b, Tensor* out) {
    const Extents x(a);
    const Extents y(b);
    dispatch(AllTypes{}, out->Dtype(), [&]<typename T>() {
        const Elements<T> left(a);
        const Elements<T> right(b);
        T* items = static_cast<T*>(out->getRawData());
        for_rows(x.rows * y.rows, x.cols * y.cols, [&](std::int64_t row) {
            T* target = items + row * x.cols * y.cols;
            const std::int64_t first = row % y.rows * y.cols;
            for (std::int64_t j = 0; j < x.cols; ++j, target += y.cols) {
                const T factor = left[row / y.rows * x.cols + j];
                for (std::int64_t l = 0; l < y.cols; ++l) {
                    target[l] = element::mult(factor, right[first + l]);
                }
            }
        });
    });
}

void kron_offsets(const SparseRows& a, const SparseRows& b, std::int64_t* offsets) {
    offsets[0] = 0;
    for (std::int64_t i = 0; i < a.rows; ++i) {
        const std::int64_t entries = a.offsets[i + 1] - a.offsets[i];
        for (std::int64_t k = 0; k < b.rows; ++k, ++offsets) {
            offsets[1] = offsets[0] + entries * (b.offsets[k + 1] - b.offsets[k]);
        }
    }
}

void kron_entries(const SparseRows& a, const SparseRows& b, const std::int64_t* offsets, std::int64_t* columns,
                  Tensor* values) {
    dispatch(AllTypes{}, values->Dtype(), [&]<typename T>() {
        const Elements<T> left(a.values);
        const Elements<T> right(b.values);
        T* products = static_cast<T*>(values->getRawData());
        const std::int64_t rows = a.rows * b.rows;
        for_rows(rows, rows > 0 ? offsets[rows] / rows + 1 : 1, [&](std::int64_t row) {
            std::int64_t entry = offsets[row];
            const std::int64_t k = row % b.rows;
            for (std::int64_t s = a.offsets[row / b.rows]; s < a.offsets[row / b.rows + 1]; ++s) {
                for (std::int64_t t = b.offsets[k]; t < b.offsets[k + 1]; ++t, ++entry) {
                    columns[entry] = a.columns[s] * b.cols + b.columns[t];
                    products[entry] = element::mult(left[s], right[t]);
                }
            }
        });
    });
}

void kron_grad_t1(const Tensor* grad, const Tensor* b, Tensor* out) {
    const Extents x(out);
    const Extents y(b);
    dispatch(AllTypes{}, out->Dtype(), [&]<typename T>() {
        const Elements<T> gradient(grad);
        const Elements<T> right(b);
        T* items = static_cast<T*>(out->getRawData());
        for_rows(x.rows, x.cols * y.rows * y.cols, [&](std::int64_t i) {
            for (std::int64_t j = 0; j < x.cols; ++j) {
                T sum{};
                for (std::int64_t k = 0; k < y.rows; ++k) {
                    const std::int64_t first = ((i * y.rows + k) * x.cols + j) * y.cols;
                    sum = element::add(sum, inner_product(gradient, first, right, k * y.cols, y.cols));
                }
                items[i * x.cols + j] = sum;
            }
        });
    });
}

void kron_grad_t1(const SparseRows& grad, const Tensor* b, Tensor* out) {
    const Extents x(out);
    const Extents y(b);
    dispatch(AllTypes{}, out->Dtype(), [&]<typename T>() {
        const Elements<T> gradient(grad.values);
        const Elements<T> right(b);
        T* items = static_cast<T*>(out->getRawData());
        for_rows(x.rows, x.cols + grad.entries() / std::max<std::int64_t>(x.rows, 1), [&](std::int64_t i) {
            std::fill_n(items + i * x.cols, x.cols, T());
            for (std::int64_t k = 0; k < y.rows; ++k) {
                for (std::int64_t e = grad.offsets[i * y.rows + k]; e < grad.offsets[i * y.rows + k + 1]; ++e) {
                    T& sum = items[i * x.cols + grad.columns[e] / y.cols];
                    const T factor = conjugate(right[k * y.cols + grad.columns[e] % y.cols]);
                    sum = element::add(sum, element::mult(gradient[e], factor));
                }
            }
        });
    });
}

void kron_grad_t2(const Tensor* grad, const Tensor* a, Tensor* out) {
    const Extents x(a);
    const Extents y(out);
    dispatch(AllTypes{}, out->Dtype(), [&]<typename T>() {
        const Elements<T> gradient(grad);
        const Elements<T> left(a);
        T* items = static_cast<T*>(out->getRawData());
        for_rows(y.rows, x.rows * x.cols * y.cols, [&](std::int64_t k) {
            std::fill_n(items + k * y.cols, y.cols, T());
            for (std::int64_t i = 0; i < x.rows; ++i) {
                for (std::int64_t j = 0; j < x.cols; ++j) {
                    add_scaled_row(conjugate(left[i * x.cols + j]), gradient, ((i * y.rows + k) * x.cols + j) * y.cols,
                                   y.cols, items + k * y.cols);
                }
            }
        });
    });
}

void kron_grad_t2(const SparseRows& grad, const Tensor* a, Tensor* out) {
    const Extents x(a);
    const Extents y(out);
    dispatch(AllTypes{}, out->Dtype(), [&]<typename T>() {
        const Elements<T> gradient(grad.values);
        const Elements<T> left(a);
        T* items = static_cast<T*>(out->getRawData());
        for_rows(y.rows, y.cols + grad.entries() / std::max<std::int64_t>(y.rows, 1), [&](std::int64_t k) {
            std::fill_n(items + k * y.cols, y.cols, T());
            for (std::int64_t i = 0; i < x.rows; ++i) {
                for (std::int64_t e = grad.offsets[i * y.rows + k]; e < grad.offsets[i * y.rows + k + 1]; ++e) {
                    T& sum = items[k * y.cols + grad.columns[e] % y.cols];
                    const T factor = conjugate(left[i * x.cols + grad.columns[e] / y.cols]);
                    sum = element::add(sum, element::mult(gradient[e], factor));
                }
            }
        });
    });
}

}  // namespace ornik::device::cpu
