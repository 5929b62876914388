#include "layers/layer_pixel_shuffle.h"

#include <utility>

#include "tensor/make_tensor.h"

namespace ornik {

namespace {

int checked_factor(const Where& at, int factor) {
    if (factor < 1) {
        fail(at, "The factor of a pixel shuffle should be at least 1, however it equals ", factor);
    }
    return factor;
}

std::string name_or(std::string name, const char* word) { return name.empty() ? word : std::move(name); }

// Shuffled tensors [N, C, H r, W r] seen as unshuffled ones, split up: [N, C, r, r, H, W].
std::unique_ptr<Tensor> as_unshuffled(const Tensor* t, std::int64_t r) {
    const Dims& shape = t->Shape();
    const Dims& strides = t->Strides();
    return std::unique_ptr<Tensor>(
        share_storage_tensor(t->getStorage(), {shape[0], shape[1], r, r, shape[2] / r, shape[3] / r},
                             {strides[0], strides[1], strides[2], strides[3], strides[2] * r, strides[3] * r},
                             t->Dtype(), t->StorageOffset()));
}

void check_input(const Where& at, const Tensor* input) {
    if (input == nullptr || input->ndim() != 4) {
        fail(at, "A pixel shuffle needs a tensor [N, C, H, W]",
             input == nullptr ? std::string() : ", however it is " + shape_text(input->Shape()));
    }
}

Tensor* shuffle(const Where& at, const Tensor* input, std::int64_t r) {
    check_input(at, input);
    const Dims& shape = input->Shape();
    if (shape[1] % (r * r) != 0) {
        fail(at, "A pixel shuffle by ", r, " can not divide the channels of ", shape);
    }
    std::unique_ptr<Tensor> result = make_output({shape[0], shape[1] / (r * r), shape[2] * r, shape[3] * r}, input);
    copy_tensor(input, as_unshuffled(result.get(), r).get());
    return result.release();
}

Tensor* unshuffle(const Where& at, const Tensor* input, std::int64_t r) {
    check_input(at, input);
    const Dims& shape = input->Shape();
    if (shape[2] % r != 0 || shape[3] % r != 0) {
        fail(at, "A pixel unshuffle by ", r, " can not divide the rows and columns of ", shape);
    }
    std::unique_ptr<Tensor> result = make_output({shape[0], shape[1] * r * r, shape[2] / r, shape[3] / r}, input);
    copy_tensor(as_unshuffled(input, r).get(), result.get());
    return result.release();
}

}  // namespace

LPixelShuffle::LPixelShuffle(int upscale_factor, std::string name, int first, int second)
    : Layer(name_or(std::move(name), "pixel_shuffle"), first, second),
      factor_(checked_factor(where("ornik::LPixelShuffle::LPixelShuffle"), upscale_factor)) {}

Tensor* LPixelShuffle::forward_dyn(Tensor* input) {
    return shuffle(where("ornik::LPixelShuffle::forward_dyn"), input, factor_);
}

Tensor* LPixelShuffle::backward_dyn(Tensor* output_gradient) {
    return unshuffle(where("ornik::LPixelShuffle::backward_dyn"), output_gradient, factor_);
}

LPixelUnshuffle::LPixelUnshuffle(int downscale_factor, std::string name, int first, int second)
    : Layer(name_or(std::move(name), "pixel_unshuffle"), first, second),
      factor_(checked_factor(where("ornik::LPixelUnshuffle::LPixelUnshuffle"), downscale_factor)) {}

Tensor* LPixelUnshuffle::forward_dyn(Tensor* input) {
    return unshuffle(where("ornik::LPixelUnshuffle::forward_dyn"), input, factor_);
}

Tensor* LPixelUnshuffle::backward_dyn(Tensor* output_gradient) {
    return shuffle(where("ornik::LPixelUnshuffle::backward_dyn"), output_gradient, factor_);
}

}  // namespace ornik
