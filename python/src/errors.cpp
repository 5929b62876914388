#include "errors.h"

#include <new>
#include <stdexcept>

#include "utils/error.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

PyObject* type_for(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::index:
            return PyExc_IndexError;
        case ErrorKind::dtype:
            return PyExc_TypeError;
        case ErrorKind::memory:
            return PyExc_MemoryError;
        case ErrorKind::state:
            return PyExc_RuntimeError;
        case ErrorKind::not_implemented:
            return PyExc_NotImplementedError;
        default:
            return PyExc_ValueError;
    }
}

PyObject* text_object(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
        text.remove_suffix(1);
    }
    return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace");
}

void set_library_error(const Error& error) {
    PyObject* type = type_for(error.kind());
    const nb::object text = nb::steal(text_object(error.message()));
    const nb::object exception = text.is_valid() ? nb::steal(PyObject_CallOneArg(type, text.ptr())) : nb::object();
    if (!exception.is_valid()) {
        return;  // Python's own exception is set.
    }
    const nb::object location = nb::steal(text_object(error.location()));
    if (!location.is_valid() || PyObject_SetAttrString(exception.ptr(), "location", location.ptr()) != 0) {
        PyErr_Clear();
    }
    PyErr_SetObject(type, exception.ptr());
}

}  // namespace

void raise_error(PyObject* type, const std::string& text) {
    const nb::object message = nb::steal(text_object(text));
    if (message.is_valid()) {
        PyErr_SetObject(type, message.ptr());
    }
    throw nb::python_error();
}

void set_error_from_current() noexcept {
    try {
        throw;
    } catch (const Error& error) {
        set_library_error(error);
    } catch (nb::python_error& error) {
        error.restore();
    } catch (const nb::builtin_exception& error) {
        error.type() == nb::exception_type::type_error ? PyErr_SetString(PyExc_TypeError, error.what())
                                                       : PyErr_SetString(PyExc_ValueError, error.what());
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
    } catch (const std::out_of_range& error) {
        PyErr_SetString(PyExc_IndexError, error.what());
    } catch (const std::logic_error& error) {
        PyErr_SetString(PyExc_ValueError, error.what());
    } catch (const std::exception& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    } catch (...) {
        PyErr_SetString(PyExc_RuntimeError, "an exception of unknown type");
    }
}

void translate_errors() {
    nb::register_exception_translator([](const std::exception_ptr& pointer, void*) {
        try {
            std::rethrow_exception(pointer);
        } catch (const Error& error) {
            set_library_error(error);
        }
    });
}

std::string type_name(PyObject* object) {
    const std::string name = Py_TYPE(object)->tp_name;
    const std::size_t dot = name.rfind('.');
    return dot == std::string::npos ? name : name.substr(dot + 1);
}

}  // namespace ornik::python
