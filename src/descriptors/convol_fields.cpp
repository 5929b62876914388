#include "descriptors/convol_fields.h"

#include <algorithm>
#include <iostream>

#include "utils/logging.h"
#include "utils/utils.h"

namespace ornik {

namespace {

constexpr const char* padding_types[] = {"same", "zeros", "valid", "none", "custom", "same,none", "none,same"};

void check_at_least_one(const Where& at, const char* what, const std::vector<int>& values) {
    for (const int value : values) {
        if (value < 1) {
            fail(at, what, " should be >= 1, however one equals ", value);
        }
    }
}

}  // namespace

PaddingPair split_padding(std::int64_t total) { return {total - total / 2, total / 2}; }

std::int64_t whole_extent(float value) { return static_cast<std::int64_t>(std::clamp(value, -0x1p62F, 0x1p62F)); }

ConvolFields::ConvolFields(const Where& at, std::int64_t output_channels, const std::vector<int>& kernel,
                           const std::vector<int>& strides, const std::vector<int>& padding, const std::string& type,
                           const std::vector<int>& dilation, int groups)
    : padding_type(type), custom_padding(padding) {
    if (strides.size() != 2) {
        fail(at, "Strides must have 2 dimensions");
    }
    if (std::find(std::begin(padding_types), std::end(padding_types), type) == std::end(padding_types)) {
        fail(at, "Incorrect padding type (", type);
    }
    if (dilation.size() != 2) {
        fail(at, "Dilation rates must have 2 dimensions");
    }
    if (type == "custom" && padding.size() != 2) {
        fail(at, "Padding must have 2 dimensions");
    }
    check_at_least_one(at, "Kernel extents", kernel);
    check_at_least_one(at, "Strides", strides);
    check_at_least_one(at, "Dilation rates", dilation);
    if (output_channels < 1 || groups < 1 || output_channels % groups != 0) {
        fail(at, "Output channels should be a positive multiple of the groups, however there are ", output_channels,
             " in ", groups, " groups");
    }
    _kernal_nums = output_channels;
    _kernal_rows = kernel[0];
    _kernal_cols = kernel[1];
    _rows_strides = strides[0];
    _cols_strides = strides[1];
    _output_channels = output_channels;
    _dilation_rate_rows = dilation[0];
    _dilation_rate_cols = dilation[1];
    _num_groups = groups;
}

void ConvolFields::take_tensors(const Where& at, const Tensor* input, const Tensor* weight, const char* operation) {
    built = false;
    if (input == nullptr || weight == nullptr) {
        fail(at, "Convolution needs a weight and an input.");
    }
    if (!input->isFloat() && !input->isComplexType()) {
        fail(at, "Only Float or Complex type input is valid for ", operation, "().");
    }
    if (!Tensor::sameDtype(input, weight)) {
        fail(at, "Parameters and input should have same data type. Got input: ", dtype_name(input->Dtype()),
             " w: ", dtype_name(weight->Dtype()));
    }
    if (input->ndim() != 4) {
        fail(at, "Tensors should be 4D for Conv2D, should be 3D for Conv1D.");
    }
    if (!input->isCPU() || !weight->isCPU()) {
        refuse_gpu();
    }
    const std::int64_t channels = input->Shape()[1];
    const Dims expected = {_kernal_nums, channels / _num_groups, _kernal_rows, _kernal_cols};
    if (channels % _num_groups != 0 || weight->Shape() != expected) {
        fail(at, "Convolution with ", _kernal_nums, " output channels in ", _num_groups, " groups and kernel ",
             Dims{_kernal_rows, _kernal_cols}, "does not fit: weight ", weight->Shape(), ", input ", input->Shape());
    }
    input_shape = input->Shape();
    weight_shape = weight->Shape();
    dtype = input->Dtype();
    _input_num = input_shape[0];
    _input_channel = channels;
    _kernal_channels = channels / _num_groups;
    _input_rows = input_shape[2];
    _input_cols = input_shape[3];
}

void ConvolFields::finish(const Where& at, const Tensor* input, const char* uneven_message) {
    if (padding_rows.begin != padding_rows.end || padding_cols.begin != padding_cols.end) {
        fail(at, uneven_message);
    }
    if (_output_rows < 1) {
        std::cout << "'Rows' are reach 0 or less (" << _output_rows << ")\n";
    }
    if (_output_cols < 1) {
        std::cout << "'Columns' are reach 0 or less (" << _output_cols << ")\n";
    }
    if (_output_rows < 1 || _output_cols < 1) {
        fail(at, "Invalid output shape");
    }
    output_.tensor = std::make_unique<Tensor>();
    output_.tensor->initialize_none_tensor(output_shape(), input->Dtype(), input->Device(), layout::dense);
    built = true;
}

std::string ConvolFields::debug_dump() const {
    const std::pair<const char*, std::int64_t> fields[] = {{"_kernal_nums", _kernal_nums},
                                                           {"_kernal_rows", _kernal_rows},
                                                           {"_kernal_cols", _kernal_cols},
                                                           {"_kernal_channels", _kernal_channels},
                                                           {"_rows_strides", _rows_strides},
                                                           {"_cols_strides", _cols_strides},
                                                           {"_input_num", _input_num},
                                                           {"_input_rows", _input_rows},
                                                           {"_input_cols", _input_cols},
                                                           {"_input_channel", _input_channel},
                                                           {"_output_rows", _output_rows},
                                                           {"_output_cols", _output_cols},
                                                           {"_output_channels", _output_channels},
                                                           {"pad rows", padding_rows.begin},
                                                           {"pad cols", padding_cols.begin},
                                                           {"_dilation_rate rows", _dilation_rate_rows},
                                                           {"_dilation_rate cols", _dilation_rate_cols},
                                                           {"_num_groups", _num_groups}};
    std::string text;
    for (const auto& [name, value] : fields) {
        text += std::string(name) + ": " + std::to_string(value) + "\n";
    }
    return text;
}

}  // namespace ornik
