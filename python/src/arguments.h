// arguments.h: Python arguments as the library takes them.
//
// The conversions throw Python exceptions that say what was given and what is wanted. The type casters below let
// functions of the extension take and return these types.
#pragma once

#include <Python.h>
#include <nanobind/nanobind.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "ktensor/files.h"
#include "ktensor/ktensor.h"
#include "layers/functional/layer_end.h"
#include "object.h"

namespace ornik::python {

/// The tensor of an object that has to be one.
const KTensor& to_tensor(PyObject* object);

/// A number that stands beside tensors: Python's bool, int, float and complex, and NumPy's scalars, which count as
/// those. Nothing for other objects. Whole numbers beyond int64 are an OverflowError.
std::optional<Scalar> as_number(PyObject* object);
Scalar to_number(PyObject* object);

/// A TypeError: "dropout(), argument p: a number is wanted, but got str". Function and argument are those of the
/// package's function that the program has called with the object.
[[noreturn]] void refuse(const char* wanted, PyObject* object);

/// Anything with __index__. `what` names it in messages.
std::int64_t to_integer(PyObject* object, const char* what);

/// NumPy's module when a program has imported it, else null. Borrowed.
PyObject* numpy_if_imported() noexcept;
/// An array of NumPy.
bool is_numpy_array(PyObject* object) noexcept;

// Arguments of functions.

/// One whole number or a sequence of them.
struct Shape {
    Dims dims;
};
/// None (empty), one axis or a sequence of them.
struct Axes {
    std::vector<int> axes;
};
/// One axis.
struct Axis {
    int axis;
};
/// A dtype of the package, or what its dtype() makes one of.
struct Dtype {
    std::int64_t code;
};
struct OptionalTensor {
    KTensor tensor;
};
struct Number {
    Scalar value{false};
};
/// Numbers, truths and texts by themselves. Unlike nanobind's own conversions, these say what is wrong, and where.
struct Real {
    double value;
    operator double() const { return value; }  // NOLINT(google-explicit-constructor)
};
struct Whole {
    std::int64_t value;
    operator std::int64_t() const { return value; }  // NOLINT(google-explicit-constructor)
};
struct OptionalWhole {
    std::optional<std::int64_t> value;
};
/// A whole number of 32 bits.
struct Count {
    std::int32_t value;
    operator std::int32_t() const { return value; }  // NOLINT(google-explicit-constructor)
};
struct Flag {
    bool value;
    operator bool() const { return value; }  // NOLINT(google-explicit-constructor)
};
struct Text {
    std::string value;
    operator const std::string&() const { return value; }  // NOLINT(google-explicit-constructor)
};
/// A tensor, or a number, or an array of NumPy, which counts as a tensor.
struct Operand {
    std::variant<KTensor, Scalar> value;
};
/// A sequence of tensors; those of a list with None may be undefined.
struct Tensors {
    std::vector<KTensor> list;
};
struct OptionalTensors {
    std::vector<KTensor> list;
};

Real to_real(PyObject* object);
Whole to_whole(PyObject* object);
OptionalWhole to_optional_whole(PyObject* object);
Count to_count(PyObject* object);
Flag to_flag(PyObject* object);
Text to_text(PyObject* object);
Shape to_shape(PyObject* object);
Axes to_axes(PyObject* object);
Axis to_axis(PyObject* object);
Operand to_operand(PyObject* object);
std::vector<KTensor> to_tensors(PyObject* object, bool with_none);
/// What the sum of a layer ends with, by the name of the function.
nn::LayerEnd to_end(const std::string& name);
/// A new list; null with an exception set when memory is short.
PyObject* list_of(const std::vector<KTensor>& tensors) noexcept;

/// A dictionary of new objects.
nanobind::dict to_dict(NamedTensors tensors);

// ---- dtypes.cpp ----

/// The code of a dtype object, or of anything that names one. Throws TypeError.
std::int64_t to_dtype(PyObject* object);
/// The dtype object. Borrowed.
PyObject* dtype_object(std::int64_t code);

inline Dtype dtype_argument(PyObject* object) { return {to_dtype(object)}; }
inline Number number_argument(PyObject* object) { return {to_number(object)}; }
inline OptionalTensor optional_tensor(PyObject* object) { return {object == Py_None ? KTensor() : to_tensor(object)}; }
inline OptionalTensors optional_tensors(PyObject* object) { return {to_tensors(object, true)}; }

/// A tensor over the memory of an array of NumPy, or a copy where it can not serve as it is (interchange.cpp).
KTensor from_numpy(PyObject* array);

}  // namespace ornik::python

namespace nanobind::detail {

// A caster whose conversion throws: what is wrong is said better there than by a list of overloads. It is shown None,
// too; in the name of a type that takes it, None stands, and scripts/python_stubs.sh tells the two apart.
#define ORNIK_ARGUMENT(Type, name, conversion)                                           \
    template <>                                                                          \
    struct has_arg_defaults<Type> : std::true_type {};                                   \
    template <>                                                                          \
    struct type_caster<Type> {                                                           \
        NB_TYPE_CASTER(Type, const_name(name))                                           \
        bool from_python(handle source, std::uint32_t, cleanup_list*) {                  \
            value = conversion(source.ptr());                                            \
            return true;                                                                 \
        }                                                                                \
        static handle from_cpp(const Type&, rv_policy, cleanup_list*) noexcept = delete; \
    };

ORNIK_ARGUMENT(ornik::python::Shape, "int | collections.abc.Sequence[int]", ornik::python::to_shape)
ORNIK_ARGUMENT(ornik::python::Real, "float", ornik::python::to_real)
ORNIK_ARGUMENT(ornik::python::Whole, "int", ornik::python::to_whole)
ORNIK_ARGUMENT(ornik::python::OptionalWhole, "int | None", ornik::python::to_optional_whole)
ORNIK_ARGUMENT(ornik::python::Count, "int", ornik::python::to_count)
ORNIK_ARGUMENT(ornik::python::Flag, "bool", ornik::python::to_flag)
ORNIK_ARGUMENT(ornik::python::Text, "str", ornik::python::to_text)
ORNIK_ARGUMENT(ornik::python::Axes, "int | collections.abc.Sequence[int] | None", ornik::python::to_axes)
ORNIK_ARGUMENT(ornik::python::Axis, "int", ornik::python::to_axis)
ORNIK_ARGUMENT(ornik::python::Dtype, "object", ornik::python::dtype_argument)
ORNIK_ARGUMENT(ornik::python::Number, "complex", ornik::python::number_argument)
ORNIK_ARGUMENT(ornik::python::Operand, "ornik.KTensor | complex", ornik::python::to_operand)
ORNIK_ARGUMENT(ornik::python::OptionalTensor, "ornik.KTensor | None", ornik::python::optional_tensor)
ORNIK_ARGUMENT(ornik::python::OptionalTensors, "collections.abc.Sequence[ornik.KTensor | None]",
               ornik::python::optional_tensors)
#undef ORNIK_ARGUMENT

template <>
struct has_arg_defaults<ornik::KTensor> : std::true_type {};
template <>
struct has_arg_defaults<ornik::python::Tensors> : std::true_type {};

template <>
struct type_caster<ornik::KTensor> {
    NB_TYPE_CASTER(ornik::KTensor, const_name("ornik.KTensor"))
    bool from_python(handle source, std::uint32_t, cleanup_list*) {
        value = ornik::python::to_tensor(source.ptr());
        return true;
    }
    static handle from_cpp(ornik::KTensor tensor, rv_policy, cleanup_list*) noexcept {
        return ornik::python::wrap(std::move(tensor));
    }
};

template <>
struct type_caster<ornik::python::Tensors> {
    NB_TYPE_CASTER(ornik::python::Tensors, io_name("collections.abc.Sequence[ornik.KTensor]", "list[ornik.KTensor]"))
    bool from_python(handle source, std::uint32_t, cleanup_list*) {
        value.list = ornik::python::to_tensors(source.ptr(), false);
        return true;
    }
    static handle from_cpp(const ornik::python::Tensors& tensors, rv_policy, cleanup_list*) noexcept {
        return ornik::python::list_of(tensors.list);
    }
};

}  // namespace nanobind::detail
