// cpu_product_fixed.h: many products of few rows with one factor, as recurrent layers have them. Internal.
#pragma once

#include <cstdint>
#include <memory>

namespace ornik::device::cpu {

/// op(B) [depth, cols] of float32 or float64, laid out once for all products with it.
class FixedFactor {
  public:
    /// B is stored without gaps, cols x depth when it is transposed, and stays where it is.
    FixedFactor(std::int64_t dtype, const void* b, bool transposed, std::int64_t depth, std::int64_t cols);
    ~FixedFactor();
    FixedFactor(const FixedFactor&) = delete;
    FixedFactor& operator=(const FixedFactor&) = delete;

    /// C [rows, cols] = A [rows, depth] op(B), or C + A op(B), both without gaps, on the calling thread. These are rows
    /// of a product of `all_rows` rows, the first at a multiple of 4: the bits are those that product() has there.
    void multiply(const void* a, std::int64_t rows, std::int64_t all_rows, bool accumulate, void* c) const;

    struct Packed;

  private:
    std::int64_t dtype_;
    const void* b_;
    bool transposed_;
    std::int64_t depth_;
    std::int64_t cols_;
    std::unique_ptr<Packed> packed_;
};

}  // namespace ornik::device::cpu
