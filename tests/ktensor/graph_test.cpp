// graph_test.cpp: recording, walking and dropping graphs.
#include <gtest/gtest.h>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/impl.h"
#include "tensor/tensor.h"

namespace ornik {
namespace {

float value(const KTensor& t, int i = 0) { return static_cast<const float*>(t.tensor()->getRawData())[i]; }

TEST(Graph, ProductRule) {
    KTensor x = KTensor::full({3}, 2.0F).requires_grad();
    KTensor y = KTensor::full({2, 3}, 5.0F).requires_grad();
    KTensor z = x * y + x;
    z.backward(KTensor::ones({2, 3}));
    EXPECT_EQ(value(x.grad()), 12.0F);
    EXPECT_EQ(value(y.grad(), 5), 2.0F);
    EXPECT_EQ(x.grad().shape(), Dims({3}));
}

TEST(Graph, SecondDerivative) {
    KTensor x = KTensor::full({}, 3.0F).requires_grad();
    KTensor y = x * x * x;
    KTensor first = grad({y}, {x}, {}, {.create_graph = true})[0];
    EXPECT_EQ(value(first), 27.0F);
    KTensor second = grad({first}, {x})[0];
    EXPECT_EQ(value(second), 18.0F);
}

TEST(Graph, MillionNodes) {
    KTensor x = KTensor::full({}, 1.0F).requires_grad();
    KTensor y = x + 1.0F;
    for (int i = 0; i < 1000000; ++i) {
        y = y + 1.0F;
    }
    y.backward();
    EXPECT_EQ(value(x.grad()), 1.0F);
}

}  // namespace
}  // namespace ornik
