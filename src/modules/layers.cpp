// layers.cpp: layers with parameters.
#include "modules/layers.h"

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/networks.h"
#include "ktensor/normalizations.h"
#include "modules/initialization.h"
#include "utils/error.h"

namespace ornik {

namespace {

void check_positive(const char* name, std::initializer_list<std::int64_t> numbers) {
    for (const std::int64_t number : numbers) {
        if (number < 1) {
            fail(where("ornik::Module"), name, "(): sizes are 1 and above, not ", number, ".");
        }
    }
}

void check_groups(const char* name, std::int64_t in, std::int64_t out, std::int64_t groups) {
    check_positive(name, {in, out, groups});
    if (in % groups != 0 || out % groups != 0) {
        fail(where("ornik::Module"), name, "(): ", in, " and ", out, " channels do not fall into ", groups, " groups.");
    }
}

nn::ConvParameters conv_parameters(const ConvOptions& options, bool transposed = false) {
    nn::ConvParameters parameters;
    parameters.stride = options.stride;
    parameters.padding = {PaddingPair{options.padding[0], options.padding[0]},
                          PaddingPair{options.padding[1], options.padding[1]}};
    parameters.dilation = options.dilation;
    parameters.groups = options.groups;
    parameters.transposed = transposed;
    parameters.output_padding = options.output_padding;
    return parameters;
}

}  // namespace

Linear::Linear(std::int64_t in, std::int64_t out, bool with_bias) {
    check_positive("Linear", {in, out});
    const double bound = init::fan_in_bound(in);
    weight = add_parameter("weight", init::uniform({out, in}, bound));
    bias = with_bias ? add_parameter("bias", init::uniform({out}, bound)) : KTensor();
}

KTensor Linear::forward(const KTensor& x) { return linear(x, weight, bias); }

// ---- Convolutions ----

Conv2d::Conv2d(std::int64_t in, std::int64_t out, std::array<std::int64_t, 2> kernel, const ConvOptions& options)
    : parameters_(conv_parameters(options)) {
    check_groups("Conv2d", in, out, options.groups);
    check_positive("Conv2d", {kernel[0], kernel[1]});
    const double bound = init::fan_in_bound(in / options.groups * kernel[0] * kernel[1]);
    weight = add_parameter("weight", init::uniform({out, in / options.groups, kernel[0], kernel[1]}, bound));
    bias = options.bias ? add_parameter("bias", init::uniform({out}, bound)) : KTensor();
}

KTensor Conv2d::forward(const KTensor& x) { return convolution(x, weight, bias, parameters_); }

Conv1d::Conv1d(std::int64_t in, std::int64_t out, std::int64_t kernel, const ConvOptions& options)
    : parameters_(conv_parameters(options)) {
    check_groups("Conv1d", in, out, options.groups);
    check_positive("Conv1d", {kernel});
    const double bound = init::fan_in_bound(in / options.groups * kernel);
    weight = add_parameter("weight", init::uniform({out, in / options.groups, kernel}, bound));
    bias = options.bias ? add_parameter("bias", init::uniform({out}, bound)) : KTensor();
}

KTensor Conv1d::forward(const KTensor& x) { return convolution(x, weight, bias, parameters_); }

ConvTranspose2d::ConvTranspose2d(std::int64_t in, std::int64_t out, std::array<std::int64_t, 2> kernel,
                                 const ConvOptions& options)
    : parameters_(conv_parameters(options, true)) {
    check_groups("ConvTranspose2d", in, out, options.groups);
    check_positive("ConvTranspose2d", {kernel[0], kernel[1]});
    const double bound = init::fan_in_bound(out / options.groups * kernel[0] * kernel[1]);
    weight = add_parameter("weight", init::uniform({in, out / options.groups, kernel[0], kernel[1]}, bound));
    bias = options.bias ? add_parameter("bias", init::uniform({out}, bound)) : KTensor();
}

KTensor ConvTranspose2d::forward(const KTensor& x) { return convolution(x, weight, bias, parameters_); }

// ---- Normalizations ----

BatchNorm::BatchNorm(std::int64_t channels, const BatchNormOptions& options) : options_(options) {
    check_positive("BatchNorm", {channels});
    if (options.affine) {
        weight = add_parameter("weight", KTensor::ones({channels}));
        bias = add_parameter("bias", KTensor::zeros({channels}));
    }
    if (options.track_running_stats) {
        running_mean = add_buffer("running_mean", KTensor::zeros({channels}));
        running_var = add_buffer("running_var", KTensor::ones({channels}));
        num_batches_tracked = add_buffer("num_batches_tracked", KTensor::zeros({}, dtype::int64));
    }
}

KTensor BatchNorm::forward(const KTensor& x) {
    double momentum = options_.momentum.value_or(0);
    if (is_training() && num_batches_tracked.defined() && !is_recomputing()) {
        add_(num_batches_tracked, Scalar(std::int64_t{1}));
        momentum = options_.momentum.value_or(1.0 / static_cast<double>(num_batches_tracked.item<std::int64_t>()));
    }
    return batch_norm(x, running_mean, running_var, weight, bias, is_training(), momentum, options_.eps);
}

LayerNorm::LayerNorm(Dims normalized_shape, double eps, bool affine) : shape_(std::move(normalized_shape)), eps_(eps) {
    if (affine) {
        weight = add_parameter("weight", KTensor::ones(shape_));
        bias = add_parameter("bias", KTensor::zeros(shape_));
    }
}

KTensor LayerNorm::forward(const KTensor& x) { return layer_norm(x, shape_, weight, bias, eps_); }

GroupNorm::GroupNorm(std::int64_t groups, std::int64_t channels, double eps, bool affine) : groups_(groups), eps_(eps) {
    check_groups("GroupNorm", channels, channels, groups);
    if (affine) {
        weight = add_parameter("weight", KTensor::ones({channels}));
        bias = add_parameter("bias", KTensor::zeros({channels}));
    }
}

KTensor GroupNorm::forward(const KTensor& x) { return group_norm(x, groups_, weight, bias, eps_); }

// ---- Others ----

Embedding::Embedding(std::int64_t count, std::int64_t width, std::optional<std::int64_t> padding_index)
    : padding_index_(padding_index) {
    check_positive("Embedding", {count, width});
    KTensor table = KTensor::randn({count, width});
    if (padding_index_) {
        if (*padding_index_ < -count || *padding_index_ >= count) {
            fail(ErrorKind::index, where("ornik::Embedding"), "Embedding(): there is no row ", *padding_index_, " of ",
                 count, ".");
        }
        *padding_index_ += *padding_index_ < 0 ? count : 0;
        const std::span<float> elements = table.mutable_span<float>();
        std::fill_n(elements.begin() + *padding_index_ * width, width, 0.0F);
    }
    weight = add_parameter("weight", std::move(table));
}

KTensor Embedding::forward(const KTensor& indices) { return embedding(indices, weight, padding_index_); }

Dropout::Dropout(double p) : p_(p) {
    if (!(p >= 0 && p <= 1)) {
        fail(where("ornik::Dropout"), "Dropout(): a probability is in [0, 1], not ", std::to_string(p), ".");
    }
}

}  // namespace ornik
