// cpu_sparse.cpp: checks, conversions and products of sparse matrices.
#include "hardware/cpu/linear_algebra/cpu_sparse.h"

#include <algorithm>
#include <cstring>

#include "hardware/cpu/copy/element_access.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

std::int64_t entries_per_row(const SparseRows& matrix) {
    return matrix.rows > 0 ? matrix.entries() / matrix.rows + 1 : 1;
}

}  // namespace

SparseFault find_coo_fault(std::int64_t rows, std::int64_t cols, std::int64_t entries, const std::int64_t* row_indices,
                           const std::int64_t* columns) {
    for (std::int64_t i = 0; i < entries; ++i) {
        if (row_indices[i] < 0 || row_indices[i] >= rows) {
            return {SparseFault::Kind::row_range, i};
        }
        if (columns[i] < 0 || columns[i] >= cols) {
            return {SparseFault::Kind::column_range, i};
        }
        if (i > 0 && (row_indices[i] < row_indices[i - 1] ||
                      (row_indices[i] == row_indices[i - 1] && columns[i] <= columns[i - 1]))) {
            return {SparseFault::Kind::order, i};
        }
    }
    return {};
}

SparseFault find_csr_fault(std::int64_t rows, std::int64_t cols, std::int64_t entries, const std::int64_t* offsets,
                           const std::int64_t* columns) {
    if (offsets[0] != 0) {
        return {SparseFault::Kind::first_offset, 0};
    }
    for (std::int64_t row = 0; row < rows; ++row) {
        if (offsets[row + 1] < offsets[row]) {
            return {SparseFault::Kind::offset_order, row + 1};
        }
    }
    if (offsets[rows] != entries) {
        return {SparseFault::Kind::last_offset, rows};
    }
    for (std::int64_t row = 0; row < rows; ++row) {
        for (std::int64_t i = offsets[row]; i < offsets[row + 1]; ++i) {
            if (columns[i] < 0 || columns[i] >= cols) {
                return {SparseFault::Kind::column_range, i};
            }
            if (i > offsets[row] && columns[i] <= columns[i - 1]) {
                return {SparseFault::Kind::order, i};
            }
        }
    }
    return {};
}

void row_offsets(std::int64_t rows, std::int64_t entries, const std::int64_t* row_indices, std::int64_t* offsets) {
    std::int64_t entry = 0;
    for (std::int64_t row = 0; row <= rows; ++row) {
        while (entry < entries && row_indices[entry] < row) {
            ++entry;
        }
        offsets[row] = entry;
    }
}

void row_indices(std::int64_t rows, const std::int64_t* offsets, std::int64_t* indices) {
    for (std::int64_t row = 0; row < rows; ++row) {
        std::fill(indices + offsets[row], indices + offsets[row + 1], row);
    }
}

void count_entries(const Tensor* dense, std::int64_t* offsets) {
    const std::int64_t rows = dense->Shape()[0];
    const std::int64_t cols = dense->Shape()[1];
    dispatch(AllTypes{}, dense->Dtype(), [&]<typename T>() {
        const Elements<T> items(dense);
        for_rows(rows, cols, [&](std::int64_t row) {
            std::int64_t count = 0;
            for (std::int64_t i = row * cols; i < (row + 1) * cols; ++i) {
                count += !(items[i] == T()) ? 1 : 0;
            }
            offsets[row + 1] = count;
        });
    });
    offsets[0] = 0;
    for (std::int64_t row = 0; row < rows; ++row) {
        offsets[row + 1] += offsets[row];
    }
}

void gather_entries(const Tensor* dense, const std::int64_t* offsets, std::int64_t* columns, Tensor* values) {
    const std::int64_t cols = dense->Shape()[1];
    dispatch(AllTypes{}, dense->Dtype(), [&]<typename T>() {
        const Elements<T> items(dense);
        T* kept = static_cast<T*>(values->getRawData());
        for_rows(dense->Shape()[0], cols, [&](std::int64_t row) {
            std::int64_t entry = offsets[row];
            for (std::int64_t col = 0; col < cols; ++col) {
                const T item = items[row * cols + col];
                if (!(item == T())) {
                    columns[entry] = col;
                    kept[entry++] = item;
                }
            }
        });
    });
}

void scatter_entries(const SparseRows& matrix, Tensor* dense) {
    dispatch(AllTypes{}, dense->Dtype(), [&]<typename T>() {
        const Elements<T> values(matrix.values);
        T* items = static_cast<T*>(dense->getRawData());
        for_rows(matrix.rows, matrix.cols + entries_per_row(matrix), [&](std::int64_t row) {
            T* target = items + row * matrix.cols;
            std::fill_n(target, matrix.cols, T());
            for (std::int64_t i = matrix.offsets[row]; i < matrix.offsets[row + 1]; ++i) {
                target[matrix.columns[i]] = values[i];
            }
        });
    });
}

void sparse_product(const SparseRows& matrix, const Tensor* dense, Tensor* out) {
    const std::int64_t width = out->Shape()[1];
    dispatch(AllTypes{}, out->Dtype(), [&]<typename T>() {
        const Elements<T> values(matrix.values);
        const Elements<T> items(dense);
        T* sums = static_cast<T*>(out->getRawData());
        for_rows(matrix.rows, entries_per_row(matrix) * width, [&](std::int64_t row) {
            T* sum = sums + row * width;
            std::fill_n(sum, width, T());
            for (std::int64_t i = matrix.offsets[row]; i < matrix.offsets[row + 1]; ++i) {
                add_scaled_row(values[i], items, matrix.columns[i] * width, width, sum);
            }
        });
    });
}

void sparse_adjoint_product(const SparseRows& matrix, const Tensor* dense, Tensor* out) {
    const std::int64_t width = out->Shape()[1];
    dispatch(AllTypes{}, out->Dtype(), [&]<typename T>() {
        const Elements<T> values(matrix.values);
        const Elements<T> items(dense);
        T* sums = static_cast<T*>(out->getRawData());
        // Each worker owns columns of `out`, so that no sum depends on the cut.
        const std::int64_t grain = row_loop_grain / (matrix.entries() + matrix.cols + 1) + 1;
        parallel_for(width, 16, grain, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t col = 0; col < matrix.cols; ++col) {
                std::fill(sums + col * width + begin, sums + col * width + end, T());
            }
            for (std::int64_t row = 0; row < matrix.rows; ++row) {
                for (std::int64_t i = matrix.offsets[row]; i < matrix.offsets[row + 1]; ++i) {
                    add_scaled_row(conjugate(values[i]), items, row * width + begin, end - begin,
                                   sums + matrix.columns[i] * width + begin);
                }
            }
        });
    });
}

void sparse_sampled_product(const SparseRows& matrix, const Tensor* grad, const Tensor* dense, Tensor* values) {
    const std::int64_t width = dense->Shape()[1];
    dispatch(AllTypes{}, values->Dtype(), [&]<typename T>() {
        const Elements<T> gradient(grad);
        const Elements<T> items(dense);
        T* results = static_cast<T*>(values->getRawData());
        for_rows(matrix.rows, entries_per_row(matrix) * width, [&](std::int64_t row) {
            for (std::int64_t i = matrix.offsets[row]; i < matrix.offsets[row + 1]; ++i) {
                results[i] = inner_product(gradient, row * width, items, matrix.columns[i] * width, width);
            }
        });
    });
}

}  // namespace ornik::device::cpu
