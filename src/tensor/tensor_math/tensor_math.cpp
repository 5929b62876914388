// tensor_math.cpp: front ends of the matrix products.
#include <algorithm>

#include "hardware/cpu/cpu_product.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/overlap.h"

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

// The extents of one product: the inner ones, then those of the output.
void check_extents(const Where& at, const Tensor* A, int ta, const Tensor* B, int tb, const Tensor* C) {
    const Matrix a = matrix_of(A, ta);
    const Matrix b = matrix_of(B, tb);
    const Matrix c = matrix_of(C, 0);
    if (a.cols != b.rows) {
        fail(at, "Incompatible dims, input A shape[", a.col_axis, "] ", a.cols, " should equal to input B shape[",
             b.row_axis, "] ", b.rows);
    }
    if (a.rows != c.rows || b.cols != c.cols) {
        fail(at, "Incompatible dims,input A shape[1] ", A->Shape().back(), " : output should have a shape of ",
             Dims{a.rows, b.cols}, ", however it has ", Dims{c.rows, c.cols});
    }
}

void check_one_dtype(const Where& at, const Tensor* A, const Tensor* B, const Tensor* C) {
    if (!Tensor::sameDtype(A, B) || !Tensor::sameDtype(A, C)) {
        fail(at, "Not same data type");
    }
}

bool same_device(const Tensor* A, const Tensor* B, const Tensor* C) {
    return A->Device() == B->Device() && A->Device() == C->Device();
}

// The product of every pair of matrices; all checks are done. Operands that are not contiguous are copied.
// A C that is not contiguous, or that shares memory with an operand, gets its values from a temporary.
void multiply(Tensor* A, int ta, Tensor* B, int tb, Tensor* C, bool accumulate) {
    const Borrowed a = Borrowed::contiguous(A);
    const Borrowed b = Borrowed::contiguous(B);
    const bool direct = C->is_contiguous() && memory_overlap(a.get(), C) == Overlap::none &&
                        memory_overlap(b.get(), C) == Overlap::none;
    std::unique_ptr<Tensor> aside;
    if (!direct) {
        aside.reset(accumulate ? C->clone() : Tensor::empty_like(C));
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
    device::cpu::product(C->Dtype(), plan, a->getRawData(), b->getRawData(), out->getRawData());
    if (!direct) {
        copy_tensor(out, C);
    }
}

}  // namespace

void Tensor::dot(Tensor* A, int ta, Tensor* B, int tb, Tensor* C, int accumulate) {
    const Where at = where("ornik::dot");
    if (!same_device(A, B, C)) {
        fail(at, "Incompatible device for dot(),  A: ", A->device_, ", B: ", B->device_, ", C: ", C->device_);
    }
    if (A->shape_.size() != 2 || B->shape_.size() != 2) {
        fail(at, "Only 2D tensors");
    }
    check_rank(at, C, 'C', 2);
    check_extents(at, A, ta, B, tb, C);
    check_one_dtype(at, A, B, C);
    check_not_expanded(at, C);
    multiply(A, ta, B, tb, C, accumulate != 0);
}

void Tensor::bmm(Tensor* A, int ta, Tensor* B, int tb, Tensor* C) {
    const Where at = where("ornik::Tensor::bmm");
    if (!same_device(A, B, C)) {
        fail(at, "Tensors in different devices");
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
    multiply(A, ta, B, tb, C, false);
}

void Tensor::matmul4D(Tensor* A, int ta, Tensor* B, int tb, Tensor* C) {
    const Where at = where("ornik::Tensor::matmul4D");
    if (!sameDtype(A, B) || !sameDtype(A, C)) {
        fail(at, "matmul() is not supported for different data type tensor.");
    }
    if (A->isBool()) {
        fail(at, "matmul() is not supported for bool tensor.");
    }
    if (!same_device(A, B, C)) {
        fail(at, "Tensors in different devices, A: ", A->device_, ", B: ", B->device_, ", C: ", C->device_);
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
    multiply(A, ta, B, tb, C, false);
}

}  // namespace ornik
