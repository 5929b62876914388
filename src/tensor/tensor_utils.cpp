// tensor_utils.cpp: the strict axis rule, and the front ends of the eigen-decomposition.
#include "hardware/cpu/linear_algebra/cpu_eigh.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"
#include "tensor/tensor_math/linear_algebra.h"
#include "utils/utils.h"

namespace ornik {

int maybe_warp_dim(int dim, int dim_post_expr) {
    if (dim_post_expr <= 0) {
        fail(where("ornik::maybe_warp_dim"), "dim_post_expr should more than zero");
    }
    if (dim < -dim_post_expr || dim > dim_post_expr - 1) {
        fail(ErrorKind::index, where("ornik::maybe_warp_dim"), "if input negative dim or axis,dim should larger than ",
             -dim_post_expr, " and smaller than ", dim_post_expr - 1);
    }
    return dim < 0 ? dim + dim_post_expr : dim;
}

namespace {

std::int64_t real_dtype(std::int64_t dtype) {
    return dtype == dtype::float32 || dtype == dtype::complex64 ? dtype::float32 : dtype::float64;
}

Dims values_shape(const Tensor* x) { return {x->Shape().begin(), x->Shape().end() - 1}; }

// Everything that can be refused without looking at elements.
void check_matrices(const Where& at, const char* name, const Tensor* x) {
    check_given(at, x);
    if (x->Dtype() < dtype::float32) {
        fail(ErrorKind::dtype, at, "'", name, "' only supports float or complex.");
    }
    if (x->ndim() != 2 && x->ndim() != 3) {
        fail(at, name, " need input of 2-dim or 3-dim.");
    }
    if (x->Shape()[x->Shape().size() - 2] != x->Shape().back()) {
        fail(at, name, " need square matrices, however the input's shape is ", x->Shape());
    }
    if (!x->isCPU()) {
        refuse_gpu();
    }
    if (!x->is_dense()) {
        fail(at, name, " need a dense input.");
    }
}

void check_finite(const Where& at, const char* name, const Tensor* x) {
    const std::int64_t index = device::cpu::cpu_first_not_finite(x);
    if (index != device::cpu::all_matrices) {
        fail(at, name, " need finite elements, however matrix ", index, " holds NaN or infinity.");
    }
}

void check_converged(const Where& at, const char* name, std::int64_t index) {
    if (index != device::cpu::all_matrices) {
        fail(at, name, " did not converge to finite eigenvalues for matrix ", index, ".");
    }
}

void check_gradient(const Where& at, const char* name, const Tensor* grad, std::int64_t dtype, const Dims& shape) {
    if (grad == nullptr) {
        return;
    }
    if (grad->Dtype() != dtype) {
        fail(at, name, " need a gradient of ", dtype_name(dtype), ", however it is ", dtype_name(grad->Dtype()));
    }
    if (grad->Shape() != shape) {
        fail(at, name, " need a gradient of shape ", shape, ", however it is ", grad->Shape());
    }
    if (!grad->isCPU()) {
        refuse_gpu();
    }
    if (!grad->is_dense()) {
        fail(at, name, " need a dense gradient.");
    }
}

struct Decomposition {
    std::unique_ptr<Tensor> vectors;
    std::unique_ptr<Tensor> values;
};

Decomposition decompose(const Where& at, const char* name, Tensor* x) {
    const Borrowed matrices = Borrowed::contiguous(x);
    check_finite(at, name, matrices.get());
    Decomposition result{make_tensor(x->Shape(), x->Dtype()), make_tensor(values_shape(x), real_dtype(x->Dtype()))};
    check_converged(at, name, device::cpu::cpu_eigh_impl(matrices.get(), result.vectors.get(), result.values.get()));
    return result;
}

}  // namespace

std::vector<Tensor*> eigh(Tensor* x) {
    const Where at = where("ornik::eigh");
    check_matrices(at, "eigh", x);
    Decomposition result = decompose(at, "eigh", x);
    std::vector<Tensor*> tensors(2);
    tensors[0] = result.vectors.release();
    tensors[1] = result.values.release();
    return tensors;
}

Tensor* eigvalsh(Tensor* x) {
    const Where at = where("ornik::eigvalsh");
    check_matrices(at, "eigvalsh", x);
    const Borrowed matrices = Borrowed::contiguous(x);
    check_finite(at, "eigvalsh", matrices.get());
    std::unique_ptr<Tensor> values = make_tensor(values_shape(x), real_dtype(x->Dtype()));
    check_converged(at, "eigvalsh", device::cpu::cpu_eigvalsh_impl(matrices.get(), values.get()));
    return values.release();
}

Tensor* eigvalsh_grad(Tensor* grad, Tensor* x) {
    const Where at = where("ornik::eigvalsh_grad");
    check_matrices(at, "eigvalsh", x);
    check_gradient(at, "eigvalsh", grad, real_dtype(x->Dtype()), values_shape(x));
    const Borrowed matrices = Borrowed::contiguous(x);
    check_finite(at, "eigvalsh", matrices.get());
    const Borrowed weights = Borrowed::contiguous(grad);
    const std::unique_ptr<Tensor> vectors = make_tensor(x->Shape(), x->Dtype());
    check_converged(at, "eigvalsh", device::cpu::cpu_eigvec(matrices.get(), vectors.get()));
    std::unique_ptr<Tensor> result = make_tensor(x->Shape(), x->Dtype());
    device::cpu::cpu_eigh_grad(vectors.get(), nullptr, nullptr, weights.get(), result.get());
    return result.release();
}

namespace {

void check_gradients(const Where& at, const Tensor* grad_vectors, const Tensor* grad_values, const Tensor* x) {
    if (grad_vectors == nullptr && grad_values == nullptr) {
        fail(at, "eigh need a gradient of the eigenvectors or of the eigenvalues.");
    }
    check_gradient(at, "eigh", grad_vectors, x->Dtype(), x->Shape());
    check_gradient(at, "eigh", grad_values, real_dtype(x->Dtype()), values_shape(x));
}

Tensor* gradient_from(Tensor* grad_vectors, Tensor* grad_values, const Tensor* vectors, const Tensor* values) {
    const Borrowed vectors_part = Borrowed::contiguous(grad_vectors);
    const Borrowed values_part = Borrowed::contiguous(grad_values);
    std::unique_ptr<Tensor> result = make_tensor(vectors->Shape(), vectors->Dtype());
    device::cpu::cpu_eigh_grad(vectors, values, vectors_part.get(), values_part.get(), result.get());
    return result.release();
}

}  // namespace

Tensor* eigh_grad(Tensor* grad_vectors, Tensor* grad_values, Tensor* x) {
    const Where at = where("ornik::eigh_grad");
    check_matrices(at, "eigh", x);
    check_gradients(at, grad_vectors, grad_values, x);
    const Decomposition forward = decompose(at, "eigh", x);
    return gradient_from(grad_vectors, grad_values, forward.vectors.get(), forward.values.get());
}

Tensor* eigh_grad_from(Tensor* grad_vectors, Tensor* grad_values, Tensor* vectors, Tensor* values) {
    const Where at = where("ornik::eigh_grad_from");
    check_matrices(at, "eigh", vectors);
    check_operands(at, vectors, values);
    check_gradients(at, grad_vectors, grad_values, vectors);
    if (values->Dtype() != real_dtype(vectors->Dtype())) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    if (values->Shape() != values_shape(vectors)) {
        fail(at, "eigh need eigenvalues of shape ", values_shape(vectors), ", however it is ", values->Shape());
    }
    const Borrowed dense_vectors = Borrowed::contiguous(vectors);
    const Borrowed dense_values = Borrowed::contiguous(values);
    return gradient_from(grad_vectors, grad_values, dense_vectors.get(), dense_values.get());
}

Tensor* solver(Tensor* /*a*/, Tensor* /*b*/, std::string /*method*/) {
    fail(where("ornik::solver"), "solver() Not impl for CPU tensor.");
}

}  // namespace ornik
