// cpu_schur_real_vector.cpp: real matrices by reflections of three rows that stand for two shifts at once (J. Francis,
// The QR transformation, 1961; with the tests and the eigenvectors' equations of G. Peters, J. Wilkinson, Eigenvectors
// of real and complex matrices by LR and QR triangularizations, 1970).
#include "row_operations.h"
#include "schur.h"

namespace ornik::device::cpu {

namespace {

// Reflects `count` elements: those of each row of v, or w, that are not 0 from `at` on. I - v w^T, v[0] = w's scale.
template <typename R>
struct SmallReflection {
    std::int64_t count = 0;  // 2 or 3; 0: nothing to do
    R v[3] = {};
    R w[3] = {};  // v / first

    SmallReflection(const R* x, std::int64_t elements, R* length) : count(elements) {
        R square = 0;
        for (std::int64_t i = 0; i < count; ++i) {
            square += x[i] * x[i];
        }
        const R root = std::copysign(std::sqrt(square), x[0]);
        *length = -root;
        if (root == 0) {
            count = 0;
            return;
        }
        const R first = x[0] + root;
        v[0] = first / root;
        w[0] = 1;
        for (std::int64_t i = 1; i < count; ++i) {
            v[i] = x[i] / root;
            w[i] = x[i] / first;
        }
    }

    // Rows `step` apart: row i -= v[i] (sum of w row).
    void rows(R* x, std::int64_t step, std::int64_t n, const R* factors, const R* others) const {
        if (count == 0) {
            return;
        }
        detail::for_vectors<R>(0, n, [=, this]<typename V>(std::int64_t j) {
            const V a = vec::load<V>(x + j);
            const V b = vec::load<V>(x + step + j);
            V sum = vec::broadcast<V>(others[0]) * a + vec::broadcast<V>(others[1]) * b;
            if (count == 3) {
                const V c = vec::load<V>(x + 2 * step + j);
                sum = sum + vec::broadcast<V>(others[2]) * c;
                vec::store(static_cast<V>(c - vec::broadcast<V>(factors[2]) * sum), x + 2 * step + j);
            }
            vec::store(static_cast<V>(a - vec::broadcast<V>(factors[0]) * sum), x + j);
            vec::store(static_cast<V>(b - vec::broadcast<V>(factors[1]) * sum), x + step + j);
        });
    }
    void from_left(R* x, std::int64_t step, std::int64_t n) const { rows(x, step, n, v, w); }
    // Of a matrix that lies transposed.
    void from_right_of_rows(R* x, std::int64_t step, std::int64_t n) const { rows(x, step, n, w, v); }
    void from_right(R* x, std::int64_t step, std::int64_t n) const {
        for (std::int64_t i = 0; i < n && count > 0; ++i, x += step) {
            R sum = v[0] * x[0] + v[1] * x[1];
            if (count == 3) {
                sum = sum + v[2] * x[2];
                x[2] -= sum * w[2];
            }
            x[0] -= sum * w[0];
            x[1] -= sum * w[1];
        }
    }
};

template <typename R>
class Francis {
  public:
    Francis(std::int64_t n, R* h, R* q, std::complex<R>* values)
        : n_(n), h_(h), q_(q), values_(values), nothing_(epsilon * largest_part(h, n * n) * R(0x1p-6)) {}

    bool run() {
        std::int64_t end = n_ - 1;
        for (std::int64_t round = 0, stuck = 0; end >= 0; ++round, ++stuck) {
            if (round == 40 * n_) {
                return false;
            }
            std::int64_t first = end;
            while (first > 0 && !is_small(first)) {
                --first;
            }
            if (first > 0) {
                at(first, first - 1) = 0;
            }
            if (first == end) {
                values_[end] = at(end, end) + moved_;
                at(end, end) += moved_;
                end -= 1;
                stuck = -1;
            } else if (first == end - 1) {
                finish_pair(end);
                end -= 2;
                stuck = -1;
            } else {
                sweep(first, end, stuck);
            }
        }
        return true;
    }

  private:
    static constexpr R epsilon = std::numeric_limits<R>::epsilon();

    R& at(std::int64_t i, std::int64_t j) { return h_[i * n_ + j]; }
    std::int64_t width(std::int64_t end) const { return q_ != nullptr ? n_ : end + 1; }

    bool is_small(std::int64_t i) {
        return std::fabs(at(i, i - 1)) <= epsilon * (std::fabs(at(i - 1, i - 1)) + std::fabs(at(i, i))) + nothing_;
    }

    // The square that ends at `end` stands alone: two real eigenvalues, by a rotation, or a pair.
    void finish_pair(std::int64_t end) {
        const std::int64_t k = end - 1;
        at(k, k) += moved_;
        at(end, end) += moved_;
        const R half = (at(k, k) - at(end, end)) / 2;
        const R product = at(end, k) * at(k, end);
        const R square = half * half + product;
        if (square < 0) {
            const R imaginary = std::sqrt(-square);
            values_[k] = std::complex<R>(at(end, end) + half, imaginary);
            values_[end] = std::complex<R>(at(end, end) + half, -imaginary);
            return;
        }
        const R larger = half + std::copysign(std::sqrt(square), half);
        // (larger, lower element) is a vector of the first value.
        const R below = at(end, k);
        const R size = std::max(std::fabs(larger), std::fabs(below));
        const R f = larger / size;
        const R g = below / size;
        const R length = std::sqrt(f * f + g * g);
        const R c = f / length;
        const R s = g / length;
        const auto rotate = [c, s](R& x, R& y) {
            const R old = x;
            x = c * x + s * y;
            y = c * y - s * old;
        };
        for (std::int64_t j = k; j < width(end); ++j) {
            rotate(at(k, j), at(end, j));
        }
        for (std::int64_t i = q_ != nullptr ? 0 : k; i <= end; ++i) {
            rotate(at(i, k), at(i, end));
        }
        at(end, k) = 0;
        for (std::int64_t j = 0; j < n_ && q_ != nullptr; ++j) {
            rotate(q_[k * n_ + j], q_[end * n_ + j]);
        }
        values_[k] = at(k, k);
        values_[end] = at(end, end);
    }

    // One step with two shifts, of rows and columns [first, end].
    void sweep(std::int64_t first, std::int64_t end, std::int64_t stuck) {
        R x = at(end, end);
        R y = at(end - 1, end - 1);
        R product = at(end, end - 1) * at(end - 1, end);
        if (stuck % 10 == 9) {  // Something else, lest it goes round in circles.
            moved_ += x;
            for (std::int64_t i = 0; i <= end; ++i) {
                at(i, i) -= x;
            }
            const R size = std::fabs(at(end, end - 1)) + std::fabs(at(end - 1, end - 2));
            x = y = R(0.75) * size;
            product = R(-0.4375) * size * size;
        }
        // Where the sweep may begin: above two elements that are small together.
        R start[3] = {};
        std::int64_t m = end - 2;
        for (;; --m) {
            const R z = at(m, m);
            const R to_x = x - z;
            const R to_y = y - z;
            start[0] = (to_x * to_y - product) / at(m + 1, m) + at(m, m + 1);
            start[1] = at(m + 1, m + 1) - z - to_x - to_y;
            start[2] = at(m + 2, m + 1);
            const R size = std::fabs(start[0]) + std::fabs(start[1]) + std::fabs(start[2]);
            for (R& element : start) {
                element /= size;
            }
            if (m == first || std::fabs(at(m, m - 1)) * (std::fabs(start[1]) + std::fabs(start[2])) <
                                  epsilon * std::fabs(start[0]) *
                                      (std::fabs(at(m - 1, m - 1)) + std::fabs(z) + std::fabs(at(m + 1, m + 1)))) {
                break;
            }
        }
        const std::int64_t top = q_ != nullptr ? 0 : first;
        for (std::int64_t k = m; k < end; ++k) {
            const std::int64_t count = std::min<std::int64_t>(3, end - k + 1);
            R column[3] = {start[0], start[1], start[2]};
            R size = 1;
            if (k > m) {
                size = 0;
                for (std::int64_t i = 0; i < count; ++i) {
                    column[i] = at(k + i, k - 1);
                    size = std::max(size, std::fabs(column[i]));
                }
                if (size == 0) {
                    continue;
                }
                for (R& element : column) {
                    element /= size;
                }
            }
            R length = 0;
            const SmallReflection<R> reflection(column, count, &length);
            if (k > m) {
                at(k, k - 1) = length * size;
                at(k + 1, k - 1) = 0;
                if (count == 3) {
                    at(k + 2, k - 1) = 0;
                }
            } else if (m > first && reflection.count > 0) {
                at(k, k - 1) = at(k, k - 1) * (1 - reflection.v[0]);
            }
            reflection.from_left(&at(k, k), n_, width(end) - k);
            reflection.from_right(&at(top, k), n_, std::min(end, k + 3) + 1 - top);
            if (q_ != nullptr) {
                reflection.from_right_of_rows(q_ + k * n_, n_, n_);
            }
        }
    }

    std::int64_t n_;
    R* h_;
    R* q_;
    std::complex<R>* values_;
    R nothing_;
    R moved_ = 0;  // What was taken from the diagonal.
};

// a / b
template <typename R>
std::complex<R> quotient(std::complex<R> a, std::complex<R> b) {
    return times(a, inverse_of(b));
}

}  // namespace

template <typename R>
bool make_triangular(std::int64_t n, R* h, R* q, std::complex<R>* values) {
    return Francis<R>(n, h, q, values).run();
}

template <typename R>
void triangular_vectors(std::int64_t n, const R* h, const std::complex<R>* values, R* rows) {
    using Complex = std::complex<R>;
    const auto at = [=](std::int64_t i, std::int64_t j) { return h[i * n + j]; };
    const R nothing =
        std::max(std::numeric_limits<R>::epsilon() * largest_part(h, n * n), std::numeric_limits<R>::min());
    const auto is_second = [=](std::int64_t i) { return values[i].imag() < 0; };
    std::fill_n(rows, n * n, R(0));
    for (std::int64_t k = 0; k < n; ++k) {
        const Complex value = values[k];
        const bool is_pair = value.imag() > 0;
        R* re = rows + k * n;
        R* im = is_pair ? re + n : nullptr;
        const auto set = [=](std::int64_t i, Complex z) {
            re[i] = z.real();
            if (im != nullptr) {
                im[i] = z.imag();
            }
        };
        // What the known elements from i on give in a row.
        const std::int64_t last = k + (is_pair ? 1 : 0);
        const auto sum = [=](std::int64_t row, std::int64_t i) {
            const R* elements = h + row * n + i;
            const std::int64_t count = last + 1 - i;
            return Complex(dot(Conjugated::no, elements, re + i, count),
                           im == nullptr ? R(0) : dot(Conjugated::no, elements, im + i, count));
        };
        const auto away_from_zero = [=](Complex z) { return magnitude(z) < nothing ? Complex(nothing) : z; };
        if (is_pair) {  // Of the square itself.
            if (std::fabs(at(k, k + 1)) >= std::fabs(at(k + 1, k))) {
                set(k, Complex(1));
                set(k + 1, (value - at(k, k)) / at(k, k + 1));
            } else {
                set(k, (value - at(k + 1, k + 1)) / at(k + 1, k));
                set(k + 1, Complex(1));
            }
        } else {
            set(k, Complex(1));
        }
        for (std::int64_t i = k; i-- > 0;) {
            R size = 0;
            if (is_second(i)) {
                const Complex a = at(i - 1, i - 1) - value;
                const Complex d = at(i, i) - value;
                const R b = at(i - 1, i);
                const R c = at(i, i - 1);
                const Complex upper = -sum(i - 1, i + 1);
                const Complex lower = -sum(i, i + 1);
                const R scale = std::max(std::fabs(b), std::fabs(c));
                // By Cramer's rule, in numbers near 1.
                const Complex determinant = away_from_zero((times(a, d) - b * c) / scale);
                set(i, quotient((times(a, lower) - c * upper) / scale, determinant));
                set(i - 1, quotient((times(d, upper) - b * lower) / scale, determinant));
                size = std::max(magnitude(Complex(re[i], im == nullptr ? 0 : im[i])),
                                magnitude(Complex(re[i - 1], im == nullptr ? 0 : im[i - 1])));
                --i;
            } else {
                set(i, quotient(-sum(i, i + 1), away_from_zero(at(i, i) - value)));
                size = magnitude(Complex(re[i], im == nullptr ? 0 : im[i]));
            }
            if (size > R(0x1p40)) {  // Only directions count.
                divide_row(size, last - i + 1, re + i);
                if (im != nullptr) {
                    divide_row(size, last - i + 1, im + i);
                }
            }
        }
        k = last;
    }
}

#define ORNIK_INSTANTIATE_SCHUR(R)                                         \
    template bool make_triangular(std::int64_t, R*, R*, std::complex<R>*); \
    template void triangular_vectors(std::int64_t, const R*, const std::complex<R>*, R*)
ORNIK_INSTANTIATE_SCHUR(float);
ORNIK_INSTANTIATE_SCHUR(double);

}  // namespace ornik::device::cpu
