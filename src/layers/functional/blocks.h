// blocks.h: the elements of blocked images. Internal.
#pragma once

#include "hardware/cpu/nn/cpu_blocks.h"
#include "hardware/scratch.h"
#include "layers/functional/blocked_image.h"

namespace ornik::nn {

struct Blocks {
    /// Uninitialised.
    Blocks(const Where& at, const Dims& image_shape, std::int64_t image_dtype);

    Dims shape;
    std::int64_t dtype;
    device::Scratch<unsigned char> elements;

    std::int64_t groups() const { return device::cpu::block_groups(dtype, shape[1]); }
    bool is_empty() const;
};

}  // namespace ornik::nn
