// tridiagonal.h: eigenvalues and eigenvectors of real symmetric tridiagonal matrices, by divide and conquer.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

namespace ornik::device::cpu {

/// For vectors of float or double; values are computed in double.
template <typename R>
class TridiagonalSolver {
  public:
    /// For matrices of n rows; `vectors`: shall they be computed?
    TridiagonalSolver(std::int64_t n, bool vectors);
    ~TridiagonalSolver();

    /// `diagonal` [n] becomes the eigenvalues in increasing order; beside [n] holds the n - 1 elements beside it and is
    /// used up. Vector i becomes row i of `vectors`, or null. False where they did not converge. The numbers are to be
    /// of moderate size: near 1.
    bool solve(double* diagonal, double* beside, R* vectors);

  private:
    struct Work;
    std::unique_ptr<Work> work_;
};

}  // namespace ornik::device::cpu
