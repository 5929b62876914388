#include "descriptors/descriptor_conv2D.h"

#include <algorithm>
#include <cmath>
#include <iostream>

namespace ornik {

namespace {

enum class AxisPadding { same, valid, custom };

// The word of one axis; the mixed forms hold two.
AxisPadding resolve(const Where& at, const std::string& type, bool rows) {
    const std::size_t comma = type.find(',');
    const std::string word =
        comma == std::string::npos ? type : (rows ? type.substr(0, comma) : type.substr(comma + 1));
    if (word == "same" || word == "zeros") {
        return AxisPadding::same;
    }
    if (word == "valid" || word == "none") {
        return AxisPadding::valid;
    }
    if (word == "custom") {
        return AxisPadding::custom;
    }
    std::cout << type << "\n";
    fail(at, "Incorrect padding type");
}

struct Axis {
    std::int64_t input;
    std::int64_t kernel;
    std::int64_t stride;
    std::int64_t dilation;
    std::int64_t padding;
};

std::int64_t output_extent(AxisPadding kind, const Axis& axis) {
    const auto input = static_cast<float>(axis.input);
    const auto stride = static_cast<float>(axis.stride);
    const auto reach = static_cast<float>((axis.kernel - 1) * axis.dilation);
    float extent = 0;
    switch (kind) {
        case AxisPadding::same:
            extent = std::ceil(input / stride);
            break;
        case AxisPadding::valid:
            extent = std::ceil((input - reach) / stride);
            break;
        case AxisPadding::custom:
            extent = std::floor((input + 2 * static_cast<float>(axis.padding) - reach - 1) / stride) + 1;
            break;
    }
    return whole_extent(extent);
}

PaddingPair padding_pair(AxisPadding kind, const Axis& axis, std::int64_t output) {
    switch (kind) {
        case AxisPadding::same:
            return split_padding(std::max<std::int64_t>(
                0, (output - 1) * axis.stride + (axis.kernel - 1) * axis.dilation + 1 - axis.input));
        case AxisPadding::custom:
            return {axis.padding, axis.padding};
        case AxisPadding::valid:
            break;
    }
    return {};
}

Axis axis_of(const ConvolFields& f, bool rows) {
    const std::size_t place = rows ? 0 : 1;
    const std::int64_t padding = f.padding_type == "custom" ? f.custom_padding[place] : 0;
    return rows ? Axis{f._input_rows, f._kernal_rows, f._rows_strides, f._dilation_rate_rows, padding}
                : Axis{f._input_cols, f._kernal_cols, f._cols_strides, f._dilation_rate_cols, padding};
}

std::vector<int> without_first(const Where& at, const std::vector<int>& kernel) {
    if (kernel.size() != 3) {
        fail(at, "Kernels must have 3 dimensions");
    }
    return {kernel[1], kernel[2]};
}

constexpr Where constructor() { return where("ornik::ConvolDescriptor::ConvolDescriptor"); }

}  // namespace

ConvolDescriptor::ConvolDescriptor(const std::vector<int>& kernel, const std::vector<int>& strides,
                                   const std::vector<int>& padding, const std::string& type,
                                   const std::vector<int>& dilation, int groups)
    : ConvolFields(constructor(), kernel.empty() ? 0 : kernel[0], without_first(constructor(), kernel), strides,
                   padding, type, dilation, groups) {}

void ConvolDescriptor::compute_output() {
    const Where at = where("ornik::ConvolDescriptor::compute_output");
    _output_rows = output_extent(resolve(at, padding_type, true), axis_of(*this, true));
    _output_cols = output_extent(resolve(at, padding_type, false), axis_of(*this, false));
}

void ConvolDescriptor::compute_padding() {
    const Where at = where("ornik::ConvolDescriptor::compute_padding");
    padding_rows = padding_pair(resolve(at, padding_type, true), axis_of(*this, true), _output_rows);
    padding_cols = padding_pair(resolve(at, padding_type, false), axis_of(*this, false), _output_cols);
}

void ConvolDescriptor::build_dynamic(const Tensor* input, const Tensor* weight) {
    const Where at = where("ornik::ConvolDescriptor::build_dynamic");
    take_tensors(at, input, weight, "Conv");
    compute_output();
    compute_padding();
    finish(at, input, "Not Support asymmetric padding.Please set equal padding scalar for Conv2D");
}

}  // namespace ornik
