// cpu_product_fixed.h: many products with one right factor, as layers have them. Internal.
#pragma once

#include <cstdint>
#include <memory>

#include "cpu_product.h"

namespace ornik::device::cpu {

/// op(B) [depth, cols] of a floating or complex dtype, laid out once for all products with it, in memory of the
/// tensors' pool. The bits of all products are those that product() has.
class FixedFactor {
  public:
    /// B is stored without gaps, cols x depth when it is transposed, and is needed no longer.
    FixedFactor(std::int64_t dtype, const void* b, bool transposed, std::int64_t depth, std::int64_t cols);
    ~FixedFactor();
    FixedFactor(const FixedFactor&) = delete;
    FixedFactor& operator=(const FixedFactor&) = delete;

    /// C [rows, cols] = A [rows, depth] op(B), or C + A op(B), both without gaps, by the team, or by the calling thread
    /// where it is one of a team.
    void multiply(const void* a, std::int64_t rows, bool accumulate, void* c, const ProductEnds* ends = nullptr) const;

    std::int64_t dtype() const { return dtype_; }
    std::int64_t depth() const { return depth_; }
    std::int64_t cols() const { return cols_; }
    std::int64_t bytes() const;

    struct Packed;

  private:
    std::int64_t dtype_;
    std::int64_t depth_;
    std::int64_t cols_;
    std::unique_ptr<Packed> packed_;
};

}  // namespace ornik::device::cpu
