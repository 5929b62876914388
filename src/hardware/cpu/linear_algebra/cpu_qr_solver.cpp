// cpu_qr_solver.cpp: orthogonal factors, by the matrix library.
#include "eigen_matrix.h"
// After the settings.
#include <Eigen/QR>
#include <algorithm>
#include <limits>

#include "matrix_solvers.h"

namespace ornik::device::cpu {

template <typename T>
struct QrSolver<T>::Work {
    using Real = RealOf<T>;

    // The power of two below the largest part of any element: squares of what it divides neither overflow nor vanish.
    static Real scale_of(const Matrix<T>& matrix) {
        const Real largest = std::max(matrix.real().cwiseAbs().maxCoeff(), matrix.imag().cwiseAbs().maxCoeff());
        constexpr int least = std::numeric_limits<Real>::min_exponent;
        return std::isfinite(largest) && largest > 0 ? std::ldexp(Real(1), std::max(std::ilogb(largest), least)) : 1;
    }

    Eigen::HouseholderQR<Matrix<T>> factors;
    Matrix<T> q;

    Work(std::int64_t rows, std::int64_t cols) : factors(rows, cols) {}
};

template <typename T>
QrSolver<T>::QrSolver(std::int64_t rows, std::int64_t cols) : work_(std::make_unique<Work>(rows, cols)) {}

template <typename T>
QrSolver<T>::~QrSolver() = default;

template <typename T>
void QrSolver<T>::decompose(const T* matrix, std::int64_t rank, T* q, T* r) {
    auto& factors = work_->factors;
    const Eigen::Index rows = factors.rows();
    const Eigen::Index cols = factors.cols();
    Matrix<T> scaled = ConstRowMajor<T>(matrix, rows, cols);
    const auto scale = Work::scale_of(scaled);
    scaled *= 1 / scale;  // Quotients by complex numbers take the square of their magnitude.
    factors.compute(scaled);
    work_->q.setIdentity(rows, rank);
    work_->q.applyOnTheLeft(factors.householderQ());
    RowMajor<T>(q, rows, rank) = work_->q;
    RowMajor<T> upper(r, rank, cols);
    upper = factors.matrixQR().topRows(rank).template triangularView<Eigen::Upper>();
    upper *= scale;
}

ORNIK_INSTANTIATE_SOLVER(QrSolver)

}  // namespace ornik::device::cpu
