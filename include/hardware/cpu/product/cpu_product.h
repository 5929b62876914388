// cpu_product.h: the dense matrix product behind dot, bmm, matmul4D and matmul. Internal.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

/// Where the matrices of one operand lie, in elements.
struct ProductPlace {
    /// From one stored row to the next, at least a row's length; 0: rows follow each other without gaps.
    std::int64_t row_step = 0;
    /// The beginning of each matrix of the batch; null: dense matrices one after the other.
    const std::int64_t* starts = nullptr;
};

/// C[b] = op(A[b]) op(B[b]) for every b < batch; all matrices row-major. op(A) is rows x depth
/// (A is stored depth x rows when transpose_a is set), op(B) depth x cols (stored cols x depth when
/// transpose_b is set). With accumulate the finished product is added to the old C. Nothing is conjugated.
struct ProductPlan {
    std::int64_t batch;
    std::int64_t rows;
    std::int64_t cols;
    std::int64_t depth;
    bool transpose_a;
    bool transpose_b;
    bool accumulate;
    ProductPlace place_a{};
    ProductPlace place_b{};
    ProductPlace place_c{};

    std::int64_t row_step_a() const { return stored(place_a, transpose_a ? rows : depth); }
    std::int64_t row_step_b() const { return stored(place_b, transpose_b ? depth : cols); }
    std::int64_t row_step_c() const { return stored(place_c, cols); }

  private:
    static std::int64_t stored(const ProductPlace& place, std::int64_t length) {
        return place.row_step != 0 ? place.row_step : length;
    }
};

/// What follows the sums of a floating or complex product while a part of C is near: c + bias, + residual, then a
/// function of pieces of rows. Each rounds as it does alone. Null members are left out.
struct ProductEnds {
    const void* bias = nullptr;      // [cols]
    const void* residual = nullptr;  // [rows, cols], of one matrix, its rows residual_row elements apart
    std::int64_t residual_row = 0;
    void (*row)(void* elements, std::int64_t count) = nullptr;
    const void* row_bias = nullptr;  // [rows], instead of bias
};

/// Steps of a chain.
inline constexpr std::int64_t product_block = 256;

/// C overlaps neither operand, nor do its matrices each other. Integers wrap in their own type; bool is the or of ands.
/// Floating sums are chains of fused multiply-adds
/// over the depth, in blocks of 256 steps that begin at 0 and whose sums are added in order: the bits depend on the
/// operands alone. Ends are for floating and complex dtypes.
void product(std::int64_t dtype, const ProductPlan& plan, const void* a, const void* b, void* c,
             const ProductEnds* ends = nullptr);

}  // namespace ornik::device::cpu
