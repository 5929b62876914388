// properties.cpp: what a tensor says of itself, as attributes and small functions.
#include <nanobind/stl/string.h>

#include "arguments.h"
#include "errors.h"
#include "ktensor/impl.h"
#include "ktensor/node.h"
#include "module.h"
#include "object.h"
#include "tensor/tensor.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

template <auto Function>
PyObject* get(PyObject* self, void*) noexcept {
    return guarded([&]() -> PyObject* { return Function(tensor_in(self)); });
}

PyObject* shape(PyObject* self, void*) noexcept { return shape_tuple(self); }

PyObject* dtype_of(const KTensor& t) { return Py_NewRef(dtype_object(t.dtype())); }
PyObject* axes_of(const KTensor& t) { return PyLong_FromLong(t.ndim()); }
PyObject* size_of(const KTensor& t) { return PyLong_FromLongLong(t.size()); }
PyObject* item_size_of(const KTensor& t) { return PyLong_FromLongLong(dtype_item_size(t.dtype())); }
PyObject* bytes_of(const KTensor& t) { return PyLong_FromLongLong(t.size() * dtype_item_size(t.dtype())); }

PyObject* strides_of(const KTensor& t) {
    Dims steps = t.strides();
    for (std::int64_t& step : steps) {
        step *= dtype_item_size(t.dtype());
    }
    return tuple_of(steps);
}

PyObject* wants_grad(const KTensor& t) { return PyBool_FromLong(t.wants_grad() ? 1 : 0); }
PyObject* is_leaf(const KTensor& t) { return PyBool_FromLong(t.is_leaf() ? 1 : 0); }
PyObject* gradient_of(const KTensor& t) { return wrap(t.grad()); }

PyObject* operation_of(const KTensor& t) {
    const autograd::Node* node = t.impl()->node.get();
    return node == nullptr ? Py_NewRef(Py_None) : PyUnicode_FromString(node->name());
}

int set_wants_grad(PyObject* self, PyObject* value, void*) noexcept {
    return guarded(
        [&] {
            if (value == nullptr || PyBool_Check(value) == 0) {
                raise_error(PyExc_TypeError, "requires_grad is True or False");
            }
            tensor_in(self).requires_grad(value == Py_True);
            return 0;
        },
        -1);
}

int set_gradient(PyObject* self, PyObject* value, void*) noexcept {
    return guarded(
        [&] {
            tensor_in(self).set_grad(value == nullptr || value == Py_None ? KTensor() : to_tensor(value));
            return 0;
        },
        -1);
}

PyGetSetDef table[] = {
    {"shape", shape, nullptr, "The extents, outermost first.", nullptr},
    {"dtype", get<dtype_of>, nullptr, "The type of the elements.", nullptr},
    {"ndim", get<axes_of>, nullptr, "The number of axes.", nullptr},
    {"size", get<size_of>, nullptr, "The number of elements.", nullptr},
    {"itemsize", get<item_size_of>, nullptr, "Bytes of one element.", nullptr},
    {"nbytes", get<bytes_of>, nullptr, "Bytes of all elements.", nullptr},
    {"strides", get<strides_of>, nullptr, "Bytes from one position of each axis to the next.", nullptr},
    {"requires_grad", get<wants_grad>, set_wants_grad, "Will backward() reach this tensor?", nullptr},
    {"is_leaf", get<is_leaf>, nullptr, "Made by the program, not by a recorded operation.", nullptr},
    {"grad", get<gradient_of>, set_gradient, "The gradients that backward() has added up, or None.", nullptr},
    {"grad_fn", get<operation_of>, nullptr, "The name of the recorded operation that made it, or None.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyObject* item(const KTensor& t) {
    if (t.dtype() == dtype::boolean) {
        return PyBool_FromLong(t.item<bool>() ? 1 : 0);
    }
    if (t.is_complex()) {
        const auto value = t.item<std::complex<double>>();
        return PyComplex_FromDoubles(value.real(), value.imag());
    }
    return t.is_floating() ? PyFloat_FromDouble(t.item<double>()) : PyLong_FromLongLong(t.item<std::int64_t>());
}

// The number at an address.
PyObject* number_at(const char* at, std::int64_t code) {
    const auto load = [at]<typename T>(T value) {
        std::memcpy(&value, at, sizeof value);
        return value;
    };
    switch (code) {
        case dtype::boolean:
            return PyBool_FromLong(*at != 0 ? 1 : 0);
        case dtype::uint8:
            return PyLong_FromLong(load(std::uint8_t{}));
        case dtype::int8:
            return PyLong_FromLong(load(std::int8_t{}));
        case dtype::int16:
            return PyLong_FromLong(load(std::int16_t{}));
        case dtype::int32:
            return PyLong_FromLong(load(std::int32_t{}));
        case dtype::int64:
            return PyLong_FromLongLong(load(std::int64_t{}));
        case dtype::float32:
            return PyFloat_FromDouble(static_cast<double>(load(float{})));
        case dtype::float64:
            return PyFloat_FromDouble(load(double{}));
        case dtype::complex64: {
            const auto value = load(std::complex<float>());
            return PyComplex_FromDoubles(static_cast<double>(value.real()), static_cast<double>(value.imag()));
        }
        default: {
            const auto value = load(std::complex<double>());
            return PyComplex_FromDoubles(value.real(), value.imag());
        }
    }
}

nb::object nested(const Tensor& t, std::size_t axis, const char* at) {
    if (axis == t.Shape().size()) {
        return nb::steal(checked(number_at(at, t.Dtype())));
    }
    const std::int64_t extent = t.Shape()[axis];
    const std::int64_t step = t.Strides()[axis] * dtype_item_size(t.Dtype());
    nb::object list = nb::steal(checked(PyList_New(extent)));
    for (std::int64_t i = 0; i < extent; ++i) {
        PyList_SET_ITEM(list.ptr(), i, nested(t, axis + 1, at + i * step).release().ptr());
    }
    return list;
}

}  // namespace

PyGetSetDef* property_table() { return table; }

void add_properties(nb::module_& m) {
    m.def(
        "item", [](const KTensor& t) { return nb::steal(checked(item(t))); },
        nb::sig("def item(x: ornik.KTensor, /) -> bool | int | float | complex"));
    m.def(
        "tolist",
        [](const KTensor& t) { return nested(*t.tensor(), 0, static_cast<const char*>(t.tensor()->getRawData())); },
        nb::sig("def tolist(x: ornik.KTensor, /) -> typing.Any"));
    m.def("to_string", [](const KTensor& t, int precision) { return t.to_string(precision); });
    m.def("is_contiguous", [](const KTensor& t) { return t.is_contiguous(); });
    m.def("is_read_only", [](const KTensor& t) { return t.tensor()->getStorage()->read_only(); });
    m.def("set_read_only", [](const KTensor& t) { t.tensor()->getStorage()->set_read_only(true); });
    m.def("same", [](const KTensor& a, const KTensor& b) { return a.is(b); });
    m.def("shares_memory",
          [](const KTensor& a, const KTensor& b) { return a.tensor()->getStorage() == b.tensor()->getStorage(); });
    m.def("data_pointer", [](const KTensor& t) { return reinterpret_cast<std::uintptr_t>(t.tensor()->getRawData()); });
}

}  // namespace ornik::python
