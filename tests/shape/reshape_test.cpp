// Views and copies under another shape: the line between them, and every refusal.
#include <gtest/gtest.h>

#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/geometry.h"
#include "tensor/tensor_shape.h"

namespace ornik::test {
namespace {

TensorPtr own(Tensor* t) { return TensorPtr(t); }

TEST(Reshape, OneTensorIsJoinedAlongAnyAxis) {
    const TensorPtr a = make({2, 3}, counted<float>(6));
    const TensorPtr copied = own(concat({a.get()}, 77));
    EXPECT_NE(copied->getRawData(), a->getRawData());
    EXPECT_EQ(values_of<float>(copied), values_of<float>(a));
    expect_error([&] { a->reshape(dims(-1, -1)); },
                 "Can only specify one unknown dimension, FILE: ", "ornik::infer_final_reshape", "src/utils/utils.cpp");
}

TEST(Reshape, ViewsShareAndCopiesDoNot) {
    const TensorPtr t = make({2, 3, 4}, counted<double>(24), Layout::offset);
    struct Row {
        TensorPtr result;
        Dims shape, strides;
        bool shares;
    };
    const TensorPtr turned = own(t->swapaxis(0, 1));
    Row rows[] = {{own(t->view({6, -1})), {6, 4}, {4, 1}, true},
                  {own(t->view({2, 1, 12})), {2, 1, 12}, {12, 12, 1}, true},
                  {own(t->reshape({-1})), {24}, {1}, true},
                  {own(t->flatten(0, -2)), {6, 4}, {4, 1}, true},
                  {own(t->unsqueeze(1)), {2, 1, 3, 4}, {12, 12, 4, 1}, true},
                  {own(t->unsqueeze(3)), {2, 3, 4, 1}, {12, 4, 1, 1}, true},
                  {own(t->transpose()), {4, 3, 2}, {1, 4, 12}, true},
                  {own(t->permute({-1, 0, 1})), {4, 2, 3}, {1, 12, 4}, true},
                  {own(t->swapaxis(9, 9)), {2, 3, 4}, {12, 4, 1}, true},
                  {own(turned->reshape({6, 4})), {6, 4}, {4, 1}, false},
                  {own(turned->reshape({3, 2, 2, 2})), {3, 2, 2, 2}, {4, 12, 2, 1}, true},
                  {own(t->reshape_copy({4, 6})), {4, 6}, {6, 1}, false},
                  {own(t->flip({})), {2, 3, 4}, {12, 4, 1}, false}};
    for (const Row& row : rows) {
        EXPECT_EQ(row.result->Shape(), row.shape);
        EXPECT_EQ(row.result->Strides(), row.strides) << shape_text(row.shape);
        EXPECT_EQ(row.result->getStorage() == t->getStorage(), row.shares) << shape_text(row.shape);
        EXPECT_EQ(row.result->getMeta()->GetShape(), row.shape);
    }
    static_cast<double*>(rows[0].result->getRawData())[0] = -7;
    EXPECT_EQ(values_of<double>(t)[0], -7);

    const TensorPtr thin = make({3, 1, 1}, counted<double>(3));
    EXPECT_EQ(own(thin->squeeze())->Shape(), (Dims{3}));
    EXPECT_EQ(own(thin->squeeze(-1))->Shape(), (Dims{3, 1, 1}));
    EXPECT_EQ(own(thin->squeeze(0))->Shape(), (Dims{3, 1, 1}));
    EXPECT_EQ(own(thin->squeeze(std::vector<int>{-1, 2}))->Shape(), (Dims{3, 1}));
}

TEST(Reshape, InPlaceMovesOnlyWhenNoViewExists) {
    const TensorPtr t = make({2, 6}, counted<std::int16_t>(12));
    const void* address = t->getRawData();
    t->reshape_({3, 4});
    EXPECT_EQ(t->getRawData(), address);
    const TensorPtr turned = own(t->transpose());
    const std::vector<std::int16_t> values = values_of<std::int16_t>(turned);
    turned->reshape_({2, 6});
    EXPECT_NE(turned->getRawData(), address);
    EXPECT_EQ(turned->Strides(), (Dims{6, 1}));
    EXPECT_EQ(values_of<std::int16_t>(turned), values);
    EXPECT_EQ(turned->getMeta()->GetStride(), (Dims{6, 1}));

    // Fewer than two elements take any count, in memory of their own.
    const TensorPtr one = make({1, 1}, std::vector<std::int16_t>{5});
    one->reshape_({2, 3});
    EXPECT_EQ(values_of<std::int16_t>(one), std::vector<std::int16_t>(6, 5));
    EXPECT_EQ(one->Size(), 6);
    const TensorPtr row = own(Tensor::zeros({1, 3}, 0, dtype::int16));
    const TensorPtr none = own(Tensor::broadcast_to(row.get(), {0, 3}));
    EXPECT_EQ(own(none->view({0, 7, -1}))->Strides(), (Dims{7, 1, 1}));
    none->reshape_({2});
    EXPECT_EQ(values_of<std::int16_t>(none), std::vector<std::int16_t>(2, 0));
    const TensorPtr scalar = own(Tensor::full<float>({}, 2.5F, 0, dtype::float32));
    EXPECT_EQ(own(scalar->view({1, 1}))->Strides(), (Dims{0, 0}));
    EXPECT_EQ(own(scalar->flatten(0, 0))->Shape(), (Dims{1}));
    const TensorPtr broadcast = own(Tensor::broadcast_to(row.get(), {4, 3}));
    broadcast->reshape_({12});
    EXPECT_EQ(broadcast->Strides(), (Dims{1}));
}

// Joins and repetitions against their definition, element by element.
TEST(Reshape, ConcatStackTileOfAllTypesAndLayouts) {
    for_types(AllTypes{}, []<typename T>() {
        for (const Layout layout : all_layouts) {
            SCOPED_TRACE(name_of(layout) + "/" + dtype_name(dtype_code<T>));
            const TensorPtr a = make({2, 3, 2}, counted<T>(12), layout);
            const TensorPtr b = make({2, 1, 2}, counted<T>(4, 20), layout);
            const TensorPtr joined = own(concat({a.get(), b.get(), a.get()}, 1));
            EXPECT_EQ(joined->Shape(), (Dims{2, 7, 2}));
            const std::vector<T> va = values_of<T>(a), vb = values_of<T>(b);
            std::vector<T> expected;
            for (std::ptrdiff_t i = 0; i < 2; ++i) {
                expected.insert(expected.end(), va.begin() + 6 * i, va.begin() + 6 * i + 6);
                expected.insert(expected.end(), vb.begin() + 2 * i, vb.begin() + 2 * i + 2);
                expected.insert(expected.end(), va.begin() + 6 * i, va.begin() + 6 * i + 6);
            }
            EXPECT_EQ(values_of<T>(joined), expected);

            const TensorPtr stacked = own(stack({a.get(), a.get()}, -1U));
            EXPECT_EQ(stacked->Shape(), (Dims{2, 3, 2, 2}));
            const TensorPtr tiled = own(tile(b.get(), {3, 2, 2, 1}));
            EXPECT_EQ(tiled->Shape(), (Dims{3, 4, 2, 2}));
            const std::vector<T> vt = values_of<T>(tiled);
            for (std::size_t i = 0; i < vt.size(); ++i) {
                ASSERT_EQ(vt[i], vb[i % 2 + i / 4 % 2 * 2]) << i;
            }
            const TensorPtr both = own(tile(b.get(), {2, 3, 2}));
            const TensorPtr gradient = own(TileGrad(both.get(), {2, 1, 2}, {2, 3, 2}));
            const std::vector<T> vg = values_of<T>(gradient);
            EXPECT_EQ(gradient->Shape(), b->Shape());
            for (std::size_t i = 0; i < vg.size(); ++i) {
                T sum{};
                for (int k = 0; k < 12; ++k) {
                    sum = static_cast<T>(sum + vb[i]);
                }
                EXPECT_EQ(vg[i], sum) << i;
            }
        }
    });
    // As many axes repeated as the result has, of any extent.
    const TensorPtr deep = own(Tensor::full<std::uint8_t>(Dims(13, 1), 7, 0, dtype::uint8));
    EXPECT_EQ(values_of<std::uint8_t>(own(tile(deep.get(), std::vector<int>(13, 2)))),
              std::vector<std::uint8_t>(1 << 13, 7));
    const std::vector<std::uint8_t> bits = counted<std::uint8_t>(1 << 13);
    const TensorPtr many = own(tile(make<std::uint8_t>(Dims(13, 2), bits).get(), std::vector<int>(13, 2)));
    EXPECT_EQ(many->Shape(), Dims(13, 4));
    for (std::size_t i = 0; i < 1U << 26U; i += 4091) {
        std::size_t source = 0;
        for (unsigned axis = 0; axis < 13; ++axis) {
            source |= (i >> 2 * axis & 1U) << axis;
        }
        ASSERT_EQ(static_cast<const std::uint8_t*>(many->getRawData())[i], bits[source]) << i;
    }
    const TensorPtr three = own(Tensor::full<float>({}, 3.0F, 0, dtype::float32));
    const TensorPtr repeated = own(tile(three.get(), {2, 2}));
    EXPECT_EQ(values_of<float>(repeated), std::vector<float>(4, 3.0F));
    EXPECT_EQ(values_of<float>(own(TileGrad(repeated.get(), {}, {2, 2}))), std::vector<float>{12.0F});
}

TEST(Reshape, HeadsSplitAndMergeAreInverse) {
    const TensorPtr fused = make({2, 3, 24}, counted<float>(144), Layout::every_other);
    const std::vector<float> values = values_of<float>(fused);
    for (int part = 0; part < 3; ++part) {
        const TensorPtr heads = own(reshape_permute_select(fused.get(), 2, 3, part));
        ASSERT_EQ(heads->Shape(), (Dims{2, 2, 3, 4}));
        const std::vector<float> split = values_of<float>(heads);
        for (std::size_t i = 0; i < split.size(); ++i) {
            const std::size_t d = i % 4, n = i / 4 % 3, h = i / 12 % 2, b = i / 24;
            ASSERT_EQ(split[i], values[(b * 3 + n) * 24 + (static_cast<std::size_t>(part) * 2 + h) * 4 + d]);
        }
        const TensorPtr merged = own(permute_12_reshape_b_n_embed_dims(heads.get()));
        const TensorPtr back = own(permute_12_reshape_b_n_embed_dims_grad(merged.get(), heads->Shape()));
        EXPECT_EQ(values_of<float>(back), split);
        const TensorPtr gradient = own(reshape_permute_select_grad(heads.get(), 3, part));
        const std::vector<float> spread = values_of<float>(gradient);
        for (std::size_t i = 0; i < spread.size(); ++i) {
            ASSERT_EQ(spread[i], static_cast<int>(i % 24 / 8) == part ? values[i] : 0.0F);
        }
    }
}

TEST(Reshape, ComplexAsReal) {
    const TensorPtr z = make({2, 3}, counted<Complex<double>>(6), Layout::transposed);
    const TensorPtr parts = own(view_as_real(z.get()));
    EXPECT_EQ(parts->Shape(), (Dims{2, 3, 2}));
    EXPECT_EQ(parts->Dtype(), dtype::float64);
    std::vector<double> expected;
    for (const Complex<double>& value : values_of<Complex<double>>(z)) {
        expected.insert(expected.end(), {value.real, value.imag});
    }
    EXPECT_EQ(values_of<double>(parts), expected);
    const TensorPtr back = own(view_as_complex(parts.get()));
    EXPECT_EQ(back->getRawData(), z->getRawData());
    EXPECT_EQ(back->Strides(), z->Strides());
    const TensorPtr reals = make({3, 3}, counted<float>(9));
    const TensorPtr odd = own(reals->select_ndim_without_copy({":", "0:2"}));
    EXPECT_THROW(view_as_complex(odd.get()), std::runtime_error);
}

}  // namespace
}  // namespace ornik::test
