#include "layers/functional/prepared_convolution.h"

#include <algorithm>

#include "blocks.h"
#include "conv_plan.h"
#include "prepared_ends.h"
#include "tensor/borrowed.h"
#include "tensor/make_tensor.h"

namespace ornik::nn {

namespace {

constexpr const char* name = "PreparedConvolution";
constexpr std::int64_t most = std::int64_t{1} << 31;  // conv_plan() refuses more.

std::int64_t bytes_of(const std::unique_ptr<Tensor>& t) { return t ? t->Size() * dtype_item_size(t->Dtype()) : 0; }

// An input of the least extents that the weight fits.
Dims least_input(const Where& at, const Dims& weight, const ConvParameters& p) {
    if (weight.size() < 3) {
        fail(at, name, " needs a weight of 3 or 4 axes, however it is ", weight);
    }
    const auto limited = [](std::int64_t n) { return std::clamp<std::int64_t>(n, 0, most); };
    Dims input{1, p.transposed ? weight[0] : weight[1] * p.groups};
    for (std::size_t i = 2; i < weight.size() && i < 4; ++i) {
        input.push_back((weight[i] - 1) * limited(p.dilation[i - 2]) + 1 + 2 * limited(p.padding[i - 2].begin));
    }
    return input;
}

}  // namespace

struct PreparedConvolution::Parts {
    bool takes_blocks() const { return fixed != nullptr && shape.size() == 4 && fixed->takes_blocks(); }
    // Of an input in blocks, or in planes.
    ConvPlan block_plan(const Where& at, const Dims& input, std::int64_t dtype, const BlockedImage* residual) const;
    BlockedImage to_blocks(const Where& at, const ConvPlan& plan, const void* input, bool in_planes, LayerEnd end,
                           const BlockedImage* residual) const;

    ConvParameters parameters;
    Dims shape;  // of the weight
    std::int64_t dtype = 0;
    std::unique_ptr<Tensor> bias;
    std::unique_ptr<device::cpu::FixedConvWeight> fixed;
    std::unique_ptr<Tensor> transposed;  // the weight of a transposed convolution
};

PreparedConvolution::PreparedConvolution(Tensor* weight, Tensor* bias, const ConvParameters& parameters) {
    const Where at = where("ornik::nn::PreparedConvolution::PreparedConvolution");
    if (weight == nullptr) {
        fail(at, name, " needs a weight.");
    }
    check_conv_dtype(at, weight);
    const ConvPlan plan = conv_plan(at, least_input(at, weight->Shape(), parameters), weight->Shape(), parameters);
    check_conv_bias(at, bias, weight, plan.channels);
    auto parts = std::make_unique<Parts>();
    parts->parameters = parameters;
    parts->shape = weight->Shape();
    parts->dtype = weight->Dtype();
    if (bias != nullptr) {
        parts->bias.reset(Borrowed::contiguous(bias)->clone());
    }
    const Borrowed w = Borrowed::contiguous(weight);
    if (parameters.transposed) {
        parts->transposed.reset(w->clone());
    } else {
        parts->fixed = std::make_unique<device::cpu::FixedConvWeight>(plan.geometry, w.get(), parts->bias.get());
    }
    parts_ = std::move(parts);
}

PreparedConvolution::~PreparedConvolution() = default;
PreparedConvolution::PreparedConvolution(PreparedConvolution&& other) noexcept = default;
PreparedConvolution& PreparedConvolution::operator=(PreparedConvolution&& other) noexcept = default;

std::unique_ptr<Tensor> PreparedConvolution::operator()(Tensor* input, LayerEnd end, Tensor* residual) const {
    const Where at = where("ornik::nn::PreparedConvolution::operator()");
    if (input == nullptr) {
        fail(at, name, " needs an input.");
    }
    check_conv_dtype(at, input);
    if (input->Dtype() != parts_->dtype) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    const ConvPlan plan = conv_plan(at, input->Shape(), parts_->shape, parts_->parameters);
    check_ends(at, name, input, end, residual, plan.output);
    const Borrowed x = Borrowed::contiguous(input);
    const Borrowed added = Borrowed::contiguous(residual);
    std::unique_ptr<Tensor> output = make_tensor(plan.output, input->Dtype());
    if (output->Size() == 0) {
        return output;
    }
    const device::cpu::ConvTail tail{parts_->bias.get(), added.get(), row_end_of(end)};
    if (parts_->transposed) {
        convolve(plan.geometry, true, x.get(), parts_->transposed.get(), parts_->bias.get(), output.get());
        device::cpu::conv_finish(tail, output.get());
    } else {
        parts_->fixed->to_grid(plan.geometry, x.get(), tail, output.get());
    }
    return output;
}

bool PreparedConvolution::takes_blocks() const { return parts_->takes_blocks(); }

ConvPlan PreparedConvolution::Parts::block_plan(const Where& at, const Dims& input, std::int64_t input_dtype,
                                                const BlockedImage* residual) const {
    if (!takes_blocks()) {
        fail(at, name, " of a weight ", shape, "in ", parameters.groups, " groups takes no blocks.");
    }
    if (input_dtype != dtype) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    ConvPlan plan = conv_plan(at, input, shape, parameters);
    if (residual != nullptr) {
        if (residual->dtype() != dtype) {
            fail(at, "Not same data type for inputs of ", name, ".");
        }
        check_residual_shape(at, name, residual->shape(), plan.output);
    }
    return plan;
}

BlockedImage PreparedConvolution::Parts::to_blocks(const Where& at, const ConvPlan& plan, const void* input,
                                                   bool in_planes, LayerEnd end, const BlockedImage* residual) const {
    auto output = std::make_shared<Blocks>(at, plan.output, dtype);
    if (!output->is_empty()) {
        fixed->to_blocks(plan.geometry, input, in_planes,
                         residual == nullptr ? nullptr : residual->blocks().elements.get(), row_end_of(end),
                         output->elements.get());
    }
    return BlockedImage(std::move(output));
}

BlockedImage PreparedConvolution::blocked(const BlockedImage& input, LayerEnd end, const BlockedImage* residual) const {
    const Where at = where("ornik::nn::PreparedConvolution::blocked");
    const ConvPlan plan = parts_->block_plan(at, input.shape(), input.dtype(), residual);
    return parts_->to_blocks(at, plan, input.blocks().elements.get(), false, end, residual);
}

BlockedImage PreparedConvolution::blocked(Tensor* input, LayerEnd end, const BlockedImage* residual) const {
    const Where at = where("ornik::nn::PreparedConvolution::blocked");
    if (input == nullptr) {
        fail(at, name, " needs an input.");
    }
    check_conv_dtype(at, input);
    const ConvPlan plan = parts_->block_plan(at, input->Shape(), input->Dtype(), residual);
    if (parts_->fixed->keeps_channels_apart()) {
        return blocked(BlockedImage(input), end, residual);
    }
    const Borrowed x = Borrowed::contiguous(input);
    return parts_->to_blocks(at, plan, x->getRawData(), true, end, residual);
}

std::int64_t PreparedConvolution::bytes() const {
    return bytes_of(parts_->bias) + bytes_of(parts_->transposed) + (parts_->fixed ? parts_->fixed->bytes() : 0);
}

}  // namespace ornik::nn
