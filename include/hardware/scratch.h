// scratch.h: working memory of kernels. Internal.
#pragma once

#include <cstdint>

#include "hardware/allocator.h"

namespace ornik::device {

/// Elements from the pool of the tensors, starting at a multiple of 64 bytes. Kernels may read and write a little
/// beyond the last one: by less than `beyond` bytes.
template <typename T>
class Scratch {
  public:
    static constexpr std::int64_t beyond = 288;

    explicit Scratch(std::int64_t count)
        : buffer_(AllocTensorBuffer(0, count * static_cast<std::int64_t>(sizeof(T)) + 64 + beyond, 1)) {
        const auto address = reinterpret_cast<std::uintptr_t>(buffer_->device_addr);
        data_ = reinterpret_cast<T*>(address + (64 - address % 64) % 64);
    }
    ~Scratch() { FreeTensorBuffer(0, buffer_->device_addr, buffer_); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    T* get() const { return data_; }

  private:
    DynamicMemBuf* buffer_;
    T* data_;
};

}  // namespace ornik::device
