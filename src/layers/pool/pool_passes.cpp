#include "pool_passes.h"

#include <algorithm>

#include "hardware/cpu/nn/cpu_pool.h"
#include "tensor/borrowed.h"
#include "tensor/make_tensor.h"

namespace ornik {

namespace {

void check_gradient(const Where& at, const Tensor* input, const Tensor* gradient, const Dims& output_shape) {
    if (gradient == nullptr || gradient->Shape() != output_shape) {
        fail(at, "Pooling needs a gradient of its output's shape.");
    }
    if (gradient->Device() != input->Device()) {
        fail(at, "Not same device for inputs of pooling.");
    }
    if (gradient->Dtype() != input->Dtype()) {
        fail(at, "Not same data type for inputs of pooling.");
    }
}

// The plan for an input whose dtype the pass serves.
PoolPlan checked_plan(const Where& at, const PoolDescriptor2D& descriptor, const Tensor* input, bool serves_complex) {
    const PoolPlan plan = descriptor.plan(at, input);
    if (!input->isFloat() && !(serves_complex && input->isComplexType())) {
        fail(at, "Not valid dtype for this function.");
    }
    return plan;
}

std::unique_ptr<Tensor> empty(const Dims& shape, const Tensor* like, std::int64_t dtype) {
    return std::find(shape.begin(), shape.end(), 0) != shape.end()
               ? make_tensor(shape, dtype)
               : std::unique_ptr<Tensor>(Tensor::empty(shape, like->Device(), dtype));
}

}  // namespace

PoolResult max_pool_forward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input) {
    const PoolPlan plan = checked_plan(at, descriptor, input, false);
    const Borrowed x = Borrowed::contiguous(input);
    const Dims shape = descriptor.output_shape(input, plan);
    PoolResult result{empty(shape, input, input->Dtype()), empty(shape, input, dtype::int32)};
    device::cpu::max_pool(x.get(), plan, result.positions.get(), result.output.get());
    return result;
}

Tensor* max_pool_backward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input, Tensor* output_gradient,
                          const std::vector<Tensor*>& saved, const std::vector<Tensor*>& cache) {
    const PoolPlan plan = checked_plan(at, descriptor, input, false);
    const Dims shape = descriptor.output_shape(input, plan);
    check_gradient(at, input, output_gradient, shape);
    const std::vector<Tensor*>& list = saved.empty() ? cache : saved;
    if (list.empty()) {
        fail(at, "The backward pass of pooling needs a forward pass before.");
    }
    if (list.size() != 1 || list[0] == nullptr || list[0]->Shape() != shape || list[0]->Dtype() != dtype::int32 ||
        list[0]->Device() != input->Device()) {
        fail(at, "The saved positions of pooling should be one int32 tensor of its output's shape.");
    }
    const Borrowed gradient = Borrowed::contiguous(output_gradient);
    const Borrowed positions = Borrowed::contiguous(list[0]);
    std::unique_ptr<Tensor> result = empty(input->Shape(), input, input->Dtype());
    if (!device::cpu::max_pool_grad(gradient.get(), positions.get(), plan, result.get())) {
        fail(at, "The saved positions of pooling are out of range.");
    }
    return result.release();
}

Tensor* average_pool_forward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input) {
    const PoolPlan plan = checked_plan(at, descriptor, input, true);
    const Borrowed x = Borrowed::contiguous(input);
    std::unique_ptr<Tensor> result = empty(descriptor.output_shape(input, plan), input, input->Dtype());
    device::cpu::average_pool(x.get(), plan, result.get());
    return result.release();
}

Tensor* average_pool_backward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input,
                              Tensor* output_gradient) {
    const PoolPlan plan = checked_plan(at, descriptor, input, true);
    check_gradient(at, input, output_gradient, descriptor.output_shape(input, plan));
    const Borrowed gradient = Borrowed::contiguous(output_gradient);
    std::unique_ptr<Tensor> result = empty(input->Shape(), input, input->Dtype());
    device::cpu::average_pool_grad(gradient.get(), plan, result.get());
    return result.release();
}

}  // namespace ornik
