#include "arguments.h"

#include <nanobind/stl/string.h>

#include <complex>
#include <limits>
#include <string>
#include <string_view>

#include "errors.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

nb::object attribute(PyObject* object, const char* name) {
    return nb::steal(checked(PyObject_GetAttrString(object, name)));
}

// The next function of Python's on the way to the program, as long as it is the package's.
nb::object next_frame(nb::object frame) {
    if (!frame.is_valid() || frame.is_none()) {
        return {};
    }
    const nb::object name =
        nb::steal(checked(PyMapping_GetItemString(attribute(frame.ptr(), "f_globals").ptr(), "__name__")));
    const std::string module = nb::cast<std::string>(name);
    return module == "ornik" || module.starts_with("ornik.") ? frame : nb::object();
}

// "weight or bias": the function's own arguments that are this object.
std::string names_of_arguments(PyObject* frame, PyObject* code, PyObject* object) {
    const nb::object locals = attribute(frame, "f_locals");
    const nb::object names = attribute(code, "co_varnames");
    const nb::object count = nb::steal(
        checked(PyNumber_Add(attribute(code, "co_argcount").ptr(), attribute(code, "co_kwonlyargcount").ptr())));
    std::string found;
    for (Py_ssize_t i = 0; i < nb::cast<Py_ssize_t>(count); ++i) {
        PyObject* name = PyTuple_GET_ITEM(names.ptr(), i);
        const nb::object value = nb::steal(PyObject_GetItem(locals.ptr(), name));
        if (!value.is_valid()) {
            PyErr_Clear();
        } else if (value.ptr() == object) {
            found += (found.empty() ? "" : " or ") + nb::cast<std::string>(nb::handle(name));
        }
    }
    return found;
}

// What the program has called: "Linear" for Linear.__init__.
std::string name_of_function(PyObject* code) {
#if PY_VERSION_HEX >= 0x030B0000
    std::string name = nb::cast<std::string>(attribute(code, "co_qualname"));
#else
    std::string name = nb::cast<std::string>(attribute(code, "co_name"));
#endif
    for (const std::string_view method : {".__init__", ".__new__", ".__call__", ".forward"}) {
        if (name.ends_with(method)) {
            name.resize(name.size() - method.size());
        }
    }
    return name;
}

// The package's own helpers are nothing that a program has called.
bool is_helper(const std::string& function) {
    const std::size_t begin = function.rfind('.') == std::string::npos ? 0 : function.rfind('.') + 1;
    return function.compare(begin, 1, "_") == 0 || function.compare(begin, 1, "<") == 0;
}

// "dropout(), argument p: ", or "concat(): " where the object is no argument itself.
std::string place_of(PyObject* object) {
    std::string text;
    bool has_argument = false;
    nb::object frame = next_frame(nb::borrow(reinterpret_cast<PyObject*>(PyEval_GetFrame())));
    while (frame.is_valid()) {
        const nb::object code = attribute(frame.ptr(), "f_code");
        const std::string function = name_of_function(code.ptr());
        const std::string names = names_of_arguments(frame.ptr(), code.ptr(), object);
        if (!is_helper(function) && (!names.empty() || !has_argument)) {
            text = function + (names.empty() ? "(): " : "(), argument " + names + ": ");
            has_argument = !names.empty();
        }
        frame = next_frame(attribute(frame.ptr(), "f_back"));
    }
    return text;
}

// A reference to sys.modules["numpy"]'s attribute, as long as the module stays.
PyObject* numpy_attribute(const char* name) noexcept {
    PyObject* numpy = numpy_if_imported();
    PyObject* attribute = numpy == nullptr ? nullptr : PyObject_GetAttrString(numpy, name);
    if (attribute == nullptr) {
        PyErr_Clear();
    }
    return attribute;
}

bool is_numpy(PyObject* object, const char* type_attribute) noexcept {
    // The types of NumPy and what derives from them come from a module with that name somewhere up their bases.
    const nb::object type = nb::steal(numpy_attribute(type_attribute));
    if (!type.is_valid() || PyType_Check(type.ptr()) == 0) {
        return false;
    }
    return PyObject_TypeCheck(object, reinterpret_cast<PyTypeObject*>(type.ptr())) != 0;
}

Scalar integer_number(PyObject* object) {
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(object, &overflow);
    if (overflow != 0) {
        raise_error(PyExc_OverflowError, "a whole number beyond 64 bits can not stand beside a tensor");
    }
    check_python();
    return Scalar(static_cast<std::int64_t>(value));
}

std::optional<Scalar> numpy_number(PyObject* object) {
    if (!is_numpy(object, "generic")) {
        return std::nullopt;
    }
    if (is_numpy(object, "bool_")) {
        return Scalar(PyObject_IsTrue(object) == 1);
    }
    if (is_numpy(object, "integer")) {
        const nb::object number = nb::steal(checked(PyNumber_Index(object)));
        return integer_number(number.ptr());
    }
    if (is_numpy(object, "floating")) {
        const double value = PyFloat_AsDouble(object);
        check_python();
        return Scalar(value);
    }
    if (is_numpy(object, "complexfloating")) {
        const Py_complex value = PyComplex_AsCComplex(object);
        check_python();
        return Scalar(std::complex<double>(value.real, value.imag));
    }
    return std::nullopt;
}

// The items of a list or tuple, or of another sequence that is no text. `what` names what is wanted.
nb::object items_of(PyObject* object, const char* what) {
    if (PyUnicode_Check(object) || PyBytes_Check(object) || PyByteArray_Check(object) || is_tensor(object) ||
        PySequence_Check(object) == 0) {
        refuse(what, object);
    }
    return nb::steal(checked(PySequence_Tuple(object)));  // A copy: items may change what they stand in.
}

int axis_of(PyObject* object) {
    const std::int64_t axis = to_integer(object, "an axis");
    if (axis < std::numeric_limits<int>::min() || axis > std::numeric_limits<int>::max()) {
        raise_error(PyExc_IndexError, "there is no axis " + std::to_string(axis));
    }
    return static_cast<int>(axis);
}

}  // namespace

void refuse(const char* wanted, PyObject* object) {
    std::string place;
    try {
        place = place_of(object);
    } catch (nb::python_error&) {  // Then without.
    }
    raise_error(PyExc_TypeError, place + wanted + ", but got " + type_name(object));
}

const KTensor& to_tensor(PyObject* object) {
    if (!is_tensor(object)) {
        refuse("a KTensor is wanted", object);
    }
    return tensor_in(object);
}

PyObject* numpy_if_imported() noexcept {
    PyObject* modules = PyImport_GetModuleDict();
    return modules == nullptr ? nullptr : PyDict_GetItemString(modules, "numpy");
}

bool is_numpy_array(PyObject* object) noexcept { return is_numpy(object, "ndarray"); }

std::optional<Scalar> as_number(PyObject* object) {
    if (PyFloat_Check(object)) {
        return Scalar(PyFloat_AS_DOUBLE(object));
    }
    if (PyBool_Check(object)) {
        return Scalar(object == Py_True);
    }
    if (PyLong_Check(object)) {
        return integer_number(object);
    }
    if (PyComplex_Check(object)) {
        const Py_complex value = PyComplex_AsCComplex(object);
        return Scalar(std::complex<double>(value.real, value.imag));
    }
    return numpy_number(object);
}

Scalar to_number(PyObject* object) {
    const std::optional<Scalar> number = as_number(object);
    if (!number) {
        refuse("a number is wanted", object);
    }
    return *number;
}

std::int64_t to_integer(PyObject* object, const char* what) {
    if (PyLong_CheckExact(object) == 0 && PyIndex_Check(object) == 0) {
        refuse((std::string(what) + " is a whole number").c_str(), object);
    }
    const nb::object number = nb::steal(checked(PyNumber_Index(object)));
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
    if (overflow != 0) {
        raise_error(PyExc_OverflowError, std::string(what) + " has to fit in 64 bits");
    }
    check_python();
    return value;
}

Real to_real(PyObject* object) {
    if (PyFloat_CheckExact(object)) {
        return {PyFloat_AS_DOUBLE(object)};
    }
    const PyNumberMethods* numbers = Py_TYPE(object)->tp_as_number;
    if (numbers == nullptr || (numbers->nb_float == nullptr && numbers->nb_index == nullptr)) {
        refuse("a number is wanted", object);
    }
    const double value = PyFloat_AsDouble(object);
    check_python();
    return {value};
}

Whole to_whole(PyObject* object) {
    if (PyIndex_Check(object) == 0) {
        refuse("a whole number is wanted", object);
    }
    return {to_integer(object, "a whole number")};
}

OptionalWhole to_optional_whole(PyObject* object) {
    return {object == Py_None ? std::nullopt : std::optional<std::int64_t>(to_whole(object))};
}

Count to_count(PyObject* object) {
    const std::int64_t value = to_whole(object);
    if (value < std::numeric_limits<std::int32_t>::min() || value > std::numeric_limits<std::int32_t>::max()) {
        raise_error(PyExc_OverflowError, "a whole number of 32 bits is wanted, not " + std::to_string(value));
    }
    return {static_cast<std::int32_t>(value)};
}

Flag to_flag(PyObject* object) {
    if (PyBool_Check(object) == 0 && !is_numpy(object, "bool_")) {
        refuse("True or False is wanted", object);
    }
    return {PyObject_IsTrue(object) == 1};
}

Text to_text(PyObject* object) {
    if (PyUnicode_Check(object) == 0) {
        refuse("a string is wanted", object);
    }
    Py_ssize_t size = 0;
    const char* text = checked(PyUnicode_AsUTF8AndSize(object, &size));
    return {std::string(text, static_cast<std::size_t>(size))};
}

Shape to_shape(PyObject* object) {
    Shape shape;
    if (PyIndex_Check(object) != 0 && !is_numpy_array(object)) {
        shape.dims.push_back(to_integer(object, "an extent"));
        return shape;
    }
    const nb::object items = items_of(object, "a shape (a whole number or a sequence of them) is wanted");
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.ptr()); ++i) {
        shape.dims.push_back(to_integer(PyTuple_GET_ITEM(items.ptr(), i), "an extent"));
    }
    return shape;
}

Axis to_axis(PyObject* object) { return {axis_of(object)}; }

Axes to_axes(PyObject* object) {
    Axes axes;
    if (object == Py_None) {
        return axes;
    }
    if (PyIndex_Check(object) != 0) {
        axes.axes.push_back(axis_of(object));
        return axes;
    }
    const nb::object items = items_of(object, "an axis or a sequence of axes is wanted");
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.ptr()); ++i) {
        axes.axes.push_back(axis_of(PyTuple_GET_ITEM(items.ptr(), i)));
    }
    return axes;
}

Operand to_operand(PyObject* object) {
    if (is_tensor(object)) {
        return {tensor_in(object)};
    }
    if (const std::optional<Scalar> number = as_number(object)) {
        return {*number};
    }
    if (is_numpy_array(object)) {
        return {from_numpy(object)};
    }
    refuse("a KTensor or a number is wanted", object);
}

std::vector<KTensor> to_tensors(PyObject* object, bool with_none) {
    const nb::object items = items_of(object, "a sequence of KTensors is wanted");
    std::vector<KTensor> tensors;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(items.ptr()); ++i) {
        PyObject* item = PyTuple_GET_ITEM(items.ptr(), i);
        tensors.push_back(with_none && item == Py_None ? KTensor() : to_tensor(item));
    }
    return tensors;
}

PyObject* list_of(const std::vector<KTensor>& tensors) noexcept {
    PyObject* list = PyList_New(static_cast<Py_ssize_t>(tensors.size()));
    for (std::size_t i = 0; list != nullptr && i < tensors.size(); ++i) {
        PyObject* item = wrap(tensors[i]);
        if (item == nullptr) {
            Py_DECREF(list);
            return nullptr;
        }
        PyList_SET_ITEM(list, static_cast<Py_ssize_t>(i), item);
    }
    return list;
}

}  // namespace ornik::python
