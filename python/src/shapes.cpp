// shapes.cpp: methods that show the same elements in another shape.
#include "ktensor/shapes.h"

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "object.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

// The extents as a tuple when they are plain whole numbers for all elements of x, at most one of them -1; nothing else
// has to be looked at then. Else an empty object.
nb::object fitting_shape(std::int64_t size, PyObject* const* extents, Py_ssize_t count) {
    Py_ssize_t open = -1;
    std::int64_t known = 1;
    for (Py_ssize_t i = 0; i < count; ++i) {
        int overflow = 0;
        const long long extent =
            PyLong_CheckExact(extents[i]) != 0 ? PyLong_AsLongLongAndOverflow(extents[i], &overflow) : 0;
        if (extent == -1 && overflow == 0 && open == -1) {
            open = i;
        } else if (extent <= 0 || __builtin_mul_overflow(known, std::int64_t{extent}, &known)) {
            return {};
        }
    }
    if (open >= 0 ? size % known != 0 : size != known) {
        return {};
    }
    nb::object shape = nb::steal(checked(PyTuple_New(count)));
    for (Py_ssize_t i = 0; i < count; ++i) {
        PyTuple_SET_ITEM(shape.ptr(), i,
                         i == open ? checked(PyLong_FromLongLong(size / known)) : Py_NewRef(extents[i]));
    }
    return shape;
}

bool has_shape(const KTensor& x, PyObject* shape) {
    if (x.ndim() != PyTuple_GET_SIZE(shape)) {
        return false;
    }
    for (std::size_t i = 0; i < x.shape().size(); ++i) {
        if (PyLong_AsLongLong(PyTuple_GET_ITEM(shape, static_cast<Py_ssize_t>(i))) != x.shape()[i]) {
            return false;
        }
    }
    return true;
}

PyObject* reshaped(PyObject* self, PyObject* const* arguments, Py_ssize_t count) noexcept {
    return guarded([&]() -> PyObject* {
        const bool is_one = count == 1;
        PyObject* const* extents = arguments;
        Py_ssize_t extent_count = count;
        if (is_one && PyTuple_CheckExact(arguments[0])) {
            extents = reinterpret_cast<PyTupleObject*>(arguments[0])->ob_item;
            extent_count = PyTuple_GET_SIZE(arguments[0]);
        }
        const KTensor& x = tensor_in(self);
        if (!x.wants_grad() && x.size() != 0 && x.is_contiguous()) {
            const nb::object shape = fitting_shape(x.size(), extents, extent_count);
            if (shape.is_valid()) {
                return has_shape(x, shape.ptr()) ? wrap(x) : wrap_view(x, {View::Kind::shape}, shape.ptr());
            }
        }
        Shape shape;
        if (is_one) {
            shape = to_shape(arguments[0]);
        } else {
            for (Py_ssize_t i = 0; i < count; ++i) {
                shape.dims.push_back(to_integer(arguments[i], "an extent"));
            }
        }
        const KTensor own = tensor_in(self);
        return wrap(without_lock(own.size(), [&] { return reshape(own, shape.dims); }));
    });
}

}  // namespace

PyMethodDef* shape_methods() {
    static PyMethodDef methods[] = {
        {"reshape", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(reshaped)), METH_FASTCALL,
         "reshape($self, /, *shape)\n--\n\n``x.reshape(2, -1)`` or ``x.reshape((2, -1))``; see :func:`ornik.reshape`."},
        {nullptr, nullptr, 0, nullptr},
    };
    return methods;
}

}  // namespace ornik::python
