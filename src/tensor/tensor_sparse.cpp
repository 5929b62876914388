// tensor_sparse.cpp: making, converting and multiplying sparse matrices.
#include "tensor/tensor_sparse.h"

#include "hardware/cpu/copy/cpu_core.h"
#include "sparse_checks.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"
#include "tensor/sparse_parts.h"

namespace ornik {

namespace {

std::unique_ptr<Tensor> copy_of(const Tensor* t, std::int64_t dtype) {
    std::unique_ptr<Tensor> result = make_tensor(t->Shape(), dtype);
    device::cpu::copy(t, result.get());
    return result;
}

Tensor* from_components(const Where& at, std::int64_t layout, Tensor* index, Tensor* columns, Tensor* values,
                        const Dims& shape) {
    check_sparse_form(at, layout, shape, {index, columns, values});
    for (const Tensor* t : {index, columns}) {
        if (!is_dtype_class(t->Dtype(), DtypeClass::integral)) {
            fail(ErrorKind::dtype, at, "Indices of a sparse tensor should be of an integer dtype, however they are ",
                 dtype_name(t->Dtype()));
        }
    }
    std::vector<std::unique_ptr<Tensor>> members;
    members.push_back(copy_of(index, dtype::int64));
    members.push_back(copy_of(columns, dtype::int64));
    check_sparse_entries(at, layout, shape, members[0].get(), members[1].get());
    members.push_back(copy_of(values, values->Dtype()));
    auto result = std::make_unique<Tensor>();
    result->init_sparse_tensor(shape, values->Dtype(), device_cpu, layout, std::move(members));
    return result.release();
}

// The elements of `t` as a sparse matrix of the layout.
std::unique_ptr<Tensor> to_sparse(const Where& at, Tensor* t, std::int64_t layout) {
    check_given(at, t);
    if (!t->isCPU()) {
        refuse_gpu();
    }
    if (!t->is_dense()) {
        const SparseParts parts(at, t);
        return assemble_sparse(layout, t->Shape(), parts.rows().offsets, copy_of(parts.columns(), dtype::int64),
                               copy_of(parts.values(), t->Dtype()));
    }
    if (t->ndim() != 2) {
        fail(at, "Only 2D tensors have a sparse layout, however the shape is ", t->Shape());
    }
    const Borrowed dense = Borrowed::contiguous(t);
    std::vector<std::int64_t> offsets(static_cast<std::size_t>(t->Shape()[0] + 1));
    device::cpu::count_entries(dense.get(), offsets.data());
    std::unique_ptr<Tensor> columns = make_tensor({offsets.back()}, dtype::int64);
    std::unique_ptr<Tensor> values = make_tensor({offsets.back()}, t->Dtype());
    device::cpu::gather_entries(dense.get(), offsets.data(), static_cast<std::int64_t*>(columns->getRawData()),
                                values.get());
    return assemble_sparse(layout, t->Shape(), offsets.data(), std::move(columns), std::move(values));
}

// What a sparse factor and a dense one, or a gradient, have in common.
void check_product(const Where& at, const Tensor* sparse, const Tensor* dense) {
    check_given(at, sparse, dense);
    if (dense->Device() != sparse->Device()) {
        fail(ErrorKind::device, at, "Not same device for sparse_dot()");
    }
    if (dense->Dtype() != sparse->Dtype()) {
        fail(ErrorKind::dtype, at, "Not same data type for sparse_dot()");
    }
    if (!sparse->isCPU()) {
        refuse_gpu();
    }
    if (sparse->is_dense() || !dense->is_dense()) {
        fail(at, "sparse_dot() supports a coo or csr layout times a dense layout.");
    }
}

void check_shape(const Where& at, const char* name, const Tensor* t, const Dims& wildcard) {
    bool fits = t->Shape().size() == wildcard.size();
    for (std::size_t i = 0; fits && i < wildcard.size(); ++i) {
        fits = wildcard[i] < 0 || t->Shape()[i] == wildcard[i];
    }
    if (!fits) {
        fail(at, "Incompatible dims for sparse_dot(), ", name, " has a shape of ", t->Shape(), "instead of ", wildcard,
             "(-1: any)");
    }
}

}  // namespace

Tensor* sparse_coo_tensor(Tensor* rows, Tensor* columns, Tensor* values, const Dims& shape) {
    return from_components(where("ornik::sparse_coo_tensor"), layout::coo, rows, columns, values, shape);
}

Tensor* sparse_csr_tensor(Tensor* row_offsets, Tensor* columns, Tensor* values, const Dims& shape) {
    return from_components(where("ornik::sparse_csr_tensor"), layout::csr, row_offsets, columns, values, shape);
}

Tensor* to_coo(Tensor* t) { return to_sparse(where("ornik::to_coo"), t, layout::coo).release(); }

Tensor* to_csr(Tensor* t) { return to_sparse(where("ornik::to_csr"), t, layout::csr).release(); }

Tensor* to_dense(Tensor* t) {
    const Where at = where("ornik::to_dense");
    check_given(at, t);
    if (!t->isCPU()) {
        refuse_gpu();
    }
    if (t->is_dense()) {
        check_operands(at, t);
        return copy_of(t, t->Dtype()).release();
    }
    return dense_from_sparse(at, t).release();
}

Tensor* sparse_dot(Tensor* sparse, Tensor* dense) {
    const Where at = where("ornik::sparse_dot");
    check_product(at, sparse, dense);
    const SparseParts parts(at, sparse);
    check_shape(at, "dense", dense, {sparse->Shape()[1], -1});
    const Borrowed factor = Borrowed::contiguous(dense);
    std::unique_ptr<Tensor> result = make_tensor({sparse->Shape()[0], dense->Shape()[1]}, sparse->Dtype());
    device::cpu::sparse_product(parts.rows(), factor.get(), result.get());
    return result.release();
}

Tensor* sparse_dot_grad_sparse(Tensor* grad, Tensor* sparse, Tensor* dense) {
    const Where at = where("ornik::sparse_dot_grad_sparse");
    check_product(at, sparse, dense);
    check_product(at, sparse, grad);
    const SparseParts parts(at, sparse);
    check_shape(at, "dense", dense, {sparse->Shape()[1], -1});
    check_shape(at, "grad", grad, {sparse->Shape()[0], dense->Shape()[1]});
    const Borrowed gradient = Borrowed::contiguous(grad);
    const Borrowed factor = Borrowed::contiguous(dense);
    std::unique_ptr<Tensor> values = make_tensor(parts.values()->Shape(), sparse->Dtype());
    device::cpu::sparse_sampled_product(parts.rows(), gradient.get(), factor.get(), values.get());
    return assemble_sparse(sparse->Layout(), sparse->Shape(), parts.rows().offsets,
                           copy_of(parts.columns(), dtype::int64), std::move(values))
        .release();
}

Tensor* sparse_dot_grad_dense(Tensor* grad, Tensor* sparse) {
    const Where at = where("ornik::sparse_dot_grad_dense");
    check_product(at, sparse, grad);
    const SparseParts parts(at, sparse);
    check_shape(at, "grad", grad, {sparse->Shape()[0], -1});
    const Borrowed gradient = Borrowed::contiguous(grad);
    std::unique_ptr<Tensor> result = make_tensor({sparse->Shape()[1], grad->Shape()[1]}, sparse->Dtype());
    device::cpu::sparse_adjoint_product(parts.rows(), gradient.get(), result.get());
    return result.release();
}

}  // namespace ornik
