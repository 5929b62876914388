// Index tensors mixed with ranges, positions and new axes; gradients of what they read and write.
#include <map>
#include <numeric>
#include <random>

#include "reference.h"
#include "support/gradients.h"
#include "tensor/tensor_math/indexing.h"

namespace ornik::test {
namespace {

// x[items] of a tensor whose elements are 0, 1, 2 ... along [4, 3, 5]: shape and elements, computed by NumPy.
TEST(AdvancedIndex, ShapesAndElementsOfAnotherImplementation) {
    const TensorPtr rows = make<std::int8_t>({2, 1}, {3, -3});
    const TensorPtr cols = index_of({3}, {1, 0, -1}, Layout::reversed), scalar = index_of({}, {2});
    const TensorPtr mask = make<bool>(
        {4, 3}, {false, true, false, false, false, false, true, false, false, false, false, true}, Layout::transposed);
    const TensorPtr row_mask = make<bool>({3}, {true, false, true});
    const TensorPtr yes(Tensor::ones({}, 0, dtype::boolean)), no(Tensor::zeros({}, 0, dtype::boolean));
    const TensorPtr nothing = index_of({1}, {0});
    const TensorPtr twice = index_of({2, 2}, {1, -3, 0, 1}), again = index_of({3}, {1, 0, 1}, Layout::every_other);
    const SliceItem all = SliceItem::all();
    const SliceItem r = SliceItem::positions(rows.get());
    const SliceItem c = SliceItem::positions(cols.get());
    struct Case {
        SliceItems items;
        Dims shape;
        std::int64_t checksum;  // sum of (k + 1) * element k
    };
    // clang-format off
    const Case cases[] = {
        {{r, c}, dims(2, 3, 5), 14140},
        {{r, all, c}, dims(2, 3, 3), 5169},
        {{all, c}, dims(4, 3, 5), 71480},
        {{all, all, c}, dims(4, 3, 3), 25896},
        {{r, SliceItem::index(0), c}, dims(2, 3), 536},
        {{SliceItem::index(2), all, c}, dims(3, 3), 1707},
        {{SliceItem::index(2), c}, dims(3, 5), 4595},
        {{c, all, SliceItem::index(-1)}, dims(3, 3), 1605},
        {{SliceItem::positions(mask.get())}, dims(3, 5), 5120},
        {{all, SliceItem::positions(row_mask.get())}, dims(4, 2, 5), 32270},
        {{r, SliceItem::new_axis(), c}, dims(2, 3, 1, 5), 14140},
        {{SliceItem::new_axis(), c, c}, dims(1, 3, 5), 4145},
        {{SliceItem::ellipsis(), c, SliceItem::new_axis(), c}, dims(3, 4, 1), 2628},
        {{SliceItem::positions(yes.get())}, dims(1, 4, 3, 5), 71980},
        {{SliceItem::positions(no.get())}, dims(0, 4, 3, 5), 0},
        {{SliceItem::positions(yes.get()), c}, dims(3, 3, 5), 35535},
        {{c, all, SliceItem::positions(yes.get())}, dims(3, 3, 5), 35535},
        {{SliceItem::all(-1), SliceItem::positions(row_mask.get()), SliceItem::from(1, 2)}, dims(4, 2, 2), 2900},
        {{c, SliceItem::all(-2)}, dims(3, 2, 5), 15240},
        {{c, SliceItem::ellipsis(), SliceItem::all(-2)}, dims(3, 3, 3), 12870},
        {{SliceItem::positions(scalar.get())}, dims(3, 5), 4720},
        {{SliceItem::positions(scalar.get()), all, c}, dims(3, 3), 1707},
        {{SliceItem::positions(nothing.get()), SliceItem::ellipsis()}, dims(1, 3, 5), 1120},
        {{SliceItem::range(1, 1, 1), c}, dims(0, 3, 5), 0},
        {{SliceItem::positions(twice.get())}, dims(2, 2, 3, 5), 32830},
        {{r, SliceItem::positions(again.get())}, dims(2, 3, 5), 13115},
    };
    // clang-format on
    const auto is_whole = [](const SliceItem& item) {
        return item.kind == SliceItem::Kind::slice && !item.has_begin && !item.has_end && item.step == 1;
    };
    int lists = 0;
    for (const Case& k : cases) {
        for (const Layout layout : all_layouts) {
            const TensorPtr x = make<std::int32_t>({4, 3, 5}, counted<std::int32_t>(60), layout);
            const TensorPtr y(index_advanced(x.get(), k.items));
            EXPECT_EQ(y->Shape(), k.shape) << k.checksum;
            std::int64_t sum = 0;
            std::int64_t i = 0;
            for (const std::int32_t v : values_of<std::int32_t>(y)) {
                sum += ++i * v;
            }
            EXPECT_EQ(sum, k.checksum) << name_of(layout) << shape_text(k.shape);

            // Where every element came from says what writes and gradients do.
            const std::vector<std::int32_t> from = values_of<std::int32_t>(y);
            std::map<std::int32_t, std::size_t> last;
            for (std::size_t at = 0; at < from.size(); ++at) {
                last[from[at]] = at;
            }
            if (from.empty()) {
                continue;
            }
            const TensorPtr g = make<double>(k.shape, counted<double>(y->Size(), 7),
                                             all_layouts[static_cast<std::size_t>(y->Size()) % 5]);
            std::vector<double> sums(60);
            std::vector<double> written = counted<double>(60), cleared = counted<double>(60);
            std::vector<double> taken;
            std::vector<double> all_taken;
            for (std::size_t at = 0; at < from.size(); ++at) {
                const auto place = static_cast<std::size_t>(from[at]);
                sums[place] += 7 + static_cast<double>(at);
                written[place] = 7 + static_cast<double>(at);
                cleared[place] = 0;
                all_taken.push_back(from[at]);
                taken.push_back(last[from[at]] == at ? from[at] : 0);
            }
            EXPECT_EQ(doubles_of(TensorPtr(index_advanced_grad(g.get(), {4, 3, 5}, k.items)).get()), sums);
            const TensorPtr target = make<float>({4, 3, 5}, counted<float>(60), layout);
            EXPECT_EQ(doubles_of(TensorPtr(set_index_advanced_grad(target.get(), k.items)).get()), cleared);
            EXPECT_EQ(doubles_of(TensorPtr(set_index_advanced_value_grad(target.get(), k.shape, k.items)).get()),
                      taken);
            EXPECT_EQ(doubles_of(TensorPtr(set_index_advanced_value_grad(target.get(), k.shape, k.items, true)).get()),
                      all_taken);
            EXPECT_EQ(doubles_of(TensorPtr(set_index_advanced_value_grad(target.get(), {1, 1}, k.items)).get()),
                      (std::vector<double>{std::accumulate(taken.begin(), taken.end(), 0.0)}));
            set_index_advanced(target.get(), g.get(), k.items);
            EXPECT_EQ(doubles_of(target.get()), written);
            target->fill_(0);
            set_index_advanced(target.get(), g.get(), k.items, true);
            EXPECT_EQ(doubles_of(target.get()), sums);
            // The same by a list, where the items are index tensors and whole axes.
            std::vector<Tensor*> list;
            for (const SliceItem& item : k.items) {
                if (item.kind == SliceItem::Kind::tensor ? item.tensor->ndim() > 0 : is_whole(item)) {
                    list.push_back(const_cast<Tensor*>(item.tensor));
                }
            }
            if (list.size() == k.items.size()) {
                const TensorPtr by_list(index_get(x.get(), list));
                EXPECT_EQ(by_list->Shape(), k.shape);
                EXPECT_EQ(bytes_of(by_list), bytes_of(y));
                EXPECT_EQ(doubles_of(TensorPtr(index_get_grad(g.get(), {4, 3, 5}, list)).get()), sums);
                target->fill_(0);
                index_put_(target.get(), list, TensorPtr(g->astype(dtype::float32)).get(), true);
                EXPECT_EQ(doubles_of(target.get()), sums);
                ++lists;
            }
        }
    }
    EXPECT_EQ(lists, 8 * 5);
}

TEST(AdvancedIndex, LastWritersOfIndexPut) {
    const TensorPtr x = make<double>({4}, {1, 2, 3, 4}, Layout::reversed);
    const TensorPtr twice = index_of({2, 3}, {0, 3, 0, -1, 1, 0});
    EXPECT_EQ(doubles_of(TensorPtr(index_put_grad(x.get(), {twice.get()})).get()), (std::vector<double>{0, 0, 3, 0}));
    EXPECT_EQ(doubles_of(TensorPtr(index_put_values_grad(x.get(), {2, 3}, {twice.get()})).get()),
              (std::vector<double>{0, 0, 0, 4, 2, 1}));
    EXPECT_EQ(doubles_of(TensorPtr(index_put_values_grad(x.get(), {3}, {twice.get()})).get()),
              (std::vector<double>{4, 2, 1}));
    EXPECT_EQ(doubles_of(TensorPtr(index_put_values_grad(x.get(), {2, 1}, {twice.get()}, true)).get()),
              (std::vector<double>{6, 7}));
    // An expanded gradient: different places hold one element.
    const TensorPtr one(Tensor::ones({1}, 0, dtype::float32)), ones(Tensor::broadcast_to(one.get(), {4}));
    EXPECT_EQ(doubles_of(TensorPtr(index_put_values_grad(ones.get(), {2, 3}, {twice.get()})).get()),
              (std::vector<double>{0, 0, 0, 1, 1, 1}));
    // Indices that are about to be overwritten are read first; so is the value.
    const TensorPtr line = index_of({4}, {3, 2, 1, 0});
    set_index_advanced(line.get(), line.get(), {SliceItem::positions(line.get())});
    EXPECT_EQ(values_of<std::int64_t>(line), (Index{0, 1, 2, 3}));
}

TEST(AdvancedIndex, LastWritersOfSelectionsByText) {
    const std::vector<double> values = counted<double>(12, 1);
    const TensorPtr grad = make<double>({3, 4}, values, Layout::transposed);
    for (const std::vector<std::string>& items :
         {std::vector<std::string>{"0,2,0", "3,1,3"}, {"1", "0,0,2"}, {"2:0", "1:4:2"}, {"2", "1"}, {"1,1"}}) {
        // What every position holds after a write of numbered values tells the writers.
        const TensorPtr selected(grad->select_ndim(items));
        TensorPtr numbers = make<double>(selected->Shape(), counted<double>(selected->Size(), 1));
        const TensorPtr written(Tensor::zeros({3, 4}, 0, dtype::float64));
        written->set_select_ndim(numbers.get(), items);
        std::vector<double> to_value(static_cast<std::size_t>(selected->Size()));
        std::vector<double> to_x = values;
        const std::vector<double> writers = values_of<double>(written);
        for (std::size_t i = 0; i < writers.size(); ++i) {
            if (writers[i] > 0) {
                to_value[static_cast<std::size_t>(writers[i]) - 1] = values[i];
                to_x[i] = 0;
            }
        }
        EXPECT_EQ(doubles_of(TensorPtr(set_select_ndim_grad(grad.get(), items)).get()), to_x) << items[0];
        EXPECT_EQ(doubles_of(TensorPtr(set_select_ndim_value_grad(grad.get(), selected->Shape(), items)).get()),
                  to_value)
            << items[0];
        EXPECT_EQ(doubles_of(TensorPtr(set_select_ndim_value_grad(grad.get(), {1, 1}, items)).get()),
                  (std::vector<double>{std::accumulate(to_value.begin(), to_value.end(), 0.0)}))
            << items[0];
    }
    // A value that kept an axis of a plain integer.
    EXPECT_EQ(doubles_of(TensorPtr(set_select_ndim_value_grad(grad.get(), {2, 1}, {"0:2", "3"})).get()),
              (std::vector<double>{4, 8}));
}

}  // namespace
}  // namespace ornik::test
