// cpu_svd_solver.cpp: singular values by the matrix library's divide and conquer, which is compiled once: for double.
//
// float is computed in double. Complex matrices first become real and bidiagonal, A = Q B P^H, by reflections from both
// sides (G. Golub, W. Kahan, Calculating the singular values and pseudo-inverse of a matrix, 1965), which Q and P then
// undo in the vectors of B.
#include "eigen_matrix.h"
// After the settings.
#include <Eigen/SVD>
#include <algorithm>
#include <cmath>

#include "matrix_solvers.h"

namespace ornik::device::cpu {

namespace {

using Complex = std::complex<double>;

template <typename T>
constexpr bool is_complex = Eigen::NumTraits<T>::IsComplex != 0;

template <typename T>
using Wide = std::conditional_t<is_complex<T>, Complex, double>;

// A matrix of at least as many rows as columns, in the form Q B P^H.
class Bidiagonal {
  public:
    explicit Bidiagonal(Matrix<Complex> a) : a_(std::move(a)), left_(a_.cols()), right_(a_.cols()) {
        const Eigen::Index rows = a_.rows();
        const Eigen::Index cols = a_.cols();
        b = Matrix<double>::Zero(cols, cols);
        Eigen::VectorXcd work(std::max(rows, cols));
        for (Eigen::Index k = 0; k < cols; ++k) {
            const Eigen::Index right = cols - k - 1;
            a_.col(k).tail(rows - k).makeHouseholderInPlace(left_(k), b(k, k));
            a_.bottomRightCorner(rows - k, right)
                .applyHouseholderOnTheLeft(a_.col(k).tail(rows - k - 1), left_(k), work.data());
            if (right > 0) {
                a_.row(k).tail(right).makeHouseholderInPlace(right_(k), b(k, k + 1));
                a_.bottomRightCorner(rows - k - 1, right)
                    .applyHouseholderOnTheRight(a_.row(k).tail(right - 1).adjoint(), right_(k), work.data());
            }
        }
    }

    // vectors = Q vectors
    void apply_left(Matrix<Complex>& vectors) const {
        Eigen::VectorXcd work(vectors.cols());
        for (Eigen::Index k = a_.cols(); k-- > 0;) {
            const Eigen::Index below = a_.rows() - k;
            vectors.bottomRows(below).applyHouseholderOnTheLeft(a_.col(k).tail(below - 1), std::conj(left_(k)),
                                                                work.data());
        }
    }
    // vectors = P vectors
    void apply_right(Matrix<Complex>& vectors) const {
        Eigen::VectorXcd work(vectors.cols());
        for (Eigen::Index k = a_.cols() - 1; k-- > 0;) {
            const Eigen::Index below = a_.cols() - k - 1;
            vectors.bottomRows(below).applyHouseholderOnTheLeft(a_.row(k).tail(below - 1).adjoint(), right_(k),
                                                                work.data());
        }
    }

    Matrix<double> b;

  private:
    Matrix<Complex> a_;  // The reflectors' vectors, but for their first elements, which are 1.
    Eigen::VectorXcd left_;
    Eigen::VectorXcd right_;
};

}  // namespace

template <typename T>
struct SvdSolver<T>::Work {
    Eigen::Index rows;
    Eigen::Index cols;
    Want want;
    Eigen::BDCSVD<Matrix<double>> solver;
    Matrix<Wide<T>> u;
    Matrix<Wide<T>> v;

    bool converged() const { return solver.info() == Eigen::Success && solver.singularValues().allFinite(); }

    bool solve(const Matrix<double>& a, bool full) {
        const unsigned vectors =
            full ? Eigen::ComputeFullU | Eigen::ComputeFullV : Eigen::ComputeThinU | Eigen::ComputeThinV;
        solver.compute(a, want == Want::values ? 0U : vectors);
        return converged();
    }

    bool decompose(const Matrix<Wide<T>>& a) {
        if constexpr (is_complex<T>) {
            return decompose_complex(a);
        } else {
            if (solve(a, want == Want::full) && want != Want::values) {
                u = solver.matrixU();
                v = solver.matrixV();
            }
            return converged();
        }
    }

    // A template of its own, so that it exists where it is called alone: for complex numbers.
    template <typename Element>
    bool decompose_complex(const Matrix<Element>& a) {
        const bool tall = rows >= cols;
        // The largest part of any element becomes 1, so that squares neither overflow nor vanish.
        const double largest = std::max(a.real().cwiseAbs().maxCoeff(), a.imag().cwiseAbs().maxCoeff());
        scale = largest == 0 ? 1 : largest;
        const Bidiagonal form(tall ? Matrix<Complex>(a / scale) : Matrix<Complex>(a.adjoint() / scale));
        if (solve(form.b, false) && want != Want::values) {
            // Behind the vectors of B stand those that belong to no value.
            const Eigen::Index k = form.b.cols();
            const Eigen::Index n = std::max(rows, cols);
            Matrix<Complex>& longer = tall ? u : v;
            Matrix<Complex>& shorter = tall ? v : u;
            longer.setIdentity(n, want == Want::full ? n : k);
            longer.topLeftCorner(k, k) = solver.matrixU().template cast<Complex>();
            shorter = solver.matrixV().template cast<Complex>();
            form.apply_left(longer);
            form.apply_right(shorter);
        }
        return converged();
    }

    double scale = 1;
};

template <typename T>
SvdSolver<T>::SvdSolver(std::int64_t rows, std::int64_t cols, Want want)
    : work_(new Work{.rows = rows, .cols = cols, .want = want, .solver = {}, .u = {}, .v = {}}) {}

template <typename T>
SvdSolver<T>::~SvdSolver() = default;

template <typename T>
bool SvdSolver<T>::decompose(const T* matrix, T* u, Real* s, T* vh) {
    Work& work = *work_;
    if (!work.decompose(Matrix<Wide<T>>(ConstRowMajor<T>(matrix, work.rows, work.cols).template cast<Wide<T>>()))) {
        return false;
    }
    const auto& values = work.solver.singularValues();
    if (!std::isfinite(static_cast<Real>(values(0) * work.scale))) {
        return false;
    }
    std::transform(values.begin(), values.end(), s,
                   [&](double value) { return static_cast<Real>(value * work.scale); });
    if (work.want != Want::values) {
        RowMajor<T>(u, work.rows, work.u.cols()) = work.u.template cast<T>();
        RowMajor<T>(vh, work.v.cols(), work.cols) = work.v.adjoint().template cast<T>();
    }
    return true;
}

ORNIK_INSTANTIATE_SOLVER(SvdSolver)

}  // namespace ornik::device::cpu
