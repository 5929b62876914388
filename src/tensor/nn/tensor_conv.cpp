#include "tensor/nn/tensor_conv.h"

#include "tensor/checks.h"
#include "tensor/make_tensor.h"
#include "tensor/nn/conv_passes.h"

namespace ornik {

namespace {

using device::cpu::ConvGeometry;

// The input is the image of a convolution and the grid of a transposed one.
ConvGeometry geometry_of(const ConvolFields& d, bool transposed) {
    const std::int64_t inputs = d._kernal_channels;
    const std::int64_t outputs = d._output_channels / d._num_groups;
    const auto axis = [&](std::int64_t input, std::int64_t output, std::int64_t kernel, std::int64_t stride,
                          std::int64_t padding, std::int64_t dilation) {
        return device::cpu::ConvAxis{
            transposed ? output : input, transposed ? input : output, kernel, stride, padding, dilation};
    };
    return {d._input_num,
            d._num_groups,
            transposed ? outputs : inputs,
            transposed ? inputs : outputs,
            axis(d._input_rows, d._output_rows, d._kernal_rows, d._rows_strides, d.padding_rows.begin,
                 d._dilation_rate_rows),
            axis(d._input_cols, d._output_cols, d._kernal_cols, d._cols_strides, d.padding_cols.begin,
                 d._dilation_rate_cols),
            transposed};
}

void check_dtype(const Where& at, const Tensor* t, const char* operation) {
    if (t == nullptr || (!t->isFloat() && !t->isComplexType())) {
        fail(at, "Only float or Complex tensor is supported for ", operation, "().");
    }
}

void check_fits(const Where& at, const ConvolFields& descriptor, const Tensor* t, const Dims& shape) {
    if (!descriptor.built) {
        fail(at, "Convolution needs a forward call before its gradients.");
    }
    if (t == nullptr || t->Dtype() != descriptor.dtype || t->Shape() != shape || !t->isCPU()) {
        fail(at, "Convolution needs tensors that fit its latest forward call: one should be of shape ", shape, "and ",
             dtype_name(descriptor.dtype));
    }
    check_operands(at, t);
}

void check_bias(const Where& at, const ConvolFields& descriptor, const Tensor* bias) {
    if (bias != nullptr && (bias->Dtype() != descriptor.dtype || bias->Size() != descriptor._output_channels)) {
        fail(at, "Convolution needs a bias of one value per output channel, of ", dtype_name(descriptor.dtype));
    }
    check_optional(at, bias);
}

std::unique_ptr<Tensor> forward(const Where& at, Tensor* weight, Tensor* bias, Tensor* input, ConvolFields& descriptor,
                                bool transposed, const char* operation) {
    check_dtype(at, input, operation);
    check_fits(at, descriptor, input, descriptor.input_shape);
    check_fits(at, descriptor, weight, descriptor.weight_shape);
    check_bias(at, descriptor, bias);
    std::unique_ptr<Tensor> output = descriptor.take_output();
    if (!output) {
        fail(at, "Convolution's descriptor should be built before every forward call.");
    }
    convolve(geometry_of(descriptor, transposed), transposed, input, weight, bias, output.get());
    return output;
}

std::unique_ptr<Tensor> x_grad(const Where& at, Tensor* weight, Tensor* gradient, const ConvolFields& descriptor,
                               bool transposed) {
    check_fits(at, descriptor, weight, descriptor.weight_shape);
    check_fits(at, descriptor, gradient, descriptor.output_shape());
    std::unique_ptr<Tensor> result = make_tensor(descriptor.input_shape, descriptor.dtype);
    convolve_input_grad(geometry_of(descriptor, transposed), transposed, gradient, weight, result.get());
    return result;
}

std::unique_ptr<Tensor> w_grad(const Where& at, Tensor* input, Tensor* gradient, const ConvolFields& descriptor,
                               bool transposed) {
    check_fits(at, descriptor, input, descriptor.input_shape);
    check_fits(at, descriptor, gradient, descriptor.output_shape());
    std::unique_ptr<Tensor> result = make_tensor(descriptor.weight_shape, descriptor.dtype);
    convolve_weight_grad(geometry_of(descriptor, transposed), transposed, input, gradient, result.get());
    return result;
}

std::unique_ptr<Tensor> bias_grad(const Where& at, Tensor* gradient, const ConvolFields& descriptor, bool transposed) {
    check_fits(at, descriptor, gradient, descriptor.output_shape());
    std::unique_ptr<Tensor> result = make_tensor({descriptor._output_channels}, descriptor.dtype);
    convolve_bias_grad(geometry_of(descriptor, transposed), transposed, gradient, result.get());
    return result;
}

void check_four_axes(const Where& at, const Tensor* weight, const Tensor* input) {
    if (weight == nullptr || input == nullptr || weight->ndim() != 4 || input->ndim() != 4) {
        fail(at, "Tensors are not 4D");
    }
}

}  // namespace

Tensor* Conv2D_forward(Tensor* weight, Tensor* bias, Tensor* input, ConvolDescriptor& descriptor) {
    const Where at = where("ornik::Conv2D_forward");
    check_four_axes(at, weight, input);
    if (bias != nullptr) {
        check_dtype(at, bias, "add_bias_conv2d");
    }
    return forward(at, weight, bias, input, descriptor, false, "im2col_conv2d").release();
}

Tensor* Conv2D_x_grad(Tensor* weight, Tensor* output_gradient, const ConvolDescriptor& descriptor) {
    const Where at = where("ornik::Conv2D_x_grad");
    check_dtype(at, output_gradient, "x_grad_conv2d");
    return x_grad(at, weight, output_gradient, descriptor, false).release();
}

Tensor* Conv2D_w_grad(Tensor* input, Tensor* output_gradient, const ConvolDescriptor& descriptor) {
    const Where at = where("ornik::Conv2D_w_grad");
    check_dtype(at, output_gradient, "im2col_conv2d");
    return w_grad(at, input, output_gradient, descriptor, false).release();
}

Tensor* Conv2D_bias_grad(Tensor* output_gradient, const ConvolDescriptor& descriptor) {
    const Where at = where("ornik::Conv2D_bias_grad");
    check_dtype(at, output_gradient, "bias_grad_conv2d");
    return bias_grad(at, output_gradient, descriptor, false).release();
}

Tensor* ConvT2D_forward(Tensor* weight, Tensor* bias, Tensor* input, ConvolDescriptorT2D& descriptor, bool use_bias) {
    const Where at = where("ornik::ConvT2D_forward");
    check_four_axes(at, weight, input);
    if (bias != nullptr && !use_bias) {
        fail(at, "invoke add bias in convt2d with use_bias== False.");
    }
    return forward(at, weight, bias, input, descriptor, true, "convt2d_forward").release();
}

Tensor* ConvT2D_x_grad(Tensor* weight, Tensor* output_gradient, const ConvolDescriptorT2D& descriptor) {
    const Where at = where("ornik::ConvT2D_x_grad");
    check_dtype(at, output_gradient, "convt2d_forward");
    return x_grad(at, weight, output_gradient, descriptor, true).release();
}

Tensor* ConvT2D_w_grad(Tensor* input, Tensor* output_gradient, const ConvolDescriptorT2D& descriptor) {
    const Where at = where("ornik::ConvT2D_w_grad");
    check_dtype(at, output_gradient, "convt2d_weight_grad");
    return w_grad(at, input, output_gradient, descriptor, true).release();
}

Tensor* ConvT2D_bias_grad(Tensor* output_gradient, const ConvolDescriptorT2D& descriptor, bool use_bias) {
    const Where at = where("ornik::ConvT2D_bias_grad");
    if (!use_bias) {
        fail(at, "Invoke cpu_convt2d_bias_grad_impl() with use_bias == False.");
    }
    check_dtype(at, output_gradient, "convt2d_weight_grad");
    return bias_grad(at, output_gradient, descriptor, true).release();
}

}  // namespace ornik
