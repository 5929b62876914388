// matrix_solvers.h: decompositions of one matrix after the other, on the calling thread.
//
// For float, double and std::complex of them. Matrices are row-major and not empty; the solvers keep their work space
// from one matrix to the next. An adjoint is a transpose of conjugates.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <memory>

namespace ornik::device::cpu {

template <typename T>
using RealOf = decltype(std::abs(T()));

/// A = L L^H.
template <typename T>
class CholeskySolver {
  public:
    explicit CholeskySolver(std::int64_t n);
    ~CholeskySolver();

    /// The lower triangle of `matrix` is read; zeros are written above the diagonal of `lower`. False, and nothing
    /// written, when the matrix is not positive definite or holds NaN.
    bool decompose(const T* matrix, T* lower);

  private:
    struct Work;
    std::unique_ptr<Work> work_;
};

/// A = P L U, rows permuted for the largest pivots.
template <typename T>
class LuSolver {
  public:
    using Real = RealOf<T>;

    explicit LuSolver(std::int64_t n);
    ~LuSolver();

    void decompose(const T* matrix);
    // Of the last decomposition.
    /// Is a pivot exactly zero?
    bool is_singular() const;
    void inverse(T* out) const;
    /// x = A^-1 b, each n x columns; x may be b.
    void solve(const T* b, std::int64_t columns, T* x) const;
    T determinant() const;
    /// The determinant's sign (of magnitude 1, or 0) and the logarithm of its magnitude.
    void log_determinant(T* sign, Real* log_magnitude) const;

  private:
    struct Work;
    std::unique_ptr<Work> work_;
};

/// A = Q R by reflections; R has a real diagonal.
template <typename T>
class QrSolver {
  public:
    QrSolver(std::int64_t rows, std::int64_t cols);
    ~QrSolver();

    /// q is rows x rank, or null, and r rank x cols; rank is the smaller extent, or `rows` for the complete Q.
    void decompose(const T* matrix, std::int64_t rank, T* q, T* r);

  private:
    struct Work;
    std::unique_ptr<Work> work_;
};

/// A V = V diag(w), with columns of length 1 in V.
template <typename T>
class EigSolver {
  public:
    using Complex = std::complex<RealOf<T>>;

    explicit EigSolver(std::int64_t n);
    ~EigSolver();

    /// The values w, in no order, and, unless null, V. False, and nothing written, when they did not converge.
    bool decompose(const T* matrix, Complex* values, Complex* vectors);

  private:
    struct Work;
    std::unique_ptr<Work> work_;
};

/// A = U diag(s) V^H.
template <typename T>
class SvdSolver {
  public:
    using Real = RealOf<T>;
    enum class Want { values, reduced, full };

    SvdSolver(std::int64_t rows, std::int64_t cols, Want want);
    ~SvdSolver();

    /// The values in decreasing order and, where wanted, the columns of U and the rows of V^H: as many as values, or
    /// all. False, and nothing written, when they did not converge to finite numbers.
    bool decompose(const T* matrix, T* u, Real* s, T* vh);

  private:
    struct Work;
    std::unique_ptr<Work> work_;
};

}  // namespace ornik::device::cpu
