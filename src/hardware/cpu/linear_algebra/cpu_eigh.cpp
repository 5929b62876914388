// cpu_eigh.cpp: eigen-decompositions over batches, and their gradient.
#include "hardware/cpu/linear_algebra/cpu_eigh.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <vector>

#include "../product/cpu_product_kernels.h"
#include "eigh_solver.h"
#include "first_failure.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/parallel.h"
#include "solver_scalar.h"

namespace ornik::device::cpu {

namespace {

// Element 0 of item `index` of a batch of items of `size` elements; null for a null tensor.
template <typename T>
T* item_at(const Tensor* t, std::int64_t index, std::int64_t size) {
    return t == nullptr ? nullptr : static_cast<T*>(t->getRawData()) + index * size;
}

std::int64_t batch_of(const Tensor* x) { return x->ndim() == 2 ? 1 : x->Shape()[0]; }

// Calls body(begin, end) on ranges of matrices, in parallel when the batch is worth a second thread.
template <typename Body>
void for_matrices(const Tensor* x, const Body& body) {
    constexpr std::int64_t grain_cubes = 1 << 13;  // Sum of n^3; some 20 microseconds.
    const std::int64_t n = x->Shape().back();
    if (n == 0) {
        return;
    }
    const std::int64_t grain = n < 32 ? grain_cubes / (n * n * n) + 1 : 1;
    parallel_for(batch_of(x), 1, grain, body);
}

template <typename T>
std::int64_t decompose(const Tensor* x, Tensor* vectors, Tensor* values) {
    using Scalar = SolverScalar<T>;
    using Real = element::Coefficient<T>;
    FirstFailure failure;
    for_matrices(x, [&](std::int64_t begin, std::int64_t end) {
        const std::int64_t n = x->Shape().back();
        EighSolver<Scalar> solver(n);
        for (std::int64_t i = begin; i < end; ++i) {
            if (!solver.decompose(item_at<Scalar>(x, i, n * n), item_at<Scalar>(vectors, i, n * n),
                                  item_at<Real>(values, i, n))) {
                failure.report(i);
            }
        }
    });
    return failure.get();
}

std::int64_t decompose_any(const Where& at, const char* kernel, const Tensor* x, Tensor* vectors, Tensor* values) {
    if (x->Dtype() < dtype::float32) {
        fail(at, "Not supported data type for ", kernel, "(), got", x->Dtype());
    }
    std::int64_t failed = all_matrices;
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() { failed = decompose<T>(x, vectors, values); });
    return failed;
}

template <typename T>
void gradient(const Tensor* vectors, const Tensor* values, const Tensor* grad_vectors, const Tensor* grad_values,
              Tensor* out) {
    using Scalar = SolverScalar<T>;
    using Real = element::Coefficient<T>;
    const std::int64_t n = out->Shape().back();
    const auto multiply = [n](bool transpose_a, const Scalar* a, bool transpose_b, const Scalar* b, Scalar* c) {
        float_product({1, n, n, n, transpose_a, transpose_b, false}, a, b, c);
    };
    const auto conjugate = [](Scalar x) {
        if constexpr (is_complex_element<T>) {
            return std::conj(x);
        } else {
            return x;
        }
    };
    for_matrices(out, [&](std::int64_t begin, std::int64_t end) {
        const auto size = static_cast<std::size_t>(n * n);
        std::vector<Scalar> conjugates(size);  // of the vectors
        std::vector<Scalar> inner(size);
        std::vector<Scalar> product(size);
        for (std::int64_t index = begin; index < end; ++index) {
            const auto* v = item_at<Scalar>(vectors, index, n * n);
            std::transform(v, v + n * n, conjugates.begin(), conjugate);
            std::fill(inner.begin(), inner.end(), Scalar(0));
            if (grad_vectors != nullptr) {
                const auto* value = item_at<Real>(values, index, n);
                multiply(true, conjugates.data(), false, item_at<Scalar>(grad_vectors, index, n * n), product.data());
                for (std::int64_t i = 0; i < n; ++i) {
                    for (std::int64_t j = i + 1; j < n; ++j) {
                        const auto above = static_cast<std::size_t>(i * n + j);
                        const auto below = static_cast<std::size_t>(j * n + i);
                        // The factors of (i, j) and (j, i) have opposite signs.
                        const Real gap = value[j] - value[i];
                        const Scalar part = product[above] - conjugate(product[below]);
                        inner[above] = gap == 0 ? Scalar(0) : part / (2 * gap);
                        inner[below] = conjugate(inner[above]);
                    }
                }
            }
            for (std::int64_t i = 0; i < n && grad_values != nullptr; ++i) {
                inner[static_cast<std::size_t>(i * n + i)] = item_at<Real>(grad_values, index, n)[i];
            }
            multiply(false, v, false, inner.data(), product.data());
            multiply(false, product.data(), true, conjugates.data(), item_at<Scalar>(out, index, n * n));
        }
    });
}

}  // namespace

std::int64_t cpu_first_not_finite(const Tensor* x) {
    FirstFailure failure;
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;
        constexpr std::int64_t parts = sizeof(T) / sizeof(Real);
        const Real* data = static_cast<const Real*>(x->getRawData());
        for_matrices(x, [&](std::int64_t begin, std::int64_t end) {
            const std::int64_t n = x->Shape().back();
            for (std::int64_t row = begin * n; row < end * n; ++row) {
                const Real* first = data + row * n * parts;
                for (std::int64_t i = 0; i < (row % n + 1) * parts; ++i) {
                    if (!std::isfinite(first[i])) {
                        failure.report(row / n);
                    }
                }
            }
        });
    });
    return failure.get();
}

std::int64_t cpu_eigh_impl(const Tensor* x, Tensor* vectors, Tensor* values) {
    return decompose_any(where("ornik::device::cpu::cpu_eigh_impl"), "cpu_eigh_impl", x, vectors, values);
}

std::int64_t cpu_eigvalsh_impl(const Tensor* x, Tensor* values) {
    return decompose_any(where("ornik::device::cpu::cpu_eigvalsh_impl"), "cpu_eigvalsh_impl", x, nullptr, values);
}

std::int64_t cpu_eigvec(const Tensor* x, Tensor* vectors) {
    return decompose_any(where("ornik::device::cpu::cpu_eigvec"), "cpu_eigvec", x, vectors, nullptr);
}

void cpu_eigh_grad(const Tensor* vectors, const Tensor* values, const Tensor* grad_vectors, const Tensor* grad_values,
                   Tensor* out) {
    dispatch(FloatOrComplexTypes{}, out->Dtype(),
             [&]<typename T>() { gradient<T>(vectors, values, grad_vectors, grad_values, out); });
}

}  // namespace ornik::device::cpu
