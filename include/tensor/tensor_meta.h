// tensor_meta.h: the metadata object through which a tensor holds its storage.
#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "../export.h"
#include "../utils/error.h"
#include "tensor_storage.h"

namespace ornik {

class Tensor;

/// Layout codes of a tensor's elements.
namespace layout {
inline constexpr std::int64_t dense = 0;
inline constexpr std::int64_t csr = 1;
inline constexpr std::int64_t coo = 2;
}  // namespace layout

namespace tensorT {

/// Shape, strides, dtype, device, layout, offset and a share of the storage; held through
/// std::shared_ptr<Tensor_Meta>. Copies share the storage. Strides and offset count elements. The setters record and
/// check nothing: a tensor is changed through its own updates, which keep its elements inside the storage. What reads
/// or writes elements here (Print, convert_dtype_and_copy_data) refuses a meta whose elements lie outside.
class ORNIK_API Tensor_Meta {
    struct WithoutAxes {
        explicit WithoutAxes() = default;
    };

  public:
    /// Size is the product of the shape, 1 for an empty one. With `alloc`, a new storage of that many
    /// elements is taken; negative extents are then refused.
    Tensor_Meta(const Dims& shape, const Dims& stride, std::int64_t dtype, std::int64_t device, std::int64_t layout,
                std::int64_t storage_offset, bool alloc);

    /// For tensors, which keep the axes and hand them in when somebody asks for the meta.
    Tensor_Meta(WithoutAxes tag, std::int64_t size, std::int64_t dtype, std::int64_t device, std::int64_t layout,
                std::int64_t storage_offset);

    const Dims& GetShape() const { return shape_; }
    const Dims& GetStride() const { return stride_; }
    std::int64_t GetDtype() const { return dtype_; }
    std::int64_t GetDevice() const { return device_; }
    std::int64_t GetSize() const { return size_; }
    std::int64_t Size() const { return size_; }
    std::int64_t GetStorageOffset() const { return storage_offset_; }
    std::int64_t Layout() const { return layout_; }
    const std::shared_ptr<Tensor_storage>& getStorage() const { return storage_; }

    void SetShape(const Dims& shape) { shape_ = shape; }
    void SetStride(const Dims& stride) { stride_ = stride; }
    void SetDtype(std::int64_t dtype) { dtype_ = dtype; }
    void SetDevice(std::int64_t device) { device_ = device; }
    void SetOffset(std::int64_t offset) { storage_offset_ = offset; }
    void setSize(std::int64_t size) { size_ = size; }
    void setStorage(const std::shared_ptr<Tensor_storage>& storage) { storage_ = storage; }
    /// Takes over the given pointer.
    void MoveStorage(std::shared_ptr<Tensor_storage>&& storage) { storage_ = std::move(storage); }

    /// Address of element 0: the storage's address advanced by offset x item size. Null without a
    /// storage.
    void* getRawData() const {
        return storage_ ? static_cast<char*>(storage_->getRawData()) + storage_offset_ * dtype_item_size(dtype_)
                        : nullptr;
    }

    /// The item size by the meta's own list, which has no entry for code 2: int8 gives code - 7, that is
    /// -5. dtype_item_size() covers all codes and serves all address arithmetic.
    std::int64_t element_size() const;
    /// Size x item size, in bytes.
    std::int64_t get_alloc_mem_size() const { return size_ * dtype_item_size(dtype_); }
    /// True when element 0 is not at the start of the storage.
    bool numel_offset() const { return storage_offset_ * dtype_item_size(dtype_) != 0; }

    /// Takes a new storage of size elements; an earlier one is dropped.
    void allocateDtypeData();
    /// Does nothing in this build: buffers go back when the last share of their storage does.
    void FreeData() {}
    /// Fills the meta's elements, in row-major order, from as many elements of `src_dtype` at `src`,
    /// converting each. Fails with "Not valid data type." for a code that is no dtype.
    void convert_dtype_and_copy_data(const void* src, std::int64_t src_dtype);

    /// True when there are fewer than two elements or the strides are the row-major ones, exactly: an
    /// axis of extent 1 with another stride makes the meta non-contiguous.
    bool is_contiguous() const;

    /// Writes the elements to standard output, in row-major order.
    void Print() const;

  private:
    friend class ornik::Tensor;
    void take_geometry(Dims&& shape, Dims&& stride) noexcept {
        shape_ = std::move(shape);
        stride_ = std::move(stride);
    }

    Dims shape_;
    std::int64_t dtype_;
    std::int64_t device_;
    std::int64_t size_;
    std::int64_t layout_;
    std::int64_t storage_offset_;
    Dims stride_;
    std::shared_ptr<Tensor_storage> storage_;
};

}  // namespace tensorT
}  // namespace ornik
