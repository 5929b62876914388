#include "layers/normalization/layer_layernorm.h"

#include <utility>

#include "norm_arguments.h"

namespace ornik {

namespace {

// An input split into the axes that a statistic stands for and those before them.
struct Split {
    Dims leading;
    Dims trailing;
    std::int64_t cols = 1;
};

Split check_input(const Where& at, const NormArguments& arguments) {
    if (arguments.input == nullptr) {
        fail(at, "layer norm needs an input.");
    }
    const Dims& shape = arguments.input->Shape();
    const Tensor* parameter = arguments.gamma != nullptr ? arguments.gamma : arguments.beta;
    const std::size_t axes = parameter == nullptr ? 1 : parameter->Shape().size();
    if (axes < 1 || shape.size() < axes) {
        fail(at, "layer norm needs an input with at least the axes of its parameters, however it is ", shape);
    }
    const auto middle = shape.end() - static_cast<std::ptrdiff_t>(axes);
    Split split{Dims(shape.begin(), middle), Dims(middle, shape.end())};
    for (const std::int64_t extent : split.trailing) {
        split.cols *= extent;
    }
    arguments.check(at, split.trailing);
    return split;
}

}  // namespace

LLayerNorm::LLayerNorm(bool affine, float eps, std::string name, int first, int second)
    : Layer(std::move(name), first, second), affine_(affine), eps_(eps) {
    check_eps(where("ornik::LLayerNorm::LLayerNorm"), eps);
}

Tensor* LLayerNorm::forward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, bool /*training*/) {
    const NormArguments arguments{"layer norm", gamma, beta, input};
    const Split split = check_input(where("ornik::LLayerNorm::forward_dyn"), arguments);
    const Borrowed x = Borrowed::contiguous(input);
    const Borrowed scale = Borrowed::contiguous(affine_ ? gamma : nullptr);
    const Borrowed shift = Borrowed::contiguous(affine_ ? beta : nullptr);
    std::unique_ptr<Tensor> mean = make_output(split.leading, input);
    std::unique_ptr<Tensor> variance = make_output(split.leading, input);
    std::unique_ptr<Tensor> output = make_output(input->Shape(), input);
    device::cpu::layer_norm(x.get(), split.cols, static_cast<double>(eps_), scale.get(), shift.get(), mean.get(),
                            variance.get(), output.get());
    std::vector<std::unique_ptr<Tensor>> saved;
    saved.push_back(std::move(mean));
    saved.push_back(std::move(variance));
    keep_for_backward(std::move(saved));
    return output.release();
}

Tensor* LLayerNorm::backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                 std::vector<Tensor*>& saved, int node) {
    const Where at = where("ornik::LLayerNorm::backward_dyn");
    check_norm_node(at, node);
    if (node != 0 && (!affine_ || !_trainable)) {
        return nullptr;
    }
    return compute(at, only_node(node), gamma, beta, input, output_gradient, saved)[static_cast<std::size_t>(node)];
}

std::array<Tensor*, 3> LLayerNorm::gradients(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                             std::vector<Tensor*>& saved) {
    const bool learns = affine_ && _trainable;
    return compute(where("ornik::LLayerNorm::gradients"), {true, learns, learns}, gamma, beta, input, output_gradient,
                   saved);
}

std::array<Tensor*, 3> LLayerNorm::compute(const Where& at, const std::array<bool, 3>& wanted, Tensor* gamma,
                                           Tensor* beta, Tensor* input, Tensor* output_gradient,
                                           const std::vector<Tensor*>& saved) {
    NormArguments arguments{"layer norm", gamma, beta, input};
    const Split split = check_input(at, arguments);
    arguments.gamma = affine_ ? gamma : nullptr;
    const NormBackward from(at, arguments, output_gradient, saved, forward_cache_, split.leading);
    NodeGradients results(wanted, input, split.trailing);
    device::cpu::layer_norm_grads(from.operands(), split.cols, static_cast<double>(eps_), results.input(),
                                  results.gamma(), results.beta());
    return results.release();
}

}  // namespace ornik
