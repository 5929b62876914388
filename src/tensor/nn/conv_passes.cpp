#include "tensor/nn/conv_passes.h"

#include "tensor/borrowed.h"

namespace ornik {

using device::cpu::ConvGeometry;

void convolve(const ConvGeometry& geometry, bool transposed, Tensor* input, Tensor* weight, Tensor* bias,
              Tensor* output) {
    const Borrowed x = Borrowed::contiguous(input);
    const Borrowed w = Borrowed::contiguous(weight);
    const Borrowed b = Borrowed::contiguous(bias);
    const auto run = transposed ? device::cpu::conv_to_image : device::cpu::conv_to_grid;
    run(geometry, x.get(), w.get(), b.get(), false, output);
}

void convolve_input_grad(const ConvGeometry& geometry, bool transposed, Tensor* gradient, Tensor* weight,
                         Tensor* result) {
    const Borrowed g = Borrowed::contiguous(gradient);
    const Borrowed w = Borrowed::contiguous(weight);
    const auto run = transposed ? device::cpu::conv_to_grid : device::cpu::conv_to_image;
    run(geometry, g.get(), w.get(), nullptr, true, result);
}

void convolve_weight_grad(const ConvGeometry& geometry, bool transposed, Tensor* input, Tensor* gradient,
                          Tensor* result) {
    const Borrowed g = Borrowed::contiguous(gradient);
    const Borrowed x = Borrowed::contiguous(input);
    device::cpu::conv_weight(geometry, transposed ? g.get() : x.get(), transposed ? x.get() : g.get(), transposed,
                             result);
}

void convolve_bias_grad(const ConvGeometry& geometry, bool transposed, Tensor* gradient, Tensor* result) {
    const auto positions = [&](const device::cpu::ConvAxis& axis) { return transposed ? axis.image : axis.grid; };
    const std::int64_t channels = transposed ? geometry.image_channels : geometry.grid_channels;
    device::cpu::conv_sum_channels(Borrowed::contiguous(gradient).get(), geometry.batch, geometry.groups * channels,
                                   positions(geometry.rows) * positions(geometry.cols), result);
}

}  // namespace ornik
