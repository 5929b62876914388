// eigen_matrix.h: the matrix library's view of this library's matrices. For the solvers' files alone, which are
// compiled as the products are.
#pragma once

#define EIGEN_DONT_PARALLELIZE
#include <Eigen/Core>
#include <complex>

namespace ornik::device::cpu {

template <typename T>
using Matrix = Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic>;

/// A row-major matrix in memory.
template <typename T>
using RowMajor = Eigen::Map<Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>;
template <typename T>
using ConstRowMajor = Eigen::Map<const Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>>;

}  // namespace ornik::device::cpu

#define ORNIK_INSTANTIATE_SOLVER(Solver)        \
    template class Solver<float>;               \
    template class Solver<double>;              \
    template class Solver<std::complex<float>>; \
    template class Solver<std::complex<double>>;
