// attention_layers.h: multi-head attention (Vaswani and others, 2017).
#pragma once

#include <array>
#include <cstdint>

#include "basic_layers.h"
#include "module.h"

namespace ornik {

struct MultiheadOptions {
    double dropout = 0;  ///< of the probabilities, in training
    bool bias = true;
    bool batch_first = false;
    std::int64_t key_width = 0;    ///< 0: as the query's
    std::int64_t value_width = 0;  ///< 0: as the query's
    bool extra_key = false;        ///< a learned key and value behind all others
    bool zero_key = false;         ///< a key and value of zeros behind all others
};

/// Masks forbid: a bool one where it is true, a floating one by what it adds to the scores (as a mask of
/// scaled_dot_product_attention, whose bool masks say the opposite, does). A position that may attend to nothing gets
/// zeros, and so do the gradients through it.
struct MultiheadArguments {
    KTensor mask{};              ///< [targets, sources] or [N heads, targets, sources]
    KTensor key_padding_mask{};  ///< [N, sources]: of sources, for all targets and heads
    bool causal = false;         ///< target i attends to the first i + 1 sources alone
    bool want_weights = false;
    bool average_weights = true;  ///< over the heads
    KTensor residual{};           ///< of the output's shape, added to it
};

struct MultiheadResult {
    KTensor output;
    /// The probabilities before dropout, without gradients, if wanted: [N, targets, sources], or
    /// [N, heads, targets, sources].
    KTensor weights;
};

/// Query [targets, N, E], key and value [sources, N, *], or with batch_first [N, targets, E] and so on, or without N.
///
/// Parameters: in_proj_weight [3 E, E], the rows of query, key and value, or for other widths q_proj_weight [E, E],
/// k_proj_weight [E, key width] and v_proj_weight [E, value width]; uniform within sqrt(6 / (rows + columns)).
/// in_proj_bias [3 E], 0. out_proj.weight [E, E] as in Linear, out_proj.bias 0. bias_k and bias_v [1, 1, E] of the
/// extra key, normal with deviation 1 / sqrt(E).
class ORNIK_API MultiheadAttention : public Module {
  public:
    MultiheadAttention(std::int64_t width, std::int64_t heads, const MultiheadOptions& options = {});
    /// Of x to itself.
    KTensor forward(const KTensor& x) override { return forward(x, x, x).output; }
    MultiheadResult forward(const KTensor& query, const KTensor& key, const KTensor& value,
                            const MultiheadArguments& arguments = {});

    KTensor in_proj_weight;
    KTensor q_proj_weight;
    KTensor k_proj_weight;
    KTensor v_proj_weight;
    KTensor in_proj_bias;
    KTensor bias_k;
    KTensor bias_v;

  private:
    struct Triple {
        KTensor query;
        KTensor key;
        KTensor value;
    };
    Triple project(const Triple& x);
    void append_keys(Triple& x) const;
    KTensor to_heads(const KTensor& x) const;
    KTensor mask_of(const MultiheadArguments& arguments, const Dims& scores, std::int64_t extra,
                    std::int64_t dtype) const;
    void check(const Triple& x) const;

    std::int64_t width_;
    std::int64_t heads_;
    MultiheadOptions options_;
    Part<Linear> out_proj_;
    std::array<PreparedWeight, 3> prepared_;  // of query, key and value; the first one of all together
};

}  // namespace ornik
