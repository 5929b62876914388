// tensor_math.cpp: front ends of the matrix products and of the Kronecker product.
#include <algorithm>

#include "hardware/cpu/product/cpu_kron.h"
#include "hardware/cpu/product/cpu_product.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/geometry.h"
#include "tensor/make_tensor.h"
#include "tensor/overlap.h"
#include "tensor/sparse_parts.h"
#include "tensor/tensor_math/dot_ends.h"
#include "tensor/tensor_math/linear_algebra.h"
#include "tensor/tensor_sparse.h"

namespace ornik {

namespace {

// Extents of op(X): the last two axes of X, exchanged when the flag is set.
struct Matrix {
    std::int64_t rows;
    std::int64_t cols;
    std::size_t row_axis;  // Which of the two stored axes it is, 0 or 1.
    std::size_t col_axis;
};

Matrix matrix_of(const Tensor* t, int transposed) {
    const std::size_t first = t->Shape().size() - 2;
    const std::size_t row_axis = transposed != 0 ? 1 : 0;
    return {t->Shape()[first + row_axis], t->Shape()[first + 1 - row_axis], row_axis, 1 - row_axis};
}

void check_rank(const Where& at, const Tensor* t, char name, std::size_t rank) {
    if (t->Shape().size() != rank) {
        fail(at, "Incompatible dims, input ", std::string(1, name), " has a shape of ", t->Shape(), "instead of ", rank,
             " axes");
    }
}

void check_inner_extents(const Where& at, const Matrix& a, const Matrix& b) {
    if (a.cols != b.rows) {
        fail(at, "Incompatible dims, input A shape[", a.col_axis, "] ", a.cols, " should equal to input B shape[",
             b.row_axis, "] ", b.rows);
    }
}

// The extents of one product: the inner ones, then those of the output.
void check_extents(const Where& at, const Tensor* A, int ta, const Tensor* B, int tb, const Tensor* C) {
    const Matrix a = matrix_of(A, ta);
    const Matrix b = matrix_of(B, tb);
    const Matrix c = matrix_of(C, 0);
    check_inner_extents(at, a, b);
    if (a.rows != c.rows || b.cols != c.cols) {
        fail(at, "Incompatible dims,input A shape[1] ", A->Shape().back(), " : output should have a shape of ",
             Dims{a.rows, b.cols}, ", however it has ", Dims{c.rows, c.cols});
    }
}

void check_one_dtype(const Where& at, const Tensor* A, const Tensor* B, const Tensor* C) {
    if (!Tensor::sameDtype(A, B) || !Tensor::sameDtype(A, C)) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
}

bool same_device(const Tensor* A, const Tensor* B, const Tensor* C) {
    return A->Device() == B->Device() && A->Device() == C->Device();
}

// The product of every pair of matrices; all checks are done. Operands that are not contiguous are copied.
// A C that is not contiguous, or that shares memory with an operand, gets its values from a temporary.
void multiply(const Where& at, Tensor* A, int ta, Tensor* B, int tb, Tensor* C, bool accumulate,
              const device::cpu::ProductEnds* ends = nullptr) {
    check_writable(at, C);
    const Borrowed a = Borrowed::contiguous(A);
    const Borrowed b = Borrowed::contiguous(B);
    const bool direct = C->is_contiguous() && memory_overlap(a.get(), C) == Overlap::none &&
                        memory_overlap(b.get(), C) == Overlap::none;
    std::unique_ptr<Tensor> aside;
    if (!direct) {
        aside = accumulate ? std::unique_ptr<Tensor>(C->clone()) : make_output(C->Shape(), C);
    }
    Tensor* out = direct ? C : aside.get();
    device::cpu::ProductPlan plan{};
    plan.batch = 1;
    for (std::size_t i = 0; i + 2 < C->Shape().size(); ++i) {
        plan.batch *= C->Shape()[i];
    }
    plan.rows = matrix_of(C, 0).rows;
    plan.cols = matrix_of(C, 0).cols;
    plan.depth = matrix_of(A, ta).cols;
    plan.transpose_a = ta != 0;
    plan.transpose_b = tb != 0;
    plan.accumulate = accumulate;
    announce_write(at, out);
    device::cpu::product(C->Dtype(), plan, a->getRawData(), b->getRawData(), out->getRawData(), ends);
    if (!direct) {
        copy_tensor(out, C);
    }
}

void check_dot(const Where& at, const Tensor* A, int ta, const Tensor* B, int tb, const Tensor* C) {
    check_operands(at, A, B, C);
    if (!same_device(A, B, C)) {
        fail(ErrorKind::device, at, "Incompatible device for dot(),  A: ", A->Device(), ", B: ", B->Device(),
             ", C: ", C->Device());
    }
    if (A->ndim() != 2 || B->ndim() != 2) {
        fail(at, "Only 2D tensors");
    }
    const Matrix a = matrix_of(A, ta);
    const Matrix b = matrix_of(B, tb);
    check_inner_extents(at, a, b);
    if (C->Shape() != Dims{a.rows, b.cols}) {
        fail(at, "Incompatible dims,input A shape[1] ", A->Shape()[1], " should equal to input B shape[", b.row_axis,
             "] ", b.rows);
    }
    check_one_dtype(at, A, B, C);
    check_not_expanded(at, C);
}

}  // namespace

void Tensor::dot(Tensor* A, int ta, Tensor* B, int tb, Tensor* C, int accumulate) {
    const Where at = where("ornik::dot");
    check_dot(at, A, ta, B, tb, C);
    multiply(at, A, ta, B, tb, C, accumulate != 0);
}

void dot_with_ends(Tensor* A, int ta, Tensor* B, int tb, Tensor* C, const device::cpu::ProductEnds& ends) {
    const Where at = where("ornik::dot");
    check_dot(at, A, ta, B, tb, C);
    multiply(at, A, ta, B, tb, C, false, &ends);
}

void Tensor::bmm(Tensor* A, int ta, Tensor* B, int tb, Tensor* C) {
    const Where at = where("ornik::Tensor::bmm");
    check_operands(at, A, B, C);
    if (!same_device(A, B, C)) {
        fail(ErrorKind::device, at, "Tensors in different devices");
    }
    check_rank(at, A, 'A', 3);
    check_rank(at, B, 'B', 3);
    check_rank(at, C, 'C', 3);
    if (A->shape_[0] != B->shape_[0] || A->shape_[0] != C->shape_[0]) {
        fail(at, "Tensors should have same first two dim size");
    }
    check_extents(at, A, ta, B, tb, C);
    if (!C->is_contiguous()) {
        fail(at, "Output for bmm should be contiguous.");
    }
    check_one_dtype(at, A, B, C);
    multiply(at, A, ta, B, tb, C, false);
}

void Tensor::matmul4D(Tensor* A, int ta, Tensor* B, int tb, Tensor* C) {
    const Where at = where("ornik::Tensor::matmul4D");
    check_operands(at, A, B, C);
    if (!sameDtype(A, B) || !sameDtype(A, C)) {
        fail(ErrorKind::dtype, at, "matmul() is not supported for different data type tensor.");
    }
    if (A->isBool()) {
        fail(ErrorKind::dtype, at, "matmul() is not supported for bool tensor.");
    }
    if (!same_device(A, B, C)) {
        fail(ErrorKind::device, at, "Tensors in different devices, A: ", A->device_, ", B: ", B->device_,
             ", C: ", C->device_);
    }
    check_rank(at, A, 'A', 4);
    check_rank(at, B, 'B', 4);
    check_rank(at, C, 'C', 4);
    for (std::size_t axis = 0; axis < 2; ++axis) {
        if (A->shape_[axis] != B->shape_[axis] || A->shape_[axis] != C->shape_[axis]) {
            fail(at, "Tensors should have same first two dim size");
        }
    }
    check_extents(at, A, ta, B, tb, C);
    check_not_expanded(at, C);
    multiply(at, A, ta, B, tb, C, false);
}

namespace {

// The checks of `kron` and its gradients, where `name` is what messages call the operation. The first operand
// decides what the others have to match.
void check_kron(const Where& at, const char* name, const std::vector<const Tensor*>& operands) {
    for (const Tensor* t : operands) {
        check_given(at, t);
        if (t->Device() != operands.front()->Device()) {
            fail(ErrorKind::device, at, "Not same device for ", name);
        }
    }
    for (const Tensor* t : operands) {
        if (!Tensor::sameDtype(t, operands.front())) {
            fail(ErrorKind::dtype, at, "Not same data type for ", name);
        }
    }
    for (const Tensor* t : operands) {
        if (!t->is_dense() && !t->is_coo()) {
            fail(at, name, " supports coo or dense layout.");
        }
    }
    for (const Tensor* t : operands) {
        if (t->is_dense()) {
            check_operands(at, t);
        }
        if (t->ndim() != 2) {
            fail(at, name, " supports 2-dim tensors, however a shape is ", t->Shape());
        }
    }
    if (!operands.front()->isCPU()) {
        refuse_gpu();
    }
}

// A dense, contiguous tensor with the elements of a dense or COO one.
class DenseOperand {
  public:
    DenseOperand(const Where& at, Tensor* t)
        : converted_(t->is_dense() ? nullptr : dense_from_sparse(at, t)),
          dense_(Borrowed::contiguous(converted_ ? converted_.get() : t)) {}
    const Tensor* get() const { return dense_.get(); }

  private:
    std::unique_ptr<Tensor> converted_;
    Borrowed dense_;
};

Dims kron_shape(const Where& at, const Tensor* a, const Tensor* b) {
    checked_numel(at, {a->Shape()[0], a->Shape()[1], b->Shape()[0], b->Shape()[1]});
    return {a->Shape()[0] * b->Shape()[0], a->Shape()[1] * b->Shape()[1]};
}

// The gradient for the operand `self`; Kernel adds up grad times the conjugate of `other`.
template <typename Kernel>
Tensor* kron_gradient(const Where& at, Tensor* grad, Tensor* a, Tensor* b, Tensor* self, Tensor* other,
                      const Kernel& kernel) {
    check_kron(at, "kron_grad()", {grad, a, b});
    const Dims shape = kron_shape(at, a, b);
    if (grad->Shape() != shape) {
        fail(at, "kron_grad() needs a gradient of shape ", shape, ", however it is ", grad->Shape());
    }
    const DenseOperand factor(at, other);
    std::unique_ptr<Tensor> result;
    if (grad->is_dense()) {
        const Borrowed gradient = Borrowed::contiguous(grad);
        result = make_tensor(self->Shape(), self->Dtype());
        kernel(gradient.get(), factor.get(), result.get());
    } else {
        const SparseParts gradient(at, grad);
        result = make_tensor(self->Shape(), self->Dtype());
        kernel(gradient.rows(), factor.get(), result.get());
    }
    return self->is_coo() ? to_coo(result.get()) : result.release();
}

}  // namespace

Tensor* kron(Tensor* a, Tensor* b) {
    const Where at = where("ornik::kron");
    check_kron(at, "kron()", {a, b});
    const Dims shape = kron_shape(at, a, b);
    if (!a->is_coo() || !b->is_coo()) {
        const DenseOperand left(at, a);
        const DenseOperand right(at, b);
        std::unique_ptr<Tensor> result = make_tensor(shape, a->Dtype());
        device::cpu::kron(left.get(), right.get(), result.get());
        return result.release();
    }
    const SparseParts left(at, a);
    const SparseParts right(at, b);
    std::vector<std::int64_t> offsets(static_cast<std::size_t>(shape[0] + 1));
    device::cpu::kron_offsets(left.rows(), right.rows(), offsets.data());
    std::unique_ptr<Tensor> columns = make_tensor({offsets.back()}, dtype::int64);
    std::unique_ptr<Tensor> values = make_tensor({offsets.back()}, a->Dtype());
    device::cpu::kron_entries(left.rows(), right.rows(), offsets.data(),
                              static_cast<std::int64_t*>(columns->getRawData()), values.get());
    return assemble_sparse(layout::coo, shape, offsets.data(), std::move(columns), std::move(values)).release();
}

Tensor* kron_grad_t1(Tensor* grad, Tensor* a, Tensor* b) {
    return kron_gradient(where("ornik::kron_grad_t1"), grad, a, b, a, b,
                         [](const auto& gradient, const Tensor* factor, Tensor* out) {
                             device::cpu::kron_grad_t1(gradient, factor, out);
                         });
}

Tensor* kron_grad_t2(Tensor* grad, Tensor* a, Tensor* b) {
    return kron_gradient(where("ornik::kron_grad_t2"), grad, a, b, b, a,
                         [](const auto& gradient, const Tensor* factor, Tensor* out) {
                             device::cpu::kron_grad_t2(gradient, factor, out);
                         });
}

}  // namespace ornik
