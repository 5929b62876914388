#include "norm_passes.h"

#include <cmath>
#include <functional>
#include <numeric>

#include "hardware/cpu/nn/cpu_normalization.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"
#include "tensor/overlap.h"

namespace ornik {

namespace {

using device::cpu::ChannelNorm;

// [samples, channels, ...] as [samples, channels, inner].
ChannelNorm channel_norm(const Tensor* input, std::int64_t groups, double eps) {
    const Dims& shape = input->Shape();
    const std::int64_t inner = std::accumulate(shape.begin() + 2, shape.end(), std::int64_t{1}, std::multiplies<>());
    return {shape[0], shape[1], inner, groups, eps};
}

// Contiguous operands of a gradient, and the tensors for those that are wanted.
class Backward {
  public:
    Backward(const Where& at, const NormArguments& arguments, const NormSaved& saved, const Dims& statistics_shape,
             const Dims& parameter_shape, const std::array<bool, 3>& wanted)
        : Backward(check(at, arguments, saved, statistics_shape), arguments, saved) {
        const Tensor* input = arguments.input;
        const auto make = [&](bool is_wanted, const Dims& shape) {
            return is_wanted ? make_output(shape, input) : nullptr;
        };
        results.input = make(wanted[0], input->Shape());
        results.gamma = make(wanted[1], parameter_shape);
        results.beta = make(wanted[2], parameter_shape);
    }

    device::cpu::NormGradient operands() const {
        return {input_.get(), gradient_.get(), mean_.get(), variance_.get(), gamma_.get()};
    }
    nn::NormGradients results;

  private:
    struct Checked {};
    static Checked check(const Where& at, const NormArguments& arguments, const NormSaved& saved,
                         const Dims& statistics_shape) {
        if (saved.gradient == nullptr || saved.gradient->Shape() != arguments.input->Shape()) {
            fail(at, "The gradient of ", arguments.name, " should have its output's shape.");
        }
        arguments.check_like_input(at, saved.gradient);
        for (const Tensor* t : {saved.mean, saved.variance}) {
            if (t == nullptr || t->Shape() != statistics_shape) {
                fail(at, "The saved statistics of ", arguments.name, " should be two tensors of shape ",
                     statistics_shape);
            }
            arguments.check_like_input(at, t);
        }
        return {};
    }
    Backward(Checked /*checked*/, const NormArguments& arguments, const NormSaved& saved)
        : gamma_(Borrowed::contiguous(arguments.gamma)),
          input_(Borrowed::contiguous(arguments.input)),
          gradient_(Borrowed::contiguous(saved.gradient)),
          mean_(Borrowed::contiguous(saved.mean)),
          variance_(Borrowed::contiguous(saved.variance)) {}

    Borrowed gamma_, input_, gradient_, mean_, variance_;
};

}  // namespace

void NormArguments::check_like_input(const Where& at, const Tensor* t) const { check_alike(at, name, t, input); }

void NormArguments::check(const Where& at, const Dims& parameter_shape) const {
    check_operands(at, input);
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

void check_eps(const Where& at, double eps) {
    if (!(eps > 0) || !std::isfinite(eps)) {
        fail(at, "eps should be a positive number");
    }
}

void check_norm_node(const Where& at, int node) {
    if (node < 0 || node > 2) {
        fail(at, "Node should be 0, 1, 2, however it equals ", node);
    }
}

void check_batch_norm(const Where& at, const NormArguments& arguments) {
    if (arguments.input == nullptr) {
        fail(at, "batchnorm needs an input.");
    }
    const Dims& shape = arguments.input->Shape();
    if (shape.size() < 2) {
        fail(at, "batchnorm needs an input [N, C, ...], however it is ", shape);
    }
    arguments.check(at, {shape[1]});
}

void check_group_norm(const Where& at, const NormArguments& arguments, std::int64_t channels) {
    if (arguments.input == nullptr) {
        fail(at, "group norm needs an input.");
    }
    const Dims& shape = arguments.input->Shape();
    if (shape.size() < 2 || shape[1] != channels) {
        fail(at, "group norm needs an input [N, ", channels, ", ...], however it is ", shape);
    }
    arguments.check(at, {channels});
}

NormSplit check_layer_norm(const Where& at, const NormArguments& arguments, std::size_t axes) {
    if (arguments.input == nullptr) {
        fail(at, "layer norm needs an input.");
    }
    const Dims& shape = arguments.input->Shape();
    if (axes < 1 || shape.size() < axes) {
        fail(at, "layer norm needs an input with at least the axes of its parameters, however it is ", shape);
    }
    const auto middle = shape.end() - static_cast<std::ptrdiff_t>(axes);
    NormSplit split{Dims(shape.begin(), middle), Dims(middle, shape.end())};
    for (const std::int64_t extent : split.trailing) {
        split.cols *= extent;
    }
    arguments.check(at, split.trailing);
    return split;
}

void check_running_statistics(const Where& at, const NormArguments& arguments, Tensor* mean, Tensor* variance,
                              bool written) {
    if ((mean == nullptr) != (variance == nullptr) || (mean == nullptr && !written)) {
        fail(at, "batchnorm needs running statistics for inference, both or neither in training.");
    }
    for (const Tensor* t : {mean, variance}) {
        if (t == nullptr) {
            return;
        }
        arguments.check_like_input(at, t);
        if (t->Shape() != Dims{arguments.input->Shape()[1]}) {
            fail(at, "The running statistics of batchnorm should have one value per channel, however the shape is ",
                 t->Shape());
        }
    }
    if (written) {
        check_written_statistics(at, mean, variance);
    }
}

void check_written_statistics(const Where& at, const Tensor* mean, const Tensor* variance) {
    check_writable(at, mean, variance);
    check_not_expanded(at, mean);
    check_not_expanded(at, variance);
    if (memory_overlap(mean, variance) != Overlap::none) {
        fail(at, "The running statistics of batchnorm overlap in memory.");
    }
}

nn::Normalized batch_norm_pass(const NormArguments& arguments, double eps) {
    Tensor* const input = arguments.input;
    const Dims channels{input->Shape()[1]};
    const Borrowed x = Borrowed::contiguous(input);
    const ChannelNorm norm = channel_norm(input, 0, eps);
    nn::Normalized result{nullptr, make_output(channels, input), make_output(channels, input)};
    device::cpu::batch_statistics(x.get(), norm, result.mean.get(), result.variance.get());
    const NormArguments contiguous{arguments.name, arguments.gamma, arguments.beta, x.get()};
    result.output = batch_norm_pass(contiguous, result.mean.get(), result.variance.get(), eps);
    return result;
}

std::unique_ptr<Tensor> batch_norm_pass(const NormArguments& arguments, Tensor* mean, Tensor* variance, double eps) {
    Tensor* const input = arguments.input;
    std::unique_ptr<Tensor> output = make_output(input->Shape(), input);
    device::cpu::batch_norm(Borrowed::contiguous(input).get(), channel_norm(input, 0, eps),
                            Borrowed::contiguous(mean).get(), Borrowed::contiguous(variance).get(),
                            Borrowed::contiguous(arguments.gamma).get(), Borrowed::contiguous(arguments.beta).get(),
                            output.get());
    return output;
}

void update_statistics(const Where& at, Tensor* running_mean, Tensor* running_variance, const Tensor* mean,
                       const Tensor* variance, std::int64_t count, double momentum) {
    announce_write(at, running_mean, running_variance);
    const auto values = static_cast<double>(count);
    device::cpu::update_running(mean, 1, momentum, running_mean);
    device::cpu::update_running(variance, count > 1 ? values / (values - 1) : 1, momentum, running_variance);
}

nn::Normalized layer_norm_pass(const NormArguments& arguments, const NormSplit& split, double eps) {
    Tensor* const input = arguments.input;
    const auto make = [&](const Dims& shape) { return make_output(shape, input); };
    nn::Normalized result{make(input->Shape()), make(split.leading), make(split.leading)};
    device::cpu::layer_norm(Borrowed::contiguous(input).get(), split.cols, eps,
                            Borrowed::contiguous(arguments.gamma).get(), Borrowed::contiguous(arguments.beta).get(),
                            result.mean.get(), result.variance.get(), result.output.get());
    return result;
}

nn::Normalized group_norm_pass(const NormArguments& arguments, std::int64_t groups, double eps) {
    Tensor* const input = arguments.input;
    const Dims statistics{input->Shape()[0], groups};
    const auto make = [&](const Dims& shape) { return make_output(shape, input); };
    nn::Normalized result{make(input->Shape()), make(statistics), make(statistics)};
    device::cpu::group_norm(Borrowed::contiguous(input).get(), channel_norm(input, groups, eps),
                            Borrowed::contiguous(arguments.gamma).get(), Borrowed::contiguous(arguments.beta).get(),
                            result.mean.get(), result.variance.get(), result.output.get());
    return result;
}

NormSaved norm_saved(const Where& at, const NormArguments& arguments, Tensor* gradient,
                     const std::vector<Tensor*>& saved, const std::vector<Tensor*>& cache, double eps) {
    const std::vector<Tensor*>& list = saved.empty() ? cache : saved;
    // A gradient that does not fit is what the caller hears of first.
    if (list.empty() && gradient != nullptr && gradient->Shape() == arguments.input->Shape()) {
        arguments.check_like_input(at, gradient);
        fail(at, "The backward pass of ", arguments.name, " needs a forward pass before.");
    }
    const bool is_pair = list.size() == 2;
    return {gradient, is_pair ? list[0] : nullptr, is_pair ? list[1] : nullptr, eps};
}

nn::NormGradients batch_norm_grads(const Where& at, const NormArguments& arguments, const NormSaved& saved,
                                   bool fixed_statistics, const std::array<bool, 3>& wanted) {
    const Dims channels{arguments.input->Shape()[1]};
    Backward from(at, arguments, saved, channels, channels, wanted);
    nn::NormGradients& results = from.results;
    device::cpu::batch_norm_grads(from.operands(), channel_norm(arguments.input, 0, saved.eps), fixed_statistics,
                                  results.input.get(), results.gamma.get(), results.beta.get());
    return std::move(results);
}

nn::NormGradients layer_norm_grads(const Where& at, const NormArguments& arguments, const NormSaved& saved,
                                   const NormSplit& split, const std::array<bool, 3>& wanted) {
    Backward from(at, arguments, saved, split.leading, split.trailing, wanted);
    nn::NormGradients& results = from.results;
    device::cpu::layer_norm_grads(from.operands(), split.cols, saved.eps, results.input.get(), results.gamma.get(),
                                  results.beta.get());
    return std::move(results);
}

nn::NormGradients group_norm_grads(const Where& at, const NormArguments& arguments, const NormSaved& saved,
                                   std::int64_t groups, const std::array<bool, 3>& wanted) {
    const Dims& shape = arguments.input->Shape();
    Backward from(at, arguments, saved, {shape[0], groups}, {shape[1]}, wanted);
    nn::NormGradients& results = from.results;
    device::cpu::group_norm_grads(from.operands(), channel_norm(arguments.input, groups, saved.eps),
                                  results.input.get(), results.gamma.get(), results.beta.get());
    return std::move(results);
}

std::array<Tensor*, 3> release_by_node(nn::NormGradients gradients) {
    return {gradients.input.release(), gradients.gamma.release(), gradients.beta.release()};
}

std::array<bool, 3> only_node(int node) { return {node == 0, node == 1, node == 2}; }

}  // namespace ornik
