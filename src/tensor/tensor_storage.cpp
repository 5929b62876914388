#include "tensor/tensor_storage.h"

#include "hardware/allocator.h"
#include "utils/utils.h"

namespace ornik::tensorT {

Tensor_storage::Tensor_storage(std::int64_t device, std::int64_t size, std::int64_t dtype)
    : device_(device),
      raw_data_(device::AllocTensorBuffer(device, size, dtype_item_size(dtype))),
      size_(size),
      dtype_(dtype) {}

Tensor_storage::~Tensor_storage() {
    if (raw_data_ != nullptr && !is_gpu_device(device_)) {
        device::FreeTensorBuffer(device_, raw_data_);
    }
}

}  // namespace ornik::tensorT
