// numbers.cpp: elements as numbers of Python's.
#include <complex>
#include <cstring>
#include <optional>

#include "errors.h"
#include "object.h"
#include "tensor/tensor.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

// Where an element stands.
struct Place {
    const char* at;
    std::int64_t dtype;

    template <typename T>
    T as() const {
        T value;
        std::memcpy(&value, at, sizeof value);
        return value;
    }
    bool is(DtypeClass kind) const { return is_dtype_class(dtype, kind); }
};

// The only element; nothing where there are more or none. A view that nobody has looked at is not made for it.
std::optional<Place> only_element(PyObject* self) {
    const auto* object = reinterpret_cast<const Object*>(self);
    const KTensor& whole = object->tensor;
    const View& view = object->view;
    const bool is_element = view.kind == View::Kind::element;
    if (is_element || (view.kind == View::Kind::position && whole.ndim() == 1)) {
        const Dims& strides = whole.strides();
        const std::int64_t offset = view.a * strides[0] + (is_element ? view.b * strides[1] : 0);
        const auto* first = static_cast<const char*>(whole.tensor()->getRawData());
        return Place{first + offset * dtype_item_size(whole.dtype()), whole.dtype()};
    }
    const Tensor& t = *tensor_in(self).tensor();
    if (t.Size() != 1) {
        return std::nullopt;
    }
    return Place{static_cast<const char*>(t.getRawData()), t.Dtype()};
}

std::int64_t whole_number(const Place& place) {
    switch (place.dtype) {
        case dtype::boolean:
            return *place.at != 0 ? 1 : 0;
        case dtype::uint8:
            return place.as<std::uint8_t>();
        case dtype::int8:
            return place.as<std::int8_t>();
        case dtype::int16:
            return place.as<std::int16_t>();
        case dtype::int32:
            return place.as<std::int32_t>();
        default:
            return place.as<std::int64_t>();
    }
}

double real_number(const Place& place) {
    switch (place.dtype) {
        case dtype::float32:
            return static_cast<double>(place.as<float>());
        case dtype::float64:
            return place.as<double>();
        default:
            return static_cast<double>(whole_number(place));
    }
}

std::complex<double> complex_number(const Place& place) {
    return place.dtype == dtype::complex64 ? std::complex<double>(place.as<std::complex<float>>())
                                           : place.as<std::complex<double>>();
}

PyObject* number_at(const Place& place) {
    if (place.dtype == dtype::boolean) {
        return PyBool_FromLong(*place.at != 0 ? 1 : 0);
    }
    if (place.is(DtypeClass::floating)) {
        return PyFloat_FromDouble(real_number(place));
    }
    if (place.is(DtypeClass::complex)) {
        const std::complex<double> value = complex_number(place);
        return PyComplex_FromDoubles(value.real(), value.imag());
    }
    return PyLong_FromLongLong(whole_number(place));
}

PyObject* item(PyObject* self, PyObject*) noexcept {
    return guarded([&] {
        const std::optional<Place> place = only_element(self);
        if (!place) {
            (void)tensor_in(self).item<std::complex<double>>();  // Says what is wrong.
        }
        return number_at(*place);
    });
}

nb::object nested(const Tensor& t, std::size_t axis, const char* at) {
    if (axis == t.Shape().size()) {
        return nb::steal(checked(number_at({at, t.Dtype()})));
    }
    const std::int64_t extent = t.Shape()[axis];
    const std::int64_t step = t.Strides()[axis] * dtype_item_size(t.Dtype());
    nb::object list = nb::steal(checked(PyList_New(extent)));
    for (std::int64_t i = 0; i < extent; ++i) {
        PyList_SET_ITEM(list.ptr(), i, nested(t, axis + 1, at + i * step).release().ptr());
    }
    return list;
}

PyObject* tolist(PyObject* self, PyObject*) noexcept {
    return guarded([&] {
        const KTensor own = tensor_in(self);
        const Tensor& t = *own.tensor();
        return nested(t, 0, static_cast<const char*>(t.getRawData())).release().ptr();
    });
}

Place single(PyObject* self, const char* to) {
    const std::optional<Place> place = only_element(self);
    if (!place) {
        raise_error(PyExc_TypeError, std::string(to) + "(): a tensor of " + std::to_string(tensor_in(self).size()) +
                                         " elements is no single number; all() or any() tell about many");
    }
    if (place->is(DtypeClass::complex)) {
        raise_error(PyExc_TypeError, std::string(to) + "(): a complex number is no real one");
    }
    return *place;
}

PyObject* as_float(PyObject* self) noexcept {
    return guarded([&] { return PyFloat_FromDouble(real_number(single(self, "float"))); });
}

PyObject* as_int(PyObject* self) noexcept {
    return guarded([&]() -> PyObject* {
        const Place place = single(self, "int");
        return place.is(DtypeClass::floating) ? PyLong_FromDouble(real_number(place))
                                              : PyLong_FromLongLong(whole_number(place));
    });
}

int as_bool(PyObject* self) noexcept {
    return guarded(
        [&] {
            const std::optional<Place> place = only_element(self);
            if (!place) {
                raise_error(PyExc_ValueError, "the truth of a tensor of " + std::to_string(tensor_in(self).size()) +
                                                  " elements is ambiguous; use all() or any()");
            }
            return (place->is(DtypeClass::complex) ? complex_number(*place) != 0.0 : real_number(*place) != 0.0) ? 1
                                                                                                                 : 0;
        },
        -1);
}

PyObject* as_index(PyObject* self) noexcept {
    return guarded([&]() -> PyObject* {
        const KTensor& t = tensor_in(self);
        if (t.ndim() != 0 || !is_dtype_class(t.dtype(), DtypeClass::integral)) {
            raise_error(PyExc_TypeError, "only whole numbers without axes serve as an index");
        }
        return PyLong_FromLongLong(whole_number(*only_element(self)));
    });
}

template <typename Function>
void* pointer(Function* function) {
    return reinterpret_cast<void*>(function);
}

}  // namespace

PyType_Slot* number_slots() {
    static PyType_Slot slots[] = {
        {Py_nb_bool, pointer(as_bool)},
        {Py_nb_float, pointer(as_float)},
        {Py_nb_int, pointer(as_int)},
        {Py_nb_index, pointer(as_index)},
        {0, nullptr},
    };
    return slots;
}

PyMethodDef* number_methods() {
    static PyMethodDef methods[] = {
        {"item", item, METH_NOARGS, "item($self, /)\n--\n\nThe only element as a number of Python's."},
        {"tolist", tolist, METH_NOARGS,
         "tolist($self, /)\n--\n\nNested lists of Python's numbers; a number where there are no axes."},
        {nullptr, nullptr, 0, nullptr},
    };
    return methods;
}

}  // namespace ornik::python
