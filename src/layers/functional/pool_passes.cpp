#include "pool_passes.h"

#include "hardware/cpu/nn/cpu_pool.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"

namespace ornik {

void check_pool_dtype(const Where& at, const Tensor* t, bool serves_complex) {
    check_operands(at, t);
    if (!t->isFloat() && !(serves_complex && t->isComplexType())) {
        fail(at, "Not valid dtype for this function.");
    }
}

nn::MaxPool max_pool_forward(const PoolPlan& plan, Tensor* input) {
    const Dims shape = pooled_shape(input->Shape(), plan);
    nn::MaxPool result{make_output(shape, input), make_tensor(shape, dtype::int32)};
    if (plan.planes > 0) {
        device::cpu::max_pool(Borrowed::contiguous(input).get(), plan, result.positions.get(), result.output.get());
    }
    return result;
}

std::unique_ptr<Tensor> max_pool_backward(const Where& at, const PoolPlan& plan, Tensor* gradient, Tensor* positions,
                                          const Dims& input_shape) {
    if (positions == nullptr || positions->Shape() != gradient->Shape() || positions->Dtype() != dtype::int32 ||
        positions->Device() != gradient->Device()) {
        fail(at, "The saved positions of pooling should be one int32 tensor of its output's shape.");
    }
    check_operands(at, positions);
    const Borrowed g = Borrowed::contiguous(gradient);
    const Borrowed p = Borrowed::contiguous(positions);
    std::unique_ptr<Tensor> result = make_tensor(input_shape, gradient->Dtype());
    if (plan.planes > 0 && !device::cpu::max_pool_grad(g.get(), p.get(), plan, result.get())) {
        fail(at, "The saved positions of pooling are out of range.");
    }
    return result;
}

std::unique_ptr<Tensor> average_pool_forward(const PoolPlan& plan, Tensor* input) {
    std::unique_ptr<Tensor> result = make_tensor(pooled_shape(input->Shape(), plan), input->Dtype());
    if (plan.planes > 0) {
        device::cpu::average_pool(Borrowed::contiguous(input).get(), plan, result.get());
    }
    return result;
}

std::unique_ptr<Tensor> average_pool_backward(const PoolPlan& plan, Tensor* gradient, const Dims& input_shape) {
    std::unique_ptr<Tensor> result = make_tensor(input_shape, gradient->Dtype());
    if (plan.planes > 0) {
        device::cpu::average_pool_grad(Borrowed::contiguous(gradient).get(), plan, result.get());
    }
    return result;
}

}  // namespace ornik
