// The shared library as a program sees it: through ornik.h alone.
#include <gtest/gtest.h>
#include <ornik.h>

#include <complex>
#include <memory>

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
    use_scalar_forms(ornik::complex_scalar::complex<float>(1, 1));
    use_scalar_forms(ornik::complex_scalar::complex<double>(1, 1));
    use_complex_forms(std::complex<float>(1, 1));
    use_complex_forms(std::complex<double>(1, 1));
}

TEST(Interface, ErrorsCrossTheLibraryBoundary) {
    EXPECT_THROW(Tensor::empty({0}, 0, ornik::dtype::float32), std::runtime_error);
    EXPECT_THROW(ornik::maybe_wrap_dim(3, 2), std::runtime_error);
    EXPECT_THROW(ornik::CheckDev(7), std::runtime_error);
    EXPECT_EQ(ornik::getLoss("unknown"), nullptr);
}

}  // namespace
