// cpu_elements.cpp: from an operation of the table to its kernel.
#include "hardware/cpu/elements/cpu_elements.h"

#include <cassert>

namespace ornik::device::cpu {

namespace {

template <typename Operation>
void run(Operation operation, std::int64_t dtype, const MultiTensorIterationHelper& elements) {
    const ElementKernel kernel = is_dtype_class(dtype, DtypeClass::complex)    ? complex_kernel(operation)
                                 : is_dtype_class(dtype, DtypeClass::floating) ? real_kernel(operation)
                                                                               : integer_kernel(operation);
    assert(kernel != nullptr);
    kernel(elements, dtype);
}

}  // namespace

void unary(operations::Unary operation, const Tensor* in, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(in);
    elements.add_output(out);
    elements.build();
    run(operation, in->Dtype(), elements);
}

void binary(operations::Binary operation, const Tensor* a, const Tensor* b, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(a);
    elements.add_input(b);
    elements.add_output(out);
    elements.build();
    run(operation, a->Dtype(), elements);
}

void unary_grad(operations::Unary operation, const Tensor* x, const Tensor* y, const Tensor* grad, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(x);
    elements.add_input(y);
    elements.add_input(grad);
    elements.add_output(out);
    elements.build();
    const ElementKernel kernel = x->isComplexType() ? complex_grad_kernel(operation) : real_grad_kernel(operation);
    assert(kernel != nullptr);
    kernel(elements, x->Dtype());
}

}  // namespace ornik::device::cpu
