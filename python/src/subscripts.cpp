// subscripts.cpp: reading and writing x[...].
//
// Whole numbers, slices, None and the ellipsis give views; lists, arrays of NumPy and tensors of whole numbers or bools
// pick elements into a copy. Only a tuple is several items; a list is an array.
#include <algorithm>
#include <vector>

#include "arguments.h"
#include "creation.h"
#include "errors.h"
#include "gil.h"
#include "ktensor/indexing.h"
#include "ktensor/shapes.h"
#include "object.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

[[noreturn]] void refuse_item(PyObject* item) {
    raise_error(PyExc_IndexError,
                "an index is made of whole numbers, slices, ..., None, and arrays of whole numbers or "
                "bools, but got " +
                    type_name(item));
}

// A position; numbers beyond 64 bits are beyond every axis, too.
std::int64_t position_of(PyObject* item) {
    if (PyLong_CheckExact(item) != 0) {
        int overflow = 0;
        const long long position = PyLong_AsLongLongAndOverflow(item, &overflow);
        return overflow < 0 ? INT64_MIN : (overflow > 0 ? INT64_MAX : position);
    }
    const nb::object number = nb::steal(checked(PyNumber_Index(item)));
    int overflow = 0;
    const long long position = PyLong_AsLongLongAndOverflow(number.ptr(), &overflow);
    check_python();
    return overflow < 0 ? INT64_MIN : (overflow > 0 ? INT64_MAX : position);
}

Slice slice_of(PyObject* item) {
    Py_ssize_t begin = 0;
    Py_ssize_t end = 0;
    Py_ssize_t step = 0;
    if (PySlice_Unpack(item, &begin, &end, &step) != 0) {
        throw nb::python_error();
    }
    const auto* given = reinterpret_cast<PySliceObject*>(item);
    Slice slice;
    if (given->start != Py_None) {
        slice.begin = begin;
    }
    if (given->stop != Py_None) {
        slice.end = end;
    }
    slice.step = step;
    return slice;
}

// A tensor that picks elements; one whole number without axes is a position.
Index picker(const KTensor& tensor) {
    if (tensor.dtype() != dtype::boolean && !is_dtype_class(tensor.dtype(), DtypeClass::integral)) {
        raise_error(PyExc_IndexError,
                    "arrays of whole numbers or bools pick elements, not of " + dtype_name(tensor.dtype()).substr(6));
    }
    return tensor.ndim() == 0 && tensor.dtype() != dtype::boolean ? Index(tensor.item<std::int64_t>()) : Index(tensor);
}

Index item_of(PyObject* item) {
    if (PyLong_CheckExact(item) != 0) {
        return Index(position_of(item));
    }
    if (PySlice_Check(item)) {
        return slice_of(item);
    }
    if (item == Py_Ellipsis) {
        return ellipsis;
    }
    if (item == Py_None) {
        return newaxis;
    }
    if (PyBool_Check(item)) {
        return Index(item == Py_True);
    }
    if (is_tensor(item)) {
        return picker(tensor_in(item).detach());
    }
    if (is_numpy_array(item)) {
        return picker(from_numpy(item));
    }
    if (const std::optional<Scalar> number = PyFloat_Check(item) ? std::nullopt : as_number(item)) {
        if (number->Dtype() == dtype::boolean) {
            return Index(*static_cast<const bool*>(number->data()));
        }
        if (number->Dtype() != dtype::int64) {
            refuse_item(item);
        }
        return Index(*static_cast<const std::int64_t*>(number->data()));
    }
    if (PyIndex_Check(item)) {
        return Index(position_of(item));
    }
    if (PyList_Check(item) || PyRange_Check(item)) {
        const KTensor picked = from_nested(item, {});
        return picker(picked.size() == 0 ? astype(picked, dtype::int64) : picked);
    }
    refuse_item(item);
}

bool picks_elements(const std::vector<Index>& items) {
    return std::any_of(items.begin(), items.end(),
                       [](const Index& item) { return item.kind() == Index::Kind::tensor; });
}

// A mask with extents of 0 where x has others picks nothing: an empty list of positions for each of its axes.
std::vector<Index> items_of_empty_mask(const KTensor& x, const KTensor& mask) {
    const Dims& shape = mask.shape();
    for (std::size_t i = 0; i < shape.size(); ++i) {
        if (i >= x.shape().size() || (shape[i] != 0 && shape[i] != x.shape()[i])) {
            return {Index(mask)};
        }
    }
    return std::vector<Index>(shape.size(), Index(KTensor::empty({0}, dtype::int64)));
}

std::vector<Index> items_of(const KTensor& x, PyObject* key) {
    std::vector<Index> items;
    if (is_tensor(key) && tensor_in(key).size() == 0 && tensor_in(key).dtype() == dtype::boolean) {
        return items_of_empty_mask(x, tensor_in(key));
    }
    if (PyTuple_Check(key)) {
        for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(key); ++i) {
            items.push_back(item_of(PyTuple_GET_ITEM(key, i)));
        }
    } else {
        items.push_back(item_of(key));
    }
    return items;
}

// A position counted from either end, or -1 where the axis has none there.
std::int64_t place_of(PyObject* item, std::int64_t extent) {
    const std::int64_t position = position_of(item);
    const std::int64_t place = position < 0 ? position + extent : position;
    return place < extent ? std::max<std::int64_t>(place, -1) : -1;
}

// Of a tensor that asks for no gradients: the usual views, which need no library yet. Nothing for all others, and
// where something is wrong.
std::optional<View> simple_view(PyObject* self, PyObject* key) {
    using Kind = View::Kind;
    if (PySlice_Check(key)) {
        Py_ssize_t begin = 0;
        Py_ssize_t end = 0;
        Py_ssize_t step = 0;
        if (PySlice_Unpack(key, &begin, &end, &step) != 0) {
            throw nb::python_error();
        }
        const KTensor& x = tensor_in(self);  // Only now: Python code may have run.
        if (x.wants_grad() || x.shape().empty()) {
            return std::nullopt;
        }
        const std::int64_t extent = x.shape()[0];
        const Py_ssize_t count = PySlice_AdjustIndices(extent, &begin, &end, step);
        if (count == 0 || step > extent || step < -extent) {
            return std::nullopt;
        }
        return View{Kind::range, begin, count, step};
    }
    const KTensor& x = tensor_in(self);
    const Dims& shape = x.shape();
    if (x.wants_grad() || shape.empty()) {
        return std::nullopt;
    }
    View view;
    if (PyLong_CheckExact(key) != 0) {
        view = {Kind::position, place_of(key, shape[0])};
    } else if (PyTuple_CheckExact(key) && PyTuple_GET_SIZE(key) == 2 && shape.size() == 2 &&
               PyLong_CheckExact(PyTuple_GET_ITEM(key, 0)) && PyLong_CheckExact(PyTuple_GET_ITEM(key, 1))) {
        view = {Kind::element, place_of(PyTuple_GET_ITEM(key, 0), shape[0]),
                place_of(PyTuple_GET_ITEM(key, 1), shape[1])};
    }
    return view.kind != Kind::none && view.a >= 0 && view.b >= 0 ? std::optional(view) : std::nullopt;
}

PyObject* read(PyObject* self, PyObject* key) noexcept {
    return guarded([&] {
        if (const std::optional<View> view = simple_view(self, key)) {
            return wrap_view(tensor_in(self), *view);
        }
        const std::vector<Index> items = items_of(tensor_in(self), key);
        if (!picks_elements(items)) {
            return wrap(tensor_in(self).index(items));  // A view: nothing runs in between.
        }
        const KTensor own = tensor_in(self);
        return wrap(without_lock(own.size(), [&] { return own.index(items); }));
    });
}

int write(PyObject* self, PyObject* key, PyObject* value) noexcept {
    return guarded(
        [&] {
            if (value == nullptr) {
                raise_error(PyExc_TypeError, "elements of a tensor can not be deleted");
            }
            const std::vector<Index> items = items_of(tensor_in(self), key);
            KTensor own = tensor_in(self);
            if (const std::optional<Scalar> number = is_tensor(value) ? std::nullopt : as_number(value)) {
                without_lock(own.size(), [&] { own.set_index(items, *number); });
                return 0;
            }
            const KTensor given = from_anything(value);
            without_lock(own.size(), [&] { own.set_index(items, given); });
            return 0;
        },
        -1);
}

Py_ssize_t length(PyObject* self) noexcept {
    return guarded(
        [&] {
            const Dims& shape = tensor_in(self).shape();
            if (shape.empty()) {
                raise_error(PyExc_TypeError, "a tensor without axes has no length");
            }
            return static_cast<Py_ssize_t>(shape[0]);
        },
        Py_ssize_t{-1});
}

}  // namespace

PyType_Slot* subscript_slots() {
    static PyType_Slot slots[] = {
        {Py_mp_length, reinterpret_cast<void*>(length)},
        {Py_mp_subscript, reinterpret_cast<void*>(read)},
        {Py_mp_ass_subscript, reinterpret_cast<void*>(write)},
        {0, nullptr},
    };
    return slots;
}

}  // namespace ornik::python
