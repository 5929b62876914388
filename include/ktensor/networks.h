// networks.h: linear maps, embeddings, attention and recurrent layers. First derivatives unless said otherwise.
#pragma once

#include <optional>
#include <utility>

#include "../descriptors/packing.h"
#include "ktensor.h"

namespace ornik {

/// x W^T + b: x [..., in], weight [out, in], bias [out] or undefined. One floating or complex dtype. Second
/// derivatives.
[[nodiscard]] ORNIK_API KTensor linear(const KTensor& x, const KTensor& weight, const KTensor& bias = KTensor());

/// weight[indices[...], :]; the gradient's row of the padding index is 0.
[[nodiscard]] ORNIK_API KTensor embedding(const KTensor& indices, const KTensor& weight,
                                          std::optional<std::int64_t> padding_index = std::nullopt);

/// [..., classes] with 1 at the class, of [0, classes), that each integer of the indices names, and 0 elsewhere.
[[nodiscard]] ORNIK_API KTensor one_hot(const KTensor& indices, std::int64_t classes,
                                        std::int64_t dtype = dtype::float32);

// Sequences of different lengths (descriptors/packing.h); any dtype, second derivatives.

/// padded [batch, steps, ...] to packed [entries, ...]; `steps` may exceed the greatest length.
[[nodiscard]] ORNIK_API KTensor pack_sequences(const KTensor& padded, const Packing& packing);
/// packed [entries, ...] to padded [batch, steps, ...], `padding` behind the sequences. steps 0: the greatest length.
[[nodiscard]] ORNIK_API KTensor unpack_sequences(const KTensor& packed, const Packing& packing, std::int64_t steps = 0,
                                                 double padding = 0);

struct AttentionArguments {
    KTensor mask{};       ///< bool, true may be attended to, or floating, added to the scores; broadcasts to them
    bool causal = false;  ///< position i attends to the first i + 1 alone
    double scale = 0;     ///< of the scores; 0 stands for 1 / sqrt(width)
    double dropout = 0;   ///< of the probabilities
};

/// softmax(q k^T scale) v over the last two axes: query [..., n, d], key [..., m, d], value [..., m, e].
[[nodiscard]] ORNIK_API KTensor scaled_dot_product_attention(const KTensor& query, const KTensor& key,
                                                             const KTensor& value,
                                                             const AttentionArguments& arguments = {});
/// The same, and the probabilities [..., n, m] before dropout, which have no gradient.
[[nodiscard]] ORNIK_API std::pair<KTensor, KTensor> attention_with_probabilities(
    const KTensor& query, const KTensor& key, const KTensor& value, const AttentionArguments& arguments = {});

/// Weights of one layer and direction: [gates H, in], [gates H, H], and biases [gates H] or undefined.
struct RecurrentParameters {
    KTensor input_weight{};
    KTensor hidden_weight{};
    KTensor input_bias{};
    KTensor hidden_bias{};
};

struct RecurrentResult {
    KTensor output{};  ///< [steps, N, H], or packed [entries, H]
    KTensor hidden{};  ///< [N, H] after each sequence's last step
    KTensor cell{};    ///< the same of an LSTM
};

/// One layer and direction over all steps of x [steps, N, in], or packed [entries, in] with the batch sizes of each
/// step; states [N, H] or undefined for zeros. `reverse` starts with the last step of each sequence. Gates and
/// formulas: layers/functional/recurrent.h.
[[nodiscard]] ORNIK_API RecurrentResult lstm(const KTensor& x, const KTensor& hidden, const KTensor& cell,
                                             const RecurrentParameters& parameters, bool reverse = false,
                                             const Dims& batch_sizes = {});
[[nodiscard]] ORNIK_API RecurrentResult gru(const KTensor& x, const KTensor& hidden,
                                            const RecurrentParameters& parameters, bool reverse = false,
                                            const Dims& batch_sizes = {});

}  // namespace ornik
