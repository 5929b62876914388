// merged_vectors.h: the last step of divide and conquer: new vectors from those of the two parts. Included by
// *_vector.cpp files.
#pragma once

#include <algorithm>
#include <numeric>
#include <vector>

#include "row_operations.h"
#include "solver_products.h"

namespace ornik::device::cpu {

/// Which elements of a row may differ from zero.
enum class Side : signed char { first, all, last };

inline Side both_sides(Side a, Side b) { return a == b ? a : Side::all; }

/// Replaces some rows by combinations of them.
template <typename R>
class MergedVectors {
  public:
    /// For up to `most` rows of up to `length` elements.
    MergedVectors(std::int64_t most, std::int64_t length)
        : by_side_(static_cast<std::size_t>(most)),
          weights_(static_cast<std::size_t>(most * most)),
          old_(static_cast<std::size_t>(most * length)),
          made_(old_.size()) {}

    /// The rows are rows[i], i < count, each with its side.
    void choose(const std::int64_t* rows, std::int64_t count, const Side* side_of_row) {
        rows_ = rows;
        count_ = count;
        std::iota(by_side_.begin(), by_side_.begin() + count, 0);
        const auto side = [=](std::int64_t i) { return side_of_row[rows[i]]; };
        std::stable_sort(by_side_.begin(), by_side_.begin() + count,
                         [&](std::int64_t i, std::int64_t j) { return side(i) < side(j); });
        const auto place = [&](Side least) {
            const auto end = by_side_.begin() + count;
            return std::find_if(by_side_.begin(), end, [&](std::int64_t i) { return side(i) >= least; }) -
                   by_side_.begin();
        };
        begin_of_all_ = place(Side::all);
        begin_of_last_ = place(Side::last);
    }

    /// Combination i is to have these weights, scaled to a length of 1.
    void weigh(std::int64_t i, const double* weights) {
        const double length = std::sqrt(square_sum(weights, count_));
        R* out = weights_.data() + i * count_;
        for (std::int64_t k = 0; k < count_; ++k) {
            out[k] = static_cast<R>(weights[by_side_[static_cast<std::size_t>(k)]] / length);
        }
    }

    /// Row rows[i] of the matrix becomes combination i. Rows of the first side fill `first` columns.
    void replace(R* matrix, std::int64_t step, std::int64_t first, std::int64_t columns) {
        combine(matrix, step, 0, begin_of_last_, 0, first, columns);
        combine(matrix, step, begin_of_all_, count_, first, columns - first, columns);
        for (std::int64_t i = 0; i < count_; ++i) {
            std::copy_n(made_.data() + i * columns, columns, matrix + rows_[i] * step);
        }
    }

  private:
    void combine(const R* matrix, std::int64_t step, std::int64_t begin, std::int64_t end, std::int64_t column,
                 std::int64_t some, std::int64_t columns) {
        for (std::int64_t k = begin; k < end; ++k) {
            const R* row = matrix + rows_[by_side_[static_cast<std::size_t>(k)]] * step + column;
            std::copy_n(row, some, old_.data() + (k - begin) * some);
        }
        multiply<R>({weights_.data() + begin, count_}, {old_.data(), some}, {made_.data() + column, columns}, count_,
                    end - begin, some);
    }

    const std::int64_t* rows_ = nullptr;
    std::int64_t count_ = 0;
    std::int64_t begin_of_all_ = 0;
    std::int64_t begin_of_last_ = 0;
    std::vector<std::int64_t> by_side_;
    std::vector<R> weights_;
    std::vector<R> old_;
    std::vector<R> made_;
};

}  // namespace ornik::device::cpu
