// sparse.cpp: sparse matrices and their products.
#include "ktensor/sparse.h"

#include "ktensor/arithmetic.h"
#include "ktensor/indexing.h"
#include "ktensor/joins.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "tensor/tensor_sparse.h"
#include "utils/error.h"
#include "utils/utils.h"

namespace ornik {

using autograd::Backward;
using autograd::conj_of;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

// The library's own form of the matrix, which shares the components' memory.
std::unique_ptr<Tensor> csr_of(const KTensor& offsets, const KTensor& columns, const KTensor& values,
                               const Dims& shape) {
    std::vector<std::unique_ptr<Tensor>> members;
    for (const KTensor& part : {offsets, columns, values}) {
        const Tensor& t = *part.tensor();
        members.emplace_back(
            share_storage_tensor(t.getStorage(), t.Shape(), t.Strides(), t.Dtype(), t.StorageOffset()));
    }
    auto matrix = std::make_unique<Tensor>();
    matrix->init_sparse_tensor(shape, values.dtype(), device_cpu, layout::csr, std::move(members));
    return matrix;
}

// Row i of the entries that `offsets` divide among the rows.
KTensor rows_of(const KTensor& offsets) {
    return repeat_interleave(KTensor::arange(offsets.size() - 1), diff(offsets), 0);
}

KTensor offsets_of(const KTensor& rows, std::int64_t count) { return searchsorted(rows, KTensor::arange(count + 1)); }

void check_positions(const KTensor& positions) {
    if (positions.dtype() >= dtype::float32 || positions.dtype() == dtype::boolean || positions.ndim() != 1) {
        fail(ErrorKind::dtype, where("ornik::SparseMatrix"), "SparseMatrix(): positions are one axis of integers, not ",
             describe(positions), ".");
    }
}

}  // namespace

SparseMatrix::SparseMatrix(const KTensor& offsets, const KTensor& columns, const KTensor& values, const Dims& shape)
    : values_(values), shape_(shape) {
    autograd::check_defined("SparseMatrix", offsets, 0);
    autograd::check_defined("SparseMatrix", columns, 1);
    autograd::check_defined("SparseMatrix", values, 2);
    check_positions(offsets);
    check_positions(columns);
    // Copies: entries do not move.
    offsets_ = clone(astype(offsets, dtype::int64));
    columns_ = clone(astype(columns, dtype::int64));
    // Checks everything.
    const std::unique_ptr<Tensor> checked(
        sparse_csr_tensor(offsets_.tensor(), columns_.tensor(), values_.tensor(), shape));
}

SparseMatrix SparseMatrix::from_coordinates(const KTensor& rows, const KTensor& columns, const KTensor& values,
                                            const Dims& shape) {
    autograd::check_defined("SparseMatrix", rows, 0);
    autograd::check_defined("SparseMatrix", columns, 1);
    autograd::check_defined("SparseMatrix", values, 2);
    const std::unique_ptr<Tensor> checked(sparse_coo_tensor(rows.tensor(), columns.tensor(), values.tensor(), shape));
    return {offsets_of(astype(rows, dtype::int64), shape[0]), columns, values, shape};
}

SparseMatrix SparseMatrix::from_dense(const KTensor& x) {
    autograd::check_defined("SparseMatrix", x, 0);
    if (x.ndim() != 2) {
        fail(where("ornik::SparseMatrix"), "SparseMatrix(): ", describe(x), " is no matrix.");
    }
    const KTensor places = nonzero(x);
    const KTensor rows = contiguous(select(places, 1, 0));
    const KTensor columns = contiguous(select(places, 1, 1));
    return {offsets_of(rows, x.size(0)), columns, take(x, rows * Scalar(x.size(1)) + columns), x.shape()};
}

KTensor SparseMatrix::rows() const { return rows_of(offsets_); }

KTensor SparseMatrix::to_dense() const {
    const KTensor zeros = KTensor::zeros({shape_[0] * shape_[1]}, values_.dtype());
    return reshape(scatter(zeros, 0, rows() * Scalar(shape_[1]) + columns_, values_), shape_);
}

SparseMatrix SparseMatrix::transpose() const {
    const KTensor order = argsort(columns_);  // Stable: rows rise within a column.
    return {offsets_of(index_select(columns_, 0, order), shape_[1]),
            index_select(rows(), 0, order),
            index_select(values_, 0, order),
            {shape_[1], shape_[0]}};
}

KTensor sparse_dot(const SparseMatrix& sparse, const KTensor& dense) {
    autograd::check_defined("sparse_dot", dense, 1);
    const Dims& shape = sparse.shape();
    if (dense.ndim() != 2 || dense.size(0) != shape[1]) {
        fail(where("ornik::sparse_dot"), "sparse_dot(): there is no product of a sparse ",
             describe(shape, sparse.values().dtype()), " and ", describe(dense), ".");
    }
    const std::vector<KTensor> operands = autograd::promoted("sparse_dot", {sparse.values(), dense});
    const Recorder record(Op::sparse_dot, operands);
    const KTensor& values = operands[0];
    const KTensor& factor = operands[1];
    const KTensor& offsets = sparse.offsets();
    const KTensor& columns = sparse.columns();
    KTensor y = make_ktensor(ornik::sparse_dot(csr_of(offsets, columns, values, shape).get(), factor.tensor()));
    if (record.active()) {
        record.finish(
            y,
            {Recorder::own(offsets), Recorder::own(columns), record.operand_if(record.wants(1), 0),
             record.operand_if(record.wants(0), 1)},
            [shape](Backward& pass) {
                const KTensor places = pass.saved(0);
                const KTensor at = pass.saved(1);
                const KTensor& grad = pass.grad();
                const KTensor rows = pass.recorded() ? rows_of(places) : KTensor();
                if (pass.wants(0) && pass.recorded()) {
                    pass.give(0, sum(index_select(grad, 0, rows) * conj_of(index_select(pass.saved(3), 0, at)), {1}));
                } else if (pass.wants(0)) {
                    // The entries' values do not matter.
                    const auto entries = csr_of(places, at, KTensor::empty(pass.operand_shape(0), grad.dtype()), shape);
                    const std::unique_ptr<Tensor> slopes(
                        sparse_dot_grad_sparse(grad.tensor(), entries.get(), pass.saved_raw(3)));
                    pass.give(0, slopes->get_csr_members()[2]->clone());
                }
                if (pass.wants(1) && pass.recorded()) {
                    const KTensor terms = unsqueeze(conj_of(pass.saved(2)), 1) * index_select(grad, 0, rows);
                    const KTensor zeros = KTensor::zeros(pass.operand_shape(1), grad.dtype());
                    pass.give(1, index_add(zeros, 0, at, terms));
                } else if (pass.wants(1)) {
                    const auto matrix = csr_of(places, at, pass.saved(2), shape);
                    pass.give(1, sparse_dot_grad_dense(grad.tensor(), matrix.get()));
                }
            });
    }
    return y;
}

}  // namespace ornik
