// convol_fields.h: what the two convolution descriptors have in common.
//
// A descriptor holds the hyper-parameters of one layer, and the sizes and padding that follow from them for
// the input of the latest forward call.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../export.h"
#include "../tensor/tensor.h"

namespace ornik {

/// Padding of one axis.
struct PaddingPair {
    std::int64_t begin = 0;
    std::int64_t end = 0;
};

class ORNIK_API ConvolFields {
  public:
    std::int64_t _kernal_nums = 0;  // output channels
    std::int64_t _kernal_rows = 0;
    std::int64_t _kernal_cols = 0;
    std::int64_t _kernal_channels = 0;  // input channels per group
    std::int64_t _rows_strides = 0;
    std::int64_t _cols_strides = 0;
    std::int64_t _input_num = 0;  // batch
    std::int64_t _input_rows = 0;
    std::int64_t _input_cols = 0;
    std::int64_t _input_channel = 0;
    std::int64_t _output_rows = 0;
    std::int64_t _output_cols = 0;
    std::int64_t _output_channels = 0;
    std::int64_t _dilation_rate_rows = 0;
    std::int64_t _dilation_rate_cols = 0;
    std::int64_t _num_groups = 0;

    std::string padding_type;
    std::vector<int> custom_padding;  // rows, cols; used by "custom" only
    PaddingPair padding_rows;
    PaddingPair padding_cols;

    bool built = false;
    Dims input_shape;  // what the latest build was for
    Dims weight_shape;
    std::int64_t dtype = -1;

    Dims output_shape() const { return {_input_num, _output_channels, _output_rows, _output_cols}; }
    /// The uninitialised output that build_dynamic made; null when it was taken already.
    [[nodiscard]] std::unique_ptr<Tensor> take_output() { return std::move(output_.tensor); }
    /// Every field with its name, one a line.
    std::string debug_dump() const;

  protected:
    /// Checks and keeps the hyper-parameters; `at` is the constructor of the derived class.
    ConvolFields(const Where& at, std::int64_t output_channels, const std::vector<int>& kernel,
                 const std::vector<int>& strides, const std::vector<int>& padding, const std::string& type,
                 const std::vector<int>& dilation, int groups);

    /// Steps that both builds start with: dtypes, ranks, and the shape of the weight. Sets the input's sizes.
    void take_tensors(const Where& at, const Tensor* input, const Tensor* weight, const char* operation);
    /// Steps that both end with: the padding must be even, the output not empty; makes the output.
    void finish(const Where& at, const Tensor* input, const char* uneven_message);

  private:
    // Belongs to one forward call: a copy of the descriptor starts without.
    struct Output {
        std::unique_ptr<Tensor> tensor;
        Output() = default;
        Output(const Output& /*other*/) {}
        Output& operator=(const Output& /*other*/) {
            tensor.reset();
            return *this;
        }
    };
    Output output_;
};

/// The even split of `total`; an odd one gives the larger half to the beginning.
PaddingPair split_padding(std::int64_t total);

/// A whole number in single precision as an extent; beyond 2^62, that.
std::int64_t whole_extent(float value);

}  // namespace ornik
