// eigh and eigvalsh: the equations that eigenvectors obey, how gradients go together, refusals.
#include <cmath>
#include <cstring>
#include <limits>

#include "dense.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"
#include "tensor/tensor_math/linear_algebra.h"

namespace ornik::test {
namespace {

// Symmetric or Hermitian matrices of numbers in [-8, 8].
template <typename T>
std::vector<T> hermitian(std::int64_t batch, std::int64_t n) {
    std::vector<T> values = random_values<T>(batch * n * n, 1);
    for (std::int64_t row = 0; row < batch * n; ++row) {
        for (std::int64_t j = 0; j <= row % n; ++j) {
            const T lower = values[at(row, j, n)];
            T& upper = values[at(row / n * n + j, row % n, n)];
            upper = lower;
            if constexpr (is_complex<T>) {
                upper.imag = j == row % n ? 0 : -lower.imag;
            }
        }
    }
    return values;
}

struct Decomposition {
    explicit Decomposition(const TensorPtr& x) : Decomposition(eigh(x.get())) {}
    explicit Decomposition(const std::vector<Tensor*>& pair) : vectors(pair.at(0)), values(pair.at(1)) {}
    TensorPtr vectors, values;
};

void expect_form(const Decomposition& found, const Dims& shape, std::int64_t vectors_dtype, std::int64_t values_dtype) {
    ASSERT_EQ(found.vectors->Shape(), shape);
    ASSERT_EQ(found.values->Shape(), Dims(shape.begin(), shape.end() - 1));
    ASSERT_EQ(found.vectors->Dtype(), vectors_dtype);
    ASSERT_EQ(found.values->Dtype(), values_dtype);
}

// The largest element of A V - V diag(values) and of V^H V - 1, for one matrix.
double defect(const Number* a, const Number* v, const Number* values, std::int64_t n) {
    double worst = 0;
    for (std::int64_t i = 0; i < n; ++i) {
        for (std::int64_t j = 0; j < n; ++j) {
            Number residual = -v[at(i, j, n)] * values[j];
            Number inner = i == j ? -1 : 0;
            for (std::int64_t k = 0; k < n; ++k) {
                residual += a[at(i, k, n)] * v[at(k, j, n)];
                inner += std::conj(v[at(k, i, n)]) * v[at(k, j, n)];
            }
            worst = std::max({worst, std::abs(residual) / 8, std::abs(inner)});
        }
    }
    return worst;
}

TEST(Eigh, VectorsAndValuesObeyTheirEquations) {
    const auto check = []<typename T, typename Part>(const Dims& shape, Layout layout) {
        SCOPED_TRACE(dtype_name(dtype_code<T>) + " " + name_of(layout) + " " + shape_text(shape));
        const std::int64_t n = shape.back();
        const std::int64_t rows = numel_of(shape) / n;
        const std::vector<T> whole = hermitian<T>(rows / n, n);
        std::vector<T> input = whole;
        for (std::int64_t row = 0; row < rows; ++row) {  // What is not read.
            std::fill(&input[at(row, row % n, n)] + 1, input.data() + (row + 1) * n, T(std::nanf("")));
            if constexpr (is_complex<T>) {
                input[at(row, row % n, n)].imag = 7;
            }
        }
        const TensorPtr x = make<T>(shape, input, layout);
        const Decomposition found(x);
        const TensorPtr alone(eigvalsh(x.get()));
        EXPECT_EQ(std::memcmp(values_of<T>(x).data(), input.data(), input.size() * sizeof(T)), 0);
        expect_form(found, shape, dtype_code<T>, dtype_code<Part>);
        ASSERT_EQ(alone->Shape(), found.values->Shape());
        ASSERT_EQ(alone->Dtype(), dtype_code<Part>);
        const std::vector<Number> a = numbers(whole);
        const std::vector<Number> v = numbers(values_of<T>(found.vectors));
        const std::vector<Number> values = numbers(values_of<Part>(found.values));
        const std::vector<Number> single = numbers(values_of<Part>(alone));
        const double bound = 4 * static_cast<double>(n) * std::numeric_limits<Part>::epsilon();
        for (std::int64_t row = 0; row < rows; row += n) {
            EXPECT_LE(defect(&a[at(row, 0, n)], &v[at(row, 0, n)], &values[at(row, 0, 1)], n), bound);
            for (std::int64_t k = row; k < row + n; ++k) {
                EXPECT_TRUE(k == row || values[at(k, -1, 1)].real() <= values[at(k, 0, 1)].real());
                EXPECT_NEAR(single[at(k, 0, 1)].real(), values[at(k, 0, 1)].real(), 8 * bound);
            }
        }
    };
    for (const Dims& shape : {Dims{1, 1}, {2, 2}, {1, 7, 7}, {5, 16, 16}, {3, 1, 1}, {65, 65}}) {
        for (const Layout layout : all_layouts) {
            check.operator()<float, float>(shape, layout);
            check.operator()<double, double>(shape, layout);
            check.operator()<Complex<float>, float>(shape, layout);
            check.operator()<Complex<double>, double>(shape, layout);
        }
    }
    const TensorPtr some = make<double>({4}, {1, 2, 3, 4});
    for (const Dims& shape : {Dims{0, 3, 3}, Dims{2, 0, 0}, Dims{0, 0}}) {
        const Decomposition nothing(
            TensorPtr(share_storage_tensor(some->getStorage(), shape, shape, dtype::float64, 0)));
        expect_form(nothing, shape, dtype::float64, dtype::float64);
    }
}

TEST(Eigh, SameBitsForEveryTeamSize) {
    const TensorPtr x = make<float>({9, 20, 20}, hermitian<float>(9, 20));
    expect_same_bits([&] { return Decomposition(x).vectors.release(); });
}

TEST(Eigh, GradientsOfPartsAddUp) {
    for_types(TypeList<double, Complex<double>>{}, []<typename T>() {
        const TensorPtr x = make<T>({2, 4, 4}, hermitian<T>(2, 4));
        const TensorPtr gl = random_tensor({2, 4}, dtype::float64, 4, Layout::every_other);
        const std::vector<double> weights = values_of<double>(random_tensor({2, 4, 4}, dtype::float64, 3));
        std::vector<T> grad_vectors = values_of<T>(Decomposition(x).vectors);
        for (std::size_t k = 0; k < grad_vectors.size(); ++k) {
            grad_vectors[k] = combine(Op::mult, grad_vectors[k], T(2 * weights[k]));
        }
        const TensorPtr gv = make<T>({2, 4, 4}, grad_vectors, Layout::transposed);
        const TensorPtr of_vectors(eigh_grad(gv.get(), nullptr, x.get())), of_values(eigvalsh_grad(gl.get(), x.get()));
        const TensorPtr both(eigh_grad(gv.get(), gl.get(), x.get())), sum(of_vectors->add_tensor(of_values.get()));
        EXPECT_TRUE(both->all_close(sum.get(), 0, 1e-12));
        const Decomposition kept(x);
        EXPECT_EQ(bytes_of(TensorPtr(eigh_grad_from(gv.get(), gl.get(), kept.vectors.get(), kept.values.get()))),
                  bytes_of(both));
    });
}

TEST(Eigh, TellsWhichMatrixIsRefused) {
    const double nan = std::nan(""), huge = std::numeric_limits<double>::max();
    const std::pair<TensorPtr, std::string> cases[] = {
        {make<double>({2, 2, 2}, {1, 0, 0, 1, 1, 0, nan, 1}),
         " need finite elements, however matrix 1 holds NaN or infinity."},
        {make<double>({3, 2, 2}, {1, 0, 0, 1, huge, huge, huge, huge, huge, huge, huge, huge}),
         " did not converge to finite eigenvalues for matrix 1."},
    };
    for (const auto& [matrices, message] : cases) {
        Tensor* const x = matrices.get();
        expect_error([&] { eigh(x); }, "eigh" + message, "ornik::eigh", "src/tensor/tensor_utils.cpp");
        expect_error([&] { eigvalsh(x); }, "eigvalsh" + message, "ornik::eigvalsh", "src/tensor/tensor_utils.cpp");
    }
}

}  // namespace
}  // namespace ornik::test
