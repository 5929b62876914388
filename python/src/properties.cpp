// properties.cpp: what a tensor says of itself, as attributes and small functions.
#include <nanobind/stl/string.h>

#include "arguments.h"
#include "errors.h"
#include "ktensor/bindings.h"
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
    const std::string name = autograd::operation_of(t);
    return name.empty() ? Py_NewRef(Py_None) : PyUnicode_FromString(name.c_str());
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

}  // namespace

PyGetSetDef* property_table() { return table; }

void add_properties(nb::module_& m) {
    m.def("to_string", [](const KTensor& t, Count precision) { return t.to_string(precision); });
    // What is no tensor, or no number, is refused: for functions that look at it before the library does.
    m.def(
        "checked",
        [](nb::object x) {
            to_tensor(x.ptr());
            return x;
        },
        nb::arg().none(), nb::sig("def checked(x: ornik.KTensor, /) -> ornik.KTensor"));
    m.def("checked_number", [](Real x) { return x.value; });
    m.def("is_contiguous", [](const KTensor& t) { return t.is_contiguous(); });
    m.def("is_read_only", [](const KTensor& t) { return t.tensor()->getStorage()->read_only(); });
    m.def("set_read_only", [](const KTensor& t) { t.tensor()->getStorage()->set_read_only(true); });
    m.def("same", [](const KTensor& a, const KTensor& b) { return a.is(b); });
    m.def("shares_memory",
          [](const KTensor& a, const KTensor& b) { return a.tensor()->getStorage() == b.tensor()->getStorage(); });
    m.def("data_pointer", [](const KTensor& t) { return reinterpret_cast<std::uintptr_t>(t.tensor()->getRawData()); });
}

}  // namespace ornik::python
