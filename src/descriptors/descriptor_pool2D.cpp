#include "descriptors/descriptor_pool2D.h"

#include <algorithm>
#include <utility>

namespace ornik {

namespace {

std::vector<std::string> axis_types(const Where& at, const std::string& type, std::size_t axes) {
    if (type == "same" || type == "zeros") {
        return std::vector<std::string>(axes, "same");
    }
    if (type == "valid" || type == "none") {
        return std::vector<std::string>(axes, "none");
    }
    if (type == "custom") {
        return std::vector<std::string>(axes, "custom");
    }
    if (axes == 2 && type == "same,none") {
        return {"same", "none"};
    }
    if (axes == 2 && type == "none,same") {
        return {"none", "same"};
    }
    fail(at, "Incorrect padding type (", type, ")");
}

}  // namespace

PoolAxis padded_axis(const Where& at, const std::string& layer, std::int64_t in, std::int64_t kernel,
                     std::int64_t stride, std::int64_t padding) {
    const std::int64_t room = in + 2 * padding - kernel;
    if (room < 0) {
        fail(at, "Invalid output shape: a window of ", kernel, " does not fit into ", in, " positions of ", layer,
             "'s input");
    }
    return {in, kernel, stride, padding, room / stride + 1};
}

void check_plane(const Where& at, const std::string& layer, const PoolPlan& plan, const Dims& input) {
    if (plan.rows.in * plan.cols.in > INT32_MAX) {
        fail(at, layer, " takes planes of less than 2^31 elements, however the input is ", input);
    }
}

Dims pooled_shape(const Dims& input, const PoolPlan& plan) {
    Dims shape = input;
    if (shape.size() == 4) {
        shape[2] = plan.rows.out;
    }
    shape.back() = plan.cols.out;
    return shape;
}

PoolDescriptor2D::PoolDescriptor2D(const Where& at, std::string layer, std::size_t axes, const std::vector<int>& kernel,
                                   const std::vector<int>& strides, const std::vector<int>& padding,
                                   const std::string& padding_type)
    : layer_(std::move(layer)),
      kernel_(kernel),
      strides_(strides),
      padding_(padding),
      types_(axis_types(at, padding_type, axes)) {
    const auto check_count = [&](const char* what, const std::vector<int>& entries) {
        if (entries.size() != axes) {
            fail(at, what, " for ", layer_, axes == 1 ? " should be integer." : " should contain two elements.");
        }
    };
    check_count("kernel_size", kernel);
    check_count("strides", strides);
    if (padding_type == "custom") {
        check_count("padding", padding);
    }
    for (std::size_t i = 0; i < axes; ++i) {
        if (kernel[i] < 1 || strides[i] < 1) {
            fail(at, "kernel_size and strides for ", layer_, " should be at least 1.");
        }
        if (types_[i] == "custom" && (padding[i] < 0 || padding[i] >= kernel[i])) {
            fail(at, "padding for ", layer_, " should be at least 0 and less than kernel_size.");
        }
    }
}

PoolAxis PoolDescriptor2D::axis(const Where& at, std::size_t i, std::int64_t in) const {
    if (types_[i] == "same") {
        PoolAxis axis{in, kernel_[i], strides_[i]};
        axis.out = (in + axis.stride - 1) / axis.stride;
        const std::int64_t padding = std::max<std::int64_t>(0, (axis.out - 1) * axis.stride + axis.kernel - in);
        axis.begin = padding - padding / 2;
        return axis;
    }
    return padded_axis(at, layer_, in, kernel_[i], strides_[i], types_[i] == "custom" ? padding_[i] : 0);
}

PoolPlan PoolDescriptor2D::plan(const Where& at, const Tensor* input) const {
    const std::size_t axes = kernel_.size();
    if (input == nullptr) {
        fail(at, layer_, " needs an input.");
    }
    const Dims& shape = input->Shape();
    if (shape.size() != axes + 2) {
        fail(at, layer_, " only accepts ", axes + 2, "D input, however it is ", shape);
    }
    if (std::find(shape.begin() + 2, shape.end(), 0) != shape.end()) {
        fail(at, layer_, " needs an input with elements, however it is ", shape);
    }
    PoolPlan plan;
    plan.planes = shape[0] * shape[1];
    if (axes == 2) {
        plan.rows = axis(at, 0, shape[2]);
    }
    plan.cols = axis(at, axes - 1, shape.back());
    check_plane(at, layer_, plan, shape);
    return plan;
}

}  // namespace ornik
