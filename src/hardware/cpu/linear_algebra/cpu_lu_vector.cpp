// cpu_lu_vector.cpp: triangular factors of any square matrix.
//
// Some columns at a time, turned so that they are rows in memory, then the product of these with the rows beside them.
#include <bit>
#include <numeric>
#include <vector>

#include "hardware/cpu/elements/elementary.h"
#include "row_operations.h"
#include "solver_products.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t columns_at_once = 32;

// Where the first of the largest elements is; NaN is larger than all. Complex elements are measured by the sum of their
// parts.
template <typename T>
std::int64_t place_of_largest(const T* x, std::int64_t n) {
    using R = RealOf<T>;
    using Bits = std::conditional_t<sizeof(R) == 4, std::int32_t, std::int64_t>;
    const auto size = [](T z) {  // Numbers without a sign are ordered as their bits are.
        if constexpr (is_complex_scalar<T>) {
            return std::bit_cast<Bits>(std::fabs(z.real()) + std::fabs(z.imag()));
        } else {
            return std::bit_cast<Bits>(std::fabs(z));
        }
    };
    Bits largest = 0;
    for (std::int64_t i = 0; i < n; ++i) {
        largest = std::max(largest, size(x[i]));
    }
    return std::find_if(x, x + n, [&](T z) { return size(z) == largest; }) - x;
}

}  // namespace

template <typename T>
struct LuSolver<T>::Work {
    std::int64_t n;
    std::vector<T> factors;             // L below the diagonal, without its ones, and U
    std::vector<std::int64_t> places;   // The row of the matrix that is row i here.
    std::vector<std::int64_t> swapped;  // The row that changed places with row i of the columns at work.
    std::vector<T> columns;
    bool odd = false;  // permutation

    explicit Work(std::int64_t size)
        : n(size),
          factors(static_cast<std::size_t>(size * size)),
          places(static_cast<std::size_t>(size)),
          swapped(static_cast<std::size_t>(columns_at_once)),
          columns(static_cast<std::size_t>(size * columns_at_once)) {}

    T* row(std::int64_t i) { return factors.data() + i * n; }
    const T* row(std::int64_t i) const { return factors.data() + i * n; }

    // Columns [begin, end) of the rows from `begin` on, as rows of `columns`.
    void factor_columns(std::int64_t begin, std::int64_t end) {
        const std::int64_t rows = n - begin;
        const std::int64_t count = end - begin;
        turn(Conjugated::no, row(begin) + begin, n, rows, count, columns.data(), rows);
        for (std::int64_t k = 0; k < count; ++k) {
            T* column = columns.data() + k * rows;
            const std::int64_t place = k + place_of_largest(column + k, rows - k);
            swapped[static_cast<std::size_t>(k)] = place;
            if (place != k) {
                for (std::int64_t j = 0; j < count; ++j) {
                    std::swap(columns[static_cast<std::size_t>(j * rows + k)],
                              columns[static_cast<std::size_t>(j * rows + place)]);
                }
            }
            const T pivot = column[k];
            if (pivot == T(0)) {
                continue;
            }
            T* below = column + k + 1;
            const std::int64_t rest = rows - k - 1;
            if constexpr (is_complex_scalar<T>) {
                scale_row(inverse_of(pivot), rest, below);
            } else {
                divide_row<T>(pivot, rest, below);
            }
            for (std::int64_t j = k + 1; j < count; ++j) {
                T* other = columns.data() + j * rows + k;
                add_scaled(-other[0], below, rest, other + 1);
            }
        }
        turn(Conjugated::no, columns.data(), rows, count, rows, row(begin) + begin, n);
    }

    // What happened to those columns, to the others.
    void follow(std::int64_t begin, std::int64_t end) {
        for (std::int64_t k = begin; k < end; ++k) {
            const std::int64_t other = begin + swapped[static_cast<std::size_t>(k - begin)];
            if (other != k) {
                odd = !odd;
                std::swap(places[static_cast<std::size_t>(k)], places[static_cast<std::size_t>(other)]);
                std::swap_ranges(row(k), row(k) + begin, row(other));
                std::swap_ranges(row(k) + end, row(k) + n, row(other) + end);
            }
        }
        const std::int64_t rest = n - end;
        if (rest == 0) {
            return;
        }
        const std::int64_t count = end - begin;
        T* negative = columns.data();
        for (std::int64_t i = begin; i < n; ++i) {
            std::transform(row(i) + begin, row(i) + end, negative + (i - begin) * count, std::negate<T>());
        }
        for (std::int64_t i = begin + 1; i < end; ++i) {
            add_combination<T>(i - begin, negative + (i - begin) * count, 1, row(begin) + end, n, rest, row(i) + end);
        }
        multiply<T>({negative + count * count, count}, {row(begin) + end, n}, {row(end) + end, n}, rest, count, rest,
                    true);
    }

    // x = U^-1 L^-1 x, n x cols
    void solve_in_place(std::int64_t cols, T* x) const {
        if (cols == 1) {
            for (std::int64_t i = 1; i < n; ++i) {
                x[i] -= dot(Conjugated::no, row(i), x, i);
            }
            for (std::int64_t i = n; i-- > 0;) {
                x[i] = over(x[i] - dot(Conjugated::no, row(i) + i + 1, x + i + 1, n - i - 1), row(i)[i]);
            }
            return;
        }
        constexpr std::int64_t at_once = columns_at_once;
        std::vector<T> negative(static_cast<std::size_t>(at_once * cols));
        T factors_of_row[at_once];
        // x's row i without `count` of its rows from `first` on.
        const auto take_rows = [&](std::int64_t i, std::int64_t first, std::int64_t count) {
            std::transform(row(i) + first, row(i) + first + count, factors_of_row, std::negate<T>());
            add_combination<T>(count, factors_of_row, 1, x + first * cols, cols, cols, x + i * cols);
        };
        // Rows [begin, end) of x without the finished rows [first, first + count).
        const auto take_product = [&](std::int64_t begin, std::int64_t end, std::int64_t first, std::int64_t count) {
            std::transform(x + first * cols, x + (first + count) * cols, negative.begin(), std::negate<T>());
            multiply<T>({row(begin) + first, n}, {negative.data(), cols}, {x + begin * cols, cols}, end - begin, count,
                        cols, true);
        };
        for (std::int64_t begin = 0; begin < n; begin += at_once) {
            const std::int64_t end = std::min(n, begin + at_once);
            for (std::int64_t i = begin + 1; i < end; ++i) {
                take_rows(i, begin, i - begin);
            }
            take_product(end, n, begin, end - begin);
        }
        for (std::int64_t begin = (n - 1) / at_once * at_once; begin >= 0; begin -= at_once) {
            const std::int64_t end = std::min(n, begin + at_once);
            for (std::int64_t i = end; i-- > begin;) {
                take_rows(i, i + 1, end - i - 1);
                if constexpr (is_complex_scalar<T>) {
                    scale_row(inverse_of(row(i)[i]), cols, x + i * cols);
                } else {
                    divide_row<T>(row(i)[i], cols, x + i * cols);
                }
            }
            take_product(0, begin, begin, end - begin);
        }
    }

    static T over(T a, T b) {
        if constexpr (is_complex_scalar<T>) {
            return times(a, inverse_of(b));
        } else {
            return a / b;
        }
    }
};

template <typename T>
LuSolver<T>::LuSolver(std::int64_t n) : work_(std::make_unique<Work>(n)) {}

template <typename T>
LuSolver<T>::~LuSolver() = default;

template <typename T>
void LuSolver<T>::decompose(const T* matrix) {
    Work& work = *work_;
    std::copy_n(matrix, work.n * work.n, work.row(0));
    std::iota(work.places.begin(), work.places.end(), 0);
    work.odd = false;
    for (std::int64_t begin = 0; begin < work.n; begin += columns_at_once) {
        const std::int64_t end = std::min(work.n, begin + columns_at_once);
        work.factor_columns(begin, end);
        work.follow(begin, end);
    }
}

template <typename T>
bool LuSolver<T>::is_singular() const {
    for (std::int64_t i = 0; i < work_->n; ++i) {
        if (work_->row(i)[i] == T(0)) {
            return true;
        }
    }
    return false;
}

template <typename T>
void LuSolver<T>::inverse(T* out) const {
    const std::int64_t n = work_->n;
    std::fill_n(out, n * n, T(0));
    for (std::int64_t i = 0; i < n; ++i) {
        out[i * n + work_->places[static_cast<std::size_t>(i)]] = T(1);
    }
    work_->solve_in_place(n, out);
}

template <typename T>
void LuSolver<T>::solve(const T* b, std::int64_t columns, T* x) const {
    const std::int64_t n = work_->n;
    std::vector<T> permuted(static_cast<std::size_t>(n * columns));
    for (std::int64_t i = 0; i < n; ++i) {
        std::copy_n(b + work_->places[static_cast<std::size_t>(i)] * columns, columns, permuted.data() + i * columns);
    }
    work_->solve_in_place(columns, permuted.data());
    std::copy(permuted.begin(), permuted.end(), x);
}

template <typename T>
T LuSolver<T>::determinant() const {
    // Kept near 1, with the powers of two aside: only the result itself can be too large or too small.
    T product = T(work_->odd ? Real(-1) : Real(1));
    std::int64_t exponent = 0;
    const auto near_one = [&exponent](T x) {
        const Real scale = scale_below(largest_part(&x, 1));
        exponent += std::ilogb(scale);
        return x / scale;
    };
    for (std::int64_t i = 0; i < work_->n; ++i) {
        product = near_one(times(product, near_one(work_->row(i)[i])));
    }
    const auto power = static_cast<int>(std::clamp<std::int64_t>(exponent, -5000, 5000));
    if constexpr (is_complex_scalar<T>) {
        return T(std::ldexp(product.real(), power), std::ldexp(product.imag(), power));
    } else {
        return std::ldexp(product, power);
    }
}

template <typename T>
void LuSolver<T>::log_determinant(T* sign, Real* log_magnitude) const {
    *sign = T(work_->odd ? Real(-1) : Real(1));
    *log_magnitude = 0;
    for (std::int64_t i = 0; i < work_->n; ++i) {
        const T pivot = work_->row(i)[i];
        const Real size = magnitude(pivot);
        *sign = size == 0 ? T(0) : times(*sign, pivot / size);
        *log_magnitude += elementary::log(size);
    }
}

ORNIK_INSTANTIATE_SOLVER(LuSolver)

}  // namespace ornik::device::cpu
