// cpu_qr_vector.cpp: orthogonal factors. Columns lie in rows here.
#include "reflections.h"

namespace ornik::device::cpu {

template <typename T>
struct QrSolver<T>::Work {
    std::int64_t rows;
    std::int64_t cols;
    std::vector<T> columns;
    std::vector<T> t;
    std::vector<T> q;
    Reflections<T> together;

    Work(std::int64_t m, std::int64_t n)
        : rows(m),
          cols(n),
          columns(static_cast<std::size_t>(m * n)),
          t(static_cast<std::size_t>(std::min(m, n))),
          together(m, std::max(m, n)) {}

    T* column(std::int64_t j) { return columns.data() + j * rows; }

    // The first `rank` columns of Q.
    void form_q(std::int64_t rank, T* out) {
        q.assign(static_cast<std::size_t>(rank * rows), T(0));
        for (std::int64_t i = 0; i < rank; ++i) {
            q[static_cast<std::size_t>(i * rows + i)] = T(1);
        }
        apply_all(together, column(0), rows, t.data(), static_cast<std::int64_t>(t.size()), 0, q.data(), rank, rows,
                  true);
        turn(Conjugated::no, q.data(), rows, rank, rows, out, rank);
    }
};

template <typename T>
QrSolver<T>::QrSolver(std::int64_t rows, std::int64_t cols) : work_(std::make_unique<Work>(rows, cols)) {}

template <typename T>
QrSolver<T>::~QrSolver() = default;

template <typename T>
void QrSolver<T>::decompose(const T* matrix, std::int64_t rank, T* q, T* r) {
    Work& work = *work_;
    const std::int64_t rows = work.rows;
    const std::int64_t cols = work.cols;
    const auto count = static_cast<std::int64_t>(work.t.size());
    const auto scale = scale_below(largest_part(matrix, rows * cols));
    turn(Conjugated::no, matrix, cols, rows, cols, work.column(0), rows);
    divide_row(scale, rows * cols, work.column(0));
    for (std::int64_t begin = 0; begin < count; begin += Reflections<T>::most) {
        const std::int64_t end = std::min(count, begin + Reflections<T>::most);
        for (std::int64_t k = begin; k < end; ++k) {
            T& t = work.t[static_cast<std::size_t>(k)];
            t = make_reflection(work.column(k) + k, rows - k);
            for (std::int64_t j = k + 1; j < end; ++j) {
                reflect(t, work.column(k) + k, rows - k, work.column(j) + k);
            }
        }
        if (end < cols) {
            work.together.take(work.column(begin) + begin, rows, end - begin, rows - begin, work.t.data() + begin);
            work.together.apply(true, work.column(end) + begin, rows, cols - end);
        }
    }
    if (q != nullptr) {
        work.form_q(rank, q);
    }
    std::fill_n(r, rank * cols, T(0));
    turn(Conjugated::no, work.column(0), rows, cols, rank, r, cols, Triangle::lower);
    scale_row(T(scale), rank * cols, r);
}

ORNIK_INSTANTIATE_SOLVER(QrSolver)

}  // namespace ornik::device::cpu
