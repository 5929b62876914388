// tensor_storage.h: the reference-counted buffer that tensors and their views share.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "../export.h"
#include "dtype.h"

namespace ornik::device {
struct DynamicMemBuf;
}

namespace ornik::tensorT {

/// A buffer of `size` elements of one dtype on one device; always held through
/// std::shared_ptr<Tensor_storage>. The buffer comes from the device's memory pool and goes back there
/// when the last share is gone, or it is foreign: memory that somebody else made and takes back.
class ORNIK_API Tensor_storage {
    struct ForeignTag {
        explicit ForeignTag() = default;
    };

  public:
    /// Takes a buffer of size x item size bytes. Fails when the pool can not give it.
    Tensor_storage(std::int64_t device, std::int64_t size, std::int64_t dtype);
    /// For from_foreign.
    Tensor_storage(ForeignTag tag, void* data, std::int64_t size, std::int64_t dtype, bool read_only);
    ~Tensor_storage();
    Tensor_storage(const Tensor_storage&) = delete;
    Tensor_storage& operator=(const Tensor_storage&) = delete;

    /// A CPU storage over `size` elements at `data`, which stay valid and in place until `deleter` is
    /// called: once, when the last share goes, on whatever thread that is, or before this function throws.
    /// The deleter must not throw; an empty one is for memory that outlives every tensor. Null data needs a
    /// size of 0, data must be aligned to its items, of 16 bytes to 8. With `read_only`, every operation that would
    /// write here refuses. What others write to the memory no version() tells.
    [[nodiscard]] static std::shared_ptr<Tensor_storage> from_foreign(void* data, std::int64_t size, std::int64_t dtype,
                                                                      std::function<void()> deleter,
                                                                      bool read_only = false);

    std::int64_t getDevice() const { return device_; }
    std::int64_t getSize() const { return size_; }
    std::int64_t getDtype() const { return dtype_; }
    void setDevice(std::int64_t device) { device_ = device; }
    void setSize(std::int64_t size) { size_ = size; }
    void setDtype(std::int64_t dtype) { dtype_ = dtype; }
    /// Replaces the pointer without releasing the old buffer, which is the caller's to take care of. The
    /// new memory stays the caller's: the pool leaves addresses alone that it did not give out.
    void setRawData(void* data) { raw_data_ = data; }

    /// Address of element `offset`, counted in items of the storage's own dtype.
    void* getRawData(std::int64_t offset = 0) const {
        return static_cast<char*>(raw_data_) + offset * dtype_item_size(dtype_);
    }

    /// Bytes that the buffer holds.
    std::int64_t byte_size() const { return size_ * dtype_item_size(dtype_); }

    /// True for a storage of from_foreign.
    bool is_foreign() const noexcept { return is_foreign_; }
    /// While true, operations refuse to write to any tensor of this storage.
    bool read_only() const noexcept { return read_only_; }
    void set_read_only(bool on) noexcept { read_only_ = on; }

    /// Counts the writes to the buffer, by whatever tensor of the storage: a value kept from earlier tells
    /// whether the elements have been written to since. Wraps after 2^32 writes.
    std::uint32_t version() const noexcept { return version_.load(std::memory_order_relaxed); }
    /// Counts those writes alone that became part of a recorded computation.
    std::uint32_t recorded_version() const noexcept { return recorded_version_.load(std::memory_order_relaxed); }
    /// To be called by whoever has written, or is about to.
    void note_write() noexcept { version_.fetch_add(1, std::memory_order_relaxed); }
    /// Raises both versions.
    void note_recorded_write() noexcept {
        note_write();
        recorded_version_.fetch_add(1, std::memory_order_relaxed);
    }

  private:
    std::int64_t device_;
    device::DynamicMemBuf* pool_buf_ = nullptr;
    void* raw_data_ = nullptr;
    std::int64_t size_;
    std::int64_t dtype_;
    std::atomic<std::uint32_t> version_{0};
    std::atomic<std::uint32_t> recorded_version_{0};
    bool is_foreign_ = false;
    bool read_only_ = false;
    std::function<void()> deleter_;
};

}  // namespace ornik::tensorT
