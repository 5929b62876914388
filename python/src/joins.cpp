// joins.cpp: tensors joined, parted and padded, and elements picked by index tensors.
#include "ktensor/joins.h"

#include <nanobind/stl/string.h>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "ktensor/indexing.h"
#include "ktensor/products.h"
#include "module.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

std::int64_t elements_of(const Tensors& tensors) {
    std::int64_t elements = 0;
    for (const KTensor& tensor : tensors.list) {
        elements += tensor.size();
    }
    return elements;
}

void add_joins(nb::module_& m) {
    m.def("concat", [](const Tensors& tensors, Axis axis) {
        return without_lock(elements_of(tensors), [&] { return concat(tensors.list, axis.axis); });
    });
    m.def("stack", [](const Tensors& tensors, Axis axis) {
        return without_lock(elements_of(tensors), [&] { return stack(tensors.list, axis.axis); });
    });
    m.def("split",
          [](const KTensor& x, const Shape& extents, Axis axis) { return Tensors{split(x, extents.dims, axis.axis)}; });
    m.def("split_every",
          [](const KTensor& x, Whole extent, Axis axis) { return Tensors{split_every(x, extent, axis.axis)}; });
    m.def("chunk", [](const KTensor& x, Whole parts, Axis axis) { return Tensors{chunk(x, parts, axis.axis)}; });
    m.def("unbind", [](const KTensor& x, Axis axis) { return Tensors{unbind(x, axis.axis)}; });
    m.def("moveaxis",
          [](const KTensor& x, const Axes& from, const Axes& to) { return moveaxis(x, from.axes, to.axes); });
    m.def("broadcast_together", [](const Tensors& tensors) { return Tensors{broadcast_together(tensors.list)}; });
    m.def("meshgrid",
          [](const Tensors& tensors, Flag columns_first) { return Tensors{meshgrid(tensors.list, columns_first)}; });
    m.def("windows",
          [](const KTensor& x, Axis axis, Whole size, Whole step) { return windows(x, axis.axis, size, step); });
    m.def("tile", [](const KTensor& x, const Shape& repetitions) {
        return without_lock([&] { return tile(x, repetitions.dims); });
    });
    m.def("repeat", [](const KTensor& x, const Operand& times, Axis axis) {
        if (const KTensor* counts = std::get_if<KTensor>(&times.value)) {
            return without_lock([&] { return repeat_interleave(x, *counts, axis.axis); });
        }
        const Scalar& number = std::get<Scalar>(times.value);
        if (number.Dtype() != dtype::int64) {
            raise_error(PyExc_TypeError, "repetitions are counted in whole numbers");
        }
        const std::int64_t count = *static_cast<const std::int64_t*>(number.data());
        return without_lock([&] { return repeat_interleave(x, count, axis.axis); });
    });
    m.def("roll", [](const KTensor& x, const Shape& shifts, const Axes& axes) {
        return without_lock(x.size(), [&] { return roll(x, shifts.dims, axes.axes); });
    });
    m.def("diff",
          [](const KTensor& x, Axis axis) { return without_lock(x.size(), [&] { return diff(x, axis.axis); }); });
    m.def("pad", [](const KTensor& x, const Shape& widths, const Text& mode, const Number& value) {
        constexpr std::pair<const char*, PadMode> modes[] = {{"constant", PadMode::constant},
                                                             {"reflect", PadMode::reflect},
                                                             {"edge", PadMode::replicate},
                                                             {"wrap", PadMode::circular}};
        for (const auto& [name, code] : modes) {
            if (mode.value == name) {
                std::vector<PadWidth> pairs;
                for (std::size_t i = 0; i + 1 < widths.dims.size(); i += 2) {
                    pairs.push_back({widths.dims[i], widths.dims[i + 1]});
                }
                return without_lock([&, how = code] { return pad(x, pairs, how, value.value); });
            }
        }
        raise_error(PyExc_ValueError,
                    "a mode of padding is \"constant\", \"reflect\", \"edge\" or \"wrap\", not \"" + mode.value + "\"");
    });
}

void add_picks(nb::module_& m) {
    m.def("index_select", [](const KTensor& x, Axis axis, const KTensor& index) {
        return without_lock(x.size(), [&] { return index_select(x, axis.axis, index); });
    });
    m.def("index_add", [](const KTensor& x, Axis axis, const KTensor& index, const KTensor& source) {
        return without_lock(x.size(), [&] { return index_add(x, axis.axis, index, source); });
    });
    m.def("take_flat", [](const KTensor& x, const KTensor& index) {
        return without_lock(index.size(), [&] { return take(x, index); });
    });
    m.def("gather", [](const KTensor& x, Axis axis, const KTensor& index) {
        return without_lock(index.size(), [&] { return gather(x, axis.axis, index); });
    });
    m.def("take_along_axis", [](const KTensor& x, const KTensor& index, Axis axis) {
        return without_lock(index.size(), [&] { return take_along_axis(x, index, axis.axis); });
    });
    m.def("scatter", [](const KTensor& x, Axis axis, const KTensor& index, const KTensor& source) {
        return without_lock(x.size(), [&] { return scatter(x, axis.axis, index, source); });
    });
    m.def("scatter_add", [](const KTensor& x, Axis axis, const KTensor& index, const KTensor& source) {
        return without_lock(x.size(), [&] { return scatter_add(x, axis.axis, index, source); });
    });
    m.def("masked_select", [](const KTensor& x, const KTensor& mask) {
        return without_lock(x.size(), [&] { return masked_select(x, mask); });
    });
    m.def("argwhere", [](const KTensor& x) { return without_lock(x.size(), [&] { return argwhere(x); }); });
    m.def("diagonal",
          [](const KTensor& x, Whole offset, Axis a, Axis b) { return diagonal(x, offset, a.axis, b.axis); });
    m.def("diag", [](const KTensor& x, Whole offset) { return diag(x, offset); });
    m.def("tril", [](const KTensor& x, Whole k) { return without_lock(x.size(), [&] { return tril(x, k); }); });
    m.def("triu", [](const KTensor& x, Whole k) { return without_lock(x.size(), [&] { return triu(x, k); }); });
}

void add_sums_of_products(nb::module_& m) {
    m.def("einsum", [](const Text& text, const Tensors& operands) {
        return without_lock([&] { return einsum(text, operands.list); });
    });
    m.def("tensordot", [](const KTensor& a, const KTensor& b, const Axes& axes_of_a, const Axes& axes_of_b) {
        return without_lock([&] { return tensordot(a, b, axes_of_a.axes, axes_of_b.axes); });
    });
    m.def("inner", [](const KTensor& a, const KTensor& b) { return without_lock([&] { return inner(a, b); }); });
    m.def("outer", [](const KTensor& a, const KTensor& b) { return without_lock([&] { return outer(a, b); }); });
    m.def("vdot", [](const KTensor& a, const KTensor& b) { return without_lock([&] { return vdot(a, b); }); });
    m.def("cross", [](const KTensor& a, const KTensor& b, Axis axis) {
        return without_lock([&] { return cross(a, b, axis.axis); });
    });
}

}  // namespace

void add_joining(nb::module_& m) {
    add_joins(m);
    add_picks(m);
    add_sums_of_products(m);
}

}  // namespace ornik::python
