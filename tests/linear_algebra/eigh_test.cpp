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

void expect_form(const Results& found, const Dims& shape, std::int64_t vectors_dtype, std::int64_t values_dtype) {
    ASSERT_EQ(found[0]->Shape(), shape);
    ASSERT_EQ(found[1]->Shape(), Dims(shape.begin(), shape.end() - 1));
    ASSERT_EQ(found[0]->Dtype(), vectors_dtype);
    ASSERT_EQ(found[1]->Dtype(), values_dtype);
}

void check(const Dims& shape, std::int64_t dtype, Layout layout) {
    const std::int64_t n = shape.back();
    std::vector<Complex<double>> input = values_of<Complex<double>>(random_tensor(shape, dtype::complex128, 1));
    for (std::int64_t i = 0; i < std::ssize(input); ++i) {  // What is not read.
        Complex<double>& z = input[at(0, i, 0)];
        const std::int64_t above = i % n - i / n % n;
        z = above > 0 ? Complex<double>(std::nan(""), std::nan("")) : above == 0 ? Complex<double>(z.real, 7) : z;
    }
    const TensorPtr x = make_empty(shape, dtype, layout);
    x->copy_from_(make<Complex<double>>(shape, input).get());
    const std::string before = bytes_of(x);
    const Results found(eigh(x.get()));
    const TensorPtr alone(eigvalsh(x.get()));
    EXPECT_EQ(bytes_of(x), before);
    expect_form(found, shape, dtype, real_dtype(x));
    ASSERT_EQ(alone->Shape(), found[1]->Shape());
    ASSERT_EQ(alone->Dtype(), real_dtype(x));
    const std::vector<Number> values = numbers(found[1]), single = numbers(alone);
    const double bound = 4 * static_cast<double>(n) * epsilon_of(x);
    for (std::int64_t m = 0; m < x->Size() / (n * n); ++m) {
        Dense a = Dense::of(x, m);
        Dense w = Dense::unit(n);
        for (std::int64_t i = 0; i < n; ++i) {
            for (std::int64_t j = 0; j < i; ++j) {
                a(j, i) = std::conj(a(i, j));
            }
            a(i, i) = a(i, i).real();
            w(i, i) = values[at(m, i, n)];
            EXPECT_TRUE(i == 0 || w(i - 1, i - 1).real() <= w(i, i).real());
            EXPECT_NEAR(single[at(m, i, n)].real(), w(i, i).real(), bound);
        }
        const Dense v = Dense::of(found[0], m);
        EXPECT_LE((a * v - v * w).largest(), bound);
        expect_orthonormal_columns(v, bound);
    }
}

TEST(Eigh, VectorsAndValuesObeyTheirEquations) {
    for (const Dims& shape : {Dims{1, 1}, {2, 2}, {1, 7, 7}, {5, 16, 16}, {3, 1, 1}, {65, 65}}) {
        for (const std::int64_t dtype : float_dtypes) {
            for (const Layout layout : all_layouts) {
                SCOPED_TRACE(dtype_name(dtype) + " " + name_of(layout) + " " + shape_text(shape));
                check(shape, dtype, layout);
            }
        }
    }
    for (const Dims& shape : {Dims{0, 3, 3}, Dims{2, 0, 0}, Dims{0, 0}}) {
        expect_form(Results(eigh(make_empty(shape, dtype::float64).get())), shape, dtype::float64, dtype::float64);
    }
}

TEST(Eigh, SameBitsForEveryTeamSize) {
    const TensorPtr x = random_tensor({9, 20, 20}, dtype::float32, 1);
    expect_same_bits([&] { return std::move(Results(eigh(x.get())).tensors); });
}

TEST(Eigh, GradientsOfPartsAddUp) {
    for (const std::int64_t dtype : {dtype::float64, dtype::complex128}) {
        const TensorPtr x = random_tensor({2, 4, 4}, dtype, 1);
        const TensorPtr gl = random_tensor({2, 4}, dtype::float64, 4, Layout::every_other);
        const Results kept(eigh(x.get()));
        const TensorPtr weights = random_tensor({2, 4, 4}, dtype::float64, 3);
        const TensorPtr weighted(kept[0]->mult_tensor(weights.get()));
        const TensorPtr gv = make_empty({2, 4, 4}, dtype, Layout::transposed);
        gv->copy_from_(weighted.get());
        const TensorPtr of_vectors(eigh_grad(gv.get(), nullptr, x.get())), of_values(eigvalsh_grad(gl.get(), x.get()));
        const TensorPtr both(eigh_grad(gv.get(), gl.get(), x.get())), sum(of_vectors->add_tensor(of_values.get()));
        EXPECT_TRUE(both->all_close(sum.get(), 0, 1e-12));
        EXPECT_EQ(bytes_of(TensorPtr(eigh_grad_from(gv.get(), gl.get(), kept[0].get(), kept[1].get()))),
                  bytes_of(both));
    }
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
