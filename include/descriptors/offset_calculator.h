// offset_calculator.h: from a flat row-major index to the storage offset of one operand. Internal.
#pragma once

#include <cstdint>

#include "../utils/error.h"

namespace ornik {

/// Geometry of one operand, outermost axis first, in elements. At most 25 axes: more are refused with
/// "tensor has too many dims". Without axes every offset is 0.
template <typename Index>
struct OffsetCalculator_cpu {
    static constexpr int max_dims = 25;

    std::int32_t dims;
    Index sizes[max_dims];
    Index strides[max_dims];

    OffsetCalculator_cpu(const Dims& shape, const Dims& stride) : dims(static_cast<std::int32_t>(shape.size())) {
        if (dims > max_dims) {
            fail(where("`anonymous-namespace'::OffsetCalculator_cpu<__int64>::OffsetCalculator_cpu",
                       "include/hardware/cpu/cpu_offset_cal.h"),
                 "tensor has too many dims");
        }
        for (std::int32_t d = 0; d < dims; ++d) {
            sizes[d] = shape[static_cast<std::size_t>(d)];
            strides[d] = stride[static_cast<std::size_t>(d)];
        }
    }

    /// Offset of flat index `index`; indices beyond the operand's own element count start over.
    Index offset(Index index) const {
        Index result = 0;
        for (std::int32_t d = dims - 1; d >= 0 && index != 0; --d) {
            result += (index % sizes[d]) * strides[d];
            index /= sizes[d];
        }
        return result;
    }
};

}  // namespace ornik
