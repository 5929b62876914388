// tensor_storage.h: the reference-counted buffer that tensors and their views share.
#pragma once

#include <cstdint>

#include "../export.h"
#include "dtype.h"

namespace ornik::tensorT {

/// A buffer of `size` elements of one dtype on one device; always held through
/// std::shared_ptr<Tensor_storage>. The buffer comes from the device's memory pool and goes back there
/// when the last share is gone.
class ORNIK_API Tensor_storage {
  public:
    /// Takes a buffer of size x item size bytes. Fails when the pool can not give it.
    Tensor_storage(std::int64_t device, std::int64_t size, std::int64_t dtype);
    ~Tensor_storage();
    Tensor_storage(const Tensor_storage&) = delete;
    Tensor_storage& operator=(const Tensor_storage&) = delete;

    std::int64_t getDevice() const { return device_; }
    std::int64_t getSize() const { return size_; }
    std::int64_t getDtype() const { return dtype_; }
    void setDevice(std::int64_t device) { device_ = device; }
    void setSize(std::int64_t size) { size_ = size; }
    void setDtype(std::int64_t dtype) { dtype_ = dtype; }
    /// Replaces the pointer. The old buffer is not released: it is the caller's from now on. The new one becomes the
    /// storage's and goes back to the device's pool with the last share, so it must be a buffer of that pool, or
    /// be taken out again before.
    void setRawData(void* data) { raw_data_ = data; }

    /// Address of element `offset`, counted in items of the storage's own dtype.
    void* getRawData(std::int64_t offset = 0) const {
        return static_cast<char*>(raw_data_) + offset * dtype_item_size(dtype_);
    }

    /// Bytes that the buffer holds.
    std::int64_t byte_size() const { return size_ * dtype_item_size(dtype_); }

  private:
    std::int64_t device_;
    void* raw_data_ = nullptr;
    std::int64_t size_;
    std::int64_t dtype_;
};

}  // namespace ornik::tensorT
