// cpu_svd_vector.cpp: A = Q B P^H with B real and bidiagonal, by reflections from both sides (G. Golub, W. Kahan,
// Calculating the singular values and pseudo-inverse of a matrix, 1965), of what is square: of the triangular factor,
// where A is not. Computed in double precision. Vectors lie in rows until the end.
#include <optional>

#include "bidiagonal.h"
#include "reflections.h"

namespace ornik::device::cpu {

namespace {

template <typename T>
using Wide = std::conditional_t<is_complex_scalar<T>, std::complex<double>, double>;

template <typename T>
class Bidiagonalization {
  public:
    explicit Bidiagonalization(std::int64_t n)
        : diagonal(static_cast<std::size_t>(n)),
          beside(diagonal.size()),
          n_(n),
          left_(static_cast<std::size_t>(n * n)),
          right_(left_.size()),
          t_left_(diagonal.size()),
          t_right_(diagonal.size()),
          together_(n, n),
          u_(diagonal.size()),
          u_conj_(diagonal.size()),
          z_(diagonal.size()),
          p_(diagonal.size()),
          w_(diagonal.size()),
          w_conj_(diagonal.size()) {}

    /// Uses up a, n x n. The last reflection from the right, A -= p w^H, is taken along with the next one from the
    /// left: A is read twice for each pair, and written once.
    void compute(T* a) {
        std::fill(p_.begin(), p_.end(), T(0));
        std::fill(w_conj_.begin(), w_conj_.end(), T(0));
        for (std::int64_t k = 0; k < n_; ++k) {
            const auto at = static_cast<std::size_t>(k);
            T* u = u_.data() + k;
            const std::int64_t below = n_ - k;
            for (std::int64_t i = 0; i < below; ++i) {
                u[i] = a[(k + i) * n_ + k] - times(p_[static_cast<std::size_t>(k + i)], w_conj_[at]);
            }
            const T t = make_reflection(u, below);
            t_left_[at] = t;
            diagonal[at] = std::real(u[0]);
            u[0] = T(1);
            std::copy_n(u, below, left_.data() + k * n_ + k);
            if (below == 1) {
                break;
            }
            reflect_row(a, k, t);
            T* w_conj = w_conj_.data() + k + 1;
            for (std::int64_t i = k + 1; i < n_; ++i) {
                T& p = p_[static_cast<std::size_t>(i)];
                const T sum = update_and_multiply<T, false>(below - 1, -p, w_conj, -times(t, u[i - k]),
                                                            z_.data() + k + 1, a + i * n_ + k + 1, w_.data() + k + 1);
                p = times(conjugate(t_right_[at]), sum);
            }
            std::transform(w_.begin() + k + 1, w_.end(), w_conj, [](T x) { return conjugate(x); });
        }
    }

    /// Rows of vectors of B become those of A.
    void apply_left(T* rows) { apply_all(together_, left_.data(), n_, t_left_.data(), n_, 0, rows, n_, n_); }
    void apply_right(T* rows) { apply_all(together_, right_.data(), n_, t_right_.data(), n_ - 1, 1, rows, n_, n_); }

    std::vector<double> diagonal;
    std::vector<double> beside;

  private:
    // z = u^H A, and the reflection w of row k.
    void reflect_row(T* a, std::int64_t k, T t) {
        constexpr std::int64_t at_once = 8;
        const auto at = static_cast<std::size_t>(k);
        const std::int64_t rest = n_ - k - 1;
        T* z = z_.data() + k + 1;
        T* w = w_.data() + k + 1;
        const T* w_conj = w_conj_.data() + k + 1;
        std::transform(u_.begin() + k, u_.end(), u_conj_.begin() + k, [](T x) { return conjugate(x); });
        std::fill_n(z, rest, T(0));
        for (std::int64_t i = k; i < n_; i += at_once) {
            add_combination(std::min(at_once, n_ - i), u_conj_.data() + i, 1, a + i * n_ + k + 1, n_, rest, z);
        }
        add_scaled(-dot(Conjugated::yes, u_.data() + k, p_.data() + k, n_ - k), w_conj, rest, z);
        T* row = a + k * n_ + k + 1;
        add_scaled(-p_[at], w_conj, rest, row);
        add_scaled(-t, z, rest, row);
        std::transform(row, row + rest, w, [](T x) { return conjugate(x); });
        t_right_[at] = make_reflection(w, rest);
        beside[at] = std::real(w[0]);
        w[0] = T(1);
        std::copy_n(w, rest, right_.data() + k * n_ + k + 1);
    }

    std::int64_t n_;
    std::vector<T> left_;
    std::vector<T> right_;
    std::vector<T> t_left_;
    std::vector<T> t_right_;
    Reflections<T> together_;
    std::vector<T> u_;
    std::vector<T> u_conj_;
    std::vector<T> z_;
    std::vector<T> p_;
    std::vector<T> w_;
    std::vector<T> w_conj_;
};

}  // namespace

template <typename T>
struct SvdSolver<T>::Work {
    using Element = Wide<T>;

    std::int64_t rows;
    std::int64_t cols;
    Want want;
    // Of the matrix, or of its adjoint where that has more rows.
    std::int64_t longer;
    std::int64_t shorter;
    std::int64_t left_count;  // columns of `left`
    double scale = 1;
    std::vector<Element> a;
    std::vector<Element> q;
    std::vector<Element> r;
    std::vector<Element> left;   // longer x left_count
    std::vector<Element> right;  // vectors in rows
    std::vector<double> real_left;
    std::vector<double> real_right;
    Bidiagonalization<Element> form;
    BidiagonalSolver solver;
    std::optional<QrSolver<Element>> triangle;

    Work(std::int64_t m, std::int64_t n, Want wanted)
        : rows(m),
          cols(n),
          want(wanted),
          longer(std::max(m, n)),
          shorter(std::min(m, n)),
          left_count(want == Want::full ? longer : shorter),
          a(static_cast<std::size_t>(m * n)),
          form(shorter),
          solver(shorter, want != Want::values) {
        if (longer > shorter) {
            triangle.emplace(longer, shorter);
            q.resize(static_cast<std::size_t>(want == Want::values ? 0 : longer * left_count));
            r.resize(static_cast<std::size_t>(left_count * shorter));
        }
    }

    bool is_turned() const { return rows < cols; }

    bool decompose(const T* matrix) {
        if (is_turned()) {
            for (std::int64_t i = 0; i < rows; ++i) {
                for (std::int64_t j = 0; j < cols; ++j) {
                    a[static_cast<std::size_t>(j * rows + i)] = conjugate(Element(matrix[i * cols + j]));
                }
            }
        } else {
            std::copy_n(matrix, rows * cols, a.begin());
        }
        scale = scale_below(largest_part(a.data(), rows * cols));
        divide_row(scale, rows * cols, a.data());
        Element* square = a.data();
        if (triangle) {
            triangle->decompose(a.data(), left_count, want == Want::values ? nullptr : q.data(), r.data());
            square = r.data();
        }
        form.compute(square);
        if (want == Want::values) {
            return solver.solve(form.diagonal.data(), form.beside.data(), nullptr, nullptr);
        }
        const auto size = static_cast<std::size_t>(shorter * shorter);
        real_left.resize(size);
        real_right.resize(size);
        if (!solver.solve(form.diagonal.data(), form.beside.data(), real_left.data(), real_right.data())) {
            return false;
        }
        std::vector<Element>& rows_of_left = a;
        rows_of_left.assign(real_left.begin(), real_left.end());
        right.assign(real_right.begin(), real_right.end());
        form.apply_left(rows_of_left.data());
        form.apply_right(right.data());
        left.resize(static_cast<std::size_t>(longer * left_count));
        if (triangle) {
            // Behind the vectors of the triangular factor stand those that belong to no value.
            left = q;
            multiply<Element>({q.data(), left_count}, {rows_of_left.data(), shorter, true}, {left.data(), left_count},
                              longer, shorter, shorter);
        } else {
            turn(Conjugated::no, rows_of_left.data(), shorter, shorter, shorter, left.data(), shorter);
        }
        return true;
    }
};

template <typename T>
SvdSolver<T>::SvdSolver(std::int64_t rows, std::int64_t cols, Want want)
    : work_(std::make_unique<Work>(rows, cols, want)) {}

template <typename T>
SvdSolver<T>::~SvdSolver() = default;

template <typename T>
bool SvdSolver<T>::decompose(const T* matrix, T* u, Real* s, T* vh) {
    Work& work = *work_;
    if (!work.decompose(matrix)) {
        return false;
    }
    const auto& values = work.form.diagonal;
    if (!std::all_of(values.begin(), values.end(),
                     [&](double value) { return std::isfinite(static_cast<Real>(value * work.scale)); })) {
        return false;
    }
    std::transform(values.begin(), values.end(), s,
                   [&](double value) { return static_cast<Real>(value * work.scale); });
    if (work.want == Want::values) {
        return true;
    }
    const std::int64_t k = work.shorter;
    const bool is_turned = work.is_turned();
    for (std::int64_t i = 0; i < k; ++i) {
        for (std::int64_t j = 0; j < k; ++j) {
            const auto x = work.right[static_cast<std::size_t>(i * k + j)];
            (is_turned ? u[j * k + i] : vh[i * k + j]) = static_cast<T>(is_turned ? x : conjugate(x));
        }
    }
    for (std::int64_t i = 0; i < work.longer; ++i) {
        for (std::int64_t j = 0; j < work.left_count; ++j) {
            const auto x = work.left[static_cast<std::size_t>(i * work.left_count + j)];
            (is_turned ? vh[j * work.longer + i] : u[i * work.left_count + j]) =
                static_cast<T>(is_turned ? conjugate(x) : x);
        }
    }
    return true;
}

ORNIK_INSTANTIATE_SOLVER(SvdSolver)

}  // namespace ornik::device::cpu
