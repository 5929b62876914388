// cpu_attention.h: the softmax of attention, scale and mask included. Internal.
//
// float32 and float64; rows are runs along the last axis.
#pragma once

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// In place: every row becomes softmax(scale row + mask). Scores are contiguous. The mask is null or has the
/// scores' shape, any strides, and either their dtype (added) or bool (false: counts as -infinity). A row of
/// -infinities becomes a row of zeros. `causal`: row i of a matrix sees its first i + 1 columns alone.
void attention_softmax(Tensor* scores, double scale, const Tensor* mask, bool causal = false);

/// In place: the gradient of the softmax y becomes that of the scores, scale y (g - sum(g y)). Contiguous.
void attention_softmax_grad(const Tensor* y, Tensor* gradient, double scale);

/// Rows of adjacent elements in matrices at any places: query [..., n, d], key [..., m, d], value [..., m, e]. The mask
/// is null or as above, of the shape [..., n, m].
struct AttentionOperands {
    const Tensor* query;
    const Tensor* key;
    const Tensor* value;
    const Tensor* mask;
    double scale;
    bool causal;
};

/// out [..., n, e], and the logarithms of the sums of exponentials [..., n], contiguous; infinity where a query sees
/// nothing. Keys count in pieces of 256, weighted by their highest scores.
void attention_rows(const AttentionOperands& from, Tensor* out, Tensor* log_sums);

struct AttentionResult {
    const Tensor* output;
    const Tensor* log_sums;
};

/// The gradients that are not null, of the operands' shapes; all matrices of adjacent rows again.
void attention_rows_grad(const AttentionOperands& from, const AttentionResult& result, const Tensor* gradient,
                         Tensor* query_gradient, Tensor* key_gradient, Tensor* value_gradient);

}  // namespace ornik::device::cpu
