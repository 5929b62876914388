#include "layers/pool/layer_pool.h"

#include <utility>

#include "../functional/pool_passes.h"
#include "tensor/checks.h"

namespace ornik {

namespace {

using Saved = std::vector<std::unique_ptr<Tensor>>;

// The plan for an input whose dtype the pass serves.
PoolPlan checked_plan(const Where& at, const PoolDescriptor2D& descriptor, const Tensor* input, bool serves_complex) {
    const PoolPlan plan = descriptor.plan(at, input);
    check_pool_dtype(at, input, serves_complex);
    return plan;
}

// The same for a backward pass, with the output's gradient checked.
PoolPlan checked_plan(const Where& at, const PoolDescriptor2D& descriptor, const Tensor* input, const Tensor* gradient,
                      bool serves_complex) {
    const PoolPlan plan = checked_plan(at, descriptor, input, serves_complex);
    if (gradient == nullptr || gradient->Shape() != pooled_shape(input->Shape(), plan)) {
        fail(at, "Pooling needs a gradient of its output's shape.");
    }
    check_alike(at, "pooling", gradient, input);
    return plan;
}

// The output; the positions go to `saved`.
std::unique_ptr<Tensor> max_forward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input, Saved& saved) {
    nn::MaxPool result = max_pool_forward(checked_plan(at, descriptor, input, false), input);
    saved.push_back(std::move(result.positions));
    return std::move(result.output);
}

Tensor* max_backward(const Where& at, const PoolDescriptor2D& descriptor, const Tensor* input, Tensor* gradient,
                     const std::vector<Tensor*>& saved, const std::vector<Tensor*>& cache) {
    const PoolPlan plan = checked_plan(at, descriptor, input, gradient, false);
    const std::vector<Tensor*>& list = saved.empty() ? cache : saved;
    if (list.empty()) {
        fail(at, "The backward pass of pooling needs a forward pass before.");
    }
    return max_pool_backward(at, plan, gradient, list.size() == 1 ? list[0] : nullptr, input->Shape()).release();
}

Tensor* average_forward(const Where& at, const PoolDescriptor2D& descriptor, Tensor* input) {
    return average_pool_forward(checked_plan(at, descriptor, input, true), input).release();
}

Tensor* average_backward(const Where& at, const PoolDescriptor2D& descriptor, const Tensor* input, Tensor* gradient) {
    const PoolPlan plan = checked_plan(at, descriptor, input, gradient, true);
    return average_pool_backward(plan, gradient, input->Shape()).release();
}

}  // namespace

LPool1D::LPool1D(const char* kind, const std::vector<int>& kernel, const std::vector<int>& strides,
                 const std::vector<int>& padding, const std::string& padding_type, std::string name, int first,
                 int second)
    : Layer(std::move(name), first, second),
      descriptor_(std::make_shared<PoolDescriptor2D>(where("ornik::LPool1D::LPool1D"), kind, 1, kernel, strides,
                                                     padding, padding_type)) {}

Tensor* LPool1D::forward_dyn(Tensor* input) { return _forward_dyn(input); }

Tensor* LPool1D::backward_dyn(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) {
    return float_backward(input, output_gradient, saved);
}

LPool2D::LPool2D(const char* kind, const std::vector<int>& kernel, const std::vector<int>& strides,
                 const std::vector<int>& padding, const std::string& padding_type, std::string name, int first,
                 int second)
    : Layer(std::move(name), first, second),
      descriptor_(std::make_shared<PoolDescriptor2D>(where("ornik::LPool2D::LPool2D"), kind, 2, kernel, strides,
                                                     padding, padding_type)) {}

Tensor* LPool2D::forward_dyn(Tensor* input) { return _forward_dyn(input); }

Tensor* LPool2D::backward_dyn(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) {
    return float_backward(input, output_gradient, saved);
}

LMaxPool1D::LMaxPool1D(const std::vector<int>& kernel, const std::vector<int>& strides, const std::vector<int>& padding,
                       const std::string& padding_type, std::string name, int first, int second)
    : LPool1D("MaxPool1d", kernel, strides, padding, padding_type, std::move(name), first, second) {}

Tensor* LMaxPool1D::_forward_dyn(Tensor* input) {
    Saved positions;
    std::unique_ptr<Tensor> output =
        max_forward(where("ornik::LMaxPool1D::_forward_dyn"), *descriptor_, input, positions);
    keep_for_backward(std::move(positions));
    return output.release();
}

Tensor* LMaxPool1D::float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) {
    return max_backward(where("ornik::LMaxPool1D::float_backward"), *descriptor_, input, output_gradient, saved,
                        forward_cache_);
}

LAveragePool1D::LAveragePool1D(const std::vector<int>& kernel, const std::vector<int>& strides,
                               const std::vector<int>& padding, const std::string& padding_type, std::string name,
                               int first, int second)
    : LPool1D("AvgPool1d", kernel, strides, padding, padding_type, std::move(name), first, second) {}

Tensor* LAveragePool1D::_forward_dyn(Tensor* input) {
    return average_forward(where("ornik::LAveragePool1D::_forward_dyn"), *descriptor_, input);
}

Tensor* LAveragePool1D::float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& /*saved*/) {
    return average_backward(where("ornik::LAveragePool1D::float_backward"), *descriptor_, input, output_gradient);
}

LMaxPool2D::LMaxPool2D(const std::vector<int>& kernel, const std::vector<int>& strides, const std::vector<int>& padding,
                       const std::string& padding_type, std::string name, int first, int second)
    : LPool2D("MaxPool2d", kernel, strides, padding, padding_type, std::move(name), first, second) {}

Tensor* LMaxPool2D::_forward_dyn(Tensor* input) {
    Saved positions;
    std::unique_ptr<Tensor> output =
        max_forward(where("ornik::LMaxPool2D::_forward_dyn"), *descriptor_, input, positions);
    keep_for_backward(std::move(positions));
    return output.release();
}

Tensor* LMaxPool2D::float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) {
    return max_backward(where("ornik::LMaxPool2D::float_backward"), *descriptor_, input, output_gradient, saved,
                        forward_cache_);
}

LAveragePool2D::LAveragePool2D(const std::vector<int>& kernel, const std::vector<int>& strides,
                               const std::vector<int>& padding, const std::string& padding_type, std::string name,
                               int first, int second)
    : LPool2D("AvgPool2d", kernel, strides, padding, padding_type, std::move(name), first, second) {}

Tensor* LAveragePool2D::_forward_dyn(Tensor* input) {
    return average_forward(where("ornik::LAveragePool2D::_forward_dyn"), *descriptor_, input);
}

Tensor* LAveragePool2D::float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& /*saved*/) {
    return average_backward(where("ornik::LAveragePool2D::float_backward"), *descriptor_, input, output_gradient);
}

}  // namespace ornik
