// CSR and COO matrices: their components, conversions, products and the refusal of malformed ones.
#include "gappy.h"
#include "support/expect_error.h"

namespace ornik::test {
namespace {

using Indices = std::vector<std::int64_t>;

TEST(Sparse, ConversionsKeepTheElementsThatAreNotZero) {
    for_types(AllTypes{}, []<typename T>() {
        for (const Dims& shape : {Dims{5, 7}, Dims{1, 1}, Dims{3, 1}}) {
            const std::vector<T> all = gappy<T>(shape, -4);
            Indices offsets{0};
            Indices rows;
            Indices columns;
            std::vector<T> values;
            for (std::int64_t i = 0; i < shape[0]; ++i) {
                for (std::int64_t j = 0; j < shape[1]; ++j) {
                    if (const T value = all[at(i, j, shape[1])]; !(value == T())) {
                        rows.push_back(i);
                        columns.push_back(j);
                        values.push_back(value);
                    }
                }
                offsets.push_back(static_cast<std::int64_t>(rows.size()));
            }
            const auto check = [&](const TensorPtr& t, std::int64_t layout_code) {
                EXPECT_EQ(t->Layout(), layout_code);
                EXPECT_EQ(t->get_storage_type(), layout_code);
                EXPECT_EQ(t->Shape(), shape);
                EXPECT_EQ(t->Dtype(), dtype_code<T>);
                EXPECT_EQ(member<std::int64_t>(t, 0), layout_code == layout::csr ? offsets : rows);
                EXPECT_EQ(member<std::int64_t>(t, 1), columns);
                EXPECT_TRUE(same(member<T>(t, 2), values));
                EXPECT_TRUE(same(elements_of<T>(t), all));
            };
            for (const Layout layout : all_layouts) {
                SCOPED_TRACE(dtype_name(dtype_code<T>) + " " + name_of(layout) + " " + shape_text(shape));
                const TensorPtr dense = make<T>(shape, all, layout);
                const TensorPtr csr(to_csr(dense.get()));
                const TensorPtr coo(to_coo(dense.get()));
                check(csr, layout::csr);
                check(coo, layout::coo);
                check(TensorPtr(to_csr(coo.get())), layout::csr);
                check(TensorPtr(to_coo(csr.get())), layout::coo);
                check(TensorPtr(csr->CPU(0)), layout::csr);
                check(TensorPtr(coo->CPU(0)), layout::coo);
            }
        }
    });
}

TEST(Sparse, ProductAndGradients) {
    constexpr std::int64_t m = 5, k = 4, n = 3;
    for_types(AllTypes{}, []<typename T>() {
        const std::vector<T> a = gappy<T>({m, k}, 1);
        const std::vector<T> b = counted<T>(k * n, -5);
        const std::vector<T> g = counted<T>(m * n, -2);
        std::vector<T> product(g.size());
        std::vector<T> grad_a(a.size());
        std::vector<T> grad_b(b.size());
        for (std::int64_t i = 0; i < m; ++i) {
            for (std::int64_t j = 0; j < k; ++j) {
                for (std::int64_t l = 0; l < n; ++l) {
                    const T factor = a[at(i, j, k)];
                    product[at(i, l, n)] = plus_product<T>(product[at(i, l, n)], factor, b[at(j, l, n)], false);
                    grad_b[at(j, l, n)] = plus_product<T>(grad_b[at(j, l, n)], g[at(i, l, n)], factor, true);
                    if (!(factor == T())) {
                        grad_a[at(i, j, k)] =
                            plus_product<T>(grad_a[at(i, j, k)], g[at(i, l, n)], b[at(j, l, n)], true);
                    }
                }
            }
        }
        for (const Layout layout : all_layouts) {
            const TensorPtr x = make<T>({m, k}, a);
            const TensorPtr y = make<T>({k, n}, b, layout);
            const TensorPtr grad = make<T>({m, n}, g, layout);
            for (const TensorPtr& sparse : {TensorPtr(to_csr(x.get())), TensorPtr(to_coo(x.get()))}) {
                SCOPED_TRACE(dtype_name(dtype_code<T>) + " " + name_of(layout));
                EXPECT_TRUE(same(values_of<T>(TensorPtr(sparse_dot(sparse.get(), y.get()))), product));
                EXPECT_TRUE(same(values_of<T>(TensorPtr(sparse_dot_grad_dense(grad.get(), sparse.get()))), grad_b));
                const TensorPtr at_entries(sparse_dot_grad_sparse(grad.get(), sparse.get(), y.get()));
                EXPECT_EQ(at_entries->Layout(), sparse->Layout());
                EXPECT_EQ(member<std::int64_t>(at_entries, 1), member<std::int64_t>(sparse, 1));
                EXPECT_TRUE(same(elements_of<T>(at_entries), grad_a));
            }
        }
    });
}

TEST(Sparse, ComponentsAreCopiedFromAnyLayout) {
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
        const std::string name = csr ? "csr" : "coo";
        expect_error([&] { delete t->clone(); }, "A->is_" + name + "() && B->is_dense().", "ornik::copy_tensor",
                     "src/tensor/tensor_core.cpp");
        expect_error([&] { t->add_scalar_inplace(1.0F); },
                     "Not dense layout of an operand for MultiTensorIterationHelper.",
                     "ornik::MultiTensorIterationHelper::build", "src/descriptors/tensoriterator.cpp");
        EXPECT_EQ(error_text([&] { t->GPU(1000); }), "Not compiled for GPU, set device = 0 or device = None");
    }
}

TEST(Sparse, WithoutEntries) {
    const TensorPtr zeros = make<double>({2, 3}, std::vector<double>(6));
    const TensorPtr none(view_tensor(zeros->getStorage(), {0, 3}, {3, 1}, 0, dtype::float64, 0));
    for (const TensorPtr& dense : {std::cref(zeros), std::cref(none)}) {
        const TensorPtr csr(to_csr(dense.get()));
        const TensorPtr copy(csr->CPU(0));
        const TensorPtr coo(to_coo(copy.get()));
        EXPECT_EQ(coo->get_csr_members()[2]->Size(), 0);
        EXPECT_EQ(elements_of<double>(coo), values_of<double>(dense));
        const TensorPtr product(sparse_dot(csr.get(), make<double>({3, 2}, counted<double>(6)).get()));
        EXPECT_EQ(values_of<double>(product), std::vector<double>(static_cast<std::size_t>(dense->Shape()[0] * 2)));
    }
}

TEST(Sparse, MalformedComponentsAreRefused) {
    struct Case {
        std::int64_t layout;
        Indices index, columns;
        std::string message;
    };
    const std::string sorted =
        " of a sparse tensor is not behind the one before it: entries should be sorted, without duplicates.";
    const std::string lengths = "Components of a sparse tensor of shape ( 2, 3 ) have wrong lengths: ";
    const Case cases[] = {
        {layout::coo, {0, 2}, {0, 1}, "Row of entry 1 of a sparse tensor is 2, out of range for shape ( 2, 3 ) "},
        {layout::coo, {-1, 0}, {0, 1}, "Row of entry 0 of a sparse tensor is -1, out of range for shape ( 2, 3 ) "},
        {layout::coo, {0, 0}, {0, 3}, "Column of entry 1 of a sparse tensor is 3, out of range for shape ( 2, 3 ) "},
        {layout::coo, {1, 0}, {0, 1}, "Entry 1" + sorted},
        {layout::coo, {1, 1}, {2, 2}, "Entry 1" + sorted},
        {layout::coo, {0, 1, 1}, {0, 1}, lengths + "rows 3, columns 2, values 2"},
        {layout::coo, {0, 1}, {0}, lengths + "rows 2, columns 1, values 2"},
        {layout::csr, {0, 2}, {0, 1}, lengths + "row offsets 2, columns 2, values 2"},
        {layout::csr,
         {1, 1, 2},
         {0, 1},
         "Row offsets of a sparse tensor should start with 0, however they start with 1"},
        {layout::csr, {0, 3, 2}, {0, 1}, "Row offset 2 of a sparse tensor is 2, below the one before it."},
        {layout::csr,
         {0, 1, 3},
         {0, 1},
         "Row offsets of a sparse tensor should end with the number of entries, 2, however they end with 3"},
        {layout::csr,
         {0, 1, 2},
         {0, -1},
         "Column of entry 1 of a sparse tensor is -1, out of range for shape ( 2, 3 ) "},
        {layout::csr, {0, 2, 2}, {1, 1}, "Entry 1" + sorted},
    };
    const char* const file = "src/tensor/tensor_sparse.cpp";
    const TensorPtr factor = make<float>({3, 2}, counted<float>(6));
    for (const Case& c : cases) {
        const bool csr = c.layout == layout::csr;
        const auto components = [&] {
            std::vector<TensorPtr> list;
            list.push_back(make<std::int64_t>({static_cast<std::int64_t>(c.index.size())}, c.index));
            list.push_back(make<std::int64_t>({static_cast<std::int64_t>(c.columns.size())}, c.columns));
            list.push_back(make<float>({2}, {1, 2}));
            return list;
        };
        const std::vector<TensorPtr> t = components();
        const auto create = csr ? sparse_csr_tensor : sparse_coo_tensor;
        expect_error(
            [&] {
                create(t[0].get(), t[1].get(), t[2].get(), {2, 3});
            },
            c.message, csr ? "ornik::sparse_csr_tensor" : "ornik::sparse_coo_tensor", file);
        Tensor around;  // The same by way of set_csr_members.
        around.init_sparse_tensor({2, 3}, dtype::float32, 0, c.layout, components());
        expect_error([&] { sparse_dot(&around, factor.get()); }, c.message, "ornik::sparse_dot", file);
    }
    const TensorPtr index = make<std::int64_t>({2}, {0, 1});
    const TensorPtr real = make<float>({2}, {1, 2});
    const auto coo = [&](Tensor* rows, Tensor* values, const Dims& shape) {
        return [=] { sparse_coo_tensor(rows, rows, values, shape); };
    };
    const char* const name = "ornik::sparse_coo_tensor";
    expect_error(coo(real.get(), real.get(), {2, 2}),
                 "Indices of a sparse tensor should be of an integer dtype, however they are numpy.float32", name,
                 file);
    expect_error(coo(index.get(), nullptr, {2, 2}), "Component of a sparse tensor, values, is missing.", name, file);
    expect_error(coo(index.get(), factor.get(), {2, 2}),
                 "Component of a sparse tensor, values, should have 1 axis, however its shape is ( 3, 2 ) ", name,
                 file);
    expect_error(coo(index.get(), real.get(), {2}), "Sparse tensor needs a shape of 2 axes, however it is ( 2 ) ", name,
                 file);
    Tensor wrong;
    wrong.init_sparse_tensor({2, 2}, dtype::float32, 0, layout::csr, {});
    expect_error([&] { to_dense(&wrong); }, "Sparse tensor needs 3 component tensors, however it has 0",
                 "ornik::to_dense", file);
}

TEST(Sparse, ProductRefusals) {
    const char* const file = "src/tensor/tensor_sparse.cpp";
    const TensorPtr dense = make<float>({2, 2}, {1, 0, 0, 1});
    const TensorPtr csr(to_csr(dense.get()));
    const TensorPtr tall = make<float>({3, 2}, counted<float>(6));
    const TensorPtr wide = make<double>({2, 2}, counted<double>(4));
    const auto refused = [&](Tensor* a, Tensor* b, const std::string& message) {
        expect_error([&] { sparse_dot(a, b); }, message, "ornik::sparse_dot", file);
    };
    refused(csr.get(), wide.get(), "Not same data type for sparse_dot()");
    refused(dense.get(), dense.get(), "sparse_dot() supports a coo or csr layout times a dense layout.");
    refused(csr.get(), csr.get(), "sparse_dot() supports a coo or csr layout times a dense layout.");
    refused(csr.get(), tall.get(),
            "Incompatible dims for sparse_dot(), dense has a shape of ( 3, 2 ) instead of ( 2, -1 ) (-1: any)");
    expect_error(
        [&] {
            to_csr(make<float>({3}, {1, 2, 3}).get());
        },
        "Only 2D tensors have a sparse layout, however the shape is ( 3 ) ", "ornik::to_csr", file);
}

}  // namespace
}  // namespace ornik::test
