// indexing_test.cpp: elements at places, against a model that lists the places one by one; refusals; writes in place.
#include "ktensor/indexing.h"

#include <gtest/gtest.h>

#include <numeric>
#include <random>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "random/generator.h"
#include "support/expect_error.h"
#include "tensor/tensor.h"

namespace ornik {
namespace {

using Numbers = std::vector<std::int64_t>;

Numbers whole(const KTensor& x) { return astype(x, dtype::int64).to_vector<std::int64_t>(); }

std::int64_t count_of(const Dims& shape) {
    return std::accumulate(shape.begin(), shape.end(), std::int64_t{1}, std::multiplies<>());
}

// The position `at` of a shape in row-major order, written out.
Dims written_out(std::int64_t at, const Dims& shape) {
    Dims result(shape.size());
    for (std::size_t i = shape.size(); i-- > 0; at /= shape[i]) {
        result[i] = at % shape[i];
    }
    return result;
}

// The row-major place in `shape` of the position at[.. end), aligned at their ends; one element stands for many.
std::size_t place_in(const Dims& shape, const Dims& at, std::size_t end) {
    std::int64_t place = 0;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const std::size_t back = shape.size() - i;
        place = place * shape[i] + (shape[i] == 1 || back > end ? 0 : at[end - back]);
    }
    return static_cast<std::size_t>(place);
}

// The shape of a selection, and the row-major place in the tensor that each of its elements is taken from.
struct Places {
    Dims shape;
    Numbers from;
};

// An item's own list of positions along one axis of the tensor; -1: a new axis.
struct Part {
    std::int64_t axis;
    bool joins;  // the common block of index tensors
    Dims shape;
    Numbers positions;
    std::size_t end = 0;  // of its axes, or the block's, in the result
};

Numbers slice_positions(const Slice& slice, std::int64_t n) {
    Numbers positions;
    const auto bound = [n](const Slice::Bound& given, std::int64_t otherwise) {
        return !given ? otherwise : *given < 0 ? std::max<std::int64_t>(*given + n, -1) : *given;
    };
    if (slice.step > 0) {
        for (std::int64_t p = std::max<std::int64_t>(bound(slice.begin, 0), 0); p < std::min(bound(slice.end, n), n);
             p += slice.step) {
            positions.push_back(p);
        }
    } else {
        for (std::int64_t p = std::min(bound(slice.begin, n - 1), n - 1); p > bound(slice.end, -1); p += slice.step) {
            positions.push_back(p);
        }
    }
    return positions;
}

Places places_of(const Dims& shape, std::vector<Index> items) {
    std::int64_t named = 0;
    bool has_ellipsis = false;
    bool has_block = false;
    for (const Index& item : items) {
        const bool is_tensor = item.kind() == Index::Kind::tensor;
        const bool is_mask = is_tensor && item.tensor().dtype() == dtype::boolean;
        named += is_mask ? item.tensor().ndim()
                         : is_tensor || item.kind() == Index::Kind::position || item.kind() == Index::Kind::slice;
        has_ellipsis = has_ellipsis || item.kind() == Index::Kind::rest;
        has_block = has_block || is_tensor || item.kind() == Index::Kind::truth;
    }
    if (!has_ellipsis) {
        items.emplace_back(ellipsis);
    }
    std::vector<Part> parts;
    std::int64_t axis = 0;
    std::string order;  // of items: b(lock) and o(ther)
    const auto size_of = [&](std::int64_t i) { return shape[static_cast<std::size_t>(i)]; };
    for (const Index& item : items) {
        const bool joins = item.kind() == Index::Kind::tensor || item.kind() == Index::Kind::truth ||
                           (has_block && item.kind() == Index::Kind::position);
        order += joins ? 'b' : 'o';
        switch (item.kind()) {
            case Index::Kind::position: {
                const std::int64_t p = item.position() < 0 ? item.position() + size_of(axis) : item.position();
                parts.push_back({axis++, joins, {}, {p}});
                break;
            }
            case Index::Kind::slice: {
                Numbers positions = slice_positions(item.slice(), size_of(axis));
                const auto count = static_cast<std::int64_t>(positions.size());
                parts.push_back({axis++, false, {count}, std::move(positions)});
                break;
            }
            case Index::Kind::rest:
                for (auto rest = static_cast<std::int64_t>(shape.size()) - named; rest > 0; --rest, ++axis) {
                    parts.push_back({axis, false, {size_of(axis)}, slice_positions(Slice(), size_of(axis))});
                }
                break;
            case Index::Kind::new_axis:
                parts.push_back({-1, false, {1}, {0}});
                break;
            case Index::Kind::truth:
                parts.push_back({-1, true, {item.truth() ? 1 : 0}, Numbers(item.truth() ? 1 : 0, 0)});
                break;
            case Index::Kind::tensor: {
                const KTensor& t = item.tensor();
                if (t.dtype() != dtype::boolean) {
                    Numbers positions = whole(t);
                    for (std::int64_t& p : positions) {
                        p += p < 0 ? size_of(axis) : 0;
                    }
                    parts.push_back({axis++, true, t.shape(), positions});
                    break;
                }
                const Numbers truth = whole(t);
                std::vector<Numbers> columns(std::max<std::size_t>(t.shape().size(), 1));
                for (std::size_t k = 0; k < truth.size(); ++k) {
                    Dims at = written_out(static_cast<std::int64_t>(k), t.shape());
                    at.resize(columns.size(), 0);
                    for (std::size_t d = 0; truth[k] != 0 && d < at.size(); ++d) {
                        columns[d].push_back(at[d]);
                    }
                }
                for (Numbers& column : columns) {
                    const auto count = static_cast<std::int64_t>(column.size());
                    parts.push_back({t.ndim() == 0 ? -1 : axis++, true, {count}, std::move(column)});
                }
                break;
            }
        }
    }
    Dims block;
    for (const Part& part : parts) {
        for (std::size_t back = 1; part.joins && back <= part.shape.size(); ++back) {
            if (back > block.size()) {
                block.insert(block.begin(), 1);
            }
            std::int64_t& extent = block[block.size() - back];
            extent = extent == 1 ? part.shape[part.shape.size() - back] : extent;
        }
    }
    // Items that join stand in a row, or the block comes first.
    const std::size_t first = order.find('b');
    const bool in_a_row = first != std::string::npos && order.find('o', first) > order.rfind('b');
    Places result;
    std::size_t block_end = 0;
    const auto place_block = [&] {
        result.shape.insert(result.shape.end(), block.begin(), block.end());
        block_end = result.shape.size();
    };
    bool is_placed = !in_a_row;
    if (!in_a_row) {
        place_block();
    }
    for (Part& part : parts) {
        if (!part.joins) {
            result.shape.insert(result.shape.end(), part.shape.begin(), part.shape.end());
            part.end = result.shape.size();
        } else if (!std::exchange(is_placed, true)) {
            place_block();
        }
    }
    for (std::int64_t k = 0; k < count_of(result.shape); ++k) {
        const Dims at = written_out(k, result.shape);
        std::int64_t place = 0;
        for (const Part& part : parts) {
            if (part.axis >= 0) {
                const std::size_t p = place_in(part.shape, at, part.joins ? block_end : part.end);
                place = place * size_of(part.axis) + part.positions[p];
            }
        }
        result.from.push_back(place);
    }
    return result;
}

class Cases {
  public:
    explicit Cases(unsigned seed) : random_(seed) {}

    std::int64_t below(std::int64_t n) { return static_cast<std::int64_t>(random_() % static_cast<std::uint64_t>(n)); }

    template <typename T>
    T one_of(std::initializer_list<T> choices) {
        return choices.begin()[below(static_cast<std::int64_t>(choices.size()))];
    }

    Dims shape() {
        Dims result(static_cast<std::size_t>(below(5)));
        std::generate(result.begin(), result.end(), [&] { return below(8) == 0 ? 0 : 1 + below(4); });
        return result;
    }

    std::vector<Index> items(const Dims& shape) {
        const bool plain = below(2) == 0;
        std::vector<Index> result;
        std::int64_t trues = -1;  // of a mask, if there is one
        bool has_ellipsis = false;
        bool has_tensors = false;
        for (std::size_t axis = 0; axis <= shape.size();) {
            const std::int64_t kind = below(plain ? 7 : 16);
            const std::int64_t n = axis < shape.size() ? shape[axis] : 0;
            if (kind == 0) {
                result.emplace_back(newaxis);
            } else if (kind == 1 && !has_ellipsis) {
                has_ellipsis = true;
                result.emplace_back(ellipsis);
                axis += static_cast<std::size_t>(below(static_cast<std::int64_t>(shape.size() - axis) + 1));
            } else if (kind == 7 && below(3) == 0) {
                const bool truth = trues != -1 || has_tensors || below(4) != 0;
                trues = truth ? trues : 0;
                result.emplace_back(truth);
            } else if (axis == shape.size() || (!has_ellipsis && below(12) == 0)) {
                break;
            } else if (kind < 4 && n > 0) {
                result.emplace_back(below(2 * n) - n);
                ++axis;
            } else if (kind < 9 || n == 0) {
                const auto bound = [&] { return below(3) == 0 ? Slice::Bound() : below(2 * n + 6) - n - 3; };
                const std::int64_t step = 1 + below(3);
                result.emplace_back(Slice(bound(), bound(), below(2) == 0 ? step : -step));
                ++axis;
            } else if (kind == 9 && trues == -1 && !has_tensors) {
                const auto wide =
                    static_cast<std::ptrdiff_t>(1 + below(static_cast<std::int64_t>(shape.size() - axis)));
                const auto begin = shape.begin() + static_cast<std::ptrdiff_t>(axis);
                const KTensor mask = KTensor::randint(0, 2, Dims(begin, begin + wide)) == Scalar(1);
                trues = sum(astype(mask, dtype::int64)).item<std::int64_t>();
                result.emplace_back(mask);
                axis += static_cast<std::size_t>(wide);
            } else {
                has_tensors = true;
                const std::int64_t dtype = one_of({dtype::int64, dtype::int32, dtype::int16, dtype::int8});
                result.emplace_back(astype(KTensor::randint(-n, n, index_shape(trues)), dtype));
                ++axis;
            }
        }
        return result;
    }

    // A shape that broadcasts to `shape`, which may have surplus axes of extent 1.
    Dims narrower(const Dims& shape) {
        Dims result = shape;
        result.erase(result.begin(), result.begin() + below(static_cast<std::int64_t>(shape.size()) + 1));
        for (std::int64_t& extent : result) {
            extent = below(3) == 0 ? 1 : extent;
        }
        if (result.size() == shape.size()) {
            result.insert(result.begin(), static_cast<std::size_t>(below(2)), 1);
        }
        return result;
    }

    // 0, 1, ... in row-major order, in memory of another order.
    KTensor numbers(const Dims& shape, std::int64_t dtype) {
        std::vector<int> order(shape.size());
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), random_);
        Dims inner(shape.size());
        std::vector<int> back(shape.size());
        for (std::size_t i = 0; i < order.size(); ++i) {
            inner[i] = shape[static_cast<std::size_t>(order[i])];
            back[static_cast<std::size_t>(order[i])] = static_cast<int>(i);
        }
        KTensor result = permute(KTensor::zeros(inner, dtype), back);
        copy_(result, reshape(KTensor::arange(count_of(shape)), shape));
        return result;
    }

  private:
    Dims index_shape(std::int64_t trues) {
        return trues < 0 ? one_of<Dims>({{}, {1}, {3}, {2, 1}, {2, 3}, {1, 1, 3}})
                         : one_of<Dims>({{}, {1}, {trues}, {2, 1}});
    }

    std::mt19937_64 random_;
};

std::string text_of(const Dims& shape, const std::vector<Index>& items) {
    std::string text = "shape " + shape_text(shape) + " items";
    for (const Index& item : items) {
        text += " " + std::to_string(static_cast<int>(item.kind())) + ":" + std::to_string(item.position());
        text += item.kind() == Index::Kind::tensor ? item.tensor().to_string() : "";
        text += item.slice().begin ? " from " + std::to_string(*item.slice().begin) : "";
        text += item.slice().end ? " to " + std::to_string(*item.slice().end) : "";
        text += " by " + std::to_string(item.slice().step);
    }
    return text;
}

class RandomSelections : public testing::TestWithParam<unsigned> {};

TEST_P(RandomSelections, ReadAndWriteAndHandGradientsBackLikeTheModel) {
    set_random_seed(GetParam());
    Cases cases(GetParam());
    for (int round = 0; round < 500; ++round) {
        const Dims shape = cases.shape();
        const std::vector<Index> items = cases.items(shape);
        SCOPED_TRACE(text_of(shape, items));
        const Places places = places_of(shape, items);

        KTensor x = cases.numbers(shape, cases.one_of({dtype::int16, dtype::int32, dtype::int64, dtype::float32,
                                                       dtype::float64, dtype::complex64, dtype::complex128}));
        const KTensor y = x.index(items);
        ASSERT_EQ(y.shape(), places.shape);
        EXPECT_EQ(whole(y), places.from);
        const bool is_view = std::none_of(items.begin(), items.end(), [](const Index& item) {
            return item.kind() == Index::Kind::tensor || item.kind() == Index::Kind::truth;
        });
        EXPECT_EQ(y.tensor()->borrow_storage() == x.tensor()->borrow_storage(), is_view);

        const Dims value_shape = cases.narrower(places.shape);
        Numbers from;
        for (std::int64_t k = 0; k < count_of(places.shape); ++k) {
            const Dims at = written_out(k, places.shape);
            from.push_back(static_cast<std::int64_t>(place_in(value_shape, at, at.size())));
        }
        const bool accumulate = cases.below(2) == 0;
        const KTensor value = add(cases.numbers(value_shape, dtype::float64), Scalar(100.0));
        Numbers expected(static_cast<std::size_t>(x.size()));
        std::iota(expected.begin(), expected.end(), 0);
        Numbers writer(expected.size(), -1);
        for (std::size_t k = 0; k < from.size(); ++k) {
            const auto place = static_cast<std::size_t>(places.from[k]);
            expected[place] = from[k] + 100 + (accumulate ? expected[place] : 0);
            writer[place] = static_cast<std::int64_t>(k);
        }
        x.set_index(items, astype(value, dtype::int16), accumulate);
        EXPECT_EQ(whole(x), expected);
        KTensor filled = cases.numbers(shape, dtype::float32);
        filled.set_index(items, -1);
        const Numbers values = whole(filled);
        for (std::size_t place = 0; place < values.size(); ++place) {
            EXPECT_EQ(values[place], writer[place] == -1 ? static_cast<std::int64_t>(place) : -1);
        }

        // Whole numbers as gradients: the sums are exact.
        const KTensor start = cases.numbers(shape, dtype::float64).requires_grad();
        const KTensor seed = add(cases.numbers(places.shape, dtype::float64), Scalar(1.0));
        std::vector<double> sums(writer.size());
        for (std::size_t k = 0; k < from.size(); ++k) {
            sums[static_cast<std::size_t>(places.from[k])] += static_cast<double>(k) + 1;
        }
        EXPECT_EQ(grad({start.index(items)}, {start}, {seed})[0].to_vector<double>(), sums);
        const KTensor leaf = value.detach().requires_grad();
        const KTensor seeds = add(cases.numbers(shape, dtype::float64), Scalar(1.0));
        KTensor written = clone(start);
        written.set_index(items, leaf, accumulate);
        const std::vector<KTensor> gradients = grad({written}, {start, leaf}, {seeds});
        std::vector<double> old(writer.size());
        std::vector<double> given(static_cast<std::size_t>(value.size()));
        for (std::size_t place = 0; place < old.size(); ++place) {
            old[place] = accumulate || writer[place] == -1 ? static_cast<double>(place) + 1 : 0;
        }
        for (std::size_t k = 0; k < from.size(); ++k) {
            const auto place = static_cast<std::size_t>(places.from[k]);
            const bool stays = accumulate || writer[place] == static_cast<std::int64_t>(k);
            given[static_cast<std::size_t>(from[k])] += stays ? static_cast<double>(place) + 1 : 0;
        }
        EXPECT_EQ(gradients[0].to_vector<double>(), old);
        EXPECT_EQ(gradients[1].to_vector<double>(), given);
        if (HasFailure()) {
            return;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Indexing, RandomSelections, testing::Values(1U, 2U, 3U, 4U));

TEST(Indexing, PartsOfAnAxis) {
    const KTensor x = reshape(KTensor::arange(24), {2, 3, 4});
    EXPECT_EQ(x[-1][0].to_vector<std::int64_t>(), Numbers({12, 13, 14, 15}));
    EXPECT_EQ(select(x, 1, -1).to_vector<std::int64_t>(), Numbers({8, 9, 10, 11, 20, 21, 22, 23}));
    EXPECT_EQ(slice(x[0], -1, Slice({}, {}, -3)).to_vector<std::int64_t>(), Numbers({3, 0, 7, 4, 11, 8}));
    EXPECT_EQ(narrow(x[1], 0, -2, 1).to_vector<std::int64_t>(), Numbers({16, 17, 18, 19}));
    EXPECT_TRUE(x.index({newaxis, 1, ellipsis, newaxis}).is_contiguous());
    Numbers starts;
    for (const KTensor& row : along(x, 1)) {
        starts.push_back(row[0][0].item<std::int64_t>());
    }
    EXPECT_EQ(starts, Numbers({0, 4, 8}));
    EXPECT_EQ(nonzero(KTensor({{0.0F, 2.0F}, {std::nanf(""), 0.0F}})).to_vector<std::int64_t>(), Numbers({0, 1, 1, 0}));
    EXPECT_EQ(x.index({0, std::numeric_limits<std::uint32_t>::max() - 4294967294U}).size(), 4);
}

TEST(Indexing, RefusalsNameWhatWasGivenAndChangeNothing) {
    KTensor x = KTensor::ones({3, 4});
    const KTensor whole = KTensor::ones({2, 3}, dtype::int64);
    const KTensor far({0, 9});
    const KTensor fit({0, 1});
    KTensor row = x[0];
    using Kind = ErrorKind;
    EXPECT_REFUSAL_AS(Kind::index, x.index({0, 7}),
                      "index(): index 7 is out of range for axis 1 of [3, 4] float32, which has 4 elements.");
    EXPECT_REFUSAL_AS(Kind::index, x[-4],
                      "index(): index -4 is out of range for axis 0 of [3, 4] float32, which has 3 elements.");
    EXPECT_REFUSAL_AS(
        Kind::index, x.index({std::numeric_limits<std::uint64_t>::max()}),
        "index(): index 9223372036854775807 is out of range for axis 0 of [3, 4] float32, which has 3 elements.");
    EXPECT_REFUSAL_AS(Kind::index, x.set_index({0, far}, 5),
                      "set_index(): index 9 is out of range for axis 1 of [3, 4] float32, which has 4 elements.");
    EXPECT_REFUSAL_AS(Kind::index, select(x, 1, 4),
                      "select(): index 4 is out of range for axis 1 of [3, 4] float32, which has 4 elements.");
    EXPECT_REFUSAL_AS(Kind::index, x.index({0, Slice(), 1}), "index(): [3, 4] float32 has 2 axes; 3 are indexed.");
    EXPECT_REFUSAL_AS(Kind::index, x.index({0, whole == whole}), "index(): [3, 4] float32 has 2 axes; 3 are indexed.");
    EXPECT_REFUSAL_AS(Kind::index, x.index({ellipsis, ellipsis}),
                      "index(): an ellipsis can stand once among the items.");
    EXPECT_REFUSAL_AS(Kind::argument, x.index({ellipsis, Slice(0, 1, 0)}),
                      "index(): the slice of axis 1 of [3, 4] float32 has a step of 0.");
    EXPECT_REFUSAL_AS(Kind::dtype, x[x], "index(): an index tensor holds integers or bool, not [3, 4] float32.");
    EXPECT_REFUSAL_AS(Kind::argument, x[KTensor()], "index(): an index tensor is an undefined KTensor.");
    EXPECT_REFUSAL_AS(Kind::index, x.index({Slice(), fit == fit}),
                      "index(): a mask of [2] bool does not fit [3, 4] float32 from axis 1 on.");
    EXPECT_REFUSAL_AS(Kind::index, x.index({fit, KTensor({0, 1, 2})}),
                      "index(): index tensors of [2] int64 and [3] int64 do not broadcast.");
    EXPECT_REFUSAL_AS(Kind::argument, x.set_index({0}, whole),
                      "set_index(): [2, 3] int64 does not broadcast to the selected [4] float32.");
    EXPECT_REFUSAL_AS(Kind::argument, index_put(x, {fit}, KTensor({1, 2, 3})),
                      "index_put(): [3] int64 does not broadcast to the selected [2, 4] float32.");
    EXPECT_REFUSAL_AS(Kind::dtype, KTensor(whole).set_index({0}, 1.5F, true),
                      "set_index(): [2, 3] int64 can not hold a result of numpy.float32.");
    EXPECT_REFUSAL_AS(Kind::dtype, KTensor(whole).set_index({0}, KTensor::scalar(1.5F).requires_grad()),
                      "set_index(): [2, 3] int64 can not hold a result that gradients go through.");
    EXPECT_REFUSAL_AS(
        Kind::state, KTensor::ones({2}).requires_grad().set_index({0}, 2),
        "set_index(): a leaf that asks for gradients, [2] float32, can be changed in place only inside NoGrad.");
    EXPECT_REFUSAL_AS(Kind::index, narrow(x, 1, 3, 2),
                      "narrow(): axis 1 of [3, 4] float32 does not have 2 elements from 3 on.");
    EXPECT_REFUSAL_AS(Kind::index, index_select(x, 0, far),
                      "index_select(): index 9 is out of range for axis 0 of [3, 4] float32, which has 3 elements.");
    EXPECT_REFUSAL_AS(Kind::argument, index_select(x, 0, whole),
                      "index_select(): the index has at most one axis, not [2, 3] int64.");
    EXPECT_REFUSAL_AS(Kind::dtype, gather(x, 0, x), "gather(): an index tensor holds integers, not [3, 4] float32.");
    EXPECT_REFUSAL_AS(Kind::argument, gather(x, 0, fit),
                      "gather(): an index of [2] int64 does not fit [3, 4] float32 beside axis 0.");
    EXPECT_REFUSAL_AS(Kind::index, take(x[0], far),
                      "take(): index 9 is out of range for axis 0 of [4] float32, which has 4 elements.");
    EXPECT_REFUSAL_AS(Kind::index, scatter_(row, 0, far, KTensor({7.0F, 7.0F})),
                      "scatter_(): index 9 is out of range for axis 0 of [4] float32, which has 4 elements.");
    EXPECT_REFUSAL_AS(Kind::argument, index_add_(x, 0, fit, x),
                      "index_add_(): the index names elements of [2, 4] float32, the source is [3, 4] float32.");
    EXPECT_REFUSAL_AS(
        Kind::argument, take_along_axis(x, whole),
        "take_along_axis(): an index of [2, 3] int64 does not broadcast to [3, 4] float32 beside axis 1.");
    EXPECT_REFUSAL_AS(Kind::dtype, masked_select(x, fit), "masked_select(): a mask is bool, not [2] int64.");
    EXPECT_REFUSAL_AS(Kind::argument, diagonal_scatter(x, fit),
                      "diagonal_scatter(): the diagonal is [3] float32, the source is [2] int64.");
    EXPECT_REFUSAL_AS(Kind::index, diag_embed(x, 0, 0, -3),
                      "diag_embed(): axes 0 and -3 are no two of the result, which has 3.");
    EXPECT_REFUSAL_AS(Kind::argument, diag(KTensor::scalar(1)), "diag(): one axis or two are wanted, not [] int32.");
    EXPECT_REFUSAL_AS(Kind::argument, tril(fit), "tril(): [2] int64 has fewer than two axes.");
    EXPECT_REFUSAL_AS(Kind::argument, index_put(KTensor(), {0}, 1), "index_put(): operand 0 is an undefined KTensor.");
    EXPECT_EQ(x.to_vector<float>(), std::vector<float>(12, 1));
}

TEST(Indexing, InPlaceFormsDoTheSameAndAreRecordedAlike) {
    const KTensor rows({2, 0, 2});
    const KTensor start = KTensor::rand({3, 2}, dtype::float64).requires_grad();
    const KTensor source = KTensor::rand({3, 2}, dtype::float32).requires_grad();
    const KTensor places({{2, 0}, {2, 1}, {0, 0}});
    using Pure = std::function<KTensor(const KTensor&, const KTensor&)>;
    using Target = std::function<KTensor&(KTensor&, const KTensor&)>;
    std::vector<std::pair<Pure, Target>> forms;
#define FORM(call, in_place)                                                     \
    forms.emplace_back([&](const KTensor& x, const KTensor& v) { return call; }, \
                       [&](KTensor& x, const KTensor& v) -> KTensor& { return in_place; });
    FORM(index_put(x, {rows}, v), index_put_(x, {rows}, v))
    FORM(index_put(x, {Slice({}, {}, -1)}, v, true), x.set_index({Slice({}, {}, -1)}, v, true))
    FORM((void(v), index_put(x, {rows, 0}, 2.5, true)), (void(v), x.set_index({rows, 0}, 2.5, true)))
    FORM(index_add(x, 0, rows, v), index_add_(x, 0, rows, v))
    FORM(scatter(x, 0, places, v), scatter_(x, 0, places, v))
    FORM(scatter_add(x, 0, places, v), scatter_add_(x, 0, places, v))
#undef FORM
    for (const auto& [pure, target] : forms) {
        const auto gradients = [&](const KTensor& y) {
            return grad({sum(y * y)}, {start, source}, {}, {.allow_unused = true});
        };
        const KTensor expected = pure(start * 1.0, source);
        KTensor x = start * 1.0;
        const KTensor earlier = x * x;  // keeps x
        const KTensor part = x[0];
        EXPECT_TRUE(target(x, source).is(x));
        EXPECT_EQ(x.to_vector<double>(), expected.to_vector<double>());
        const auto want = gradients(expected);
        const auto have = gradients(x);
        for (std::size_t i = 0; i < 2; ++i) {
            ASSERT_EQ(have[i].defined(), want[i].defined());
            EXPECT_TRUE(!have[i].defined() || have[i].to_vector<double>() == want[i].to_vector<double>());
        }
        EXPECT_THROW(part * 2.0, Error);                // a view from before the write
        EXPECT_THROW(grad({earlier}, {start}), Error);  // a saved value from before the write
        const NoGrad frozen;
        KTensor plain = start.detach() * 1.0;
        EXPECT_EQ(target(plain, source).to_vector<double>(), expected.to_vector<double>());
    }
    // A tensor may be the value of its own parts, and a mask of itself.
    KTensor x = KTensor::arange(5);
    x.set_index({Slice(1)}, x.index({Slice({}, -1)}));
    EXPECT_EQ(x.to_vector<std::int64_t>(), Numbers({0, 0, 1, 2, 3}));
    KTensor truth({true, false, true});
    truth.set_index({truth}, false);
    EXPECT_FALSE(any(truth).item<bool>());
    KTensor fixed = broadcast_to(KTensor({1}), {3});
    EXPECT_THROW(fixed.set_index({0}, 2), Error);
    EXPECT_THROW(fixed.set_index({0}, KTensor({2})), Error);
}

// Many parts of one tensor: their gradients meet in one sum, which nobody else's gradient shares.
TEST(Indexing, GradientsOfPartsAddUpWithoutTouchingOthers) {
    const KTensor x = KTensor::rand({4, 3}, dtype::float64).requires_grad();
    const KTensor rows({1, 3, 1});
    const auto parts = [&](const KTensor& t) {
        KTensor total = sum(index_select(t, 0, rows)) + sum(gather(t, 1, KTensor({{2, 2}}))) + sum(t[rows] * 2.0);
        for (const KTensor& row : along(t)) {
            total = total + sum(row * row);
        }
        return total;
    };
    std::vector<double> expected = (x.detach() * 2.0).to_vector<double>();
    for (const auto& [place, more] :
         std::vector<std::pair<std::size_t, double>>{{3, 6}, {4, 6}, {5, 6}, {9, 3}, {10, 3}, {11, 3}, {2, 2}}) {
        expected[place] += more;
    }
    EXPECT_EQ(grad({parts(x)}, {x})[0].to_vector<double>(), expected);
    // The last operation hands one gradient to both of its operands.
    const KTensor a = x * 1.0;
    const KTensor b = x * 1.0;
    const KTensor first = parts(a);
    const std::vector<KTensor> seen = grad({sum(a + b) + first}, {a, b});
    std::transform(expected.begin(), expected.end(), expected.begin(), [](double g) { return g + 1; });
    EXPECT_EQ(seen[0].to_vector<double>(), expected);
    EXPECT_EQ(seen[1].to_vector<double>(), std::vector<double>(12, 1));
    const KTensor seed = KTensor::ones({4, 3}, dtype::float64);
    const KTensor c = x * 1.0;
    const KTensor second = parts(c);
    EXPECT_EQ(grad({c, second}, {c}, {seed, KTensor::scalar(1.0)})[0].to_vector<double>(), expected);
    EXPECT_EQ(seed.to_vector<double>(), std::vector<double>(12, 1));
}

}  // namespace
}  // namespace ornik
