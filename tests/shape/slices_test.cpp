// Selection by numbers: ranges against another implementation's, views, writes and gradients.
#include "tensor/slices.h"

#include <gtest/gtest.h>

#include <numeric>
#include <optional>
#include <random>

#include "support/tensors.h"

namespace ornik::test {
namespace {

using Bound = std::optional<std::int64_t>;

SliceItem slice(const Bound& begin, const Bound& end, std::int64_t step) {
    return {SliceItem::Kind::slice, begin.value_or(0), end.value_or(0), step, begin.has_value(), end.has_value()};
}

// The positions that a range names on an axis of n elements.
Dims positions_of(const SliceItem& item, std::int64_t n) {
    const bool up = item.step > 0;
    const auto bound = [&](std::int64_t i) {
        i += i < 0 ? n : 0;
        return up ? std::min(std::max<std::int64_t>(i, 0), n) : std::min(std::max<std::int64_t>(i, -1), n - 1);
    };
    const std::int64_t begin = item.has_begin ? bound(item.begin) : (up ? 0 : n - 1);
    const std::int64_t end = item.has_end ? bound(item.end) : (up ? n : -1);
    Dims result;
    for (std::int64_t i = begin; up ? i < end : i > end; i += item.step) {
        result.push_back(i);
    }
    return result;
}

TensorPtr counting(const Dims& shape, Layout layout = Layout::contiguous) {
    if (numel_of(shape) == 0) {
        TensorPtr t = std::make_unique<Tensor>();
        t->initialize_none_tensor(shape, dtype::int32, 0, layout::dense);
        return t;
    }
    return make<std::int32_t>(shape, counted<std::int32_t>(numel_of(shape), 1), layout);
}

// A checksum over the elements of list(range(n))[begin:end:step] for all n < 5, begins and ends in [-6, 6] or
// missing, and eight steps, as Python computed it.
TEST(Slices, RangesOfAnotherImplementation) {
    std::uint64_t from_library = 0;
    std::uint64_t from_reference = 0;
    const auto add = [](std::uint64_t& hash, std::int64_t x) { hash = hash * 31 + static_cast<std::uint64_t>(x); };
    for (std::int64_t n = 0; n < 5; ++n) {
        const TensorPtr x = counting({n});
        for (int b = -7; b <= 6; ++b) {
            for (int e = -7; e <= 6; ++e) {
                for (const int step : {1, 2, 3, 9, -1, -2, -3, -9}) {
                    const SliceItem item = slice(b < -6 ? Bound{} : b, e < -6 ? Bound{} : e, step);
                    for (const std::int32_t v : values_of<std::int32_t>(TensorPtr(select_slices(x.get(), {item})))) {
                        add(from_library, v);
                    }
                    for (const std::int64_t v : positions_of(item, n)) {
                        add(from_reference, v + 1);
                    }
                    add(from_library, 17);
                    add(from_reference, 17);
                }
            }
        }
    }
    EXPECT_EQ(from_library, 11822960559626914318U);
    EXPECT_EQ(from_reference, 11822960559626914318U);
    // Bounds and steps beyond any axis.
    const TensorPtr x = counting({4});
    for (const std::int64_t step : {INT64_MAX, INT64_MIN}) {
        EXPECT_EQ(TensorPtr(select_slices(x.get(), {SliceItem::all(step)}))->Shape(), Dims{1});
        EXPECT_EQ(TensorPtr(select_slices(x.get(), {SliceItem::range(INT64_MIN, INT64_MAX, step)}))->Size(),
                  step > 0 ? 1 : 0);
    }
}

struct Case {
    Dims shape;
    SliceItems items;
    Dims selected;              // shape
    std::vector<Dims> lists{};  // positions along each axis of the tensor

    explicit Case(std::mt19937& random) {
        const auto pick = [&](std::int64_t low, std::int64_t high) {
            return low + static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(high - low + 1));
        };
        const auto rank = static_cast<std::size_t>(pick(0, 4));
        const auto named = static_cast<std::size_t>(pick(0, static_cast<std::int64_t>(rank)));
        const bool has_ellipsis = pick(0, 1) == 0;
        const auto split = static_cast<std::size_t>(has_ellipsis ? pick(0, static_cast<std::int64_t>(named))
                                                                 : static_cast<std::int64_t>(named));
        for (std::size_t i = 0; i <= rank; ++i) {
            if (i == split && has_ellipsis) {
                items.push_back(SliceItem::ellipsis());
            }
            while ((i <= split || i >= rank - (named - split)) && (!has_ellipsis || i != split) && pick(0, 5) == 0 &&
                   i < named) {
                items.push_back(SliceItem::new_axis());
                selected.push_back(1);
            }
            if (i == rank) {
                break;
            }
            const bool is_whole = i >= split && i < rank - (named - split);
            const std::int64_t n = pick(0, 19) == 0 ? 0 : pick(1, 5);
            shape.push_back(n);
            if (is_whole) {
                lists.push_back(positions_of(SliceItem::all(), n));
                selected.push_back(n);
            } else if (n > 0 && pick(0, 2) == 0) {
                const std::int64_t i_ = pick(-n, n - 1);
                items.push_back(SliceItem::index(i_));
                lists.push_back({i_ < 0 ? i_ + n : i_});
            } else {
                const auto bound = [&] { return pick(0, 2) == 0 ? Bound{} : Bound{pick(-7, 7)}; };
                const Bound begin = bound();
                items.push_back(slice(begin, bound(), pick(0, 1) == 0 ? pick(1, 3) : pick(-3, -1)));
                lists.push_back(positions_of(items.back(), n));
                selected.push_back(static_cast<std::int64_t>(lists.back().size()));
            }
        }
    }
};

TEST(Slices, RandomItemsReadWriteAndHaveGradients) {
    std::mt19937 random(5);
    int several = 0;
    for (int round = 0; round < 2000; ++round) {
        const Case c(random);
        const TensorPtr x = counting(c.shape, all_layouts[round % 5]);
        const std::vector<std::size_t> flat = flat_positions(c.lists, c.shape);
        several += flat.size() > 3 ? 1 : 0;
        const std::vector<std::int32_t> before = values_of<std::int32_t>(x);
        const TensorPtr y(select_slices(x.get(), c.items));
        ASSERT_EQ(y->Shape(), c.selected) << round;
        ASSERT_EQ(slices_shape(c.shape, c.items), c.selected);
        ASSERT_EQ(y->getStorage(), x->getStorage());
        std::vector<std::int32_t> expected;
        std::vector<std::int32_t> written = before;
        std::vector<std::int32_t> spread(before.size());
        std::vector<std::int32_t> added = before;
        std::vector<std::int32_t> cleared = before;
        for (std::size_t i = 0; i < flat.size(); ++i) {
            const auto g = static_cast<std::int32_t>(100 + i);
            expected.push_back(before[flat[i]]);
            written[flat[i]] = -7;
            spread[flat[i]] = g;
            added[flat[i]] += g;
            cleared[flat[i]] = 0;
        }
        ASSERT_EQ(values_of<std::int32_t>(y), expected) << round;
        ASSERT_EQ(values_of<std::int32_t>(TensorPtr(set_slices_grad(x.get(), c.items))), cleared) << round;
        const TensorPtr value_grad(set_slices_value_grad(x.get(), {1, 1, 1, 1, 1, 1, 1, 1, 1}, c.items));
        ASSERT_EQ(values_of<std::int32_t>(value_grad)[0], std::accumulate(expected.begin(), expected.end(), 0))
            << round;
        if (!flat.empty()) {
            const TensorPtr g = make<float>(c.selected, counted<float>(y->Size(), 100), all_layouts[(round + 2) % 5]);
            const TensorPtr dx(select_slices_grad(g.get(), c.shape, c.items));
            ASSERT_EQ(doubles_of(dx.get()), std::vector<double>(spread.begin(), spread.end())) << round;
            const TensorPtr sum = counting(c.shape, all_layouts[(round + 3) % 5]);
            add_select_slices_grad(sum.get(), g.get(), c.items);
            ASSERT_EQ(values_of<std::int32_t>(sum), added) << round;
            const TensorPtr value = make<double>({1, 1}, {-7.9});
            set_slices(x.get(), value.get(), c.items);
            ASSERT_EQ(values_of<std::int32_t>(x), written) << round;
        }
    }
    EXPECT_GT(several, 400);
}

TEST(Slices, ValuesAreReadBeforeTheyAreOverwritten) {
    const TensorPtr x = make<float>({5}, {1, 2, 3, 4, 5});
    const TensorPtr reversed(select_slices(x.get(), {SliceItem::all(-1)}));
    set_slices(x.get(), reversed.get(), {});
    EXPECT_EQ(values_of<float>(x), (std::vector<float>{5, 4, 3, 2, 1}));
    const TensorPtr head(select_slices(x.get(), {SliceItem::until(4)}));
    add_select_slices_grad(x.get(), head.get(), {SliceItem::from(1)});
    EXPECT_EQ(values_of<float>(x), (std::vector<float>{5, 9, 7, 5, 3}));
    // A row goes to all rows; a column to all columns.
    const TensorPtr m(Tensor::zeros({2, 3}, 0, dtype::complex64));
    const TensorPtr column = make<std::int8_t>({2, 1}, {1, 2});
    set_slices(m.get(), column.get(), {SliceItem::ellipsis()});
    EXPECT_EQ(doubles_of(TensorPtr(m->real()).get()), (std::vector<double>{1, 1, 1, 2, 2, 2}));
    EXPECT_TRUE(TensorPtr(select_slices(m.get(), {SliceItem::new_axis(), SliceItem::all()}))->is_contiguous());
}

}  // namespace
}  // namespace ornik::test
