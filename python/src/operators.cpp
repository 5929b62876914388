// operators.cpp: the slots of arithmetic and comparison.
//
// Python calls a binary slot for either order of its operands; strangers get NotImplemented, so that their own
// reflected operator has its turn. Arrays of NumPy count as tensors.
#include <cmath>
#include <vector>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "ktensor/arithmetic.h"
#include "ktensor/elements.h"
#include "ktensor/products.h"
#include "ktensor/shapes.h"
#include "object.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

template <typename Function>
void* pointer(Function* function) {
    return reinterpret_cast<void*>(function);
}

// The other operand of a tensor: nothing for strangers.
std::optional<Operand> other_operand(PyObject* object) {
    if (is_tensor(object)) {
        return Operand{tensor_in(object)};
    }
    if (const std::optional<Scalar> number = as_number(object)) {
        return Operand{*number};
    }
    if (is_numpy_array(object)) {
        return Operand{from_numpy(object)};
    }
    return std::nullopt;
}

// Small tensors: nothing runs in between that could change what the objects hold, so they need no handles of their
// own.
template <typename Operation>
PyObject* of_tensors(const KTensor& a, const KTensor& b) {
    const std::int64_t elements = a.size() > b.size() ? a.size() : b.size();
    if (elements < release_grain) {
        return wrap(Operation::run(a, b));
    }
    const KTensor own_a = a;
    const KTensor own_b = b;
    return wrap(without_lock(elements, [&] { return Operation::run(own_a, own_b); }));
}

template <typename Operation>
PyObject* binary(PyObject* a, PyObject* b) noexcept {
    return guarded([&]() -> PyObject* {
        const bool left = is_tensor(a);
        if (left && is_tensor(b)) {
            return of_tensors<Operation>(tensor_in(a), tensor_in(b));
        }
        const std::optional<Operand> other = other_operand(left ? b : a);
        if (!other) {
            Py_RETURN_NOTIMPLEMENTED;
        }
        if (const KTensor* tensor = std::get_if<KTensor>(&other->value)) {
            return left ? of_tensors<Operation>(tensor_in(a), *tensor) : of_tensors<Operation>(*tensor, tensor_in(b));
        }
        const KTensor own = tensor_in(left ? a : b);
        const Scalar& number = std::get<Scalar>(other->value);
        return wrap(
            without_lock(own.size(), [&] { return left ? Operation::run(own, number) : Operation::run(number, own); }));
    });
}

template <typename Operation>
PyObject* in_place(PyObject* self, PyObject* b) noexcept {
    return guarded([&]() -> PyObject* {
        const std::optional<Operand> other = other_operand(b);
        if (!other) {
            Py_RETURN_NOTIMPLEMENTED;
        }
        KTensor own = tensor_in(self);
        without_lock(own.size(), [&] {
            std::visit([&](const auto& operand) { Operation::run_in_place(own, operand); }, other->value);
        });
        return Py_NewRef(self);
    });
}

template <auto Function>
PyObject* unary(PyObject* self) noexcept {
    return guarded([&] {
        const KTensor own = tensor_in(self);
        return wrap(without_lock(own.size(), [&] { return Function(own); }));
    });
}

// For every order of tensors and numbers, and in place.
#define ORNIK_OPERATOR(Name, symbol, in_place_symbol)      \
    struct Name {                                          \
        template <typename A, typename B>                  \
        static KTensor run(const A& a, const B& b) {       \
            return a symbol b;                             \
        }                                                  \
        template <typename B>                              \
        static void run_in_place(KTensor& a, const B& b) { \
            a in_place_symbol b;                           \
        }                                                  \
    };
#define ORNIK_FUNCTION(Name, function)                     \
    struct Name {                                          \
        template <typename A, typename B>                  \
        static KTensor run(const A& a, const B& b) {       \
            return ornik::function(a, b);                  \
        }                                                  \
        template <typename B>                              \
        static void run_in_place(KTensor& a, const B& b) { \
            ornik::function##_(a, b);                      \
        }                                                  \
    };
#define ORNIK_COMPARISON(Name, function)             \
    struct Name {                                    \
        template <typename A, typename B>            \
        static KTensor run(const A& a, const B& b) { \
            return ornik::function(a, b);            \
        }                                            \
    };

ORNIK_OPERATOR(Add, +, +=)
ORNIK_OPERATOR(Subtract, -, -=)
ORNIK_OPERATOR(Multiply, *, *=)
ORNIK_OPERATOR(Divide, /, /=)
ORNIK_FUNCTION(Remainder, remainder)
ORNIK_FUNCTION(Power, pow)
ORNIK_FUNCTION(And, bitwise_and)
ORNIK_FUNCTION(Or, bitwise_or)
ORNIK_FUNCTION(Xor, bitwise_xor)
ORNIK_FUNCTION(LeftShift, left_shift)
ORNIK_FUNCTION(RightShift, right_shift)
ORNIK_COMPARISON(Less, less)
ORNIK_COMPARISON(LessEqual, less_equal)
ORNIK_COMPARISON(Equal, equal)
ORNIK_COMPARISON(NotEqual, not_equal)
ORNIK_COMPARISON(Greater, greater)
ORNIK_COMPARISON(GreaterEqual, greater_equal)

#undef ORNIK_OPERATOR
#undef ORNIK_FUNCTION
#undef ORNIK_COMPARISON

struct FloorDivide {
    template <typename A, typename B>
    static KTensor run(const A& a, const B& b) {
        return ornik::floor_divide(a, b);
    }
    template <typename B>
    static void run_in_place(KTensor& a, const B& b) {
        const KTensor quotient = ornik::floor_divide(a, b);
        if (quotient.dtype() != a.dtype()) {
            raise_error(PyExc_TypeError, "//=: the target's dtype does not hold the quotient's");
        }
        copy_(a, quotient);
    }
};

// a ** b and pow(a, b); with three arguments Python's integers alone have a meaning.
PyObject* power(PyObject* a, PyObject* b, PyObject* modulus) noexcept {
    if (modulus != Py_None) {
        Py_RETURN_NOTIMPLEMENTED;
    }
    return binary<Power>(a, b);
}
PyObject* power_in_place(PyObject* a, PyObject* b, PyObject*) noexcept { return in_place<Power>(a, b); }

// Products cost more than their elements tell.
std::int64_t product_cost(const KTensor& a, const KTensor& b) {
    const std::int64_t columns = b.ndim() > 0 ? b.shape().back() : 1;
    std::int64_t cost = 0;
    return __builtin_mul_overflow(a.size(), columns, &cost) ? INT64_MAX : cost;
}

PyObject* matrix_product(PyObject* a, PyObject* b) noexcept {
    return guarded([&]() -> PyObject* {
        const bool left = is_tensor(a);
        PyObject* other = left ? b : a;
        if (!is_tensor(other) && !is_numpy_array(other)) {
            Py_RETURN_NOTIMPLEMENTED;
        }
        const KTensor x = left ? tensor_in(a) : from_numpy(a);
        const KTensor y = is_tensor(b) ? tensor_in(b) : from_numpy(b);
        return wrap(without_lock(product_cost(x, y), [&] { return matmul(x, y); }));
    });
}

PyObject* matrix_product_in_place(PyObject* self, PyObject* b) noexcept {
    return guarded([&]() -> PyObject* {
        const nb::object product = nb::steal(matrix_product(self, b));
        if (!product.is_valid()) {
            return nullptr;
        }
        if (product.ptr() == Py_NotImplemented) {
            Py_RETURN_NOTIMPLEMENTED;
        }
        const KTensor& result = tensor_in(product.ptr());
        KTensor own = tensor_in(self);
        if (result.dtype() != own.dtype() || result.shape() != own.shape()) {
            raise_error(PyExc_ValueError,
                        "@=: the product has another shape or dtype than the tensor it would replace");
        }
        copy_(own, result);
        return Py_NewRef(self);
    });
}

KTensor positive(const KTensor& x) { return clone(x); }

PyObject* compare(PyObject* a, PyObject* b, int operation) noexcept {
    switch (operation) {
        case Py_LT:
            return binary<Less>(a, b);
        case Py_LE:
            return binary<LessEqual>(a, b);
        case Py_EQ:
            return binary<Equal>(a, b);
        case Py_NE:
            return binary<NotEqual>(a, b);
        case Py_GT:
            return binary<Greater>(a, b);
        default:
            return binary<GreaterEqual>(a, b);
    }
}

// By the tensor itself: tensors are keys of dictionaries although == compares their elements.
Py_hash_t hash(PyObject* self) noexcept {
    const auto address = reinterpret_cast<std::uintptr_t>(tensor_in(self).impl());
    const auto value = static_cast<Py_hash_t>(address >> 4 | address << (8 * sizeof(address) - 4));
    return value == -1 ? -2 : value;
}

}  // namespace

PyType_Slot* operator_slots() {
    static PyType_Slot slots[] = {
        {Py_nb_add, pointer(binary<Add>)},
        {Py_nb_subtract, pointer(binary<Subtract>)},
        {Py_nb_multiply, pointer(binary<Multiply>)},
        {Py_nb_true_divide, pointer(binary<Divide>)},
        {Py_nb_floor_divide, pointer(binary<FloorDivide>)},
        {Py_nb_remainder, pointer(binary<Remainder>)},
        {Py_nb_power, pointer(power)},
        {Py_nb_and, pointer(binary<And>)},
        {Py_nb_or, pointer(binary<Or>)},
        {Py_nb_xor, pointer(binary<Xor>)},
        {Py_nb_lshift, pointer(binary<LeftShift>)},
        {Py_nb_rshift, pointer(binary<RightShift>)},
        {Py_nb_matrix_multiply, pointer(matrix_product)},
        {Py_nb_inplace_add, pointer(in_place<Add>)},
        {Py_nb_inplace_subtract, pointer(in_place<Subtract>)},
        {Py_nb_inplace_multiply, pointer(in_place<Multiply>)},
        {Py_nb_inplace_true_divide, pointer(in_place<Divide>)},
        {Py_nb_inplace_floor_divide, pointer(in_place<FloorDivide>)},
        {Py_nb_inplace_remainder, pointer(in_place<Remainder>)},
        {Py_nb_inplace_power, pointer(power_in_place)},
        {Py_nb_inplace_and, pointer(in_place<And>)},
        {Py_nb_inplace_or, pointer(in_place<Or>)},
        {Py_nb_inplace_xor, pointer(in_place<Xor>)},
        {Py_nb_inplace_lshift, pointer(in_place<LeftShift>)},
        {Py_nb_inplace_rshift, pointer(in_place<RightShift>)},
        {Py_nb_inplace_matrix_multiply, pointer(matrix_product_in_place)},
        {Py_nb_negative, pointer(unary<neg>)},
        {Py_nb_positive, pointer(unary<positive>)},
        {Py_nb_absolute, pointer(unary<ornik::abs>)},
        {Py_nb_invert, pointer(unary<bitwise_not>)},
        {Py_tp_richcompare, pointer(compare)},
        {Py_tp_hash, pointer(hash)},
        {0, nullptr},
    };
    return slots;
}

}  // namespace ornik::python
