// object.h: the Python object that holds a KTensor.
//
// KTensorBase is a type of its own, made by hand: operators and subscripts are slots, objects come from a list of
// spare ones, and each keeps its shape as a tuple. ornik.KTensor derives from it in Python, adds the methods, and is
// what every function of the extension returns.
#pragma once

#include <Python.h>

#include <cstdint>
#include <utility>

#include "ktensor/ktensor.h"

namespace ornik::python {

/// Which view of its tensor an object stands for. It is made when somebody looks at it: most elements and slices are
/// taken to be looked at once or never, and a single number is read without it.
struct View {
    enum class Kind : char {
        none,      // the tensor itself
        position,  // x[a]
        range,     // b positions of the first axis, from a on, c apart
        element,   // x[a, b] of a matrix
        shape      // the elements in row-major order, in the shape that the object has
    };
    Kind kind = Kind::none;
    std::int64_t a = 0;
    std::int64_t b = 0;
    std::int64_t c = 0;
};

struct Object {
    PyObject_HEAD KTensor tensor;
    View view;
    PyObject* shape;  // a tuple, made when it is first asked for
    PyObject* weak_references;
};

/// Types of the process: made when the extension is imported, never dropped.
extern PyTypeObject* base_type;
/// What new objects are; base_type until the package has registered its class.
extern PyTypeObject* instance_type;

/// Makes base_type, and adds it and the function that registers the class to the module. -1 with an exception set.
int add_tensor_type(PyObject* module);

inline bool is_tensor(PyObject* object) {
    return Py_TYPE(object) == instance_type || PyObject_TypeCheck(object, base_type);
}
/// Makes the view that an object of wrap_view() stands for.
void make_view(Object* object);
/// Of an object that is_tensor.
inline KTensor& tensor_in(PyObject* object) {
    auto* self = reinterpret_cast<Object*>(object);
    if (self->view.kind != View::Kind::none) {
        make_view(self);
    }
    return self->tensor;
}

/// A new object, None for an undefined tensor. Null with an exception set when memory is short.
PyObject* wrap(KTensor tensor) noexcept;

/// A new object for a view of x, which is right for it; x asks for no gradients. `shape` is a tuple or null.
PyObject* wrap_view(const KTensor& x, const View& view, PyObject* shape = nullptr) noexcept;

/// From now on the collector of garbage looks at objects whose tensors have a past: a Python function may hang on them,
/// which may lead back to the object. `self`, if any, is one that has been
/// made before. Until the first such function no object costs it anything.
void watch_tensors(PyObject* self = nullptr) noexcept;
/// Visits the Python functions that only this tensor holds (autograd.cpp).
int traverse_functions(const KTensor& tensor, visitproc visit, void* argument);

/// The shape as a tuple of the object's own: a new reference.
PyObject* shape_tuple(PyObject* self) noexcept;
/// A tuple of whole numbers.
PyObject* tuple_of(const Dims& numbers) noexcept;

// The parts of the type, by file: properties.cpp, operators.cpp, subscripts.cpp, numbers.cpp, shapes.cpp, buffer.cpp.
PyGetSetDef* property_table();
PyType_Slot* operator_slots();
PyType_Slot* subscript_slots();
PyType_Slot* number_slots();
PyMethodDef* number_methods();
PyMethodDef* shape_methods();
PyType_Slot* buffer_slots();

}  // namespace ornik::python
