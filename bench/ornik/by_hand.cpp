#include "by_hand.h"

#include <algorithm>
#include <array>

namespace bench {

namespace {

namespace nn = ornik::nn;
using ornik::Dims;
using ornik::Tensor;

Owned own(Tensor* t) { return Owned(t); }

// a + b, in b's memory.
Owned sum_into(const Owned& a, Owned b) {
    ornik::add(1, a.get(), 1, b.get(), b.get(), 0);
    return b;
}

}  // namespace

HandPass network_by_hand(const std::vector<Tensor*>& state, Tensor* images, Tensor* labels) {
    constexpr std::size_t parameters = 10;
    const nn::ConvParameters same{.padding = {ornik::PaddingPair{1, 1}, ornik::PaddingPair{1, 1}}};
    const nn::PoolParameters halves{{2, 2}, {2, 2}};
    struct Stage {
        Tensor* input;
        Owned convolved;
        nn::Normalized normalized;
        Owned activated;
        nn::MaxPool pooled;
        Tensor* weight() const { return parameters_[0]; }
        Tensor* gamma() const { return parameters_[1]; }
        Tensor* const* parameters_;
    };
    std::array<Stage, 2> stages{};
    Tensor* input = images;
    for (std::size_t i = 0; i < stages.size(); ++i) {
        Stage& s = stages[i];
        s.input = input;
        s.parameters_ = state.data() + 3 * i;
        s.convolved = nn::convolution(input, s.weight(), nullptr, same);
        s.normalized = nn::batch_norm(s.convolved.get(), s.gamma(), s.parameters_[2]);
        Tensor* const* running = state.data() + parameters + 3 * i;
        const std::int64_t count = s.convolved->Size() / s.convolved->Shape()[1];
        nn::update_running_statistics(running[0], running[1], s.normalized.mean.get(), s.normalized.variance.get(),
                                      count, 0.1);
        s.activated = nn::relu(s.normalized.output.get());
        s.normalized.output.reset();
        s.pooled = nn::max_pool(s.activated.get(), halves);
        input = s.pooled.output.get();
    }
    Tensor* const* const hidden = state.data() + 6;
    Tensor* const* const scores = state.data() + 8;
    const Dims pooled_shape = input->Shape();
    Owned flat = own(input->reshape({pooled_shape[0], -1}));
    stages[1].pooled.output.reset();
    Owned units = nn::relu(nn::linear(flat.get(), hidden[0], hidden[1]).get());
    Owned score = nn::linear(units.get(), scores[0], scores[1]);
    HandPass pass{nn::cross_entropy(score.get(), labels), std::vector<Owned>(parameters)};

    const Owned one = own(Tensor::zeros_like(pass.result.get()));
    one->fill_(1);
    Owned g = nn::cross_entropy_grad(one.get(), score.get(), labels).prediction;
    score.reset();
    const auto back_linear = [&](std::size_t first, Owned& x) {
        pass.gradients[first] = nn::linear_weight_grad(g.get(), x.get());
        pass.gradients[first + 1] = nn::linear_bias_grad(g.get());
        g = nn::linear_input_grad(g.get(), state[first]);
    };
    back_linear(8, units);
    g = nn::relu_grad(units.get(), g.get());
    units.reset();
    back_linear(6, flat);
    flat.reset();
    g = own(g->reshape(pooled_shape));
    for (std::size_t i = stages.size(); i-- > 0;) {
        Stage& s = stages[i];
        g = nn::max_pool_grad(g.get(), s.pooled.positions.get(), s.activated->Shape(), halves);
        s.pooled.positions.reset();
        g = nn::relu_grad(s.activated.get(), g.get());
        s.activated.reset();
        nn::NormGradients norm = nn::batch_norm_grad(g.get(), s.convolved.get(), s.gamma(), s.normalized.mean.get(),
                                                     s.normalized.variance.get(), 1e-5, false);
        s.convolved.reset();
        g = std::move(norm.input);
        pass.gradients[3 * i] = nn::convolution_weight_grad(g.get(), s.input, s.weight()->Shape(), same);
        pass.gradients[3 * i + 1] = std::move(norm.gamma);
        pass.gradients[3 * i + 2] = std::move(norm.beta);
        if (i > 0) {
            g = nn::convolution_input_grad(g.get(), s.input->Shape(), s.weight(), same);
            stages[i - 1].pooled.output.reset();
        }
    }
    return pass;
}

HandPass block_by_hand(const std::vector<Tensor*>& p, int heads, Tensor* x, Tensor* result_gradient) {
    enum { norm1 = 0, query = 2, key = 4, value = 6, out = 8, norm2 = 10, up = 12, down = 14, input = 16 };
    const Dims shape = x->Shape();
    const Dims split{shape[0], shape[1], heads, shape[2] / heads};
    const std::vector<int> middle_axes{0, 2, 1, 3};
    const auto linear = [&](const Owned& t, int first) { return nn::linear(t.get(), p[first], p[first + 1]); };
    const auto norm = [&](Tensor* t, int first) { return nn::layer_norm(t, 1, p[first], p[first + 1]); };

    nn::Normalized first = norm(x, norm1);
    std::array<Owned, 3> heads_of;
    for (const int part : {0, 1, 2}) {
        const Owned projected = own(linear(first.output, query + 2 * part)->reshape(split));
        heads_of[static_cast<std::size_t>(part)] = own(projected->permute(middle_axes));
    }
    auto& [q, k, v] = heads_of;
    nn::AttendedRows attended = nn::attention_rows(q.get(), k.get(), v.get(), {.causal = true});
    Owned merged = own(own(attended.output->permute(middle_axes))->reshape(shape));
    Owned middle = linear(merged, out);
    ornik::add(1, x, 1, middle.get(), middle.get(), 0);
    nn::Normalized second = norm(middle.get(), norm2);
    Owned wide = linear(second.output, up);
    Owned curved = own(wide->gelu());
    HandPass pass{linear(curved, down), std::vector<Owned>(input + 1)};
    ornik::add(1, middle.get(), 1, pass.result.get(), pass.result.get(), 0);

    const auto back_linear = [&](int at, Tensor* g, Tensor* operand) {
        pass.gradients[at] = nn::linear_weight_grad(g, operand);
        pass.gradients[at + 1] = nn::linear_bias_grad(g);
        return nn::linear_input_grad(g, p[at]);
    };
    const auto back_norm = [&](int at, const Owned& g, Tensor* operand, const nn::Normalized& n) {
        nn::NormGradients result =
            nn::layer_norm_grad(g.get(), operand, 1, p[at], n.mean.get(), n.variance.get(), 1e-5);
        pass.gradients[at] = std::move(result.gamma);
        pass.gradients[at + 1] = std::move(result.beta);
        return std::move(result.input);
    };
    Owned g = back_linear(down, result_gradient, curved.get());
    curved.reset();
    g = own(ornik::gelu_grad(wide.get(), wide.get(), g.get()));
    wide.reset();
    g = back_linear(up, g.get(), second.output.get());
    second.output.reset();
    g = back_norm(norm2, g, middle.get(), second);
    middle.reset();
    ornik::add(1, result_gradient, 1, g.get(), g.get(), 0);
    Owned residual = std::move(g);
    g = own(back_linear(out, residual.get(), merged.get())->reshape(split));
    merged.reset();
    g = own(g->permute(middle_axes));
    nn::AttentionGradients parts = nn::attention_rows_grad(
        g.get(), q.get(), k.get(), v.get(), {attended.output.get(), attended.log_sums.get()}, {.causal = true});
    g.reset();
    attended = {};
    heads_of = {};
    Owned sum;
    const std::array<Owned*, 3> gradients{&parts.query, &parts.key, &parts.value};
    for (const int part : {2, 1, 0}) {
        Owned& gradient = *gradients[static_cast<std::size_t>(part)];
        gradient = own(own(gradient->permute(middle_axes))->reshape(shape));
        Owned of_input = back_linear(query + 2 * part, gradient.get(), first.output.get());
        gradient.reset();
        sum = sum ? sum_into(sum, std::move(of_input)) : std::move(of_input);
    }
    first.output.reset();
    g = back_norm(norm1, sum, x, first);
    pass.gradients[input] = sum_into(residual, std::move(g));
    return pass;
}

}  // namespace bench
