// cpu_cholesky_solver.cpp: triangular factors of positive definite matrices, by the matrix library.
#include "eigen_matrix.h"
// After the settings.
#include <Eigen/Cholesky>

#include "matrix_solvers.h"

namespace ornik::device::cpu {

template <typename T>
struct CholeskySolver<T>::Work {
    Eigen::LLT<Matrix<T>> factors;

    explicit Work(std::int64_t n) : factors(n) {}
};

template <typename T>
CholeskySolver<T>::CholeskySolver(std::int64_t n) : work_(std::make_unique<Work>(n)) {}

template <typename T>
CholeskySolver<T>::~CholeskySolver() = default;

template <typename T>
bool CholeskySolver<T>::decompose(const T* matrix, T* lower) {
    auto& factors = work_->factors;
    const Eigen::Index n = factors.rows();
    factors.compute(ConstRowMajor<T>(matrix, n, n));
    // NaN passes the matrix library's own test.
    if (factors.info() != Eigen::Success || !(factors.matrixLLT().diagonal().real().array() > 0).all()) {
        return false;
    }
    RowMajor<T>(lower, n, n) = factors.matrixL();
    return true;
}

ORNIK_INSTANTIATE_SOLVER(CholeskySolver)

}  // namespace ornik::device::cpu
