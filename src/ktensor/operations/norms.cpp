// norms.cpp: norms and powers, of operations that are recorded themselves.
#include <cmath>

#include "ktensor/arithmetic.h"
#include "ktensor/axes.h"
#include "ktensor/elements.h"
#include "ktensor/impl.h"
#include "ktensor/linalg.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

using autograd::describe;

namespace {

void check_floating(const char* name, const KTensor& x) {
    autograd::check_defined(name, x, 0);
    if (!x.is_floating() && !x.is_complex()) {
        fail(ErrorKind::dtype, where("ornik::KTensor"), name, "(): takes floating and complex tensors, not ",
             describe(x), ".");
    }
}

void check_matrices(const char* name, const KTensor& x, bool square) {
    autograd::check_defined(name, x, 0);
    if (x.ndim() < 2 || (square && x.size(-1) != x.size(-2))) {
        fail(where("ornik::KTensor"), name, "(): takes ", square ? "square " : "",
             "matrices in the last two axes, not ", describe(x), ".");
    }
}

// x without the reduced axes, which have extent 1, unless they are to stay.
KTensor parted(const KTensor& x, const std::vector<int>& axes, bool keep_dims) {
    return keep_dims ? x : squeeze(x, axes);
}

}  // namespace

KTensor matrix_power(const KTensor& x, std::int64_t n) {
    check_matrices("matrix_power", x, true);
    if (n == 0) {
        return clone(broadcast_to(KTensor::eye(x.size(-1), x.size(-1), 0, x.dtype()), x.shape()));
    }
    KTensor square = n < 0 ? inv(x) : x;
    KTensor result;
    for (auto left = n < 0 ? 0 - static_cast<std::uint64_t>(n) : static_cast<std::uint64_t>(n); left != 0; left /= 2) {
        if (left % 2 != 0) {
            result = result.defined() ? matmul(result, square) : square;
        }
        if (left > 1) {
            square = matmul(square, square);
        }
    }
    return result.is(x) ? clone(x) : result;
}

KTensor vecdot(const KTensor& a, const KTensor& b, int axis) {
    autograd::check_defined("vecdot", a, 0);
    autograd::check_defined("vecdot", b, 1);
    const auto from_end = [&](const KTensor& t) {
        return static_cast<int>(autograd::wrap_axis("vecdot", t, axis)) - t.ndim();
    };
    const int last = from_end(a);
    if (from_end(b) != last) {
        fail(where("ornik::vecdot"), "vecdot(): axis ", axis, " of ", describe(a), " and of ", describe(b),
             " are not the same from the end.");
    }
    if (a.size(last) != b.size(last)) {
        fail(where("ornik::vecdot"), "vecdot(): ", describe(a), " and ", describe(b),
             " have different extents along axis ", axis, ".");
    }
    const KTensor products = autograd::conj_of(a) * b;
    return astype(sum(products, {last}), products.dtype());
}

KTensor vector_norm(const KTensor& x, const std::vector<int>& axes, bool keep_dims, double ord) {
    check_floating("vector_norm", x);
    if (std::isnan(ord)) {
        fail(where("ornik::vector_norm"), "vector_norm(): NaN is no order.");
    }
    if (ord == 2) {
        return l2_norm(x, axes, keep_dims);
    }
    const KTensor magnitudes = abs(x);
    if (ord == 0) {
        return sum(astype(not_equal(magnitudes, Scalar(0.0F)), magnitudes.dtype()), axes, keep_dims);
    }
    if (ord == 1 || (std::isinf(ord) && ord > 0 && x.size() == 0)) {
        return sum(magnitudes, axes, keep_dims);
    }
    if (std::isinf(ord)) {
        return ord > 0 ? max(magnitudes, axes, keep_dims) : min(magnitudes, axes, keep_dims);
    }
    const KTensor powers = sum(pow(magnitudes, Scalar(ord)), axes, keep_dims);
    if (ord < 0) {
        return pow(powers, Scalar(1 / ord));
    }
    // The root has no slope at 0.
    const KTensor zero = equal(powers, Scalar(0.0F));
    return where(zero, Scalar(0.0F), pow(where(zero, Scalar(1.0F), powers), Scalar(1 / ord)));
}

KTensor matrix_norm(const KTensor& x, MatrixNorm ord, bool keep_dims) {
    check_floating("matrix_norm", x);
    check_matrices("matrix_norm", x, false);
    if (ord == MatrixNorm::frobenius || x.size(-1) == 0 || x.size(-2) == 0) {
        return l2_norm(x, {-2, -1}, keep_dims);
    }
    if (ord == MatrixNorm::nuclear || ord == MatrixNorm::largest_value || ord == MatrixNorm::smallest_value) {
        const KTensor values = svdvals(x);
        const KTensor norm = ord == MatrixNorm::nuclear         ? sum(values, {-1}, true)
                             : ord == MatrixNorm::largest_value ? max(values, {-1}, true)
                                                                : min(values, {-1}, true);
        return parted(unsqueeze(norm, -1), {-2, -1}, keep_dims);
    }
    const bool columns = ord == MatrixNorm::largest_column || ord == MatrixNorm::smallest_column;
    const bool largest = ord == MatrixNorm::largest_column || ord == MatrixNorm::largest_row;
    const KTensor sums = sum(abs(x), {columns ? -2 : -1}, true);
    const std::vector<int> other{columns ? -1 : -2};
    return parted(largest ? max(sums, other, true) : min(sums, other, true), {-2, -1}, keep_dims);
}

}  // namespace ornik
