// cpu_eigh.cpp: the matrix library's self-adjoint solver over batches.
//
// Tensors are row-major, the solver's matrices column-major. Both sides of every assignment below are typed
// with their own order, so that elements keep their places: reading a row-major Hermitian matrix as if it
// were column-major would conjugate it.
#include "hardware/cpu/linear_algebra/cpu_eigh.h"

#define EIGEN_DONT_PARALLELIZE
#include <Eigen/Eigenvalues>
#include <atomic>
#include <cmath>
#include <complex>

#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

// The type that the solver computes in; complex ones have the same two parts in the same order.
template <typename T>
struct SolverScalar {
    using type = T;
};
template <typename T>
struct SolverScalar<complex_scalar::complex<T>> {
    using type = std::complex<T>;
};

template <typename Scalar>
using SolverMatrix = Eigen::Matrix<Scalar, Eigen::Dynamic, Eigen::Dynamic>;
template <typename Scalar>
using RowMajorMatrix = Eigen::Matrix<Scalar, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;
template <typename Scalar>
using Vector = Eigen::Matrix<Scalar, Eigen::Dynamic, 1>;

// Matrix `index` of a batch of row-major n x n matrices.
template <typename Scalar>
Eigen::Map<RowMajorMatrix<Scalar>> matrix_at(const Tensor* t, std::int64_t index) {
    const std::int64_t n = t->Shape().back();
    return {static_cast<Scalar*>(t->getRawData()) + index * n * n, n, n};
}

// Vector `index` of a batch of vectors of n elements.
template <typename Scalar>
Eigen::Map<Vector<Scalar>> vector_at(const Tensor* t, std::int64_t index) {
    const std::int64_t n = t->Shape().back();
    return {static_cast<Scalar*>(t->getRawData()) + index * n, n};
}

std::int64_t batch_of(const Tensor* x) { return x->ndim() == 2 ? 1 : x->Shape()[0]; }

// Calls body(begin, end) on ranges of matrices, in parallel when the batch is worth a second thread.
template <typename Body>
void for_matrices(const Tensor* x, const Body& body) {
    constexpr std::int64_t grain_cubes = 1 << 13;  // Sum of n^3; some 20 microseconds.
    const std::int64_t n = x->Shape().back();
    if (n == 0) {
        return;
    }
    const std::int64_t grain = n < 32 ? grain_cubes / (n * n * n) + 1 : 1;
    parallel_for(batch_of(x), 1, grain, body);
}

// The lowest position that any worker reports.
class FirstFailure {
  public:
    void report(std::int64_t index) {
        std::int64_t lowest = first_.load();
        while ((lowest == all_matrices || index < lowest) && !first_.compare_exchange_weak(lowest, index)) {
        }
    }
    std::int64_t get() const { return first_.load(); }

  private:
    std::atomic<std::int64_t> first_{all_matrices};
};

template <typename T>
std::int64_t decompose(const Tensor* x, Tensor* vectors, Tensor* values) {
    using Scalar = typename SolverScalar<T>::type;
    using Real = element::Coefficient<T>;
    FirstFailure failure;
    for_matrices(x, [&](std::int64_t begin, std::int64_t end) {
        Eigen::SelfAdjointEigenSolver<SolverMatrix<Scalar>> solver(x->Shape().back());
        for (std::int64_t i = begin; i < end; ++i) {
            solver.compute(matrix_at<Scalar>(x, i),
                           vectors != nullptr ? Eigen::ComputeEigenvectors : Eigen::EigenvaluesOnly);
            if (solver.info() != Eigen::Success || !solver.eigenvalues().allFinite()) {
                failure.report(i);
                continue;
            }
            if (values != nullptr) {
                vector_at<Real>(values, i) = solver.eigenvalues();
            }
            if (vectors != nullptr) {
                matrix_at<Scalar>(vectors, i) = solver.eigenvectors();
            }
        }
    });
    return failure.get();
}

std::int64_t decompose_any(const Where& at, const char* kernel, const Tensor* x, Tensor* vectors, Tensor* values) {
    if (x->Dtype() < dtype::float32) {
        fail(at, "Not supported data type for ", kernel, "(), got", x->Dtype());
    }
    std::int64_t failed = all_matrices;
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() { failed = decompose<T>(x, vectors, values); });
    return failed;
}

template <typename T>
void gradient(const Tensor* vectors, const Tensor* values, const Tensor* grad_vectors, const Tensor* grad_values,
              Tensor* out) {
    using Scalar = typename SolverScalar<T>::type;
    using Real = element::Coefficient<T>;
    const std::int64_t n = out->Shape().back();
    for_matrices(out, [&](std::int64_t begin, std::int64_t end) {
        SolverMatrix<Scalar> inner(n, n);
        SolverMatrix<Scalar> product(n, n);
        for (std::int64_t index = begin; index < end; ++index) {
            const auto v = matrix_at<Scalar>(vectors, index);
            inner.setZero();
            if (grad_vectors != nullptr) {
                const auto value = vector_at<Real>(values, index);
                product.noalias() = v.adjoint() * matrix_at<Scalar>(grad_vectors, index);
                for (std::int64_t j = 0; j < n; ++j) {
                    for (std::int64_t i = 0; i < j; ++i) {
                        // The factors of (i, j) and (j, i) have opposite signs.
                        const Real gap = value[j] - value[i];
                        const Scalar part = product(i, j) - Eigen::numext::conj(product(j, i));
                        inner(i, j) = gap == 0 ? Scalar(0) : part / (2 * gap);
                        inner(j, i) = Eigen::numext::conj(inner(i, j));
                    }
                }
            }
            if (grad_values != nullptr) {
                inner.diagonal() = vector_at<Real>(grad_values, index).template cast<Scalar>();
            }
            product.noalias() = v * inner;
            matrix_at<Scalar>(out, index).noalias() = product * v.adjoint();
        }
    });
}

}  // namespace

std::int64_t cpu_first_not_finite(const Tensor* x) {
    FirstFailure failure;
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;
        constexpr std::int64_t parts = sizeof(T) / sizeof(Real);
        const Real* data = static_cast<const Real*>(x->getRawData());
        for_matrices(x, [&](std::int64_t begin, std::int64_t end) {
            const std::int64_t n = x->Shape().back();
            for (std::int64_t row = begin * n; row < end * n; ++row) {
                const Real* first = data + row * n * parts;
                for (std::int64_t i = 0; i < (row % n + 1) * parts; ++i) {
                    if (!std::isfinite(first[i])) {
                        failure.report(row / n);
                    }
                }
            }
        });
    });
    return failure.get();
}

std::int64_t cpu_eigh_impl(const Tensor* x, Tensor* vectors, Tensor* values) {
    return decompose_any(where("ornik::device::cpu::cpu_eigh_impl"), "cpu_eigh_impl", x, vectors, values);
}

std::int64_t cpu_eigvalsh_impl(const Tensor* x, Tensor* values) {
    return decompose_any(where("ornik::device::cpu::cpu_eigvalsh_impl"), "cpu_eigvalsh_impl", x, nullptr, values);
}

std::int64_t cpu_eigvec(const Tensor* x, Tensor* vectors) {
    return decompose_any(where("ornik::device::cpu::cpu_eigvec"), "cpu_eigvec", x, vectors, nullptr);
}

void cpu_eigh_grad(const Tensor* vectors, const Tensor* values, const Tensor* grad_vectors, const Tensor* grad_values,
                   Tensor* out) {
    dispatch(FloatOrComplexTypes{}, out->Dtype(),
             [&]<typename T>() { gradient<T>(vectors, values, grad_vectors, grad_values, out); });
}

}  // namespace ornik::device::cpu
