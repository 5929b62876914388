// tensors.h: what the library's own rows share.
#pragma once

#include <ornik.h>

#include <memory>

#include "../rows.h"

namespace bench {

namespace dtype = ornik::dtype;
using ornik::Dims;
using ornik::Tensor;
using TensorPtr = std::shared_ptr<Tensor>;  // Shared: rows keep their operands in copyable closures.

inline TensorPtr filled(const Dims& shape, double value, std::int64_t type = dtype::float32) {
    TensorPtr t(Tensor::empty(shape, ornik::device_cpu, type));
    t->fill_(value);
    return t;
}

inline TensorPtr view(const TensorPtr& t, const Dims& shape, const Dims& strides) {
    return TensorPtr(ornik::share_storage_tensor(t->getStorage(), shape, strides, t->Dtype(), 0));
}

inline TensorPtr shuffled(const Dims& shape) {
    const TensorPtr t = filled(shape, 0);
    bench::shuffle(static_cast<float*>(t->getRawData()), t->Size());
    return t;
}

void tensor_rows();
void math_rows();
void network_rows();
void kernel_rows();
void recording_rows();
void training_rows();
void inference_rows();
void prepared_rows();

}  // namespace bench
