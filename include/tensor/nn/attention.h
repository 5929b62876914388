// attention.h: scaled dot-product and multi-head attention, forward and gradients. float32 and float64.
//
//     Tensor* probabilities = nullptr;  // kept for the backward pass
//     Tensor* y = scaled_dot_product_attention(q, k, v, mask, &probabilities);
//     AttentionGradients g = scaled_dot_product_attention_grad(q, k, v, probabilities, dy);
//
// All tensors of a call have one device and one dtype and may have any strides. A mask broadcasts to the scores:
// bool (true: may be attended to) or of the inputs' dtype (added to the scaled scores). A position that may
// attend to nothing gets zeros, and so do the gradients through it.
#pragma once

#include <array>
#include <memory>

#include "../../export.h"
#include "../tensor.h"

namespace ornik {

/// softmax(query key^T / sqrt(d) + mask) value. query [..., n, d], key [..., m, d], value [..., m, e], the same
/// leading axes; the result is [..., n, e], a new tensor that the caller deletes. When `probabilities` is not
/// null it receives the softmax [..., n, m], which the caller deletes, too.
[[nodiscard]] ORNIK_API Tensor* scaled_dot_product_attention(Tensor* query, Tensor* key, Tensor* value,
                                                             Tensor* mask = nullptr, Tensor** probabilities = nullptr);

struct AttentionGradients {
    std::unique_ptr<Tensor> query;
    std::unique_ptr<Tensor> key;
    std::unique_ptr<Tensor> value;
};

/// The gradients for query, key and value, from the probabilities of the forward pass, which carry the mask.
[[nodiscard]] ORNIK_API AttentionGradients scaled_dot_product_attention_grad(Tensor* query, Tensor* key, Tensor* value,
                                                                             Tensor* probabilities,
                                                                             Tensor* output_gradient);

namespace nn {

/// What scaled_dot_product_attention does not take.
struct AttentionOptions {
    Tensor* mask = nullptr;  ///< as above
    bool causal = false;     ///< position i may attend to the first i + 1 alone, besides what the mask says
    double scale = 0;        ///< of the scores; 0 stands for 1 / sqrt(d)
    double dropout = 0;      ///< of the probabilities, as dropout of layers/functional/dropout.h
};

struct Attended {
    std::unique_ptr<Tensor> output;
    std::unique_ptr<Tensor> probabilities;  ///< before any dropout
    std::unique_ptr<Tensor> kept;           ///< bool, what dropout kept; null without
};

/// As scaled_dot_product_attention.
ORNIK_API Attended attention(Tensor* query, Tensor* key, Tensor* value, const AttentionOptions& options = {});

struct AttentionGradients {
    std::unique_ptr<Tensor> query;
    std::unique_ptr<Tensor> key;
    std::unique_ptr<Tensor> value;
    std::unique_ptr<Tensor> mask;
};

/// Those that are wanted, in that order; the others are null. `kept` and the options are those of the forward pass;
/// the mask counts when its own gradient is wanted, and is not bool then.
ORNIK_API AttentionGradients attention_grad(Tensor* output_gradient, Tensor* query, Tensor* key, Tensor* value,
                                            Tensor* probabilities, Tensor* kept, const AttentionOptions& options = {},
                                            const std::array<bool, 4>& wanted = {true, true, true, false});

/// What attention leaves that keeps one number per query, not the probabilities.
struct AttendedRows {
    std::unique_ptr<Tensor> output;    ///< its axes follow each other in memory as the query's do
    std::unique_ptr<Tensor> log_sums;  ///< [..., n], the logarithms of the sums of exponentials
};
struct SavedRows {
    Tensor* output;
    Tensor* log_sums;
};

/// As attention(), in one pass without a tensor of scores. There is no dropout.
ORNIK_API AttendedRows attention_rows(Tensor* query, Tensor* key, Tensor* value, const AttentionOptions& options = {});

/// Those of query, key and value that are wanted; the others are null, as is the mask's.
ORNIK_API AttentionGradients attention_rows_grad(Tensor* output_gradient, Tensor* query, Tensor* key, Tensor* value,
                                                 const SavedRows& saved, const AttentionOptions& options = {},
                                                 const std::array<bool, 3>& wanted = {true, true, true});

}  // namespace nn

/// One dense map x W + b: weight [in, out], bias [out], [1, out] or null. Not owned.
struct AttentionProjection {
    Tensor* weight = nullptr;
    Tensor* bias = nullptr;
};

/// The parameters of multi-head attention. The outputs of query and key are heads x d wide, that of value and
/// the input of output heads x e.
struct MultiHeadParameters {
    AttentionProjection query;
    AttentionProjection key;
    AttentionProjection value;
    AttentionProjection output;
};

/// What a forward pass leaves for the backward pass.
struct MultiHeadState {
    std::unique_ptr<Tensor> query;          ///< projected, [b, heads, n, d]
    std::unique_ptr<Tensor> key;            ///< projected, [b, heads, m, d]
    std::unique_ptr<Tensor> value;          ///< projected, [b, heads, m, e]
    std::unique_ptr<Tensor> probabilities;  ///< [b, heads, n, m]
    std::unique_ptr<Tensor> merged;         ///< input of the output map, [b, n, heads * e]
};

/// Projects query [b, n, *], key and value [b, m, *], attends in `heads` heads, and projects the merged heads:
/// [b, n, out], a new tensor that the caller deletes. Self-attention passes one tensor three times. The mask
/// broadcasts to [b, heads, n, m]. When `state` is not null it receives what the backward pass needs.
[[nodiscard]] ORNIK_API Tensor* multi_head_attention(const MultiHeadParameters& parameters, int heads, Tensor* query,
                                                     Tensor* key, Tensor* value, Tensor* mask = nullptr,
                                                     MultiHeadState* state = nullptr);

/// Of one dense map; the bias is null where the map has none.
struct ProjectionGradients {
    std::unique_ptr<Tensor> weight;
    std::unique_ptr<Tensor> bias;
};

struct MultiHeadGradients {
    AttentionGradients inputs;  ///< Where one tensor was passed several times, its gradient is their sum.
    ProjectionGradients query;
    ProjectionGradients key;
    ProjectionGradients value;
    ProjectionGradients output;
};

/// The gradients for inputs and parameters, from the state of a forward pass with the same arguments.
[[nodiscard]] ORNIK_API MultiHeadGradients multi_head_attention_grad(const MultiHeadParameters& parameters,
                                                                     Tensor* query, Tensor* key, Tensor* value,
                                                                     const MultiHeadState& state,
                                                                     Tensor* output_gradient);

}  // namespace ornik
