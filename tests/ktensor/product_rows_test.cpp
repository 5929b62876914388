// product_rows_test.cpp: gradients of products and decompositions.
#include "ktensor/products.h"
#include "ktensor/sparse.h"
#include "rows.h"

namespace ornik::gradcheck {

namespace {

KTensor product(const Tensors& x) { return matmul(x[0], x[1]); }

// Hermitian, with eigenvalues apart.
KTensor spread(const KTensor& x) {
    const KTensor steps = KTensor::arange(0, static_cast<double>(2 * x.size(-1)), 2, dtype::float64);
    const KTensor diagonal = where(equal(KTensor::eye(x.size(-1)), Scalar(1.0F)), steps, Scalar(0.0));
    return x + diagonal;
}

}  // namespace

std::vector<Row> product_rows() {
    return {
        {Op::matmul, {{2, 3}, {3, 4}}, product, true},
        {Op::matmul, {{2, 2, 3}, {3, 2}}, product, true, -1.5, 1.5, "shared right operand"},
        {Op::matmul, {{2, 1, 2, 3}, {3, 3, 2}}, product, true, -1.5, 1.5, "broadcast batches"},
        {Op::squeeze, {{3}, {2, 3, 2}}, product, true, -1.5, 1.5, "row"},
        {Op::squeeze, {{2, 2, 3}, {3}}, product, true, -1.5, 1.5, "column"},
        {Op::squeeze, {{3}, {3}}, [](const Tensors& x) { return dot(x[0], x[1]); }, true, -1.5, 1.5, "dot"},
        {Op::kron, {{2, 3}, {2, 2}}, [](const Tensors& x) { return kron(x[0], x[1]); }, true},
        {Op::sparse_dot,
         {{4}, {3, 2}},
         [](const Tensors& x) {
             return sparse_dot(SparseMatrix(KTensor({0, 2, 2, 4}), KTensor({0, 2, 0, 1}), x[0], {3, 3}), x[1]);
         },
         true},
        {Op::add,
         {{3, 2}},
         [](const Tensors& x) {
             const SparseMatrix m = SparseMatrix::from_dense(x[0]);
             return m.to_dense() + transpose(m.transpose().to_dense());
         },
         true,
         -1.5,
         1.5,
         "sparse and back"},
        // The lower triangle alone is read: a function of a full matrix is symmetrized before.
        {Op::eigvalsh, {{3, 3}}, [](const Tensors& x) { return eigvalsh(spread(x[0] + conj(transpose(x[0])))); }, true},
        {Op::eigh,
         {{2, 3, 3}},
         [](const Tensors& x) { return eigh(spread(x[0] + conj(transpose(x[0])))).values; },
         true},
        // Magnitudes of vectors do not depend on their phases.
        {Op::sqr,
         {{3, 3}},
         [](const Tensors& x) { return sqr(abs(eigh(spread(x[0] + conj(transpose(x[0])))).vectors)); },
         true,
         -1.5,
         1.5,
         "of eigenvectors"},
    };
}

TEST(Gradients, Products) { std::ranges::for_each(product_rows(), check); }

}  // namespace ornik::gradcheck
