// fourier_plan.cpp: fast Fourier transforms.
//
// Lengths of small prime factors: one pass for each factor, from one buffer to another and sorting as it goes (T.
// Stockham, High-speed convolution and correlation, 1966). Other lengths: a convolution with a chirp, by transforms of
// a length of small factors (L. Bluestein, A linear filtering approach to the computation of discrete Fourier
// transform, 1970).
#include "fourier_plan.h"

#include <algorithm>
#include <array>

#include "descriptors/element_load.h"

// With their inner loops written out, the few numbers of a transform stay in registers, and the loop over many becomes
// vector code.
#if defined(__clang__)
#define ORNIK_UNROLLED _Pragma("clang loop unroll(full)")
#elif defined(__GNUC__)
#define ORNIK_UNROLLED _Pragma("GCC unroll 16")
#else
#define ORNIK_UNROLLED
#endif

namespace ornik::device::cpu {

namespace {

constexpr int radices[] = {4, 2, 3, 5, 7, 11, 13};

bool has_small_factors(std::int64_t n) {
    for (const int radix : radices) {
        while (n % radix == 0) {
            n /= radix;
        }
    }
    return n == 1;
}

// The shortest of 2^k, 3 2^k and 5 2^k that is at least `least`.
std::int64_t good_length(std::int64_t least) {
    std::int64_t best = 0;
    for (const std::int64_t factor : {1, 3, 5}) {
        std::int64_t length = factor;
        while (length < least) {
            length *= 2;
        }
        best = best == 0 ? length : std::min(best, length);
    }
    return best;
}

// 1 / k! with alternating signs, from k = first in steps of two.
template <int first>
constexpr auto series = [] {
    std::array<double, 9> terms{};
    double factorial = 1;
    for (int k = 2; k <= first; ++k) {
        factorial *= k;
    }
    for (int i = 0; i < 9; ++i) {
        terms[static_cast<std::size_t>(i)] = (i % 2 == 0 ? 1 : -1) / factorial;
        factorial *= (first + 2 * i + 1) * (first + 2 * i + 2);
    }
    return terms;
}();

double polynomial(const std::array<double, 9>& terms, double x) {
    double sum = 0;
    for (std::size_t i = terms.size(); i-- > 0;) {
        sum = sum * x + terms[i];
    }
    return sum;
}

// ---- Passes ----

template <typename Real>
struct Rows {
    const Real* in_real;
    const Real* in_imag;
    Real* out_real;
    Real* out_imag;
    const Real* root_real;
    const Real* root_imag;
};

// The transform of P numbers, forward. Pairs of numbers r and P - r share their cosines and sines.
template <int P, typename Real>
inline void transform_few(Real (&real)[P], Real (&imag)[P], const Real (&cosine)[P], const Real (&sine)[P]) {
    if constexpr (P == 2) {
        const Real r = real[0] - real[1];
        const Real i = imag[0] - imag[1];
        real[0] += real[1];
        imag[0] += imag[1];
        real[1] = r;
        imag[1] = i;
    } else if constexpr (P == 4) {
        const Real sum_real = real[0] + real[2];
        const Real sum_imag = imag[0] + imag[2];
        const Real difference_real = real[0] - real[2];
        const Real difference_imag = imag[0] - imag[2];
        const Real other_real = real[1] + real[3];
        const Real other_imag = imag[1] + imag[3];
        // (b - d) times -i
        const Real turned_real = imag[1] - imag[3];
        const Real turned_imag = real[3] - real[1];
        real[0] = sum_real + other_real;
        imag[0] = sum_imag + other_imag;
        real[1] = difference_real + turned_real;
        imag[1] = difference_imag + turned_imag;
        real[2] = sum_real - other_real;
        imag[2] = sum_imag - other_imag;
        real[3] = difference_real - turned_real;
        imag[3] = difference_imag - turned_imag;
    } else {
        constexpr int half = P / 2;
        Real sum_real[half];
        Real sum_imag[half];
        Real difference_real[half];
        Real difference_imag[half];
        Real total_real = real[0];
        Real total_imag = imag[0];
        ORNIK_UNROLLED
        for (int r = 1; r <= half; ++r) {
            sum_real[r - 1] = real[r] + real[P - r];
            sum_imag[r - 1] = imag[r] + imag[P - r];
            difference_real[r - 1] = real[r] - real[P - r];
            difference_imag[r - 1] = imag[r] - imag[P - r];
            total_real += sum_real[r - 1];
            total_imag += sum_imag[r - 1];
        }
        ORNIK_UNROLLED
        for (int k = 1; k <= half; ++k) {
            Real even_real = real[0];
            Real even_imag = imag[0];
            Real odd_real = 0;
            Real odd_imag = 0;
            ORNIK_UNROLLED
            for (int r = 1; r <= half; ++r) {
                even_real += sum_real[r - 1] * cosine[r * k % P];
                even_imag += sum_imag[r - 1] * cosine[r * k % P];
                odd_real += difference_real[r - 1] * sine[r * k % P];
                odd_imag += difference_imag[r - 1] * sine[r * k % P];
            }
            // even - i odd, and the same with the other sign
            real[k] = even_real + odd_imag;
            imag[k] = even_imag - odd_real;
            real[P - k] = even_real - odd_imag;
            imag[P - k] = even_imag + odd_real;
        }
        real[0] = total_real;
        imag[0] = total_imag;
    }
}

// Transforms of length P m, `step` of them side by side, become P times as many of length m.
template <int P, typename Real>
void pass(const Rows<Real>& rows, std::int64_t m, std::int64_t step) {
    Real cosine[P];
    Real sine[P];
    for (int k = 0; k < P; ++k) {
        const Phase root = root_of_unity(k, P);
        cosine[k] = static_cast<Real>(root.real);
        sine[k] = static_cast<Real>(root.imag);
    }
    for (std::int64_t j = 0; j < m; ++j) {
        Real turn_real[P];
        Real turn_imag[P];
        for (int k = 0; k < P; ++k) {
            turn_real[k] = rows.root_real[step * j * k];
            turn_imag[k] = rows.root_imag[step * j * k];
        }
        const Real* in_real = rows.in_real + step * j;
        const Real* in_imag = rows.in_imag + step * j;
        Real* out_real = rows.out_real + step * P * j;
        Real* out_imag = rows.out_imag + step * P * j;
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t q = 0; q < step; ++q) {
            Real real[P];
            Real imag[P];
            ORNIK_UNROLLED
            for (int r = 0; r < P; ++r) {
                real[r] = in_real[q + step * m * r];
                imag[r] = in_imag[q + step * m * r];
            }
            transform_few<P, Real>(real, imag, cosine, sine);
            out_real[q] = real[0];
            out_imag[q] = imag[0];
            ORNIK_UNROLLED
            for (int k = 1; k < P; ++k) {
                out_real[q + step * k] = real[k] * turn_real[k] - imag[k] * turn_imag[k];
                out_imag[q + step * k] = real[k] * turn_imag[k] + imag[k] * turn_real[k];
            }
        }
    }
}

template <typename Real>
void run_pass(int radix, const Rows<Real>& rows, std::int64_t m, std::int64_t step) {
    switch (radix) {
        case 2:
            return pass<2>(rows, m, step);
        case 3:
            return pass<3>(rows, m, step);
        case 4:
            return pass<4>(rows, m, step);
        case 5:
            return pass<5>(rows, m, step);
        case 7:
            return pass<7>(rows, m, step);
        case 11:
            return pass<11>(rows, m, step);
        default:
            return pass<13>(rows, m, step);
    }
}

template <typename Real>
void multiply(Real* real, Real* imag, const Real* by_real, const Real* by_imag, std::int64_t n) {
    for (std::int64_t j = 0; j < n; ++j) {
        const Real r = real[j] * by_real[j] - imag[j] * by_imag[j];
        imag[j] = real[j] * by_imag[j] + imag[j] * by_real[j];
        real[j] = r;
    }
}

}  // namespace

Phase root_of_unity(std::int64_t j, std::int64_t n) {
    // Quarter turns, and a rest of at most an eighth of a turn to either side.
    const std::int64_t eighths = 8 * j / n;
    const std::int64_t quarters = (eighths + 1) / 2;
    const std::int64_t rest = 8 * j - 2 * quarters * n;
    const double angle = 0.78539816339744830962 * (static_cast<double>(rest) / static_cast<double>(n));
    const double square = angle * angle;
    const double s = angle * polynomial(series<1>, square);
    const double c = polynomial(series<0>, square);
    switch (quarters % 4) {
        case 0:
            return {c, s};
        case 1:
            return {-s, c};
        case 2:
            return {-c, -s};
        default:
            return {s, -c};
    }
}

template <typename Real>
FourierPlan<Real>::FourierPlan(std::int64_t n) : n_(n) {
    const auto size = static_cast<std::size_t>(n);
    if (has_small_factors(n)) {
        for (const int radix : radices) {
            for (std::int64_t left = stages_.empty() ? n : stages_.back().length / stages_.back().radix;
                 left % radix == 0 && left > 1; left /= radix) {
                stages_.push_back({radix, left, n / left});
            }
        }
        root_real_.resize(size);
        root_imag_.resize(size);
        for (std::int64_t j = 0; j < n; ++j) {
            const Phase root = root_of_unity(j, n);
            root_real_[static_cast<std::size_t>(j)] = static_cast<Real>(root.real);
            root_imag_[static_cast<std::size_t>(j)] = static_cast<Real>(-root.imag);
        }
        return;
    }
    const std::int64_t length = good_length(2 * n - 1);
    longer_ = std::make_unique<FourierPlan>(length);
    chirp_real_.resize(size);
    chirp_imag_.resize(size);
    filter_real_.resize(static_cast<std::size_t>(length));
    filter_imag_.resize(static_cast<std::size_t>(length));
    std::int64_t square = 0;  // j^2 modulo 2 n
    for (std::int64_t j = 0; j < n; ++j) {
        const Phase root = root_of_unity(square, 2 * n);
        square = (square + 2 * j + 1) % (2 * n);
        const auto at = static_cast<std::size_t>(j);
        const auto mirrored = static_cast<std::size_t>((length - j) % length);
        chirp_real_[at] = static_cast<Real>(root.real);
        chirp_imag_[at] = static_cast<Real>(-root.imag);
        // The inverse transform's scale goes into the filter.
        filter_real_[at] = filter_real_[mirrored] = static_cast<Real>(root.real / static_cast<double>(length));
        filter_imag_[at] = filter_imag_[mirrored] = static_cast<Real>(root.imag / static_cast<double>(length));
    }
    std::vector<Real> work(static_cast<std::size_t>(longer_->work_size()));
    longer_->run(filter_real_.data(), filter_imag_.data(), work.data());
}

template <typename Real>
FourierPlan<Real>::~FourierPlan() = default;

template <typename Real>
std::int64_t FourierPlan<Real>::work_size() const {
    return longer_ ? 2 * longer_->n_ + longer_->work_size() : 2 * n_;
}

template <typename Real>
void FourierPlan<Real>::run(Real* real, Real* imag, Real* work) const {
    longer_ ? run_chirp(real, imag, work) : run_stages(real, imag, work);
}

template <typename Real>
void FourierPlan<Real>::run_stages(Real* real, Real* imag, Real* work) const {
    Rows<Real> rows{real, imag, work, work + n_, root_real_.data(), root_imag_.data()};
    Real* from[] = {real, imag};
    Real* to[] = {work, work + n_};
    for (const Stage& stage : stages_) {
        rows.in_real = from[0];
        rows.in_imag = from[1];
        rows.out_real = to[0];
        rows.out_imag = to[1];
        run_pass(stage.radix, rows, stage.length / stage.radix, stage.step);
        std::swap(from, to);
    }
    if (from[0] != real) {
        std::copy_n(from[0], n_, real);
        std::copy_n(from[1], n_, imag);
    }
}

template <typename Real>
void FourierPlan<Real>::run_chirp(Real* real, Real* imag, Real* work) const {
    const std::int64_t length = longer_->n_;
    Real* wide_real = work;
    Real* wide_imag = work + length;
    Real* rest = work + 2 * length;
    multiply(real, imag, chirp_real_.data(), chirp_imag_.data(), n_);
    std::fill(std::copy_n(real, n_, wide_real), wide_imag, Real(0));
    std::fill(std::copy_n(imag, n_, wide_imag), rest, Real(0));
    longer_->run(wide_real, wide_imag, rest);
    multiply(wide_real, wide_imag, filter_real_.data(), filter_imag_.data(), length);
    longer_->run(wide_imag, wide_real, rest);  // back
    std::copy_n(wide_real, n_, real);
    std::copy_n(wide_imag, n_, imag);
    multiply(real, imag, chirp_real_.data(), chirp_imag_.data(), n_);
}

template class FourierPlan<float>;
template class FourierPlan<double>;

}  // namespace ornik::device::cpu
