// row_operations.h: what decompositions do with rows of matrices. Included by their *_vector.cpp files.
//
// Real and complex elements alike. Elements that do not depend on one another are computed as wide as the processor
// likes; a sum over a row has a fixed number of lanes, whatever the width. Products are rounded before they are added:
// nearly all of these loops wait for memory, and it costs nothing where there is no fused step.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <utility>

#include "hardware/cpu/vector_types.h"
#include "matrix_solvers.h"

namespace ornik::device::cpu {

template <typename T>
inline constexpr bool is_complex_scalar = !std::is_floating_point_v<T>;

// ---- Scalars. The standard library's complex products and quotients look for NaN first, and compilers fuse them as
// they like.

template <typename T>
ORNIK_EXPAND T conjugate(T x) {
    if constexpr (is_complex_scalar<T>) {
        return T(x.real(), -x.imag());
    } else {
        return x;
    }
}

template <typename T>
ORNIK_EXPAND T times(T a, T b) {
    if constexpr (is_complex_scalar<T>) {
        using vec::fused;
        return T(fused(a.real(), b.real(), -(a.imag() * b.imag())), fused(a.real(), b.imag(), a.imag() * b.real()));
    } else {
        return a * b;
    }
}

template <typename T>
RealOf<T> magnitude(T x) {
    if constexpr (is_complex_scalar<T>) {
        using R = RealOf<T>;
        const R a = std::fabs(x.real());
        const R b = std::fabs(x.imag());
        const R larger = a < b ? b : a;
        if (larger == 0 || std::isinf(a) || std::isinf(b)) {
            return larger;
        }
        const R p = a / larger;
        const R q = b / larger;
        return larger * std::sqrt(p * p + q * q);
    } else {
        return std::fabs(x);
    }
}

/// 1 / x
template <typename T>
T inverse_of(T x) {
    if constexpr (is_complex_scalar<T>) {
        using R = RealOf<T>;
        const R larger = std::max(std::fabs(x.real()), std::fabs(x.imag()));
        const R p = x.real() / larger;
        const R q = x.imag() / larger;
        const R square = p * p + q * q;
        return T(p / square / larger, -q / square / larger);
    } else {
        return 1 / x;
    }
}

/// The largest part of any element; NaN counts for nothing.
template <typename T>
RealOf<T> largest_part(const T* x, std::int64_t n) {
    using R = RealOf<T>;
    const R* parts = reinterpret_cast<const R*>(x);
    R largest = 0;
    for (std::int64_t i = 0; i < n * static_cast<std::int64_t>(sizeof(T) / sizeof(R)); ++i) {
        const R part = std::fabs(parts[i]);
        largest = part > largest ? part : largest;
    }
    return largest;
}

/// The power of two below `largest`: what it divides has squares that neither overflow nor vanish. 1 for 0 and what is
/// not finite.
template <typename R>
R scale_below(R largest) {
    constexpr int least = std::numeric_limits<R>::min_exponent;
    return std::isfinite(largest) && largest > 0 ? std::ldexp(R(1), std::max(std::ilogb(largest), least)) : R(1);
}

// ---- Rows.

namespace detail {

constexpr std::int64_t lane_bytes = 128;  // of the sums over a row

// Calls step.operator()<V>(i) for vectors V of at least 16 bytes at the reals from i on, wide ones first. Returns where
// less than 16 bytes are left.
template <typename R, typename Step>
ORNIK_EXPAND std::int64_t for_wide_vectors(std::int64_t i, std::int64_t reals, const Step& step) {
    constexpr auto in = [](int bytes) { return static_cast<std::int64_t>(bytes / sizeof(R)); };
    for (; i + in(vec::vector_bytes) <= reals; i += in(vec::vector_bytes)) {
        step.template operator()<vec::Vector<R>>(i);
    }
    if constexpr (vec::vector_bytes > 32) {
        if (i + in(32) <= reals) {
            step.template operator()<vec::Vector<R, 32>>(i);
            i += in(32);
        }
    }
    if constexpr (vec::vector_bytes > 16) {
        if (i + in(16) <= reals) {
            step.template operator()<vec::Vector<R, 16>>(i);
            i += in(16);
        }
    }
    return i;
}

// The same with narrow ones, until all of `reals` are done.
template <typename T, typename Step>
ORNIK_EXPAND void for_vectors(std::int64_t i, std::int64_t reals, const Step& step) {
    using R = RealOf<T>;
    i = for_wide_vectors<R>(i, reals, step);
    if constexpr (is_complex_scalar<T>) {
        if (i < reals) {  // One of single precision.
            step.template operator()<vec::Vector<R, 8>>(i);
        }
    } else {
        for (; i < reals; ++i) {
            step.template operator()<R>(i);
        }
    }
}

// Less than 16 bytes, and zeros behind.
template <typename R>
ORNIK_EXPAND vec::Vector<R, 16> load_part(const R* from, std::int64_t count) {
    using V = vec::Vector<R, 16>;
    if constexpr (sizeof(R) == 8) {
        return V{from[0], 0};
    } else {
        return count == 1   ? V{from[0], 0, 0, 0}
               : count == 2 ? V{from[0], from[1], 0, 0}
                            : V{from[0], from[1], from[2], 0};
    }
}
template <typename R>
ORNIK_EXPAND void store_part(const vec::Vector<R, 16>& v, std::int64_t count, R* to) {
    for (std::int64_t i = 0; i < count; ++i) {
        to[i] = v[i];
    }
}

template <typename V, std::size_t... I>
ORNIK_EXPAND V pairs_swapped(V v, std::index_sequence<I...> /*lanes*/) {
    return __builtin_shufflevector(v, v, (I ^ 1)...);
}
template <typename V, typename R, std::size_t... I>
ORNIK_EXPAND V pairs_of(R even, R odd, std::index_sequence<I...> /*lanes*/) {
    return V{(I % 2 == 0 ? even : odd)...};
}
template <typename V, typename R>
using LanesOf = std::make_index_sequence<sizeof(V) / sizeof(R)>;

// y + a x for a vector of elements x, or y + a conj(x).
template <typename T, typename V>
struct Scale {
    V a;

    ORNIK_EXPAND explicit Scale(T factor, bool /*of_conjugates*/ = false) : a(vec::broadcast<V>(factor)) {}
    ORNIK_EXPAND V add(V x, V y) const { return y + a * x; }
    ORNIK_EXPAND V times(V x) const { return a * x; }
};
template <typename R, typename V>
struct Scale<std::complex<R>, V> {
    V a, b;

    ORNIK_EXPAND explicit Scale(std::complex<R> factor, bool of_conjugates = false)
        : a(pairs_of<V>(factor.real(), of_conjugates ? -factor.real() : factor.real(), LanesOf<V, R>{})),
          b(pairs_of<V>(of_conjugates ? factor.imag() : -factor.imag(), factor.imag(), LanesOf<V, R>{})) {}
    ORNIK_EXPAND V add(V x, V y) const {
        y = y + a * x;
        return y + b * pairs_swapped(x, LanesOf<V, R>{});
    }
    ORNIK_EXPAND V times(V x) const {
        const V first = a * x;
        return first + b * pairs_swapped(x, LanesOf<V, R>{});
    }
};

// The sum of x y over a row, its terms taken into lanes in turn: adds x y to the sums of the lanes from i on.
template <typename T>
class LaneSums {
  public:
    using R = RealOf<T>;
    static constexpr std::int64_t count = lane_bytes / static_cast<std::int64_t>(sizeof(R));

    template <typename V>
    ORNIK_EXPAND void add(V x, V y, std::int64_t lane) {
        vec::store(static_cast<V>(vec::load<V>(straight + lane) + x * y), straight + lane);
        if constexpr (is_complex_scalar<T>) {
            vec::store(static_cast<V>(vec::load<V>(crossed + lane) + x * pairs_swapped(y, LanesOf<V, R>{})),
                       crossed + lane);
        }
    }

    // The sum of x y, or of conj(x) y, over `reals` numbers.
    T sum(std::int64_t reals, bool of_conjugates) const {
        if constexpr (is_complex_scalar<T>) {
            R a[2];
            R b[2];
            fold<2>(straight, reals, a);
            fold<2>(crossed, reals, b);
            return of_conjugates ? T(a[0] + a[1], b[0] - b[1]) : T(a[0] - a[1], b[0] + b[1]);
        } else {
            R total;
            fold<1>(straight, reals, &total);
            return total;
        }
    }

    alignas(64) R straight[count] = {};
    alignas(64) R crossed[is_complex_scalar<T> ? count : 1] = {};

  private:
    template <int Last>
    static void fold(const R* lanes, std::int64_t reals, R* out) {
        using V = vec::Vector<R, 16>;
        constexpr int width = 16 / sizeof(R);
        V sums[count / width];
        int used = count / width;
        while (used > 1 && reals <= used / 2 * width) {  // Behind are zeros.
            used /= 2;
        }
        for (int i = 0; i < used; ++i) {
            sums[i] = vec::load<V>(lanes + i * width);
        }
        for (int half = used / 2; half > 0; half /= 2) {
            for (int i = 0; i < half; ++i) {
                sums[i] = sums[i] + sums[i + half];
            }
        }
        R rest[width];
        vec::store(sums[0], rest);
        for (int half = width / 2; half >= Last; half /= 2) {
            for (int i = 0; i < half; ++i) {
                rest[i] = rest[i] + rest[i + half];
            }
        }
        std::copy_n(rest, Last, out);
    }
};

}  // namespace detail

template <typename T>
constexpr std::int64_t parts_in = sizeof(T) / sizeof(RealOf<T>);

template <typename T>
ORNIK_EXPAND const RealOf<T>* parts_of(const T* x) {
    return reinterpret_cast<const RealOf<T>*>(x);
}
template <typename T>
ORNIK_EXPAND RealOf<T>* parts_of(T* x) {
    return reinterpret_cast<RealOf<T>*>(x);
}

enum class Conjugated { no, yes };

/// y[j] += sum over k of c[k * c_step] x[k * x_step + j], one k after the other.
template <typename T>
void add_combination(std::int64_t count, const T* c, std::int64_t c_step, const T* x, std::int64_t x_step,
                     std::int64_t n, T* y) {
    using R = RealOf<T>;
    using V = vec::Vector<R>;
    constexpr std::int64_t width = vec::lanes<R>;
    constexpr int together = 4;
    const std::int64_t reals = n * parts_in<T>;
    const std::int64_t step = x_step * parts_in<T>;
    const R* rows = parts_of(x);
    R* out = parts_of(y);
    std::int64_t i = 0;
    for (; i + together * width <= reals; i += together * width) {
        V sums[together];
        for (int v = 0; v < together; ++v) {
            sums[v] = vec::load<V>(out + i + v * width);
        }
        const R* row = rows + i;
        for (std::int64_t k = 0; k < count; ++k, row += step) {
            const detail::Scale<T, V> scale(c[k * c_step]);
            for (int v = 0; v < together; ++v) {
                sums[v] = scale.add(vec::load<V>(row + v * width), sums[v]);
            }
        }
        for (int v = 0; v < together; ++v) {
            vec::store(sums[v], out + i + v * width);
        }
    }
    detail::for_vectors<T>(i, reals, [&]<typename W>(std::int64_t at) {
        W sum = vec::load<W>(out + at);
        for (std::int64_t k = 0; k < count; ++k) {
            sum = detail::Scale<T, W>(c[k * c_step]).add(vec::load<W>(rows + k * step + at), sum);
        }
        vec::store(sum, out + at);
    });
}

/// y += a x
template <typename T>
void add_scaled(T a, const T* x, std::int64_t n, T* y) {
    add_combination<T>(1, &a, 0, x, 0, n, y);
}

/// x *= a
template <typename T>
void scale_row(T a, std::int64_t n, T* x) {
    RealOf<T>* row = parts_of(x);
    detail::for_vectors<T>(0, n * parts_in<T>, [&]<typename V>(std::int64_t i) {
        vec::store(detail::Scale<T, V>(a).times(vec::load<V>(row + i)), row + i);
    });
}

/// x /= a, for a real a.
template <typename T>
void divide_row(RealOf<T> a, std::int64_t n, T* x) {
    RealOf<T>* row = parts_of(x);
    detail::for_vectors<T>(0, n * parts_in<T>, [&]<typename V>(std::int64_t i) {
        vec::store(static_cast<V>(vec::load<V>(row + i) / vec::broadcast<V>(a)), row + i);
    });
}

namespace detail {

// The sum of x y, or of conj(x) y: pair_at.operator()<V>(i) gives vectors V of both at the reals from i on, the last
// `count` of them as 16 bytes by part_at(i, count).
template <typename T, typename PairAt, typename PartAt>
ORNIK_EXPAND T sum_of_products(std::int64_t reals, bool conjugated, const PairAt& pair_at, const PartAt& part_at) {
    using R = RealOf<T>;
    using V = vec::Vector<R>;
    using Sums = LaneSums<T>;
    constexpr int width = vec::lanes<R>;
    constexpr int vectors = static_cast<int>(Sums::count) / width;
    Sums lanes;
    std::int64_t i = 0;
    if (reals >= Sums::count) {
        V straight[vectors] = {};
        V crossed[vectors] = {};
        for (; i + Sums::count <= reals; i += Sums::count) {
            for (int v = 0; v < vectors; ++v) {
                const std::pair<V, V> both = pair_at.template operator()<V>(i + v * width);
                straight[v] += both.first * both.second;
                if constexpr (is_complex_scalar<T>) {
                    crossed[v] += both.first * pairs_swapped(both.second, LanesOf<V, R>{});
                }
            }
        }
        for (int v = 0; v < vectors; ++v) {
            vec::store(straight[v], lanes.straight + v * width);
            if constexpr (is_complex_scalar<T>) {
                vec::store(crossed[v], lanes.crossed + v * width);
            }
        }
    }
    const std::int64_t rest = reals - i;
    const std::int64_t done = for_wide_vectors<R>(0, rest, [&]<typename W>(std::int64_t lane) {
        const std::pair<W, W> both = pair_at.template operator()<W>(i + lane);
        lanes.template add<W>(both.first, both.second, lane);
    });
    if (done < rest) {
        const auto both = part_at(i + done, rest - done);
        lanes.template add<vec::Vector<R, 16>>(both.first, both.second, done);
    }
    return lanes.sum(reals, conjugated);
}

}  // namespace detail

/// The sum of x y, or of conj(x) y.
template <typename T>
T dot(Conjugated conjugated, const T* x, const T* y, std::int64_t n) {
    return detail::sum_of_products<T>(
        n * parts_in<T>, conjugated == Conjugated::yes,
        [=]<typename V>(std::int64_t i) {
            return std::pair<V, V>(vec::load<V>(parts_of(x) + i), vec::load<V>(parts_of(y) + i));
        },
        [=](std::int64_t i, std::int64_t count) {
            return std::pair(detail::load_part(parts_of(x) + i, count), detail::load_part(parts_of(y) + i, count));
        });
}

/// |x|^2
template <typename T>
ORNIK_EXPAND RealOf<T> square_of(T x) {
    return std::real(x) * std::real(x) + std::imag(x) * std::imag(x);
}

/// The sum of the squares of the magnitudes.
template <typename T>
RealOf<T> square_sum(const T* x, std::int64_t n) {
    return dot<RealOf<T>>(Conjugated::no, parts_of(x), parts_of(x), n * parts_in<T>);
}

/// row += c0 x0 + c1 x1; then, where `Accumulate`, p += f conj(row). Returns the sum of row v.
template <typename T, bool Accumulate>
T update_and_multiply(std::int64_t n, T c0, const T* x0, T c1, const T* x1, T* row, const T* v, T f = T(0),
                      T* p = nullptr) {
    using detail::load_part;
    using detail::Scale;
    using detail::store_part;
    const auto updated = [=]<typename W>(const W& old, const W& at0, const W& at1) {
        return W(Scale<T, W>(c1).add(at1, Scale<T, W>(c0).add(at0, old)));
    };
    const auto accumulated = [=]<typename W>(const W& old, const W& sum) {
        return W(Scale<T, W>(f, true).add(sum, old));
    };
    return detail::sum_of_products<T>(
        n * parts_in<T>, false,
        [=]<typename W>(std::int64_t i) {
            const auto at = [i](const T* from) { return vec::load<W>(parts_of(from) + i); };
            const W sum = updated(at(row), at(x0), at(x1));
            vec::store(sum, parts_of(row) + i);
            if constexpr (Accumulate) {
                vec::store(accumulated(at(p), sum), parts_of(p) + i);
            }
            return std::pair<W, W>(sum, at(v));
        },
        [=](std::int64_t i, std::int64_t count) {
            const auto at = [=](const T* from) { return load_part(parts_of(from) + i, count); };
            const auto sum = updated(at(row), at(x0), at(x1));
            store_part(sum, count, parts_of(row) + i);
            if constexpr (Accumulate) {
                store_part(accumulated(at(p), sum), count, parts_of(p) + i);
            }
            return std::pair(sum, at(v));
        });
}

/// What of a matrix is meant: all, or one triangle with the diagonal.
enum class Triangle { both, lower, upper };

/// to[j * to_step + i] = from[i * from_step + j], or its conjugate, for i < rows and j < cols within the triangle.
template <typename T>
void turn(Conjugated conjugated, const T* from, std::int64_t from_step, std::int64_t rows, std::int64_t cols, T* to,
          std::int64_t to_step, Triangle triangle = Triangle::both) {
    constexpr std::int64_t tile = 64 / sizeof(T);
    for (std::int64_t row = 0; row < rows; row += tile) {
        const std::int64_t row_end = std::min(rows, row + tile);
        const std::int64_t last = triangle == Triangle::lower ? std::min(cols, row_end) : cols;
        for (std::int64_t col = triangle == Triangle::upper ? row : 0; col < last; col += tile) {
            const std::int64_t col_end = std::min(last, col + tile);
            for (std::int64_t j = col; j < col_end; ++j) {
                const std::int64_t begin = triangle == Triangle::lower ? std::max(row, j) : row;
                const std::int64_t end = triangle == Triangle::upper ? std::min(row_end, j + 1) : row_end;
                for (std::int64_t i = begin; i < end; ++i) {
                    const T x = from[i * from_step + j];
                    to[j * to_step + i] = conjugated == Conjugated::yes ? conjugate(x) : x;
                }
            }
        }
    }
}

}  // namespace ornik::device::cpu

#define ORNIK_INSTANTIATE_SOLVER(Solver)        \
    template class Solver<float>;               \
    template class Solver<double>;              \
    template class Solver<std::complex<float>>; \
    template class Solver<std::complex<double>>;
