#include "tensor/tensor_meta.h"

#include "tensor/geometry.h"
#include "utils/object_cache.h"

namespace ornik::tensorT {

Tensor_Meta::Tensor_Meta(const Dims& shape, const Dims& stride, std::int64_t dtype, std::int64_t device,
                         std::int64_t layout, std::int64_t storage_offset, bool alloc)
    : shape_(shape),
      dtype_(dtype),
      device_(device),
      size_(checked_numel(where("ornik::tensorT::Tensor_Meta::Tensor_Meta"), shape)),
      layout_(layout),
      storage_offset_(storage_offset),
      stride_(stride) {
    if (alloc) {
        check_extents(where("ornik::tensorT::Tensor_Meta::Tensor_Meta"), shape);
        allocateDtypeData();
    }
}

Tensor_Meta::Tensor_Meta(WithoutAxes /*tag*/, std::int64_t size, std::int64_t dtype, std::int64_t device,
                         std::int64_t layout, std::int64_t storage_offset)
    : dtype_(dtype), device_(device), size_(size), layout_(layout), storage_offset_(storage_offset) {}

std::int64_t Tensor_Meta::element_size() const { return dtype_ == dtype::int8 ? dtype_ - 7 : dtype_item_size(dtype_); }

void Tensor_Meta::allocateDtypeData() {
    storage_ = std::allocate_shared<Tensor_storage>(detail::ObjectAllocator<Tensor_storage>{}, device_, size_, dtype_);
}

bool Tensor_Meta::is_contiguous() const { return is_row_major(shape_, stride_, size_); }

}  // namespace ornik::tensorT
