#include "layers/pool/layer_pool.h"

#include <utility>

#include "pool_passes.h"

namespace ornik {

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
    PoolResult result = max_pool_forward(where("ornik::LMaxPool1D::_forward_dyn"), *descriptor_, input);
    std::vector<std::unique_ptr<Tensor>> positions;
    positions.push_back(std::move(result.positions));
    keep_for_backward(std::move(positions));
    return result.output.release();
}

Tensor* LMaxPool1D::float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) {
    return max_pool_backward(where("ornik::LMaxPool1D::float_backward"), *descriptor_, input, output_gradient, saved,
                             forward_cache_);
}

LAveragePool1D::LAveragePool1D(const std::vector<int>& kernel, const std::vector<int>& strides,
                               const std::vector<int>& padding, const std::string& padding_type, std::string name,
                               int first, int second)
    : LPool1D("AvgPool1d", kernel, strides, padding, padding_type, std::move(name), first, second) {}

Tensor* LAveragePool1D::_forward_dyn(Tensor* input) {
    return average_pool_forward(where("ornik::LAveragePool1D::_forward_dyn"), *descriptor_, input);
}

Tensor* LAveragePool1D::float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& /*saved*/) {
    return average_pool_backward(where("ornik::LAveragePool1D::float_backward"), *descriptor_, input, output_gradient);
}

LMaxPool2D::LMaxPool2D(const std::vector<int>& kernel, const std::vector<int>& strides, const std::vector<int>& padding,
                       const std::string& padding_type, std::string name, int first, int second)
    : LPool2D("MaxPool2d", kernel, strides, padding, padding_type, std::move(name), first, second) {}

Tensor* LMaxPool2D::_forward_dyn(Tensor* input) {
    PoolResult result = max_pool_forward(where("ornik::LMaxPool2D::_forward_dyn"), *descriptor_, input);
    std::vector<std::unique_ptr<Tensor>> positions;
    positions.push_back(std::move(result.positions));
    keep_for_backward(std::move(positions));
    return result.output.release();
}

Tensor* LMaxPool2D::float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& saved) {
    return max_pool_backward(where("ornik::LMaxPool2D::float_backward"), *descriptor_, input, output_gradient, saved,
                             forward_cache_);
}

LAveragePool2D::LAveragePool2D(const std::vector<int>& kernel, const std::vector<int>& strides,
                               const std::vector<int>& padding, const std::string& padding_type, std::string name,
                               int first, int second)
    : LPool2D("AvgPool2d", kernel, strides, padding, padding_type, std::move(name), first, second) {}

Tensor* LAveragePool2D::_forward_dyn(Tensor* input) {
    return average_pool_forward(where("ornik::LAveragePool2D::_forward_dyn"), *descriptor_, input);
}

Tensor* LAveragePool2D::float_backward(Tensor* input, Tensor* output_gradient, std::vector<Tensor*>& /*saved*/) {
    return average_pool_backward(where("ornik::LAveragePool2D::float_backward"), *descriptor_, input, output_gradient);
}

}  // namespace ornik
