// linalg_rows_test.cpp: gradients of products, decompositions, norms and Fourier transforms; their values where floor 8
// makes them; refusals.
#include <complex>

#include "ktensor/fft.h"
#include "ktensor/linalg.h"
#include "ktensor/products.h"
#include "ktensor/sparse.h"
#include "random/generator.h"
#include "rows.h"
#include "support/expect_error.h"

namespace ornik::gradcheck {

namespace {

KTensor adjoint(const KTensor& x) { return conj(transpose(x)); }

// Far from singular, and positive definite.
KTensor regular(const KTensor& x) { return x + KTensor::eye(x.size(-1), x.size(-1), 0, dtype::float64) * 4.0; }
KTensor definite(const KTensor& x) { return regular(matmul(x, adjoint(x))); }

// Of singular values that differ: those of x changed a little.
KTensor apart(const KTensor& x) {
    const KTensor rows = KTensor::arange(1, 1.0 + static_cast<double>(x.size(-2)), 1, dtype::float64) * 3.0;
    return x + unsqueeze(rows, -1) * KTensor::eye(x.size(-2), x.size(-1), 0, dtype::float64);
}

KTensor turned() {
    using Z = std::complex<double>;
    return KTensor({{Z(0, 1), Z(0, -0.5)}, {Z(0.25, 0), Z(0, 2)}});
}

// Of complex eigenvalues.
KTensor spiral() { return KTensor({{0.5, -2.0}, {1.0, 0.3}}); }

// What does not depend on the vectors' signs or phases.
KTensor of_vectors(const SingularValues& f) {
    const KTensor both = matmul(f.u * unsqueeze(exp(f.s * 0.1), -2), f.vh);
    return sum(sqr(abs(both)) + real(both)) + sum(sqr(abs(f.u))) + sum(f.s);
}

// Hermitian, with eigenvalues apart. The lower triangle alone is read: a function of a full matrix is symmetrized.
KTensor spread(const Tensors& x) {
    const KTensor steps = KTensor::arange(0, static_cast<double>(2 * x[0].size(-1)), 2, dtype::float64);
    const KTensor diagonal = where(equal(KTensor::eye(x[0].size(-1)), Scalar(1.0F)), steps, Scalar(0.0));
    return x[0] + conj(transpose(x[0])) + diagonal;
}

}  // namespace

Rows product_rows() {
    Rows rows;
    rows.add(Op::matmul, {{2, 3}, {3, 4}}, two<matmul>);
    rows.add(Op::matmul, {{2, 2, 3}, {3, 2}}, {"shared right operand"}, two<matmul>);
    rows.add(Op::matmul, {{2, 1, 2, 3}, {3, 3, 2}}, {"broadcast batches"}, two<matmul>);
    rows.add(Op::squeeze, {{3}, {2, 3, 2}}, {"row"}, two<matmul>);
    rows.add(Op::squeeze, {{2, 2, 3}, {3}}, {"column"}, two<matmul>);
    rows.add(Op::squeeze, {{3}, {3}}, {"dot"}, two<dot>);
    rows.add(Op::kron, {{2, 3}, {2, 2}}, two<kron>);
    rows.add(Op::sparse_dot, {{4}, {3, 2}}, [](const Tensors& x) {
        return sparse_dot(SparseMatrix(KTensor({0, 2, 2, 4}), KTensor({0, 2, 0, 1}), x[0], {3, 3}), x[1]);
    });
    rows.add(Op::add, {{3, 2}}, {"sparse and back"}, [](const Tensors& x) {
        const SparseMatrix m = SparseMatrix::from_dense(x[0]);
        return m.to_dense() + transpose(m.transpose().to_dense());
    });
    rows.add(Op::eigvalsh, {{3, 3}}, [](const Tensors& x) { return eigvalsh(spread(x)); });
    rows.add(Op::eigh, {{2, 3, 3}}, [](const Tensors& x) { return eigh(spread(x)).values; });
    // Magnitudes of vectors do not depend on their phases.
    rows.add(Op::sqr, {{3, 3}}, {"of eigenvectors"},
             [](const Tensors& x) { return sqr(abs(eigh(spread(x)).vectors)); });
    return rows;
}

TEST(Gradients, Products) { std::ranges::for_each(product_rows(), check); }

Rows linalg_rows() {
    Rows rows;
    // Most have one operand, between -1 and 1.
    const auto add = [&](Op op, const Dims& shape, const char* note, const auto& call) {
        rows.add(op, {shape}, {note, true, -1, 1}, [call](const Tensors& x) { return call(x[0]); });
    };
    const auto add_real = [&](Op op, const Dims& shape, const char* note, const auto& call) {
        add(op, shape, note, call);
        rows.back().terms.complex = false;
    };
    add(Op::cholesky, {2, 3, 3}, "lower", [](const KTensor& x) { return cholesky(definite(x)); });
    add(Op::cholesky, {3, 3}, "upper", [](const KTensor& x) { return cholesky(definite(x), true); });
    add(Op::qr, {2, 4, 3}, "reduced", [](const KTensor& x) { return qr(x).q; });
    add(Op::qr, {3, 3}, "square", [](const KTensor& x) { return qr(x, true).r; });
    add(Op::add, {3, 5}, "wide qr", [](const KTensor& x) { return sum(qr(x).q * 2.0) + sum(sqr(qr(x).r)); });
    add(Op::svd, {2, 3, 2}, "values", [](const KTensor& x) { return svd(apart(x)).s; });
    add(Op::add, {4, 3}, "tall svd", [](const KTensor& x) { return of_vectors(svd(apart(x), false)); });
    add(Op::add, {2, 4}, "wide svd", [](const KTensor& x) { return of_vectors(svd(apart(x), false)); });
    add(Op::sqr, {3, 2}, "u alone", [](const KTensor& x) { return sqr(abs(svd(apart(x), false).u)); });
    add(Op::sqr, {2, 3}, "vh alone", [](const KTensor& x) { return sqr(abs(svd(apart(x), false).vh)); });
    add(Op::svdvals, {2, 2, 3}, "", [](const KTensor& x) { return svdvals(apart(x)); });
    add(Op::eig, {2, 3, 3}, "values", [](const KTensor& x) { return eigvals(apart(x)); });
    add(Op::sqr, {3, 3}, "eigenvectors", [](const KTensor& x) { return sqr(abs(eig(apart(x)).vectors)); });
    add_real(Op::sqr, {2, 2}, "conjugate pairs",
             [](const KTensor& x) { return sqr(abs(eig(x * 0.1 + spiral()).vectors)); });
    add(Op::inv, {2, 3, 3}, "", [](const KTensor& x) { return inv(regular(x)); });
    const auto solution = [](const Tensors& x) { return solve(regular(x[0]), x[1]); };
    rows.add(Op::solve, {{2, 3, 3}, {2, 3, 2}}, {"batch", true, -1, 1}, solution);
    rows.add(Op::solve, {{2, 3, 3}, {3}}, {"one vector", true, -1, 1}, solution);
    rows.add(Op::solve, {{3, 3}, {2, 1, 3, 1}}, {"one matrix", true, -1, 1}, solution);
    add(Op::det, {2, 3, 3}, "", [](const KTensor& x) { return det(x); });
    add(Op::slogdet, {2, 3, 3}, "logarithm", [](const KTensor& x) { return slogdet(x).logabsdet; });
    add(Op::slogdet, {2, 2}, "sign", [](const KTensor& x) { return slogdet(x + turned()).sign; });
    add(Op::pinv, {2, 4, 3}, "tall", [](const KTensor& x) { return pinv(apart(x)); });
    add(Op::pinv, {2, 3}, "wide", [](const KTensor& x) { return pinv(apart(x), 1e-6); });
    add(Op::matmul, {3, 3}, "power", [](const KTensor& x) { return matrix_power(regular(x), -3); });
    rows.add(Op::sum, {{2, 3}, {3}}, {"vecdot", true, -1, 1}, [](const Tensors& x) { return vecdot(x[0], x[1]); });

    const std::pair<Op, double> vector_norms[] = {{Op::sum, 1},  {Op::l2_norm, 2},    {Op::where, 3},
                                                  {Op::pow, -2}, {Op::max, HUGE_VAL}, {Op::min, -HUGE_VAL}};
    for (const auto& norm : vector_norms) {
        const double ord = norm.second;
        add(norm.first, {2, 3}, "vector norm", [ord](const KTensor& x) { return vector_norm(x, {-1}, false, ord); });
    }
    using M = MatrixNorm;
    for (const M ord :
         {M::frobenius, M::nuclear, M::largest_value, M::smallest_value, M::largest_column, M::smallest_row}) {
        const Op op = ord == M::frobenius ? Op::l2_norm : Op::squeeze;
        add(op, {2, 3, 2}, "matrix norm", [ord](const KTensor& x) { return matrix_norm(apart(x), ord); });
    }

    using Norm = FourierNorm;
    add(Op::fft, {2, 5}, "", [](const KTensor& x) { return fft(x); });
    for (const std::int64_t n : {3, 6}) {  // cut off, filled up
        const char* note = n == 3 ? "odd" : "even";
        add(Op::fft, {4, 2}, note, [n](const KTensor& x) { return ifft(x, n, 0, Norm::ortho); });
        add_real(Op::rfft, {2, 5}, note, [n](const KTensor& x) { return rfft(x, n, -1, Norm::forward); });
        add(Op::irfft, {3, 2}, note, [n](const KTensor& x) { return irfft(x, n, 0); });
        add(Op::irfft, {3}, note, [n](const KTensor& x) { return hfft(x, n); });
        add_real(Op::conj, {2, 4}, note, [n](const KTensor& x) { return ihfft(x, n); });
    }
    add(Op::fft, {2, 3, 2}, "axes", [](const KTensor& x) { return fftn(x, {4, 2}, {2, 0}); });
    add(Op::irfft, {3, 2, 2}, "axes", [](const KTensor& x) { return irfftn(x, {-1, 3}); });
    add(Op::roll, {2, 3}, "", [](const KTensor& x) { return ifftshift(x); });
    return rows;
}

TEST(Gradients, LinearAlgebraAndFourier) { std::ranges::for_each(linalg_rows(), check); }

namespace {

KTensor random(const Dims& shape, std::int64_t dtype = dtype::float64) {
    set_random_seed(11);
    return KTensor::randn(shape, dtype);
}

TEST(LinearAlgebra, SingularMatricesHaveGradientsOfTheirDeterminants) {
    // d det / d x are the cofactors; rank 1 has none of 3 x 3, rank 2 has some.
    KTensor x = KTensor({{1.0, 2.0, 3.0}, {2.0, 4.0, 6.0}, {0.0, 1.0, 1.0}}).requires_grad();
    det(x).backward();
    const KTensor expected({{-2.0, -2.0, 2.0}, {1.0, 1.0, -1.0}, {0.0, 0.0, 0.0}});
    EXPECT_TRUE(all_close(x.grad(), expected, 1e-12, 1e-12)) << x.grad();
    KTensor line = KTensor({{1.0, 2.0, 3.0}, {2.0, 4.0, 6.0}, {3.0, 6.0, 9.0}}).requires_grad();
    det(line).backward();
    EXPECT_TRUE(all_close(line.grad(), KTensor::zeros({3, 3}, dtype::float64), 0, 1e-12)) << line.grad();
}

TEST(LinearAlgebra, PowersAndNorms) {
    const KTensor m({{2, 1}, {1, 1}});
    EXPECT_EQ(matrix_power(m, 5).to_vector<std::int64_t>(), std::vector<std::int64_t>({89, 55, 55, 34}));
    EXPECT_EQ(matrix_power(m, 0).to_vector<std::int64_t>(), std::vector<std::int64_t>({1, 0, 0, 1}));
    EXPECT_TRUE(all_close(matrix_power(astype(m, dtype::float64), -1), KTensor({{1.0, -1.0}, {-1.0, 2.0}})));
    const KTensor v({{3.0, 0.0, -4.0}, {0.0, 0.0, 0.0}});
    const auto norms = [&](double ord) { return vector_norm(v, {1}, false, ord).to_vector<double>(); };
    EXPECT_EQ(norms(0), std::vector<double>({2, 0}));
    EXPECT_EQ(norms(1), std::vector<double>({7, 0}));
    EXPECT_EQ(norms(2), std::vector<double>({5, 0}));
    EXPECT_EQ(norms(HUGE_VAL), std::vector<double>({4, 0}));
    EXPECT_EQ(norms(-HUGE_VAL), std::vector<double>({0, 0}));
    EXPECT_EQ(norms(-1), std::vector<double>({0, 0}));
    EXPECT_NEAR(norms(3)[0], std::cbrt(91.0), 1e-14);
    EXPECT_EQ(norms(3)[1], 0);
    const KTensor d({{3.0, 0.0, 1.0}, {0.0, -4.0, 1.0}});
    const auto of = [&](MatrixNorm ord) { return matrix_norm(d, ord, true).item<double>(); };
    EXPECT_EQ(of(MatrixNorm::largest_column), 4);
    EXPECT_EQ(of(MatrixNorm::smallest_column), 2);
    EXPECT_EQ(of(MatrixNorm::largest_row), 5);
    EXPECT_EQ(of(MatrixNorm::smallest_row), 4);
    EXPECT_NEAR(of(MatrixNorm::frobenius), std::sqrt(27.0), 1e-14);
    EXPECT_NEAR(of(MatrixNorm::largest_value) * of(MatrixNorm::smallest_value), std::sqrt(169.0), 1e-12);
    EXPECT_NEAR(of(MatrixNorm::largest_value) + of(MatrixNorm::smallest_value), of(MatrixNorm::nuclear), 1e-14);
    EXPECT_EQ(matrix_norm(KTensor::zeros({2, 0, 3})).to_vector<float>(), std::vector<float>({0, 0}));
    EXPECT_EQ(vector_norm(KTensor::zeros({0})).item<float>(), 0);
    const KTensor i({std::complex<double>(0, 1), std::complex<double>(2, 0)});
    EXPECT_EQ(vecdot(i, i * Scalar(std::complex<double>(0, 1))).item<std::complex<double>>(),
              std::complex<double>(0, 5));
    EXPECT_EQ(vecdot(astype(m, dtype::int8), m, -2).to_vector<std::int64_t>(), std::vector<std::int64_t>({5, 2}));
    EXPECT_EQ(vecdot(astype(m, dtype::int8), astype(m, dtype::int8)).dtype(), dtype::int8);
}

TEST(LinearAlgebra, EigenvectorsOfAnyBatch) {
    const KTensor x = random({2, 1, 3, 4, 4}, dtype::complex128);
    const KTensor h = x + adjoint(x);
    const EigenPairs pairs = eigh(h);
    EXPECT_EQ(pairs.values.shape(), Dims({2, 1, 3, 4}));
    EXPECT_TRUE(all_close(abs(matmul(h, pairs.vectors) - pairs.vectors * unsqueeze(pairs.values, -2)),
                          KTensor::zeros(h.shape(), dtype::float64), 0, 1e-12));
    EXPECT_EQ(eigvalsh(KTensor::zeros({2, 0, 3, 3})).shape(), Dims({2, 0, 3}));
}

TEST(Fourier, InversesAndShifts) {
    const KTensor x = random({4, 5, 6});
    const KTensor z = random({4, 5, 6}, dtype::complex128);
    const auto near = [](const KTensor& a, const KTensor& b) {
        EXPECT_EQ(a.dtype(), b.dtype());
        EXPECT_TRUE(all_close(abs(a - b), KTensor::zeros(b.shape(), dtype::float64), 0, 1e-13));
    };
    for (const FourierNorm norm : {FourierNorm::backward, FourierNorm::ortho, FourierNorm::forward}) {
        near(ifft(fft(z, {}, 1, norm), {}, 1, norm), z);
        near(ifftn(fftn(z, {}, {}, norm), {}, {}, norm), z);
        near(irfftn(rfftn(x, {}, {2, 1}, norm), {6, 5}, {2, 1}, norm), x);
        near(irfft(rfft(x, {}, 1, norm), 5, 1, norm), x);
        near(hfft(ihfft(x, {}, 2, norm), 6, 2, norm), x);
        // Each direction by its scale: of ones, the first number is the length times it.
        const double first = norm == FourierNorm::backward ? 4 : norm == FourierNorm::ortho ? 2 : 1;
        near(real(fft(KTensor::ones({4}, dtype::float64), {}, 0, norm)), KTensor({first, 0.0, 0.0, 0.0}));
        near(hfft(KTensor({1.0, 0.0}), 4, 0, norm), KTensor::full({4}, first / 4, dtype::float64));
        near(real(ihfft(KTensor::ones({4}, dtype::float64), {}, 0, norm)), KTensor({4 / first, 0.0, 0.0}));
    }
    near(rfftn(x, {}, {0, 2}), fft(rfft(x, {}, 2), {}, 0));
    near(fftn(z, {7, 3}), fft(fft(z, 7, 1), 3, 2));
    EXPECT_EQ(fft(KTensor::ones({3})).dtype(), dtype::complex64);
    EXPECT_EQ(fftfreq(5, 0.5).to_vector<float>(), std::vector<float>({0, 0.4F, 0.8F, -0.8F, -0.4F}));
    EXPECT_EQ(fftfreq(4, 1, dtype::float64).to_vector<double>(), std::vector<double>({0, 0.25, -0.5, -0.25}));
    EXPECT_EQ(rfftfreq(5, 0.2, dtype::float64).to_vector<double>(), std::vector<double>({0, 1, 2}));
    EXPECT_EQ(fftshift(KTensor::arange(5)).to_vector<std::int64_t>(), std::vector<std::int64_t>({3, 4, 0, 1, 2}));
    EXPECT_EQ(ifftshift(KTensor::arange(5)).to_vector<std::int64_t>(), std::vector<std::int64_t>({2, 3, 4, 0, 1}));
    EXPECT_EQ(fftshift(KTensor({{1, 2, 3}, {4, 5, 6}}), {0}).to_vector<std::int64_t>(),
              std::vector<std::int64_t>({4, 5, 6, 1, 2, 3}));
}

TEST(LinearAlgebra, Refusals) {
    const KTensor i = KTensor::arange(3);
    const KTensor x = KTensor::ones({3, 2});
    const KTensor z = KTensor::ones({2, 2}, dtype::complex64);
    KTensor leaf = KTensor::ones({3, 2}).requires_grad();
    EXPECT_REFUSAL(inv(x), "inv(): takes square matrices in the last two axes, not a shape of [3, 2].");
    EXPECT_REFUSAL(matrix_power(x, 2),
                   "matrix_power(): takes square matrices in the last two axes, not [3, 2] float32.");
    EXPECT_REFUSAL(matrix_norm(KTensor::ones({3})),
                   "matrix_norm(): takes matrices in the last two axes, not [3] float32.");
    EXPECT_REFUSAL(vector_norm(i), "vector_norm(): takes floating and complex tensors, not [3] int64.");
    EXPECT_REFUSAL(vector_norm(x, {}, false, NAN), "vector_norm(): NaN is no order.");
    EXPECT_REFUSAL(sum(qr(leaf, true).q).backward(),
                   "qr(): the complete factor [3, 3] float32 of matrices with more rows than columns has no gradient; "
                   "the reduced one has.");
    EXPECT_REFUSAL(sum(svd(leaf).u).backward(),
                   "svd(): the full factors of [3, 2] float32 have no gradients; those with full_matrices off have.");
    EXPECT_REFUSAL(vecdot(x, KTensor::ones({1})),
                   "vecdot(): [3, 2] float32 and [1] float32 have different extents along axis -1.");
    EXPECT_REFUSAL(vecdot(x, KTensor::ones({3}), 0),
                   "vecdot(): axis 0 of [3, 2] float32 and of [3] float32 are not the same from the end.");
    EXPECT_REFUSAL(fft(i), "fft(): takes floating and complex tensors, not [3] int64.");
    EXPECT_REFUSAL(rfft(z), "rfft(): takes real floating tensors, not [2, 2] complex64.");
    EXPECT_REFUSAL(ifft(z, 0), "ifft(): there is no transform of length 0; the operand is [2, 2] complex64.");
    EXPECT_REFUSAL(irfft(KTensor::ones({1})),
                   "irfft(): there is no transform of length 0; the operand is [1] float32.");
    EXPECT_REFUSAL(fft(z, {}, 2), "fft(): [2, 2] complex64 has no axis 2.");
    EXPECT_REFUSAL(fftn(z, {}, {0, -2}), "fftn(): axis -2 of [2, 2] complex64 is named twice.");
    EXPECT_REFUSAL(fftn(z, {2}, {0, 1}), "fftn(): 2 axes have 1 lengths.");
    EXPECT_REFUSAL(rfftn(KTensor::scalar(1.0F)), "rfftn(): [] float32 has no axis to transform.");
    EXPECT_REFUSAL(fftfreq(0), "fftfreq(): there is no transform of length 0.");
}

}  // namespace

}  // namespace ornik::gradcheck
