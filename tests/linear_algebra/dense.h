// dense.h: matrices in double precision, computed with in plain loops; what tests of decompositions share.
#pragma once

#include <complex>
#include <limits>

#include "matrices.h"

namespace ornik::test {

using Number = std::complex<double>;

template <typename T>
std::vector<Number> numbers(const std::vector<T>& values) {
    std::vector<Number> result;
    for (const T value : values) {
        const auto wide = to<Complex<double>>(value);
        result.emplace_back(wide.real, wide.imag);
    }
    return result;
}

/// The elements of any floating or complex tensor, in row-major order.
inline std::vector<Number> numbers(const TensorPtr& t) {
    if (t->Size() == 0) {
        return {};
    }
    return numbers(values_of<Complex<double>>(TensorPtr(t->astype(dtype::complex128))));
}

struct Dense {
    std::int64_t rows = 0;
    std::int64_t cols = 0;
    std::vector<Number> items{};

    static Dense zeros(std::int64_t m, std::int64_t n) { return {m, n, std::vector<Number>(at(m, 0, n))}; }
    static Dense unit(std::int64_t n, double scale = 1) {
        Dense d = zeros(n, n);
        for (std::int64_t i = 0; i < n; ++i) {
            d(i, i) = scale;
        }
        return d;
    }
    /// Matrix `index` of a batch.
    static Dense of(const TensorPtr& t, std::int64_t index = 0) {
        const Dims& shape = t->Shape();
        Dense d = zeros(shape[shape.size() - 2], shape.back());
        const std::vector<Number> all = numbers(t);
        std::copy_n(all.begin() + index * d.rows * d.cols, d.items.size(), d.items.begin());
        return d;
    }

    Number& operator()(std::int64_t i, std::int64_t j) { return items[at(i, j, cols)]; }
    Number operator()(std::int64_t i, std::int64_t j) const { return items[at(i, j, cols)]; }

    Dense adjoint() const {
        Dense d = zeros(cols, rows);
        for (std::int64_t i = 0; i < rows; ++i) {
            for (std::int64_t j = 0; j < cols; ++j) {
                d(j, i) = std::conj((*this)(i, j));
            }
        }
        return d;
    }
    Dense columns(std::int64_t count) const {
        Dense d = zeros(rows, count);
        for (std::int64_t i = 0; i < rows; ++i) {
            std::copy_n(&items[at(i, 0, cols)], count, &d.items[at(i, 0, count)]);
        }
        return d;
    }
    double largest() const {
        double size = 0;
        for (const Number x : items) {
            size = std::isnan(std::abs(x)) ? HUGE_VAL : std::max(size, std::abs(x));
        }
        return size;
    }

    friend Dense operator*(const Dense& a, const Dense& b) {
        Dense d = zeros(a.rows, b.cols);
        for (std::int64_t i = 0; i < a.rows; ++i) {
            for (std::int64_t k = 0; k < a.cols; ++k) {
                for (std::int64_t j = 0; j < b.cols; ++j) {
                    d(i, j) += a(i, k) * b(k, j);
                }
            }
        }
        return d;
    }
    friend Dense operator-(Dense a, const Dense& b) {
        std::transform(a.items.begin(), a.items.end(), b.items.begin(), a.items.begin(), std::minus<>());
        return a;
    }
};

inline constexpr std::int64_t float_dtypes[] = {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128};

inline double epsilon_of(const TensorPtr& t) {
    const bool single = t->Dtype() == dtype::float32 || t->Dtype() == dtype::complex64;
    return single ? std::numeric_limits<float>::epsilon() : std::numeric_limits<double>::epsilon();
}

inline std::int64_t real_dtype(const TensorPtr& t) {
    return t->Dtype() == dtype::float32 || t->Dtype() == dtype::complex64 ? dtype::float32 : dtype::float64;
}

struct Results {
    explicit Results(const std::vector<Tensor*>& list) : tensors(list.begin(), list.end()) {}
    const TensorPtr& operator[](std::size_t i) const { return tensors[i]; }
    std::vector<TensorPtr> tensors;
};

inline void expect_orthonormal_columns(const Dense& q, double bound) {
    EXPECT_LE((q.adjoint() * q - Dense::unit(q.cols)).largest(), bound);
}

}  // namespace ornik::test
