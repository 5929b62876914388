// linalg_rows_test.cpp: gradients of decompositions, norms and Fourier transforms; their values where floor 8 makes
// them; refusals.
#include <complex>

#include "ktensor/fft.h"
#include "ktensor/linalg.h"
#include "random/generator.h"
#include "rows.h"
#include "utils/error.h"

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

template <typename Call>
Row row(Op op, std::vector<Dims> shapes, Call call, bool complex = true, const char* note = "") {
    return {op, std::move(shapes), [call](const Tensors& x) { return call(x[0]); }, complex, -1, 1, note};
}

Row solution(Dims x, Dims b, const char* note) {
    return {Op::solve, {x, b}, [](const Tensors& t) { return solve(regular(t[0]), t[1]); }, true, -1, 1, note};
}

Row norm(Op op, double ord, const char* note) {
    return row(
        op, {{2, 3}}, [ord](const KTensor& x) { return vector_norm(x, {-1}, false, ord); }, true, note);
}

Row norm(Op op, MatrixNorm ord, const char* note) {
    return row(
        op, {{2, 3, 2}}, [ord](const KTensor& x) { return matrix_norm(apart(x), ord); }, true, note);
}

}  // namespace

std::vector<Row> linalg_rows() {
    std::vector<Row> rows{
        row(Op::cholesky, {{2, 3, 3}}, [](const KTensor& x) { return cholesky(definite(x)); }),
        row(
            Op::cholesky, {{3, 3}}, [](const KTensor& x) { return cholesky(definite(x), true); }, true, "upper"),
        row(Op::qr, {{2, 4, 3}}, [](const KTensor& x) { return qr(x).q; }),
        row(
            Op::qr, {{3, 3}}, [](const KTensor& x) { return qr(x, true).r; }, true, "square"),
        row(
            Op::add, {{3, 5}}, [](const KTensor& x) { return sum(qr(x).q * 2.0) + sum(sqr(qr(x).r)); }, true,
            "wide qr"),
        row(Op::svd, {{2, 3, 2}}, [](const KTensor& x) { return svd(apart(x)).s; }),
        row(
            Op::add, {{4, 3}}, [](const KTensor& x) { return of_vectors(svd(apart(x), false)); }, true, "tall svd"),
        row(
            Op::add, {{2, 4}}, [](const KTensor& x) { return of_vectors(svd(apart(x), false)); }, true, "wide svd"),
        row(
            Op::sqr, {{3, 2}}, [](const KTensor& x) { return sqr(abs(svd(apart(x), false).u)); }, true, "u alone"),
        row(
            Op::sqr, {{2, 3}}, [](const KTensor& x) { return sqr(abs(svd(apart(x), false).vh)); }, true, "vh alone"),
        row(Op::svdvals, {{2, 2, 3}}, [](const KTensor& x) { return svdvals(apart(x)); }),
        row(Op::eig, {{2, 3, 3}}, [](const KTensor& x) { return eigvals(apart(x)); }),
        row(
            Op::sqr, {{3, 3}}, [](const KTensor& x) { return sqr(abs(eig(apart(x)).vectors)); }, true, "eig"),
        row(
            Op::sqr, {{2, 2}}, [](const KTensor& x) { return sqr(abs(eig(x * 0.1 + spiral()).vectors)); }, false,
            "conjugate pairs"),
        row(Op::inv, {{2, 3, 3}}, [](const KTensor& x) { return inv(regular(x)); }),
        solution({2, 3, 3}, {2, 3, 2}, "batch"),
        solution({2, 3, 3}, {3}, "one vector"),
        solution({3, 3}, {2, 1, 3, 1}, "one matrix"),
        row(Op::det, {{2, 3, 3}}, [](const KTensor& x) { return det(x); }),
        row(Op::slogdet, {{2, 3, 3}}, [](const KTensor& x) { return slogdet(x).logabsdet; }),
        row(
            Op::slogdet, {{2, 2}}, [](const KTensor& x) { return slogdet(x + turned()).sign; }, true, "sign"),
        row(Op::pinv, {{2, 4, 3}}, [](const KTensor& x) { return pinv(apart(x)); }),
        row(
            Op::pinv, {{2, 3}}, [](const KTensor& x) { return pinv(apart(x), 1e-6); }, true, "wide"),
        row(
            Op::matmul, {{3, 3}}, [](const KTensor& x) { return matrix_power(regular(x), -3); }, true, "power"),
        {Op::sum, {{2, 3}, {3}}, [](const Tensors& x) { return vecdot(x[0], x[1]); }, true, -1, 1, "vecdot"},
        norm(Op::sum, 1, "norm 1"),
        norm(Op::l2_norm, 2, "norm 2"),
        norm(Op::where, 3, "norm 3"),
        norm(Op::pow, -2, "norm -2"),
        norm(Op::max, HUGE_VAL, "norm inf"),
        norm(Op::min, -HUGE_VAL, "norm -inf"),
        norm(Op::l2_norm, MatrixNorm::frobenius, "frobenius"),
        norm(Op::squeeze, MatrixNorm::nuclear, "nuclear"),
        norm(Op::squeeze, MatrixNorm::largest_value, "norm 2"),
        norm(Op::squeeze, MatrixNorm::smallest_value, "norm -2"),
        norm(Op::squeeze, MatrixNorm::largest_column, "norm 1"),
        norm(Op::squeeze, MatrixNorm::smallest_row, "norm -inf"),
    };
    using Norm = FourierNorm;
    rows.push_back(row(Op::fft, {{2, 5}}, [](const KTensor& x) { return fft(x); }));
    for (const std::int64_t n : {3, 6}) {  // cut off, filled up
        const char* note = n == 3 ? "odd" : "even";
        rows.push_back(row(
            Op::fft, {{4, 2}}, [n](const KTensor& x) { return ifft(x, n, 0, Norm::ortho); }, true, note));
        rows.push_back(row(
            Op::rfft, {{2, 5}}, [n](const KTensor& x) { return rfft(x, n, -1, Norm::forward); }, false, note));
        rows.push_back(row(
            Op::irfft, {{3, 2}}, [n](const KTensor& x) { return irfft(x, n, 0); }, true, note));
        rows.push_back(row(
            Op::irfft, {{3}}, [n](const KTensor& x) { return hfft(x, n); }, true, note));
        rows.push_back(row(
            Op::conj, {{2, 4}}, [n](const KTensor& x) { return ihfft(x, n); }, false, note));
    }
    rows.push_back(row(
        Op::fft, {{2, 3, 2}},
        [](const KTensor& x) {
            return fftn(x, {4, 2}, {2, 0});
        },
        true, "axes"));
    rows.push_back(row(
        Op::irfft, {{3, 2, 2}},
        [](const KTensor& x) {
            return irfftn(x, {-1, 3});
        },
        true, "axes"));
    rows.push_back(row(Op::roll, {{2, 3}}, [](const KTensor& x) { return ifftshift(x); }));
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
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] { (void)inv(x); }, "inv(): takes square matrices in the last two axes, not a shape of [3, 2]."},
        {[&] { (void)matrix_power(x, 2); },
         "matrix_power(): takes square matrices in the last two axes, not [3, 2] float32."},
        {[&] { (void)matrix_norm(KTensor::ones({3})); },
         "matrix_norm(): takes matrices in the last two axes, not [3] float32."},
        {[&] { (void)vector_norm(i); }, "vector_norm(): takes floating and complex tensors, not [3] int64."},
        {[&] { (void)vector_norm(x, {}, false, NAN); }, "vector_norm(): NaN is no order."},
        {[&] { sum(qr(leaf, true).q).backward(); },
         "qr(): the complete factor [3, 3] float32 of matrices with more rows than columns has no gradient; the "
         "reduced "
         "one has."},
        {[&] { sum(svd(leaf).u).backward(); },
         "svd(): the full factors of [3, 2] float32 have no gradients; those with full_matrices off have."},
        {[&] { (void)vecdot(x, KTensor::ones({1})); },
         "vecdot(): [3, 2] float32 and [1] float32 have different extents along axis -1."},
        {[&] { (void)vecdot(x, KTensor::ones({3}), 0); },
         "vecdot(): axis 0 of [3, 2] float32 and of [3] float32 are not the same from the end."},
        {[&] { (void)fft(i); }, "fft(): takes floating and complex tensors, not [3] int64."},
        {[&] { (void)rfft(z); }, "rfft(): takes real floating tensors, not [2, 2] complex64."},
        {[&] { (void)ifft(z, 0); }, "ifft(): there is no transform of length 0; the operand is [2, 2] complex64."},
        {[&] { (void)irfft(KTensor::ones({1})); },
         "irfft(): there is no transform of length 0; the operand is [1] float32."},
        {[&] { (void)fft(z, {}, 2); }, "fft(): [2, 2] complex64 has no axis 2."},
        {[&] {
             (void)fftn(z, {}, {0, -2});
         },
         "fftn(): axis -2 of [2, 2] complex64 is named twice."},
        {[&] {
             (void)fftn(z, {2}, {0, 1});
         },
         "fftn(): 2 axes have 1 lengths."},
        {[&] { (void)rfftn(KTensor::scalar(1.0F)); }, "rfftn(): [] float32 has no axis to transform."},
        {[&] { (void)fftfreq(0); }, "fftfreq(): there is no transform of length 0."},
    };
    for (const auto& [call, message] : rows) {
        std::string found = "(no error)";
        try {
            call();
        } catch (const Error& error) {
            found = error.message();
        }
        EXPECT_EQ(found, message);
    }
}

}  // namespace

}  // namespace ornik::gradcheck
