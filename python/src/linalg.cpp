// linalg.cpp: decompositions, solutions and norms of matrices, and Fourier transforms.
#include "ktensor/linalg.h"

#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <nanobind/stl/tuple.h>

#include <tuple>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "ktensor/fft.h"
#include "module.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

template <typename Function>
void add_of_matrices(nb::module_& m, const char* name, Function function) {
    m.def(name, [function](const KTensor& x) { return without_lock([&] { return function(x); }); });
}

// None, a number or a tensor.
template <typename Function>
void add_with_tolerance(nb::module_& m, const char* name, Function function) {
    m.def(
        name,
        [function](const KTensor& x, nb::handle rtol) {
            if (rtol.is_none()) {
                return without_lock([&] { return function(x, KTensor()); });
            }
            const Operand operand = to_operand(rtol.ptr());
            if (const KTensor* bounds = std::get_if<KTensor>(&operand.value)) {
                return without_lock([&] { return function(x, *bounds); });
            }
            const double number = PyFloat_AsDouble(rtol.ptr());
            check_python();
            return without_lock([&] { return function(x, number); });
        },
        nb::arg(), nb::arg().none(),
        nb::sig(
            (std::string("def ") + name + "(x: ornik.KTensor, rtol: None | ornik.KTensor | float, /) -> ornik.KTensor")
                .c_str()));
}

MatrixNorm norm_named(const std::string& name) {
    constexpr std::pair<const char*, MatrixNorm> names[] = {
        {"fro", MatrixNorm::frobenius},      {"nuc", MatrixNorm::nuclear},       {"1", MatrixNorm::largest_column},
        {"-1", MatrixNorm::smallest_column}, {"inf", MatrixNorm::largest_row},   {"-inf", MatrixNorm::smallest_row},
        {"2", MatrixNorm::largest_value},    {"-2", MatrixNorm::smallest_value},
    };
    for (const auto& [known, norm] : names) {
        if (name == known) {
            return norm;
        }
    }
    raise_error(PyExc_ValueError, "a norm of matrices is \"fro\", \"nuc\", 1, -1, 2, -2, inf or -inf, not " + name);
}

FourierNorm fourier_norm(const std::string& name) {
    constexpr std::pair<const char*, FourierNorm> names[] = {
        {"backward", FourierNorm::backward}, {"ortho", FourierNorm::ortho}, {"forward", FourierNorm::forward}};
    for (const auto& [known, norm] : names) {
        if (name == known) {
            return norm;
        }
    }
    raise_error(PyExc_ValueError, "norm is \"backward\", \"ortho\" or \"forward\", not \"" + name + "\"");
}

void add_matrices(nb::module_& m) {
    add_of_matrices(m, "svdvals", [](const KTensor& x) { return svdvals(x); });
    add_of_matrices(m, "eig", [](const KTensor& x) {
        EigenPairs pairs = eig(x);
        return std::tuple(std::move(pairs.values), std::move(pairs.vectors));
    });
    add_of_matrices(m, "eigvals", [](const KTensor& x) { return eigvals(x); });
    add_of_matrices(m, "inv", [](const KTensor& x) { return inv(x); });
    add_of_matrices(m, "det", [](const KTensor& x) { return det(x); });
    add_of_matrices(m, "slogdet", [](const KTensor& x) {
        SignedLogarithm result = slogdet(x);
        return std::tuple(std::move(result.sign), std::move(result.logabsdet));
    });
    m.def("cholesky", [](const KTensor& x, Flag upper) { return without_lock([&] { return cholesky(x, upper); }); });
    m.def("qr", [](const KTensor& x, Flag complete) {
        QrFactors factors = without_lock([&] { return qr(x, complete); });
        return std::tuple(std::move(factors.q), std::move(factors.r));
    });
    m.def("svd", [](const KTensor& x, Flag full_matrices) {
        SingularValues values = without_lock([&] { return svd(x, full_matrices); });
        return std::tuple(std::move(values.u), std::move(values.s), std::move(values.vh));
    });
    m.def("solve", [](const KTensor& x, const KTensor& b) { return without_lock([&] { return solve(x, b); }); });
    add_with_tolerance(m, "pinv", [](const KTensor& x, const auto& rtol) { return pinv(x, rtol); });
    add_with_tolerance(m, "matrix_rank", [](const KTensor& x, const auto& rtol) { return matrix_rank(x, rtol); });
    m.def("matrix_power", [](const KTensor& x, Whole n) { return without_lock([&] { return matrix_power(x, n); }); });
    m.def("vecdot", [](const KTensor& a, const KTensor& b, Axis axis) {
        return without_lock(a.size(), [&] { return vecdot(a, b, axis.axis); });
    });
    m.def("vector_norm", [](const KTensor& x, const Axes& axes, Flag keep_dims, Real ord) {
        return without_lock(x.size(), [&] { return vector_norm(x, axes.axes, keep_dims, ord); });
    });
    m.def("matrix_norm", [](const KTensor& x, const Text& ord, Flag keep_dims) {
        const MatrixNorm norm = norm_named(ord);
        return without_lock([&] { return matrix_norm(x, norm, keep_dims); });
    });
}

using AlongOne = KTensor (*)(const KTensor&, std::optional<std::int64_t>, int, FourierNorm);
using AlongMany = KTensor (*)(const KTensor&, const Dims&, const std::vector<int>&, FourierNorm);

void add_fourier(nb::module_& m) {
    constexpr std::pair<const char*, AlongOne> along_one[] = {{"fft", fft},     {"ifft", ifft}, {"rfft", rfft},
                                                              {"irfft", irfft}, {"hfft", hfft}, {"ihfft", ihfft}};
    for (const auto& [name, function] : along_one) {
        m.def(
            name,
            [function = function](const KTensor& x, OptionalWhole n, Axis axis, const Text& norm) {
                const FourierNorm scale = fourier_norm(norm);
                return without_lock(x.size(), [&] { return function(x, n.value, axis.axis, scale); });
            },
            nb::arg(), nb::arg().none(), nb::arg(), nb::arg());
    }
    constexpr std::pair<const char*, AlongMany> along_many[] = {
        {"fftn", fftn}, {"ifftn", ifftn}, {"rfftn", rfftn}, {"irfftn", irfftn}};
    for (const auto& [name, function] : along_many) {
        m.def(name, [function = function](const KTensor& x, const Shape& s, const Axes& axes, const Text& norm) {
            const FourierNorm scale = fourier_norm(norm);
            return without_lock(x.size(), [&] { return function(x, s.dims, axes.axes, scale); });
        });
    }
    m.def("fftfreq", [](Whole n, Real d, Dtype dtype) { return fftfreq(n, d, dtype.code); });
    m.def("rfftfreq", [](Whole n, Real d, Dtype dtype) { return rfftfreq(n, d, dtype.code); });
    m.def("fftshift", [](const KTensor& x, const Axes& axes) {
        return without_lock(x.size(), [&] { return fftshift(x, axes.axes); });
    });
    m.def("ifftshift", [](const KTensor& x, const Axes& axes) {
        return without_lock(x.size(), [&] { return ifftshift(x, axes.axes); });
    });
}

}  // namespace

void add_linalg(nb::module_& m) {
    add_matrices(m);
    add_fourier(m);
}

}  // namespace ornik::python
