// attention_layers.cpp: multi-head attention.
#include "modules/attention_layers.h"

#include <cmath>
#include <limits>

#include "arguments.h"
#include "ktensor/arithmetic.h"
#include "ktensor/elements.h"
#include "ktensor/impl.h"
#include "ktensor/joins.h"
#include "ktensor/networks.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "modules/initialization.h"

namespace ornik {

using autograd::describe;

namespace {

constexpr const char* module_name = "MultiheadAttention";

Linear output_map(std::int64_t width, std::int64_t heads, const MultiheadOptions& options) {
    check_positive(module_name, {width, heads});
    check_at_least(module_name, 0, {options.key_width, options.value_width});
    check_probability(module_name, options.dropout);
    if (width % heads != 0) {
        fail(where("ornik::MultiheadAttention"), module_name, "(): a width of ", width, " does not fall into ", heads,
             " heads.");
    }
    Linear map(width, width, options.bias);
    if (options.bias) {
        const std::span<float> elements = map.bias.detach().mutable_span<float>();
        std::fill(elements.begin(), elements.end(), 0.0F);
    }
    return map;
}

}  // namespace

MultiheadAttention::MultiheadAttention(std::int64_t width, std::int64_t heads, const MultiheadOptions& options)
    : width_(width), heads_(heads), options_(options), out_proj_(add("out_proj", output_map(width, heads, options))) {
    options_.key_width = options.key_width == 0 ? width : options.key_width;
    options_.value_width = options.value_width == 0 ? width : options.value_width;
    const auto add_weight = [this](const char* name, std::int64_t rows, std::int64_t columns) {
        return add_parameter(name, init::uniform({rows, columns}, init::xavier_bound(rows, columns)));
    };
    if (options_.key_width == width && options_.value_width == width) {
        in_proj_weight = add_weight("in_proj_weight", 3 * width, width);
    } else {
        q_proj_weight = add_weight("q_proj_weight", width, width);
        k_proj_weight = add_weight("k_proj_weight", width, options_.key_width);
        v_proj_weight = add_weight("v_proj_weight", width, options_.value_width);
    }
    if (options.bias) {
        in_proj_bias = add_parameter("in_proj_bias", KTensor::zeros({3 * width}));
    }
    if (options.extra_key) {
        const double deviation = 1 / std::sqrt(static_cast<double>(width));
        bias_k = add_parameter("bias_k", KTensor::randn({1, 1, width}, dtype::float32, 0, deviation));
        bias_v = add_parameter("bias_v", KTensor::randn({1, 1, width}, dtype::float32, 0, deviation));
    }
    set_arguments(Arguments()
                      .add("width", width)
                      .add("heads", heads)
                      .add_unless("dropout", options.dropout, 0.0)
                      .add_unless("bias", options.bias, true)
                      .add_unless("batch_first", options.batch_first, false)
                      .add_unless("key_width", options_.key_width, width)
                      .add_unless("value_width", options_.value_width, width)
                      .add_unless("extra_key", options.extra_key, false)
                      .add_unless("zero_key", options.zero_key, false)
                      .text());
}

void MultiheadAttention::check(const Triple& x) const {
    const auto has = [&](const KTensor& t, std::int64_t last, const KTensor& lengths_as) {
        return t.defined() && t.ndim() == 3 && t.size(-1) == last &&
               t.size(options_.batch_first ? 0 : 1) == x.query.size(options_.batch_first ? 0 : 1) &&
               t.size(options_.batch_first ? 1 : 0) == lengths_as.size(options_.batch_first ? 1 : 0);
    };
    if (!x.query.defined() || x.query.ndim() != 3 || x.query.size(-1) != width_ || !x.key.defined() ||
        x.key.ndim() != 3 || !has(x.key, options_.key_width, x.key) || !has(x.value, options_.value_width, x.key)) {
        fail(where("ornik::MultiheadAttention"), module_name, "(): query, key and value are ", describe(x.query), ", ",
             describe(x.key), " and ", describe(x.value), "; wanted are ",
             options_.batch_first ? "[N, targets, " : "[targets, N, ", width_,
             options_.batch_first ? "], [N, sources, " : "], [sources, N, ", options_.key_width,
             options_.batch_first ? "] and [N, sources, " : "] and [sources, N, ", options_.value_width, "].");
    }
}

// One product where all three are one tensor.
MultiheadAttention::Triple MultiheadAttention::project(const Triple& x) {
    const Dims thirds{width_, width_, width_};
    const auto map = [&](std::size_t i, const KTensor& t, const KTensor& weight, const KTensor& bias) {
        if (is_training()) {
            prepared_[i].drop();
            return linear(t, weight, bias);
        }
        return prepared_[i].linear(t, weight, bias);
    };
    if (in_proj_weight.defined() && x.query.is(x.key) && x.key.is(x.value)) {
        const std::vector<KTensor> parts = split(map(0, x.query, in_proj_weight, in_proj_bias), thirds, -1);
        return {parts[0], parts[1], parts[2]};
    }
    const std::vector<KTensor> weights = in_proj_weight.defined()
                                             ? split(in_proj_weight, thirds, 0)
                                             : std::vector<KTensor>{q_proj_weight, k_proj_weight, v_proj_weight};
    const std::vector<KTensor> biases =
        in_proj_bias.defined() ? split(in_proj_bias, thirds, 0) : std::vector<KTensor>(3);
    return {map(0, x.query, weights[0], biases[0]), map(1, x.key, weights[1], biases[1]),
            map(2, x.value, weights[2], biases[2])};
}

void MultiheadAttention::append_keys(Triple& x) const {
    Dims one = x.key.shape();
    one[options_.batch_first ? 1 : 0] = 1;
    const int sources = options_.batch_first ? 1 : 0;
    const auto append = [&](KTensor& t, const KTensor& last) { t = concat({t, last}, sources); };
    if (options_.extra_key) {
        append(x.key, broadcast_to(bias_k, one));
        append(x.value, broadcast_to(bias_v, one));
    }
    if (options_.zero_key) {
        append(x.key, KTensor::zeros(one, x.key.dtype()));
        append(x.value, KTensor::zeros(one, x.value.dtype()));
    }
}

// [N, heads, length, width / heads]
KTensor MultiheadAttention::to_heads(const KTensor& x) const {
    const KTensor parted = reshape(x, {x.size(0), x.size(1), heads_, width_ / heads_});
    return permute(parted, options_.batch_first ? std::vector<int>{0, 2, 1, 3} : std::vector<int>{1, 2, 0, 3});
}

// What scaled_dot_product_attention is to be told, under `scores` [N, heads, targets, sources]; the `extra` sources at
// the end are open to all.
KTensor MultiheadAttention::mask_of(const MultiheadArguments& arguments, const Dims& scores, std::int64_t extra,
                                    std::int64_t dtype) const {
    const std::int64_t sources = scores[3] - extra;
    std::vector<KTensor> parts;
    const auto add = [&](const char* what, const KTensor& mask, const Dims& shape) {
        if (mask.dtype() != dtype::boolean && !mask.is_floating()) {
            fail(ErrorKind::dtype, where("ornik::MultiheadAttention"), module_name, "(): the ", what, " is ",
                 describe(mask), ", neither bool nor floating.");
        }
        parts.push_back(reshape(mask, shape));
    };
    if (const KTensor& mask = arguments.mask; mask.defined()) {
        const Dims shared{scores[2], sources};
        const Dims single{scores[0] * scores[1], scores[2], sources};
        if (mask.shape() != shared && mask.shape() != single) {
            fail(where("ornik::MultiheadAttention"), module_name, "(): the mask is ", describe(mask), ", not ",
                 describe(shared, mask.dtype()), " or ", describe(single, mask.dtype()), ".");
        }
        add("mask", mask,
            mask.ndim() == 2 ? Dims{1, 1, scores[2], sources} : Dims{scores[0], scores[1], scores[2], sources});
    }
    if (const KTensor& mask = arguments.key_padding_mask; mask.defined()) {
        const Dims wanted{scores[0], sources};
        if (mask.shape() != wanted) {
            fail(where("ornik::MultiheadAttention"), module_name, "(): the key padding mask is ", describe(mask),
                 ", not ", describe(wanted, mask.dtype()), ".");
        }
        add("key padding mask", mask, {scores[0], 1, 1, sources});
    }
    if (arguments.causal && extra > 0) {
        const KTensor target = reshape(KTensor::arange(scores[2]), {1, 1, scores[2], 1});
        parts.push_back(greater(reshape(KTensor::arange(sources), {1, 1, 1, sources}), target));
    }
    if (parts.empty()) {
        return {};
    }
    const bool all_bool =
        std::all_of(parts.begin(), parts.end(), [](const KTensor& part) { return part.dtype() == dtype::boolean; });
    KTensor result;
    for (const KTensor& part : parts) {
        if (all_bool) {
            result = result.defined() ? logical_or(result, part) : part;
            continue;
        }
        const KTensor added = part.dtype() == dtype::boolean
                                  ? masked_fill(KTensor::zeros(part.shape(), dtype), part,
                                                Scalar(-std::numeric_limits<double>::infinity()))
                                  : astype(part, dtype);
        result = result.defined() ? result + added : added;
    }
    result = all_bool ? logical_not(result) : result;
    if (extra > 0) {
        Dims open = result.shape();
        open[3] = extra;
        result = concat({result, all_bool ? KTensor::ones(open, dtype::boolean) : KTensor::zeros(open, dtype)}, -1);
    }
    return result;
}

MultiheadResult MultiheadAttention::forward(const KTensor& query, const KTensor& key, const KTensor& value,
                                            const MultiheadArguments& arguments) {
    if (query.defined() && key.defined() && value.defined() && query.ndim() == 2) {
        // One sample: the same tensors stay the same, for the sake of project().
        const int batch = options_.batch_first ? 0 : 1;
        const KTensor q = unsqueeze(query, batch);
        const KTensor k = key.is(query) ? q : unsqueeze(key, batch);
        MultiheadArguments widened = arguments;
        if (arguments.key_padding_mask.defined()) {
            widened.key_padding_mask = unsqueeze(arguments.key_padding_mask, 0);
        }
        if (arguments.residual.defined()) {
            widened.residual = unsqueeze(arguments.residual, batch);
        }
        const MultiheadResult result = forward(q, k, value.is(key) ? k : unsqueeze(value, batch), widened);
        return {squeeze(result.output, {batch}), result.weights.defined() ? squeeze(result.weights, {0}) : KTensor()};
    }
    Triple x{query, key, value};
    check(x);
    x = project(x);
    const std::int64_t extra = (options_.extra_key ? 1 : 0) + (options_.zero_key ? 1 : 0);
    if (extra > 0) {
        append_keys(x);
    }
    x = {to_heads(x.query), to_heads(x.key), to_heads(x.value)};
    const Dims scores{x.query.size(0), heads_, x.query.size(2), x.key.size(2)};
    const AttentionArguments inner{.mask = mask_of(arguments, scores, extra, x.query.dtype()),
                                   .causal = arguments.causal && extra == 0,
                                   .dropout = is_training() ? options_.dropout : 0};
    auto [y, probabilities] = attention_with_probabilities(x.query, x.key, x.value, inner);
    const KTensor merged =
        permute(y, options_.batch_first ? std::vector<int>{0, 2, 1, 3} : std::vector<int>{2, 0, 1, 3});
    MultiheadResult result{
        out_proj_(reshape(merged, {merged.size(0), merged.size(1), width_}), nn::LayerEnd::none, arguments.residual),
        KTensor()};
    if (arguments.want_weights) {
        result.weights = arguments.average_weights ? mean(probabilities, {1}) : probabilities;
    }
    return result;
}

}  // namespace ornik
