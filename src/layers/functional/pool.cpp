#include "layers/functional/pool.h"

#include "blocks.h"
#include "hardware/cpu/nn/cpu_pool.h"
#include "pool_passes.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"

namespace ornik::nn {

namespace {

// Calls axis(place in the parameters, extent) for the spatial axes of an input.
template <typename Axis>
PoolPlan plan_of(const Where& at, const char* name, const Dims& input, const Axis& axis) {
    const std::size_t rank = input.size();
    if (rank != 3 && rank != 4) {
        fail(at, name, " needs an input (N, C, L) or (N, C, H, W), however it is ", input);
    }
    for (std::size_t i = 1; i < rank; ++i) {
        if (input[i] < 1 || input[i] > INT32_MAX) {
            fail(at, name, " needs an input with elements, however it is ", input);
        }
    }
    PoolPlan plan;
    plan.planes = input[0] * input[1];
    if (rank == 4) {
        plan.rows = axis(0, input[2]);
    }
    plan.cols = axis(rank - 3, input.back());
    check_plane(at, name, plan, input);
    return plan;
}

PoolPlan plan_of(const Where& at, const char* name, const Dims& input, const PoolParameters& p) {
    return plan_of(at, name, input, [&](std::size_t i, std::int64_t in) {
        if (p.kernel[i] < 1 || p.stride[i] < 1 || p.kernel[i] > INT32_MAX || p.stride[i] > INT32_MAX) {
            fail(at, "Kernel and stride of ", name, " should be at least 1, however they are ", p.kernel[i], " and ",
                 p.stride[i]);
        }
        if (p.padding[i] < 0 || p.padding[i] >= p.kernel[i]) {
            fail(at, "The padding of ", name, " should be at least 0 and less than its kernel, however it is ",
                 p.padding[i]);
        }
        return padded_axis(at, name, in, p.kernel[i], p.stride[i], p.padding[i]);
    });
}

// The output's extents are given, from the rows on.
PoolPlan adaptive_plan(const Where& at, const char* name, const Dims& input, const std::int64_t* output) {
    return plan_of(at, name, input, [&](std::size_t i, std::int64_t in) {
        if (output[i] < 1 || output[i] > INT32_MAX) {
            fail(at, name, " needs output extents of at least 1, however one is ", output[i]);
        }
        return PoolAxis{in, in / output[i], in / output[i], 0, output[i]};
    });
}

// Windows that neither overlap nor differ: those of a plain average.
bool is_plain(const PoolPlan& plan) { return plan.rows.in % plan.rows.out == 0 && plan.cols.in % plan.cols.out == 0; }

void check_input(const Where& at, const char* name, const Tensor* input, bool serves_complex) {
    if (input == nullptr) {
        fail(at, name, " needs an input.");
    }
    check_pool_dtype(at, input, serves_complex);
}

// Of the shape that the plan gives; the dtype is its own.
void check_gradient(const Where& at, const char* name, const Tensor* gradient, const Dims& input, const PoolPlan& plan,
                    bool serves_complex) {
    check_output_gradient(at, name, gradient, gradient, pooled_shape(input, plan));
    check_pool_dtype(at, gradient, serves_complex);
}

constexpr const char* max_name = "max_pool";
constexpr const char* average_name = "average_pool";
constexpr const char* adaptive_name = "adaptive_average_pool";

using BlockPool = void (*)(std::int64_t dtype, const PoolPlan& plan, const void* in, void* out);

// The plan is that of planes.
BlockedImage pooled(const Where& at, const BlockedImage& input, PoolPlan plan, BlockPool pool) {
    const Blocks& blocks = input.blocks();
    auto result = std::make_shared<Blocks>(at, pooled_shape(blocks.shape, plan), blocks.dtype);
    plan.planes = blocks.shape[0] * blocks.groups();
    pool(blocks.dtype, plan, blocks.elements.get(), result->elements.get());
    return BlockedImage(std::move(result));
}

}  // namespace

MaxPool max_pool(Tensor* input, const PoolParameters& parameters) {
    const Where at = where("ornik::nn::max_pool");
    check_input(at, max_name, input, false);
    return max_pool_forward(plan_of(at, max_name, input->Shape(), parameters), input);
}

std::unique_ptr<Tensor> max_pool_grad(Tensor* output_gradient, Tensor* positions, const Dims& input_shape,
                                      const PoolParameters& parameters) {
    const Where at = where("ornik::nn::max_pool_grad");
    const PoolPlan plan = plan_of(at, max_name, input_shape, parameters);
    check_gradient(at, max_name, output_gradient, input_shape, plan, false);
    return max_pool_backward(at, plan, output_gradient, positions, input_shape);
}

std::unique_ptr<Tensor> average_pool(Tensor* input, const PoolParameters& parameters) {
    const Where at = where("ornik::nn::average_pool");
    check_input(at, average_name, input, true);
    return average_pool_forward(plan_of(at, average_name, input->Shape(), parameters), input);
}

std::unique_ptr<Tensor> average_pool_grad(Tensor* output_gradient, const Dims& input_shape,
                                          const PoolParameters& parameters) {
    const Where at = where("ornik::nn::average_pool_grad");
    const PoolPlan plan = plan_of(at, average_name, input_shape, parameters);
    check_gradient(at, average_name, output_gradient, input_shape, plan, true);
    return average_pool_backward(plan, output_gradient, input_shape);
}

std::unique_ptr<Tensor> adaptive_average_pool(Tensor* input, const std::array<std::int64_t, 2>& output) {
    const Where at = where("ornik::nn::adaptive_average_pool");
    check_input(at, adaptive_name, input, true);
    const PoolPlan plan = adaptive_plan(at, adaptive_name, input->Shape(), output.data());
    if (is_plain(plan) || plan.planes == 0) {
        return average_pool_forward(plan, input);
    }
    std::unique_ptr<Tensor> result = make_tensor(pooled_shape(input->Shape(), plan), input->Dtype());
    device::cpu::adaptive_average_pool(Borrowed::contiguous(input).get(), plan, result.get());
    return result;
}

std::unique_ptr<Tensor> adaptive_average_pool_grad(Tensor* output_gradient, const Dims& input_shape) {
    const Where at = where("ornik::nn::adaptive_average_pool_grad");
    if (output_gradient == nullptr || output_gradient->Shape().size() != input_shape.size() || input_shape.size() < 3) {
        fail(at, adaptive_name, " needs an output gradient with the axes of its input ", input_shape);
    }
    const PoolPlan plan = adaptive_plan(at, adaptive_name, input_shape, output_gradient->Shape().data() + 2);
    check_gradient(at, adaptive_name, output_gradient, input_shape, plan, true);
    if (is_plain(plan) || plan.planes == 0) {
        return average_pool_backward(plan, output_gradient, input_shape);
    }
    std::unique_ptr<Tensor> result = make_tensor(input_shape, output_gradient->Dtype());
    device::cpu::adaptive_average_pool_grad(Borrowed::contiguous(output_gradient).get(), plan, result.get());
    return result;
}

BlockedImage max_pool(const BlockedImage& input, const PoolParameters& parameters) {
    const Where at = where("ornik::nn::max_pool");
    return pooled(at, input, plan_of(at, max_name, input.shape(), parameters), device::cpu::max_pool_blocks);
}

BlockedImage average_pool(const BlockedImage& input, const PoolParameters& parameters) {
    const Where at = where("ornik::nn::average_pool");
    return pooled(at, input, plan_of(at, average_name, input.shape(), parameters), device::cpu::average_pool_blocks);
}

std::unique_ptr<Tensor> global_average(const BlockedImage& input) {
    const Where at = where("ornik::nn::global_average");
    const std::int64_t window[] = {1, 1};
    const PoolPlan plan = adaptive_plan(at, "global_average", input.shape(), window);
    return pooled(at, input, plan, device::cpu::average_pool_blocks).planes();
}

}  // namespace ornik::nn
