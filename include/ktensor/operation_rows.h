// operation_rows.h: every operation that records gradients. Internal.
//
//   twice   the gradient is made of recorded operations when asked to: second derivatives
//   once    only first derivatives
//
// The tests walk this list: an operation without a check of its gradient fails.
#pragma once

#include <cstdint>

#include "../descriptors/element_operations.h"

// clang-format off

//      name              second derivatives
#define ORNIK_ARITHMETIC_ROWS(ROW) \
    ROW(add,              twice) \
    ROW(add_all,          twice) \
    ROW(sub,              twice) \
    ROW(mul,              twice) \
    ROW(div,              twice) \
    ROW(add_scalar,       twice) \
    ROW(mul_scalar,       twice) \
    ROW(div_scalar,       twice) \
    ROW(hypot,            twice) \
    ROW(logaddexp,        twice) \
    ROW(copysign,         twice) \
    ROW(where,            twice) \
    ROW(clamp,            twice) \
    ROW(clamp_min,        twice) \
    ROW(clamp_max,        twice)

#define ORNIK_SHAPE_ROWS(ROW) \
    ROW(astype,           twice) \
    ROW(clone,            twice) \
    ROW(broadcast_to,     twice) \
    ROW(sum_to_shape,     twice) \
    ROW(reshape,          twice) \
    ROW(permute,          twice) \
    ROW(squeeze,          twice) \
    ROW(unsqueeze,        twice) \
    ROW(flip,             twice)

#define ORNIK_JOIN_ROWS(ROW) \
    ROW(concat,           twice) \
    ROW(stack,            twice) \
    ROW(split,            twice) \
    ROW(windows,          twice) \
    ROW(add_windows,      twice) \
    ROW(tile,             twice) \
    ROW(repeat_by_counts, twice) \
    ROW(roll,             twice) \
    ROW(pad,              twice) \
    ROW(view_as_real,     twice) \
    ROW(view_as_complex,  twice) \
    ROW(interpolate,      twice) \
    ROW(pack_sequences,   twice) \
    ROW(unpack_sequences, twice)

#define ORNIK_REDUCTION_ROWS(ROW) \
    ROW(sum,              twice) \
    ROW(mean,             twice) \
    ROW(prod,             twice) \
    ROW(l2_norm,          twice) \
    ROW(var,              twice) \
    ROW(std_dev,          twice) \
    ROW(logsumexp,        twice) \
    ROW(trace,            twice) \
    ROW(max,              twice) \
    ROW(min,              twice) \
    ROW(median,           twice) \
    ROW(cumsum,           twice) \
    ROW(cumprod,          twice) \
    ROW(softmax,          twice) \
    ROW(log_softmax,      twice) \
    ROW(sort,             twice) \
    ROW(topk,             twice)

#define ORNIK_INDEX_ROWS(ROW) \
    ROW(index,            twice) \
    ROW(index_put,        twice) \
    ROW(index_select,     twice) \
    ROW(index_add,        twice) \
    ROW(take,             twice) \
    ROW(gather,           twice) \
    ROW(scatter,          twice) \
    ROW(scatter_add,      twice) \
    ROW(masked_select,    twice) \
    ROW(diagonal,         twice) \
    ROW(diagonal_scatter, twice) \
    ROW(diag_embed,       twice) \
    ROW(tril,             twice) \
    ROW(triu,             twice)

#define ORNIK_PRODUCT_ROWS(ROW) \
    ROW(matmul,           twice) \
    ROW(kron,             twice) \
    ROW(eigh,             twice) \
    ROW(eigvalsh,         twice) \
    ROW(sparse_dot,       twice)

#define ORNIK_DECOMPOSITION_ROWS(ROW) \
    ROW(cholesky,         twice) \
    ROW(qr,               twice) \
    ROW(svd,              twice) \
    ROW(eig,              twice) \
    ROW(svdvals,          twice) \
    ROW(inv,              twice) \
    ROW(solve,            twice) \
    ROW(det,              twice) \
    ROW(slogdet,          twice) \
    ROW(pinv,             twice)

#define ORNIK_FOURIER_ROWS(ROW) \
    ROW(fft,              twice) \
    ROW(rfft,             twice) \
    ROW(irfft,            twice)

#define ORNIK_LAYER_ROWS(ROW) \
    ROW(relu,             twice) \
    ROW(leaky_relu,       once)  \
    ROW(elu,              once)  \
    ROW(selu,             once)  \
    ROW(hardtanh,         once)  \
    ROW(hardsigmoid,      once)  \
    ROW(hardswish,        once)  \
    ROW(mish,             once)  \
    ROW(dropout,          twice) \
    ROW(convolution,      once)  \
    ROW(max_pool,         once)  \
    ROW(average_pool,     once)  \
    ROW(adaptive_average_pool, once) \
    ROW(batch_norm,       once)  \
    ROW(layer_norm,       once)  \
    ROW(group_norm,       once)  \
    ROW(linear,           twice) \
    ROW(embedding,        once)  \
    ROW(scaled_dot_product_attention, once) \
    ROW(lstm,             once)  \
    ROW(gru,              once)  \
    ROW(cross_entropy,    once)  \
    ROW(nll_loss,         once)  \
    ROW(mse_loss,         once)  \
    ROW(l1_loss,          once)  \
    ROW(smooth_l1_loss,   once)  \
    ROW(huber_loss,       once)  \
    ROW(binary_cross_entropy, once) \
    ROW(binary_cross_entropy_with_logits, once) \
    ROW(kl_div,           once)

// Every list but those of element-wise mathematics.
#define ORNIK_OPERATION_ROWS(ROW) \
    ORNIK_ARITHMETIC_ROWS(ROW) \
    ORNIK_SHAPE_ROWS(ROW)      \
    ORNIK_JOIN_ROWS(ROW)       \
    ORNIK_REDUCTION_ROWS(ROW)  \
    ORNIK_INDEX_ROWS(ROW)      \
    ORNIK_PRODUCT_ROWS(ROW)    \
    ORNIK_DECOMPOSITION_ROWS(ROW) \
    ORNIK_FOURIER_ROWS(ROW)    \
    ORNIK_LAYER_ROWS(ROW)      \
    ROW(checkpoint,       once)

// clang-format on

namespace ornik::autograd {

#define ORNIK_ELEMENT_ROW(name, accepts, result, error32, error64) name,
#define ORNIK_OPERATION_ROW(name, times) name,
enum class Op : std::uint16_t {
    ORNIK_DIFFERENTIABLE_OPERATIONS(ORNIK_ELEMENT_ROW) ORNIK_ARITHMETIC_PAIR_OPERATIONS(ORNIK_ELEMENT_ROW)
        ORNIK_OPERATION_ROWS(ORNIK_OPERATION_ROW) custom,
    count
};
#undef ORNIK_ELEMENT_ROW
#undef ORNIK_OPERATION_ROW

struct OpInfo {
    const char* name;
    bool twice;
};

inline constexpr bool once = false;
inline constexpr bool twice = true;

#define ORNIK_ELEMENT_ROW(name, accepts, result, error32, error64) {#name, twice},
#define ORNIK_OPERATION_ROW(name, times) {#name, times},
inline constexpr OpInfo operation_table[] = {
    ORNIK_DIFFERENTIABLE_OPERATIONS(ORNIK_ELEMENT_ROW) ORNIK_ARITHMETIC_PAIR_OPERATIONS(ORNIK_ELEMENT_ROW)
        ORNIK_OPERATION_ROWS(ORNIK_OPERATION_ROW){"custom", twice},
};
#undef ORNIK_ELEMENT_ROW
#undef ORNIK_OPERATION_ROW

constexpr const OpInfo& info_of(Op op) { return operation_table[static_cast<std::size_t>(op)]; }

}  // namespace ornik::autograd
