// reductions.h: from many elements to one, over all axes or some; running sums; softmax.
//
//     std::unique_ptr<ornik::Tensor> columns(ornik::sum(x, {0}, false));
//
// `axes` may be negative and come in any order; none means all. Reduced axes stay as extent 1 with keep_dims, and
// disappear without. Tensors may have any strides. Every result is a new row-major tensor that the caller deletes;
// arguments are checked before anything is allocated. Results have the same bits on every run, whatever the
// number of threads and however x lies in memory: floating sums go in the order of a row-major tensor, by chunks of
// a fixed size that are added pairwise, so that their error grows with the logarithm of the length. Where elements
// of one result lie far apart, such as over all axes of a transposed view, a row-major copy of x is made first.
//
// Errors: an axis out of range (maybe_warp_dim; a tensor without axes has none to name), an axis given twice, a
// dtype that the function does not serve ("Not valid dtype for this function."), and no elements to reduce
// where there is no answer ("Can not reduce no elements.").
//
// A gradient function takes the gradient of the result, shaped as the result, and gives the gradient of x,
// shaped as x; both are of x's dtype (l2_norm of a complex x: of its parts' type). Floating dtypes, and complex
// ones where said.
#pragma once

#include <concepts>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

// ---- Sums ----

/// All dtypes. bool and integers give int64, which wraps; others keep their dtype. No elements give 0.
[[nodiscard]] ORNIK_API Tensor* sum(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// As sum; no elements give 1.
[[nodiscard]] ORNIK_API Tensor* prod(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// bool and integers give float32. No elements give NaN.
[[nodiscard]] ORNIK_API Tensor* mean(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// Square root of the sum of squared magnitudes, added up in double. bool and integers give float32, complex
/// dtypes that of their parts.
[[nodiscard]] ORNIK_API Tensor* l2_norm(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// Squared deviations from the mean, over (count - correction): 0 for a population, 1 for a sample. NaN where
/// the divisor is not above 0. Real dtypes; bool and integers give float32.
[[nodiscard]] ORNIK_API Tensor* var(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false,
                                    double correction = 1);
/// The square root of var, under two names.
[[nodiscard]] ORNIK_API Tensor* std_dev(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false,
                                        double correction = 1);
[[nodiscard]] ORNIK_API Tensor* std(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false,
                                    double correction = 1);
/// log(sum(exp(x))) without overflow; no elements give -infinity. float32 and float64.
[[nodiscard]] ORNIK_API Tensor* logsumexp(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// The sum along the diagonal of two axes (see Tensor::diagonal), over all other positions.
[[nodiscard]] ORNIK_API Tensor* trace(Tensor* x, std::int64_t offset = 0, int dim1 = 0, int dim2 = 1);

/// t summed over the axes along which `shape` was broadcast to t's shape: the gradient of broadcasting. Any dtype,
/// which stays; integers wrap, bool is the or. A view when nothing is to be summed.
ORNIK_API Tensor* sum_to_shape(const Tensor* t, const Dims& shape);

/// Complex too, as prod_grad, mean_grad and trace_grad.
[[nodiscard]] ORNIK_API Tensor* sum_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                         bool keep_dims = false);
[[nodiscard]] ORNIK_API Tensor* prod_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                          bool keep_dims = false);
[[nodiscard]] ORNIK_API Tensor* mean_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                          bool keep_dims = false);
/// 0 where the norm is 0. Complex too.
[[nodiscard]] ORNIK_API Tensor* l2_norm_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                             bool keep_dims = false);
[[nodiscard]] ORNIK_API Tensor* var_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                         bool keep_dims = false, double correction = 1);
/// 0 where the deviation is 0.
[[nodiscard]] ORNIK_API Tensor* std_dev_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                             bool keep_dims = false, double correction = 1);
[[nodiscard]] ORNIK_API Tensor* std_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                         bool keep_dims = false, double correction = 1);
/// exp(x - logsumexp(x)); NaN for an element that is +infinity, 0 where the result is -infinity.
[[nodiscard]] ORNIK_API Tensor* logsumexp_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                               bool keep_dims = false);
[[nodiscard]] ORNIK_API Tensor* trace_grad(Tensor* grad, Tensor* x, std::int64_t offset = 0, int dim1 = 0,
                                           int dim2 = 1);

// The correction comes last: a number in the place of keep_dims does not compile.
template <typename T>
concept NotAFlag = !std::same_as<T, bool> && std::is_arithmetic_v<T>;
Tensor* var(Tensor*, const std::vector<int>&, NotAFlag auto correction, bool keep_dims = false) = delete;
Tensor* std_dev(Tensor*, const std::vector<int>&, NotAFlag auto correction, bool keep_dims = false) = delete;
Tensor* std(Tensor*, const std::vector<int>&, NotAFlag auto correction, bool keep_dims = false) = delete;
Tensor* var_grad(Tensor*, Tensor*, const std::vector<int>&, NotAFlag auto correction, bool keep_dims = false) = delete;
Tensor* std_dev_grad(Tensor*, Tensor*, const std::vector<int>&, NotAFlag auto correction,
                     bool keep_dims = false) = delete;
Tensor* std_grad(Tensor*, Tensor*, const std::vector<int>&, NotAFlag auto correction, bool keep_dims = false) = delete;

// ---- Extremes and order; real dtypes. NaN wins: a result is NaN when an element is. ----

// In parentheses: no macro of the name is taken for it.
[[nodiscard]] ORNIK_API Tensor*(max)(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
[[nodiscard]] ORNIK_API Tensor*(min)(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// int64 positions of the first largest (smallest) element among the reduced ones, counted in row-major order:
/// over all axes the flat index. The first NaN counts as the largest and the smallest.
[[nodiscard]] ORNIK_API Tensor* argmax(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
[[nodiscard]] ORNIK_API Tensor* argmin(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// The middle element in order, or the mean of the two middle ones. bool and integers give float32.
[[nodiscard]] ORNIK_API Tensor* median(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
/// True when any element is; NaN is true. All dtypes. No elements give false (all: true).
[[nodiscard]] ORNIK_API Tensor* any(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);
[[nodiscard]] ORNIK_API Tensor* all(Tensor* x, const std::vector<int>& axes = {}, bool keep_dims = false);

/// Elements equal to the result share its gradient in equal parts.
[[nodiscard]] ORNIK_API Tensor* max_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                         bool keep_dims = false);
[[nodiscard]] ORNIK_API Tensor* min_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                         bool keep_dims = false);
/// To the middle element, or half to each of the two; among equal ones, to those that a stable sort puts there.
[[nodiscard]] ORNIK_API Tensor* median_grad(Tensor* grad, Tensor* x, const std::vector<int>& axes = {},
                                            bool keep_dims = false);

// ---- Gradients that are given the result: y, shaped as grad, is what the function gave for x ----

ORNIK_API Tensor* l2_norm_grad_from(Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes = {},
                                    bool keep_dims = false);
ORNIK_API Tensor* std_dev_grad_from(Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes = {},
                                    bool keep_dims = false, double correction = 1);
ORNIK_API Tensor* logsumexp_grad_from(Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes = {},
                                      bool keep_dims = false);
/// Of max and of min, and of any result that is an element of x.
ORNIK_API Tensor* extreme_grad_from(Tensor* grad, Tensor* x, const Tensor* y, const std::vector<int>& axes = {},
                                    bool keep_dims = false);

// ---- Along one axis; results have x's shape ----

/// Running sums and products. bool and integers give int64; floating ones are added up in double.
[[nodiscard]] ORNIK_API Tensor* cumsum(Tensor* x, int axis);
[[nodiscard]] ORNIK_API Tensor* cumprod(Tensor* x, int axis);
/// exp(x) / sum(exp(x)) and its logarithm. float32 and float64.
[[nodiscard]] ORNIK_API Tensor* softmax(Tensor* x, int axis);
[[nodiscard]] ORNIK_API Tensor* log_softmax(Tensor* x, int axis);

/// Complex too.
[[nodiscard]] ORNIK_API Tensor* cumsum_grad(Tensor* grad, int axis);
/// Complex too; right also where elements are zero.
[[nodiscard]] ORNIK_API Tensor* cumprod_grad(Tensor* grad, Tensor* x, int axis);
/// These two take the result y = softmax(x) or log_softmax(x) in place of x.
[[nodiscard]] ORNIK_API Tensor* softmax_grad(Tensor* grad, Tensor* y, int axis);
[[nodiscard]] ORNIK_API Tensor* log_softmax_grad(Tensor* grad, Tensor* y, int axis);

}  // namespace ornik
