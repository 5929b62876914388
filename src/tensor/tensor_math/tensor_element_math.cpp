// tensor_element_math.cpp: the unary and binary operations of the table, as members of Tensor and as free
// functions.
#include "tensor/tensor_math/tensor_element_math.h"

#include "element_checks.h"
#include "hardware/cpu/elements/cpu_elements.h"
#include "in_place.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/overlap.h"
#include "tensor/tensor_math/promotion.h"

namespace ornik {

namespace {

using operations::Binary;
using operations::Result;
using operations::Row;
using operations::row_of;
using operations::Unary;

/// An operation under the name it was called by, which is put together only for messages.
struct Called {
    const Row& row;
    const char* scope;
    const char* suffix;

    std::string name() const { return std::string(row.name) + suffix; }
    std::string function() const { return scope + name(); }
};

template <typename Operation>
Called member(Operation operation, const char* suffix = "") {
    return {row_of(operation), "ornik::Tensor::", suffix};
}
template <typename Operation>
Called free_function(Operation operation, const char* suffix = "") {
    return {row_of(operation), "ornik::", suffix};
}

template <typename... Pieces>
[[noreturn]] void refuse(const Called& called, const Pieces&... pieces) {
    fail(where(called.function().c_str()), pieces...);
}

// Runs a check that reports a Where.
template <typename Check>
void checked(const Called& called, const Check& check) {
    const std::string function = called.function();
    check(where(function.c_str()));
}

// Names are put together for an operand that is refused, and for no other.
void check_walkable(const Called& called, const Tensor* t) {
    if (!detail::has_elements(t)) {
        checked(called, [&](const Where& at) { check_operands(at, t); });
    }
}

void announce(const Called& called, const Tensor* out) {
    if (!detail::is_writable(out)) {
        checked(called, [&](const Where& at) { check_writable(at, out); });
    }
    announce_write(where(called.row.name), out);
}

void check_output_of(const Called& called, const Tensor* out) {
    checked(called, [&](const Where& at) {
        check_writable(at, out);
        check_not_expanded(at, out);
    });
}

// ---- One operand ----

void check_operand(const Called& called, const Tensor* t, std::int64_t dtype) {
    if (!t->isCPU()) {
        refuse(called, "Tensors in different devices");
    }
    if (!operations::accepts(called.row, dtype)) {
        refuse_dtype(where(called.function().c_str()), called.name(), dtype);
    }
}

// Computes into `out`, through a temporary where writing would spoil what is still to be read.
template <typename Compute>
void write_result(const Called& called, Tensor* out, bool direct, const Compute& compute) {
    if (direct) {
        announce(called, out);
        compute(out);
        return;
    }
    const std::unique_ptr<Tensor> result = make_result(out->Shape(), out->Dtype());
    compute(result.get());
    copy_tensor(result.get(), out);
}

void compute_unary(Unary operation, Tensor* in, Tensor* out) {
    if (out->Size() != 0) {
        const Borrowed converted = Borrowed::of_dtype(in, operations::computing_dtype(row_of(operation), in->Dtype()));
        device::cpu::unary(operation, converted.get(), out);
    }
}

Tensor* unary_new(Unary operation, Tensor* self) {
    const Called called = member(operation);
    check_walkable(called, self);
    check_operand(called, self, self->Dtype());
    std::unique_ptr<Tensor> out =
        make_result(self->Shape(), operations::result_dtype(row_of(operation), self->Dtype()));
    compute_unary(operation, self, out.get());
    return out.release();
}

void unary_in_place(Unary operation, Tensor* self) {
    const Called called = member(operation, "_inplace");
    check_walkable(called, self);
    check_operand(called, self, self->Dtype());
    if (operations::result_dtype(called.row, self->Dtype()) != self->Dtype()) {
        refuse(called, "Not supported data type casting.");
    }
    check_output_of(called, self);
    write_result(called, self, writes_safely(self, self), [&](Tensor* out) { compute_unary(operation, self, out); });
}

void unary_into(Unary operation, Tensor* input, Tensor* out) {
    const Called called = free_function(operation);
    check_walkable(called, input);
    check_operand(called, input, input->Dtype());
    checked(called, [&](const Where& at) {
        check_output(at, input->Shape(), operations::result_dtype(called.row, input->Dtype()), out);
    });
    write_result(called, out, memory_overlap(input, out) != Overlap::partial,
                 [&](Tensor* result) { compute_unary(operation, input, result); });
}

Tensor* unary_grad(Unary operation, Tensor* input, Tensor* output, Tensor* grad) {
    const Called called = free_function(operation, "_grad");
    check_walkable(called, input);
    check_walkable(called, grad);
    check_operand(called, input, input->Dtype());
    if (input->isInteger()) {
        refuse_dtype(where(called.function().c_str()), called.name(), input->Dtype());
    }
    const std::int64_t dtype = operations::result_dtype(called.row, input->Dtype());
    for (const Tensor* t : {output, grad}) {
        if (t != nullptr) {
            checked(called, [&](const Where& at) { check_pair(at, input, t); });
            if (t->Dtype() != dtype) {
                refuse(called, "Not same data type");
            }
        }
    }
    std::unique_ptr<Tensor> own_output;
    if (output == nullptr) {
        own_output = make_result(input->Shape(), dtype);
        compute_unary(operation, input, own_output.get());
    }
    std::unique_ptr<Tensor> result = make_result(input->Shape(), input->Dtype());
    if (result->Size() != 0) {
        device::cpu::unary_grad(operation, input, output == nullptr ? own_output.get() : output, grad, result.get());
    }
    return result.release();
}

// ---- Two operands ----

void compute_binary(Binary operation, std::int64_t dtype, Tensor* a, Tensor* b, Tensor* out) {
    if (out->Size() != 0) {
        const Borrowed left = Borrowed::of_dtype(a, dtype);
        const Borrowed right = Borrowed::of_dtype(b, dtype);
        device::cpu::binary(operation, left.get(), right.get(), out);
    }
}

// The operands' promoted dtype, after the checks of both.
std::int64_t check_operands(const Called& called, const Tensor* a, const Tensor* b) {
    check_walkable(called, a);
    check_walkable(called, b);
    const std::int64_t dtype = promotion::of_tensors(a->Dtype(), b->Dtype());
    check_operand(called, a, dtype);
    checked(called, [&](const Where& at) { check_pair(at, a, b); });
    return dtype;
}

Tensor* binary_new(Binary operation, Tensor* self, Tensor* other) {
    const Called called = member(operation);
    const std::int64_t dtype = check_operands(called, self, other);
    std::unique_ptr<Tensor> out = make_result(self->Shape(), operations::result_dtype(called.row, dtype));
    compute_binary(operation, operations::computing_dtype(called.row, dtype), self, other, out.get());
    return out.release();
}

void binary_into(Binary operation, Tensor* a, Tensor* b, Tensor* out) {
    const Called called = free_function(operation);
    const std::int64_t dtype = check_operands(called, a, b);
    checked(called,
            [&](const Where& at) { check_output(at, a->Shape(), operations::result_dtype(called.row, dtype), out); });
    const bool direct = memory_overlap(a, out) != Overlap::partial && memory_overlap(b, out) != Overlap::partial;
    write_result(called, out, direct, [&](Tensor* result) {
        compute_binary(operation, operations::computing_dtype(called.row, dtype), a, b, result);
    });
}

// self keeps its dtype, in which the operation computes.
void binary_in_place(const Called& called, Binary operation, Tensor* self, Tensor* other, std::int64_t promoted) {
    if (!keeps_dtype(self->Dtype(), operations::result_dtype(called.row, promoted))) {
        refuse(called, "Not supported data type casting.");
    }
    check_output_of(called, self);
    write_result(called, self, writes_safely(self, other),
                 [&](Tensor* out) { compute_binary(operation, self->Dtype(), self, other, out); });
}

void binary_in_place(Binary operation, Tensor* self, Tensor* other) {
    const Called called = member(operation, "_inplace");
    const std::int64_t dtype = check_operands(called, self, other);
    binary_in_place(called, operation, self, other, dtype);
}

// ---- A tensor and a scalar ----

// Comparisons look at the exact scalar; elsewhere it follows the tensor's kind.
std::int64_t promoted_with(const Row& row, const Tensor* self, const Scalar& scalar) {
    return row.result == Result::boolean ? promotion::of_tensors(self->Dtype(), scalar.Dtype())
                                         : promotion::of_kind_with_scalar(self->Dtype(), scalar.Dtype());
}

bool saturates(Binary operation) { return operation == Binary::maximum || operation == Binary::minimum; }

Tensor* scalar_new(Binary operation, Tensor* self, const Scalar& scalar) {
    const Called called = member(operation, "_scalar");
    check_walkable(called, self);
    const std::int64_t dtype = promoted_with(called.row, self, scalar);
    check_operand(called, self, dtype);
    const std::int64_t computing = operations::computing_dtype(called.row, dtype);
    const auto repeated = repeated_scalar(scalar, computing, self->Shape(), saturates(operation));
    std::unique_ptr<Tensor> out = make_result(self->Shape(), operations::result_dtype(called.row, dtype));
    compute_binary(operation, computing, self, repeated.get(), out.get());
    return out.release();
}

void scalar_in_place(Binary operation, Tensor* self, const Scalar& scalar) {
    const Called called = member(operation, "_scalar_inplace");
    check_walkable(called, self);
    const std::int64_t dtype = promoted_with(called.row, self, scalar);
    check_operand(called, self, dtype);
    const auto repeated = repeated_scalar(scalar, self->Dtype(), self->Shape(), saturates(operation));
    binary_in_place(called, operation, self, repeated.get(), dtype);
}

// ---- Gradients of binary operations ----

Tensor* binary_grad(Binary operation, const char* suffix, device::cpu::BinaryGrad which, Tensor* a, Tensor* b,
                    Tensor* grad) {
    const Called called = free_function(operation, suffix);
    const std::int64_t dtype = check_operands(called, a, b);
    if (dtype < dtype::float32) {
        refuse_dtype(where(called.function().c_str()), called.name(), dtype);
    }
    checked(called, [&](const Where& at) { check_pair(at, a, grad); });
    if (grad->Dtype() != dtype) {
        refuse(called, "Not same data type");
    }
    std::unique_ptr<Tensor> result = make_result(a->Shape(), dtype);
    if (result->Size() != 0) {
        const Borrowed left = Borrowed::of_dtype(a, dtype);
        const Borrowed right = Borrowed::of_dtype(b, dtype);
        device::cpu::binary_grad(which, left.get(), right.get(), grad, result.get());
    }
    return result.release();
}

}  // namespace

// The lists of the table, turned into the functions that the headers declare. Operations that give another
// dtype than their operand's have no form in place.

#define ORNIK_UNARY(name, ...)                                      \
    Tensor* Tensor::name() { return unary_new(Unary::name, this); } \
    void name(Tensor* input, Tensor* out) { unary_into(Unary::name, input, out); }
#define ORNIK_UNARY_IN_PLACE(name, ...) \
    void Tensor::name##_inplace() { unary_in_place(Unary::name, this); }
#define ORNIK_UNARY_GRAD(name, ...)                                    \
    Tensor* name##_grad(Tensor* input, Tensor* output, Tensor* grad) { \
        return unary_grad(Unary::name, input, output, grad);           \
    }
#define ORNIK_BINARY(name, ...)                                                                            \
    Tensor* Tensor::name(Tensor* other) { return binary_new(Binary::name, this, other); }                  \
    Tensor* Tensor::name##_scalar(const Scalar& scalar) { return scalar_new(Binary::name, this, scalar); } \
    void name(Tensor* a, Tensor* b, Tensor* out) { binary_into(Binary::name, a, b, out); }
#define ORNIK_BINARY_IN_PLACE(name, ...)                                                       \
    void Tensor::name##_inplace(Tensor* other) { binary_in_place(Binary::name, this, other); } \
    void Tensor::name##_scalar_inplace(const Scalar& scalar) { scalar_in_place(Binary::name, this, scalar); }
#define ORNIK_BINARY_GRAD(name, ...)                                                                  \
    Tensor* name##_dx_grad(Tensor* a, Tensor* b, Tensor* grad) {                                      \
        return binary_grad(Binary::name, "_dx_grad", device::cpu::BinaryGrad::name##_dx, a, b, grad); \
    }                                                                                                 \
    Tensor* name##_dy_grad(Tensor* a, Tensor* b, Tensor* grad) {                                      \
        return binary_grad(Binary::name, "_dy_grad", device::cpu::BinaryGrad::name##_dy, a, b, grad); \
    }

// clang-format off
ORNIK_UNARY_OPERATIONS(ORNIK_UNARY)
ORNIK_FLOATING_OPERATIONS(ORNIK_UNARY_IN_PLACE)
ORNIK_NETWORK_OPERATIONS(ORNIK_UNARY_IN_PLACE)
ORNIK_SIGN_OPERATIONS(ORNIK_UNARY_IN_PLACE)
ORNIK_PART_OPERATIONS(ORNIK_UNARY_IN_PLACE)
ORNIK_ANGLE_OPERATIONS(ORNIK_UNARY_IN_PLACE)
ORNIK_STEP_OPERATIONS(ORNIK_UNARY_IN_PLACE)
ORNIK_ROUNDING_OPERATIONS(ORNIK_UNARY_IN_PLACE)
ORNIK_BIT_OPERATIONS(ORNIK_UNARY_IN_PLACE)
ORNIK_DIFFERENTIABLE_OPERATIONS(ORNIK_UNARY_GRAD)

ORNIK_BINARY_OPERATIONS(ORNIK_BINARY)
ORNIK_ARITHMETIC_PAIR_OPERATIONS(ORNIK_BINARY_IN_PLACE)
ORNIK_BIT_PAIR_OPERATIONS(ORNIK_BINARY_IN_PLACE)
ORNIK_ARITHMETIC_PAIR_OPERATIONS(ORNIK_BINARY_GRAD)
// clang-format on

}  // namespace ornik
