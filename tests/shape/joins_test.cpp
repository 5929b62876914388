// Joining, parting, repeating, shifting and padding: elements against NumPy's, gradients as adjoints.
#include "tensor/joins.h"

#include <numeric>

#include "support/gradients.h"

namespace ornik::test {
namespace {

using T = Tensor;

Tensor* counts() {
    static const TensorPtr tensor = make<std::int16_t>({3}, {2, 0, 3}, Layout::reversed);
    return tensor.get();
}

std::vector<TensorPtr> owned(const std::vector<Tensor*>& tensors) {
    return std::vector<TensorPtr>(tensors.begin(), tensors.end());
}

std::int64_t checksum(const Tensor* t) {
    std::int64_t sum = 0;
    std::int64_t k = 0;
    for (const double v : doubles_of(t)) {
        sum += ++k * static_cast<std::int64_t>(v);
    }
    return sum;
}

// Of the elements 1 .. 24 along [2, 3, 4]; the checksum is the sum of (k + 1) times element k.
struct Row {
    std::string name;
    std::function<Tensor*(Tensor*)> forward;
    std::function<Tensor*(Tensor*)> gradient;
    Dims shape;
    std::int64_t checksum;
};

TEST(Joins, ElementsOfAnotherImplementationAndAdjoints) {
    // clang-format off
    const Row rows[] = {
        {"repeat", [](T* t) { return repeat(t, {2, 1, 3}); }, [](T* g) { return repeat_grad(g, {2, 3, 4}, {2, 1, 3}); }, dims(4, 3, 12), 150840},
        {"repeat of a higher rank", [](T* t) { return repeat(t, {3, 1, 1, 2, 1}); }, [](T* g) { return repeat_grad(g, {2, 3, 4}, {3, 1, 1, 2, 1}); }, dims(3, 1, 2, 6, 4), 142584},
        {"repeat of the last axes", [](T* t) { return repeat(t, {2}); }, [](T* g) { return repeat_grad(g, {2, 3, 4}, {2}); }, dims(2, 3, 8), 19240},
        {"repeat nothing", [](T* t) { return repeat(t, {1, 0, 1}); }, [](T* g) { return repeat_grad(g, {2, 3, 4}, {1, 0, 1}); }, dims(2, 0, 4), 0},
        {"interleave", [](T* t) { return repeat_interleave(t, 3, -1); }, [](T* g) { return repeat_interleave_grad(g, {2, 3, 4}, 3, -1); }, dims(2, 3, 12), 43200},
        {"interleave rows", [](T* t) { return repeat_interleave(t, 2, 0); }, [](T* g) { return repeat_interleave_grad(g, {2, 3, 4}, 2, 0); }, dims(4, 3, 4), 18728},
        {"interleave nothing", [](T* t) { return repeat_interleave(t, 0, 1); }, [](T* g) { return repeat_interleave_grad(g, {2, 3, 4}, 0, 1); }, dims(2, 0, 4), 0},
        {"counted", [](T* t) { return repeat_by_counts(t, counts(), 1); }, [](T* g) { return repeat_by_counts_grad(g, {2, 3, 4}, counts(), 1); }, dims(2, 5, 4), 14124},
        {"roll", [](T* t) { return roll(t, {1, -3}, {1, 2}); }, [](T* g) { return roll(g, {-1, 3}, {1, 2}); }, dims(2, 3, 4), 4480},
        {"roll one axis twice", [](T* t) { return roll(t, {9, 1, -2}, {-1, 0, -1}); }, [](T* g) { return roll(g, {-9, -1, 2}, {-1, 0, -1}); }, dims(2, 3, 4), 3136},
        {"roll flat", [](T* t) { return roll(t, {-5}); }, [](T* g) { return roll(g, {5}); }, dims(2, 3, 4), 3760},
        {"pad zeros", [](T* t) { return pad(t, {{1, 2}, {0, 0}, {3, 0}}); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{1, 2}, {0, 0}, {3, 0}}); }, dims(5, 3, 7), 15190},
        {"pad and cut", [](T* t) { return pad(t, {{-1, 0}, {2, -1}, {0, -4}}); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{-1, 0}, {2, -1}, {0, -4}}); }, dims(1, 4, 0), 0},
        {"pad and cut some", [](T* t) { return pad(t, {{-1, 0}, {2, -1}, {1, -2}}); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{-1, 0}, {2, -1}, {1, -2}}); }, dims(1, 4, 3), 633},
        {"pad reflect", [](T* t) { return pad(t, {{0, 1}, {2, 2}, {3, 0}}, PadMode::reflect); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{0, 1}, {2, 2}, {3, 0}}, PadMode::reflect); }, dims(3, 7, 7), 114198},
        {"pad reflect", [](T* t) { return pad(t, {{5, 6}, {0, 0}, {9, 11}}, PadMode::reflect); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{5, 6}, {0, 0}, {9, 11}}, PadMode::reflect); }, dims(13, 3, 24), 5743044},
        {"pad replicate", [](T* t) { return pad(t, {{0, 1}, {2, 2}, {3, 0}}, PadMode::replicate); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{0, 1}, {2, 2}, {3, 0}}, PadMode::replicate); }, dims(3, 7, 7), 186900},
        {"pad replicate", [](T* t) { return pad(t, {{5, 6}, {0, 0}, {9, 11}}, PadMode::replicate); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{5, 6}, {0, 0}, {9, 11}}, PadMode::replicate); }, dims(13, 3, 24), 7113255},
        {"pad circular", [](T* t) { return pad(t, {{0, 1}, {2, 2}, {3, 0}}, PadMode::circular); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{0, 1}, {2, 2}, {3, 0}}, PadMode::circular); }, dims(3, 7, 7), 115458},
        {"pad circular", [](T* t) { return pad(t, {{5, 6}, {0, 0}, {9, 11}}, PadMode::circular); }, [](T* g) { return pad_grad(g, {2, 3, 4}, {{5, 6}, {0, 0}, {9, 11}}, PadMode::circular); }, dims(13, 3, 24), 5743512},
        {"flip", [](T* t) { return flip_view(t, {0, -1}); }, [](T* g) { return flip_view(g, {0, -1}); }, dims(2, 3, 4), 3112},
        {"flip all", [](T* t) { return flip_view(t, {}); }, [](T* g) { return flip_view(g, {}); }, dims(2, 3, 4), 2600},
        {"moveaxis", [](T* t) { return moveaxis(t, {0}, {-1}); }, [](T* g) { return moveaxis(g, {-1}, {0}); }, dims(3, 4, 2), 4394},
        {"moveaxis of two", [](T* t) { return moveaxis(t, {2, 0}, {0, 1}); }, [](T* g) { return moveaxis(g, {0, 1}, {2, 0}); }, dims(4, 2, 3), 4210},
        {"expand_dims", [](T* t) { return expand_dims(t, -2); }, [](T* g) { return view_tensor(g, {2, 3, 4}); }, dims(2, 3, 1, 4), 4900},
        {"windows", [](T* t) { return windows(t, 2, 3); }, [](T* g) { return windows_grad(g, {2, 3, 4}, 2, 3); }, dims(2, 3, 2, 3), 10896},
        {"windows apart", [](T* t) { return windows(t, 1, 1, 2); }, [](T* g) { return windows_grad(g, {2, 3, 4}, 1, 1, 2); }, dims(2, 2, 4, 1), 2232},
        {"long windows", [](T* t) { return windows(t, -1, 4, 5); }, [](T* g) { return windows_grad(g, {2, 3, 4}, -1, 4, 5); }, dims(2, 3, 1, 4), 4900},
        {"diag_embed", [](T* t) { return diag_embed(t); }, [](T* g) { return g->diagonal(0, -2, -1); }, dims(2, 3, 4, 4), 19180},
        {"diag_embed of other axes", [](T* t) { return diag_embed(t, -2, 3, 0); }, [](T* g) { return g->diagonal(-2, 3, 0); }, dims(6, 2, 3, 6), 24840},
        {"diagonal", [](T* t) { return t->diagonal(1, 2, 0); }, [](T* g) { return diagonal_grad(g, {2, 3, 4}, 1, 2, 0); }, dims(3, 1), 110},
        {"no diagonal", [](T* t) { return t->diagonal(-7, 0, 1); }, [](T* g) { return diagonal_grad(g, {2, 3, 4}, -7, 0, 1); }, dims(4, 0), 0},
        {"tril", [](T* t) { return tril(t, -1); }, [](T* g) { return tril(g, -1); }, dims(2, 3, 4), 1420},
        {"triu", [](T* t) { return triu(t, 1); }, [](T* g) { return triu(g, 1); }, dims(2, 3, 4), 2300},
    };
    // clang-format on
    unsigned seed = 0;
    for (const Row& row : rows) {
        for (const Layout layout : all_layouts) {
            const TensorPtr x = make<double>({2, 3, 4}, counted<double>(24, 1), layout);
            const TensorPtr y(row.forward(x.get()));
            ASSERT_EQ(y->Shape(), row.shape) << row.name;
            EXPECT_EQ(checksum(y.get()), row.checksum) << row.name << " " << name_of(layout);
            const bool is_empty = y->Size() == 0;
            ++seed;
            const TensorPtr g = is_empty ? make_empty(row.shape, dtype::float64)
                                         : random_tensor(row.shape, dtype::float64, seed, all_layouts[seed % 5]);
            const TensorPtr dx(row.gradient(g.get()));
            ASSERT_EQ(dx->Shape(), x->Shape()) << row.name;
            const TensorPtr other = random_tensor({2, 3, 4}, dtype::float64, ++seed, layout);
            const TensorPtr image(row.forward(other.get()));
            EXPECT_NEAR(weighted_sum(dx.get(), other.get()), is_empty ? 0.0 : weighted_sum(g.get(), image.get()), 1e-12)
                << row.name << " " << name_of(layout);
        }
        // Other dtypes, the smallest and the largest.
        const TensorPtr bytes = make<std::uint8_t>({2, 3, 4}, counted<std::uint8_t>(24, 1));
        EXPECT_EQ(checksum(TensorPtr(row.forward(bytes.get())).get()), row.checksum) << row.name;
        const TensorPtr wide = make<Complex<double>>({2, 3, 4}, counted<Complex<double>>(24, 1));
        const TensorPtr image(row.forward(wide.get()));
        EXPECT_EQ(image->Size() == 0 ? 0 : checksum(TensorPtr(image->real()).get()), row.checksum) << row.name;
    }
}

TEST(Joins, PartsAndWholes) {
    for (const Layout layout : all_layouts) {
        for (const int axis : {0, 1, 2, -1}) {
            const TensorPtr x = make<float>({2, 3, 4}, counted<float>(24), layout);
            const auto extent = x->Shape()[static_cast<std::size_t>(axis < 0 ? axis + 3 : axis)];
            for (const std::vector<TensorPtr>& parts :
                 {owned(split(x.get(), {1, 0, extent - 1}, axis)), owned(chunk(x.get(), 2, axis)),
                  owned(chunk(x.get(), 9, axis))}) {
                std::vector<Tensor*> list;
                for (const TensorPtr& part : parts) {
                    EXPECT_EQ(part->getStorage(), x->getStorage());
                    list.push_back(part.get());
                }
                EXPECT_EQ(values_of<float>(TensorPtr(concatenate(list, axis))), counted<float>(24)) << name_of(layout);
            }
            const std::vector<TensorPtr> slices = owned(unbind(x.get(), axis));
            std::vector<Tensor*> list;
            for (const TensorPtr& slice : slices) {
                list.push_back(slice.get());
            }
            EXPECT_EQ(values_of<float>(TensorPtr(stack_along(list, axis))), counted<float>(24)) << name_of(layout);
        }
    }
    const TensorPtr x(Tensor::ones({7}, 0, dtype::int8));
    Dims extents;
    for (const TensorPtr& part : owned(chunk(x.get(), 4, 0))) {
        extents.push_back(part->Size());
    }
    EXPECT_EQ(extents, (Dims{2, 2, 2, 1}));
    // The wider dtype wins; nothing to join, and numbers to stack.
    const TensorPtr wide = make<Complex<float>>({1}, {{2, 3}});
    const TensorPtr joined(concatenate({x.get(), wide.get()}));
    EXPECT_EQ(joined->Dtype(), dtype::complex64);
    const TensorPtr none = make_empty({0}, dtype::int32);
    EXPECT_EQ(TensorPtr(concatenate({none.get(), none.get()}))->Shape(), Dims{0});
    const TensorPtr number(Tensor::ones({}, 0, dtype::float32));
    EXPECT_EQ(TensorPtr(stack_along({number.get(), number.get()}, -1))->Shape(), Dims{2});
    EXPECT_EQ(TensorPtr(stack_along({none.get()}, 1))->Shape(), (Dims{0, 1}));
    EXPECT_TRUE(owned(unbind(none.get())).empty());
}

TEST(Joins, Grids) {
    const TensorPtr a = make<float>({2}, {1, 2}), b = make<float>({3}, {5, 6, 7}, Layout::reversed);
    const TensorPtr c = make<float>({}, {9});
    const std::vector<TensorPtr> grids = owned(meshgrid({a.get(), b.get(), c.get()}));
    EXPECT_EQ(values_of<float>(grids[0]), (std::vector<float>{1, 1, 1, 2, 2, 2}));
    EXPECT_EQ(values_of<float>(grids[1]), (std::vector<float>{5, 6, 7, 5, 6, 7}));
    EXPECT_EQ(grids[2]->Shape(), (Dims{2, 3, 1}));
    const std::vector<TensorPtr> turned = owned(meshgrid({a.get(), b.get()}, true));
    EXPECT_EQ(turned[0]->Shape(), (Dims{3, 2}));
    EXPECT_EQ(values_of<float>(turned[0]), (std::vector<float>{1, 2, 1, 2, 1, 2}));
    EXPECT_EQ(values_of<float>(turned[1]), (std::vector<float>{5, 5, 6, 6, 7, 7}));
}

TEST(Joins, ValuesOfPaddingDiagonalsAndEmptyOperands) {
    const TensorPtr x = make<std::int8_t>({2}, {1, 2});
    EXPECT_EQ(values_of<std::int8_t>(TensorPtr(pad(x.get(), {{1, 2}}, PadMode::constant, 300.7))),
              (std::vector<std::int8_t>{127, 1, 2, 127, 127}));
    EXPECT_EQ(values_of<std::int8_t>(TensorPtr(diag(x.get(), -1))),
              (std::vector<std::int8_t>{0, 0, 0, 1, 0, 0, 0, 2, 0}));
    const TensorPtr m = make<float>({2, 3}, counted<float>(6), Layout::transposed);
    const TensorPtr d(diag(m.get(), 1));
    EXPECT_EQ(values_of<float>(d), (std::vector<float>{1, 5}));
    EXPECT_EQ(values_of<float>(TensorPtr(diag_grad(d.get(), {2, 3}, 1))), (std::vector<float>{0, 1, 0, 0, 0, 5}));
    const TensorPtr square(diag(d.get(), -2));
    EXPECT_EQ(values_of<float>(TensorPtr(diag_grad(square.get(), {2}, -2))), (std::vector<float>{1, 5}));
    const TensorPtr none = make_empty({2, 0}, dtype::float32);
    EXPECT_EQ(values_of<float>(TensorPtr(pad(none.get(), {{0, 0}, {1, 0}}, PadMode::constant, 3))),
              (std::vector<float>{3, 3}));
    for (Tensor* t :
         {roll(none.get(), {1, 1}, {0, 1}), roll(none.get(), {3}), flip_view(none.get(), {}), tril(none.get()),
          triu(none.get()), repeat(none.get(), {1, 4}), repeat_interleave(none.get(), 3, 1)}) {
        EXPECT_EQ(TensorPtr(t)->Shape(), (Dims{2, 0}));
    }
    EXPECT_EQ(values_of<float>(TensorPtr(diag_embed(none.get(), 1))), (std::vector<float>{0, 0}));
    EXPECT_EQ(values_of<float>(TensorPtr(repeat_grad(none.get(), {2, 3}, {1, 0}))), std::vector<float>(6));
}

}  // namespace
}  // namespace ornik::test
