// cpu_product_eigen.h: product_piece over the matrix library. Included by the files that instantiate it.
//
// The library runs on the calling thread: pieces are what this library's own workers run.
#pragma once

#define EIGEN_DONT_PARALLELIZE
#include <Eigen/Core>
#include <vector>

#include "cpu_product_kernels.h"

namespace ornik::device::cpu {

template <typename T, int Order>
using PieceMap = Eigen::Map<const Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic, Order>, 0, Eigen::OuterStride<>>;

// Calls use(matrix) with rows [begin, begin + rows) x columns [col_begin, col_begin + cols) of op(X), where
// X's stored rows are `width` elements apart.
template <typename T, typename Use>
void with_operand(const T* x, bool transposed, std::int64_t width, std::int64_t begin, std::int64_t rows,
                  std::int64_t col_begin, std::int64_t cols, const Use& use) {
    const Eigen::OuterStride<> stride(width);
    if (transposed) {
        use(PieceMap<T, Eigen::ColMajor>(x + col_begin * width + begin, rows, cols, stride));
    } else {
        use(PieceMap<T, Eigen::RowMajor>(x + begin * width + col_begin, rows, cols, stride));
    }
}

template <typename T>
void product_piece(const ProductPlan& plan, const ProductPiece& piece, const T* a, const T* b, T* c) {
    using Result =
        Eigen::Map<Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>, 0, Eigen::OuterStride<>>;
    const std::int64_t rows = piece.row_end - piece.row_begin;
    const std::int64_t cols = piece.col_end - piece.col_begin;
    const std::int64_t width_c = plan.row_step_c();
    Result out(c + piece.row_begin * width_c + piece.col_begin, rows, cols, Eigen::OuterStride<>(width_c));
    if (plan.depth == 0) {
        if (!plan.accumulate) {
            out.setZero();
        }
        return;
    }
    const auto multiply_into = [&](auto& product) {
        with_operand(a, plan.transpose_a, plan.row_step_a(), piece.row_begin, rows, 0, plan.depth,
                     [&](const auto& left) {
                         with_operand(b, plan.transpose_b, plan.row_step_b(), 0, plan.depth, piece.col_begin, cols,
                                      [&](const auto& right) { product.noalias() = left * right; });
                     });
    };
    const auto finish = [&](const auto& product) {
        if (plan.accumulate) {
            out += product;
        } else {
            out = product;
        }
    };
    constexpr std::int64_t small = EIGEN_GEMM_TO_COEFFBASED_THRESHOLD;
    if (rows + cols + plan.depth < small) {
        // The library walks small products from one aligned address of the result to the next, and fuses within vectors
        // alone: only a result that always lies alike has always the same bits.
        Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor, small, small> product(rows, cols);
        multiply_into(product);
        finish(product);
    } else if (plan.accumulate) {
        // The finished product is added, not each of its terms.
        std::vector<T> buffer(static_cast<std::size_t>(rows * cols));
        Result product(buffer.data(), rows, cols, Eigen::OuterStride<>(cols));
        multiply_into(product);
        finish(product);
    } else {
        multiply_into(out);
    }
}

}  // namespace ornik::device::cpu
