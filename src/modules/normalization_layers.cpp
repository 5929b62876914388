// normalization_layers.cpp: normalizations.
#include "modules/normalization_layers.h"

#include <limits>

#include "arguments.h"
#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/normalizations.h"
#include "ktensor/reductions.h"

namespace ornik {

namespace {

void check_shape(const char* name, const Dims& shape) {
    if (shape.empty()) {
        fail(where("ornik::Module"), name, "(): there are no axes to normalize over.");
    }
    for (const std::int64_t extent : shape) {
        check_positive(name, {extent});
    }
}

}  // namespace

BatchNorm::BatchNorm(std::int64_t channels, const BatchNormOptions& options) : options_(options) {
    check_positive("BatchNorm", {channels});
    if (options.affine) {
        weight = add_parameter("weight", KTensor::ones({channels}));
        bias = add_parameter("bias", KTensor::zeros({channels}));
    }
    if (options.track_running_stats) {
        running_mean = add_buffer("running_mean", KTensor::zeros({channels}));
        running_var = add_buffer("running_var", KTensor::ones({channels}));
        num_batches_tracked = add_buffer("num_batches_tracked", KTensor::zeros({}, dtype::int64), true);
    }
    Arguments arguments;
    arguments.add("channels", channels).add("eps", options.eps);
    options.momentum ? arguments.add("momentum", *options.momentum) : arguments.add("momentum", "none");
    set_arguments(
        arguments.add("affine", options.affine).add("track_running_stats", options.track_running_stats).text());
}

KTensor BatchNorm::forward(const KTensor& x) {
    double momentum = options_.momentum.value_or(0);
    if (is_training() && num_batches_tracked.defined() && !is_recomputing()) {
        add_(num_batches_tracked, Scalar(std::int64_t{1}));
        momentum = options_.momentum.value_or(1.0 / static_cast<double>(num_batches_tracked.item<std::int64_t>()));
    }
    return batch_norm(x, running_mean, running_var, weight, bias, is_training(), momentum, options_.eps);
}

LayerNorm::LayerNorm(Dims normalized_shape, double eps, bool affine, bool with_bias)
    : shape_(std::move(normalized_shape)), eps_(eps) {
    check_shape("LayerNorm", shape_);
    if (affine) {
        weight = add_parameter("weight", KTensor::ones(shape_));
        bias = with_bias ? add_parameter("bias", KTensor::zeros(shape_)) : KTensor();
    }
    set_arguments(Arguments()
                      .add("shape", shape_)
                      .add("eps", eps)
                      .add("affine", affine)
                      .add_unless("bias", with_bias, true)
                      .text());
}

KTensor LayerNorm::forward(const KTensor& x) { return layer_norm(x, shape_, weight, bias, eps_); }

RMSNorm::RMSNorm(Dims normalized_shape, std::optional<double> eps, bool affine)
    : shape_(std::move(normalized_shape)), eps_(eps) {
    check_shape("RMSNorm", shape_);
    if (affine) {
        weight = add_parameter("weight", KTensor::ones(shape_));
    }
    Arguments arguments;
    arguments.add("shape", shape_);
    set_arguments((eps ? arguments.add("eps", *eps) : arguments).add("affine", affine).text());
}

KTensor RMSNorm::forward(const KTensor& x) {
    const std::size_t axes = shape_.size();
    if (x.shape().size() < axes ||
        !std::equal(shape_.begin(), shape_.end(), x.shape().end() - static_cast<std::ptrdiff_t>(axes))) {
        fail(where("ornik::RMSNorm"), "RMSNorm(): the last axes of ", shape_text(x.shape()), "are not ",
             shape_text(shape_), ".");
    }
    std::vector<int> last;
    for (int axis = -static_cast<int>(axes); axis < 0; ++axis) {
        last.push_back(axis);
    }
    const double smallest = x.dtype() == dtype::float64 ? std::numeric_limits<double>::epsilon()
                                                        : double{std::numeric_limits<float>::epsilon()};
    const KTensor y = x * rsqrt(mean(sqr(x), last, true) + Scalar(eps_.value_or(smallest)));
    return weight.defined() ? y * weight : y;
}

GroupNorm::GroupNorm(std::int64_t groups, std::int64_t channels, double eps, bool affine) : groups_(groups), eps_(eps) {
    check_groups("GroupNorm", channels, channels, groups);
    if (affine) {
        weight = add_parameter("weight", KTensor::ones({channels}));
        bias = add_parameter("bias", KTensor::zeros({channels}));
    }
    set_arguments(
        Arguments().add("groups", groups).add("channels", channels).add("eps", eps).add("affine", affine).text());
}

KTensor GroupNorm::forward(const KTensor& x) { return group_norm(x, groups_, weight, bias, eps_); }

InstanceNorm::InstanceNorm(std::int64_t channels, double eps, bool affine) : channels_(channels), eps_(eps) {
    check_positive("InstanceNorm", {channels});
    if (affine) {
        weight = add_parameter("weight", KTensor::ones({channels}));
        bias = add_parameter("bias", KTensor::zeros({channels}));
    }
    set_arguments(Arguments().add("channels", channels).add("eps", eps).add("affine", affine).text());
}

KTensor InstanceNorm::forward(const KTensor& x) { return group_norm(x, channels_, weight, bias, eps_); }

}  // namespace ornik
