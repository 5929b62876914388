#include "layers/functional/conv.h"

#include "conv_plan.h"
#include "tensor/borrowed.h"
#include "tensor/make_tensor.h"

namespace ornik::nn {

namespace {

using device::cpu::ConvAxis;
using device::cpu::ConvGeometry;

constexpr const char* name = "convolution";
// Products of two such numbers fit 64 bits.
constexpr std::int64_t largest = std::int64_t{1} << 31;

void check_axis(const Where& at, const ConvParameters& p, std::size_t i) {
    const auto [begin, end] = p.padding[i];
    if (p.stride[i] < 1 || p.dilation[i] < 1 || p.stride[i] >= largest || p.dilation[i] >= largest) {
        fail(at, "Strides and dilations of a convolution should be >= 1, however they are ", p.stride[i], " and ",
             p.dilation[i]);
    }
    if (begin < 0 || end < 0 || begin >= largest || end >= largest) {
        fail(at, "The padding of a convolution should be >= 0, however it is ", begin, " and ", end);
    }
    const std::int64_t extra = p.output_padding[i];
    if (extra < 0 || (extra > 0 && (!p.transposed || extra >= std::max(p.stride[i], p.dilation[i])))) {
        fail(at, "The output padding should be 0, or that of a transposed convolution and less than its stride or ",
             "dilation, however it is ", extra);
    }
}

ConvAxis axis_of(const Where& at, const ConvParameters& p, std::size_t i, std::int64_t in, std::int64_t kernel) {
    check_axis(at, p, i);
    if (in < 1 || kernel < 1 || in >= largest || kernel >= largest) {
        fail(at, "A convolution needs extents of at least 1: input ", in, ", kernel ", kernel);
    }
    const std::int64_t padding = p.padding[i].begin + p.padding[i].end;
    const std::int64_t reach = (kernel - 1) * p.dilation[i] + 1;
    std::int64_t out = 0;
    if (p.transposed) {
        out = (in - 1) * p.stride[i] + reach - padding + p.output_padding[i];
    } else if (in + padding >= reach) {
        out = (in + padding - reach) / p.stride[i] + 1;
    }
    if (out < 1) {
        fail(at, "Invalid output shape: an extent of ", in, " under a kernel of ", kernel, " gives ", out);
    }
    return {p.transposed ? out : in, p.transposed ? in : out, kernel, p.stride[i], p.padding[i].begin, p.dilation[i]};
}

void check_present(const Where& at, const Tensor* a, const Tensor* b) {
    if (a == nullptr || b == nullptr) {
        fail(at, "A convolution needs an input and a weight.");
    }
}

}  // namespace

ConvPlan conv_plan(const Where& at, const Dims& input, const Dims& weight, const ConvParameters& p) {
    const std::size_t rank = input.size();
    if ((rank != 3 && rank != 4) || weight.size() != rank) {
        fail(at, "A convolution needs an input (N, C, L) or (N, C, H, W) and a weight of as many axes: input ", input,
             ", weight ", weight);
    }
    const std::int64_t split = weight[0];  // The axis of the weight that all groups share.
    const bool divides = p.groups >= 1 && p.groups < largest && weight[1] >= 1 && weight[1] < largest && split >= 1 &&
                         split % p.groups == 0;
    if (!divides || input[1] != (p.transposed ? split : weight[1] * p.groups)) {
        fail(at, "A weight ", weight, "in ", p.groups, " groups does not fit an input ", input);
    }
    const std::int64_t channels = p.transposed ? weight[1] * p.groups : split;
    const ConvAxis rows = axis_of(at, p, 0, input[2], weight[2]);
    const ConvAxis cols = rank == 4 ? axis_of(at, p, 1, input[3], weight[3]) : ConvAxis{1, 1, 1, 1, 0, 1};
    Dims output{input[0], channels, p.transposed ? rows.image : rows.grid};
    if (rank == 4) {
        output.push_back(p.transposed ? cols.image : cols.grid);
    }
    // The weight's first axis is that of the grid either way.
    return {{input[0], p.groups, weight[1], split / p.groups, rows, cols, false}, output, channels};
}

void check_conv_dtype(const Where& at, const Tensor* t) {
    check_operands(at, t);
    if (!t->isFloat() && !t->isComplexType()) {
        fail(at, "A convolution takes floating or complex tensors, not ", dtype_name(t->Dtype()));
    }
    if (!t->isCPU()) {
        refuse_gpu();
    }
}

void check_conv_bias(const Where& at, const Tensor* bias, const Tensor* like, std::int64_t channels) {
    if (bias == nullptr) {
        return;
    }
    check_alike(at, name, bias, like);
    if (bias->Shape() != Dims{channels}) {
        fail(at, "The bias of a convolution with ", channels, " output channels has the shape ", bias->Shape());
    }
}

std::unique_ptr<Tensor> convolution(Tensor* input, Tensor* weight, Tensor* bias, const ConvParameters& parameters) {
    const Where at = where("ornik::nn::convolution");
    check_present(at, input, weight);
    check_conv_dtype(at, input);
    check_alike(at, name, weight, input);
    const ConvPlan plan = conv_plan(at, input->Shape(), weight->Shape(), parameters);
    check_conv_bias(at, bias, input, plan.channels);
    std::unique_ptr<Tensor> output = make_tensor(plan.output, input->Dtype());
    if (output->Size() > 0) {
        convolve(plan.geometry, parameters.transposed, input, weight, bias, output.get());
    }
    return output;
}

std::unique_ptr<Tensor> convolution_input_grad(Tensor* output_gradient, const Dims& input_shape, Tensor* weight,
                                               const ConvParameters& parameters) {
    const Where at = where("ornik::nn::convolution_input_grad");
    if (weight == nullptr) {
        fail(at, "The gradient of a convolution's input needs the weight.");
    }
    check_conv_dtype(at, weight);
    const ConvPlan plan = conv_plan(at, input_shape, weight->Shape(), parameters);
    check_output_gradient(at, name, output_gradient, weight, plan.output);
    std::unique_ptr<Tensor> result = make_tensor(input_shape, weight->Dtype());
    if (result->Size() > 0) {
        convolve_input_grad(plan.geometry, parameters.transposed, output_gradient, weight, result.get());
    }
    return result;
}

std::unique_ptr<Tensor> convolution_weight_grad(Tensor* output_gradient, Tensor* input, const Dims& weight_shape,
                                                const ConvParameters& parameters) {
    const Where at = where("ornik::nn::convolution_weight_grad");
    if (input == nullptr) {
        fail(at, "The gradient of a convolution's weight needs the input.");
    }
    check_conv_dtype(at, input);
    const ConvPlan plan = conv_plan(at, input->Shape(), weight_shape, parameters);
    check_output_gradient(at, name, output_gradient, input, plan.output);
    std::unique_ptr<Tensor> result = make_tensor(weight_shape, input->Dtype());
    if (input->Size() > 0) {
        convolve_weight_grad(plan.geometry, parameters.transposed, input, output_gradient, result.get());
    } else {
        result->fill_(0);
    }
    return result;
}

std::unique_ptr<Tensor> convolution_bias_grad(Tensor* output_gradient) {
    const Where at = where("ornik::nn::convolution_bias_grad");
    if (output_gradient == nullptr || output_gradient->ndim() < 2 || output_gradient->Shape()[1] < 1) {
        fail(at, "The gradient of a convolution's bias needs an output gradient (N, C, ...).");
    }
    check_conv_dtype(at, output_gradient);
    const std::int64_t samples = output_gradient->Shape()[0];
    const std::int64_t channels = output_gradient->Shape()[1];
    std::unique_ptr<Tensor> result = make_tensor({channels}, output_gradient->Dtype());
    if (output_gradient->Size() > 0) {
        device::cpu::conv_sum_channels(Borrowed::contiguous(output_gradient).get(), samples, channels,
                                       output_gradient->Size() / (samples * channels), result.get());
    } else {
        result->fill_(0);
    }
    return result;
}

ConvGradients convolution_grad(Tensor* output_gradient, Tensor* input, Tensor* weight, const ConvParameters& parameters,
                               const std::array<bool, 3>& wanted) {
    check_present(where("ornik::nn::convolution_grad"), input, weight);
    const Borrowed g = Borrowed::contiguous(output_gradient);  // Once for all three.
    ConvGradients result;
    if (wanted[0]) {
        result.input = convolution_input_grad(g.get(), input->Shape(), weight, parameters);
    }
    if (wanted[1]) {
        result.weight = convolution_weight_grad(g.get(), input, weight->Shape(), parameters);
    }
    if (wanted[2]) {
        result.bias = convolution_bias_grad(g.get());
    }
    return result;
}

}  // namespace ornik::nn
