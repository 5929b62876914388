// The element-wise engine against a walk that takes one element at a time.
#include <algorithm>
#include <bit>
#include <cstring>
#include <numeric>

#include "descriptors/tensoriterator.h"
#include "support/expect_error.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

MultiTensorIterationHelper iteration(const std::vector<Tensor*>& outputs, const std::vector<const Tensor*>& inputs) {
    MultiTensorIterationHelper helper;
    std::for_each(inputs.begin(), inputs.end(), [&](const Tensor* t) { helper.add_input(t); });
    std::for_each(outputs.begin(), outputs.end(), [&](Tensor* t) { helper.add_output(t); });
    helper.build();
    return helper;
}

// ---- Views in every layout, over storages of random bits ----

struct View {
    std::string name;
    Dims shape, strides;
    std::int64_t offset;
};

Dims dense_strides(const Dims& shape, const std::vector<std::size_t>& innermost_first) {
    Dims strides(shape.size());
    std::int64_t step = 1;
    for (const std::size_t axis : innermost_first) {
        strides[axis] = step;
        step *= std::max<std::int64_t>(shape[axis], 1);
    }
    return strides;
}

std::int64_t capacity_for(std::int64_t numel) { return 2 * numel + 3; }

std::vector<View> views_of(const Dims& shape) {
    const std::size_t rank = shape.size();
    const std::int64_t numel = numel_of(shape);
    std::vector<View> views;
    const auto add = [&](const std::string& name, const Dims& strides, std::int64_t offset) {
        views.push_back({name + " " + shape_text(shape), shape, strides, offset});
    };
    std::vector<std::size_t> order(rank);
    std::iota(order.rbegin(), order.rend(), std::size_t{0});
    const Dims row_major = dense_strides(shape, order);
    const auto scaled = [&](std::int64_t factor) {
        Dims strides = row_major;
        std::transform(strides.begin(), strides.end(), strides.begin(), [&](std::int64_t s) { return s * factor; });
        return strides;
    };
    add("contiguous", row_major, 0);
    add("offset", row_major, 3);
    add("reversed", scaled(-1), std::max<std::int64_t>(numel - 1, 0));
    add("every other", scaled(2), 1);
    add("one place", scaled(0), 2);
    add("overlapping", Dims(rank, 1), 1);
    std::sort(order.begin(), order.end());
    do {
        add("permuted", dense_strides(shape, order), 1);
    } while (rank < 4 && std::next_permutation(order.begin(), order.end()));
    for (std::size_t axis = 0; axis < std::min<std::size_t>(rank, 4); ++axis) {
        Dims strides = row_major;
        strides[axis] = 0;
        add("expanded axis " + std::to_string(axis), strides, 0);
        strides[axis] = shape[axis] == 1 ? -97 : -row_major[axis];
        add("flipped axis " + std::to_string(axis), strides, shape[axis] > 0 ? (shape[axis] - 1) * row_major[axis] : 0);
    }
    return views;
}

std::vector<View> views_of(const std::vector<Dims>& shapes) {
    std::vector<View> all;
    for (const Dims& shape : shapes) {
        const std::vector<View> views = views_of(shape);
        all.insert(all.end(), views.begin(), views.end());
    }
    return all;
}

template <typename T>
struct Operand {
    std::vector<T> storage;
    TensorPtr tensor;
    Dims offsets;  // Of every element, in row-major order.

    Operand(const View& view, unsigned seed) : storage(static_cast<std::size_t>(capacity_for(numel_of(view.shape)))) {
        std::uint64_t state = seed;
        std::vector<std::uint64_t> bits(storage.size() * sizeof(T) / sizeof(state) + 1);
        std::generate(bits.begin(), bits.end(), [&] {
            state = state * 6364136223846793005U + 1442695040888963407U;
            return state ^ state >> 29;
        });
        const auto* bytes = reinterpret_cast<const unsigned char*>(bits.data());
        std::copy_n(bytes, storage.size() * sizeof(T), reinterpret_cast<unsigned char*>(storage.data()));
        const TensorPtr whole(Tensor::empty({static_cast<std::int64_t>(storage.size())}, 0, dtype_code<T>));
        std::memcpy(whole->getRawData(), storage.data(), storage.size() * sizeof(T));
        tensor.reset(share_storage_tensor(whole->getStorage(), view.shape, view.strides, dtype_code<T>, view.offset));
        for_each_offset(view.shape, view.strides, [&](std::int64_t at) { offsets.push_back(view.offset + at); });
    }
    T& at(std::size_t i) { return storage[static_cast<std::size_t>(offsets[i])]; }
    // Does the tensor's whole storage hold what `storage` says?
    bool matches() const {
        return std::memcmp(tensor->getStorage()->getRawData(), storage.data(), storage.size() * sizeof(T)) == 0;
    }
};

struct Item16 {
    std::uint64_t low, high;
};
// Element types by size; the longest one goes through a pair of integers, so that any bits may be compared.
template <typename T>
T mix(T a, T b) {
    if constexpr (requires(T z) { z.imag; }) {
        const auto x = std::bit_cast<Item16>(a);
        const auto y = std::bit_cast<Item16>(b);
        return std::bit_cast<T>(Item16{3 * x.low + y.high, x.high - y.low});
    } else {
        using U = std::make_unsigned_t<T>;
        return static_cast<T>(static_cast<U>(3U * static_cast<U>(a) + static_cast<U>(b)));
    }
}
using SizedTypes = TypeList<std::uint8_t, std::int16_t, std::int32_t, std::int64_t, Complex<double>>;

// Every output layout with every first input layout; the second input's goes round.
template <typename T>
void check_walks(const std::vector<View>& views, const std::vector<View>& outputs) {
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        for (std::size_t j = 0; j < views.size(); ++j) {
            const View& second = views[(i + j) % views.size()];
            const std::string name = outputs[i].name + " = " + views[j].name + ", " + second.name;
            Operand<T> out(outputs[i], 1);
            Operand<T> a(views[j], 2);
            Operand<T> b(second, 3);
            MultiTensorIterationHelper it = iteration({out.tensor.get()}, {a.tensor.get(), b.tensor.get()});
            it.run<TypeList<T>, TypeList<T, T>>([](T x, T y) { return mix(x, y); });
            for (std::size_t k = 0; k < out.offsets.size(); ++k) {
                out.at(k) = mix(a.at(k), b.at(k));
            }
            ASSERT_TRUE(out.matches()) << sizeof(T) << " bytes: " << name;
            ASSERT_TRUE(a.matches() && b.matches()) << name;
        }
    }
}

TEST(Engine, SmallShapesInEveryLayout) {
    const std::vector<Dims> groups[] = {
        {{6}, {2, 3}, {3, 2}, {1, 6, 1}, {2, 1, 3}},
        {{2, 3, 4}, {4, 6}},
        {{2, 2, 1, 3, 2}},
        {{}, {1}, {1, 1}},
        {{0}, {2, 0}, {0, 3}},
        {{8, 8}, {64}},
        {{7, 9}, {9, 7}},
        {{8, 3, 16}},
    };
    for (const std::vector<Dims>& shapes : groups) {
        const std::vector<View> views = views_of(shapes);
        for_types(SizedTypes{}, [&]<typename T>() { check_walks<T>(views, views); });
    }
}

TEST(Engine, SizesAroundTheTileAndTheGrain) {
    for (const Dims& shape : {Dims{127, 8}, {8, 128}, {129, 17}, {17, 129}}) {
        const std::vector<View> views = views_of(shape);
        for_types(SizedTypes{}, [&]<typename T>() { check_walks<T>(views, {views[0], views[6]}); });
    }
    for (const Dims& shape : {Dims{128, 257}, {257, 128}, {2, 127, 129}}) {
        const std::vector<View> views = views_of(shape);
        for_types(TypeList<std::uint8_t, std::int32_t>{}, [&]<typename T>() {
            check_walks<T>(views, {views[0], views[6]});
        });
    }
    for (const std::int64_t n : {32767, 32768, 32769}) {
        const std::vector<View> views = views_of(Dims{n});
        check_walks<std::int16_t>(views, {views[0], views[3], views[4]});
    }
    const std::vector<View> ragged = views_of(std::vector<Dims>{{257, 129}, {129, 257}, {257 * 129}});
    check_walks<std::int32_t>(ragged, {ragged[3], ragged[4], ragged[7]});
}

TEST(Engine, ManyAxes) {
    Dims shape(25, 1);
    for (const std::size_t axis : {0U, 1U, 5U, 12U, 13U, 23U, 24U}) {
        shape[axis] = 2;
    }
    check_walks<std::int32_t>(views_of(shape), views_of(shape));
    Dims empty(26, 1);
    empty[3] = 0;
    for (const Dims& too_many : {Dims(26, 1), Dims(27, 2), empty}) {
        const Operand<float> one({"", {1}, {1}, 0}, 1);
        const TensorPtr t(share_storage_tensor(one.tensor->getStorage(), too_many, Dims(too_many.size(), 0), 6, 0));
        MultiTensorIterationHelper it = iteration({t.get()}, {t.get()});
        expect_error([&] { it.run<TypeList<float>, TypeList<float>>([](float x) { return x + 1; }); },
                     "tensor has too many dims",
                     "`anonymous-namespace'::OffsetCalculator_cpu<__int64>::OffsetCalculator_cpu",
                     "include/hardware/cpu/cpu_offset_cal.h");
        EXPECT_TRUE(one.matches());
    }
}

// ---- Outputs ----

TEST(Engine, SeveralOutputsAndAnOutputThatIsAnInput) {
    for (const Dims& shape : {Dims{2, 3}, Dims{128, 257}}) {
        const std::vector<View> views = views_of(shape);
        for (std::size_t i = 0; i < views.size(); ++i) {
            for (std::size_t j = i % 4; j < views.size(); j += 4) {
                Operand<std::int32_t> narrow(views[i], 1);
                Operand<std::int64_t> wide(views[j], 2);
                Operand<std::uint8_t> in(views[(i + 2 * j) % views.size()], 3);
                MultiTensorIterationHelper it =
                    iteration({narrow.tensor.get(), wide.tensor.get()}, {in.tensor.get(), narrow.tensor.get()});
                const auto function = [](std::uint8_t x, std::int32_t old) {
                    return std::tuple<std::int32_t, std::int64_t>(mix<std::int32_t>(old, x), old ^ x);
                };
                it.run<TypeList<std::int32_t, std::int64_t>, TypeList<std::uint8_t, std::int32_t>>(function);
                for (std::size_t k = 0; k < in.offsets.size(); ++k) {
                    std::tie(narrow.at(k), wide.at(k)) = function(in.at(k), narrow.at(k));
                }
                ASSERT_TRUE(narrow.matches() && wide.matches()) << views[i].name << " and " << views[j].name;
            }
        }
    }
}

// Outputs beyond the caches take another way to memory. Two of different sizes at odd places, whole, by rows and in
// place, with guards around them; then copies of such blocks.
TEST(Engine, LargeOutputsAtOddPlaces) {
    const std::int64_t rows = 3001, cols = 3003, numel = rows * cols;
    const auto storage = [](std::int64_t dtype) { return TensorPtr(Tensor::full({rows * cols + 7}, 7.0F, 0, dtype)); };
    const auto view = [&](const TensorPtr& t, std::int64_t offset, const Dims& strides) {
        return TensorPtr(share_storage_tensor(t->getStorage(), {rows, cols}, strides, t->Dtype(), offset));
    };
    const auto value = [](std::int64_t i) { return static_cast<float>(i % 100'003); };
    const TensorPtr base = storage(dtype::float32);
    for (std::int64_t i = 0; i < base->Size(); ++i) {
        static_cast<float*>(base->getRawData())[i] = value(i);
    }
    const TensorPtr whole = view(base, 0, {cols, 1}), one_row = view(base, 1, {0, 1});
    for (const TensorPtr* input : {&whole, &one_row}) {
        const TensorPtr singles = storage(dtype::float32), doubles = storage(dtype::float64);
        const TensorPtr sum = view(singles, 3, {cols, 1}), wide = view(doubles, 1, {cols, 1});
        MultiTensorIterationHelper helper = iteration({sum.get(), wide.get()}, {whole.get(), input->get()});
        helper.run<TypeList<float, double>, TypeList<float, float>>(
            [](float a, float b) { return std::tuple<float, double>(a + b, static_cast<double>(a) - b); });
        const auto* a = static_cast<const float*>(singles->getRawData());
        const auto* b = static_cast<const double*>(doubles->getRawData());
        std::int64_t wrong = 0;
        for (std::int64_t i = 0; i < numel; ++i) {
            const float other = input == &whole ? value(i) : value(1 + i % cols);
            wrong += (a[3 + i] != value(i) + other) + (b[1 + i] != static_cast<double>(value(i)) - other);
        }
        EXPECT_EQ(wrong, 0);
        EXPECT_EQ(std::count(a, a + 3, 7.0F) + std::count(a + 3 + numel, a + numel + 7, 7.0F), 7);
        EXPECT_EQ(std::count(b, b + 1, 7.0) + std::count(b + 1 + numel, b + numel + 7, 7.0), 7);
    }
    const TensorPtr copied = storage(dtype::float32);
    const TensorPtr from = view(base, 2, {cols, 1}), to = view(copied, 5, {cols, 1});
    copy_tensor(from.get(), to.get());
    const auto* c = static_cast<const float*>(copied->getRawData());
    EXPECT_EQ(std::memcmp(c + 5, static_cast<const float*>(base->getRawData()) + 2,
                          static_cast<std::size_t>(numel) * sizeof(float)),
              0);
    EXPECT_EQ(std::count(c, c + 5, 7.0F) + std::count(c + 5 + numel, c + numel + 7, 7.0F), 7);
}

TEST(Engine, OutputsOfOnePlaceKeepTheLastValue) {
    const TensorPtr rows = make<std::int32_t>({2, 3}, counted<std::int32_t>(6, 10), Layout::transposed);
    const TensorPtr columns = make<std::int32_t>({3, 2}, counted<std::int32_t>(6, 100));
    for (const Tensor* second : {rows.get(), columns.get()}) {
        Tensor out;
        out.initialize_none_tensor({}, dtype::int32, 0, layout::dense);
        out.setSize(6);
        MultiTensorIterationHelper it = iteration({&out}, {rows.get(), second});
        it.run<TypeList<std::int32_t>, TypeList<std::int32_t, std::int32_t>>(
            [](std::int32_t x, std::int32_t y) { return 1000 * x + y; });
        EXPECT_EQ(*static_cast<std::int32_t*>(out.getRawData()), second == rows.get() ? 15015 : 15105);
    }
}

TEST(Engine, AnyByteThatIsNotZeroIsTrue) {
    const TensorPtr bytes = make<std::uint8_t>({4}, {0, 1, 2, 255});
    const TensorPtr truths(share_storage_tensor(bytes->getStorage(), {4}, {1}, dtype::boolean, bytes->StorageOffset()));
    const TensorPtr out = make<std::uint8_t>({4}, {9, 9, 9, 9});
    MultiTensorIterationHelper it = iteration({out.get()}, {truths.get()});
    it.run<TypeList<std::uint8_t>, TypeList<bool>>([](bool x) { return static_cast<std::uint8_t>(x ? 1 : 0); });
    EXPECT_EQ(values_of<std::uint8_t>(out), (std::vector<std::uint8_t>{0, 1, 1, 1}));
}

TEST(Engine, WalksTheLow32BitsOfTheElementCount) {
    constexpr std::int64_t two16 = 65536;
    for (const auto& [rows, walked] : {std::pair<std::int64_t, int>{two16 + 1, 65536}, {two16, 0}, {two16 / 2, 0}}) {
        const TensorPtr in = make<std::int32_t>({two16}, counted<std::int32_t>(two16, 1));
        const TensorPtr out(Tensor::zeros({two16}, 0, dtype::int32));
        const TensorPtr many(Tensor::broadcast_to(in.get(), {rows, two16}));
        const TensorPtr many_out(Tensor::broadcast_to(out.get(), {rows, two16}));
        MultiTensorIterationHelper it = iteration({many_out.get()}, {many.get()});
        EXPECT_EQ(it.numel(), rows * two16);
        EXPECT_EQ(it.input_helpers()[0].numel, static_cast<std::int32_t>(rows * two16));
        it.run<TypeList<std::int32_t>, TypeList<std::int32_t>>([](std::int32_t x) { return x; });
        std::vector<std::int32_t> expected(two16, 0);
        std::iota(expected.begin(), expected.begin() + walked, 1);
        EXPECT_TRUE(values_of<std::int32_t>(out) == expected) << rows;
    }
}

// ---- Checks and the snapshot of the operands ----

TEST(Engine, ComparesCountsThenDevices) {
    const auto shared = [](const Dims& shape, std::int64_t device) {
        TensorPtr t = make_empty(shape, dtype::float32);
        t->updateDevice(device);
        return t;
    };
    const TensorPtr six = shared({2, 3}, 0), six_far = shared({3, 2}, 1000), four = shared({4}, 0);
    const TensorPtr four_far = shared({4}, 1000), scalar = shared({}, 0);
    struct Case {
        std::vector<const Tensor*> in;
        std::vector<Tensor*> out;
        const char* message;
    };
    const Case cases[] = {
        {{six.get(), four.get()}, {four_far.get()}, "Not same input's Size for MultiTensorIterationHelper."},
        {{six.get(), six_far.get()}, {four.get()}, "Not same output's Size for MultiTensorIterationHelper."},
        {{scalar.get()}, {four.get()}, "Not same output's Size for MultiTensorIterationHelper."},
        {{}, {six.get(), four.get()}, "Not same output's Size for MultiTensorIterationHelper."},
        {{six.get(), six_far.get()}, {six_far.get()}, "Not same input's device for MultiTensorIterationHelper."},
        {{six.get()}, {six.get(), six_far.get()}, "Not same output's device for MultiTensorIterationHelper."},
    };
    for (const Case& c : cases) {
        expect_error([&] { iteration(c.out, c.in); }, c.message, "ornik::MultiTensorIterationHelper::build",
                     "src/descriptors/tensoriterator.cpp");
    }
}

TEST(Engine, NeedsOutputsThenInputsAndLeavesOtherDevicesAlone) {
    const TensorPtr t = make<float>({2}, {1, 2});
    const auto run = [](const std::vector<Tensor*>& outputs, const std::vector<const Tensor*>& inputs) {
        iteration(outputs, inputs).run<TypeList<float>, TypeList<float>>([](float x) { return x + 1; });
    };
    const auto refused = [&](const std::vector<Tensor*>& outputs, const std::vector<const Tensor*>& inputs,
                             const char* message) {
        expect_error([&] { run(outputs, inputs); }, message, "ornik::MultiTensorIterationHelper::run",
                     "include/descriptors/tensoriterator.h");
    };
    refused({}, {}, "_out_args.size() >= 1");
    refused({}, {t.get()}, "_out_args.size() >= 1");
    refused({t.get()}, {}, "_in_args.size() >= 1");
    t->updateDevice(1000);
    run({t.get()}, {t.get()});
    EXPECT_EQ(values_of<float>(t), (std::vector<float>{1, 2}));
}

TEST(Engine, FlagsContiguousOperands) {
    struct Case {
        Dims shape, strides;
        bool contiguous;
    };
    const TensorPtr whole = make_empty({16}, dtype::int16);
    for (const Case& c : {Case{{2, 3}, {3, 1}, true}, Case{{2, 3}, {1, 2}, false}, Case{{2, 1, 3}, {3, 3, 1}, true},
                          Case{{2, 1, 3}, {3, 9, 1}, false}, Case{{1, 1}, {7, 9}, true}, Case{{0, 3}, {9, 9}, true}}) {
        const TensorPtr t(share_storage_tensor(whole->getStorage(), c.shape, c.strides, dtype::int16, 1));
        const TensorPtr dense = make_empty(c.shape, dtype::int16);
        MultiTensorIterationHelper it = iteration({t.get()}, {dense.get()});
        const TensorIterationHelper& helper = it.output_helpers()[0];
        EXPECT_EQ(helper.is_contiguous, c.contiguous) << shape_text(c.strides);
        EXPECT_EQ(it.all_contiguous(), c.contiguous);
        EXPECT_EQ(helper.shape(), c.shape);
        EXPECT_EQ(helper.strides(), c.strides);
        EXPECT_EQ(helper.numel, numel_of(c.shape));
        EXPECT_EQ(helper.dtype, dtype::int16);
        EXPECT_EQ(helper.device, 0);
        EXPECT_EQ(helper.reserved, 0);
    }
}

}  // namespace
}  // namespace ornik::test
