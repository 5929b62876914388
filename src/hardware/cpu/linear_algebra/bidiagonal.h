// bidiagonal.h: singular values and vectors of real upper bidiagonal matrices, by divide and conquer.
#pragma once

#include <cstdint>
#include <memory>

namespace ornik::device::cpu {

class BidiagonalSolver {
  public:
    /// For matrices of n rows and columns; `vectors`: shall they be computed?
    BidiagonalSolver(std::int64_t n, bool vectors);
    ~BidiagonalSolver();

    /// `diagonal` [n] becomes the singular values in decreasing order; beside [n] holds the n - 1 elements above it and
    /// is used up. Left and right vectors become rows of `left` and `right` [n, n], which may both be null. False where
    /// the values did not converge. The numbers are to be of moderate size: near 1.
    bool solve(double* diagonal, double* beside, double* left, double* right);

  private:
    struct Work;
    std::unique_ptr<Work> work_;
};

}  // namespace ornik::device::cpu
