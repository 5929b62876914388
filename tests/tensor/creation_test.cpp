// Creation, fills and sequences.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/tensors.h"

namespace ornik::test {
namespace {

TEST(Creation, EveryDtypeAndForm) {
    for_types(AllTypes{}, []<typename T>() {
        const std::int64_t code = dtype_code<T>;
        const TensorPtr zeros(Tensor::zeros({2, 2}, 0, code)), ones(Tensor::ones({2, 2}, 0, code));
        EXPECT_EQ(values_of<T>(zeros), std::vector<T>(4, T(0)));
        EXPECT_EQ(values_of<T>(ones), std::vector<T>(4, T(1)));
        EXPECT_EQ(TensorPtr(Tensor::empty_like(ones.get()))->Dtype(), code);
        EXPECT_EQ(values_of<T>(TensorPtr(Tensor::zeros_like(ones.get()))), values_of<T>(zeros));
        const TensorPtr by_options(Tensor::zeros_with_tensor_options(*ones->get_options()));
        EXPECT_EQ(by_options->Shape(), ones->Shape());
        EXPECT_EQ(TensorPtr(Tensor::empty_using_tensor_options(*ones->get_options()))->Dtype(), code);
        EXPECT_EQ(TensorPtr(Tensor::scalar(static_cast<std::int32_t>(code)))->Size(), 1);
        const T value = counted<T>(1, 5)[0];
        EXPECT_EQ(values_of<T>(TensorPtr(Tensor::full({3}, value, 0, code))), std::vector<T>(3, value));
        for (const Layout layout : all_layouts) {
            const TensorPtr view = make_empty({3, 5}, code, layout);
            view->fill_(2);
            view->fill_with_(value);
            EXPECT_EQ(values_of<T>(view), std::vector<T>(15, value)) << name_of(layout);
        }
    });
    const TensorPtr scalar(Tensor::zeros({}, 0, dtype::float64));
    EXPECT_TRUE(scalar->get_if_scalar());
    EXPECT_EQ(values_of<double>(scalar), std::vector<double>{0});
    const TensorPtr complex(Tensor::full_std_complex_wrapper({1}, std::complex<double>(1, -2), 0, dtype::complex64));
    EXPECT_EQ(values_of<Complex<float>>(complex)[0], Complex<float>(1, -2));
    complex->fill_std_complex_pybind_(std::complex<float>(3, 4));
    EXPECT_EQ(values_of<Complex<float>>(complex)[0], Complex<float>(3, 4));
}

TEST(Creation, FillOfAViewLeavesItsNeighboursAlone) {
    const TensorPtr whole(Tensor::zeros({3, 4}, 0, dtype::int16));
    const TensorPtr column(share_storage_tensor(whole->getStorage(), {3}, {4}, dtype::int16, 2));
    column->fill_(7);
    EXPECT_EQ(values_of<std::int16_t>(whole), (std::vector<std::int16_t>{0, 0, 7, 0, 0, 0, 7, 0, 0, 0, 7, 0}));
}

TEST(Creation, GivenStrides) {
    const TensorPtr t(Tensor::empty_strided({2, 3}, {1, 2}, dtype::int32));
    EXPECT_EQ(t->Strides(), (Dims{1, 2}));
    EXPECT_EQ(t->getMeta()->GetStride(), (Dims{1, 2}));
    EXPECT_EQ(t->getStorage()->getSize(), 6);
    EXPECT_EQ(TensorPtr(Tensor::new_tensor({2, 2}, {0, 1}, false, 0, 6))->Strides(), (Dims{0, 1}));
    EXPECT_EQ(TensorPtr(Tensor::new_tensor({}, {}, true, 0, 6))->Size(), 1);
    EXPECT_THROW(Tensor::empty_strided(t->Shape(), {3, 2}, 6), Error);
    EXPECT_NO_THROW(TensorPtr(Tensor::zeros(Dims(25, 1), 0, 6)));
}

// The running sum that all sequences are, written down once more.
std::vector<float> running_sum(float start, float step, std::size_t count) {
    std::vector<float> values;
    volatile float x = start;  // Rounded to single precision at every step.
    for (std::size_t i = 0; i < count; ++i) {
        values.push_back(static_cast<float>(x));
        x = x + step;
    }
    return values;
}

TEST(Sequences, AreRunningSumsInSinglePrecision) {
    EXPECT_EQ(values_of<float>(TensorPtr(Tensor::arange(0, 1, 0.3, 0, 6))), running_sum(0, 0.3F, 4));
    EXPECT_EQ(values_of<float>(TensorPtr(Tensor::range(0, 1, 0.25F, 0, 6))), running_sum(0, 0.25F, 5));
    EXPECT_EQ(values_of<float>(TensorPtr(Tensor::arange(5, -5, -0.1, 0, 6))), running_sum(5, -0.1F, 100));
    const std::vector<float> sums = running_sum(-1.3F, 0.1F, 1000);
    const std::vector<double> doubles = values_of<double>(TensorPtr(Tensor::arange(-1.3, 98.65, 0.1, 0, 7)));
    EXPECT_EQ(doubles, std::vector<double>(sums.begin(), sums.end()));
    const std::vector<std::int32_t> floors = values_of<std::int32_t>(TensorPtr(Tensor::range(-2.5F, 2.5F, 0.7F, 0, 4)));
    std::vector<std::int32_t> expected;
    for (const float x : running_sum(-2.5F, 0.7F, 8)) {
        expected.push_back(static_cast<std::int32_t>(x < 0 ? std::floor(x) : std::trunc(x)));
    }
    EXPECT_EQ(floors, expected);
    EXPECT_EQ(floors.front(), -3);

    std::vector<float> closed = running_sum(0, 1.0F / 41.0F, 42);
    closed.back() = 0.0F + 41.0F * (1.0F / 41.0F);
    EXPECT_EQ(values_of<float>(TensorPtr(Tensor::linspace(0, 1, 42, 0, 6))), closed);
    EXPECT_EQ(values_of<float>(TensorPtr(Tensor::linspace(0, 1, 5, 0, 6))).back(), 1.0F);
    EXPECT_EQ(values_of<float>(TensorPtr(Tensor::linspace(3, 9, 1, 0, 6))), std::vector<float>{3});
    EXPECT_EQ(values_of<float>(TensorPtr(Tensor::logspace(0, 3, 4, 2, 0, 6))), (std::vector<float>{1, 2, 4, 8}));
    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(Tensor::logspace(0.5F, 1.5F, 2, 10, 0, 5))),
              (std::vector<std::int64_t>{3, 31}));
}

TEST(Matrices, EyeAndTrianglesAgainstLoops) {
    for (const std::int64_t offset : {-2, -1, 0, 1, 2}) {
        const TensorPtr eye(Tensor::eye(3, 4, offset, dtype::int8));
        const std::vector<std::int8_t> values = values_of<std::int8_t>(eye);
        for (std::int64_t i = 0; i < 12; ++i) {
            EXPECT_EQ(values[static_cast<std::size_t>(i)], i % 4 - i / 4 == offset ? 1 : 0);
        }
    }
    for_types(TypeList<bool, std::int16_t, double, Complex<double>>{}, []<typename T>() {
        const std::vector<T> all = counted<T>(24, 1);
        for (const Layout layout : all_layouts) {
            const TensorPtr t = make<T>({2, 3, 4}, all, layout);
            for (const std::int64_t k : {std::int64_t{-9}, std::int64_t{-1}, std::int64_t{0}, std::int64_t{2},
                                         std::numeric_limits<std::int64_t>::max()}) {
                std::vector<T> lower = all;
                std::vector<T> upper = all;
                for (std::int64_t i = 0; i < 24; ++i) {
                    const std::int64_t above = i % 4 - i / 4 % 3;
                    (above <= k ? upper : lower)[static_cast<std::size_t>(i)] = T(0);
                    if (above == k) {
                        upper[static_cast<std::size_t>(i)] = all[static_cast<std::size_t>(i)];
                    }
                }
                EXPECT_EQ(values_of<T>(TensorPtr(t->tril(k))), lower) << k << name_of(layout);
                EXPECT_EQ(values_of<T>(TensorPtr(t->triu(k))), upper) << k << name_of(layout);
            }
        }
    });
}

TEST(Matrices, DiagonalIsAView) {
    const TensorPtr t = make<std::int32_t>({2, 3, 4}, counted<std::int32_t>(24), Layout::transposed);
    for (const std::int64_t offset : {-3, -1, 0, 2, 4}) {
        const TensorPtr diagonal(t->diagonal(offset, -1, 1));
        std::vector<std::int32_t> expected;
        for (std::int32_t i = 0; i < 24; ++i) {  // Batch, position on the last axis, position on the middle one.
            if (i / 3 % 4 + offset == i % 3) {
                expected.push_back(i / 12 * 12 + i % 3 * 4 + i / 3 % 4);
            }
        }
        EXPECT_EQ(diagonal->Shape(), (Dims{2, std::ssize(expected) / 2}));
        EXPECT_EQ(values_of<std::int32_t>(diagonal), expected) << offset;
        EXPECT_EQ(diagonal->getStorage(), t->getStorage());
    }
}

}  // namespace
}  // namespace ornik::test
