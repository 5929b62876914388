#include "object.h"

#include <structmember.h>

#include <cstddef>
#include <memory>
#include <new>
#include <optional>
#include <vector>

#include "errors.h"
#include "gil.h"
#include "ktensor/autograd.h"
#include "ktensor/indexing.h"
#include "ktensor/shapes.h"
#include "tensor/geometry.h"
#include "tensor/tensor.h"

namespace ornik::python {

PyTypeObject* base_type = nullptr;
PyTypeObject* instance_type = nullptr;

namespace {

// Objects of instance_type that wait for their next use, unknown to the collector. Guarded by Python's lock.
constexpr std::size_t most_spare = 256;
PyObject* spare[most_spare];
std::size_t spare_count = 0;

bool watching = false;

Object* as_object(PyObject* self) { return reinterpret_cast<Object*>(self); }

void begin(PyObject* self, KTensor&& tensor) {
    Object* object = as_object(self);
    new (&object->tensor) KTensor(std::move(tensor));
    object->shape = nullptr;
    object->view = View();
    object->weak_references = nullptr;
}

// An object that Python functions may hang on; all others lead to no object that could lead back.
void watch(PyObject* self) {
    if (watching && as_object(self)->tensor.wants_grad()) {
        PyObject_GC_Track(self);
    }
}

// KTensorBase.__new__(cls, tensor): another object, of a class derived from it, that holds the same tensor.
PyObject* make(PyTypeObject* type, PyObject* arguments, PyObject* keywords) {
    return guarded([&]() -> PyObject* {
        if (keywords != nullptr || PyTuple_GET_SIZE(arguments) != 1 || !is_tensor(PyTuple_GET_ITEM(arguments, 0))) {
            raise_error(PyExc_TypeError, "KTensorBase() takes one KTensor");
        }
        KTensor tensor = tensor_in(PyTuple_GET_ITEM(arguments, 0));
        PyObject* self = checked(type->tp_alloc(type, 0));
        begin(self, std::move(tensor));
        return self;
    });
}

int traverse(PyObject* self, visitproc visit, void* arg) {  // Py_VISIT knows them by these names.
    Py_VISIT(Py_TYPE(self));
    return traverse_functions(as_object(self)->tensor, visit, arg);
}

// The functions go with the past; the elements stay, for whoever still looks at the object.
int clear(PyObject* self) {
    KTensor& tensor = as_object(self)->tensor;
    try {
        const KTensor past = std::exchange(tensor, tensor.defined() ? tensor.detach() : KTensor());
    } catch (...) {  // Memory is short: the garbage stays.
        return 0;
    }
    return 0;
}

void destroy(PyObject* self) {
    Object* object = as_object(self);
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    if (object->weak_references != nullptr) {
        PyObject_ClearWeakRefs(self);
    }
    Py_CLEAR(object->shape);
    object->tensor.~KTensor();
    if (type == instance_type && spare_count < most_spare) {
        spare[spare_count++] = self;
    } else {
        type->tp_free(self);
    }
    Py_DECREF(type);
}

Dims numbers_in(PyObject* tuple) {
    Dims numbers(static_cast<std::size_t>(PyTuple_GET_SIZE(tuple)));
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        numbers[i] = PyLong_AsLongLong(PyTuple_GET_ITEM(tuple, static_cast<Py_ssize_t>(i)));
    }
    return numbers;
}

// The view as an operation on x, for its gradient.
KTensor recorded_view(const KTensor& x, const View& view, PyObject* shape) {
    switch (view.kind) {
        case View::Kind::position:
            return x[view.a];
        case View::Kind::range: {
            const std::int64_t end = view.a + view.b * view.c;
            Slice slice{view.a, std::nullopt, view.c};
            if (end >= 0) {
                slice.end = end;
            }
            return x.index({slice});
        }
        case View::Kind::element:
            return x.index({view.a, view.b});
        default:
            return reshape(x, numbers_in(shape));
    }
}

KTensor plain_view(const KTensor& x, const View& view, PyObject* tuple) {
    Dims shape = x.shape();
    Dims strides = x.strides();
    std::int64_t offset = view.a * (strides.empty() ? 0 : strides[0]);
    switch (view.kind) {
        case View::Kind::position:
            shape.erase(shape.begin());
            strides.erase(strides.begin());
            break;
        case View::Kind::range:
            shape[0] = view.b;
            strides[0] *= view.c;
            break;
        case View::Kind::element:
            offset += view.b * strides[1];
            shape.clear();
            strides.clear();
            break;
        default:
            offset = 0;
            shape = numbers_in(tuple);
            strides = shape2stride(shape);
    }
    const Tensor& t = *x.tensor();
    return KTensor(std::unique_ptr<Tensor>(
        share_storage_tensor(t.getStorage(), shape, strides, t.Dtype(), t.StorageOffset() + offset)));
}

PyObject* register_class(PyObject*, PyObject* type) {
    return guarded([&]() -> PyObject* {
        auto* derived = reinterpret_cast<PyTypeObject*>(type);
        if (PyType_Check(type) == 0 || PyType_IsSubtype(derived, base_type) == 0 ||
            derived->tp_basicsize != base_type->tp_basicsize) {
            raise_error(PyExc_TypeError, "the tensor class derives from KTensorBase and adds no fields");
        }
        while (spare_count > 0) {
            instance_type->tp_free(spare[--spare_count]);
        }
        derived->tp_dealloc = destroy;  // It has nothing of its own that Python's general way would look for.
        Py_XSETREF(instance_type, reinterpret_cast<PyTypeObject*>(Py_NewRef(type)));
        return Py_NewRef(Py_None);
    });
}

PyMethodDef module_functions[] = {
    {"register_class", register_class, METH_O, "register_class(cls: type, /) -> None"},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef members[] = {
    {"__weaklistoffset__", T_PYSSIZET, offsetof(Object, weak_references), READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

template <typename Function>
void* pointer(Function* function) {
    return reinterpret_cast<void*>(function);
}

}  // namespace

PyObject* wrap(KTensor tensor) noexcept {
    if (!tensor.defined()) {
        return Py_NewRef(Py_None);
    }
    make_left_calls();
    if (spare_count > 0) {
        PyObject* self = PyObject_Init(spare[--spare_count], instance_type);
        begin(self, std::move(tensor));
        watch(self);
        return self;
    }
    PyObject* self = instance_type->tp_alloc(instance_type, 0);
    if (self != nullptr) {
        PyObject_GC_UnTrack(self);
        begin(self, std::move(tensor));
        watch(self);
    }
    return self;
}

void watch_tensors(PyObject* self) noexcept {
    watching = true;
    if (self != nullptr && PyObject_GC_IsTracked(self) == 0) {
        PyObject_GC_Track(self);
    }
}

PyObject* wrap_view(const KTensor& x, const View& view, PyObject* shape) noexcept {
    PyObject* self = wrap(x);
    if (self != nullptr) {
        as_object(self)->view = view;
        as_object(self)->shape = Py_XNewRef(shape);
    }
    return self;
}

void make_view(Object* object) {
    // A write that was recorded since has given the whole a past, which is the view's, too. One that merely asks for
    // gradients since does not reach back.
    const KTensor& x = object->tensor;
    object->tensor =
        x.is_leaf() ? plain_view(x, object->view, object->shape) : recorded_view(x, object->view, object->shape);
    object->view = View();
}

PyObject* tuple_of(const Dims& numbers) noexcept {
    PyObject* tuple = PyTuple_New(static_cast<Py_ssize_t>(numbers.size()));
    for (std::size_t i = 0; tuple != nullptr && i < numbers.size(); ++i) {
        PyObject* number = PyLong_FromLongLong(numbers[i]);
        if (number == nullptr) {
            Py_DECREF(tuple);
            return nullptr;
        }
        PyTuple_SET_ITEM(tuple, static_cast<Py_ssize_t>(i), number);
    }
    return tuple;
}

PyObject* shape_tuple(PyObject* self) noexcept {
    Object* object = as_object(self);
    if (object->shape == nullptr) {
        object->shape = guarded([&] { return tuple_of(tensor_in(self).shape()); });
    }
    return Py_XNewRef(object->shape);
}

int add_tensor_type(PyObject* module) {
    static std::vector<PyMethodDef> methods;
    for (PyMethodDef* more : {number_methods(), shape_methods()}) {
        for (; more->ml_name != nullptr; ++more) {
            methods.push_back(*more);
        }
    }
    methods.push_back({nullptr, nullptr, 0, nullptr});
    std::vector<PyType_Slot> slots{
        {Py_tp_new, pointer(make)},
        {Py_tp_dealloc, pointer(destroy)},
        {Py_tp_traverse, pointer(traverse)},
        {Py_tp_clear, pointer(clear)},
        {Py_tp_getset, property_table()},
        {Py_tp_members, members},
        {Py_tp_methods, methods.data()},
        {Py_tp_doc, const_cast<char*>("What ornik.KTensor derives from: the object that holds a tensor.")},
    };
    for (PyType_Slot* more : {operator_slots(), subscript_slots(), number_slots(), buffer_slots()}) {
        for (; more->slot != 0; ++more) {
            slots.push_back(*more);
        }
    }
    slots.push_back({0, nullptr});
    PyType_Spec spec{"ornik._ornik.KTensorBase", static_cast<int>(sizeof(Object)), 0,
                     Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots.data()};
    PyObject* type = PyType_FromSpec(&spec);
    if (type == nullptr) {
        return -1;
    }
    base_type = reinterpret_cast<PyTypeObject*>(type);
    instance_type = reinterpret_cast<PyTypeObject*>(Py_NewRef(type));
    if (PyModule_AddFunctions(module, module_functions) != 0) {
        return -1;
    }
    return PyModule_AddObjectRef(module, "KTensorBase", type);
}

}  // namespace ornik::python
