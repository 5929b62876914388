#include "tensor/nn/linear.h"

#include <functional>
#include <numeric>

#include "hardware/cpu/elements/cpu_math.h"
#include "tensor/borrowed.h"
#include "tensor/make_tensor.h"
#include "tensor/tensor_math/dot_ends.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

namespace {

// [..., n] of a contiguous tensor as [rows, n].
std::unique_ptr<Tensor> as_matrix(const Tensor* t) {
    const Dims& shape = t->Shape();
    const std::int64_t rows = std::accumulate(shape.begin(), shape.end() - 1, std::int64_t{1}, std::multiplies<>());
    return std::unique_ptr<Tensor>(view_tensor(t, {rows, shape.back()}));
}

// A new tensor of t's leading axes and dtype.
std::unique_ptr<Tensor> make_like(const Tensor* t, std::int64_t last) {
    Dims shape = t->Shape();
    shape.back() = last;
    return make_output(shape, t);
}

// Null for real dtypes, the conjugate for complex ones.
std::unique_ptr<Tensor> conjugate_or_null(const Tensor* t) {
    if (!t->isComplexType()) {
        return nullptr;
    }
    std::unique_ptr<Tensor> result = make_output(t->Shape(), t);
    device::cpu::conj(t, result.get());
    return result;
}

}  // namespace

std::unique_ptr<Tensor> linear(Tensor* weight, Tensor* bias, Tensor* input, bool transposed) {
    const Borrowed x = Borrowed::contiguous(input);
    std::unique_ptr<Tensor> output = make_like(input, weight->Shape()[transposed ? 0 : 1]);
    const std::unique_ptr<Tensor> rows = as_matrix(output.get());
    const Borrowed b = Borrowed::contiguous(bias);
    device::cpu::ProductEnds ends;
    ends.bias = bias == nullptr ? nullptr : b->getRawData();
    dot_with_ends(as_matrix(x.get()).get(), 0, weight, transposed ? 1 : 0, rows.get(), ends);
    return output;
}

std::unique_ptr<Tensor> linear_input_grad(Tensor* weight, Tensor* gradient, bool transposed) {
    const Borrowed g = Borrowed::contiguous(gradient);
    const std::unique_ptr<Tensor> conjugate = conjugate_or_null(weight);
    std::unique_ptr<Tensor> result = make_like(gradient, weight->Shape()[transposed ? 1 : 0]);
    Tensor::dot(as_matrix(g.get()).get(), 0, conjugate ? conjugate.get() : weight, transposed ? 0 : 1,
                as_matrix(result.get()).get(), 0);
    return result;
}

std::unique_ptr<Tensor> linear_weight_grad(Tensor* input, Tensor* gradient, bool transposed) {
    const Borrowed g = Borrowed::contiguous(gradient);
    const Borrowed x = Borrowed::contiguous(input);
    const std::unique_ptr<Tensor> conjugate = conjugate_or_null(x.get());
    const std::unique_ptr<Tensor> inputs = as_matrix(conjugate ? conjugate.get() : x.get());
    const std::unique_ptr<Tensor> gradients = as_matrix(g.get());
    Tensor* const first = transposed ? gradients.get() : inputs.get();
    Tensor* const second = transposed ? inputs.get() : gradients.get();
    std::unique_ptr<Tensor> result = make_output({first->Shape()[1], second->Shape()[1]}, input);
    Tensor::dot(first, 1, second, 0, result.get(), 0);
    return result;
}

std::unique_ptr<Tensor> linear_bias_grad(const Tensor* bias, Tensor* gradient) {
    const Borrowed g = Borrowed::contiguous(gradient);
    const Dims shape = bias == nullptr ? Dims{gradient->Shape().back()} : bias->Shape();
    std::unique_ptr<Tensor> total(sum(as_matrix(g.get()).get(), {0}));
    return total->Shape() == shape ? std::move(total) : std::unique_ptr<Tensor>(view_tensor(total.get(), shape));
}

}  // namespace ornik
