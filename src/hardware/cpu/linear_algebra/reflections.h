// reflections.h: reflections I - t v v^H, one by one and several together. Included by *_vector.cpp files.
//
// Vectors lie in rows. Several reflections are I - V S V^H with the vectors as columns of V and a small triangular S
// (C. Bischof, C. Van Loan, The WY representation for products of Householder matrices, 1987; in the form of
// R. Schreiber, C. Van Loan, 1989), so that they are applied by matrix products.
#pragma once

#include <vector>

#include "row_operations.h"
#include "solver_products.h"

namespace ornik::device::cpu {

/// Makes the reflection that takes x to the first axis: x[0] becomes the new, real first element, the rest of x that of
/// v, which begins with 1. Returns t.
template <typename T>
T make_reflection(T* x, std::int64_t n) {
    using R = RealOf<T>;
    const T first = x[0];
    const R tail = square_sum(x + 1, n - 1);
    constexpr R tiny = std::numeric_limits<R>::min();
    if (tail <= tiny && std::imag(first) * std::imag(first) <= tiny) {
        std::fill(x + 1, x + n, T(0));
        x[0] = std::real(first);
        return T(0);
    }
    R length = std::sqrt(square_of(first) + tail);
    if (std::real(first) >= 0) {
        length = -length;
    }
    if constexpr (is_complex_scalar<T>) {
        scale_row(inverse_of(first - length), n - 1, x + 1);
    } else {
        divide_row(first - length, n - 1, x + 1);
    }
    x[0] = length;
    return conjugate((length - first) / length);
}

/// y -= t v (v^H y), for a v that begins with 1 whatever v[0] is.
template <typename T>
void reflect(T t, const T* v, std::int64_t n, T* y) {
    if (t != T(0)) {
        const T along = -times(t, y[0] + dot(Conjugated::yes, v + 1, y + 1, n - 1));
        y[0] += along;
        add_scaled(along, v + 1, n - 1, y + 1);
    }
}

/// Some reflections P = (I - t0' v0 v0^H) (I - t1' v1 v1^H) .., where t' is the conjugate of t.
template <typename T>
class Reflections {
  public:
    static constexpr std::int64_t most = 32;

    /// Vectors of up to `length` elements; applied to up to `targets` rows at once.
    Reflections(std::int64_t length, std::int64_t targets)
        : v_(static_cast<std::size_t>(most * length)),
          v_conj_(is_complex_scalar<T> ? v_.size() : 0),
          s_(static_cast<std::size_t>(2 * most * most)),
          inner_(static_cast<std::size_t>(2 * most * targets)) {}

    /// Takes `count` vectors from rows `step` apart; vector k has zeros up to element k and a one there.
    void take(const T* rows, std::int64_t step, std::int64_t count, std::int64_t length, const T* t) {
        count_ = count;
        length_ = length;
        for (std::int64_t k = 0; k < count; ++k) {
            T* v = v_.data() + k * length;
            std::fill_n(v, k, T(0));
            v[k] = T(1);
            std::copy(rows + k * step + k + 1, rows + k * step + length, v + k + 1);
        }
        std::transform(v_.begin(), v_.begin() + (is_complex_scalar<T> ? count * length : 0), v_conj_.begin(),
                       [](T x) { return conjugate(x); });
        // S(i, j), i < j: -t(j) times row i of S times column j of V^H V.
        T* dots = s_.data() + most * most;
        multiply<T>({conjugates(), length}, {v_.data(), length, true}, {dots, count}, count, length, count);
        for (std::int64_t j = 0; j < count; ++j) {
            const T factor = conjugate(t[j]);
            for (std::int64_t i = 0; i < count; ++i) {
                T sum = T(0);
                for (std::int64_t k = i; k < j; ++k) {
                    sum -= times(s(i, k), dots[k * count + j]);
                }
                s(i, j) = i < j ? times(factor, sum) : T(i == j ? factor : T(0));
            }
        }
        std::transform(s_.begin(), s_.begin() + count * count, dots, [](T x) { return -conjugate(x); });
        std::transform(s_.begin(), s_.begin() + count * count, s_.begin(), std::negate<T>());
    }

    /// Every one of `count` rows y, `step` apart and as long as the vectors, becomes P y, or P^H y.
    void apply(bool adjoint, T* rows, std::int64_t step, std::int64_t count) {
        T* along = inner_.data();  // (V^H y)^T, then (-S V^H y)^T
        T* factors = along + count * count_;
        multiply<T>({rows, step}, {conjugates(), length_, true}, {along, count_}, count, length_, count_);
        multiply<T>({along, count_}, {s_.data() + (adjoint ? most * most : 0), count_, !adjoint}, {factors, count_},
                    count, count_, count_);
        multiply<T>({factors, count_}, {v_.data(), length_}, {rows, step}, count, count_, length_, true);
    }

  private:
    T& s(std::int64_t i, std::int64_t j) { return s_[static_cast<std::size_t>(i * count_ + j)]; }
    const T* conjugates() const { return is_complex_scalar<T> ? v_conj_.data() : v_.data(); }

    std::int64_t count_ = 0;
    std::int64_t length_ = 0;
    std::vector<T> v_;
    std::vector<T> v_conj_;
    std::vector<T> s_;  // -S, and the conjugate of it
    std::vector<T> inner_;
};

/// Applies `total` reflections to rows, the last ones first: P y, where P is the product of all of them. Vector k is in
/// row k of `vectors` from element k + offset on. Rows y are `length` long; `triangular`: row i is zero before element
/// i.
template <typename T>
void apply_all(Reflections<T>& together, const T* vectors, std::int64_t step, const T* t, std::int64_t total,
               std::int64_t offset, T* rows, std::int64_t count, std::int64_t length, bool triangular = false) {
    constexpr std::int64_t most = Reflections<T>::most;
    for (std::int64_t begin = (total - 1) / most * most; begin >= 0 && total > 0; begin -= most) {
        const std::int64_t first = begin + offset;
        together.take(vectors + begin * step + first, step, std::min(most, total - begin), length - first, t + begin);
        const std::int64_t skipped = triangular ? begin : 0;
        together.apply(false, rows + skipped * length + first, length, count - skipped);
    }
}

}  // namespace ornik::device::cpu
