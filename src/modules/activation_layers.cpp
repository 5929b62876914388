// activation_layers.cpp: activations with parameters.
#include "modules/activation_layers.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "arguments.h"
#include "ktensor/arithmetic.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"

namespace ornik {

std::optional<nn::LayerEnd> detail::end_named(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return nn::layer_end_named(lower);
}

std::optional<nn::LayerEnd> GELU::as_end() const { return by_tanh_ ? std::nullopt : std::optional(nn::LayerEnd::gelu); }

GELU::GELU(bool by_tanh) : by_tanh_(by_tanh) {
    set_arguments(Arguments().add_unless("by_tanh", by_tanh, false).text());
}

KTensor GELU::forward(const KTensor& x) {
    if (!by_tanh_) {
        return gelu(x);
    }
    const double scale = std::sqrt(2 / std::numbers::pi);
    return x * 0.5 * (tanh((x + x * sqr(x) * 0.044715) * scale) + 1.0);
}

Softplus::Softplus(double beta) : beta_(beta) {
    if (!(beta > 0)) {
        fail(where("ornik::Softplus"), "Softplus(): beta is above 0, not ", std::to_string(beta), ".");
    }
    set_arguments(Arguments().add("beta", beta).text());
}

KTensor Softplus::forward(const KTensor& x) { return beta_ == 1 ? softplus(x) : softplus(x * beta_) / beta_; }

LeakyReLU::LeakyReLU(float slope) : slope_(slope) { set_arguments(Arguments().add("slope", slope).text()); }

PReLU::PReLU(std::int64_t channels, double first) {
    check_positive("PReLU", {channels});
    weight = add_parameter("weight", KTensor::full({channels}, first));
    set_arguments(Arguments().add("channels", channels).text());
}

KTensor PReLU::forward(const KTensor& x) {
    KTensor slopes = weight;
    if (weight.size() > 1) {
        if (x.ndim() < 2 || x.size(1) != weight.size()) {
            fail(where("ornik::PReLU"), "PReLU(): wants [N, ", weight.size(), ", ...], not ", shape_text(x.shape()));
        }
        Dims shape(x.shape().size() - 1, 1);
        shape[0] = weight.size();
        slopes = reshape(weight, shape);
    }
    return where(x > 0.0, x, x * slopes);
}

ELU::ELU(float alpha) : alpha_(alpha) { set_arguments(Arguments().add("alpha", alpha).text()); }

Hardtanh::Hardtanh(double low, double high) : low_(low), high_(high) {
    if (!(low <= high)) {
        fail(where("ornik::Hardtanh"), "Hardtanh(): the bounds are in order, not ", std::to_string(low), " and ",
             std::to_string(high), ".");
    }
    set_arguments(Arguments().add("low", low).add("high", high).text());
}

Softmax::Softmax(int axis) : axis_(axis) { set_arguments(Arguments().add("axis", axis).text()); }

KTensor Softmax::forward(const KTensor& x) { return softmax(x, axis_); }

LogSoftmax::LogSoftmax(int axis) : axis_(axis) { set_arguments(Arguments().add("axis", axis).text()); }

KTensor LogSoftmax::forward(const KTensor& x) { return log_softmax(x, axis_); }

}  // namespace ornik
