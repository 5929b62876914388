// cpu_eig_solver.cpp: eigenvalues of any square matrix, by the matrix library.
#include "eigen_matrix.h"
// After the settings.
#include <Eigen/Eigenvalues>

#include "matrix_solvers.h"

namespace ornik::device::cpu {

template <typename T>
struct EigSolver<T>::Work {
    std::conditional_t<Eigen::NumTraits<T>::IsComplex != 0, Eigen::ComplexEigenSolver<Matrix<T>>,
                       Eigen::EigenSolver<Matrix<T>>>
        solver;
    std::int64_t n;

    explicit Work(std::int64_t size) : solver(size), n(size) {}
};

template <typename T>
EigSolver<T>::EigSolver(std::int64_t n) : work_(std::make_unique<Work>(n)) {}

template <typename T>
EigSolver<T>::~EigSolver() = default;

template <typename T>
bool EigSolver<T>::decompose(const T* matrix, Complex* values, Complex* vectors) {
    auto& solver = work_->solver;
    const std::int64_t n = work_->n;
    solver.compute(ConstRowMajor<T>(matrix, n, n), vectors != nullptr);
    if (solver.info() != Eigen::Success) {
        return false;
    }
    RowMajor<Complex>(values, 1, n) = solver.eigenvalues().transpose();
    if (vectors != nullptr) {
        RowMajor<Complex>(vectors, n, n) = solver.eigenvectors();
    }
    return true;
}

ORNIK_INSTANTIATE_SOLVER(EigSolver)

}  // namespace ornik::device::cpu
