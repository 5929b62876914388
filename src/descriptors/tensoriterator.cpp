#include "descriptors/tensoriterator.h"

#include <algorithm>
#include <cassert>

#include "tensor/geometry.h"

namespace ornik {

namespace {

TensorIterationHelper describe(const Tensor* tensor) {
    TensorIterationHelper helper;
    helper.shape = tensor->Shape();
    helper.strides = tensor->Strides();
    std::uint32_t numel = 1;
    for (const std::int64_t extent : helper.shape) {
        numel *= static_cast<std::uint32_t>(extent);
    }
    helper.numel = static_cast<std::int32_t>(numel);
    helper.device = tensor->Device();
    helper.dtype = tensor->Dtype();
    return helper;
}

// The operand's elements lie side by side and there are as many as the walk has steps.
bool is_flat(const TensorIterationHelper& helper, std::int64_t numel) {
    return helper.numel == numel && is_row_major(helper.shape, helper.strides, helper.numel);
}

}  // namespace

void MultiTensorIterationHelper::add_input(const Tensor* tensor) {
    _in_args.push_back(tensor);
    input_helpers_.push_back(describe(tensor));
}

void MultiTensorIterationHelper::add_output(Tensor* tensor) {
    _out_args.push_back(tensor);
    output_helpers_.push_back(describe(tensor));
}

void MultiTensorIterationHelper::build() {
    const Where at = where("ornik::MultiTensorIterationHelper::build");
    const Tensor* first = _in_args.empty() ? (_out_args.empty() ? nullptr : _out_args.front()) : _in_args.front();
    if (first == nullptr) {
        return;
    }
    const auto same_size = [&](const Tensor* t) { return t->Size() == first->Size(); };
    if (!std::all_of(_in_args.begin(), _in_args.end(), same_size)) {
        fail(at, "Not same input's Size for MultiTensorIterationHelper.");
    }
    if (!std::all_of(_out_args.begin(), _out_args.end(), same_size)) {
        fail(at, "Not same output's Size for MultiTensorIterationHelper.");
    }
    const auto same_device = [&](const Tensor* t) { return t->Device() == first->Device(); };
    if (!std::all_of(_in_args.begin(), _in_args.end(), same_device)) {
        fail(at, "Not same input's device for MultiTensorIterationHelper.");
    }
    if (!std::all_of(_out_args.begin(), _out_args.end(), same_device)) {
        fail(at, "Not same output's device for MultiTensorIterationHelper.");
    }
    numel_ = first->Size();
    all_contiguous_ = true;
    for (auto* helpers : {&input_helpers_, &output_helpers_}) {
        for (TensorIterationHelper& helper : *helpers) {
            helper.is_contiguous = is_row_major(helper.shape, helper.strides, helper.numel);
            all_contiguous_ = all_contiguous_ && helper.is_contiguous;
        }
    }
}

void MultiTensorIterationHelper::run_loop(const Where& at, InnerLoop loop, const void* function,
                                          const std::int64_t* item_sizes, std::size_t outputs,
                                          std::size_t operands) const {
    if (_out_args.empty()) {
        fail(at, "_out_args.size() >= 1");
    }
    if (_in_args.empty()) {
        fail(at, "_in_args.size() >= 1");
    }
    if (!_in_args.front()->isCPU()) {
        return;
    }
    assert(_out_args.size() == outputs && _out_args.size() + _in_args.size() == operands);
    const auto count = static_cast<std::int64_t>(static_cast<std::int32_t>(numel_));

    bool flat = operands <= max_contiguous_operands;
    bool has_elements = count >= 1;
    const auto look_at = [&](const TensorIterationHelper& helper) {
        flat = flat && helper.shape.size() <= OffsetCalculator_cpu<std::int64_t>::max_dims && is_flat(helper, count);
        has_elements = has_elements && std::find(helper.shape.begin(), helper.shape.end(), 0) == helper.shape.end();
    };
    std::for_each(output_helpers_.begin(), output_helpers_.end(), look_at);
    std::for_each(input_helpers_.begin(), input_helpers_.end(), look_at);

    if (flat && has_elements) {
        char* data[max_contiguous_operands];
        for (std::size_t i = 0; i < operands; ++i) {
            const Tensor* tensor = i < outputs ? _out_args[i] : _in_args[i - outputs];
            data[i] = static_cast<char*>(tensor->getRawData());
        }
        run_contiguous(loop, function, data, item_sizes, operands, count);
        return;
    }
    std::vector<PlanOperand> plan_operands;
    plan_operands.reserve(operands);
    for (std::size_t i = 0; i < operands; ++i) {
        const bool is_output = i < outputs;
        const TensorIterationHelper& helper = is_output ? output_helpers_[i] : input_helpers_[i - outputs];
        const Tensor* tensor = is_output ? _out_args[i] : _in_args[i - outputs];
        plan_operands.emplace_back(helper.shape, helper.strides, tensor->getRawData(), item_sizes[i], is_output);
    }
    if (has_elements) {
        run_plan(make_plan(std::move(plan_operands), count), loop, function);
    }
}

}  // namespace ornik
