// The shared library as a program sees it: through ornik.h alone.
#include <gtest/gtest.h>
#include <ornik.h>

#include <complex>
#include <memory>
#include <string>
#include <utility>

namespace {

using ornik::Tensor;
using TensorPtr = std::unique_ptr<Tensor>;

// Every template that the headers declare is exported for every type they promise.
template <typename T>
void use_scalar_forms(T scalar) {
    const TensorPtr t(Tensor::ones({2}, 0, ornik::dtype::complex128));
    for (Tensor* result : {t->add_scalar(scalar), t->sub_scalar(scalar), t->mult_scalar(scalar), t->div_scalar(scalar),
                           Tensor::full({1}, scalar, 0, ornik::dtype::complex128)}) {
        EXPECT_TRUE(TensorPtr(result)->isComplexType());
    }
    t->add_scalar_inplace(scalar);
    t->sub_scalar_inplace(scalar);
    t->mult_scalar_inplace(scalar);
    t->div_scalar_inplace(scalar);
    t->fill_with_(scalar);
}

template <typename C>
void use_complex_forms(C scalar) {
    const TensorPtr t(Tensor::ones({2}, 0, ornik::dtype::complex128));
    for (Tensor* result :
         {t->add_scalar_std_complex_wrapper(scalar), t->sub_scalar_std_complex_wrapper(scalar),
          t->mult_scalar_std_complex_wrapper(scalar), t->div_scalar_std_complex_wrapper(scalar),
          t->mult_scalar_std_complex_grad_wrapper(scalar), Tensor::full_std_complex_wrapper({1}, scalar, 0, 9)}) {
        EXPECT_TRUE(TensorPtr(result)->isComplexType());
    }
    t->add_scalar_inplace_std_complex_wrapper(scalar);
    t->sub_scalar_inplace_std_complex_wrapper(scalar);
    t->mult_scalar_inplace_std_complex_wrapper(scalar);
    t->div_scalar_inplace_std_complex_wrapper(scalar);
    t->fill_std_complex_pybind_(scalar);
}

TEST(Interface, ExportsEveryScalarType) {
    use_scalar_forms(true);
    use_scalar_forms(std::uint8_t{1});
    use_scalar_forms(std::int8_t{1});
    use_scalar_forms(std::int16_t{1});
    use_scalar_forms(1);
    use_scalar_forms(std::int64_t{1});
    use_scalar_forms(1.0F);
    use_scalar_forms(1.0);
    use_scalar_forms(std::complex<float>(1, 1));
    use_scalar_forms(ornik::complex_scalar::complex<float>(1, 1));
    use_scalar_forms(ornik::complex_scalar::complex<double>(1, 1));
    use_complex_forms(std::complex<float>(1, 1));
    use_complex_forms(std::complex<double>(1, 1));
}

// Types without a dtype of their own: that of the smallest element type that holds all their values.
TEST(Interface, ScalarsOfEveryArithmeticType) {
    const std::pair<ornik::Scalar, std::int64_t> rows[] = {
        {'a', std::is_signed_v<char> ? ornik::dtype::int8 : ornik::dtype::uint8},
        {static_cast<unsigned short>(60000), ornik::dtype::int32},
        {4000000000U, ornik::dtype::int64},
        {9000000000L, ornik::dtype::int64},
        {-9000000000LL, ornik::dtype::int64},
        {u'a', ornik::dtype::int32},
        {std::complex<double>(1, 2), ornik::dtype::complex128},
    };
    for (const auto& [scalar, dtype] : rows) {
        EXPECT_EQ(scalar.Dtype(), dtype);
    }
    const TensorPtr t(Tensor::zeros({1}, 0, ornik::dtype::float64));
    const auto& value = *static_cast<const double*>(t->getRawData());
    t->add_scalar_inplace(4000000000U);
    t->add_scalar_inplace(-9000000000LL);
    t->add_scalar_inplace('a');
    EXPECT_EQ(value, 4e9 - 9e9 + 'a');
    static_assert(!ornik::ScalarArgument<unsigned long long> && !ornik::ScalarArgument<long double> &&
                  !ornik::ScalarArgument<std::complex<long double>> && !ornik::ScalarArgument<const char*>);
}

TEST(Interface, Version) {
    EXPECT_EQ(ornik::version(), std::to_string(ORNIK_VERSION_MAJOR) + "." + std::to_string(ORNIK_VERSION_MINOR) + "." +
                                    std::to_string(ORNIK_VERSION_PATCH));
    EXPECT_STRNE(ornik::instruction_set(), "unknown");
    EXPECT_EQ(ornik::shape2stride({2, 3, 4}), (ornik::Dims{12, 4, 1}));
}

TEST(Interface, ErrorsCrossTheLibraryBoundary) {
    EXPECT_THROW(Tensor::empty({0}, 0, ornik::dtype::float32), std::runtime_error);
    EXPECT_THROW(ornik::maybe_wrap_dim(3, 2), std::runtime_error);
    EXPECT_THROW(ornik::CheckDev(7), std::runtime_error);
    EXPECT_EQ(ornik::getLoss("unknown"), nullptr);
}

}  // namespace
