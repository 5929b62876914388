// kron and its gradients against their sums, for every mixture of dense and COO operands.
#include "matrices.h"
#include "tensor/tensor_math/linear_algebra.h"

namespace ornik::test {
namespace {

constexpr std::int64_t m = 5, n = 3, p = 2, q = 4;

TEST(Kron, ProductAndGradientsInEveryLayoutAndType) {
    for_types(AllTypes{}, []<typename T>() {
        const std::vector<T> a = gappy<T>({m, n}, 1);
        const std::vector<T> b = gappy<T>({p, q}, -3);
        const std::vector<T> g = gappy<T>({m * p, n * q}, 2);
        std::vector<T> product(g.size());
        std::vector<T> grad_a(a.size());
        std::vector<T> grad_b(b.size());
        for (std::int64_t row = 0; row < m * p; ++row) {
            for (std::int64_t col = 0; col < n * q; ++col) {
                const std::size_t in_a = at(row / p, col / q, n);
                const std::size_t in_b = at(row % p, col % q, q);
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
            const TensorPtr x = operand({m, n}, a, 0);
            const TensorPtr y = operand({p, q}, b, 1);
            const TensorPtr grad = operand({m * p, n * q}, g, 2);
            const TensorPtr result(kron(x.get(), y.get()));
            const TensorPtr grad_x(kron_dx_grad(x.get(), y.get(), grad.get()));
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

}  // namespace
}  // namespace ornik::test
