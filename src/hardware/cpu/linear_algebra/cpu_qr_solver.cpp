// cpu_qr_solver.cpp: orthogonal factors, by the matrix library.
#include "eigen_matrix.h"
// After the settings.
#include <Eigen/QR>

#include "matrix_solvers.h"

namespace ornik::device::cpu {

template <typename T>
struct QrSolver<T>::Work {
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
    factors.compute(ConstRowMajor<T>(matrix, rows, cols));
    work_->q.setIdentity(rows, rank);
    work_->q.applyOnTheLeft(factors.householderQ());
    RowMajor<T>(q, rows, rank) = work_->q;
    RowMajor<T>(r, rank, cols) = factors.matrixQR().topRows(rank).template triangularView<Eigen::Upper>();
}

ORNIK_INSTANTIATE_SOLVER(QrSolver)

}  // namespace ornik::device::cpu
