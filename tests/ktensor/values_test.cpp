// values_test.cpp: tensors from values, values from tensors, and tensors as text.
#include <gtest/gtest.h>

#include <complex>
#include <limits>
#include <sstream>

#include "ktensor/arithmetic.h"
#include "ktensor/ktensor.h"
#include "ktensor/shapes.h"
#include "support/expect_error.h"
#include "utils/error.h"

namespace ornik {
namespace {

using test::message_of;

TEST(Values, BracesGiveShapeAndDtype) {
    const KTensor a({{1, 2, 3}, {4, 5, 6}});
    EXPECT_EQ(a.shape(), Dims({2, 3}));
    EXPECT_EQ(a.dtype(), dtype::int64);
    EXPECT_EQ(a.to_vector<std::int64_t>(), std::vector<std::int64_t>({1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(KTensor({1.0F, 2.0F}).dtype(), dtype::float32);
    EXPECT_EQ(KTensor({1.0, 2.0F}).dtype(), dtype::float64);
    EXPECT_EQ(KTensor({true, false}).dtype(), dtype::boolean);
    EXPECT_EQ(KTensor({std::complex<float>(1, 2)}).dtype(), dtype::complex64);
    EXPECT_EQ(KTensor({{{}}}).shape(), Dims({1, 1, 0}));
    EXPECT_REFUSAL(KTensor({{1, 2}, {3}}), "KTensor(): rows in braces differ: ( 2 ) and ( 1 ) .");
}

TEST(Values, ForeignMemoryIsSharedAndGivenBackOnce) {
    std::vector<double> memory{0, 1, 2, 3, 4, 5};
    int given_back = 0;
    {
        // Columns of a row-major [2, 3], the rows from below.
        KTensor t = KTensor::from_memory(&memory[3], {3, 2}, {1, -3}, dtype::float64, [&] { ++given_back; });
        EXPECT_EQ(t.to_vector<double>(), std::vector<double>({3, 0, 4, 1, 5, 2}));
        const KTensor part = transpose(t);
        t = KTensor();
        EXPECT_EQ(given_back, 0);
        memory[0] = 7;
        EXPECT_EQ(part.to_vector<double>()[3], 7);
    }
    EXPECT_EQ(given_back, 1);
    const KTensor fixed = KTensor::from_memory(memory.data(), {6}, {}, dtype::float64, {}, true);
    KTensor target = fixed;
    EXPECT_REFUSAL(target.mutable_span<double>(), "mutable_span(): the memory of [6] float64 is read-only.");
    EXPECT_THROW(add_(target, Scalar(1.0)), Error);
    EXPECT_EQ(memory[1], 1);
    EXPECT_EQ(message_of([&] {
                  (void)KTensor::from_memory(memory.data(), {2}, {1, 1}, dtype::float64, [&] { ++given_back; });
              }),
              "from_memory(): [2] float64 does not have 2 strides.");
    EXPECT_EQ(given_back, 2);
}

TEST(Values, TypedAccessIsChecked) {
    const KTensor a({1.5F, 2.5F});
    EXPECT_EQ(a.span<float>()[1], 2.5F);
    EXPECT_EQ(KTensor::scalar(3).item<double>(), 3.0);
    EXPECT_REFUSAL(a.item<float>(), "item(): [2] float32 does not have one element.");
    EXPECT_REFUSAL(KTensor::scalar(1.5F).item<int>(), "item(): numpy.int32 does not hold the element of [] float32.");
    EXPECT_REFUSAL(a.span<double>(), "span(): the elements of [2] float32 are no numpy.float64.");
    EXPECT_REFUSAL(transpose(KTensor::ones({2, 3})).span<float>(),
                   "span(): the elements of [3, 2] float32 do not stand one behind the other; contiguous() copies.");
    EXPECT_REFUSAL(KTensor::from(std::vector<int>{1, 2}, {3}), "from(): 2 numbers do not make [3] int32.");
    EXPECT_REFUSAL(KTensor::zeros({2, -1}), "full(): there is no shape [2, -1] float32.");
}

TEST(Values, FillsCutThePastOff) {
    KTensor x = KTensor({{1.0, 2.0}, {3.0, 4.0}}).requires_grad();
    KTensor y = x * 2.0;
    y.t().sum().backward();
    EXPECT_EQ(x.grad().to_vector<double>(), std::vector<double>(4, 2));
    y.fill_(7);
    EXPECT_FALSE(y.wants_grad());
    EXPECT_EQ(y.to_vector<double>(), std::vector<double>(4, 7));
    EXPECT_EQ(KTensor({1, 2}).zero_().to_vector<int>(), std::vector<int>({0, 0}));
    EXPECT_REFUSAL(
        x.zero_(),
        "fill_(): a leaf that asks for gradients, [2, 2] float64, can be changed in place only inside NoGrad.");
    EXPECT_REFUSAL(y.fill_(std::complex<float>(0, 1)),
                   "fill_(): [2, 2] float64 can not hold a result of numpy.complex64.");
    EXPECT_REFUSAL(KTensor::ones({2, 2, 2}).t(),
                   "t(): [2, 2, 2] float32 has more than two axes; transpose() exchanges the last two.");
}

TEST(Values, SequencesAreExact) {
    EXPECT_EQ(KTensor::arange(1, 2, 0.25, dtype::float64).to_vector<double>(),
              std::vector<double>({1, 1.25, 1.5, 1.75}));
    EXPECT_EQ(KTensor::arange(3, 0, -1).to_vector<std::int64_t>(), std::vector<std::int64_t>({3, 2, 1}));
    EXPECT_EQ(KTensor::arange(2, 2).size(), 0);
    EXPECT_EQ(KTensor::linspace(0, 1, 5).to_vector<float>(), std::vector<float>({0, 0.25F, 0.5F, 0.75F, 1}));
    EXPECT_EQ(KTensor::eye(2, 3, 1, dtype::int64).to_vector<std::int64_t>(),
              std::vector<std::int64_t>({0, 1, 0, 0, 0, 1}));
}

TEST(Text, StandsInColumns) {
    std::ostringstream stream;
    stream << KTensor({{1.0F, -2.5F}, {100.0F, 0.125F}});
    EXPECT_EQ(stream.str(), "[[  1.000,  -2.500],\n [100.000,   0.125]]");
    EXPECT_EQ(KTensor({1, -20}).to_string(), "[  1, -20]");
    EXPECT_EQ(KTensor({true, false}).to_string(), "[ true, false]");
    EXPECT_EQ(KTensor({1.0, 2.0}).to_string(), "[1., 2.]");
    EXPECT_EQ(KTensor({1e-9, 1.0}).to_string(2), "[1.00e-09, 1.00e+00]");
    EXPECT_EQ(KTensor({std::complex<float>(1, -2)}).to_string(), "[1.-2.i]");
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(KTensor({infinity, -infinity, std::nan("")}).to_string(), "[ inf, -inf,  nan]");
    EXPECT_EQ(KTensor::scalar(3).to_string(), "3");
    EXPECT_EQ(KTensor::zeros({0, 2}).to_string(), "[]");
    EXPECT_EQ(KTensor().to_string(), "undefined");
    EXPECT_EQ(KTensor::arange(2000).to_string(), "[   0,    1,    2, ..., 1997, 1998, 1999]");
    EXPECT_EQ(reshape(KTensor::arange(4), {2, 1, 2}).to_string(), "[[[0, 1]],\n\n [[2, 3]]]");
}

}  // namespace
}  // namespace ornik
