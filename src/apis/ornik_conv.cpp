// ornik_conv.cpp: the factories of the convolution layers.
#include <initializer_list>
#include <new>
#include <utility>

#include "apis/ornik.h"
#include "layers/conv/layer_conv1D.h"
#include "layers/conv/layer_conv2D.h"
#include "layers/conv/layer_convT2D.h"

namespace ornik {

namespace {

struct TwoElements {
    const std::vector<int>& values;
    const char* message;
};

void check_two(const Where& at, std::initializer_list<TwoElements> vectors) {
    for (const TwoElements& vector : vectors) {
        if (vector.values.size() != 2) {
            fail(at, vector.message);
        }
    }
}

// The second axis of a one-dimensional convolution, appended before anything is checked.
void append_second_axis(std::vector<int>& kernel, std::vector<int>& strides, std::vector<int>& dilation) {
    kernel.push_back(1);
    strides.push_back(1);
    dilation.push_back(1);
}

}  // namespace

Layer* _Conv1D(int output_channels, std::vector<int>& kernel, std::vector<int>& strides, std::vector<int>& padding,
               bool use_bias, int groups, std::vector<int>& dilation, std::string name) {
    const Where at = where("ornik::_Conv1D");
    append_second_axis(kernel, strides, dilation);
    check_two(at, {{kernel, "kernel_size for Conv1d should be integer."},
                   {strides, "strides for Conv1d should be integer."},
                   {dilation, "dilation_rate for Conv1d should be integer."}});
    padding.push_back(0);
    check_two(at, {{padding, "padding for Conv1d should be integer."}});
    return new (std::nothrow)
        LConv1D(output_channels, kernel, strides, padding, "custom", use_bias, groups, dilation, std::move(name), 0, 0);
}

Layer* _Conv1D(int output_channels, std::vector<int>& kernel, std::vector<int>& strides, std::string padding,
               bool use_bias, int groups, std::vector<int>& dilation, std::string name) {
    append_second_axis(kernel, strides, dilation);
    check_two(where("ornik::_Conv1D"), {{kernel, "kernel_size for Conv1d should be a single integer."},
                                        {strides, "strides for Conv1d should be integer."},
                                        {dilation, "dilation_rate for Conv1d should be integer."}});
    return new (std::nothrow)
        LConv1D(output_channels, kernel, strides, {}, padding, use_bias, groups, dilation, std::move(name), 0, 0);
}

Layer* _Conv2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
               const std::vector<int>& padding, bool use_bias, int groups, const std::vector<int>& dilation,
               std::string name) {
    check_two(where("ornik::_Conv2D"), {{kernel, "kernel_size for Conv2d should contain two elements."},
                                        {strides, "strides for Conv2d should contain two elements."},
                                        {dilation, "dilation_rate for Conv2d should contain two elements."},
                                        {padding, "padding for Conv2d should contain two elements."}});
    return new (std::nothrow)
        LConv2D(output_channels, kernel, strides, padding, "custom", use_bias, groups, dilation, std::move(name), 0, 0);
}

Layer* _Conv2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
               std::string padding, bool use_bias, int groups, const std::vector<int>& dilation, std::string name) {
    check_two(where("ornik::_Conv2D"), {{kernel, "kernel_size for Conv2d should contain two elements."},
                                        {strides, "strides for Conv2d should contain two elements."},
                                        {dilation, "dilation_rate for Conv2d should contain two elements."}});
    return new (std::nothrow)
        LConv2D(output_channels, kernel, strides, {}, padding, use_bias, groups, dilation, std::move(name), 0, 0);
}

Layer* _ConvT2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
                const std::vector<int>& padding, bool use_bias, int groups, const std::vector<int>& dilation,
                const std::vector<int>& output_padding, std::string name) {
    return new (std::nothrow) LConvT2D(output_channels, kernel, strides, padding, "custom", use_bias, groups, dilation,
                                       output_padding, std::move(name), 0, 0);
}

Layer* _ConvT2D(int output_channels, const std::vector<int>& kernel, const std::vector<int>& strides,
                std::string padding, bool use_bias, int groups, const std::vector<int>& dilation,
                const std::vector<int>& output_padding, std::string name) {
    return new (std::nothrow) LConvT2D(output_channels, kernel, strides, {}, padding, use_bias, groups, dilation,
                                       output_padding, std::move(name), 0, 0);
}

}  // namespace ornik
