#include "tensor/nn/interpolate.h"

#include "hardware/cpu/nn/cpu_interpolate.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"

namespace ornik {

namespace {

void check_images(const Where& at, const Tensor* images) {
    if (images == nullptr || images->ndim() != 4 || images->Shape()[2] < 1 || images->Shape()[3] < 1) {
        fail(at, "Interpolation needs images [batch, channels, rows, cols], however they are ",
             images == nullptr ? Dims{} : images->Shape());
    }
    check_operands(at, images);
    if (!images->isFloat()) {
        fail(ErrorKind::dtype, at, "Not valid dtype for this function.");
    }
}

void check_mode(const Where& at, const std::string& mode, bool align_corners) {
    if (mode != "nearest" && mode != "bilinear") {
        fail(at, "Unknown interpolation: ", mode);
    }
    if (mode == "nearest" && align_corners) {
        fail(at, "align_corners needs the interpolation bilinear.");
    }
}

std::vector<device::cpu::InterpolationTap> taps_of(std::int64_t in, std::int64_t out, const std::string& mode,
                                                   bool align_corners) {
    return mode == "nearest" ? device::cpu::nearest_taps(in, out) : device::cpu::linear_taps(in, out, align_corners);
}

}  // namespace

Tensor* interpolate(Tensor* input, const Dims& size, const std::string& mode, bool align_corners) {
    const Where at = where("ornik::interpolate");
    check_images(at, input);
    check_mode(at, mode, align_corners);
    if (size.size() != 2 || size[0] < 1 || size[1] < 1) {
        fail(at, "Interpolation needs a size of rows and cols, however it is ", size);
    }
    const Dims& shape = input->Shape();
    const Borrowed images = Borrowed::contiguous(input);
    std::unique_ptr<Tensor> output = make_output({shape[0], shape[1], size[0], size[1]}, input);
    device::cpu::interpolate(images.get(), taps_of(shape[2], size[0], mode, align_corners),
                             taps_of(shape[3], size[1], mode, align_corners), output.get());
    return output.release();
}

Tensor* interpolate_grad(Tensor* output_gradient, const Dims& input_shape, const std::string& mode,
                         bool align_corners) {
    const Where at = where("ornik::interpolate_grad");
    check_images(at, output_gradient);
    check_mode(at, mode, align_corners);
    const Dims& shape = output_gradient->Shape();
    if (input_shape.size() != 4 || input_shape[0] != shape[0] || input_shape[1] != shape[1] || input_shape[2] < 1 ||
        input_shape[3] < 1) {
        fail(at, "A gradient of shape ", shape, "does not fit images of shape ", input_shape);
    }
    const Borrowed gradient = Borrowed::contiguous(output_gradient);
    std::unique_ptr<Tensor> result = make_output(input_shape, output_gradient);
    device::cpu::interpolate_grad(gradient.get(), taps_of(input_shape[2], shape[2], mode, align_corners),
                                  taps_of(input_shape[3], shape[3], mode, align_corners), result.get());
    return result.release();
}

}  // namespace ornik
