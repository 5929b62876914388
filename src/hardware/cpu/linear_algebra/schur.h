// schur.h: eigenvalues of matrices with zeros below the diagonal beside the main one, and of the triangular ones that
// they become, the eigenvectors. Internal.
#pragma once

#include <complex>
#include <cstdint>

namespace ornik::device::cpu {

/// h, n x n, becomes triangular by rotations and reflections of rows and columns; blocks of two remain on a real
/// diagonal for pairs of complex eigenvalues. The rows of q, or null, are combined along. False where that did not
/// converge. Without q only the eigenvalues are right afterwards. Elements are to be of moderate size.
template <typename R>
bool make_triangular(std::int64_t n, R* h, R* q, std::complex<R>* values);
template <typename R>
bool make_triangular(std::int64_t n, std::complex<R>* h, std::complex<R>* q, std::complex<R>* values);

/// Eigenvectors of such a triangular matrix, in rows. Real ones have two rows for a pair of values, the real and the
/// imaginary part of the first value's vector.
template <typename R>
void triangular_vectors(std::int64_t n, const R* h, const std::complex<R>* values, R* rows);
template <typename R>
void triangular_vectors(std::int64_t n, const std::complex<R>* h, const std::complex<R>* values, std::complex<R>* rows);

}  // namespace ornik::device::cpu
