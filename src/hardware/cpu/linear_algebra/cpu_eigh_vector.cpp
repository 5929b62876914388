// cpu_eigh_vector.cpp: A = Q T Q^H with T real and tridiagonal, T = Z D Z^T, and the eigenvectors Q Z. Vectors lie in
// rows until the end.
//
// Each reflection is known before the last one's product is taken from the rest of the matrix, so that one pass over it
// does both that and the next product with a vector.
#include <vector>

#include "eigh_solver.h"
#include "reflections.h"
#include "tridiagonal.h"

namespace ornik::device::cpu {

template <typename T>
struct EighSolver<T>::Work {
    std::int64_t n;
    std::vector<T> upper;  // Rows of A from the diagonal on; then the reflections' vectors behind it.
    std::vector<T> t;
    // Of a reflection: v, and what is taken from A is v q^H + q v^H. Conjugates of v and q lie in `pair`.
    std::vector<T> v;
    std::vector<T> q;
    std::vector<T> old_v;
    std::vector<T> pair;
    std::vector<double> diagonal;
    std::vector<double> beside;
    std::vector<Real> real_vectors;
    std::vector<T> vectors;
    std::unique_ptr<TridiagonalSolver<Real>> solver;
    std::unique_ptr<Reflections<T>> together;

    explicit Work(std::int64_t size)
        : n(size),
          upper(static_cast<std::size_t>(size * size)),
          t(static_cast<std::size_t>(size)),
          v(t.size()),
          q(t.size()),
          old_v(t.size()),
          pair(2 * t.size()),
          diagonal(t.size()),
          beside(t.size()) {}

    T* row(std::int64_t i) { return upper.data() + i * n; }

    void tridiagonalize() {
        T* conj_v = pair.data();
        T* conj_q = pair.data() + n;
        std::fill(old_v.begin(), old_v.end(), T(0));
        std::fill(q.begin(), q.end(), T(0));
        std::fill(pair.begin(), pair.end(), T(0));
        for (std::int64_t k = 0; k < n; ++k) {
            // Row k, from which the last reflection has not been taken yet.
            const std::int64_t length = n - k;
            const auto at = static_cast<std::size_t>(k);
            T* row_k = row(k) + k;
            add_scaled(-old_v[at], conj_q + k, length, row_k);
            add_scaled(-q[at], conj_v + k, length, row_k);
            diagonal[at] = std::real(row_k[0]);
            if (length == 1) {
                break;
            }
            std::transform(row_k + 1, row_k + length, v.begin() + k + 1, [](T x) { return conjugate(x); });
            t[at] = make_reflection(v.data() + k + 1, length - 1);
            beside[at] = std::real(v[at + 1]);
            v[at + 1] = T(1);
            std::copy(v.begin() + k + 1, v.end(), row_k + 1);
            multiply_and_update(k + 1);
            // q = t' A v - (|t|^2 v^H A v / 2) v, t' being the conjugate
            T* p = q.data() + k + 1;
            const T along = dot(Conjugated::yes, v.data() + k + 1, p, length - 1);
            scale_row(conjugate(t[at]), length - 1, p);
            const Real size = square_of(t[at]);
            add_scaled(T(-size * std::real(along) / 2), v.data() + k + 1, length - 1, p);
            std::copy(v.begin() + k + 1, v.end(), old_v.begin() + k + 1);
            std::transform(v.begin() + k + 1, v.end(), conj_v + k + 1, [](T x) { return conjugate(x); });
            std::transform(q.begin() + k + 1, q.end(), conj_q + k + 1, [](T x) { return conjugate(x); });
        }
    }

    // Takes old_v q^H + q old_v^H from the rows from `first` on, and puts what is left times v into q.
    void multiply_and_update(std::int64_t first) {
        const T* conj_v = pair.data();
        const T* conj_q = pair.data() + n;
        product.assign(static_cast<std::size_t>(n), T(0));
        for (std::int64_t i = first; i < n; ++i) {
            const auto at = static_cast<std::size_t>(i);
            T* row_i = row(i) + i;
            const T c0 = -old_v[at];
            const T c1 = -q[at];
            const Real on_diagonal = std::real(row_i[0] + times(c0, conj_q[i]) + times(c1, conj_v[i]));
            row_i[0] = on_diagonal;
            product[at] += update_and_multiply<T, true>(n - i - 1, c0, conj_q + i + 1, c1, conj_v + i + 1, row_i + 1,
                                                        v.data() + i + 1, v[at], product.data() + i + 1);
            product[at] += on_diagonal * v[at];
        }
        std::copy(product.begin() + first, product.end(), q.begin() + first);
    }
    std::vector<T> product;
};

template <typename T>
EighSolver<T>::EighSolver(std::int64_t n) : work_(std::make_unique<Work>(n)) {}

template <typename T>
EighSolver<T>::~EighSolver() = default;

template <typename T>
bool EighSolver<T>::decompose(const T* matrix, T* vectors, Real* values) {
    Work& work = *work_;
    const std::int64_t n = work.n;
    turn(Conjugated::yes, matrix, n, n, n, work.row(0), n, Triangle::lower);
    Real largest = 0;
    for (std::int64_t i = 0; i < n; ++i) {
        work.row(i)[i] = std::real(work.row(i)[i]);
        largest = std::max(largest, largest_part(work.row(i) + i, n - i));
    }
    const Real scale = scale_below(largest);
    for (std::int64_t i = 0; i < n; ++i) {
        divide_row(scale, n - i, work.row(i) + i);
    }
    work.tridiagonalize();
    if (work.solver == nullptr) {
        work.solver = std::make_unique<TridiagonalSolver<Real>>(n, vectors != nullptr);
    }
    Real* real_vectors = nullptr;
    if (vectors != nullptr) {
        work.vectors.resize(static_cast<std::size_t>(n * n));
        if constexpr (is_complex_scalar<T>) {
            work.real_vectors.resize(static_cast<std::size_t>(n * n));
            real_vectors = work.real_vectors.data();
        } else {
            real_vectors = work.vectors.data();
        }
    }
    if (!work.solver->solve(work.diagonal.data(), work.beside.data(), real_vectors) ||
        !std::all_of(work.diagonal.begin(), work.diagonal.end(),
                     [&](double x) { return std::isfinite(static_cast<Real>(x) * scale); })) {
        return false;
    }
    if (values != nullptr) {
        std::transform(work.diagonal.begin(), work.diagonal.end(), values,
                       [&](double x) { return static_cast<Real>(x) * scale; });
    }
    if (vectors != nullptr) {
        if constexpr (is_complex_scalar<T>) {
            std::copy(work.real_vectors.begin(), work.real_vectors.end(), work.vectors.begin());
        }
        if (work.together == nullptr) {
            work.together = std::make_unique<Reflections<T>>(n, n);
        }
        apply_all(*work.together, work.row(0), n, work.t.data(), n - 1, 1, work.vectors.data(), n, n);
        turn(Conjugated::no, work.vectors.data(), n, n, n, vectors, n);
    }
    return true;
}

ORNIK_INSTANTIATE_SOLVER(EighSolver)

}  // namespace ornik::device::cpu
