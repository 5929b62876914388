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
}

TEST(Broadcast, Expansion) {
    using Geometry = std::pair<Dims, Dims>;
    EXPECT_EQ(inferExpandGeometryImpl({3, 1}, {1, 1}, {2, 3, 4}), Geometry({2, 3, 4}, {0, 1, 0}));
    EXPECT_EQ(inferExpandGeometryImpl({3, 1}, {1, 1}, {1, 3, 4}), Geometry({1, 3, 4}, {3, 1, 0}));
    EXPECT_EQ(inferExpandGeometryImpl({3, 1}, {1, 1}, {-1, 4}), Geometry({3, 4}, {1, 0}));
    EXPECT_EQ(inferExpandGeometryImpl({}, {}, {2, -1}), Geometry({2, -1}, {0, 0}));
    // Two mismatches: the rightmost is reported.
    expect_error([] { infer_size_impl(dims(4, 2), dims(5, 1, 3)); },
                 "The size of tensor a (2) must match the size of tensor b (3) at non-singleton dimension 2",
                 "ornik::infer_size_impl", "src/tensor/tensor_shape.cpp");
    expect_error([] { inferExpandGeometryImpl(dims(3, 1), dims(1, 1), dims(-1, 3, 1)); },
                 "The expanded size of the tensor (-1) isn't allowed in a leading, non-existing dimension 0",
                 "ornik::inferExpandGeometryImpl", "include/tensor/broadcast.h");
}

TEST(Broadcast, Tensors) {
    const TensorPtr a = make<float>({2, 3}, counted<float>(6), Layout::transposed);
    const TensorPtr wide(Tensor::broadcast_to(a.get(), {5, 2, 3}));
    EXPECT_EQ(wide->getStorage(), a->getStorage());

    const TensorPtr row = make<float>({3}, {1, 2, 3}, Layout::offset);
    const std::vector<Tensor*> pair = Tensor::broadcast(a.get(), row.get());
    const TensorPtr first(pair.at(0)), second(pair.at(1));
    EXPECT_NE(first.get(), a.get());
    EXPECT_EQ(values_of<float>(first), values_of<float>(a));
    EXPECT_EQ(values_of<float>(second), (std::vector<float>{1, 2, 3, 1, 2, 3}));

    const TensorPtr one(Tensor::ones({1}, 0, dtype::float32));
    EXPECT_EQ(TensorPtr(Tensor::broadcast_to(one.get(), {0}))->Size(), 0);
    const TensorPtr scalar(Tensor::ones({}, 0, dtype::float32));
    EXPECT_EQ(TensorPtr(Tensor::broadcast_to(scalar.get(), {-1}))->Shape(), Dims{-1});

    EXPECT_EQ(just_if_broadcastable({3}, {2, 4, 3}), (Dims{1, 1, 3}));
}

}  // namespace
}  // namespace ornik::test
