// tensors.h: what the peer's rows share.
#pragma once

#include <torch/torch.h>

#include "../rows.h"

namespace bench {

inline at::Tensor filled(at::IntArrayRef shape, double value, at::ScalarType type = at::kFloat) {
    return at::full(shape, value, at::TensorOptions(type));
}

inline at::Tensor shuffled(at::IntArrayRef shape) {
    at::Tensor t = filled(shape, 0);
    bench::shuffle(t.data_ptr<float>(), t.numel());
    return t;
}

void tensor_rows();
void math_rows();
void network_rows();
void kernel_rows();
void recording_rows();
void training_rows();
void inference_rows();

}  // namespace bench
