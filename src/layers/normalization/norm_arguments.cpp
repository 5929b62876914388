#include "norm_arguments.h"

#include <functional>
#include <numeric>

namespace ornik {

namespace {

const std::vector<Tensor*>& checked_statistics(const Where& at, const NormArguments& arguments,
                                               const Tensor* output_gradient, const std::vector<Tensor*>& statistics,
                                               const Dims& shape) {
    if (output_gradient == nullptr || output_gradient->Shape() != arguments.input->Shape()) {
        fail(at, "The gradient of ", arguments.name, " should have its output's shape.");
    }
    arguments.check_like_input(at, output_gradient);
    if (statistics.empty()) {
        fail(at, "The backward pass of ", arguments.name, " needs a forward pass before.");
    }
    for (const Tensor* t : statistics) {
        if (statistics.size() != 2 || t == nullptr || t->Shape() != shape) {
            fail(at, "The saved statistics of ", arguments.name, " should be two tensors of shape ", shape);
        }
        arguments.check_like_input(at, t);
    }
    return statistics;
}

}  // namespace

void NormArguments::check_like_input(const Where& at, const Tensor* t) const {
    if (t->Device() != input->Device()) {
        fail(at, "Not same device for inputs of ", name, ".");
    }
    if (t->Dtype() != input->Dtype()) {
        fail(at, "Not same data type for inputs of ", name, ".");
    }
}

void NormArguments::check(const Where& at, const Dims& parameter_shape) const {
    for (const Tensor* t : {gamma, beta}) {
        if (t != nullptr) {
            check_like_input(at, t);
        }
    }
    if (!input->isFloat()) {
        fail(at, name, " not impl for this data type, use float32 or float64.");
    }
    for (const Tensor* t : {gamma, beta}) {
        if (t != nullptr && t->Shape() != parameter_shape) {
            fail(at, "The parameters of ", name, " should have the shape ", parameter_shape, ", however one has ",
                 t->Shape());
        }
    }
}

NormBackward::NormBackward(const Where& at, const NormArguments& arguments, Tensor* output_gradient,
                           const std::vector<Tensor*>& saved, const std::vector<Tensor*>& cache,
                           const Dims& statistics_shape)
    : NormBackward(
          Checked{}, arguments, output_gradient,
          checked_statistics(at, arguments, output_gradient, saved.empty() ? cache : saved, statistics_shape)) {}

NormBackward::NormBackward(Checked /*checked*/, const NormArguments& arguments, Tensor* output_gradient,
                           const std::vector<Tensor*>& statistics)
    : gamma(Borrowed::contiguous(arguments.gamma)),
      input(Borrowed::contiguous(arguments.input)),
      gradient(Borrowed::contiguous(output_gradient)),
      mean(Borrowed::contiguous(statistics[0])),
      variance(Borrowed::contiguous(statistics[1])) {}

NodeGradients::NodeGradients(const std::array<bool, 3>& wanted, const Tensor* input, const Dims& parameter_shape) {
    for (std::size_t node = 0; node < wanted.size(); ++node) {
        if (wanted[node]) {
            tensors_[node] = make_output(node == 0 ? input->Shape() : parameter_shape, input);
        }
    }
}

std::array<Tensor*, 3> NodeGradients::release() {
    return {tensors_[0].release(), tensors_[1].release(), tensors_[2].release()};
}

std::array<bool, 3> only_node(int node) { return {node == 0, node == 1, node == 2}; }

void check_norm_node(const Where& at, int node) {
    if (node < 0 || node > 2) {
        fail(at, "Node should be 0, 1, 2, however it equals ", node);
    }
}

void check_eps(const Where& at, float eps) {
    if (!(eps > 0) || !std::isfinite(eps)) {
        fail(at, "eps should be a positive number");
    }
}

device::cpu::ChannelNorm channel_norm(const Tensor* input, std::int64_t groups, float eps) {
    const Dims& shape = input->Shape();
    const std::int64_t inner = std::accumulate(shape.begin() + 2, shape.end(), std::int64_t{1}, std::multiplies<>());
    return {shape[0], shape[1], inner, groups, static_cast<double>(eps)};
}

}  // namespace ornik
