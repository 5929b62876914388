// cpu_cholesky_vector.cpp: triangular factors of positive definite matrices.
//
// The factor is found as U = L^H, row by row: some rows at a time, whose product then leaves the rows below.
#include <vector>

#include "row_operations.h"
#include "solver_products.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t rows_at_once = 32;
constexpr std::int64_t product_rows = 96;  // of the triangle that a product works on

}  // namespace

template <typename T>
struct CholeskySolver<T>::Work {
    std::int64_t n;
    std::vector<T> upper;
    std::vector<T> factors;  // of the rows to take away

    explicit Work(std::int64_t size)
        : n(size),
          upper(static_cast<std::size_t>(size * size)),
          factors(static_cast<std::size_t>(size * rows_at_once)) {}

    T* row(std::int64_t i) { return upper.data() + i * n; }

    // Rows [begin, end), from which all rows above have been taken.
    bool finish_rows(std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            for (std::int64_t k = begin; k < i; ++k) {
                factors[static_cast<std::size_t>(k - begin)] = -conjugate(row(k)[i]);
            }
            add_combination<T>(i - begin, factors.data(), 1, row(begin) + i, n, n - i, row(i) + i);
            const auto square = std::real(row(i)[i]);
            if (!(square > 0)) {  // NaN, too
                return false;
            }
            const auto root = std::sqrt(square);
            row(i)[i] = root;
            divide_row(root, n - i - 1, row(i) + i + 1);
        }
        return true;
    }

    // Takes the product of rows [begin, end) from all rows below.
    void take_away(std::int64_t begin, std::int64_t end) {
        const std::int64_t rest = n - end;
        for (std::int64_t k = begin; k < end; ++k) {
            std::transform(row(k) + end, row(k) + n, factors.data() + (k - begin) * rest,
                           [](T x) { return -conjugate(x); });
        }
        for (std::int64_t first = 0; first < rest; first += product_rows) {
            const std::int64_t rows = std::min(product_rows, rest - first);
            multiply<T>({factors.data() + first, rest, true}, {row(begin) + end + first, n},
                        {row(end + first) + end + first, n}, rows, end - begin, rest - first, true);
        }
    }
};

template <typename T>
CholeskySolver<T>::CholeskySolver(std::int64_t n) : work_(std::make_unique<Work>(n)) {}

template <typename T>
CholeskySolver<T>::~CholeskySolver() = default;

template <typename T>
bool CholeskySolver<T>::decompose(const T* matrix, T* lower) {
    Work& work = *work_;
    const std::int64_t n = work.n;
    turn(Conjugated::yes, matrix, n, n, n, work.row(0), n, Triangle::lower);
    for (std::int64_t begin = 0; begin < n; begin += rows_at_once) {
        const std::int64_t end = std::min(n, begin + rows_at_once);
        if (!work.finish_rows(begin, end)) {
            return false;
        }
        work.take_away(begin, end);
    }
    for (std::int64_t i = 0; i < n; ++i) {
        std::fill(lower + i * n + i + 1, lower + (i + 1) * n, T(0));
    }
    turn(Conjugated::yes, work.row(0), n, n, n, lower, n, Triangle::upper);
    return true;
}

ORNIK_INSTANTIATE_SOLVER(CholeskySolver)

}  // namespace ornik::device::cpu
