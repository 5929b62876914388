// eigh and eigvalsh: the equations that eigenvectors obey, gradients against central differences, refusals.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "hardware/thread_config.h"
#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/tensor_math/linear_algebra.h"

namespace ornik::test {
namespace {

using Number = std::complex<double>;
using FloatOrComplex = TypeList<float, double, Complex<float>, Complex<double>>;

template <typename T>
struct Element {
    using Part = T;
    static T from(Number z) { return static_cast<T>(z.real()); }
    static Number to(T x) { return static_cast<double>(x); }
};
template <typename P>
struct Element<Complex<P>> {
    using Part = P;
    static Complex<P> from(Number z) { return {static_cast<P>(z.real()), static_cast<P>(z.imag())}; }
    static Number to(Complex<P> x) { return {static_cast<double>(x.real), static_cast<double>(x.imag)}; }
};

template <typename T>
std::vector<Number> numbers_of(const Tensor* t) {
    std::vector<Number> numbers;
    for (const T value : values_of<T>(t)) {
        numbers.push_back(Element<T>::to(value));
    }
    return numbers;
}

std::size_t at(std::int64_t i, std::int64_t j, std::int64_t n) { return static_cast<std::size_t>(i * n + j); }

// Symmetric or Hermitian matrices of numbers in [-1, 1].
template <typename T>
std::vector<T> hermitian(std::int64_t batch, std::int64_t n) {
    std::mt19937 engine(static_cast<unsigned>(n));
    std::uniform_real_distribution<double> part(-1, 1);
    std::vector<T> values(static_cast<std::size_t>(batch * n * n));
    for (std::int64_t b = 0; b < batch; ++b) {
        for (std::int64_t i = 0; i < n; ++i) {
            for (std::int64_t j = 0; j <= i; ++j) {
                const Number z(part(engine), i == j ? 0 : part(engine));
                values[at(b * n + i, j, n)] = Element<T>::from(z);
                values[at(b * n + j, i, n)] = Element<T>::from(std::conj(z));
            }
        }
    }
    return values;
}

// The largest element of A V - V diag(values) and of V^H V - 1, for one matrix.
double defect(const Number* a, const Number* v, const double* values, std::int64_t n) {
    double worst = 0;
    for (std::int64_t i = 0; i < n; ++i) {
        for (std::int64_t j = 0; j < n; ++j) {
            Number residual = -v[at(i, j, n)] * values[j];
            Number inner = i == j ? -1 : 0;
            for (std::int64_t k = 0; k < n; ++k) {
                residual += a[at(i, k, n)] * v[at(k, j, n)];
                inner += std::conj(v[at(k, i, n)]) * v[at(k, j, n)];
            }
            worst = std::max({worst, std::abs(residual), std::abs(inner)});
        }
    }
    return worst;
}

struct Pair {
    explicit Pair(const std::vector<Tensor*>& tensors) : vectors(tensors.at(0)), values(tensors.at(1)) {}
    TensorPtr vectors, values;
};

TEST(Eigh, VectorsAndValuesObeyTheirEquations) {
    for_types(FloatOrComplex{}, [&]<typename T>() {
        using Part = typename Element<T>::Part;
        for (const auto& [batch, n] :
             {std::pair<std::int64_t, std::int64_t>{0, 1}, {0, 2}, {1, 7}, {5, 16}, {3, 1}, {0, 65}}) {
            for (const Layout layout : all_layouts) {
                const std::int64_t count = batch == 0 ? 1 : batch;
                const Dims shape = batch == 0 ? Dims{n, n} : Dims{batch, n, n};
                const Dims values_shape(shape.begin(), shape.end() - 1);
                const std::vector<T> whole = hermitian<T>(count, n);
                std::vector<T> input = whole;
                if (layout == Layout::offset) {  // Only the lower triangle counts.
                    for (std::size_t i = 0; i < input.size(); ++i) {
                        const auto row = static_cast<std::int64_t>(i) / n % n;
                        input[i] = static_cast<std::int64_t>(i) % n > row ? T(std::numeric_limits<Part>::quiet_NaN())
                                                                          : input[i];
                    }
                }
                const TensorPtr x = make<T>(shape, input, layout);
                const Pair found(eigh(x.get()));
                const TensorPtr alone(eigvalsh(x.get()));
                ASSERT_EQ(found.vectors->Shape(), shape);
                ASSERT_EQ(found.values->Shape(), values_shape);
                ASSERT_EQ(alone->Shape(), values_shape);
                ASSERT_EQ(found.vectors->Dtype(), dtype_code<T>);
                ASSERT_EQ(found.values->Dtype(), dtype_code<Part>);
                ASSERT_EQ(alone->Dtype(), dtype_code<Part>);
                std::vector<Number> a;
                for (const T value : whole) {
                    a.push_back(Element<T>::to(value));
                }
                const std::vector<Number> v = numbers_of<T>(found.vectors.get());
                const std::vector<Part> values = values_of<Part>(found.values);
                const std::vector<double> wide(values.begin(), values.end());
                const double bound = 4 * static_cast<double>(n) * std::numeric_limits<Part>::epsilon();
                for (std::int64_t b = 0; b < count; ++b) {
                    const std::string name = dtype_name(dtype_code<T>) + " " + name_of(layout) + " " +
                                             std::to_string(b) + " of " + shape_text(shape);
                    EXPECT_LE(defect(&a[at(b * n, 0, n)], &v[at(b * n, 0, n)], &wide[at(b, 0, n)], n), bound) << name;
                    for (std::int64_t k = 0; k < n; ++k) {
                        EXPECT_TRUE(k == 0 || wide[at(b, k - 1, n)] <= wide[at(b, k, n)]) << name;
                        EXPECT_NEAR(values_of<Part>(alone)[at(b, k, n)], wide[at(b, k, n)], bound) << name;
                    }
                }
                EXPECT_EQ(std::memcmp(values_of<T>(x).data(), input.data(), input.size() * sizeof(T)), 0);
            }
        }
    });
}

TEST(Eigh, TheImaginaryPartOfTheDiagonalIsNotRead) {
    std::vector<Complex<double>> values = hermitian<Complex<double>>(1, 6);
    const Pair clean(eigh(make<Complex<double>>({6, 6}, values).get()));
    for (std::size_t i = 0; i < 36; i += 7) {
        values[i].imag = 0.5;
    }
    const Pair marked(eigh(make<Complex<double>>({6, 6}, values).get()));
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_NEAR(values_of<double>(marked.values)[i], values_of<double>(clean.values)[i], 1e-14);
    }
}

TEST(Eigh, KnownAnswersAndNoMatrices) {
    const Pair found(eigh(make<float>({2, 2}, {3, 0, 0, 1}).get()));
    EXPECT_EQ(values_of<float>(found.values), (std::vector<float>{1, 3}));
    const TensorPtr some = make<double>({4}, {1, 2, 3, 4});
    for (const Dims& shape : {Dims{0, 3, 3}, Dims{2, 0, 0}, Dims{0, 0}}) {
        const TensorPtr none(view_tensor(some->getStorage(), shape, Dims(shape.size(), 1), 0, dtype::float64, 0));
        const Pair nothing(eigh(none.get()));
        EXPECT_EQ(nothing.vectors->Shape(), shape);
        EXPECT_EQ(nothing.values->Shape(), Dims(shape.begin(), shape.end() - 1));
    }
}

TEST(Eigh, SameBitsForEveryTeamSize) {
    const TensorPtr x = make<float>({9, 20, 20}, hermitian<float>(9, 20));
    const int before = ConfigGetNumThreads();
    std::vector<float> first;
    for (const int team : {1, 2, 4, 7}) {
        ConfigSetNumThreads(team);
        const Pair found(eigh(x.get()));
        std::vector<float> all = values_of<float>(found.vectors);
        const std::vector<float> values = values_of<float>(found.values);
        all.insert(all.end(), values.begin(), values.end());
        first = first.empty() ? all : first;
        EXPECT_EQ(all, first) << team;
    }
    ConfigSetNumThreads(before);
}

// A function of the decomposition that does not depend on signs and phases: the sum of
// value_weight[k] value[k] + vector_weight[i, k] |v(i, k)|^2.
template <typename T>
double weighted(const TensorPtr& x, const std::vector<double>& value_weight, const std::vector<double>& vector_weight) {
    const Pair found(eigh(x.get()));
    const std::vector<double> values = values_of<double>(found.values);
    const std::vector<Number> vectors = numbers_of<T>(found.vectors.get());
    double sum = 0;
    for (std::size_t k = 0; k < values.size(); ++k) {
        sum += value_weight[k] * values[k];
    }
    for (std::size_t k = 0; k < vectors.size(); ++k) {
        sum += vector_weight[k] * std::norm(vectors[k]);
    }
    return sum;
}

TEST(Eigh, GradientsAgreeWithCentralDifferences) {
    constexpr std::int64_t n = 4;
    const auto check = [&]<typename T>(bool with_values, bool with_vectors) {
        const TensorPtr x = make<T>({2, n, n}, hermitian<T>(2, n));
        const Pair found(eigh(x.get()));
        std::vector<double> value_weight;
        std::vector<double> vector_weight;
        std::vector<T> grad_vectors;
        for (int k = 0; k < 2 * n * n; ++k) {
            vector_weight.push_back(with_vectors ? std::sin(3.0 * k) : 0);
            grad_vectors.push_back(Element<T>::from(2 * vector_weight.back() *
                                                    numbers_of<T>(found.vectors.get())[static_cast<std::size_t>(k)]));
        }
        for (int k = 0; k < 2 * n; ++k) {
            value_weight.push_back(with_values ? std::cos(2.0 * k) : 0);
        }
        const TensorPtr gv = make<T>({2, n, n}, grad_vectors, Layout::transposed);
        const TensorPtr gl = make<double>({2, n}, value_weight, Layout::every_other);
        const TensorPtr grad(with_vectors  ? eigh_grad(gv.get(), with_values ? gl.get() : nullptr, x.get())
                             : with_values ? eigvalsh_grad(gl.get(), x.get())
                                           : nullptr);
        const std::vector<Number> g = numbers_of<T>(grad.get());
        for (std::int64_t row = 0; row < 2 * n; ++row) {
            for (std::int64_t j = 0; j <= row % n; ++j) {
                const std::int64_t mirror_row = row / n * n + j;
                EXPECT_NEAR(std::abs(g[at(row, j, n)] - std::conj(g[at(mirror_row, row % n, n)])), 0, 1e-12);
                for (const Number direction : {Number(1, 0), Number(0, 1)}) {
                    if (direction.imag() != 0 && (std::is_same_v<T, double> || j == row % n)) {
                        continue;
                    }
                    constexpr double h = 1e-5;
                    T* element = static_cast<T*>(x->getRawData()) + at(row, j, n);
                    const T old = *element;
                    *element = Element<T>::from(Element<T>::to(old) + h * direction);
                    const double above = weighted<T>(x, value_weight, vector_weight);
                    *element = Element<T>::from(Element<T>::to(old) - h * direction);
                    const double below = weighted<T>(x, value_weight, vector_weight);
                    *element = old;
                    // The element above the diagonal moves along.
                    const double factor = j == row % n ? 1 : 2;
                    EXPECT_NEAR((above - below) / (2 * h), factor * (std::conj(g[at(row, j, n)]) * direction).real(),
                                1e-7)
                        << row << " " << j << direction;
                }
            }
        }
    };
    for (const auto& [values, vectors] : {std::pair{true, false}, {false, true}, {true, true}}) {
        check.template operator()<double>(values, vectors);
        check.template operator()<Complex<double>>(values, vectors);
    }
}

TEST(Eigh, Refusals) {
    const auto nan = std::numeric_limits<double>::quiet_NaN();
    const double huge = std::numeric_limits<double>::max();
    const TensorPtr good = make<double>({2, 2}, {1, 0, 0, 1});
    const TensorPtr row = make<double>({3}, {1, 2, 3});
    const TensorPtr weights = make<float>({2}, {1, 2});
    struct Case {
        TensorPtr x;
        std::string message;  // Behind the name.
    };
    const Case cases[] = {
        {make_empty({3}, dtype::int32), "' only supports float or complex."},
        {make_empty({3}, dtype::float32), " need input of 2-dim or 3-dim."},
        {make_empty({1, 2, 3, 3}, dtype::complex64), " need input of 2-dim or 3-dim."},
        {make_empty({2, 3}, dtype::float32), " need square matrices, however the input's shape is ( 2, 3 ) "},
        {make<double>({2, 2, 2}, {1, 0, 0, 1, 1, 0, nan, 1}),
         " need finite elements, however matrix 1 holds NaN or infinity."},
        {make<Complex<double>>({2, 2}, {1, 0, {0, -std::numeric_limits<double>::infinity()}, 1}),
         " need finite elements, however matrix 0 holds NaN or infinity."},
        {make<double>({3, 2, 2}, {1, 0, 0, 1, huge, huge, huge, huge, huge, huge, huge, huge}),
         " did not converge to finite eigenvalues for matrix 1."},
    };
    const char* const file = "src/tensor/tensor_utils.cpp";
    for (const Case& c : cases) {
        const std::string quote = c.message[0] == '\'' ? "'" : "";
        expect_error([&] { eigh(c.x.get()); }, quote + "eigh" + c.message, "ornik::eigh", file);
        expect_error([&] { eigvalsh(c.x.get()); }, quote + "eigvalsh" + c.message, "ornik::eigvalsh", file);
    }
    expect_error([&] { eigvalsh_grad(weights.get(), good.get()); },
                 "eigvalsh need a gradient of numpy.float64, however it is numpy.float32", "ornik::eigvalsh_grad",
                 file);
    expect_error([&] { eigh_grad(nullptr, row.get(), good.get()); },
                 "eigh need a gradient of shape ( 2 ) , however it is ( 3 ) ", "ornik::eigh_grad", file);
    expect_error([&] { eigh_grad(nullptr, nullptr, good.get()); },
                 "eigh need a gradient of the eigenvectors or of the eigenvalues.", "ornik::eigh_grad", file);
    expect_error([&] { solver(good.get(), row.get(), "lu"); }, "solver() Not impl for CPU tensor.", "ornik::solver",
                 file);
}

}  // namespace
}  // namespace ornik::test
