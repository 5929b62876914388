// cpu_eigh_solver.cpp: A = Q T Q^H by the matrix library with T real and tridiagonal, T = Z D Z^T by its solver, and
// the eigenvectors Q Z by this library's products.
//
// Q is a product of reflectors I - t v v^H. Some of them together are I - V S V^H with the vectors as columns of V and
// a small triangular S (C. Bischof, C. Van Loan, The WY representation for products of Householder matrices, 1987;
// in the form of R. Schreiber, C. Van Loan, 1989), so that they are applied by matrix products. Z stays real for
// complex matrices, which halves the work of the solver's rotations.
#define EIGEN_DONT_PARALLELIZE
#include <Eigen/Eigenvalues>
#include <algorithm>
#include <cmath>
#include <vector>

#include "../product/cpu_product_kernels.h"
#include "eigh_solver.h"

namespace ornik::device::cpu {

namespace {

template <typename T>
using Matrix = Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic>;

constexpr std::int64_t reflectors_at_once = 32;

template <typename T>
T conjugate(T x) {
    if constexpr (Eigen::NumTraits<T>::IsComplex) {
        return std::conj(x);
    } else {
        return x;
    }
}

// c = a b, or a^T b, or with the product added to c; row-major, c of rows x cols.
template <typename T>
void multiply(bool transpose_a, const T* a, const T* b, T* c, std::int64_t rows, std::int64_t depth, std::int64_t cols,
              bool accumulate = false) {
    float_product({1, rows, cols, depth, transpose_a, false, accumulate}, a, b, c);
}

}  // namespace

template <typename T>
struct EighSolver<T>::Work {
    Matrix<T> lower;
    Eigen::Tridiagonalization<Matrix<T>> tridiagonal;
    Eigen::SelfAdjointEigenSolver<Matrix<Real>> solver;
    // Of some reflectors: their vectors as columns, the conjugates of these, -V S, S, and V^H times the target.
    std::vector<T> v;
    std::vector<T> v_conj;
    std::vector<T> minus_vs;
    std::vector<T> s;
    std::vector<T> inner;

    explicit Work(std::int64_t n) : lower(n, n), tridiagonal(std::max<std::int64_t>(n, 2)), solver(n) {
        const auto panel = static_cast<std::size_t>(n * reflectors_at_once);
        v.resize(panel);
        v_conj.resize(panel);
        minus_vs.resize(panel);
        inner.resize(panel);
        s.resize(static_cast<std::size_t>(2 * reflectors_at_once * reflectors_at_once));
    }

    // target [n, n] = (reflectors [begin, end)) target
    void apply(std::int64_t begin, std::int64_t end, T* target) {
        const std::int64_t n = lower.rows();
        const std::int64_t first = begin + 1;  // The first row that they change.
        const std::int64_t rows = n - first;
        const std::int64_t count = end - begin;
        const auto& packed = tridiagonal.packedMatrix();
        for (std::int64_t i = 0; i < rows; ++i) {
            for (std::int64_t j = 0; j < count; ++j) {
                const T x = i > j ? packed(first + i, begin + j) : T(i == j ? 1 : 0);
                v[static_cast<std::size_t>(i * count + j)] = x;
                v_conj[static_cast<std::size_t>(i * count + j)] = conjugate(x);
            }
        }
        // S(i, j), i < j: -t(j) times row i of S times column j of V^H V.
        T* dots = s.data() + count * count;
        multiply(true, v_conj.data(), v.data(), dots, count, rows, count);
        for (std::int64_t j = 0; j < count; ++j) {
            const T t = conjugate(T(tridiagonal.householderCoefficients()(begin + j)));
            for (std::int64_t i = 0; i < count; ++i) {
                T sum = T(0);
                for (std::int64_t k = i; k < j; ++k) {
                    sum -= s[static_cast<std::size_t>(i * count + k)] * dots[k * count + j];
                }
                s[static_cast<std::size_t>(i * count + j)] = i < j ? t * sum : T(i == j ? t : T(0));
            }
        }
        std::transform(v.begin(), v.begin() + rows * count, v.begin(), [](T x) { return -x; });
        multiply(false, v.data(), s.data(), minus_vs.data(), rows, count, count);
        multiply(true, v_conj.data(), target + first * n, inner.data(), count, rows, n);
        multiply(false, minus_vs.data(), inner.data(), target + first * n, rows, count, n, true);
    }
};

template <typename T>
EighSolver<T>::EighSolver(std::int64_t n) : work_(std::make_unique<Work>(n)) {}

template <typename T>
EighSolver<T>::~EighSolver() = default;

template <typename T>
bool EighSolver<T>::decompose(const T* matrix, T* vectors, Real* values) {
    Matrix<T>& lower = work_->lower;
    const std::int64_t n = lower.rows();
    // The largest part of any element becomes 1, so that squares neither overflow nor vanish.
    Real scale = 0;
    for (std::int64_t i = 0; i < n; ++i) {
        for (std::int64_t j = 0; j <= i; ++j) {
            const T x = matrix[i * n + j];
            scale = std::max({scale, std::abs(std::real(x)), i == j ? Real(0) : std::abs(std::imag(x))});
        }
    }
    scale = scale == 0 ? Real(1) : scale;
    for (std::int64_t j = 0; j < n; ++j) {
        for (std::int64_t i = 0; i < n; ++i) {
            lower(i, j) = i < j ? T(0) : i == j ? T(std::real(matrix[i * n + j]) / scale) : matrix[i * n + j] / scale;
        }
    }
    auto& solver = work_->solver;
    if (n == 1) {
        solver.computeFromTridiagonal(lower.diagonal().real(), Matrix<Real>(0, 1));
    } else {
        work_->tridiagonal.compute(lower);
        solver.computeFromTridiagonal(work_->tridiagonal.diagonal(), work_->tridiagonal.subDiagonal(),
                                      vectors != nullptr ? Eigen::ComputeEigenvectors : Eigen::EigenvaluesOnly);
    }
    const auto& found = solver.eigenvalues();
    if (solver.info() != Eigen::Success ||
        !std::all_of(found.begin(), found.end(), [&](Real x) { return std::isfinite(x * scale); })) {
        return false;
    }
    for (std::int64_t i = 0; i < n && values != nullptr; ++i) {
        values[i] = found[i] * scale;
    }
    if (vectors != nullptr) {
        for (std::int64_t i = 0; i < n; ++i) {
            for (std::int64_t j = 0; j < n; ++j) {
                vectors[i * n + j] = T(solver.eigenvectors()(i, j));
            }
        }
        const std::int64_t reflectors = n - 1;
        for (std::int64_t end = reflectors; end > 0;) {
            const std::int64_t begin = std::max<std::int64_t>(0, end - reflectors_at_once);
            work_->apply(begin, end, vectors);
            end = begin;
        }
    }
    return true;
}

template class EighSolver<float>;
template class EighSolver<double>;
template class EighSolver<std::complex<float>>;
template class EighSolver<std::complex<double>>;

}  // namespace ornik::device::cpu
