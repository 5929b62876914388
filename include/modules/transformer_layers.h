// transformer_layers.h: encoders and decoders of attention and feed-forward blocks (Vaswani and others, 2017).
//
//     TransformerEncoder encoder(6, 512, 8, {.norm_first = true, .batch_first = true});
//     KTensor y = encoder.forward(x, {.causal = true});
//
// Each block is x + dropout(block(x)), with a layer normalization of the sum, or with norm_first of the block's
// operand. Masks are those of MultiheadAttention: true forbids.
#pragma once

#include <cstdint>
#include <optional>

#include "../ktensor/activations.h"
#include "attention_layers.h"
#include "containers.h"
#include "normalization_layers.h"

namespace ornik {

struct TransformerOptions {
    std::int64_t feed_forward = 2048;
    double dropout = 0.1;  ///< of each block's result, inside the feed-forward block, and of attention's probabilities
    KTensor (*activation)(const KTensor&) = relu;
    bool norm_first = false;
    bool batch_first = false;
    double eps = 1e-5;
    bool bias = true;
    bool final_norm = false;  ///< of a stack of layers: a normalization behind the last
};

/// Parameters: self_attn.*, linear1.*, linear2.*, norm1.*, norm2.*
class ORNIK_API TransformerEncoderLayer : public Module {
  public:
    TransformerEncoderLayer(std::int64_t width, std::int64_t heads, const TransformerOptions& options = {});
    KTensor forward(const KTensor& x) override { return forward(x, MultiheadArguments()); }
    KTensor forward(const KTensor& x, const MultiheadArguments& arguments);

  private:
    TransformerOptions options_;
    Part<MultiheadAttention> self_attn_;
    Part<Linear> linear1_;
    Part<Linear> linear2_;
    Part<LayerNorm> norm1_;
    Part<LayerNorm> norm2_;
};

/// Parameters: layers.0.*, layers.1.*, ..., norm.* with final_norm.
class ORNIK_API TransformerEncoder : public Module {
  public:
    TransformerEncoder(std::int64_t layers, std::int64_t width, std::int64_t heads,
                       const TransformerOptions& options = {});
    KTensor forward(const KTensor& x) override { return forward(x, MultiheadArguments()); }
    KTensor forward(const KTensor& x, const MultiheadArguments& arguments);

  private:
    Part<ModuleList<TransformerEncoderLayer>> layers_;
    std::optional<Part<LayerNorm>> norm_;
};

/// Of the targets among themselves, and of the targets to the encoder's results.
struct DecoderArguments {
    MultiheadArguments self{};
    MultiheadArguments memory{};
};

/// Parameters: self_attn.*, multihead_attn.*, linear1.*, linear2.*, norm1.*, norm2.*, norm3.*
class ORNIK_API TransformerDecoderLayer : public Module {
  public:
    TransformerDecoderLayer(std::int64_t width, std::int64_t heads, const TransformerOptions& options = {});
    using Module::forward;
    KTensor forward(const KTensor& x, const KTensor& memory, const DecoderArguments& arguments = {});

  private:
    TransformerOptions options_;
    Part<MultiheadAttention> self_attn_;
    Part<MultiheadAttention> multihead_attn_;
    Part<Linear> linear1_;
    Part<Linear> linear2_;
    Part<LayerNorm> norm1_;
    Part<LayerNorm> norm2_;
    Part<LayerNorm> norm3_;
};

/// Parameters: layers.0.*, layers.1.*, ..., norm.* with final_norm.
class ORNIK_API TransformerDecoder : public Module {
  public:
    TransformerDecoder(std::int64_t layers, std::int64_t width, std::int64_t heads,
                       const TransformerOptions& options = {});
    using Module::forward;
    KTensor forward(const KTensor& x, const KTensor& memory, const DecoderArguments& arguments = {});

  private:
    Part<ModuleList<TransformerDecoderLayer>> layers_;
    std::optional<Part<LayerNorm>> norm_;
};

}  // namespace ornik
