// convolution_layers.cpp: convolutions along one axis and two.
#include "modules/convolution_layers.h"

#include "arguments.h"
#include "ktensor/arithmetic.h"
#include "modules/initialization.h"

namespace ornik::detail {

namespace {

// Of the first `axes` entries.
void check_options(const char* name, const ConvOptions& options, std::size_t axes, bool transposed) {
    for (std::size_t i = 0; i < axes; ++i) {
        check_positive(name, {options.stride[i], options.dilation[i]});
        check_at_least(name, 0, {options.padding[i], options.output_padding[i]});
        if (options.same && (options.stride[i] != 1 || options.padding[i] != 0 || transposed)) {
            fail(where("ornik::Module"), name,
                 "(): the same extents need stride 1, no other padding, and no transposed convolution.");
        }
    }
}

}  // namespace

Convolution::Convolution(const char* name, std::int64_t in, std::int64_t out, const Dims& kernel,
                         const ConvOptions& options, bool transposed) {
    check_groups(name, in, out, options.groups);
    for (const std::int64_t extent : kernel) {
        check_positive(name, {extent});
    }
    check_options(name, options, kernel.size(), transposed);

    parameters_.stride = options.stride;
    parameters_.dilation = options.dilation;
    parameters_.groups = options.groups;
    parameters_.transposed = transposed;
    parameters_.output_padding = options.output_padding;
    for (std::size_t i = 0; i < kernel.size(); ++i) {
        parameters_.padding[i] = options.same ? nn::same_padding(kernel[i], options.dilation[i])
                                              : PaddingPair{options.padding[i], options.padding[i]};
    }

    Dims shape{transposed ? in : out, (transposed ? out : in) / options.groups};
    shape.insert(shape.end(), kernel.begin(), kernel.end());
    std::int64_t fan_in = 1;
    for (std::size_t i = 1; i < shape.size(); ++i) {
        fan_in *= shape[i];
    }
    const double bound = init::fan_in_bound(fan_in);
    weight = add_parameter("weight", init::uniform(shape, bound));
    bias = options.bias ? add_parameter("bias", init::uniform({out}, bound)) : KTensor();

    const auto shown = [&](const std::array<std::int64_t, 2>& pair) {
        return Dims(pair.begin(), pair.begin() + static_cast<std::ptrdiff_t>(kernel.size()));
    };
    const Dims ones(kernel.size(), 1);
    const Dims zeros(kernel.size(), 0);
    set_arguments(Arguments()
                      .add("in", in)
                      .add("out", out)
                      .add("kernel", kernel)
                      .add("stride", shown(options.stride))
                      .add_unless("padding", shown(options.padding), zeros)
                      .add_unless("same", options.same, false)
                      .add_unless("output_padding", shown(options.output_padding), zeros)
                      .add_unless("dilation", shown(options.dilation), ones)
                      .add_unless("groups", options.groups, std::int64_t{1})
                      .add("bias", options.bias)
                      .text());
}

KTensor Convolution::forward(const KTensor& x, nn::LayerEnd end, const KTensor& residual) {
    if (!is_training()) {
        return prepared_.convolution(x, weight, bias, parameters_, end, residual);
    }
    prepared_.drop();
    const KTensor y = convolution(x, weight, bias, parameters_);
    return apply_end(residual.defined() ? y + residual : y, end);
}

}  // namespace ornik::detail
