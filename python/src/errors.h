// errors.h: C++ exceptions as Python's.
//
//     PyObject* slot(PyObject* self) {
//         return guarded([&] { return wrap(exp(tensor_in(self))); });
//     }
#pragma once

#include <Python.h>
#include <nanobind/nanobind.h>

#include <string>
#include <type_traits>

namespace ornik::python {

/// A TypeError, ValueError, ... with this text.
[[noreturn]] void raise_error(PyObject* type, const std::string& text);

/// Sets the Python exception for the C++ exception being handled. An ornik::Error becomes the exception that its kind
/// asks for; its text has no C++ location, which is the attribute `location`.
void set_error_from_current() noexcept;

/// Makes nanobind's functions do the same.
void translate_errors();

/// What the body returns, or `failure` with the exception set.
template <typename Body, typename Result = std::invoke_result_t<Body>>
Result guarded(Body&& body, Result failure = Result()) noexcept {
    try {
        return body();
    } catch (...) {
        set_error_from_current();
        return failure;
    }
}

/// "float", the name of an object's type.
std::string type_name(PyObject* object);

/// Throws when a Python call has failed.
inline void check_python() {
    if (PyErr_Occurred() != nullptr) {
        throw nanobind::python_error();
    }
}
template <typename T>
T* checked(T* result) {
    if (result == nullptr) {
        throw nanobind::python_error();
    }
    return result;
}

}  // namespace ornik::python
