// eigh_solver.h: the eigen-decomposition of one symmetric or Hermitian matrix, on the calling thread.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <memory>

namespace ornik::device::cpu {

/// Decomposes n x n matrices one after the other in the same work space. For float, double and std::complex of them.
template <typename T>
class EighSolver {
  public:
    using Real = decltype(std::abs(T()));

    explicit EighSolver(std::int64_t n);
    ~EighSolver();

    /// Of the row-major matrix given by the lower triangle of `matrix`, the eigenvalues in increasing order and, row-
    /// major, the eigenvectors as columns. Either may be null. False when the decomposition did not converge to finite
    /// numbers: then neither is written.
    bool decompose(const T* matrix, T* vectors, Real* values);

  private:
    struct Work;
    std::unique_ptr<Work> work_;
};

}  // namespace ornik::device::cpu
