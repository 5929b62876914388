// cpu_eig_vector.cpp: eigenvalues of any square matrix. Vectors lie in rows until the end.
#include "hessenberg.h"
#include "schur.h"

namespace ornik::device::cpu {

template <typename T>
struct EigSolver<T>::Work {
    std::int64_t n;
    std::vector<T> h;
    std::vector<T> q;
    std::vector<T> x;
    std::vector<T> vectors;
    std::vector<Complex> values;
    Hessenberg<T> form;

    explicit Work(std::int64_t size)
        : n(size), h(static_cast<std::size_t>(size * size)), values(static_cast<std::size_t>(size)), form(size) {}

    T* row(std::int64_t i) { return vectors.data() + i * n; }

    // Vectors of length 1.
    void write(Complex* out) {
        for (std::int64_t k = 0; k < n; ++k) {
            const bool is_pair = !is_complex_scalar<T> && values[static_cast<std::size_t>(k)].imag() != 0;
            const std::int64_t count = (is_pair ? 2 : 1) * n;
            divide_row(largest_part(row(k), count), count, row(k));
            divide_row(std::sqrt(square_sum(row(k), count)), count, row(k));
            for (std::int64_t i = 0; i < n; ++i) {
                Complex* to = out + i * n + k;
                if constexpr (is_complex_scalar<T>) {
                    to[0] = row(k)[i];
                } else if (is_pair) {
                    to[0] = Complex(row(k)[i], row(k + 1)[i]);
                    to[1] = conjugate(to[0]);
                } else {
                    to[0] = row(k)[i];
                }
            }
            k += is_pair ? 1 : 0;
        }
    }
};

template <typename T>
EigSolver<T>::EigSolver(std::int64_t n) : work_(std::make_unique<Work>(n)) {}

template <typename T>
EigSolver<T>::~EigSolver() = default;

template <typename T>
bool EigSolver<T>::decompose(const T* matrix, Complex* values, Complex* vectors) {
    Work& work = *work_;
    const std::int64_t n = work.n;
    const auto scale = scale_below(largest_part(matrix, n * n));
    std::copy_n(matrix, n * n, work.h.begin());
    divide_row(scale, n * n, work.h.data());
    if (vectors != nullptr) {
        work.q.resize(work.h.size());
    }
    T* const q = vectors != nullptr ? work.q.data() : nullptr;
    work.form.reduce(work.h.data(), q);
    if (!make_triangular(n, work.h.data(), q, work.values.data())) {
        return false;
    }
    std::transform(work.values.begin(), work.values.end(), values, [=](Complex z) { return z * scale; });
    if (vectors != nullptr) {
        work.x.resize(work.h.size());
        work.vectors.resize(work.h.size());
        triangular_vectors(n, work.h.data(), work.values.data(), work.x.data());
        multiply<T>({work.x.data(), n}, {q, n}, {work.row(0), n}, n, n, n);
        work.write(vectors);
    }
    return true;
}

ORNIK_INSTANTIATE_SOLVER(EigSolver)

}  // namespace ornik::device::cpu
