#include "layers/normalization/layer_groupnorm.h"

#include <utility>

#include "norm_arguments.h"

namespace ornik {

namespace {

void check_input(const Where& at, const NormArguments& arguments, std::int64_t channels) {
    if (arguments.input == nullptr) {
        fail(at, "group norm needs an input.");
    }
    const Dims& shape = arguments.input->Shape();
    if (shape.size() < 2 || shape[1] != channels) {
        fail(at, "group norm needs an input [N, ", channels, ", ...], however it is ", shape);
    }
    arguments.check(at, {channels});
}

}  // namespace

LGroupNorm::LGroupNorm(int groups, int channels, bool affine, float eps, std::string name, int first, int second)
    : Layer(std::move(name), first, second), groups_(groups), channels_(channels), affine_(affine), eps_(eps) {
    const Where at = where("ornik::LGroupNorm::LGroupNorm");
    if (groups < 1 || channels < 1 || channels % groups != 0) {
        fail(at, "group norm can not divide ", channels, " channels into ", groups, " groups");
    }
    check_eps(at, eps);
}

Tensor* LGroupNorm::forward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, bool /*training*/) {
    const NormArguments arguments{"group norm", affine_ ? gamma : nullptr, affine_ ? beta : nullptr, input};
    check_input(where("ornik::LGroupNorm::forward_dyn"), arguments, channels_);
    const Borrowed x = Borrowed::contiguous(input);
    std::unique_ptr<Tensor> mean = make_output({input->Shape()[0], groups_}, input);
    std::unique_ptr<Tensor> variance = make_output(mean->Shape(), input);
    std::unique_ptr<Tensor> output = make_output(input->Shape(), input);
    device::cpu::group_norm(x.get(), channel_norm(input, groups_, eps_), Borrowed::contiguous(arguments.gamma).get(),
                            Borrowed::contiguous(arguments.beta).get(), mean.get(), variance.get(), output.get());
    std::vector<std::unique_ptr<Tensor>> saved;
    saved.push_back(std::move(mean));
    saved.push_back(std::move(variance));
    keep_for_backward(std::move(saved));
    return output.release();
}

Tensor* LGroupNorm::backward_dyn(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                 std::vector<Tensor*>& saved, int node) {
    const Where at = where("ornik::LGroupNorm::backward_dyn");
    check_norm_node(at, node);
    if (node != 0 && (!affine_ || !_trainable)) {
        return nullptr;
    }
    return compute(at, only_node(node), gamma, beta, input, output_gradient, saved)[static_cast<std::size_t>(node)];
}

std::array<Tensor*, 3> LGroupNorm::gradients(Tensor* gamma, Tensor* beta, Tensor* input, Tensor* output_gradient,
                                             std::vector<Tensor*>& saved) {
    const bool learns = affine_ && _trainable;
    return compute(where("ornik::LGroupNorm::gradients"), {true, learns, learns}, gamma, beta, input, output_gradient,
                   saved);
}

std::array<Tensor*, 3> LGroupNorm::compute(const Where& at, const std::array<bool, 3>& wanted, Tensor* gamma,
                                           Tensor* beta, Tensor* input, Tensor* output_gradient,
                                           const std::vector<Tensor*>& saved) {
    const NormArguments arguments{"group norm", affine_ ? gamma : nullptr, affine_ ? beta : nullptr, input};
    check_input(at, arguments, channels_);
    const device::cpu::ChannelNorm norm = channel_norm(input, groups_, eps_);
    const NormBackward from(at, arguments, output_gradient, saved, forward_cache_, {norm.samples, norm.groups});
    NodeGradients results(wanted, input, {norm.channels});
    device::cpu::group_norm_grads(from.operands(), norm, results.input(), results.gamma(), results.beta());
    return results.release();
}

}  // namespace ornik
