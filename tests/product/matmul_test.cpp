// matmul and its gradients: broadcast batches, operands of one axis, flags, layouts, empty and aliased operands.
#include "tensor/tensor_math/matmul.h"

#include <numeric>

#include "support/gradients.h"
#include "support/teams.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_shape.h"

namespace ornik::test {
namespace {

using Value = Complex<double>;

// Small whole numbers under the layout; beyond the common ones, axes in another order (5), repeated (6).
TensorPtr whole_numbers(const Dims& shape, std::int64_t dtype, std::mt19937& random) {
    const std::size_t kind = random() % 7;
    TensorPtr t;
    if (numel_of(shape) == 0) {
        return make_empty(shape, dtype);
    }
    if (kind < 5) {
        t = make_empty(shape, dtype, all_layouts[kind]);
    } else {
        std::vector<int> order(shape.size());
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), random);
        Dims stored(shape.size());
        for (std::size_t i = 0; i < shape.size(); ++i) {
            stored[static_cast<std::size_t>(order[i])] = shape[i];
        }
        if (kind == 6 && !stored.empty()) {
            stored[random() % stored.size()] = 1;
        }
        t = TensorPtr(make_empty(stored, dtype)->permute(order));
    }
    const TensorPtr numbers = make_empty(t->Shape(), dtype::complex128);
    auto* parts = static_cast<double*>(numbers->getRawData());
    const bool is_signed = dtype != dtype::uint8 && dtype != dtype::boolean;
    for (std::int64_t i = 0; i < 2 * t->Size(); ++i) {
        parts[i] = static_cast<double>(random() % 5) - (is_signed ? 2.0 : 0.0);
    }
    t->copy_from_(numbers.get());
    return TensorPtr(Tensor::broadcast_to(t.get(), shape));
}

std::vector<Value> numbers_of(const Tensor* t) {
    return t->Size() == 0 ? std::vector<Value>{} : values_of<Value>(TensorPtr(t->astype(dtype::complex128)));
}

std::int64_t at_end(const Dims& list, std::size_t back, std::int64_t otherwise) {
    return back <= list.size() ? list[list.size() - back] : otherwise;
}

// A random product: shapes as they are stored.
struct Case {
    Dims a;
    Dims b;
    int ta;
    int tb;

    explicit Case(std::mt19937& random) : ta(random() % 2 == 0), tb(random() % 2 == 0) {
        const auto extent = [&] { return random() % 24 == 0 ? 0 : 1 + static_cast<std::int64_t>(random() % 4); };
        const Dims common{extent(), extent(), extent()};
        const std::int64_t m = extent();
        const std::int64_t k = extent();
        const std::int64_t n = extent();
        for (const auto& [shape, rows, cols] : {std::tuple{&a, ta ? k : m, ta ? m : k}, {&b, tb ? n : k, tb ? k : n}}) {
            if (random() % 5 == 0) {
                *shape = {k};
                continue;
            }
            const auto batch = static_cast<std::ptrdiff_t>(random() % 4);
            shape->assign(common.end() - batch, common.end());
            for (std::int64_t& e : *shape) {
                e = random() % 3 == 0 ? 1 : e;
            }
            shape->insert(shape->end(), {rows, cols});
        }
    }

    std::string name() const { return shape_text(a) + "x " + shape_text(b) + std::to_string(ta) + std::to_string(tb); }
};

// Position of matrix element (row, col) of op(t) for the batch position, in row-major order of t.
std::int64_t place(const Dims& shape, const Dims& batch, std::int64_t row, std::int64_t col, bool is_left, int flag) {
    if (shape.size() == 1) {
        return is_left ? col : row;
    }
    std::int64_t at = 0;
    const std::size_t rank = shape.size() - 2;
    for (std::size_t i = 0; i < rank; ++i) {
        at = at * shape[i] + (shape[i] == 1 ? 0 : batch[batch.size() - rank + i]);
    }
    return (at * shape[rank] + (flag ? col : row)) * shape[rank + 1] + (flag ? row : col);
}

std::vector<Value> naive_product(const Case& c, const std::vector<Value>& x, const std::vector<Value>& y,
                                 bool is_bool) {
    const std::int64_t m = c.a.size() == 1 ? 1 : at_end(c.a, c.ta ? 1 : 2, 1);
    const std::int64_t n = c.b.size() == 1 ? 1 : at_end(c.b, c.tb ? 2 : 1, 1);
    const std::int64_t k = c.a.size() == 1 ? c.a[0] : at_end(c.a, c.ta ? 2 : 1, 1);
    Dims batch(std::max(std::max<std::size_t>(c.a.size(), 2), std::max<std::size_t>(c.b.size(), 2)) - 2);
    for (std::size_t back = 1; back <= batch.size(); ++back) {
        const std::int64_t a = at_end(c.a, back + 2, 1);
        batch[batch.size() - back] = a == 1 ? at_end(c.b, back + 2, 1) : a;
    }
    std::vector<Value> result;
    Dims p(batch.size());
    for (std::int64_t i = 0; i < numel_of(batch); ++i) {
        for (std::int64_t row = 0; row < m; ++row) {
            for (std::int64_t col = 0; col < n; ++col) {
                Value sum{0, 0};
                for (std::int64_t d = 0; d < k; ++d) {
                    sum = sum + x[static_cast<std::size_t>(place(c.a, p, row, d, true, c.ta))] *
                                    y[static_cast<std::size_t>(place(c.b, p, d, col, false, c.tb))];
                }
                result.push_back(is_bool ? Value{sum.real != 0 ? 1.0 : 0.0, 0} : sum);
            }
        }
        for (std::size_t d = p.size(); d-- > 0 && ++p[d] == batch[d];) {
            p[d] = 0;
        }
    }
    return result;
}

bool equal_numbers(const std::vector<Value>& a, const std::vector<Value>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](const Value& x, const Value& y) { return x.real == y.real && x.imag == y.imag; });
}

TEST(Matmul, RandomProductsAndTheirGradients) {
    const std::int64_t pairs[][2] = {{6, 6}, {7, 7}, {8, 8}, {9, 9}, {5, 5}, {2, 2},
                                     {1, 1}, {0, 0}, {0, 1}, {6, 8}, {9, 3}};
    std::mt19937 random(11);
    int with_elements = 0;
    for (int round = 0; round < 3000; ++round) {
        const Case c(random);
        const auto& types = pairs[random() % std::size(pairs)];
        const TensorPtr a = whole_numbers(c.a, types[0], random);
        const TensorPtr b = whole_numbers(c.b, types[1], random);
        const TensorPtr y(matmul(a.get(), b.get(), c.ta, c.tb));
        const std::int64_t dtype = std::max(types[0], types[1]);
        ASSERT_EQ(y->Dtype(), dtype) << round;
        ASSERT_EQ(y->Shape(), matmul_shape(c.a, c.b, c.ta, c.tb)) << round << c.name();
        const std::vector<Value> expected = naive_product(c, numbers_of(a.get()), numbers_of(b.get()), dtype == 0);
        ASSERT_TRUE(equal_numbers(numbers_of(y.get()), expected)) << round << " " << c.name();
        with_elements += y->Size() > 1 ? 1 : 0;

        // Into memory of any layout, plain and added.
        if (types[0] == types[1]) {
            TensorPtr old = whole_numbers(y->Shape(), dtype, random);
            for (const std::int64_t stride : old->Strides()) {
                old = stride == 0 ? TensorPtr(y->Size() > 0 ? y->clone() : nullptr) : std::move(old);
                if (!old || stride == 0) {
                    break;
                }
            }
            if (old && y->Size() > 0) {
                const std::vector<Value> before = numbers_of(old.get());
                matmul_into(a.get(), c.ta, b.get(), c.tb, old.get(), true);
                std::vector<Value> sums = expected;
                for (std::size_t i = 0; i < sums.size(); ++i) {
                    sums[i] = sums[i] + before[i];
                    sums[i].real = dtype == 0 && sums[i].real > 0 ? 1 : sums[i].real;
                }
                ASSERT_TRUE(equal_numbers(numbers_of(old.get()), sums)) << round << " " << c.name();
                matmul_into(a.get(), c.ta, b.get(), c.tb, old.get());
                ASSERT_TRUE(equal_numbers(numbers_of(old.get()), expected)) << round << " " << c.name();
            }
        }

        // Linear in each operand: the gradient is the adjoint.
        if (dtype >= dtype::float32 && types[0] == types[1]) {
            const TensorPtr g = whole_numbers(y->Shape(), dtype, random);
            const TensorPtr da(matmul_grad_a(g.get(), b.get(), c.a, c.ta, c.tb));
            const TensorPtr db(matmul_grad_b(g.get(), a.get(), c.b, c.ta, c.tb));
            ASSERT_TRUE(da->Shape() == c.a && db->Shape() == c.b);
            const auto inner = [](const Tensor* s, const Tensor* t) {
                return s->Size() == 0 ? 0.0 : weighted_sum(s, t);
            };
            const double whole = inner(y.get(), g.get());
            ASSERT_EQ(inner(da.get(), a.get()), whole) << round << " " << c.name();
            ASSERT_EQ(inner(db.get(), b.get()), whole) << round << " " << c.name();
            if (numel_of(c.a) > 0 && numel_of(c.b) > 0) {
                for (const bool for_a : {true, false}) {
                    const Tensor* d = for_a ? da.get() : db.get();
                    const TensorPtr sum = make_empty(d->Shape(), dtype, all_layouts[random() % 5]);
                    copy_tensor(d, sum.get());
                    for_a ? add_matmul_grad_a(sum.get(), g.get(), b.get(), c.ta, c.tb)
                          : add_matmul_grad_b(sum.get(), g.get(), a.get(), c.ta, c.tb);
                    const TensorPtr twice(TensorPtr(d->clone())->mult_scalar(2.0F));
                    ASSERT_TRUE(equal_numbers(numbers_of(sum.get()), numbers_of(twice.get()))) << round << c.name();
                }
            }
        }
    }
    EXPECT_GT(with_elements, 1500);
}

TEST(Matmul, HasTheBitsOfDotOnTheSameMatrices) {
    for (const std::int64_t dtype : {dtype::float32, dtype::float64, dtype::complex64}) {
        for (const Dims& size : {Dims{3, 17, 33}, Dims{1, 70, 5}, Dims{65, 130, 97}, Dims{40, 1, 9}, Dims{8, 300, 1}}) {
            for (int flags = 0; flags < 4; ++flags) {
                const int ta = flags & 1;
                const int tb = flags >> 1;
                const Dims shape_a = ta ? Dims{size[1], size[0]} : Dims{size[0], size[1]};
                const Dims shape_b = tb ? Dims{size[2], size[1]} : Dims{size[1], size[2]};
                const TensorPtr a = random_tensor(shape_a, dtype, 1);
                const TensorPtr b = random_tensor(shape_b, dtype, 2);
                const TensorPtr c(Tensor::empty({size[0], size[2]}, 0, dtype));
                Tensor::dot(a.get(), ta, b.get(), tb, c.get(), 0);
                EXPECT_EQ(bytes_of(TensorPtr(matmul(a.get(), b.get(), ta, tb))), bytes_of(c))
                    << shape_text(size) << flags;
                if (dtype != dtype::complex64) {
                    const TensorPtr da(Tensor::empty(shape_a, 0, dtype));
                    ta ? Tensor::dot(b.get(), tb, c.get(), 1, da.get(), 0)
                       : Tensor::dot(c.get(), 0, b.get(), 1 - tb, da.get(), 0);
                    EXPECT_EQ(bytes_of(TensorPtr(matmul_grad_a(c.get(), b.get(), shape_a, ta, tb))), bytes_of(da));
                }
                // A transposed view stands for the flag; a batch on the left is one tall matrix.
                const TensorPtr view(b->transpose());
                const TensorPtr tall(TensorPtr(view_tensor(a.get(), {1, shape_a[0], shape_a[1]})));
                const TensorPtr y(matmul(tall.get(), view.get(), ta, 1 - tb));
                EXPECT_EQ(bytes_of(y), bytes_of(c)) << shape_text(size) << flags;
            }
        }
    }
    const TensorPtr x = random_tensor({6, 20, 30}, dtype::float32, 3);
    const TensorPtr w = random_tensor({30, 50}, dtype::float32, 4);
    const TensorPtr g = random_tensor({6, 20, 50}, dtype::float32, 5);
    const TensorPtr flat_x(view_tensor(x.get(), {120, 30}));
    const TensorPtr flat_g(view_tensor(g.get(), {120, 50}));
    const TensorPtr y(Tensor::empty({120, 50}, 0, dtype::float32));
    const TensorPtr dw(Tensor::empty({30, 50}, 0, dtype::float32));
    Tensor::dot(flat_x.get(), 0, w.get(), 0, y.get(), 0);
    Tensor::dot(flat_x.get(), 1, flat_g.get(), 0, dw.get(), 0);
    EXPECT_EQ(bytes_of(TensorPtr(matmul(x.get(), w.get()))), bytes_of(y));
    EXPECT_EQ(bytes_of(TensorPtr(matmul_grad_b(g.get(), x.get(), w->Shape()))), bytes_of(dw));
    const TensorPtr many = random_tensor({5, 1, 33, 40}, dtype::float32, 6, Layout::transposed);
    const TensorPtr others = random_tensor({7, 40, 70}, dtype::float32, 7, Layout::every_other);
    expect_same_bits([&] { return matmul(many.get(), others.get()); });
}

TEST(Matmul, TheOutputMayShareMemoryWithOperands) {
    const std::vector<std::int32_t> x = counted<std::int32_t>(18, -8);
    const TensorPtr batch = make<std::int32_t>({2, 3, 3}, x);
    const TensorPtr expected(matmul(batch.get(), batch.get(), 0, 1));
    const TensorPtr turned(batch->permute({0, 2, 1}));
    const TensorPtr other = make<std::int32_t>({2, 3, 3}, x);
    matmul_into(batch.get(), 0, batch.get(), 1, turned.get());
    EXPECT_EQ(values_of<std::int32_t>(turned), values_of<std::int32_t>(expected));
    matmul_into(other.get(), 0, other.get(), 1, other.get());
    EXPECT_EQ(values_of<std::int32_t>(other), values_of<std::int32_t>(expected));
}

TEST(SumToShape, AgainstLoops) {
    struct Row {
        Dims from;
        Dims to;
    };
    for (const Row& row : {Row{{2, 3, 4}, {2, 3, 4}},
                           {{2, 3, 4}, {3, 1}},
                           {{2, 3, 4}, {}},
                           {{2, 3, 4}, {2, 1, 4}},
                           {{1, 1, 3}, {3}},
                           {{}, {}},
                           {{0, 3}, {1, 3}},
                           {{0, 3}, {3}},
                           {{2, 0}, {0}},
                           {{2, 0}, {}}}) {
        for_types(TypeList<bool, std::uint8_t, std::int64_t, float, Complex<float>>{}, [&]<typename T>() {
            for (const Layout layout : all_layouts) {
                const bool is_empty = numel_of(row.from) == 0;
                const TensorPtr x = is_empty ? make_empty(row.from, dtype_code<T>)
                                             : make<T>(row.from, counted<T>(numel_of(row.from), 1), layout);
                const TensorPtr y(sum_to_shape(x.get(), row.to));
                std::vector<Value> expected(static_cast<std::size_t>(numel_of(row.to)), Value{0, 0});
                const std::vector<Value> all = numbers_of(x.get());
                // A tensor of the flat positions, shown under the larger shape, says where each element goes.
                TensorPtr flat = make_empty(row.to, dtype::int64);
                std::iota(static_cast<std::int64_t*>(flat->getRawData()),
                          static_cast<std::int64_t*>(flat->getRawData()) + flat->Size(), 0);
                const TensorPtr targets(Tensor::broadcast_to(flat.get(), row.from));
                const auto places = values_of<std::int64_t>(targets);
                for (std::size_t i = 0; i < all.size(); ++i) {
                    Value& sum = expected[static_cast<std::size_t>(places[i])];
                    sum = sum + all[i];
                    sum.real = dtype_code<T> == dtype::boolean && sum.real > 0 ? 1 : sum.real;
                    sum.real -= dtype_code<T> == dtype::uint8 && sum.real > 255 ? 256 : 0;
                }
                EXPECT_EQ(y->Shape(), row.to);
                EXPECT_EQ(y->Dtype(), x->Dtype());
                EXPECT_TRUE(equal_numbers(numbers_of(y.get()), expected)) << shape_text(row.from) << shape_text(row.to);
            }
        });
    }
    const TensorPtr x(Tensor::ones({2, 3}, 0, dtype::float32));
    EXPECT_EQ(TensorPtr(sum_to_shape(x.get(), {2, 3}))->getRawData(), x->getRawData());
    EXPECT_THROW(sum_to_shape(x.get(), {2}), std::runtime_error);
    EXPECT_THROW(sum_to_shape(x.get(), {1, 2, 3}), std::runtime_error);
}

}  // namespace
}  // namespace ornik::test
