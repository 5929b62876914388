// Factors, inverses, determinants and solutions: the equations that define them, refusals, the same bits for all teams.
#include "tensor/tensor_math/decompositions.h"

#include <cmath>
#include <limits>

#include "dense.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "support/teams.h"

namespace ornik::test {
namespace {

// Of shape [.., m, n], in every dtype; small ones in every layout. visit(x, matrices of x, bound of errors)
void for_operands(const std::vector<Dims>& shapes, const auto& visit) {
    for (const Dims& shape : shapes) {
        for (const std::int64_t dtype : float_dtypes) {
            for (const Layout layout : all_layouts) {
                if (layout == Layout::contiguous || (numel_of(shape) < 100 && numel_of(shape) > 0)) {
                    SCOPED_TRACE(dtype_name(dtype) + " " + name_of(layout) + " " + shape_text(shape));
                    const TensorPtr x = random_tensor(shape, dtype, 5, layout);
                    const std::int64_t size = shape.back() * shape[shape.size() - 2];
                    const std::string before = bytes_of(x);
                    visit(x, size == 0 ? 0 : numel_of(shape) / size,
                          8 * static_cast<double>(std::max<std::int64_t>(shape.back(), shape[shape.size() - 2])) *
                              epsilon_of(x));
                    EXPECT_EQ(bytes_of(x), before);
                }
            }
        }
    }
}

const std::vector<Dims> any_shapes = {{1, 1},   {2, 3, 3},   {5, 3},   {2, 2, 3, 5}, {17, 17},
                                      {40, 23}, {2, 23, 40}, {64, 64}, {100, 4},     {3, 100}};
const std::vector<Dims> square_shapes = {{1, 1}, {3, 2, 2}, {2, 2, 4, 4}, {17, 17}, {70, 70}};

TEST(Decompositions, QrObeysItsEquations) {
    for_operands(any_shapes, [](const TensorPtr& x, std::int64_t count, double bound) {
        for (const bool complete : {false, true}) {
            const Results found(qr(x.get(), complete));
            for (std::int64_t i = 0; i < count; ++i) {
                const Dense q = Dense::of(found[0], i), r = Dense::of(found[1], i), a = Dense::of(x, i);
                EXPECT_EQ(q.cols, complete ? a.rows : std::min(a.rows, a.cols));
                EXPECT_LE((q * r - a).largest(), bound);
                expect_orthonormal_columns(q, bound);
                for (std::int64_t k = 0; k < r.rows; ++k) {
                    for (std::int64_t j = 0; j <= std::min(k, r.cols - 1); ++j) {
                        EXPECT_EQ(j < k ? std::abs(r(k, j)) : r(k, k).imag(), 0);
                    }
                }
            }
        }
    });
}

TEST(Decompositions, SingularValuesObeyTheirEquations) {
    for_operands(any_shapes, [](const TensorPtr& x, std::int64_t count, double bound) {
        const TensorPtr alone(svdvals(x.get()));
        ASSERT_EQ(alone->Dtype(), real_dtype(x));
        for (const bool full : {false, true}) {
            const Results found(svd(x.get(), full));
            for (std::int64_t i = 0; i < count; ++i) {
                const Dense u = Dense::of(found[0], i), vh = Dense::of(found[2], i), a = Dense::of(x, i);
                const std::int64_t k = std::min(a.rows, a.cols);
                Dense s = Dense::unit(k);
                for (std::int64_t j = 0; j < k; ++j) {
                    s(j, j) = numbers(found[1])[at(i, j, k)];
                    EXPECT_GE(s(j, j).real(), 0);
                    EXPECT_TRUE(j == 0 || s(j, j).real() <= s(j - 1, j - 1).real());
                    EXPECT_NEAR(numbers(alone)[at(i, j, k)].real(), s(j, j).real(), bound * s(0, 0).real());
                }
                EXPECT_EQ(Dims({u.cols, vh.rows}), full ? Dims({a.rows, a.cols}) : Dims({k, k}));
                EXPECT_LE((u.columns(k) * s * vh.adjoint().columns(k).adjoint() - a).largest(), bound);
                expect_orthonormal_columns(u, bound);
                expect_orthonormal_columns(vh.adjoint(), bound);
            }
        }
    });
}

TEST(Decompositions, EigenvaluesObeyTheirEquation) {
    for_operands(square_shapes, [](const TensorPtr& x, std::int64_t count, double bound) {
        const TensorPtr alone(eigvals(x.get()));
        const Results found(eig(x.get()));
        for (std::int64_t i = 0; i < count; ++i) {
            const Dense a = Dense::of(x, i), v = Dense::of(found[1], i);
            Dense w = Dense::unit(a.rows);
            double conjugate_sum = 0;
            for (std::int64_t j = 0; j < a.rows; ++j) {
                w(j, j) = numbers(found[0])[at(i, j, a.rows)];
                conjugate_sum += w(j, j).imag();
                EXPECT_LE(std::abs(numbers(alone)[at(i, j, a.rows)] - w(j, j)), 10 * bound);
                double length = 0;
                for (std::int64_t k = 0; k < a.rows; ++k) {
                    length += std::norm(v(k, j));
                }
                EXPECT_NEAR(length, 1, bound);
            }
            EXPECT_LE((a * v - v * w).largest(), bound);
            if (!x->isComplexType()) {
                EXPECT_EQ(conjugate_sum, 0);
            }
        }
    });
}

TEST(Decompositions, PseudoInversesObeyPenrosesEquations) {
    for_operands(any_shapes, [](const TensorPtr& x, std::int64_t count, double bound) {
        const TensorPtr found(pinv(x.get()));
        for (std::int64_t i = 0; i < count; ++i) {
            const Dense a = Dense::of(x, i), p = Dense::of(found, i);
            const double scale = bound * 8 * std::max(1.0, p.largest());
            EXPECT_LE((a * p * a - a).largest(), scale);
            EXPECT_LE((p * a * p - p).largest(), scale * std::max(1.0, p.largest()));
            EXPECT_LE((a * p - (a * p).adjoint()).largest(), scale);
            EXPECT_LE((p * a - (p * a).adjoint()).largest(), scale);
        }
    });
    // Values 3, 2, 1 and 0, of which a tolerance of a half leaves two.
    const TensorPtr x = make<double>({4, 4}, {0, 3, 0, 0, 0, 0, 0, 2, 1, 0, 0, 0, 0, 0, 0, 0});
    const TensorPtr half = make<float>({}, {0.5F});
    EXPECT_EQ(values_of<double>(TensorPtr(pinv(x.get(), half.get()))),
              std::vector<double>({0, 0, 0, 0, 1 / 3.0, 0, 0, 0, 0, 0, 0, 0, 0, 0.5, 0, 0}));
    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(matrix_rank(x.get(), half.get()))), std::vector<std::int64_t>({2}));
    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(matrix_rank(x.get()))), std::vector<std::int64_t>({3}));
    const TensorPtr many = make<float>({3, 1, 2}, {0, 0, 1, 1e-9F, -4, 0});
    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(matrix_rank(many.get()))), std::vector<std::int64_t>({0, 1, 1}));
}

// x with a heavy diagonal: far from singular. Positive definite when Hermitian.
TensorPtr regular(const TensorPtr& x, bool hermitian) {
    const std::int64_t n = x->Shape().back();
    std::vector<Complex<double>> items;
    for (std::int64_t i = 0; i < x->Size() / (n * n); ++i) {
        const Dense a = Dense::of(x, i);
        Dense sum = hermitian ? a * a.adjoint() : a;
        for (std::int64_t k = 0; k < n; ++k) {
            sum(k, k) += 2 * std::sqrt(static_cast<double>(n));
        }
        for (const Number z : sum.items) {
            items.emplace_back(z.real(), z.imag());
        }
    }
    TensorPtr result = make_empty(x->Shape(), x->Dtype(), Layout::transposed);
    result->copy_from_(make<Complex<double>>(x->Shape(), items).get());
    return result;
}

// By elimination with the largest pivots.
Number determinant(Dense a) {
    Number result = 1;
    for (std::int64_t k = 0; k < a.rows; ++k) {
        std::int64_t pivot = k;
        for (std::int64_t i = k; i < a.rows; ++i) {
            pivot = std::abs(a(i, k)) > std::abs(a(pivot, k)) ? i : pivot;
        }
        for (std::int64_t j = 0; j < a.cols && pivot != k; ++j) {
            std::swap(a(k, j), a(pivot, j));
        }
        result *= pivot == k ? a(k, k) : -a(k, k);
        for (std::int64_t i = k + 1; i < a.rows; ++i) {
            const Number factor = a(i, k) / a(k, k);
            for (std::int64_t j = k; j < a.cols; ++j) {
                a(i, j) -= factor * a(k, j);
            }
        }
    }
    return result;
}

TEST(Decompositions, SquareMatricesObeyTheirEquations) {
    for_operands(square_shapes, [](const TensorPtr& noise, std::int64_t count, double bound) {
        const TensorPtr x = regular(noise, false), definite = regular(noise, true);
        const TensorPtr inverse(inv(x.get())), lower(cholesky(definite.get()));
        const TensorPtr upper(cholesky(definite.get(), true)), determinants(det(noise.get()));
        const Results logarithms(slogdet(noise.get()));
        ASSERT_EQ(logarithms[1]->Dtype(), real_dtype(x));
        for (std::int64_t i = 0; i < count; ++i) {
            const Dense a = Dense::of(x, i), l = Dense::of(lower, i);
            EXPECT_LE((a * Dense::of(inverse, i) - Dense::unit(a.rows)).largest(), bound);
            EXPECT_LE((l * l.adjoint() - Dense::of(definite, i)).largest(), bound * 2 * static_cast<double>(a.rows));
            EXPECT_LE((l.adjoint() - Dense::of(upper, i)).largest(), bound * 2 * static_cast<double>(a.rows));
            for (std::int64_t k = 0; k < l.rows; ++k) {
                EXPECT_GT(l(k, k).real(), 0);
                for (std::int64_t j = k + 1; j < l.rows; ++j) {
                    EXPECT_EQ(std::abs(l(k, j)), 0);
                }
            }
            const Number expected = determinant(Dense::of(noise, i));
            const auto place = static_cast<std::size_t>(i);
            const double tolerance = 50 * bound * std::abs(expected);
            if (std::abs(expected) < 1e38) {
                EXPECT_LE(std::abs(numbers(determinants)[place] - expected), tolerance);
            }
            EXPECT_LE(std::abs(numbers(logarithms[0])[place] * std::exp(numbers(logarithms[1])[place]) - expected),
                      tolerance);
            EXPECT_NEAR(std::abs(numbers(logarithms[0])[place]), 1, bound);
        }
    });
}

TEST(Decompositions, SolutionsBroadcast) {
    struct Case {
        Dims x;
        Dims b;
        Dims result;
    };
    const Case cases[] = {{{3, 3}, {3}, {3}},
                          {{2, 3, 3}, {3}, {2, 3}},
                          {{3, 3}, {3, 2}, {3, 2}},
                          {{2, 1, 3, 3}, {4, 3, 2}, {2, 4, 3, 2}},
                          {{3, 3}, {2, 3, 1}, {2, 3, 1}},
                          {{40, 40}, {40, 7}, {40, 7}},
                          {{0, 3, 3}, {3, 2}, {0, 3, 2}},
                          {{2, 3, 3}, {3, 0}, {2, 3, 0}},
                          {{2, 0, 0}, {0, 2}, {2, 0, 2}}};
    for (const Case& c : cases) {
        for (const std::int64_t dtype : float_dtypes) {
            for (const Layout layout : {Layout::contiguous, Layout::transposed}) {
                SCOPED_TRACE(dtype_name(dtype) + shape_text(c.x) + shape_text(c.b));
                const TensorPtr noise = random_tensor(c.x, dtype, 3, layout);
                const TensorPtr x = noise->Size() > 0 ? regular(noise, false) : make_empty(c.x, dtype);
                const TensorPtr b = random_tensor(c.b, dtype, 4, layout);
                const TensorPtr y(solve(x.get(), b.get()));
                ASSERT_EQ(y->Shape(), c.result);
                if (y->Size() == 0) {
                    continue;
                }
                // The batches, aligned at their ends, by hand.
                const bool vector = c.b.size() == 1;
                const Dims batch(c.result.begin(), c.result.end() - (vector ? 1 : 2));
                const std::int64_t n = c.x.back();
                const std::int64_t k = vector ? 1 : c.b.back();
                const std::vector<Number> right = numbers(b), found = numbers(y);
                for (std::int64_t i = 0; i < numel_of(batch); ++i) {
                    const std::int64_t inner = batch.empty() ? 1 : batch.back();
                    const std::int64_t of_x = c.x.size() == 4 ? i / inner : c.x.size() == 3 ? i : 0;
                    const std::int64_t of_b = c.b.size() == 3 ? i % inner : 0;
                    Dense solution = Dense::zeros(n, k);
                    Dense expected = solution;
                    std::copy_n(&found[at(i, 0, n * k)], n * k, solution.items.begin());
                    std::copy_n(&right[at(of_b, 0, n * k)], n * k, expected.items.begin());
                    EXPECT_LE((Dense::of(x, of_x) * solution - expected).largest(),
                              8 * static_cast<double>(n) * epsilon_of(x));
                }
            }
        }
    }
}

TEST(Decompositions, NoElements) {
    struct Case {
        Dims shape;
        Dims q, r, complete_q, complete_r, u, vh;
    };
    const Case cases[] = {{{0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}, {0, 0}},
                          {{2, 3, 0}, {2, 3, 0}, {2, 0, 0}, {2, 3, 3}, {2, 3, 0}, {2, 3, 3}, {2, 0, 0}},
                          {{0, 3}, {0, 0}, {0, 3}, {0, 0}, {0, 3}, {0, 0}, {3, 3}},
                          {{0, 2, 2}, {0, 2, 2}, {0, 2, 2}, {0, 2, 2}, {0, 2, 2}, {0, 2, 2}, {0, 2, 2}}};
    for (const Case& c : cases) {
        const TensorPtr x = make_empty(c.shape, dtype::complex64);
        const Results reduced(qr(x.get()));
        const Results complete(qr(x.get(), true));
        const Results values(svd(x.get()));
        EXPECT_EQ(reduced[0]->Shape(), c.q);
        EXPECT_EQ(reduced[1]->Shape(), c.r);
        EXPECT_EQ(complete[0]->Shape(), c.complete_q);
        EXPECT_EQ(complete[1]->Shape(), c.complete_r);
        EXPECT_EQ(values[0]->Shape(), c.u);
        EXPECT_EQ(values[2]->Shape(), c.vh);
        for (const TensorPtr& t : {std::cref(complete[0]), std::cref(values[0]), std::cref(values[2])}) {
            for (std::int64_t i = 0; t->Size() > 0 && i < t->Size() / (t->Shape().back() * t->Shape().back()); ++i) {
                EXPECT_EQ((Dense::of(t, i) - Dense::unit(t->Shape().back())).largest(), 0);
            }
        }
        EXPECT_EQ(TensorPtr(pinv(x.get()))->Size(), 0);
    }
    const TensorPtr none = make_empty({2, 0, 0}, dtype::float64);
    EXPECT_EQ(values_of<double>(TensorPtr(det(none.get()))), std::vector<double>({1, 1}));
    EXPECT_EQ(values_of<double>(Results(slogdet(none.get()))[1]), std::vector<double>({0, 0}));
    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(matrix_rank(none.get()))), std::vector<std::int64_t>({0, 0}));
    EXPECT_EQ(TensorPtr(inv(none.get()))->Shape(), Dims({2, 0, 0}));
    EXPECT_EQ(TensorPtr(cholesky(none.get()))->Shape(), Dims({2, 0, 0}));
}

TEST(Decompositions, SingularMatricesHaveNoLogarithm) {
    const TensorPtr x = make<Complex<float>>({2, 2}, {{1, 1}, {2, 2}, {2, 2}, {4, 4}});
    const Results found(slogdet(x.get()));
    EXPECT_EQ(numbers(found[0]), std::vector<Number>(1));
    EXPECT_EQ(values_of<float>(found[1]), std::vector<float>({-INFINITY}));
    EXPECT_EQ(numbers(TensorPtr(det(x.get()))), std::vector<Number>(1));
}

TEST(Decompositions, SameBitsForEveryTeamSize) {
    const TensorPtr noise = random_tensor({9, 20, 20}, dtype::complex64, 1);
    const TensorPtr x = regular(noise, true);
    const TensorPtr b = random_tensor({5, 9, 20, 3}, dtype::complex64, 2);
    expect_same_bits([&] {
        std::vector<TensorPtr> results;
        for (const auto& list : {qr(x.get()), svd(x.get()), slogdet(x.get())}) {
            for (Tensor* t : list) {
                results.emplace_back(t);
            }
        }
        for (Tensor* t : {inv(x.get()), det(x.get()), cholesky(x.get()), pinv(x.get()), solve(x.get(), b.get())}) {
            results.emplace_back(t);
        }
        return results;
    });
}

// Those that need a matrix of their own; the others are among the listed messages.
TEST(Decompositions, Refusals) {
    const TensorPtr good = make<double>({2, 2}, {2, 0, 0, 2}),
                    singular = make<double>({2, 1, 2, 2}, {1, 0, 0, 1, 1, 2, 2, 4}),
                    undefined = make<double>({2, 1, 1}, {1, std::nan("")});
    const std::string no_values =
        "(): matrix [1] of the batch holds NaN or infinity, or its singular values do not converge.";
    const std::string no_eigenvalues =
        "(): matrix [1] of the batch holds NaN or infinity, or its eigenvalues do not converge.";
    const Refusal rows[] = {
        {"inv", [&] { inv(singular.get()); }, "inv(): matrix [1, 0] of the batch is singular."},
        {"solve", [&] { solve(singular.get(), good.get()); }, "solve(): matrix [1, 0] of the batch is singular."},
        {"svd", [&] { svd(undefined.get()); }, "svd" + no_values},
        {"svdvals", [&] { svdvals(undefined.get()); }, "svdvals" + no_values},
        {"pinv", [&] { pinv(undefined.get()); }, "pinv" + no_values},
        {"eig", [&] { eig(undefined.get()); }, "eig" + no_eigenvalues},
        {"eigvals", [&] { eigvals(undefined.get()); }, "eigvals" + no_eigenvalues},
    };
    expect_refusals(rows, "ornik::", "src/tensor/tensor_math/decompositions.cpp");
}

}  // namespace
}  // namespace ornik::test
