// hessenberg.h: A = Q H Q^H with zeros below the diagonal beside H's. Included by *_vector.cpp files.
#pragma once

#include <vector>

#include "reflections.h"

namespace ornik::device::cpu {

/// Work space for matrices of n rows.
template <typename T>
class Hessenberg {
  public:
    explicit Hessenberg(std::int64_t n)
        : n_(n),
          vectors_(static_cast<std::size_t>(n * n)),
          t_(static_cast<std::size_t>(n)),
          v_(t_.size()),
          v_conj_(t_.size()),
          z_(t_.size()),
          together_(n, n) {}

    /// a, n x n, becomes H; columns of Q become the rows of q, or null.
    void reduce(T* a, T* q) {
        for (std::int64_t k = 0; k + 2 < n_; ++k) {
            const auto at = static_cast<std::size_t>(k);
            const std::int64_t first = k + 1;
            const std::int64_t rest = n_ - first;
            T* v = v_.data() + first;
            for (std::int64_t i = 0; i < rest; ++i) {
                v[i] = a[(first + i) * n_ + k];
            }
            t_[at] = make_reflection(v, rest);
            a[first * n_ + k] = v[0];
            for (std::int64_t i = 1; i < rest; ++i) {
                a[(first + i) * n_ + k] = T(0);
            }
            v[0] = T(1);
            std::copy_n(v, rest, vectors_.data() + k * n_ + first);
            T* v_conj = v_conj_.data() + first;
            std::transform(v, v + rest, v_conj, [](T x) { return conjugate(x); });
            multiply_left(first, a);
            // From the left, then from the right: A -= t v (v^H A), A -= t' (A v) v^H, t' being the conjugate.
            for (std::int64_t i = 0; i < n_; ++i) {
                T* row = a + i * n_ + first;
                if (i >= first) {
                    add_scaled(-times(t_[at], v[i - first]), z_.data() + first, rest, row);
                }
                add_scaled(-times(conjugate(t_[at]), dot(Conjugated::no, row, v, rest)), v_conj, rest, row);
            }
        }
        if (q != nullptr) {
            std::fill_n(q, n_ * n_, T(0));
            for (std::int64_t i = 0; i < n_; ++i) {
                q[i * n_ + i] = T(1);
            }
            apply_all(together_, vectors_.data(), n_, t_.data(), n_ - 2, 1, q, n_, n_);
        }
    }

  private:
    // z = v^H A
    void multiply_left(std::int64_t first, const T* a) {
        constexpr std::int64_t at_once = 8;
        T* z = z_.data() + first;
        std::fill_n(z, n_ - first, T(0));
        for (std::int64_t i = first; i < n_; i += at_once) {
            add_combination(std::min(at_once, n_ - i), v_conj_.data() + i, 1, a + i * n_ + first, n_, n_ - first, z);
        }
    }

    std::int64_t n_;
    std::vector<T> vectors_;
    std::vector<T> t_;
    std::vector<T> v_;
    std::vector<T> v_conj_;
    std::vector<T> z_;
    Reflections<T> together_;
};

}  // namespace ornik::device::cpu
