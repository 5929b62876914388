#include "descriptors/tensoriterator.h"

#include <algorithm>
#include <cassert>

#include "tensor/checks.h"
#include "tensor/geometry.h"

namespace ornik {

namespace {

TensorIterationHelper describe(const Tensor* tensor) {
    check_given(where("ornik::MultiTensorIterationHelper"), tensor);
    TensorIterationHelper helper;
    helper.tensor = tensor;
    std::uint32_t numel = 1;
    for (const std::int64_t extent : tensor->Shape()) {
        numel *= static_cast<std::uint32_t>(extent);
    }
    helper.numel = static_cast<std::int32_t>(numel);
    helper.device = tensor->Device();
    helper.dtype = tensor->Dtype();
    return helper;
}

// The operand's elements lie side by side and there are as many as the walk has steps.
bool is_flat(const TensorIterationHelper& helper, std::int64_t numel) {
    return helper.numel == numel && helper.is_contiguous;
}

// One value of all operands, which they have to share.
template <typename Value>
void check_same(const Where& at, const OperandList& inputs, const OperandList& outputs, const char* what,
                const Value& value) {
    const Tensor* first = inputs.empty() ? outputs.front().tensor : inputs.front().tensor;
    const auto same = [&](const TensorIterationHelper& helper) { return value(helper.tensor) == value(first); };
    if (!std::all_of(inputs.begin(), inputs.end(), same)) {
        fail(at, "Not same input's ", what, " for MultiTensorIterationHelper.");
    }
    if (!std::all_of(outputs.begin(), outputs.end(), same)) {
        fail(at, "Not same output's ", what, " for MultiTensorIterationHelper.");
    }
}

}  // namespace

void MultiTensorIterationHelper::add_input(const Tensor* tensor) { input_helpers_.push_back(describe(tensor)); }

void MultiTensorIterationHelper::add_output(Tensor* tensor) { output_helpers_.push_back(describe(tensor)); }

void MultiTensorIterationHelper::build() {
    const Where at = where("ornik::MultiTensorIterationHelper::build");
    if (input_helpers_.empty() && output_helpers_.empty()) {
        return;
    }
    check_same(at, input_helpers_, output_helpers_, "Size", [](const Tensor* t) { return t->Size(); });
    check_same(at, input_helpers_, output_helpers_, "device", [](const Tensor* t) { return t->Device(); });
    for (const auto* helpers : {&input_helpers_, &output_helpers_}) {
        for (const TensorIterationHelper& helper : *helpers) {
            if (!helper.tensor->is_dense()) {
                fail(at, "Not dense layout of an operand for MultiTensorIterationHelper.");
            }
            check_operands(at, helper.tensor);
        }
    }
    numel_ = (input_helpers_.empty() ? output_helpers_ : input_helpers_).front().tensor->Size();
    all_contiguous_ = true;
    for (auto* helpers : {&input_helpers_, &output_helpers_}) {
        for (TensorIterationHelper& helper : *helpers) {
            helper.is_contiguous = is_row_major(helper.shape(), helper.strides(), helper.numel);
            all_contiguous_ = all_contiguous_ && helper.is_contiguous;
        }
    }
}

void MultiTensorIterationHelper::run_loop(const Where& at, const BoundLoop& loop, const std::int64_t* item_sizes,
                                          std::size_t outputs, std::size_t operands) const {
    if (output_helpers_.empty()) {
        fail(at, "_out_args.size() >= 1");
    }
    if (input_helpers_.empty()) {
        fail(at, "_in_args.size() >= 1");
    }
    if (!input_helpers_.front().tensor->isCPU()) {
        return;
    }
    assert(output_helpers_.size() == outputs && output_helpers_.size() + input_helpers_.size() == operands);
    const auto count = static_cast<std::int64_t>(static_cast<std::int32_t>(numel_));

    const auto operand = [&](std::size_t i) -> const TensorIterationHelper& {
        return i < outputs ? output_helpers_[i] : input_helpers_[i - outputs];
    };
    bool flat = true;
    bool has_elements = count >= 1;
    for (std::size_t i = 0; i < operands; ++i) {
        const Dims& shape = operand(i).shape();
        flat = flat && shape.size() <= OffsetCalculator_cpu<std::int64_t>::max_dims && is_flat(operand(i), count);
        has_elements = has_elements && std::find(shape.begin(), shape.end(), 0) == shape.end();
    }
    if (flat && has_elements) {
        char* data[max_operands];
        for (std::size_t i = 0; i < operands; ++i) {
            data[i] = static_cast<char*>(operand(i).tensor->getRawData());
        }
        run_contiguous(loop, data, item_sizes, outputs, operands, count);
        return;
    }
    std::vector<PlanOperand> plan_operands;
    plan_operands.reserve(operands);
    for (std::size_t i = 0; i < operands; ++i) {
        plan_operands.emplace_back(operand(i).shape(), operand(i).strides(), operand(i).tensor->getRawData(),
                                   item_sizes[i], i < outputs);
    }
    if (has_elements) {
        run_plan(make_plan(std::move(plan_operands), count), loop);
    }
}

}  // namespace ornik
