#include "descriptors/descriptor_convT2D.h"

#include <algorithm>

namespace ornik {

namespace {

constexpr Where constructor() { return where("ornik::ConvolDescriptorT2D::ConvolDescriptorT2D"); }

const std::vector<int>& checked_kernel(const std::vector<int>& kernel) {
    if (kernel.size() != 2) {
        fail(constructor(), "Kernels must have 2 dimensions");
    }
    return kernel;
}

struct Axis {
    std::int64_t input;
    std::int64_t kernel;
    std::int64_t stride;
    std::int64_t dilation;
    std::int64_t output_padding;
};

PaddingPair padding_pair(const ConvolFields& fields, const Axis& axis, std::size_t place) {
    if (fields.padding_type == "same") {
        const std::int64_t output = axis.input * axis.stride;
        return split_padding(std::max<std::int64_t>(0, (axis.input - 1) * axis.stride - output + axis.kernel));
    }
    if (fields.padding_type == "custom") {
        return {fields.custom_padding[place], fields.custom_padding[place]};
    }
    return {};
}

// In single precision, as the sizes of every convolution.
std::int64_t output_extent(const std::string& type, const Axis& axis, const PaddingPair& padding) {
    const auto number = [](std::int64_t value) { return static_cast<float>(value); };
    float extent = -1;
    if (type == "same") {
        extent = number(axis.input) * number(axis.stride);
    } else if (type == "valid") {
        extent = number(axis.input) * number(axis.stride) + number(axis.kernel - axis.stride);
    } else if (type == "custom") {
        extent = number(axis.input - 1) * number(axis.stride) + number((axis.kernel - 1) * axis.dilation) -
                 number(padding.begin) - number(padding.end) + number(axis.output_padding) + 1;
    }
    return whole_extent(extent);
}

}  // namespace

ConvolDescriptorT2D::ConvolDescriptorT2D(int output_channels, const std::vector<int>& kernel,
                                         const std::vector<int>& strides, const std::vector<int>& padding,
                                         const std::string& type, const std::vector<int>& dilation,
                                         const std::vector<int>& output_padding, int groups)
    : ConvolFields(constructor(), output_channels, checked_kernel(kernel), strides, padding, type, dilation, groups) {
    if (output_padding.size() != 2) {
        fail(constructor(), "Output padding must have 2 dimensions");
    }
    output_padding_rows = output_padding[0];
    output_padding_cols = output_padding[1];
}

void ConvolDescriptorT2D::build_dynamic(const Tensor* input, const Tensor* weight) {
    const Where at = where("ornik::ConvolDescriptorT2D::build_dynamic");
    take_tensors(at, input, weight, "ConvT2D");
    const Axis rows{_input_rows, _kernal_rows, _rows_strides, _dilation_rate_rows, output_padding_rows};
    const Axis cols{_input_cols, _kernal_cols, _cols_strides, _dilation_rate_cols, output_padding_cols};
    padding_rows = padding_pair(*this, rows, 0);
    padding_cols = padding_pair(*this, cols, 1);
    _output_rows = output_extent(padding_type, rows, padding_rows);
    _output_cols = output_extent(padding_type, cols, padding_cols);
    finish(at, input, "Not Support asymmetric padding.Please set equal padding value for ConvT2D");
}

}  // namespace ornik
