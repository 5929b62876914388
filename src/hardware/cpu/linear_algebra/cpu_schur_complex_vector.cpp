// cpu_schur_complex_vector.cpp: complex matrices by rotations, with the eigenvalue of the last square that is nearer to
// the last element as the shift.
#include <vector>

#include "row_operations.h"
#include "schur.h"

namespace ornik::device::cpu {

namespace {

// c f + s g = length, c g - conj(s) f = 0, with a real c
template <typename R>
struct ComplexRotation {
    R c = 1;
    std::complex<R> s = 0;
    std::complex<R> length;

    ComplexRotation(std::complex<R> f, std::complex<R> g) : length(f) {
        const R size_g = magnitude(g);
        if (size_g == 0) {
            return;
        }
        const R size_f = magnitude(f);
        const R size = magnitude(std::complex<R>(size_f, size_g));
        const std::complex<R> phase = size_f == 0 ? std::complex<R>(1) : f / size_f;
        c = size_f / size;
        s = times(phase, conjugate(g / size));
        length = phase * size;
    }
};

// x and y become c x + s y and c y - conj(s) x.
template <typename R>
void rotate_rows(const ComplexRotation<R>& by, std::int64_t n, std::complex<R>* x, std::complex<R>* y) {
    using T = std::complex<R>;
    detail::for_vectors<T>(0, n * 2, [&]<typename V>(std::int64_t i) {
        const V a = vec::load<V>(parts_of(x) + i);
        const V b = vec::load<V>(parts_of(y) + i);
        const V cosine = vec::broadcast<V>(by.c);
        vec::store(detail::Scale<T, V>(by.s).add(b, static_cast<V>(cosine * a)), parts_of(x) + i);
        vec::store(detail::Scale<T, V>(-conjugate(by.s)).add(a, static_cast<V>(cosine * b)), parts_of(y) + i);
    });
}

template <typename R>
std::complex<R> root_of(std::complex<R> z) {
    const R size = magnitude(z);
    if (size == 0) {
        return 0;
    }
    const R larger = std::sqrt((size + std::fabs(z.real())) / 2);
    const R other = std::fabs(z.imag()) / (2 * larger);
    return z.real() >= 0 ? std::complex<R>(larger, std::copysign(other, z.imag()))
                         : std::complex<R>(other, std::copysign(larger, z.imag()));
}

// The eigenvalue of [a b; c d] that is nearer to d.
template <typename R>
std::complex<R> nearer_value(std::complex<R> a, std::complex<R> b, std::complex<R> c, std::complex<R> d) {
    using T = std::complex<R>;
    const T half = (a - d) / R(2);
    const T product = times(b, c);
    const T root = root_of(times(half, half) + product);
    const T sum = half + root;
    const T difference = half - root;
    const T larger = magnitude(sum) >= magnitude(difference) ? sum : difference;
    return larger == T(0) ? d : d - times(product, inverse_of(larger));
}

}  // namespace

template <typename R>
bool make_triangular(std::int64_t n, std::complex<R>* h, std::complex<R>* q, std::complex<R>* values) {
    using T = std::complex<R>;
    constexpr R epsilon = std::numeric_limits<R>::epsilon();
    const auto at = [=](std::int64_t i, std::int64_t j) -> T& { return h[i * n + j]; };
    const R nothing = epsilon * largest_part(h, n * n) * R(0x1p-6);
    const auto is_small = [&](std::int64_t i) {
        return magnitude(at(i, i - 1)) <= epsilon * (magnitude(at(i - 1, i - 1)) + magnitude(at(i, i))) + nothing;
    };
    std::vector<ComplexRotation<R>> rotations;
    std::int64_t end = n - 1;
    for (std::int64_t round = 0, stuck = 0; end > 0; ++round, ++stuck) {
        if (round == 40 * n) {
            return false;
        }
        if (is_small(end)) {
            at(end, end - 1) = 0;
            --end;
            stuck = -1;
            continue;
        }
        std::int64_t first = end - 1;
        while (first > 0 && !is_small(first)) {
            --first;
        }
        if (first > 0) {
            at(first, first - 1) = 0;
        }
        const T shift = stuck % 10 == 9
                            ? T(magnitude(at(end, end - 1)) + (end > 1 ? magnitude(at(end - 1, end - 2)) : R(0)))
                            : nearer_value(at(end - 1, end - 1), at(end - 1, end), at(end, end - 1), at(end, end));
        const std::int64_t top = q != nullptr ? 0 : first;
        const std::int64_t last = q != nullptr ? n - 1 : end;
        for (std::int64_t i = first; i <= end; ++i) {
            at(i, i) -= shift;
        }
        rotations.clear();
        for (std::int64_t k = first; k < end; ++k) {
            rotations.emplace_back(at(k, k), at(k + 1, k));
            at(k, k) = rotations.back().length;
            at(k + 1, k) = 0;
            rotate_rows(rotations.back(), last - k, &at(k, k + 1), &at(k + 1, k + 1));
        }
        for (std::int64_t i = top; i <= end; ++i) {
            T* row = h + i * n;
            for (std::int64_t k = std::max(first, i - 1); k < end; ++k) {
                const ComplexRotation<R>& by = rotations[static_cast<std::size_t>(k - first)];
                const T x = row[k];
                const T y = row[k + 1];
                row[k] = by.c * x + times(conjugate(by.s), y);
                row[k + 1] = by.c * y - times(by.s, x);
            }
        }
        for (std::int64_t i = first; i <= end; ++i) {
            at(i, i) += shift;
        }
        for (std::int64_t k = first; k < end && q != nullptr; ++k) {
            ComplexRotation<R> by = rotations[static_cast<std::size_t>(k - first)];
            by.s = conjugate(by.s);
            rotate_rows(by, n, q + k * n, q + (k + 1) * n);
        }
    }
    for (std::int64_t i = 0; i < n; ++i) {
        values[i] = at(i, i);
    }
    return true;
}

template <typename R>
void triangular_vectors(std::int64_t n, const std::complex<R>* h, const std::complex<R>* values,
                        std::complex<R>* rows) {
    using T = std::complex<R>;
    const R nothing =
        std::max(std::numeric_limits<R>::epsilon() * largest_part(h, n * n), std::numeric_limits<R>::min());
    for (std::int64_t k = 0; k < n; ++k) {
        T* x = rows + k * n;
        std::fill_n(x, n, T(0));
        x[k] = T(1);
        for (std::int64_t i = k; i-- > 0;) {
            T gap = h[i * n + i] - values[k];
            if (magnitude(gap) < nothing) {
                gap = nothing;
            }
            x[i] = -times(dot(Conjugated::no, h + i * n + i + 1, x + i + 1, k - i), inverse_of(gap));
            const R size = magnitude(x[i]);
            if (size > R(0x1p40)) {  // Only directions count.
                divide_row(size, k - i + 1, x + i);
            }
        }
    }
}

#define ORNIK_INSTANTIATE_SCHUR(R)                                                                     \
    template bool make_triangular(std::int64_t, std::complex<R>*, std::complex<R>*, std::complex<R>*); \
    template void triangular_vectors(std::int64_t, const std::complex<R>*, const std::complex<R>*, std::complex<R>*)
ORNIK_INSTANTIATE_SCHUR(float);
ORNIK_INSTANTIATE_SCHUR(double);

}  // namespace ornik::device::cpu
