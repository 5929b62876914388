// cpu_decompositions.cpp: the solvers over batches of matrices.
#include "hardware/cpu/linear_algebra/cpu_decompositions.h"

#include <algorithm>
#include <cmath>
#include <memory>

#include "first_failure.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/parallel.h"
#include "matrix_solvers.h"
#include "solver_scalar.h"

namespace ornik::device::cpu {

namespace {

// The matrices of a tensor.
struct Batch {
    explicit Batch(const Tensor* t)
        : rows(t->Shape()[t->Shape().size() - 2]),
          cols(t->Shape().back()),
          count(rows * cols == 0 ? 0 : t->Size() / (rows * cols)) {}

    std::int64_t rows;
    std::int64_t cols;
    std::int64_t count;  // 0 when they have no elements

    // Calls body(begin, end) on ranges of matrices, in parallel when the batch is worth a second thread.
    template <typename Body>
    void for_ranges(const Body& body) const {
        constexpr std::int64_t grain_steps = 1 << 13;  // Some 20 microseconds.
        if (count > 0) {
            const double steps =
                static_cast<double>(rows) * static_cast<double>(cols) * static_cast<double>(std::min(rows, cols));
            parallel_for(count, 1, 1 + static_cast<std::int64_t>(grain_steps / steps), body);
        }
    }
};

// Matrix `index` of `size` elements; null for a null tensor.
template <typename Item>
Item* item_at(const Tensor* t, std::int64_t index, std::int64_t size) {
    return t == nullptr ? nullptr : static_cast<Item*>(t->getRawData()) + index * size;
}

// Calls each.operator()<Scalar>(solver, index) for every matrix of x; each range has a solver of its own, made from
// the extents.
template <template <typename> typename Solver, typename Each, typename... Extents>
void for_matrices(const Tensor* x, const Each& each, Extents... extents) {
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() {
        using Scalar = SolverScalar<T>;
        Batch(x).for_ranges([&](std::int64_t begin, std::int64_t end) {
            Solver<Scalar> solver(extents...);
            for (std::int64_t i = begin; i < end; ++i) {
                each.template operator()<Scalar>(solver, i);
            }
        });
    });
}

template <typename Each>
void for_factored(const Tensor* x, const Each& each) {
    const std::int64_t n = x->Shape().back();
    for_matrices<LuSolver>(
        x,
        [&]<typename T>(LuSolver<T>& solver, std::int64_t i) {
            solver.decompose(item_at<T>(x, i, n * n));
            each.template operator()<T>(solver, i);
        },
        n);
}

template <typename T>
bool all_finite(const T* numbers, std::int64_t count) {
    return std::all_of(numbers, numbers + count,
                       [](T z) { return std::isfinite(std::real(z)) && std::isfinite(std::imag(z)); });
}

void fill_identity(Tensor* t) {
    const std::int64_t n = t->Shape().back();
    dispatch(FloatOrComplexTypes{}, t->Dtype(), [&]<typename T>() {
        T* data = static_cast<T*>(t->getRawData());
        for (std::int64_t i = 0; i < t->Size(); ++i) {
            data[i] = i % (n * n) % (n + 1) == 0 ? T(1) : T(0);
        }
    });
}

}  // namespace

std::int64_t cpu_cholesky(const Tensor* x, Tensor* lower) {
    const std::int64_t n = x->Shape().back();
    FirstFailure failure;
    for_matrices<CholeskySolver>(
        x,
        [&]<typename T>(CholeskySolver<T>& solver, std::int64_t i) {
            if (!solver.decompose(item_at<T>(x, i, n * n), item_at<T>(lower, i, n * n))) {
                failure.report(i);
            }
        },
        n);
    return failure.get();
}

std::int64_t cpu_inverse(const Tensor* x, Tensor* out) {
    const std::int64_t n = x->Shape().back();
    FirstFailure failure;
    for_factored(x, [&]<typename T>(const LuSolver<T>& solver, std::int64_t i) {
        if (solver.is_singular()) {
            failure.report(i);
        } else {
            solver.inverse(item_at<T>(out, i, n * n));
        }
    });
    return failure.get();
}

std::int64_t cpu_solve(const Tensor* x, const Tensor* b, const std::vector<std::int64_t>& places, Tensor* out) {
    const Batch right(b);
    const std::int64_t n = right.rows;
    FirstFailure failure;
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() {
        using Scalar = SolverScalar<T>;
        Batch(b).for_ranges([&](std::int64_t begin, std::int64_t end) {
            LuSolver<Scalar> solver(n);
            std::int64_t factored = -1;
            for (std::int64_t i = begin; i < end; ++i) {
                const std::int64_t place = places[static_cast<std::size_t>(i)];
                if (place != factored) {
                    solver.decompose(item_at<Scalar>(x, place, n * n));
                    factored = place;
                }
                if (solver.is_singular()) {
                    failure.report(i);
                } else {
                    const std::int64_t size = n * right.cols;
                    solver.solve(item_at<Scalar>(b, i, size), right.cols, item_at<Scalar>(out, i, size));
                }
            }
        });
    });
    return failure.get();
}

void cpu_determinant(const Tensor* x, Tensor* out) {
    if (Batch(x).count == 0) {  // Of matrices without elements: 1.
        dispatch(FloatOrComplexTypes{}, x->Dtype(),
                 [&]<typename T>() { std::fill_n(static_cast<T*>(out->getRawData()), out->Size(), T(1)); });
    }
    for_factored(x, [&]<typename T>(const LuSolver<T>& solver, std::int64_t i) {
        *item_at<T>(out, i, 1) = solver.determinant();
    });
}

void cpu_log_determinant(const Tensor* x, Tensor* sign, Tensor* log_magnitude) {
    if (Batch(x).count == 0) {
        dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() {
            using Real = element::Coefficient<T>;
            std::fill_n(static_cast<T*>(sign->getRawData()), sign->Size(), T(1));
            std::fill_n(static_cast<Real*>(log_magnitude->getRawData()), sign->Size(), Real(0));
        });
    }
    for_factored(x, [&]<typename T>(const LuSolver<T>& solver, std::int64_t i) {
        solver.log_determinant(item_at<T>(sign, i, 1), item_at<RealOf<T>>(log_magnitude, i, 1));
    });
}

void cpu_qr(const Tensor* x, Tensor* q, Tensor* r) {
    const Batch batch(x);
    const std::int64_t rank = q->Shape().back();
    if (batch.count == 0 && q->Size() > 0) {  // The complete Q of no columns.
        fill_identity(q);
    }
    for_matrices<QrSolver>(
        x,
        [&]<typename T>(QrSolver<T>& solver, std::int64_t i) {
            solver.decompose(item_at<T>(x, i, batch.rows * batch.cols), rank, item_at<T>(q, i, batch.rows * rank),
                             item_at<T>(r, i, rank * batch.cols));
        },
        batch.rows, batch.cols);
}

std::int64_t cpu_svd(const Tensor* x, Tensor* u, Tensor* s, Tensor* vh) {
    const Batch batch(x);
    if (batch.count == 0) {
        for (Tensor* t : {u, vh}) {
            if (t != nullptr && t->Size() > 0) {
                fill_identity(t);
            }
        }
        return every_matrix;
    }
    FirstFailure failure;
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() {
        using Scalar = SolverScalar<T>;
        using Real = RealOf<Scalar>;
        using Solver = SvdSolver<Scalar>;
        const std::int64_t u_cols = u == nullptr ? 0 : u->Shape().back();
        const std::int64_t vh_rows = u == nullptr ? 0 : vh->Shape()[vh->Shape().size() - 2];
        const std::int64_t size = batch.rows * batch.cols;
        const bool is_full = u_cols == batch.rows && vh_rows == batch.cols;
        const auto want = u == nullptr ? Solver::Want::values : is_full ? Solver::Want::full : Solver::Want::reduced;
        batch.for_ranges([&](std::int64_t begin, std::int64_t end) {
            Solver solver(batch.rows, batch.cols, want);
            for (std::int64_t i = begin; i < end; ++i) {
                const Scalar* matrix = item_at<Scalar>(x, i, size);
                if (!all_finite(matrix, size) ||
                    !solver.decompose(matrix, item_at<Scalar>(u, i, batch.rows * u_cols),
                                      item_at<Real>(s, i, std::min(batch.rows, batch.cols)),
                                      item_at<Scalar>(vh, i, vh_rows * batch.cols))) {
                    failure.report(i);
                }
            }
        });
    });
    return failure.get();
}

std::int64_t cpu_eig(const Tensor* x, Tensor* values, Tensor* vectors) {
    const std::int64_t n = x->Shape().back();
    FirstFailure failure;
    for_matrices<EigSolver>(
        x,
        [&]<typename T>(EigSolver<T>& solver, std::int64_t i) {
            using Complex = std::complex<RealOf<T>>;
            const T* matrix = item_at<T>(x, i, n * n);
            if (!all_finite(matrix, n * n) ||
                !solver.decompose(matrix, item_at<Complex>(values, i, n), item_at<Complex>(vectors, i, n * n))) {
                failure.report(i);
            }
        },
        n);
    return failure.get();
}

namespace {

// Calls visit(value, is_above) for the values of one matrix.
template <typename Real, typename Visit>
void for_values(const Tensor* s, const Tensor* bounds, std::int64_t index, const Visit& visit) {
    const std::int64_t k = s->Shape().back();
    const Real* values = item_at<Real>(s, index, k);
    const Real bound = *item_at<Real>(bounds, index, 1) * *std::max_element(values, values + k);
    for (std::int64_t j = 0; j < k; ++j) {
        visit(j, values[j], values[j] > bound);
    }
}

}  // namespace

void cpu_divide_columns(Tensor* u, const Tensor* s, const Tensor* bounds) {
    const Batch batch(u);
    dispatch(FloatOrComplexTypes{}, u->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;
        batch.for_ranges([&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t i = begin; i < end; ++i) {
                T* columns = item_at<T>(u, i, batch.rows * batch.cols);
                for_values<Real>(s, bounds, i, [&](std::int64_t j, Real value, bool is_above) {
                    for (std::int64_t row = 0; row < batch.rows; ++row) {
                        T& element = columns[row * batch.cols + j];
                        element = is_above ? element / T(value) : T(0);
                    }
                });
            }
        });
    });
}

void cpu_count_above(const Tensor* s, const Tensor* bounds, Tensor* counts) {
    auto* results = static_cast<std::int64_t*>(counts->getRawData());
    std::fill_n(results, counts->Size(), 0);
    dispatch(FloatTypes{}, s->Dtype(), [&]<typename Real>() {
        for (std::int64_t i = 0; i < counts->Size() && s->Size() > 0; ++i) {
            for_values<Real>(s, bounds, i, [&](std::int64_t /*j*/, Real /*value*/, bool is_above) {
                results[i] += is_above ? 1 : 0;
            });
        }
    });
}

}  // namespace ornik::device::cpu
