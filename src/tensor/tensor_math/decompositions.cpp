// decompositions.cpp: front ends of factors, inverses, determinants and solutions.
#include "tensor/tensor_math/decompositions.h"

#include <algorithm>
#include <limits>
#include <numeric>
#include <string>

#include "hardware/cpu/linear_algebra/cpu_decompositions.h"
#include "results.h"
#include "tensor/borrowed.h"
#include "tensor/broadcast.h"
#include "tensor/tensor_math/matmul.h"
#include "tensor/tensor_shape.h"

namespace ornik {

namespace {

// "[2, 3]"
std::string list_of(const Dims& list) {
    std::string text = "[";
    for (std::size_t i = 0; i < list.size(); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(list[i]);
    }
    return text + "]";
}

// The shapes of an operand, which has passed all checks that need no elements.
struct Matrices {
    Matrices(const Where& at, const char* name, const Tensor* x, bool square = false) {
        check_cpu(at, x);
        if (!is_float_or_complex(x)) {
            fail(ErrorKind::dtype, at, name, "(): takes floating and complex matrices, not ", dtype_name(x->Dtype()),
                 ".");
        }
        const Dims& shape = x->Shape();
        if (shape.size() < 2 || (square && shape.back() != shape[shape.size() - 2])) {
            fail(at, name, "(): takes ", square ? "square " : "", "matrices in the last two axes, not a shape of ",
                 list_of(shape), ".");
        }
        rows = shape[shape.size() - 2];
        cols = shape.back();
        batch.assign(shape.begin(), shape.end() - 2);
    }

    std::int64_t smaller() const { return std::min(rows, cols); }
    Dims with(std::initializer_list<std::int64_t> axes) const {
        Dims shape = batch;
        shape.insert(shape.end(), axes);
        return shape;
    }

    std::int64_t rows;
    std::int64_t cols;
    Dims batch;
};

// Names the matrix of the batch that a kernel gave back.
void check_served(const Where& at, const char* name, const Dims& batch, std::int64_t index, const char* fault) {
    if (index == device::cpu::every_matrix) {
        return;
    }
    if (batch.empty()) {
        fail(at, name, "(): the matrix ", fault, ".");
    }
    Dims place(batch.size());
    for (std::size_t axis = batch.size(); axis-- > 0; index /= batch[axis]) {
        place[axis] = index % batch[axis];
    }
    fail(at, name, "(): matrix ", list_of(place), " of the batch ", fault, ".");
}

constexpr const char* not_definite = "is not positive definite";
constexpr const char* is_singular = "is singular";
constexpr const char* no_eigenvalues = "holds NaN or infinity, or its eigenvalues do not converge";
constexpr const char* no_values = "holds NaN or infinity, or its singular values do not converge";

// x^H of matrices, contiguous.
TensorResult adjoint(const Tensor* x) {
    Dims shape = x->Shape();
    Dims strides = x->Strides();
    std::swap(shape[shape.size() - 2], shape.back());
    std::swap(strides[strides.size() - 2], strides.back());
    TensorResult copy = row_major_copy(new_view(x, shape, strides).get());
    if (copy->isComplexType() && copy->Size() > 0) {
        copy->conj_inplace();
    }
    return copy;
}

struct Svd {
    TensorResult u;
    TensorResult s;
    TensorResult vh;
};

Svd decompose(const Where& at, const char* name, Tensor* x, const Matrices& m, bool vectors, bool full) {
    const Borrowed matrices = Borrowed::contiguous(x);
    Svd result{nullptr, new_result(m.with({m.smaller()}), part_dtype(x->Dtype())), nullptr};
    if (vectors) {
        result.u = new_result(m.with({m.rows, full ? m.rows : m.smaller()}), x->Dtype());
        result.vh = new_result(m.with({full ? m.cols : m.smaller(), m.cols}), x->Dtype());
    }
    check_served(at, name, m.batch,
                 device::cpu::cpu_svd(matrices.get(), result.u.get(), result.s.get(), result.vh.get()), no_values);
    return result;
}

// rtol, or its default, for every matrix of the batch, in the dtype of the singular values.
TensorResult bounds_of(const Where& at, const char* name, const Tensor* rtol, const Tensor* x, const Matrices& m) {
    const std::int64_t dtype = part_dtype(x->Dtype());
    if (rtol == nullptr) {
        const double epsilon =
            dtype == dtype::float32 ? std::numeric_limits<float>::epsilon() : std::numeric_limits<double>::epsilon();
        return filled_result(m.batch, dtype, static_cast<double>(std::max(m.rows, m.cols)) * epsilon);
    }
    check_cpu(at, rtol);
    if (!rtol->isFloat()) {
        fail(ErrorKind::dtype, at, name, "(): rtol is real and floating, not ", dtype_name(rtol->Dtype()), ".");
    }
    const Dims& shape = rtol->Shape();
    bool fits = shape.size() <= m.batch.size();
    for (std::size_t i = 1; fits && i <= shape.size(); ++i) {
        fits = shape[shape.size() - i] == 1 || shape[shape.size() - i] == m.batch[m.batch.size() - i];
    }
    if (!fits) {
        fail(at, name, "(): an rtol of shape ", list_of(shape), " does not broadcast to the batch ", list_of(m.batch),
             ".");
    }
    TensorResult bounds = new_result(m.batch, dtype);
    const TensorResult shown(Tensor::broadcast_to(const_cast<Tensor*>(rtol), m.batch));
    device::cpu::copy(shown.get(), bounds.get());
    return bounds;
}

}  // namespace

Tensor* cholesky(Tensor* x, bool upper) {
    const Where at = where("ornik::cholesky");
    const Matrices m(at, "cholesky", x, true);
    // The upper triangle of x is the lower one of x^H.
    const TensorResult mirrored = upper ? adjoint(x) : nullptr;
    const Borrowed matrices = Borrowed::contiguous(upper ? mirrored.get() : x);
    TensorResult lower = new_result(x->Shape(), x->Dtype());
    check_served(at, "cholesky", m.batch, device::cpu::cpu_cholesky(matrices.get(), lower.get()), not_definite);
    return (upper ? adjoint(lower.get()) : std::move(lower)).release();
}

std::vector<Tensor*> qr(Tensor* x, bool complete) {
    const Matrices m(where("ornik::qr"), "qr", x);
    const Borrowed matrices = Borrowed::contiguous(x);
    const std::int64_t rank = complete ? m.rows : m.smaller();
    TensorResult q = new_result(m.with({m.rows, rank}), x->Dtype());
    TensorResult r = new_result(m.with({rank, m.cols}), x->Dtype());
    device::cpu::cpu_qr(matrices.get(), q.get(), r.get());
    return released(q, r);
}

std::vector<Tensor*> svd(Tensor* x, bool full_matrices) {
    const Where at = where("ornik::svd");
    const Matrices m(at, "svd", x);
    Svd result = decompose(at, "svd", x, m, true, full_matrices);
    return released(result.u, result.s, result.vh);
}

Tensor* svdvals(Tensor* x) {
    const Where at = where("ornik::svdvals");
    const Matrices m(at, "svdvals", x);
    return decompose(at, "svdvals", x, m, false, false).s.release();
}

namespace {

std::int64_t complex_dtype(std::int64_t dtype) {
    return dtype == dtype::float32 ? dtype::complex64 : (dtype == dtype::float64 ? dtype::complex128 : dtype);
}

}  // namespace

std::vector<Tensor*> eig(Tensor* x) {
    const Where at = where("ornik::eig");
    const Matrices m(at, "eig", x, true);
    const Borrowed matrices = Borrowed::contiguous(x);
    TensorResult values = new_result(m.with({m.rows}), complex_dtype(x->Dtype()));
    TensorResult vectors = new_result(x->Shape(), complex_dtype(x->Dtype()));
    check_served(at, "eig", m.batch, device::cpu::cpu_eig(matrices.get(), values.get(), vectors.get()), no_eigenvalues);
    return released(values, vectors);
}

Tensor* eigvals(Tensor* x) {
    const Where at = where("ornik::eigvals");
    const Matrices m(at, "eigvals", x, true);
    const Borrowed matrices = Borrowed::contiguous(x);
    TensorResult values = new_result(m.with({m.rows}), complex_dtype(x->Dtype()));
    check_served(at, "eigvals", m.batch, device::cpu::cpu_eig(matrices.get(), values.get(), nullptr), no_eigenvalues);
    return values.release();
}

Tensor* inv(Tensor* x) {
    const Where at = where("ornik::inv");
    const Matrices m(at, "inv", x, true);
    const Borrowed matrices = Borrowed::contiguous(x);
    TensorResult result = new_result(x->Shape(), x->Dtype());
    check_served(at, "inv", m.batch, device::cpu::cpu_inverse(matrices.get(), result.get()), is_singular);
    return result.release();
}

Tensor* solve(Tensor* x, Tensor* b) {
    const Where at = where("ornik::solve");
    const Matrices m(at, "solve", x, true);
    check_cpu(at, b);
    if (b->Dtype() != x->Dtype()) {
        fail(ErrorKind::dtype, at, "solve(): both sides have one dtype, not ", dtype_name(x->Dtype()), " and ",
             dtype_name(b->Dtype()), ".");
    }
    const Dims& right = b->Shape();
    const bool is_vector = right.size() == 1;
    const std::size_t right_axes = is_vector || right.empty() ? 0 : right.size() - 2;
    Dims batch(std::max(m.batch.size(), right_axes));
    bool fits = !right.empty() && right[is_vector ? 0 : right.size() - 2] == m.rows;
    for (std::size_t i = 1; fits && i <= batch.size(); ++i) {
        const std::int64_t left_extent = i <= m.batch.size() ? m.batch[m.batch.size() - i] : 1;
        const std::int64_t right_extent = i <= right_axes ? right[right_axes - i] : 1;
        fits = left_extent == right_extent || left_extent == 1 || right_extent == 1;
        batch[batch.size() - i] = left_extent == 1 ? right_extent : left_extent;
    }
    if (!fits) {
        fail(at, "solve(): matrices of shape ", list_of(x->Shape()), " and right sides of shape ", list_of(right),
             " do not go together.");
    }
    const Borrowed matrices = Borrowed::contiguous(x);
    // The right side, repeated for the batch, is where the result goes.
    Dims shape = batch;
    shape.insert(shape.end(), {m.rows, is_vector ? 1 : right.back()});
    const TensorResult columns = is_vector ? new_view(b, {m.rows, 1}, {b->Strides()[0], 1}) : nullptr;
    const TensorResult shown(Tensor::broadcast_to(is_vector ? columns.get() : b, shape));
    TensorResult result = row_major_copy(shown.get());
    // The place of each result's matrix among the matrices of x, along which broadcast axes do not move.
    std::vector<std::int64_t> places(1, 0);
    std::int64_t step = std::accumulate(m.batch.begin(), m.batch.end(), std::int64_t{1}, std::multiplies<>());
    for (std::size_t i = 0; i < batch.size() && result->Size() > 0; ++i) {
        const std::size_t lead = batch.size() - m.batch.size();
        const std::int64_t extent = i < lead ? 1 : m.batch[i - lead];
        step /= extent;
        std::vector<std::int64_t> longer;
        longer.reserve(places.size() * static_cast<std::size_t>(batch[i]));
        for (const std::int64_t place : places) {
            for (std::int64_t k = 0; k < batch[i]; ++k) {
                longer.push_back(place + (extent == 1 ? 0 : k * step));
            }
        }
        places = std::move(longer);
    }
    check_served(at, "solve", batch, device::cpu::cpu_solve(matrices.get(), result.get(), places, result.get()),
                 is_singular);
    if (is_vector) {
        shape.pop_back();
        return new_view(result.get(), shape, shape2stride(shape)).release();
    }
    return result.release();
}

Tensor* det(Tensor* x) {
    const Matrices m(where("ornik::det"), "det", x, true);
    const Borrowed matrices = Borrowed::contiguous(x);
    TensorResult result = new_result(m.batch, x->Dtype());
    device::cpu::cpu_determinant(matrices.get(), result.get());
    return result.release();
}

std::vector<Tensor*> slogdet(Tensor* x) {
    const Matrices m(where("ornik::slogdet"), "slogdet", x, true);
    const Borrowed matrices = Borrowed::contiguous(x);
    TensorResult sign = new_result(m.batch, x->Dtype());
    TensorResult logarithm = new_result(m.batch, part_dtype(x->Dtype()));
    device::cpu::cpu_log_determinant(matrices.get(), sign.get(), logarithm.get());
    return released(sign, logarithm);
}

Tensor* pinv(Tensor* x, Tensor* rtol) {
    const Where at = where("ornik::pinv");
    const Matrices m(at, "pinv", x);
    const TensorResult bounds = bounds_of(at, "pinv", rtol, x, m);
    const Svd factors = decompose(at, "pinv", x, m, true, false);
    device::cpu::cpu_divide_columns(factors.u.get(), factors.s.get(), bounds.get());
    return matmul(adjoint(factors.vh.get()).get(), adjoint(factors.u.get()).get());
}

Tensor* matrix_rank(Tensor* x, Tensor* rtol) {
    const Where at = where("ornik::matrix_rank");
    const Matrices m(at, "matrix_rank", x);
    const TensorResult bounds = bounds_of(at, "matrix_rank", rtol, x, m);
    const Svd factors = decompose(at, "matrix_rank", x, m, false, false);
    TensorResult counts = new_result(m.batch, dtype::int64);
    device::cpu::cpu_count_above(factors.s.get(), bounds.get(), counts.get());
    return counts.release();
}

}  // namespace ornik
