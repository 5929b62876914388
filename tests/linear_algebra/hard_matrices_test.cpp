// Decompositions of matrices that are hard for them: of low rank, with values that coincide, are far apart or nearly
// fall out of the range of their type, and of extents about those that are computed by parts.
#include <cmath>
#include <functional>

#include "dense.h"
#include "tensor/tensor_math/decompositions.h"
#include "tensor/tensor_math/linear_algebra.h"

namespace ornik::test {
namespace {

using Element = std::function<double(std::int64_t i, std::int64_t j, std::int64_t n)>;

double noise(std::int64_t i, std::int64_t j) {
    return static_cast<double>((i * 7919 + j * 104729 + i * j) % 1009) / 1009 - 0.5;
}

// Of a symmetric matrix, i >= j; and of any.
const std::pair<const char*, Element> kinds[] = {
    {"zero", [](auto...) { return 0.0; }},
    {"unit", [](auto i, auto j, auto) { return i == j ? 1.0 : 0.0; }},
    {"ones", [](auto...) { return 1.0; }},
    {"rank two", [](auto i, auto j, auto n) { return 1.0 + static_cast<double>(i * j) / static_cast<double>(n); }},
    {"noise", [](auto i, auto j, auto) { return noise(i, j); }},
    {"huge", [](auto i, auto j, auto) { return 1e36 * noise(i, j); }},
    {"tiny", [](auto i, auto j, auto) { return 1e-36 * noise(i, j); }},
    {"graded", [](auto i, auto j, auto) { return std::ldexp(1 + noise(i, j), static_cast<int>(-i - j) / 4); }},
    {"graded up", [](auto i, auto j, auto n) { return std::ldexp(1.0, static_cast<int>(i + j - 2 * n) / 4); }},
    {"nearly unit", [](auto i, auto j, auto) { return (i == j ? 1.0 : 0.0) + 1e-7 * noise(i, j); }},
    {"clusters", [](auto i, auto j, auto) { return i == j ? static_cast<double>(i % 3) : 1e-9 * noise(i, j); }},
    {"shift", [](auto i, auto j, auto) { return i == j + 1 ? 1.0 : 0.0; }},
    {"cycle", [](auto i, auto j, auto n) { return i == (j + 1) % n ? 1.0 : 0.0; }},
    {"glued",
     [](auto i, auto j, auto) {
         const double on_diagonal = std::fabs(10.0 - static_cast<double>(i % 21));
         return i == j ? on_diagonal : i == j + 1 ? (i % 21 == 0 ? 1e-7 : 1.0) : 0.0;
     }},
};

TensorPtr matrix(const Element& element, std::int64_t rows, std::int64_t cols, std::int64_t dtype, bool symmetric) {
    std::vector<Complex<double>> values;
    for (std::int64_t i = 0; i < rows; ++i) {
        for (std::int64_t j = 0; j < cols; ++j) {
            const double real = symmetric && i < j ? element(j, i, cols) : element(i, j, cols);
            const double imaginary = i == j ? 0 : i < j ? -real / 2 : real / 2;
            values.push_back({real, imaginary});
        }
    }
    const TensorPtr wide = make<Complex<double>>({rows, cols}, values);
    const bool is_real = dtype == dtype::float32 || dtype == dtype::float64;
    return TensorPtr(is_real ? TensorPtr(wide->real())->astype(dtype) : wide->astype(dtype));
}

// visit(matrix, its elements, the size of its largest element times a bound of relative errors, that bound)
void for_kinds(std::initializer_list<Dims> shapes, bool symmetric, const auto& visit) {
    for (const auto& [name, element] : kinds) {
        for (const Dims& shape : shapes) {
            for (const std::int64_t dtype : float_dtypes) {
                SCOPED_TRACE(std::string(name) + " " + dtype_name(dtype) + shape_text(shape));
                const TensorPtr x = matrix(element, shape[0], shape[1], dtype, symmetric);
                const double bound = 8 * static_cast<double>(std::max(shape[0], shape[1])) * epsilon_of(x);
                const Dense a = Dense::of(x);
                // Elements below the range of the type's numbers are lost in any case.
                visit(x, a, bound * std::max(a.largest(), 1e-37), bound);
            }
        }
    }
}

Dense diagonal(const TensorPtr& values) {
    const std::vector<Number> all = numbers(values);
    Dense d = Dense::unit(static_cast<std::int64_t>(all.size()));
    for (std::size_t i = 0; i < all.size(); ++i) {
        d.items[i * all.size() + i] = all[i];
    }
    return d;
}

TEST(HardMatrices, Symmetric) {
    for_kinds({{5, 5}, {33, 33}, {70, 70}}, true, [](const TensorPtr& x, const Dense& a, double size, double bound) {
        const Results found(eigh(x.get()));
        const Dense v = Dense::of(found[0]);
        EXPECT_LE((a * v - v * diagonal(found[1])).largest(), size);
        expect_orthonormal_columns(v, bound);
    });
}

TEST(HardMatrices, FactorsOfAnyShape) {
    for_kinds({{34, 34}, {66, 66}, {70, 33}, {31, 65}}, false,
              [](const TensorPtr& x, const Dense& a, double size, double bound) {
                  const Results factors(qr(x.get()));
                  EXPECT_LE((Dense::of(factors[0]) * Dense::of(factors[1]) - a).largest(), size);
                  expect_orthonormal_columns(Dense::of(factors[0]), bound);
                  const Results values(svd(x.get(), false));
                  const Dense u = Dense::of(values[0]);
                  const Dense vh = Dense::of(values[2]);
                  EXPECT_LE((u * diagonal(values[1]) * vh - a).largest(), size);
                  expect_orthonormal_columns(u, bound);
                  expect_orthonormal_columns(vh.adjoint(), bound);
                  const TensorPtr alone(svdvals(x.get()));
                  EXPECT_LE((diagonal(alone) - diagonal(values[1])).largest(), size);
              });
}

TEST(HardMatrices, Eigenvalues) {
    for_kinds({{4, 4}, {33, 33}}, false, [](const TensorPtr& x, const Dense& a, double size, double bound) {
        const Results found(eig(x.get()));
        const Dense v = Dense::of(found[1]);
        EXPECT_LE((a * v - v * diagonal(found[0])).largest(), size);
        for (std::int64_t j = 0; j < v.cols; ++j) {
            double length = 0;
            for (std::int64_t i = 0; i < v.rows; ++i) {
                length += std::norm(v(i, j));
            }
            EXPECT_NEAR(length, 1, bound);
        }
    });
}

TEST(HardMatrices, Solutions) {
    for_kinds({{33, 33}, {70, 70}}, true, [](const TensorPtr& x, const Dense& a, double, double bound) {
        const std::int64_t n = a.rows;
        // Its square, and a unit on top: positive definite, and far from singular.
        const double scale = std::max(a.largest(), 1e-37);
        Dense square = a.adjoint() * a;
        std::vector<Complex<double>> elements;
        for (std::int64_t i = 0; i < n * n; ++i) {
            const Number z = square.items[static_cast<std::size_t>(i)] / (scale * scale * static_cast<double>(n));
            elements.push_back({z.real() + (i % (n + 1) == 0 ? 1 : 0), z.imag()});
        }
        const TensorPtr wide = make<Complex<double>>({n, n}, elements);
        const TensorPtr definite(x->isComplexType() ? wide->astype(x->Dtype())
                                                    : TensorPtr(wide->real())->astype(x->Dtype()));
        const Dense d = Dense::of(definite);
        const Dense l = Dense::of(TensorPtr(cholesky(definite.get())));
        EXPECT_LE((l * l.adjoint() - d).largest(), bound);
        EXPECT_LE((d * Dense::of(TensorPtr(inv(definite.get()))) - Dense::unit(n)).largest(), bound);
    });
}

}  // namespace
}  // namespace ornik::test
