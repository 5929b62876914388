// cpu_lu_solver.cpp: triangular factors of any matrix, by the matrix library.
#include "eigen_matrix.h"
// After the settings.
#include <Eigen/LU>

#include "matrix_solvers.h"

namespace ornik::device::cpu {

template <typename T>
struct LuSolver<T>::Work {
    Eigen::PartialPivLU<Matrix<T>> factors;

    explicit Work(std::int64_t n) : factors(n) {}
};

template <typename T>
LuSolver<T>::LuSolver(std::int64_t n) : work_(std::make_unique<Work>(n)) {}

template <typename T>
LuSolver<T>::~LuSolver() = default;

template <typename T>
void LuSolver<T>::decompose(const T* matrix) {
    const Eigen::Index n = work_->factors.rows();
    work_->factors.compute(ConstRowMajor<T>(matrix, n, n));
}

template <typename T>
bool LuSolver<T>::is_singular() const {
    return (work_->factors.matrixLU().diagonal().array() == T(0)).any();
}

template <typename T>
void LuSolver<T>::inverse(T* out) const {
    const Eigen::Index n = work_->factors.rows();
    RowMajor<T>(out, n, n) = work_->factors.inverse();
}

template <typename T>
void LuSolver<T>::solve(const T* b, std::int64_t columns, T* x) const {
    const Eigen::Index n = work_->factors.rows();
    const Matrix<T> solution = work_->factors.solve(ConstRowMajor<T>(b, n, columns));
    RowMajor<T>(x, n, columns) = solution;
}

template <typename T>
T LuSolver<T>::determinant() const {
    return work_->factors.determinant();
}

template <typename T>
void LuSolver<T>::log_determinant(T* sign, Real* log_magnitude) const {
    const auto& factors = work_->factors;
    *sign = T(static_cast<Real>(factors.permutationP().determinant()));
    *log_magnitude = 0;
    for (Eigen::Index i = 0; i < factors.rows(); ++i) {
        const T pivot = factors.matrixLU()(i, i);
        const Real magnitude = std::abs(pivot);
        *sign = magnitude == 0 ? T(0) : *sign * (pivot / magnitude);
        *log_magnitude += std::log(magnitude);
    }
}

ORNIK_INSTANTIATE_SOLVER(LuSolver)

}  // namespace ornik::device::cpu
