// cpu_product_integer.cpp: products of integer and bool matrices.
//
// Sums of wrapping integers do not depend on their order, so the loops are free to block as they like:
// panels of op(B) are copied side by side, then every row of C takes four rows of the panel at a time, in
// loops over columns that the compiler vectorises.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "cpu_product_kernels.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t panel_depth = 128;
constexpr std::int64_t panel_cols = 256;
constexpr std::int64_t depth_step = 4;

template <typename T>
struct WrappingSum {
    // Small types compute in 32 bits: their products must not overflow a signed int on the way.
    using Wide = std::conditional_t<sizeof(T) < 4, std::uint32_t, T>;
    static T load(T x) { return x; }
    static T step(T sum, T x, T y) {
        return static_cast<T>(static_cast<Wide>(sum) + static_cast<Wide>(x) * static_cast<Wide>(y));
    }
};

struct OrOfAnds {
    static unsigned char load(unsigned char x) { return x != 0 ? 1 : 0; }
    static unsigned char step(unsigned char sum, unsigned char x, unsigned char y) {
        return static_cast<unsigned char>(sum | (x & y));
    }
};

template <typename Rule, typename T>
void run(const ProductPlan& plan, const ProductPiece& piece, const T* a, const T* b, T* c) {
    const std::int64_t width_c = plan.row_step_c();
    const auto element_a = [&, width = plan.row_step_a()](std::int64_t i, std::int64_t k) {
        return Rule::load(plan.transpose_a ? a[k * width + i] : a[i * width + k]);
    };
    const auto element_b = [&, width = plan.row_step_b()](std::int64_t k, std::int64_t j) {
        return Rule::load(plan.transpose_b ? b[j * width + k] : b[k * width + j]);
    };
    for (std::int64_t i = piece.row_begin; i < piece.row_end; ++i) {
        for (std::int64_t j = piece.col_begin; j < piece.col_end; ++j) {
            T& element = c[i * width_c + j];
            element = plan.accumulate ? Rule::load(element) : T(0);
        }
    }
    std::vector<T> panel(static_cast<std::size_t>(panel_depth * panel_cols));
    for (std::int64_t j0 = piece.col_begin; j0 < piece.col_end; j0 += panel_cols) {
        const std::int64_t width = std::min(panel_cols, piece.col_end - j0);
        for (std::int64_t k0 = 0; k0 < plan.depth; k0 += panel_depth) {
            const std::int64_t depth = std::min(panel_depth, plan.depth - k0);
            // Rows are filled up with zeros to a whole number of steps.
            const std::int64_t whole_depth = (depth + depth_step - 1) / depth_step * depth_step;
            for (std::int64_t k = 0; k < whole_depth; ++k) {
                for (std::int64_t j = 0; j < width; ++j) {
                    panel[static_cast<std::size_t>(k * panel_cols + j)] = k < depth ? element_b(k0 + k, j0 + j) : T(0);
                }
            }
            for (std::int64_t i = piece.row_begin; i < piece.row_end; ++i) {
                T* out = c + i * width_c + j0;
                for (std::int64_t k = 0; k < depth; k += depth_step) {
                    const T* row = panel.data() + k * panel_cols;
                    T x[depth_step];
                    for (std::int64_t s = 0; s < depth_step; ++s) {
                        x[s] = k + s < depth ? element_a(i, k0 + k + s) : T(0);
                    }
                    for (std::int64_t j = 0; j < width; ++j) {
                        T sum = out[j];
                        for (std::int64_t s = 0; s < depth_step; ++s) {
                            sum = Rule::step(sum, x[s], row[s * panel_cols + j]);
                        }
                        out[j] = sum;
                    }
                }
            }
        }
    }
}

}  // namespace

template <typename T>
void integer_product_piece(const ProductPlan& plan, const ProductPiece& piece, const T* a, const T* b, T* c) {
    run<WrappingSum<T>>(plan, piece, a, b, c);
}

template void integer_product_piece(const ProductPlan&, const ProductPiece&, const std::uint8_t*, const std::uint8_t*,
                                    std::uint8_t*);
template void integer_product_piece(const ProductPlan&, const ProductPiece&, const std::uint16_t*, const std::uint16_t*,
                                    std::uint16_t*);
template void integer_product_piece(const ProductPlan&, const ProductPiece&, const std::uint32_t*, const std::uint32_t*,
                                    std::uint32_t*);
template void integer_product_piece(const ProductPlan&, const ProductPiece&, const std::uint64_t*, const std::uint64_t*,
                                    std::uint64_t*);

void bool_product_piece(const ProductPlan& plan, const ProductPiece& piece, const unsigned char* a,
                        const unsigned char* b, unsigned char* c) {
    run<OrOfAnds>(plan, piece, a, b, c);
}

}  // namespace ornik::device::cpu
