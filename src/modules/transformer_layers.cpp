// transformer_layers.cpp: encoder and decoder blocks.
#include "modules/transformer_layers.h"

#include "arguments.h"
#include "ktensor/arithmetic.h"
#include "ktensor/elements.h"

namespace ornik {

namespace {

MultiheadAttention attention_of(const char* name, std::int64_t width, std::int64_t heads,
                                const TransformerOptions& options) {
    check_positive(name, {width, heads, options.feed_forward});
    check_probability(name, options.dropout);
    return {width, heads, {.dropout = options.dropout, .bias = options.bias, .batch_first = options.batch_first}};
}

LayerNorm norm_of(std::int64_t width, const TransformerOptions& options) {
    return LayerNorm({width}, options.eps, true, options.bias);
}

std::string arguments_of(std::int64_t width, std::int64_t heads, const TransformerOptions& options) {
    return Arguments()
        .add("width", width)
        .add("heads", heads)
        .add("feed_forward", options.feed_forward)
        .add("dropout", options.dropout)
        .add("norm_first", options.norm_first)
        .add_unless("batch_first", options.batch_first, false)
        .text();
}

// x + dropout(block(x)), normalized before the block or behind the sum. Without dropout, block(x, x) adds x itself.
template <typename Block>
KTensor residual(const KTensor& x, const Part<LayerNorm>& norm, const TransformerOptions& options, bool training,
                 const Block& block) {
    const KTensor in = options.norm_first ? norm(x) : x;
    const KTensor sum = training ? x + dropout(block(in, KTensor()), options.dropout, true) : block(in, x);
    return options.norm_first ? sum : norm(sum);
}

KTensor feed_forward(const KTensor& x, const Part<Linear>& linear1, const Part<Linear>& linear2,
                     const TransformerOptions& options, bool training, const KTensor& added) {
    const std::optional<nn::LayerEnd> end = end_of(options.activation);
    const KTensor inner = end ? linear1(x, *end) : options.activation(linear1(x));
    return linear2(dropout(inner, options.dropout, training), nn::LayerEnd::none, added);
}

// With what is added to the result.
MultiheadArguments adding(MultiheadArguments arguments, const KTensor& added) {
    arguments.residual = added;
    return arguments;
}

template <typename Layer>
ModuleList<Layer> layers_of(const char* name, std::int64_t count, std::int64_t width, std::int64_t heads,
                            const TransformerOptions& options) {
    check_positive(name, {count});
    ModuleList<Layer> layers;
    for (std::int64_t i = 0; i < count; ++i) {
        layers.append(Layer(width, heads, options));
    }
    return layers;
}

}  // namespace

// ---- Encoder ----

TransformerEncoderLayer::TransformerEncoderLayer(std::int64_t width, std::int64_t heads,
                                                 const TransformerOptions& options)
    : options_(options),
      self_attn_(add("self_attn", attention_of("TransformerEncoderLayer", width, heads, options))),
      linear1_(add("linear1", Linear(width, options.feed_forward, options.bias))),
      linear2_(add("linear2", Linear(options.feed_forward, width, options.bias))),
      norm1_(add("norm1", norm_of(width, options))),
      norm2_(add("norm2", norm_of(width, options))) {
    set_arguments(arguments_of(width, heads, options));
}

KTensor TransformerEncoderLayer::forward(const KTensor& x, const MultiheadArguments& arguments) {
    const KTensor attended = residual(x, norm1_, options_, is_training(), [&](const KTensor& t, const KTensor& added) {
        return self_attn_(t, t, t, adding(arguments, added)).output;
    });
    return residual(attended, norm2_, options_, is_training(), [&](const KTensor& t, const KTensor& added) {
        return feed_forward(t, linear1_, linear2_, options_, is_training(), added);
    });
}

TransformerEncoder::TransformerEncoder(std::int64_t layers, std::int64_t width, std::int64_t heads,
                                       const TransformerOptions& options)
    : layers_(add("layers", layers_of<TransformerEncoderLayer>("TransformerEncoder", layers, width, heads, options))) {
    if (options.final_norm) {
        norm_ = add("norm", norm_of(width, options));
    }
}

KTensor TransformerEncoder::forward(const KTensor& x, const MultiheadArguments& arguments) {
    KTensor y = x;
    for (const auto& layer : *layers_) {
        y = layer->forward(y, arguments);
    }
    return norm_ ? (*norm_)(y) : y;
}

// ---- Decoder ----

TransformerDecoderLayer::TransformerDecoderLayer(std::int64_t width, std::int64_t heads,
                                                 const TransformerOptions& options)
    : options_(options),
      self_attn_(add("self_attn", attention_of("TransformerDecoderLayer", width, heads, options))),
      multihead_attn_(add("multihead_attn", attention_of("TransformerDecoderLayer", width, heads, options))),
      linear1_(add("linear1", Linear(width, options.feed_forward, options.bias))),
      linear2_(add("linear2", Linear(options.feed_forward, width, options.bias))),
      norm1_(add("norm1", norm_of(width, options))),
      norm2_(add("norm2", norm_of(width, options))),
      norm3_(add("norm3", norm_of(width, options))) {
    set_arguments(arguments_of(width, heads, options));
}

KTensor TransformerDecoderLayer::forward(const KTensor& x, const KTensor& memory, const DecoderArguments& arguments) {
    const KTensor own = residual(x, norm1_, options_, is_training(), [&](const KTensor& t, const KTensor& added) {
        return self_attn_(t, t, t, adding(arguments.self, added)).output;
    });
    const KTensor attended =
        residual(own, norm2_, options_, is_training(), [&](const KTensor& t, const KTensor& added) {
            return multihead_attn_(t, memory, memory, adding(arguments.memory, added)).output;
        });
    return residual(attended, norm3_, options_, is_training(), [&](const KTensor& t, const KTensor& added) {
        return feed_forward(t, linear1_, linear2_, options_, is_training(), added);
    });
}

TransformerDecoder::TransformerDecoder(std::int64_t layers, std::int64_t width, std::int64_t heads,
                                       const TransformerOptions& options)
    : layers_(add("layers", layers_of<TransformerDecoderLayer>("TransformerDecoder", layers, width, heads, options))) {
    if (options.final_norm) {
        norm_ = add("norm", norm_of(width, options));
    }
}

KTensor TransformerDecoder::forward(const KTensor& x, const KTensor& memory, const DecoderArguments& arguments) {
    KTensor y = x;
    for (const auto& layer : *layers_) {
        y = layer->forward(y, memory, arguments);
    }
    return norm_ ? (*norm_)(y) : y;
}

}  // namespace ornik
