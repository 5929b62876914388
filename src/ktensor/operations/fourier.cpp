// fourier.cpp: Fourier transforms. All are made of three along one axis, which are linear and one another's gradients.
#include "tensor/tensor_math/fourier.h"

#include <cmath>
#include <numeric>

#include "ktensor/arithmetic.h"
#include "ktensor/axes.h"
#include "ktensor/elements.h"
#include "ktensor/fft.h"
#include "ktensor/joins.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

// A transform along one axis, whose extent becomes another.
struct Along {
    int axis;
    std::int64_t n;
    double scale;

    std::int64_t extent_of(const Dims& shape) const { return shape[static_cast<std::size_t>(axis)]; }
};

KTensor transform(const KTensor& x, const Along& along, std::int64_t extent, bool inverse) {
    const Recorder record(Op::fft, {&x});
    KTensor y = make_ktensor(fourier(x.tensor(), along.axis, along.n, extent, inverse, along.scale));
    if (record.active()) {
        record.finish(y, {}, [along, inverse](Backward& pass) {
            pass.give(0, transform(pass.grad(), along, along.extent_of(pass.operand_shape(0)), !inverse));
        });
    }
    return y;
}

// The elements of a half transform, each counted as often as in the whole one, up to the factor of the ones that occur
// once.
KTensor weighted(const KTensor& half, const Along& along, double twice) {
    const std::int64_t extent = along.extent_of(half.shape());
    const std::int64_t dtype = half.dtype() == dtype::complex64 ? dtype::float32 : dtype::float64;
    const KTensor doubled = KTensor::arange(0, 2.0 * static_cast<double>(extent), 2);
    const KTensor once = equal(remainder(doubled, Scalar(along.n)), Scalar(0));
    Dims shape(static_cast<std::size_t>(half.ndim() - along.axis), 1);
    shape[0] = extent;
    return half * reshape(where(once, KTensor::ones({extent}, dtype), Scalar(twice)), shape);
}

KTensor to_real(const KTensor& x, const Along& along, std::int64_t extent);

KTensor of_real(const KTensor& x, const Along& along, std::int64_t extent) {
    const Recorder record(Op::rfft, {&x});
    KTensor y = make_ktensor(fourier_of_real(x.tensor(), along.axis, along.n, extent, along.scale));
    if (record.active()) {
        record.finish(y, {}, [along](Backward& pass) {
            pass.give(0, to_real(weighted(pass.grad(), along, 0.5), along, along.extent_of(pass.operand_shape(0))));
        });
    }
    return y;
}

KTensor to_real(const KTensor& x, const Along& along, std::int64_t extent) {
    const Recorder record(Op::irfft, {&x});
    KTensor y = make_ktensor(fourier_to_real(x.tensor(), along.axis, along.n, extent, along.scale));
    if (record.active()) {
        record.finish(y, {}, [along](Backward& pass) {
            pass.give(0, weighted(of_real(pass.grad(), along, along.extent_of(pass.operand_shape(0))), along, 2));
        });
    }
    return y;
}

// ---- Arguments ----

double scale_of(std::int64_t n, FourierNorm norm, bool inverse) {
    if (norm == FourierNorm::ortho) {
        return 1 / std::sqrt(static_cast<double>(n));
    }
    return (norm == FourierNorm::backward) == inverse ? 1 / static_cast<double>(n) : 1;
}

void check_length(const char* name, const KTensor& x, std::int64_t n) {
    if (n < 1) {
        fail(where("ornik::KTensor"), name, "(): there is no transform of length ", n, "; the operand is ", describe(x),
             ".");
    }
}

Along along_axis(const char* name, const KTensor& x, std::int64_t n, std::size_t axis, FourierNorm norm, bool inverse) {
    check_length(name, x, n);
    return {static_cast<int>(axis), n, scale_of(n, norm, inverse)};
}

// x, in complex numbers unless real ones are to stay.
KTensor checked(const char* name, const KTensor& x, bool stays_real) {
    autograd::check_defined(name, x, 0);
    if (!x.is_floating() && (stays_real || !x.is_complex())) {
        fail(ErrorKind::dtype, where("ornik::KTensor"), name, "(): takes ",
             stays_real ? "real floating" : "floating and complex", " tensors, not ", describe(x), ".");
    }
    if (stays_real || x.is_complex()) {
        return x;
    }
    return astype(x, x.dtype() == dtype::float32 ? dtype::complex64 : dtype::complex128);
}

std::int64_t extent_at(const KTensor& x, std::size_t axis) { return x.shape()[axis]; }

// What an inverse with real results has by default.
std::int64_t whole_length(const KTensor& x, std::size_t axis) { return 2 * (extent_at(x, axis) - 1); }

KTensor whole(const char* name, const KTensor& operand, std::optional<std::int64_t> n, int axis, FourierNorm norm,
              bool inverse) {
    const KTensor x = checked(name, operand, false);
    const std::size_t at = autograd::wrap_axis(name, x, axis);
    const Along along = along_axis(name, x, n.value_or(extent_at(x, at)), at, norm, inverse);
    return transform(x, along, along.n, inverse);
}

// Axes and lengths of a transform of several axes.
struct Grid {
    Grid(const char* name, const KTensor& x, const Dims& s, const std::vector<int>& named, bool ends_real) {
        std::vector<int> wanted = named;
        if (named.empty()) {
            wanted.resize(s.empty() ? x.shape().size() : s.size());
            std::iota(wanted.begin(), wanted.end(), -static_cast<int>(wanted.size()));
        }
        axes = autograd::wrap_axes(name, x, wanted);
        if (!s.empty() && s.size() != axes.size()) {
            fail(where("ornik::KTensor"), name, "(): ", axes.size(), " axes have ", s.size(), " lengths.");
        }
        for (std::size_t i = 0; i < axes.size(); ++i) {
            const bool is_last = i + 1 == axes.size();
            const bool given = !s.empty() && s[i] != -1;
            lengths.push_back(given ? s[i] : ends_real && is_last ? whole_length(x, axes[i]) : extent_at(x, axes[i]));
            check_length(name, x, lengths.back());
        }
    }

    KTensor transform_axes(KTensor x, std::size_t count, FourierNorm norm, bool inverse) const {
        for (std::size_t i = 0; i < count; ++i) {
            const Along along{static_cast<int>(axes[i]), lengths[i], scale_of(lengths[i], norm, inverse)};
            x = transform(x, along, along.n, inverse);
        }
        return x;
    }
    Along last(FourierNorm norm, bool inverse) const {
        return {static_cast<int>(axes.back()), lengths.back(), scale_of(lengths.back(), norm, inverse)};
    }

    std::vector<std::size_t> axes;
    Dims lengths;
};

Grid real_grid(const char* name, const KTensor& x, const Dims& s, const std::vector<int>& axes, bool ends_real) {
    Grid grid(name, x, s, axes, ends_real);
    if (grid.axes.empty()) {
        fail(where("ornik::KTensor"), name, "(): ", describe(x), " has no axis to transform.");
    }
    return grid;
}

KTensor shifted(const char* name, const KTensor& x, std::vector<int> axes, bool back) {
    autograd::check_defined(name, x, 0);
    if (axes.empty()) {
        axes.resize(x.shape().size());
        std::iota(axes.begin(), axes.end(), 0);
    }
    Dims places;
    for (const std::size_t axis : autograd::wrap_axes(name, x, axes)) {
        places.push_back(back ? -(extent_at(x, axis) / 2) : extent_at(x, axis) / 2);
    }
    return axes.empty() ? clone(x) : roll(x, places, axes);
}

}  // namespace

KTensor fft(const KTensor& x, std::optional<std::int64_t> n, int axis, FourierNorm norm) {
    return whole("fft", x, n, axis, norm, false);
}

KTensor ifft(const KTensor& x, std::optional<std::int64_t> n, int axis, FourierNorm norm) {
    return whole("ifft", x, n, axis, norm, true);
}

KTensor fftn(const KTensor& x, const Dims& s, const std::vector<int>& axes, FourierNorm norm) {
    const KTensor numbers = checked("fftn", x, false);
    const Grid grid("fftn", numbers, s, axes, false);
    return grid.transform_axes(numbers, grid.axes.size(), norm, false);
}

KTensor ifftn(const KTensor& x, const Dims& s, const std::vector<int>& axes, FourierNorm norm) {
    const KTensor numbers = checked("ifftn", x, false);
    const Grid grid("ifftn", numbers, s, axes, false);
    return grid.transform_axes(numbers, grid.axes.size(), norm, true);
}

KTensor rfft(const KTensor& x, std::optional<std::int64_t> n, int axis, FourierNorm norm) {
    (void)checked("rfft", x, true);
    const std::size_t at = autograd::wrap_axis("rfft", x, axis);
    const Along along = along_axis("rfft", x, n.value_or(extent_at(x, at)), at, norm, false);
    return of_real(x, along, along.n / 2 + 1);
}

KTensor irfft(const KTensor& x, std::optional<std::int64_t> n, int axis, FourierNorm norm) {
    const KTensor numbers = checked("irfft", x, false);
    const std::size_t at = autograd::wrap_axis("irfft", x, axis);
    const Along along = along_axis("irfft", x, n.value_or(whole_length(x, at)), at, norm, true);
    return to_real(numbers, along, along.n);
}

KTensor rfftn(const KTensor& x, const Dims& s, const std::vector<int>& axes, FourierNorm norm) {
    (void)checked("rfftn", x, true);
    const Grid grid = real_grid("rfftn", x, s, axes, false);
    const KTensor half = of_real(x, grid.last(norm, false), grid.lengths.back() / 2 + 1);
    return grid.transform_axes(half, grid.axes.size() - 1, norm, false);
}

KTensor irfftn(const KTensor& x, const Dims& s, const std::vector<int>& axes, FourierNorm norm) {
    const KTensor numbers = checked("irfftn", x, false);
    const Grid grid = real_grid("irfftn", x, s, axes, true);
    return to_real(grid.transform_axes(numbers, grid.axes.size() - 1, norm, true), grid.last(norm, true),
                   grid.lengths.back());
}

KTensor hfft(const KTensor& x, std::optional<std::int64_t> n, int axis, FourierNorm norm) {
    const KTensor numbers = checked("hfft", x, false);
    const std::size_t at = autograd::wrap_axis("hfft", x, axis);
    const Along along = along_axis("hfft", x, n.value_or(whole_length(x, at)), at, norm, false);
    return to_real(conj(numbers), along, along.n);
}

KTensor ihfft(const KTensor& x, std::optional<std::int64_t> n, int axis, FourierNorm norm) {
    (void)checked("ihfft", x, true);
    const std::size_t at = autograd::wrap_axis("ihfft", x, axis);
    const Along along = along_axis("ihfft", x, n.value_or(extent_at(x, at)), at, norm, true);
    return conj(of_real(x, along, along.n / 2 + 1));
}

// ---- Frequencies ----

namespace {

KTensor frequencies(const char* name, std::int64_t n, double d, std::int64_t dtype, bool half) {
    if (n < 1) {
        fail(where("ornik::KTensor"), name, "(): there is no transform of length ", n, ".");
    }
    // From the lowest on; the shift puts 0 first.
    const auto first = static_cast<double>(half ? 0 : -(n / 2));
    const auto end = static_cast<double>(half ? n / 2 + 1 : (n + 1) / 2);
    const KTensor counts = KTensor::arange(first, end, 1, dtype::float64);
    return astype((half ? counts : ifftshift(counts)) / Scalar(static_cast<double>(n) * d), dtype);
}

}  // namespace

KTensor fftfreq(std::int64_t n, double d, std::int64_t dtype) { return frequencies("fftfreq", n, d, dtype, false); }

KTensor rfftfreq(std::int64_t n, double d, std::int64_t dtype) { return frequencies("rfftfreq", n, d, dtype, true); }

KTensor fftshift(const KTensor& x, const std::vector<int>& axes) { return shifted("fftshift", x, axes, false); }

KTensor ifftshift(const KTensor& x, const std::vector<int>& axes) { return shifted("ifftshift", x, axes, true); }

}  // namespace ornik
