#include "in_place.h"

#include "tensor/overlap.h"

namespace ornik {

bool keeps_dtype(std::int64_t self, std::int64_t r) {
    if (r == dtype::boolean) {
        return true;
    }
    if (self == dtype::boolean) {
        return false;
    }
    if (is_dtype_class(r, DtypeClass::complex)) {
        return is_dtype_class(self, DtypeClass::complex);
    }
    return !is_dtype_class(r, DtypeClass::floating) || self >= dtype::float32;
}

bool writes_safely(const Tensor* self, const Tensor* other) {
    return self->is_contiguous() && memory_overlap(self, other) != Overlap::partial;
}

}  // namespace ornik
