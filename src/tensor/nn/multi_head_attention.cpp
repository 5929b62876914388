#include "attention_checks.h"
#include "tensor/nn/attention.h"
#include "tensor/nn/linear.h"
#include "tensor/tensor_shape.h"

namespace ornik {

namespace {

void check_input(const Where& at, const char* name, const Tensor* t) {
    if (t->ndim() != 3) {
        fail(at, "Multi-head attention needs a ", name, " [batch, positions, features], however it is ", t->Shape());
    }
}

void check_projection(const Where& at, const char* name, const AttentionProjection& map, const Tensor* first,
                      std::int64_t in) {
    const Tensor* weight = map.weight;
    if (weight->ndim() != 2 || weight->Shape()[0] != in || weight->Size() < 1) {
        fail(at, "Multi-head attention needs a ", name, " weight [", in, ", out], however it is ", weight->Shape());
    }
    if (map.bias == nullptr) {
        return;
    }
    check_attention_operands(at, {first, map.bias});
    const std::int64_t out = weight->Shape()[1];
    if (map.bias->Shape() != Dims{out} && map.bias->Shape() != Dims{1, out}) {
        fail(at, "Multi-head attention needs a ", name, " bias [", out, "], however it is ", map.bias->Shape());
    }
}

void check(const Where& at, const MultiHeadParameters& parameters, int heads, const Tensor* query, const Tensor* key,
           const Tensor* value) {
    check_attention_operands(at, {query, key, value, parameters.query.weight, parameters.key.weight,
                                  parameters.value.weight, parameters.output.weight});
    check_input(at, "query", query);
    check_input(at, "key", key);
    check_input(at, "value", value);
    if (key->Shape()[0] != query->Shape()[0] || value->Shape()[0] != query->Shape()[0] ||
        key->Shape()[1] != value->Shape()[1]) {
        fail(at, "Multi-head attention needs one batch, and as many keys as values: query ", query->Shape(), ", key ",
             key->Shape(), ", value ", value->Shape());
    }
    check_projection(at, "query", parameters.query, query, query->Shape()[2]);
    check_projection(at, "key", parameters.key, query, key->Shape()[2]);
    check_projection(at, "value", parameters.value, query, value->Shape()[2]);
    check_projection(at, "output", parameters.output, query, parameters.value.weight->Shape()[1]);
    const std::int64_t width = parameters.query.weight->Shape()[1];
    const std::int64_t value_width = parameters.value.weight->Shape()[1];
    if (parameters.key.weight->Shape()[1] != width) {
        fail(at, "Queries and keys should be equally wide, they are ", width, " and ",
             parameters.key.weight->Shape()[1]);
    }
    if (heads < 1 || width % heads != 0 || value_width % heads != 0) {
        fail(at, "Widths of ", width, " and ", value_width, " can not be cut into ", heads, " heads.");
    }
}

std::unique_ptr<Tensor> project_to_heads(const AttentionProjection& map, Tensor* input, int heads) {
    const std::unique_ptr<Tensor> projected = linear(map.weight, map.bias, input);
    return std::unique_ptr<Tensor>(reshape_permute_select(projected.get(), heads));
}

ProjectionGradients projection_gradients(const AttentionProjection& map, Tensor* input, Tensor* gradient) {
    return {linear_weight_grad(input, gradient), map.bias == nullptr ? nullptr : linear_bias_grad(map.bias, gradient)};
}

void check_state(const Where& at, const MultiHeadState& state, const Tensor* query, const Tensor* key,
                 const MultiHeadParameters& parameters) {
    check_attention_operands(at, {query, state.query.get(), state.key.get(), state.value.get(),
                                  state.probabilities.get(), state.merged.get()});
    const Dims& q = state.query->Shape();
    const auto fits = [&](const Tensor* heads, const Tensor* input, const AttentionProjection& map) {
        const Dims& shape = heads->Shape();
        return shape.size() == 4 && shape[0] == input->Shape()[0] && shape[1] == q[1] &&
               shape[2] == input->Shape()[1] && shape[1] * shape[3] == map.weight->Shape()[1];
    };
    if (!fits(state.query.get(), query, parameters.query) || !fits(state.key.get(), key, parameters.key) ||
        !fits(state.value.get(), key, parameters.value) ||
        state.merged->Shape() != Dims{q[0], q[2], parameters.output.weight->Shape()[0]}) {
        fail(at, "The state of multi-head attention is not of these inputs.");
    }
}

}  // namespace

Tensor* multi_head_attention(const MultiHeadParameters& parameters, int heads, Tensor* query, Tensor* key,
                             Tensor* value, Tensor* mask, MultiHeadState* state) {
    const Where at = where("ornik::multi_head_attention");
    check(at, parameters, heads, query, key, value);
    check_attention_mask(at, mask, query->Dtype(), query->Device(),
                         {query->Shape()[0], heads, query->Shape()[1], key->Shape()[1]});

    MultiHeadState pass;
    pass.query = project_to_heads(parameters.query, query, heads);
    pass.key = project_to_heads(parameters.key, key, heads);
    pass.value = project_to_heads(parameters.value, value, heads);
    Tensor* probabilities = nullptr;
    const std::unique_ptr<Tensor> attended(
        scaled_dot_product_attention(pass.query.get(), pass.key.get(), pass.value.get(), mask, &probabilities));
    pass.probabilities.reset(probabilities);
    pass.merged.reset(permute_12_reshape_b_n_embed_dims(attended.get()));
    std::unique_ptr<Tensor> output = linear(parameters.output.weight, parameters.output.bias, pass.merged.get());
    if (state != nullptr) {
        *state = std::move(pass);
    }
    return output.release();
}

MultiHeadGradients multi_head_attention_grad(const MultiHeadParameters& parameters, Tensor* query, Tensor* key,
                                             Tensor* value, const MultiHeadState& state, Tensor* output_gradient) {
    const Where at = where("ornik::multi_head_attention_grad");
    check(at, parameters, 1, query, key, value);
    check_state(at, state, query, key, parameters);
    check_attention_operands(at, {query, output_gradient});
    check_attention_gradient(at, output_gradient,
                             {query->Shape()[0], query->Shape()[1], parameters.output.weight->Shape()[1]});

    MultiHeadGradients gradients;
    gradients.output = projection_gradients(parameters.output, state.merged.get(), output_gradient);
    const std::unique_ptr<Tensor> merged = linear_input_grad(parameters.output.weight, output_gradient);
    const int heads = static_cast<int>(state.query->Shape()[1]);
    const std::unique_ptr<Tensor> attended(reshape_permute_select(merged.get(), heads));
    const AttentionGradients inner = scaled_dot_product_attention_grad(
        state.query.get(), state.key.get(), state.value.get(), state.probabilities.get(), attended.get());
    const auto through = [](const AttentionProjection& map, Tensor* input, const Tensor* heads_gradient,
                            std::unique_ptr<Tensor>& input_gradient) {
        const std::unique_ptr<Tensor> gradient(permute_12_reshape_b_n_embed_dims(heads_gradient));
        input_gradient = linear_input_grad(map.weight, gradient.get());
        return projection_gradients(map, input, gradient.get());
    };
    gradients.query = through(parameters.query, query, inner.query.get(), gradients.inputs.query);
    gradients.key = through(parameters.key, key, inner.key.get(), gradients.inputs.key);
    gradients.value = through(parameters.value, value, inner.value.get(), gradients.inputs.value);
    return gradients;
}

}  // namespace ornik
