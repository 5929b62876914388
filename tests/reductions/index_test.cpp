#include "layers/functional/embedding.h"
#include "losses/functions.h"
#include "reference.h"
#include "tensor/tensor_math/indexing.h"

namespace ornik::test {
namespace {

std::int64_t flat(const Dims& shape, const Index& position) {
    std::int64_t at = 0;
    for (std::size_t d = 0; d < shape.size(); ++d) {
        at = at * shape[d] + position[d];
    }
    return at;
}

// Calls visit(position) for every position of a shape in row-major order.
template <typename Visit>
void for_each_position(const Dims& shape, const Visit& visit) {
    Index position(shape.size(), 0);
    for (std::int64_t i = 0; i < numel_of(shape); ++i) {
        visit(position);
        for (std::size_t d = shape.size(); d-- > 0 && ++position[d] == shape[d];) {
            position[d] = 0;
        }
    }
}

// Values of `x` at what `place` makes of each position of `shape`.
template <typename T, typename Place>
std::vector<T> picked(const std::vector<T>& x, const Dims& x_shape, const Dims& shape, const Place& place) {
    std::vector<T> result;
    for_each_position(shape,
                      [&](const Index& p) { result.push_back(x[static_cast<std::size_t>(flat(x_shape, place(p)))]); });
    return result;
}

TEST(Indexing, SlicesOfEveryDtypeLayoutAndAxis) {
    const Dims shape{3, 4, 5};
    const Index choice{2, 0, -1, 2};
    for_types(AllTypes{}, [&]<typename T>() {
        const std::vector<T> x = counted<T>(60);
        for (const int axis : {0, 1, 2}) {
            const auto d = static_cast<std::size_t>(axis);
            Dims picked_shape = shape;
            picked_shape[d] = 4;
            const auto place = [&](Index p) {
                p[d] = (choice[static_cast<std::size_t>(p[d])] + shape[d]) % shape[d];
                return p;
            };
            const std::vector<T> expected = picked(x, shape, picked_shape, place);
            for (const Layout layout : all_layouts) {
                const TensorPtr t = make<T>(shape, x, layout);
                const TensorPtr index = index_of({4}, choice, layout);
                const TensorPtr y(index_select(t.get(), axis - 3, index.get()));
                EXPECT_EQ(y->Shape(), picked_shape);
                EXPECT_EQ(values_of<T>(y), expected) << dtype_name(dtype_code<T>) << name_of(layout) << axis;
                // gather with the same choice everywhere is the same.
                Dims wide(3, 1);
                wide[d] = 4;
                const TensorPtr row(share_storage_tensor(index->getStorage(), wide, Dims(3, index->Strides()[0]),
                                                         dtype::int64, index->StorageOffset()));
                const TensorPtr places(Tensor::broadcast_to(row.get(), picked_shape));
                EXPECT_EQ(values_of<T>(TensorPtr(gather(t.get(), axis, places.get()))), expected) << name_of(layout);
                // Writing back what was read changes nothing; repeated writes agree here.
                EXPECT_EQ(values_of<T>(TensorPtr(scatter(t.get(), axis, places.get(), y.get()))), x);
                if constexpr (std::is_arithmetic_v<T> && !std::is_same_v<T, bool>) {
                    std::vector<T> sums = x;
                    std::size_t k = 0;
                    for_each_position(picked_shape, [&](const Index& p) {
                        T& sum = sums[static_cast<std::size_t>(flat(shape, place(p)))];
                        sum = static_cast<T>(sum + expected[k++]);
                    });
                    EXPECT_EQ(values_of<T>(TensorPtr(index_add(t.get(), axis, index.get(), y.get()))), sums);
                    scatter_add_(t.get(), axis, places.get(), y.get());
                    EXPECT_EQ(values_of<T>(t), sums) << name_of(layout);
                }
            }
        }
    });
    const TensorPtr x = make<float>({2, 3}, counted<float>(6), Layout::transposed);
    const TensorPtr flat_index = make<std::int8_t>({2, 2}, {5, 0, -2, 3});
    EXPECT_EQ(values_of<float>(TensorPtr(take(x.get(), flat_index.get()))), (std::vector<float>{5, 0, 4, 3}));
}

// With indices: beside those of items (advanced_index_test.cpp).
TEST(Indexing, ListsWithoutIndicesAndWritesThatMeet) {
    for (const Layout layout : all_layouts) {
        const TensorPtr t = make<float>({3, 4, 5}, counted<float>(60), layout), half = make<float>({1}, {0.5F});
        EXPECT_EQ(values_of<float>(TensorPtr(index_get(t.get(), {}))), counted<float>(60)) << name_of(layout);
        index_put_(t.get(), {}, half.get(), true);
        std::vector<float> sums = counted<float>(60);
        std::for_each(sums.begin(), sums.end(), [](float& x) { x += 0.5F; });
        EXPECT_EQ(values_of<float>(t), sums) << name_of(layout);
    }
    // The last of several writes stays; a source inside the target is read before it is written.
    const TensorPtr line = make<float>({4}, {1, 2, 3, 4});
    const TensorPtr twice = index_of({4}, {0, 1, 1, 0});
    index_put_(line.get(), {twice.get()}, line.get());
    EXPECT_EQ(values_of<float>(line), (std::vector<float>{4, 3, 3, 4}));
}

TEST(Indexing, Masks) {
    const TensorPtr x = make<double>({2, 3}, {1, 0, not_a_number, 0, -2, 3}, Layout::transposed);
    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(nonzero(x.get()))), (Index{0, 0, 0, 2, 1, 1, 1, 2}));
    const TensorPtr scalar(Tensor::ones({}, 0, dtype::int32));
    EXPECT_EQ(TensorPtr(nonzero(scalar.get()))->Shape(), (Dims{1, 0}));
    const TensorPtr row_mask = make<bool>({3}, {true, true, false});
    EXPECT_EQ(values_of<double>(TensorPtr(masked_select(x.get(), row_mask.get()))), (std::vector<double>{1, 0, 0, -2}));
    // Beyond a block of the mask; and nothing selected.
    std::vector<bool> large(20000);
    std::vector<float> kept;
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = i * i % 7 == 2;
        if (large[i]) {
            kept.push_back(static_cast<float>(i));
        }
    }
    const TensorPtr mask = make<bool>({20000}, large, Layout::reversed);
    const TensorPtr numbers = make<float>({20000}, counted<float>(20000), Layout::every_other);
    EXPECT_EQ(values_of<float>(TensorPtr(masked_select(numbers.get(), mask.get()))), kept);
    const TensorPtr none(Tensor::zeros({20000}, 0, dtype::boolean));
    EXPECT_EQ(TensorPtr(masked_select(numbers.get(), none.get()))->Shape(), Dims{0});
}

TEST(Indexing, TheFirstIndicesOutsideAreRefused) {
    const TensorPtr x = make<float>({2, 3}, counted<float>(6));
    const TensorPtr column = make<float>({2, 1}, {1, 2}), one = make<float>({1, 1}, {1}),
                    classes = make<float>({1, 3}, {1, 2, 3});
    struct Row {
        std::int64_t lowest, beyond;
        std::function<void(Tensor*)> call;
    };
    const auto used = [](Tensor* t) { delete t; };
    const auto list = [](auto... t) { return std::vector<Tensor*>{t...}; };
    const auto items = [](auto... item) { return SliceItems{item...}; };
    const auto square = [](Tensor* i) { return TensorPtr(i->unsqueeze(0)); };
    const Row rows[] = {
        {-3, 3, [&](Tensor* i) { used(index_select(x.get(), 1, i)); }},
        {-6, 6, [&](Tensor* i) { used(take(x.get(), i)); }},
        {-2, 2, [&](Tensor* i) { used(index_get(x.get(), list(i))); }},
        {-3, 3, [&](Tensor* i) { index_put_(x.get(), list(nullptr, i), one.get()); }},
        {-2, 2, [&](Tensor* i) { used(index_advanced(x.get(), items(SliceItem::positions(i)))); }},
        {-3, 3,
         [&](Tensor* i) { set_index_advanced(x.get(), one.get(), items(SliceItem::all(), SliceItem::positions(i))); }},
        {-3, 3, [&](Tensor* i) { index_add_(x.get(), 1, i, column.get()); }},
        {-3, 3, [&](Tensor* i) { used(gather(x.get(), 1, square(i).get())); }},
        {-2, 2, [&](Tensor* i) { scatter_(x.get(), 0, square(i).get(), one.get()); }},
        {0, 2, [&](Tensor* i) { nn::embedding(i, x.get()); }},
        {0, 4, [&](Tensor* i) { nn::embedding_grad(classes.get(), i, 4); }},
        {0, 3, [&](Tensor* i) { nn::nll_loss(classes.get(), i); }},
        {0, 3, [&](Tensor* i) { nn::cross_entropy(classes.get(), i); }},
    };
    for (const Row& row : rows) {
        for (const std::int64_t at : {row.lowest - 1, row.lowest, row.beyond - 1, row.beyond}) {
            SCOPED_TRACE(testing::Message() << "row " << &row - rows << ", index " << at);
            const TensorPtr index = index_of({1}, {at});
            if (at < row.lowest || at == row.beyond) {
                const std::string before = bytes_of(x);
                EXPECT_THROW(row.call(index.get()), Error);
                EXPECT_EQ(bytes_of(x), before);
            } else {
                EXPECT_NO_THROW(row.call(index.get()));
            }
        }
    }
}

TEST(Indexing, LargeOnesAreTheSameUnderAnyTeam) {
    const Dims shape{300, 400};
    const TensorPtr x = make<float>(shape, std::vector<float>(120000, 0.1F));
    Index repeated;
    std::vector<float> values;
    for (std::int64_t i = 0; i < 2000; ++i) {
        repeated.push_back(i * i % 300);
        values.push_back(static_cast<float>(i) / 3);
    }
    const TensorPtr index = index_of({2000}, repeated);
    const TensorPtr column = make<float>({2000, 1}, values);
    const TensorPtr source(Tensor::broadcast_to(column.get(), {2000, 400}));
    const TensorPtr wide_index = index_of({2000, 1}, repeated);
    const TensorPtr places(Tensor::broadcast_to(wide_index.get(), {2000, 400}));
    const TensorPtr added(index_add(x.get(), 0, index.get(), source.get()));
    const TensorPtr scattered(scatter_add(x.get(), 0, places.get(), source.get()));
    EXPECT_EQ(values_of<float>(added), values_of<float>(scattered));
    expect_same_bits([&] { return index_add(x.get(), 0, index.get(), source.get()); }, "index_add");
    expect_same_bits([&] { return scatter(x.get(), 0, places.get(), source.get()); }, "scatter");
}

}  // namespace
}  // namespace ornik::test
