#include "layers/functional/blocked_image.h"

#include <algorithm>

#include "blocks.h"
#include "tensor/borrowed.h"
#include "tensor/make_tensor.h"

namespace ornik::nn {

namespace {

std::int64_t bytes_of(const Where& at, const Dims& shape, std::int64_t dtype) {
    std::int64_t bytes =
        device::cpu::block_groups(dtype, shape[1]) * device::cpu::block_lanes(dtype) * dtype_item_size(dtype);
    for (const std::size_t axis : {0, 2, 3}) {
        if (__builtin_mul_overflow(bytes, shape[axis], &bytes)) {
            fail(at, "An image ", shape, "has too many elements.");
        }
    }
    return bytes;
}

std::shared_ptr<const Blocks> blocks_of(Tensor* planes) {
    const Where at = where("ornik::nn::BlockedImage::BlockedImage");
    check_operands(at, planes);
    if (!planes->isCPU()) {
        refuse_gpu();
    }
    if (!planes->isFloat()) {
        fail(ErrorKind::dtype, at, "Not valid dtype for this function.");
    }
    const Dims& shape = planes->Shape();
    if (shape.size() != 4) {
        fail(at, "BlockedImage needs planes (N, C, H, W), however they are ", shape);
    }
    const Borrowed from = Borrowed::contiguous(planes);
    auto blocks = std::make_shared<Blocks>(at, shape, planes->Dtype());
    if (!blocks->is_empty()) {
        device::cpu::write_blocks(blocks->dtype, shape[0], shape[1], shape[2] * shape[3], from->getRawData(),
                                  blocks->elements.get());
    }
    return blocks;
}

}  // namespace

Blocks::Blocks(const Where& at, const Dims& image_shape, std::int64_t image_dtype)
    : shape(image_shape), dtype(image_dtype), elements(bytes_of(at, shape, dtype)) {}

bool Blocks::is_empty() const { return std::find(shape.begin(), shape.end(), 0) != shape.end(); }

BlockedImage::BlockedImage(Tensor* planes) : blocks_(blocks_of(planes)) {}
BlockedImage::BlockedImage(std::shared_ptr<const Blocks> blocks) : blocks_(std::move(blocks)) {}

const Dims& BlockedImage::shape() const { return blocks_->shape; }
std::int64_t BlockedImage::dtype() const { return blocks_->dtype; }

std::unique_ptr<Tensor> BlockedImage::planes() const {
    const Dims& shape = blocks_->shape;
    std::unique_ptr<Tensor> planes = make_tensor(shape, blocks_->dtype);
    if (!blocks_->is_empty()) {
        device::cpu::write_planes(blocks_->dtype, shape[0], shape[1], shape[2] * shape[3], blocks_->elements.get(),
                                  planes->getRawData());
    }
    return planes;
}

}  // namespace ornik::nn
