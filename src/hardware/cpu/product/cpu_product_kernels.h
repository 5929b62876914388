// cpu_product_kernels.h: the products of each kind of elements.
#pragma once

#include <complex>
#include <cstdint>

#include "hardware/cpu/product/cpu_product.h"

namespace ornik::device::cpu {

/// The part of an integer product's C that a piece computes, on the calling thread: rows [row_begin, row_end), columns
/// [col_begin, col_end).
struct ProductPiece {
    std::int64_t row_begin;
    std::int64_t row_end;
    std::int64_t col_begin;
    std::int64_t col_end;
};

/// Floating and complex products, the whole batch (product_run.h).
template <typename T>
void float_product(const ProductPlan& plan, const T* a, const T* b, T* c, const ProductEnds* ends = nullptr);

/// A factor op(B) [depth, cols] in panels: their size in real numbers, and how they are made of a B without gaps.
template <typename T>
std::int64_t packed_factor_size(std::int64_t depth, std::int64_t cols);
template <typename T>
void pack_factor(const T* b, bool transposed, std::int64_t depth, std::int64_t cols, void* packed);
/// C [rows, cols] = A [rows, depth] op(B), or C + A op(B); C without gaps, rows of A a_row elements apart.
template <typename T>
void packed_product(const T* a, std::int64_t a_row, const void* packed, std::int64_t rows, std::int64_t cols,
                    std::int64_t depth, bool accumulate, T* c, const ProductEnds* ends);

/// Wrapping integer products; instances for the unsigned type of each width (cpu_product_integer.cpp).
template <typename T>
void integer_product_piece(const ProductPlan& plan, const ProductPiece& piece, const T* a, const T* b, T* c);

/// Or of ands over bytes, any non-zero byte being true.
void bool_product_piece(const ProductPlan& plan, const ProductPiece& piece, const unsigned char* a,
                        const unsigned char* b, unsigned char* c);

}  // namespace ornik::device::cpu
