// dtypes.cpp: dtype objects are Python's (ornik/_dtypes.py); here they are known by their codes.
#include <array>

#include "arguments.h"
#include "errors.h"
#include "module.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

std::array<PyObject*, dtype_count> objects{};
PyObject* find_dtype = nullptr;  // the package's function for everything else that names a dtype

void register_dtypes(nb::tuple dtypes, nb::object find) {
    if (dtypes.size() != objects.size()) {
        raise_error(PyExc_ValueError, "there are " + std::to_string(objects.size()) + " dtypes");
    }
    for (std::size_t i = 0; i < objects.size(); ++i) {
        Py_XSETREF(objects[i], nb::object(dtypes[i]).release().ptr());
    }
    Py_XSETREF(find_dtype, find.release().ptr());
}

std::int64_t code_of(PyObject* object) {
    for (std::size_t i = 0; i < objects.size(); ++i) {
        if (objects[i] == object) {
            return static_cast<std::int64_t>(i);
        }
    }
    return -1;
}

}  // namespace

std::int64_t to_dtype(PyObject* object) {
    std::int64_t code = code_of(object);
    if (code < 0 && find_dtype != nullptr) {
        const nb::object found = nb::steal(checked(PyObject_CallOneArg(find_dtype, object)));
        code = code_of(found.ptr());
    }
    if (code < 0) {
        raise_error(PyExc_TypeError, "a dtype is wanted, but got " + type_name(object));
    }
    return code;
}

PyObject* dtype_object(std::int64_t code) {
    PyObject* object = objects.at(static_cast<std::size_t>(code));
    if (object == nullptr) {
        raise_error(PyExc_RuntimeError, "the dtypes are not registered");
    }
    return object;
}

void add_dtypes(nb::module_& m) {
    m.def("register_dtypes", register_dtypes,
          nb::sig("def register_dtypes(dtypes: tuple[object, ...], find: "
                  "collections.abc.Callable[[object], object], /) -> None"));
    nb::list table;
    for (const detail::DtypeInfo& info : detail::dtype_table) {
        table.append(nb::make_tuple(nb::str(info.name.data(), info.name.size()), info.item_size,
                                    static_cast<int>(info.dtype_class)));
    }
    m.attr("dtype_rows") = nb::tuple(table);
}

}  // namespace ornik::python
