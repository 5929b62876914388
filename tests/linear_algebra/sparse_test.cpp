// CSR and COO matrices: their components, conversions, products, kron, and the refusal of malformed ones.
#include "matrices.h"
#include "support/expect_error.h"
#include "tensor/tensor_math/linear_algebra.h"

namespace ornik::test {
namespace {

using Indices = std::vector<std::int64_t>;
constexpr const char* file = "src/tensor/tensor_sparse.cpp";

template <typename T>
std::vector<T> member(const TensorPtr& sparse, std::size_t i) {
    return values_of<T>(sparse->get_csr_members().at(i));
}

TEST(Sparse, ConversionsKeepTheElementsThatAreNotZero) {
    const auto check = []<typename T>(const Dims& shape, Layout layout) {
        SCOPED_TRACE(dtype_name(dtype_code<T>) + " " + name_of(layout) + " " + shape_text(shape));
        const std::vector<T> all = gappy<T>(shape, -4);
        Indices offsets(1), rows, columns;
        std::vector<T> values;
        for (std::int64_t i = 0; i < numel_of(shape); ++i) {
            if (const T value = all[at(0, i, 0)]; !(value == T())) {
                rows.push_back(i / shape[1]);
                columns.push_back(i % shape[1]);
                values.push_back(value);
            }
            if (i % shape[1] == shape[1] - 1) {
                offsets.push_back(static_cast<std::int64_t>(rows.size()));
            }
        }
        const auto expect = [&](Tensor* sparse, std::int64_t layout_code) {
            const TensorPtr t(sparse);
            EXPECT_EQ(t->Layout(), layout_code);
            EXPECT_EQ(t->get_storage_type(), layout_code);
            EXPECT_EQ(member<std::int64_t>(t, 0), layout_code == layout::csr ? offsets : rows);
            EXPECT_EQ(member<std::int64_t>(t, 1), columns);
            EXPECT_TRUE(same(member<T>(t, 2), values));
            EXPECT_EQ(t->Shape(), shape);
            EXPECT_TRUE(same(elements_of<T>(t), all));
        };
        const TensorPtr dense = make<T>(shape, all, layout);
        const TensorPtr csr(to_csr(dense.get())), coo(to_coo(dense.get()));
        expect(csr->CPU(0), layout::csr);
        expect(coo->CPU(0), layout::coo);
        expect(to_csr(coo.get()), layout::csr);
        expect(to_coo(csr.get()), layout::coo);
    };
    for (const Layout layout : all_layouts) {
        for_types(AllTypes{}, [&]<typename T>() {
            check.template operator()<T>({5, 7}, layout);
            check.template operator()<T>({3, 1}, layout);
        });
    }
}

TEST(Sparse, ProductAndGradients) {
    constexpr std::int64_t m = 5, k = 4, n = 3;
    for_types(AllTypes{}, []<typename T>() {
        const std::vector<T> a = gappy<T>({m, k}, 1);
        const std::vector<T> b = counted<T>(k * n, -5), g = counted<T>(m * n, -2);
        std::vector<T> product(g.size()), grad_a(a.size()), grad_b(b.size());
        for (std::int64_t i = 0; i < m * k * n; ++i) {
            const std::size_t in_a = at(0, i / n, 0), in_b = at(i / n % k, i % n, n), in_g = at(i / n / k, i % n, n);
            add_product<T>(product, in_g, a[in_a], b[in_b], false);
            add_product<T>(grad_b, in_b, g[in_g], a[in_a], true);
            add_product<T>(grad_a, in_a, a[in_a] == T() ? T() : g[in_g], b[in_b], true);
        }
        for (const Layout layout : all_layouts) {
            SCOPED_TRACE(dtype_name(dtype_code<T>) + " " + name_of(layout));
            const TensorPtr x = make<T>({m, k}, a), y = make<T>({k, n}, b, layout);
            const TensorPtr grad = make<T>({m, n}, g, layout);
            for (const auto convert : {to_csr, to_coo}) {
                const TensorPtr sparse(convert(x.get()));
                EXPECT_TRUE(same(values_of<T>(TensorPtr(sparse_dot(sparse.get(), y.get()))), product));
                EXPECT_TRUE(
                    same(values_of<T>(TensorPtr(sparse_dot_dy_grad(sparse.get(), y.get(), grad.get()))), grad_b));
                const TensorPtr at_entries(sparse_dot_dx_grad(sparse.get(), y.get(), grad.get()));
                EXPECT_EQ(at_entries->Layout(), sparse->Layout());
                EXPECT_EQ(member<std::int64_t>(at_entries, 1), member<std::int64_t>(sparse, 1));
                EXPECT_TRUE(same(elements_of<T>(at_entries), grad_a));
            }
        }
    });
}

// For every mixture of dense and COO operands.
TEST(Kron, ProductAndGradientsInEveryLayoutAndType) {
    constexpr std::int64_t m = 5, n = 3, p = 2, q = 4;
    for_types(AllTypes{}, []<typename T>() {
        const std::vector<T> a = gappy<T>({m, n}, 1), b = gappy<T>({p, q}, -3), g = gappy<T>({m * p, n * q}, 2);
        std::vector<T> product(g.size()), grad_a(a.size()), grad_b(b.size());
        for (std::int64_t row = 0; row < m * p; ++row) {
            for (std::int64_t col = 0; col < n * q; ++col) {
                const std::size_t in_a = at(row / p, col / q, n), in_b = at(row % p, col % q, q);
                const std::size_t in_g = at(row, col, n * q);
                add_product<T>(product, in_g, a[in_a], b[in_b], false);
                add_product<T>(grad_a, in_a, g[in_g], b[in_b], true);
                add_product<T>(grad_b, in_b, g[in_g], a[in_a], true);
            }
        }
        for (int layouts = 0; layouts < 8; ++layouts) {
            const auto operand = [&](const Dims& shape, const std::vector<T>& values, int bit) {
                TensorPtr t = make<T>(shape, values, all_layouts[(layouts + bit) % 5]);
                return (layouts >> bit & 1) != 0 ? TensorPtr(to_coo(t.get())) : std::move(t);
            };
            const TensorPtr x = operand({m, n}, a, 0), y = operand({p, q}, b, 1);
            const TensorPtr grad = operand({m * p, n * q}, g, 2);
            const TensorPtr result(kron(x.get(), y.get())), grad_x(kron_dx_grad(x.get(), y.get(), grad.get()));
            const TensorPtr grad_y(kron_dy_grad(x.get(), y.get(), grad.get()));
            SCOPED_TRACE(dtype_name(dtype_code<T>) + " " + std::to_string(layouts));
            EXPECT_EQ(result->is_coo(), x->is_coo() && y->is_coo());
            EXPECT_EQ(grad_x->Layout(), x->Layout());
            EXPECT_EQ(grad_y->Layout(), y->Layout());
            EXPECT_TRUE(same(elements_of<T>(result), product));
            EXPECT_TRUE(same(elements_of<T>(grad_x), grad_a));
            EXPECT_TRUE(same(elements_of<T>(grad_y), grad_b));
        }
    });
}

TEST(Sparse, HasCopiesOfItsComponentsAndNoStorage) {
    const TensorPtr rows = make<std::uint8_t>({3}, {0, 1, 1}, Layout::reversed);
    const TensorPtr offsets = make<std::int16_t>({3}, {0, 1, 3}, Layout::every_other);
    const TensorPtr columns = make<std::int32_t>({3}, {2, 0, 1}, Layout::every_other);
    const TensorPtr values = make<float>({3}, {5, 0, 7}, Layout::reversed);
    for (const bool csr : {false, true}) {
        const TensorPtr t(csr ? sparse_csr_tensor(offsets.get(), columns.get(), values.get(), {2, 3})
                              : sparse_coo_tensor(rows.get(), columns.get(), values.get(), {2, 3}));
        EXPECT_EQ(elements_of<float>(t), (std::vector<float>{0, 0, 5, 0, 7, 0}));
        EXPECT_EQ(member<float>(t, 2), (std::vector<float>{5, 0, 7})) << "a zero that was given is an entry";
        EXPECT_NE(t->get_csr_members()[2]->getStorage(), values->getStorage());
        expect_error([&] { t->contiguous(); }, std::string("A->is_") + (csr ? "csr" : "coo") + "() && B->is_dense().",
                     "ornik::copy_tensor", "src/tensor/tensor_core.cpp");
        expect_error([&] { t->fill_(1); }, "Not dense layout of an operand for MultiTensorIterationHelper.",
                     "ornik::MultiTensorIterationHelper::build", "src/descriptors/tensoriterator.cpp");
        EXPECT_EQ(error_text([&] { t->GPU(1000); }), "Not compiled for GPU, set device = 0 or device = None");
    }
    const TensorPtr zeros = make<double>({2, 3}, std::vector<double>(6));
    for (const Dims& shape : {Dims{2, 3}, Dims{0, 3}}) {
        const TensorPtr dense(share_storage_tensor(zeros->getStorage(), shape, {3, 1}, dtype::float64, 0));
        const TensorPtr coo(TensorPtr(TensorPtr(to_csr(dense.get()))->CPU(0)));
        EXPECT_EQ(coo->get_csr_members()[2]->Size(), 0);
        EXPECT_EQ(elements_of<double>(coo), values_of<double>(dense));
        const TensorPtr product(sparse_dot(coo.get(), make<double>({3, 2}, counted<double>(6)).get()));
        EXPECT_EQ(values_of<double>(product), std::vector<double>(at(shape[0], 0, 2)));
    }
}

TEST(Sparse, MalformedComponentsAreRefused) {
    struct Case {
        std::int64_t layout;
        Indices index, columns;
        std::string message;
    };
    const std::string range = ", out of range for shape ( 2, 3 ) ";
    const std::string of = " of a sparse tensor is ";
    const std::string sorted = "not behind the one before it: entries should be sorted, without duplicates.";
    const std::string lengths = "Components of a sparse tensor of shape ( 2, 3 ) have wrong lengths: ";
    const std::string offsets = "Row offsets of a sparse tensor should ";
    const Case cases[] = {
        {layout::coo, {0, 2}, {0, 1}, "Row of entry 1" + of + "2" + range},
        {layout::coo, {-1, 0}, {0, 1}, "Row of entry 0" + of + "-1" + range},
        {layout::coo, {0, 0}, {0, 3}, "Column of entry 1" + of + "3" + range},
        {layout::coo, {1, 0}, {0, 1}, "Entry 1" + of + sorted},
        {layout::coo, {1, 1}, {2, 2}, "Entry 1" + of + sorted},
        {layout::coo, {0, 1, 1}, {0, 1}, lengths + "rows 3, columns 2, values 2"},
        {layout::coo, {0, 1}, {0}, lengths + "rows 2, columns 1, values 2"},
        {layout::csr, {0, 2}, {0, 1}, lengths + "row offsets 2, columns 2, values 2"},
        {layout::csr, {1, 1, 2}, {0, 1}, offsets + "start with 0, however they start with 1"},
        {layout::csr, {0, 3, 2}, {0, 1}, "Row offset 2" + of + "2, below the one before it."},
        {layout::csr, {0, 1, 3}, {0, 1}, offsets + "end with the number of entries, 2, however they end with 3"},
        {layout::csr, {0, 1, 2}, {0, -1}, "Column of entry 1" + of + "-1" + range},
        {layout::csr, {0, 2, 2}, {1, 1}, "Entry 1" + of + sorted},
    };
    const TensorPtr factor = make<float>({3, 2}, counted<float>(6));
    const Dims two_by_three{2, 3};
    for (const Case& c : cases) {
        std::vector<TensorPtr> t;
        t.push_back(make<std::int64_t>({static_cast<std::int64_t>(c.index.size())}, c.index));
        t.push_back(make<std::int64_t>({static_cast<std::int64_t>(c.columns.size())}, c.columns));
        t.push_back(make<float>({2}, {1, 2}));
        const bool csr = c.layout == layout::csr;
        const auto create = csr ? sparse_csr_tensor : sparse_coo_tensor;
        expect_error([&] { create(t[0].get(), t[1].get(), t[2].get(), two_by_three); }, c.message,
                     csr ? "ornik::sparse_csr_tensor" : "ornik::sparse_coo_tensor", file);
        Tensor around;
        around.init_sparse_tensor(two_by_three, dtype::float32, 0, c.layout, std::move(t));
        expect_error([&] { sparse_dot(&around, factor.get()); }, c.message, "ornik::sparse_dot", file);
    }
}

}  // namespace
}  // namespace ornik::test
