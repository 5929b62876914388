// functions.cpp: reductions, shapes, products.
#include <nanobind/stl/pair.h>
#include <nanobind/stl/tuple.h>

#include "arguments.h"
#include "gil.h"
#include "ktensor/products.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "module.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

using Reduction = KTensor (*)(const KTensor& x, const std::vector<int>& axes, bool keep_dims);

void add_reductions(nb::module_& m) {
    constexpr std::pair<const char*, Reduction> table[] = {
        {"sum", sum},       {"prod", prod},     {"mean", mean},     {"l2_norm", l2_norm},
        {"max", (max)},     {"min", (min)},     {"median", median}, {"logsumexp", logsumexp},
        {"argmax", argmax}, {"argmin", argmin}, {"any", any},       {"all", all},
    };
    for (const auto& [name, function] : table) {
        m.def(name, [function = function](const KTensor& x, const Axes& axes, Flag keep_dims) {
            return without_lock(x.size(), [&] { return function(x, axes.axes, keep_dims); });
        });
    }
    // The usual case, by nanobind's shortest way.
    m.def("sum_all", [](const KTensor& x) { return without_lock(x.size(), [&] { return sum(x); }); });
    m.def("var", [](const KTensor& x, const Axes& axes, Flag keep_dims, Real correction) {
        return without_lock(x.size(), [&] { return var(x, axes.axes, keep_dims, correction); });
    });
    m.def("std_dev", [](const KTensor& x, const Axes& axes, Flag keep_dims, Real correction) {
        return without_lock(x.size(), [&] { return std_dev(x, axes.axes, keep_dims, correction); });
    });
    m.def("trace", [](const KTensor& x, Whole offset, Axis a, Axis b) { return trace(x, offset, a.axis, b.axis); });

    using Along = KTensor (*)(const KTensor& x, int axis);
    constexpr std::pair<const char*, Along> along[] = {
        {"cumsum", cumsum}, {"cumprod", cumprod}, {"softmax", softmax}, {"log_softmax", log_softmax}};
    for (const auto& [name, function] : along) {
        m.def(name, [function = function](const KTensor& x, Axis axis) {
            return without_lock(x.size(), [&] { return function(x, axis.axis); });
        });
    }
    m.def("sort", [](const KTensor& x, Axis axis, Flag descending) {
        return without_lock(x.size(), [&] { return sort(x, axis.axis, descending); });
    });
    m.def("argsort", [](const KTensor& x, Axis axis, Flag descending) {
        return without_lock(x.size(), [&] { return argsort(x, axis.axis, descending); });
    });
    m.def("topk", [](const KTensor& x, Whole k, Axis axis, Flag largest) {
        return without_lock(x.size(), [&] { return topk(x, k, axis.axis, largest); });
    });
    m.def("unique", [](const KTensor& x) {
        Unique result = without_lock(x.size(), [&] { return unique(x); });
        return std::tuple(std::move(result.values), std::move(result.inverse), std::move(result.counts));
    });
    m.def("searchsorted", [](const KTensor& sorted, const KTensor& values, Flag right) {
        return without_lock(values.size(), [&] { return searchsorted(sorted, values, right); });
    });
}

void add_shapes(nb::module_& m) {
    m.def("astype",
          [](const KTensor& x, Dtype dtype) { return without_lock(x.size(), [&] { return astype(x, dtype.code); }); });
    m.def("clone", [](const KTensor& x) { return without_lock(x.size(), [&] { return clone(x); }); });
    m.def("contiguous", [](const KTensor& x) { return without_lock(x.size(), [&] { return contiguous(x); }); });
    m.def("copy_into", [](KTensor x, const KTensor& source) {
        without_lock(x.size(), [&] { copy_(x, source); });
        return x;
    });
    m.def("fill_with", [](KTensor x, const Number& value) {
        without_lock(x.size(), [&] { fill_(x, value.value); });
        return x;
    });
    m.def("broadcast_to", [](const KTensor& x, const Shape& shape) { return broadcast_to(x, shape.dims); });
    m.def("sum_to_shape", [](const KTensor& x, const Shape& shape) {
        return without_lock(x.size(), [&] { return sum_to_shape(x, shape.dims); });
    });
    m.def("reshape", [](const KTensor& x, const Shape& shape) {
        return without_lock(x.size(), [&] { return reshape(x, shape.dims); });
    });
    m.def("view", [](const KTensor& x, const Shape& shape) { return view(x, shape.dims); });
    m.def("flatten", [](const KTensor& x, Axis start, Axis end) {
        return without_lock(x.size(), [&] { return flatten(x, start.axis, end.axis); });
    });
    m.def("permute", [](const KTensor& x, const Axes& axes) { return permute(x, axes.axes); });
    m.def("transpose", [](const KTensor& x) { return transpose(x); });
    m.def("swapaxes", [](const KTensor& x, Axis a, Axis b) { return swapaxes(x, a.axis, b.axis); });
    m.def(
        "squeeze",
        [](const KTensor& x, nb::handle axes) {
            return axes.is_none() ? squeeze(x) : squeeze(x, to_axes(axes.ptr()).axes);
        },
        nb::arg(), nb::arg().none(),
        nb::sig("def squeeze(x: ornik.KTensor, axes: None | int | collections.abc.Sequence[int], /) -> ornik.KTensor"));
    m.def("unsqueeze", [](const KTensor& x, Axis axis) { return unsqueeze(x, axis.axis); });
    m.def("flip", [](const KTensor& x, const Axes& axes) {
        return without_lock(x.size(), [&] { return flip(x, axes.axes); });
    });
}

void add_products(nb::module_& m) {
    m.def("matmul", [](const KTensor& a, const KTensor& b) { return without_lock([&] { return matmul(a, b); }); });
    m.def("dot", [](const KTensor& a, const KTensor& b) { return dot(a, b); });
    m.def("kron", [](const KTensor& a, const KTensor& b) { return without_lock([&] { return kron(a, b); }); });
    m.def("eigh", [](const KTensor& x) {
        EigenPairs pairs = without_lock([&] { return eigh(x); });
        return std::pair(std::move(pairs.values), std::move(pairs.vectors));
    });
    m.def("eigvalsh", [](const KTensor& x) { return without_lock([&] { return eigvalsh(x); }); });
}

}  // namespace

void add_functions(nb::module_& m) {
    add_reductions(m);
    add_shapes(m);
    add_products(m);
}

}  // namespace ornik::python
