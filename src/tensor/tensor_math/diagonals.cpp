// diagonals.cpp: diagonals as tensors and as parts of tensors, and triangles.
#include <limits>

#include "joins.h"

namespace ornik {

namespace {

// Of the least square matrix with a diagonal of that length there.
std::int64_t side_of_matrix(const Where& at, std::int64_t length, std::int64_t offset) {
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max() / 2;
    if (length > most || offset > most || offset < -most) {
        fail(at, "A diagonal of ", length, " elements displaced by ", offset, " fits into no matrix.");
    }
    return length + (offset < 0 ? -offset : offset);
}

}  // namespace

Tensor* diagonal_grad(const Tensor* grad, const Dims& shape, std::int64_t offset, int dim1, int dim2) {
    const Where at = where("ornik::diagonal_grad");
    check_cpu(at, grad);
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    const TensorResult diagonal(result->diagonal(offset, dim1, dim2));
    check_gradient_shape(at, grad, diagonal->Shape());
    device::cpu::copy(grad, diagonal.get());
    return result.release();
}

Tensor* diag_embed(const Tensor* t, std::int64_t offset, int dim1, int dim2) {
    const Where at = where("ornik::diag_embed");
    check_cpu(at, t);
    if (t->Shape().empty()) {
        fail(at, "diag_embed() needs at least one axis");
    }
    const int rank = static_cast<int>(t->Shape().size()) + 1;
    const int first = maybe_warp_dim(dim1, rank);
    const int second = maybe_warp_dim(dim2, rank);
    if (first == second) {
        fail(at, "diag_embed() needs two different axes, both are axis ", first, ".");
    }
    const std::int64_t length = side_of_matrix(at, t->Shape().back(), offset);
    Dims shape(t->Shape().begin(), t->Shape().end() - 1);
    for (const int axis : {std::min(first, second), std::max(first, second)}) {
        shape.insert(shape.begin() + axis, length);
    }
    TensorResult result = filled_result(shape, t->Dtype(), 0.0F);
    const TensorResult diagonal(result->diagonal(offset, first, second));
    device::cpu::copy(t, diagonal.get());
    return result.release();
}

namespace {

void check_diag(const Where& at, const Dims& shape) {
    if (shape.size() != 1 && shape.size() != 2) {
        fail(at, "diag() needs one axis or two, the shape is ", shape);
    }
}

Tensor* triangle(const Where& at, const Tensor* t, std::int64_t k, bool lower) {
    check_cpu(at, t);
    if (t->Shape().size() < 2) {
        fail(at, "A triangle needs at least two axes, the shape is ", t->Shape());
    }
    TensorResult result = new_result(t->Shape(), t->Dtype());
    if (result->Size() > 0) {
        const TensorResult copy = t->is_contiguous() ? nullptr : row_major_copy(t);
        device::cpu::triangle(copy ? copy.get() : t, result.get(), k, lower);
    }
    return result.release();
}

}  // namespace

Tensor* diag(const Tensor* t, std::int64_t offset) {
    const Where at = where("ornik::diag");
    check_operands(at, t);
    check_diag(at, t->Shape());
    return t->Shape().size() == 1 ? diag_embed(t, offset, 0, 1) : t->diagonal(offset, 0, 1);
}

Tensor* diag_grad(const Tensor* grad, const Dims& shape, std::int64_t offset) {
    const Where at = where("ornik::diag_grad");
    check_operands(at, grad);
    check_diag(at, shape);
    if (shape.size() == 2) {
        return diagonal_grad(grad, shape, offset, 0, 1);
    }
    const std::int64_t length = side_of_matrix(at, shape[0], offset);
    check_gradient_shape(at, grad, {length, length});
    return grad->diagonal(offset, 0, 1);
}

Tensor* tril(const Tensor* t, std::int64_t k) { return triangle(where("ornik::tril"), t, k, true); }

Tensor* triu(const Tensor* t, std::int64_t k) { return triangle(where("ornik::triu"), t, k, false); }

}  // namespace ornik
