#include "tensor/broadcast.h"

#include "support/expect_error.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

TEST(Broadcast, PairwiseShape) {
    struct Case {
        Dims a, b, expected;
    };
    const Case cases[] = {{{3, 1}, {1, 4}, {3, 4}}, {{2, 3}, {3}, {2, 3}}, {{}, {5}, {5}},
                          {{0}, {1}, {0}},          {{0}, {0}, {0}},       {{}, {}, {}}};
    for (const Case& c : cases) {
        EXPECT_EQ(infer_size_impl(c.a, c.b), c.expected);
        EXPECT_EQ(infer_size_impl(c.b, c.a), c.expected);
    }
    const auto refused = [](const Dims& a, const Dims& b, const std::string& message) {
        expect_error([&] { infer_size_impl(a, b); }, message, "ornik::infer_size_impl", "src/tensor/tensor_shape.cpp");
    };
    refused({2}, {3}, "The size of tensor a (2) must match the size of tensor b (3) at non-singleton dimension 0");
    // Two mismatches: the rightmost is reported.
    refused({4, 2}, {5, 1, 3},
            "The size of tensor a (2) must match the size of tensor b (3) at non-singleton "
            "dimension 2");
}

TEST(Broadcast, Expansion) {
    using Geometry = std::pair<Dims, Dims>;
    EXPECT_EQ(inferExpandGeometryImpl({3, 1}, {1, 1}, {2, 3, 4}), Geometry({2, 3, 4}, {0, 1, 0}));
    EXPECT_EQ(inferExpandGeometryImpl({3, 1}, {1, 1}, {1, 3, 4}), Geometry({1, 3, 4}, {3, 1, 0}));
    EXPECT_EQ(inferExpandGeometryImpl({3, 1}, {1, 1}, {-1, 4}), Geometry({3, 4}, {1, 0}));
    EXPECT_EQ(inferExpandGeometryImpl({}, {}, {2, -1}), Geometry({2, -1}, {0, 0}));
    const auto refused = [](const Dims& target, const std::string& message) {
        const Dims shape{3, 1}, strides{1, 1};
        expect_error([&] { inferExpandGeometryImpl(shape, strides, target); }, message,
                     "ornik::inferExpandGeometryImpl", "include/tensor/broadcast.h");
    };
    refused({-1, 3, 1}, "The expanded size of the tensor (-1) isn't allowed in a leading, non-existing dimension 0");
    refused({2, 4},
            "The expanded size of the tensor (2) must match the existing size (3) at non-singleton dimension "
            "0. Target sizes: ( 2, 4 ) . Tensor sizes: ( 3, 1 ) ");
    refused({3}, "The expanded shape ( 3 ) has fewer axes than the tensor's shape ( 3, 1 ) .");
}

TEST(Broadcast, Tensors) {
    const TensorPtr a = make<float>({2, 3}, counted<float>(6), Layout::transposed);
    const TensorPtr wide(Tensor::broadcast_to(a.get(), {5, 2, 3}));
    EXPECT_EQ(wide->getStorage(), a->getStorage());

    const TensorPtr row = make<float>({3}, {1, 2, 3}, Layout::offset);
    const std::vector<Tensor*> pair = Tensor::broadcast(a.get(), row.get());
    const TensorPtr first(pair.at(0));
    const TensorPtr second(pair.at(1));
    EXPECT_NE(first.get(), a.get());
    EXPECT_EQ(values_of<float>(first), values_of<float>(a));
    EXPECT_EQ(values_of<float>(second), (std::vector<float>{1, 2, 3, 1, 2, 3}));

    const TensorPtr one(Tensor::ones({1}, 0, dtype::float32));
    EXPECT_EQ(TensorPtr(Tensor::broadcast_to(one.get(), {0}))->Size(), 0);
    const TensorPtr scalar(Tensor::ones({}, 0, dtype::float32));
    EXPECT_EQ(TensorPtr(Tensor::broadcast_to(scalar.get(), {-1}))->Shape(), Dims{-1});

    const auto refused = [&](const Dims& shape, const std::string& message) {
        expect_error([&] { Tensor::broadcast_to(a.get(), shape); }, message, "ornik::just_if_broadcastable",
                     "src/tensor/tensor_core.cpp");
    };
    refused({3},
            "reference shape's size should >= input shape's size in broadcast_to. input : ( 2, 3 ) , target: "
            "( 3 )  .");
    refused({4, 3},
            " The expanded size : ( 4, 3 )  must match the input shape: ( 2, 3 )  at non-singleton dimension "
            "0.");
    refused({2, -1},
            " The expanded size : ( 2, -1 )  must match the input shape: ( 2, 3 )  at non-singleton dimension "
            "1.");
    EXPECT_EQ(just_if_broadcastable({3}, {2, 4, 3}), (Dims{1, 1, 3}));
}

}  // namespace
}  // namespace ornik::test
