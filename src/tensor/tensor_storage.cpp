#include "tensor/tensor_storage.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string_view>

#include "hardware/allocator.h"
#include "utils/utils.h"

namespace ornik::tensorT {

namespace {

void check_foreign(const void* data, std::int64_t size, std::int64_t dtype) {
    const Where at = where("ornik::tensorT::Tensor_storage::from_foreign");
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    const std::int64_t item_size = dtype_item_size(dtype);
    const std::string_view name = detail::dtype_table[static_cast<std::size_t>(dtype)].name;
    if (size < 0 || size > std::numeric_limits<std::int64_t>::max() / item_size) {
        fail(at, "Foreign memory can not hold ", size, " elements of ", name, ".");
    }
    if (data == nullptr && size > 0) {
        fail(at, "Foreign memory for ", size, " elements of ", name, " is null.");
    }
    // Kernels that only move elements take each as one word, of at most eight bytes.
    const std::int64_t alignment = std::min<std::int64_t>(item_size, 8);
    if (reinterpret_cast<std::uintptr_t>(data) % static_cast<std::uintptr_t>(alignment) != 0) {
        fail(at, "Foreign memory for ", name, " should be aligned to ", alignment, " bytes.");
    }
}

}  // namespace

Tensor_storage::Tensor_storage(std::int64_t device, std::int64_t size, std::int64_t dtype)
    : device_(device),
      pool_buf_(device::AllocTensorBuffer(device, size, dtype_item_size(dtype))),
      raw_data_(pool_buf_->device_addr),
      size_(size),
      dtype_(dtype) {}

Tensor_storage::Tensor_storage(ForeignTag /*tag*/, void* data, std::int64_t size, std::int64_t dtype, bool read_only)
    : device_(device_cpu), raw_data_(data), size_(size), dtype_(dtype), is_foreign_(true), read_only_(read_only) {}

std::shared_ptr<Tensor_storage> Tensor_storage::from_foreign(void* data, std::int64_t size, std::int64_t dtype,
                                                             std::function<void()> deleter, bool read_only) {
    try {
        check_foreign(data, size, dtype);
        auto storage = std::make_shared<Tensor_storage>(ForeignTag{}, data, size, dtype, read_only);
        storage->deleter_.swap(deleter);
        return storage;
    } catch (...) {
        if (deleter) {
            deleter();
        }
        throw;
    }
}

Tensor_storage::~Tensor_storage() {
    if (is_foreign_) {
        if (deleter_) {
            deleter_();
        }
    } else if (raw_data_ != nullptr && !is_gpu_device(device_)) {
        device::FreeTensorBuffer(device_, raw_data_, pool_buf_);
    }
}

}  // namespace ornik::tensorT
