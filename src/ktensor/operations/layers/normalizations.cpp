// normalizations.cpp: normalizations and their gradients.
#include "ktensor/normalizations.h"

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/joins.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "layers/functional/normalization.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

// Those of operand, weight and bias, from `gradients(grad, x, weight, mean, variance, wanted)`.
template <typename Gradients>
void normalization_backward(Backward& pass, const Gradients& gradients) {
    nn::NormGradients result =
        gradients(pass.grad().tensor(), pass.saved_raw(0), pass.saved_raw(1), pass.saved_raw(2), pass.saved_raw(3),
                  std::array<bool, 3>{pass.wants(0), pass.wants(1), pass.wants(2)});
    std::unique_ptr<Tensor>* parts[] = {&result.input, &result.gamma, &result.beta};
    for (std::size_t i = 0; i < std::size(parts); ++i) {
        if (*parts[i]) {
            pass.give(i, make_ktensor(std::move(*parts[i])));
        }
    }
}

template <typename Gradients>
void record_normalization(const Recorder& record, KTensor& y, const KTensor& weight, const KTensor& mean,
                          const KTensor& variance, Gradients gradients) {
    record.finish(y,
                  {record.operand(0), weight.defined() ? record.operand(1) : autograd::Keep{}, Recorder::own(mean),
                   Recorder::own(variance)},
                  [gradients](Backward& pass) { normalization_backward(pass, gradients); });
}

}  // namespace

KTensor batch_norm(const KTensor& x, KTensor running_mean, KTensor running_variance, const KTensor& weight,
                   const KTensor& bias, bool training, double momentum, double eps) {
    const Recorder record(Op::batch_norm, {&x, &weight, &bias}, 1);
    if (running_mean.defined() != running_variance.defined()) {
        fail(where("ornik::batch_norm"), "batch_norm(): running mean and variance come together.");
    }
    const bool fixed = !training && running_mean.defined();
    KTensor mean = running_mean;
    KTensor variance = running_variance;
    KTensor y;
    if (fixed) {
        y = make_ktensor(
            nn::batch_norm_by(x.tensor(), mean.tensor(), variance.tensor(), weight.tensor(), bias.tensor(), eps));
    } else {
        const std::int64_t count = x.ndim() < 2 || x.size(1) == 0 ? 0 : x.size() / x.size(1);
        if (training && count == 1) {
            fail(where("ornik::batch_norm"), "batch_norm(): ", describe(x),
                 " has one value per channel, which is no statistic to train with.");
        }
        nn::Normalized result = nn::batch_norm(x.tensor(), weight.tensor(), bias.tensor(), eps);
        y = make_ktensor(std::move(result.output));
        mean = make_ktensor(std::move(result.mean));
        variance = make_ktensor(std::move(result.variance));
        if (running_mean.defined() && !is_recomputing()) {
            nn::update_running_statistics(running_mean.tensor(), running_variance.tensor(), mean.tensor(),
                                          variance.tensor(), count, momentum);
        }
    }
    if (record.active()) {
        record_normalization(record, y, weight, mean, variance,
                             [eps, fixed](Tensor* grad, Tensor* input, Tensor* gamma, Tensor* m, Tensor* v,
                                          const std::array<bool, 3>& wanted) {
                                 return nn::batch_norm_grad(grad, input, gamma, m, v, eps, fixed, wanted);
                             });
    }
    return y;
}

KTensor layer_norm(const KTensor& x, const Dims& normalized_shape, const KTensor& weight, const KTensor& bias,
                   double eps) {
    const Recorder record(Op::layer_norm, {&x, &weight, &bias}, 1);
    const std::size_t axes = normalized_shape.size();
    if (axes == 0 || axes > x.shape().size() ||
        !std::equal(normalized_shape.begin(), normalized_shape.end(),
                    x.shape().end() - static_cast<std::ptrdiff_t>(axes))) {
        fail(where("ornik::layer_norm"), "layer_norm(): the last axes of ", describe(x), " are not ",
             shape_text(normalized_shape), ".");
    }
    const int count = static_cast<int>(axes);
    nn::Normalized result = nn::layer_norm(x.tensor(), count, weight.tensor(), bias.tensor(), eps);
    KTensor y = make_ktensor(std::move(result.output));
    if (record.active()) {
        const KTensor mean = make_ktensor(std::move(result.mean));
        const KTensor variance = make_ktensor(std::move(result.variance));
        record_normalization(record, y, weight, mean, variance,
                             [eps, count](Tensor* grad, Tensor* input, Tensor* gamma, Tensor* m, Tensor* v,
                                          const std::array<bool, 3>& wanted) {
                                 return nn::layer_norm_grad(grad, input, count, gamma, m, v, eps, wanted);
                             });
    }
    return y;
}

KTensor group_norm(const KTensor& x, std::int64_t groups, const KTensor& weight, const KTensor& bias, double eps) {
    const Recorder record(Op::group_norm, {&x, &weight, &bias}, 1);
    nn::Normalized result = nn::group_norm(x.tensor(), groups, weight.tensor(), bias.tensor(), eps);
    KTensor y = make_ktensor(std::move(result.output));
    if (record.active()) {
        const KTensor mean = make_ktensor(std::move(result.mean));
        const KTensor variance = make_ktensor(std::move(result.variance));
        record_normalization(record, y, weight, mean, variance,
                             [eps, groups](Tensor* grad, Tensor* input, Tensor* gamma, Tensor* m, Tensor* v,
                                           const std::array<bool, 3>& wanted) {
                                 return nn::group_norm_grad(grad, input, groups, gamma, m, v, eps, wanted);
                             });
    }
    return y;
}

// ---- By norms ----

KTensor normalize(const KTensor& x, const std::vector<int>& axes, double eps) {
    return x / clamp_min(l2_norm(x, axes, true), Scalar(eps));
}

KTensor cosine_similarity(const KTensor& a, const KTensor& b, int axis, double eps) {
    autograd::check_defined("cosine_similarity", a, 0);
    autograd::check_defined("cosine_similarity", b, 1);
    const std::vector<KTensor> both = broadcast_together({a, b});
    return sum(normalize(both[0], {axis}, eps) * normalize(both[1], {axis}, eps), {axis});
}

}  // namespace ornik
