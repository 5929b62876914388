// cpu_product.h: the dense matrix product behind dot, bmm and matmul4D. Internal.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

/// C[b] = op(A[b]) op(B[b]) for every b < batch; all matrices row-major and dense. op(A) is rows x depth
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
};

/// C overlaps neither operand. Integers wrap in their own type; bool is the or of ands. The bits of the
/// result depend on the operands alone, not on the team size.
void product(std::int64_t dtype, const ProductPlan& plan, const void* a, const void* b, void* c);

}  // namespace ornik::device::cpu
