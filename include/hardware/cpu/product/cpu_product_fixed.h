// cpu_product_fixed.h: many products of few rows with one factor, as recurrent layers have them. Internal.
#pragma once

#include <cstdint>
#include <memory>

namespace ornik::device::cpu {

/// op(B) [depth, cols] of float32 or float64, laid out once for all products with it.
class FixedFactor {
  public:
    /// B is stored without gaps, cols x depth when it is transposed, and is needed no longer.
    FixedFactor(std::int64_t dtype, const void* b, bool transposed, std::int64_t depth, std::int64_t cols);
    ~FixedFactor();
    FixedFactor(const FixedFactor&) = delete;
    FixedFactor& operator=(const FixedFactor&) = delete;

    /// C [rows, cols] = A [rows, depth] op(B), or C + A op(B), both without gaps, on the calling thread. The bits are
    /// those that product() has, whatever rows come together.
    void multiply(const void* a, std::int64_t rows, bool accumulate, void* c) const;

    struct Packed;

  private:
    std::int64_t dtype_;
    std::int64_t depth_;
    std::int64_t cols_;
    std::unique_ptr<Packed> packed_;
};

}  // namespace ornik::device::cpu
