// cpu_product_kernels.h: one piece of one product, on the calling thread.
#pragma once

#include <complex>
#include <cstdint>

#include "hardware/cpu/product/cpu_product.h"

namespace ornik::device::cpu {

/// The part of C that a piece computes: rows [row_begin, row_end), columns [col_begin, col_end).
struct ProductPiece {
    std::int64_t row_begin;
    std::int64_t row_end;
    std::int64_t col_begin;
    std::int64_t col_end;
};

/// Floating and complex products, through the matrix library (cpu_product_float.cpp).
template <typename T>
void product_piece(const ProductPlan& plan, const ProductPiece& piece, const T* a, const T* b, T* c);

/// Wrapping integer products; instances for the unsigned type of each width (cpu_product_integer.cpp).
template <typename T>
void integer_product_piece(const ProductPlan& plan, const ProductPiece& piece, const T* a, const T* b, T* c);

/// Or of ands over bytes, any non-zero byte being true.
void bool_product_piece(const ProductPlan& plan, const ProductPiece& piece, const unsigned char* a,
                        const unsigned char* b, unsigned char* c);

}  // namespace ornik::device::cpu
