// creation.h: tensors of Python's numbers.
#pragma once

#include <Python.h>

#include <cstdint>
#include <optional>

#include "ktensor/ktensor.h"

namespace ornik::python {

/// Numbers in nested lists and tuples, all rows of one length. Without a dtype, bools give bool, whole numbers int64,
/// fractions float32 and complex numbers complex64, the widest of them all.
KTensor from_nested(PyObject* object, std::optional<std::int64_t> dtype);
/// A tensor, an array of NumPy, a number, or numbers in nested lists.
KTensor from_anything(PyObject* object);

}  // namespace ornik::python
