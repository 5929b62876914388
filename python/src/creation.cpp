// creation.cpp: new tensors.
#include "creation.h"

#include <algorithm>
#include <complex>
#include <vector>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "ktensor/elements.h"
#include "ktensor/random.h"
#include "ktensor/shapes.h"
#include "module.h"
#include "tensor/tensor.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

// Lists deeper than any tensor, cyclic ones among them.
constexpr std::size_t most_axes = 29;

bool is_row(PyObject* object) { return PyList_Check(object) || PyTuple_Check(object); }

// Numbers in the order of the rows, as the widest kind met so far. What Python code a number runs while it is read can
// change lists that it stands in, so every row is read from a tuple of its own.
class Reader {
  public:
    explicit Reader(PyObject* object) {
        measure(object);
        read(object, 0);
    }

    const Dims& shape() const { return shape_; }
    DtypeClass kind() const { return kind_; }
    const std::vector<std::int64_t>& whole() const { return whole_; }
    const std::vector<std::complex<double>>& numbers() const { return numbers_; }

  private:
    // The lengths along the first elements.
    void measure(PyObject* object) {
        nb::object row = nb::borrow(object);
        while (is_row(row.ptr())) {
            if (shape_.size() == most_axes) {
                raise_error(PyExc_ValueError, "lists are nested deeper than " + std::to_string(most_axes) +
                                                  " times, or stand in themselves");
            }
            const Py_ssize_t count = PySequence_Fast_GET_SIZE(row.ptr());
            shape_.push_back(count);
            if (count == 0) {
                break;
            }
            row = nb::borrow(PySequence_Fast_GET_ITEM(row.ptr(), 0));
        }
    }

    void read(PyObject* object, std::size_t axis) {
        if (!is_row(object)) {
            if (axis != shape_.size()) {
                refuse_ragged(axis, "a number");
            }
            read_number(object);
            return;
        }
        const nb::object row = nb::steal(checked(PySequence_Tuple(object)));
        const Py_ssize_t count = PyTuple_GET_SIZE(row.ptr());
        if (axis >= shape_.size() || count != shape_[axis]) {
            refuse_ragged(axis, "a row of " + std::to_string(count));
        }
        for (Py_ssize_t i = 0; i < count; ++i) {
            read(PyTuple_GET_ITEM(row.ptr(), i), axis + 1);
        }
    }

    [[noreturn]] void refuse_ragged(std::size_t axis, const std::string& found) const {
        const std::string wanted =
            axis < shape_.size() ? "rows of " + std::to_string(shape_[axis]) : std::string("numbers");
        raise_error(PyExc_ValueError, "rows differ: " + found + " stands where " + wanted + " are wanted, at axis " +
                                          std::to_string(axis));
    }

    void read_number(PyObject* object) {
        std::optional<Scalar> number;
        if (is_tensor(object) && tensor_in(object).ndim() == 0) {
            const KTensor& t = tensor_in(object);
            number = t.is_complex()                ? Scalar(t.item<std::complex<double>>())
                     : t.is_floating()             ? Scalar(t.item<double>())
                     : t.dtype() == dtype::boolean ? Scalar(t.item<bool>())
                                                   : Scalar(t.item<std::int64_t>());
        } else {
            number = as_number(object);
        }
        if (!number) {
            raise_error(PyExc_TypeError, "a tensor is made of numbers, but got " + type_name(object));
        }
        const auto kind = ornik::detail::dtype_table[static_cast<std::size_t>(number->Dtype())].dtype_class;
        kind_ = std::max(kind_, kind);
        std::int64_t whole = 0;
        std::complex<double> value;
        if (kind == DtypeClass::complex) {
            value = *static_cast<const std::complex<double>*>(number->data());
        } else if (kind == DtypeClass::floating) {
            value = *static_cast<const double*>(number->data());
        } else {
            whole = kind == DtypeClass::boolean ? static_cast<std::int64_t>(*static_cast<const bool*>(number->data()))
                                                : *static_cast<const std::int64_t*>(number->data());
            value = static_cast<double>(whole);
        }
        whole_.push_back(whole);
        numbers_.push_back(value);
    }

    Dims shape_;
    DtypeClass kind_ = DtypeClass::boolean;
    std::vector<std::int64_t> whole_;
    std::vector<std::complex<double>> numbers_;
};

}  // namespace

KTensor from_nested(PyObject* object, std::optional<std::int64_t> dtype) {
    const nb::object row = PyRange_Check(object) ? nb::steal(checked(PySequence_Tuple(object))) : nb::borrow(object);
    const Reader reader(row.ptr());
    if (reader.numbers().empty()) {
        return KTensor::empty(reader.shape(), dtype.value_or(dtype::float32));
    }
    if (reader.kind() == DtypeClass::boolean || reader.kind() == DtypeClass::integral) {
        const bool truths = reader.kind() == DtypeClass::boolean;
        return astype(KTensor::from(reader.whole(), reader.shape()),
                      dtype.value_or(truths ? dtype::boolean : dtype::int64));
    }
    const KTensor numbers = KTensor::from(reader.numbers(), reader.shape());
    if (reader.kind() == DtypeClass::floating) {
        return astype(ornik::real(numbers), dtype.value_or(dtype::float32));
    }
    const std::int64_t target = dtype.value_or(dtype::complex64);
    if (!is_dtype_class(target, DtypeClass::complex)) {
        raise_error(PyExc_TypeError, "complex numbers do not go into a tensor of " + dtype_name(target));
    }
    return astype(numbers, target);
}

KTensor from_anything(PyObject* object) {
    if (is_tensor(object)) {
        return tensor_in(object);
    }
    return is_numpy_array(object) ? from_numpy(object) : from_nested(object, std::nullopt);
}

void add_creation(nb::module_& m) {
    m.def(
        "from_nested",
        [](nb::handle object, nb::handle dtype) {
            return from_nested(object.ptr(), dtype.is_none() ? std::nullopt : std::optional(to_dtype(dtype.ptr())));
        },
        nb::arg("object").none(), nb::arg("dtype").none(),
        nb::sig("def from_nested(object: object, dtype: None | object) -> ornik.KTensor"));
    m.def("empty", [](const Shape& shape, Dtype dtype) { return KTensor::empty(shape.dims, dtype.code); });
    m.def("full", [](const Shape& shape, const Number& value, Dtype dtype) {
        return without_lock([&] { return KTensor::full(shape.dims, value.value, dtype.code); });
    });
    m.def("arange",
          [](Real start, Real end, Real step, Dtype dtype) { return KTensor::arange(start, end, step, dtype.code); });
    m.def("linspace", [](Real start, Real end, Whole count, Dtype dtype) {
        return KTensor::linspace(start, end, count, dtype.code);
    });
    m.def("eye", [](Whole rows, Whole columns, Whole offset, Dtype dtype) {
        return KTensor::eye(rows, columns, offset, dtype.code);
    });
    m.def("randn", [](const Shape& shape, Dtype dtype, Real mean, Real deviation) {
        return without_lock([&] { return KTensor::randn(shape.dims, dtype.code, mean, deviation); });
    });
    m.def("rand", [](const Shape& shape, Dtype dtype, Real low, Real high) {
        return without_lock([&] { return KTensor::rand(shape.dims, dtype.code, low, high); });
    });
    m.def("randint", [](Whole low, Whole high, const Shape& shape, Dtype dtype) {
        return without_lock([&] { return KTensor::randint(low, high, shape.dims, dtype.code); });
    });
    m.def("randperm",
          [](Whole n, Dtype dtype) { return without_lock([&] { return KTensor::randperm(n, dtype.code); }); });
    m.def("multinomial", [](const KTensor& weights, Whole count, Flag replacement) {
        return without_lock([held = weights, &count, &replacement] { return multinomial(held, count, replacement); });
    });
}

}  // namespace ornik::python
