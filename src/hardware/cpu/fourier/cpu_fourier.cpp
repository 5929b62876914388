// cpu_fourier.cpp: Fourier transforms of all rows along an axis.
//
// Real rows of even length n are taken as n / 2 complex numbers, whose transform is then parted into those of the even
// and the odd elements.
#include "hardware/cpu/fourier/cpu_fourier.h"

#include <algorithm>
#include <vector>

#include "../axis/cpu_axis_runs.h"
#include "fourier_plan.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t fourier_cost = 32;  // per element

template <typename Real>
using Number = complex_scalar::complex<Real>;

// Room for one row and the plan's work: small ones on the stack.
template <typename Real>
class RowBuffer {
  public:
    RowBuffer(std::int64_t row, std::int64_t work) {
        const auto size = static_cast<std::size_t>(2 * row + work);
        if (size > std::size(near_)) {
            far_.resize(size);
        }
        real = far_.empty() ? near_ : far_.data();
        imag = real + row;
        rest = imag + row;
    }
    RowBuffer(const RowBuffer&) = delete;
    RowBuffer& operator=(const RowBuffer&) = delete;

    Real* real;
    Real* imag;
    Real* rest;

  private:
    Real near_[2048];
    std::vector<Real> far_;
};

std::int64_t extent_of(const Tensor* t, int axis) { return t->Shape()[static_cast<std::size_t>(axis)]; }

AxisRuns runs_of(const Tensor* x, Tensor* out, int axis) {
    AxisRuns runs(axis);
    runs.add_input(x);
    runs.add_output(out);
    return runs;
}

// The first numbers of a row with zeros behind them, and back.
template <typename Real>
void load(const Number<Real>* in, std::int64_t extent, Real* real, Real* imag, std::int64_t n) {
    const std::int64_t count = std::min(extent, n);
    for (std::int64_t j = 0; j < count; ++j) {
        real[j] = in[j].real;
        imag[j] = in[j].imag;
    }
    std::fill(real + count, real + n, Real(0));
    std::fill(imag + count, imag + n, Real(0));
}
template <typename Real>
void store(const Real* real, const Real* imag, std::int64_t n, Real scale, Number<Real>* out, std::int64_t extent) {
    const std::int64_t count = std::min(extent, n);
    for (std::int64_t k = 0; k < count; ++k) {
        out[k] = {real[k] * scale, imag[k] * scale};
    }
    std::fill(out + count, out + extent, Number<Real>());
}

// e^(-2 pi i k / n), k = 0 .. n / 4.
template <typename Real>
std::vector<Number<Real>> roots(std::int64_t n) {
    std::vector<Number<Real>> result;
    for (std::int64_t k = 0; k <= n / 4; ++k) {
        const Phase root = root_of_unity(k, n);
        result.emplace_back(static_cast<Real>(root.real), static_cast<Real>(-root.imag));
    }
    return result;
}

}  // namespace

void cpu_fourier(const Tensor* x, Tensor* out, int axis, std::int64_t n, bool inverse, double scale) {
    const std::int64_t given = extent_of(x, axis);
    const std::int64_t wanted = extent_of(out, axis);
    dispatch(ComplexTypes{}, x->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;
        const FourierPlan<Real> plan(n);
        runs_of(x, out, axis).for_each(fourier_cost, [&](char* const* run) {
            RowBuffer<Real> row(n, plan.work_size());
            load(as<T>(run[0]), given, row.real, row.imag, n);
            inverse ? plan.run(row.imag, row.real, row.rest) : plan.run(row.real, row.imag, row.rest);
            store(row.real, row.imag, n, static_cast<Real>(scale), as<T>(run[1]), wanted);
        });
    });
}

void cpu_fourier_of_real(const Tensor* x, Tensor* out, int axis, std::int64_t n, double scale) {
    const std::int64_t given = extent_of(x, axis);
    const std::int64_t wanted = extent_of(out, axis);
    const bool halves = n % 2 == 0;
    const std::int64_t length = halves ? n / 2 : n;
    dispatch(FloatTypes{}, x->Dtype(), [&]<typename Real>() {
        const FourierPlan<Real> plan(length);
        const std::vector<Number<Real>> root = roots<Real>(n);
        runs_of(x, out, axis).for_each(fourier_cost, [&](char* const* run) {
            RowBuffer<Real> row(length + 1, plan.work_size());
            const Real* in = as<Real>(run[0]);
            const std::int64_t count = std::min(given, n);
            if (!halves) {
                std::fill(std::copy_n(in, count, row.real), row.real + n, Real(0));
                std::fill_n(row.imag, n, Real(0));
                plan.run(row.real, row.imag, row.rest);
            } else {
                for (std::int64_t j = 0; j < length; ++j) {
                    row.real[j] = 2 * j < count ? in[2 * j] : Real(0);
                    row.imag[j] = 2 * j + 1 < count ? in[2 * j + 1] : Real(0);
                }
                plan.run(row.real, row.imag, row.rest);
                row.real[length] = row.real[0];
                row.imag[length] = row.imag[0];
                // Elements k and length - k from each other.
                for (std::int64_t k = 0; k <= length / 2; ++k) {
                    const std::int64_t other = length - k;
                    const Number<Real> even{(row.real[k] + row.real[other]) / 2, (row.imag[k] - row.imag[other]) / 2};
                    const Number<Real> odd{(row.imag[k] + row.imag[other]) / 2, (row.real[other] - row.real[k]) / 2};
                    const Number<Real> turned = root[static_cast<std::size_t>(k)] * odd;
                    row.real[k] = even.real + turned.real;
                    row.imag[k] = even.imag + turned.imag;
                    row.real[other] = even.real - turned.real;
                    row.imag[other] = turned.imag - even.imag;
                }
            }
            store(row.real, row.imag, n / 2 + 1, static_cast<Real>(scale), as<Number<Real>>(run[1]), wanted);
        });
    });
}

void cpu_fourier_to_real(const Tensor* x, Tensor* out, int axis, std::int64_t n, double scale) {
    const std::int64_t given = extent_of(x, axis);
    const std::int64_t wanted = extent_of(out, axis);
    const bool halves = n % 2 == 0;
    const std::int64_t length = halves ? n / 2 : n;
    dispatch(FloatTypes{}, out->Dtype(), [&]<typename Real>() {
        const FourierPlan<Real> plan(length);
        const std::vector<Number<Real>> root = roots<Real>(n);
        runs_of(x, out, axis).for_each(fourier_cost, [&](char* const* run) {
            RowBuffer<Real> row(length + 1, plan.work_size());
            load(as<Number<Real>>(run[0]), given, row.real, row.imag, n / 2 + 1);
            row.imag[0] = 0;
            if (!halves) {
                for (std::int64_t k = 1; k <= n / 2; ++k) {
                    row.real[n - k] = row.real[k];
                    row.imag[n - k] = -row.imag[k];
                }
            } else {
                row.imag[length] = 0;
                for (std::int64_t k = 0; k <= length / 2; ++k) {
                    const std::int64_t other = length - k;
                    const Number<Real> even{row.real[k] + row.real[other], row.imag[k] - row.imag[other]};
                    const Number<Real> difference{row.real[k] - row.real[other], row.imag[k] + row.imag[other]};
                    const Number<Real> back{root[static_cast<std::size_t>(k)].real,
                                            -root[static_cast<std::size_t>(k)].imag};
                    const Number<Real> odd = back * difference;
                    row.real[k] = even.real - odd.imag;
                    row.imag[k] = even.imag + odd.real;
                    row.real[other] = even.real + odd.imag;
                    row.imag[other] = odd.real - even.imag;
                }
            }
            plan.run(row.imag, row.real, row.rest);
            Real* result = as<Real>(run[1]);
            const std::int64_t count = std::min(wanted, n);
            for (std::int64_t j = 0; j < count; ++j) {
                const Real value = !halves ? row.real[j] : j % 2 == 0 ? row.real[j / 2] : row.imag[j / 2];
                result[j] = value * static_cast<Real>(scale);
            }
            std::fill(result + count, result + wanted, Real(0));
        });
    });
}

}  // namespace ornik::device::cpu
