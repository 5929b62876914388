#include "layers/functional/recurrent.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "hardware/cpu/nn/cpu_recurrent.h"
#include "hardware/cpu/product/cpu_product.h"
#include "hardware/cpu/product/cpu_product_fixed.h"
#include "hardware/parallel.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"
#include "tensor/nn/linear.h"
#include "tensor/tensor_math/tensor_arithmetic.h"

namespace ornik::nn {

namespace {

using device::cpu::FixedFactor;
using device::cpu::PreviousState;
using device::cpu::RecurrentStep;
using TensorPtr = std::unique_ptr<Tensor>;

struct Kind {
    const char* name;
    std::int64_t gates;
    bool has_cell;
};
constexpr Kind lstm_kind{"lstm", 4, true};
constexpr Kind gru_kind{"gru", 3, false};
// Of both: the gates of an LSTM; those of a GRU and the state's part of n.
constexpr std::int64_t saved_gates = 4;

// Some rows of [entries, ...] that are worked on at once, and where the states before them stand.
struct Step {
    std::int64_t first;
    std::int64_t rows;
    std::int64_t previous_first;
    std::int64_t from_previous;  // rows that have a step before; the others start
};

struct Plan {
    std::int64_t entries = 0;
    std::int64_t sequences = 0;
    std::int64_t in = 0;
    std::int64_t width = 0;
    std::int64_t dtype = 0;
    Dims output;
    std::vector<Step> steps;  // in the order in which they are taken

    /// Does each thread take its sequences through all steps? Else the threads share the work of every step.
    bool by_sequences() const { return sequences >= grain && width >= 8; }

    static constexpr std::int64_t grain = 16;  // sequences: fewer leave much of a packed weight's way unused
};

// Those sequences of a step that are in [begin, end).
struct Part {
    Part(const Plan& plan, const Step& step, std::int64_t from, std::int64_t end)
        : begin(from), entry(step.first + from), rows(std::min(end, step.rows) - from) {
        kernel = {plan.dtype, rows, plan.width};
    }

    std::int64_t begin;
    std::int64_t entry;  // of the first
    std::int64_t rows;
    RecurrentStep kernel{};
};

// Calls visit(step, part) for every step, in their order or backwards, with the sequences of the calling
// thread.
template <typename Visit>
void for_each_part(const Plan& plan, bool backwards, const Visit& visit) {
    const auto walk_range = [&](std::int64_t begin, std::int64_t end) {
        for (std::size_t i = 0; i < plan.steps.size(); ++i) {
            const Step& step = plan.steps[backwards ? plan.steps.size() - 1 - i : i];
            const Part part(plan, step, begin, end);
            if (part.rows > 0) {
                visit(step, part);
            }
        }
    };
    if (plan.by_sequences()) {
        parallel_for(plan.sequences, 8, Plan::grain, walk_range);
    } else {
        walk_range(0, plan.sequences);
    }
}

std::vector<Step> walk(const Dims& batch_sizes, bool reverse) {
    std::vector<Step> steps;
    std::int64_t first = 0;
    for (const std::int64_t rows : batch_sizes) {
        steps.push_back({first, rows, 0, 0});
        first += rows;
    }
    if (reverse) {
        std::reverse(steps.begin(), steps.end());
    }
    for (std::size_t i = 1; i < steps.size(); ++i) {
        steps[i].previous_first = steps[i - 1].first;
        steps[i].from_previous = std::min(steps[i].rows, steps[i - 1].rows);
    }
    return steps;
}

void check_parameter(const Where& at, const Kind& kind, const Tensor* t, const Tensor* input, const Dims& shape) {
    check_alike(at, kind.name, t, input);
    if (t->Shape() != shape) {
        fail(at, kind.name, " needs a tensor of shape ", shape, "where it has one of ", t->Shape());
    }
}

Plan plan_of(const Where& at, const Kind& kind, const Tensor* input, const Tensor* hidden, const Tensor* cell,
             const RecurrentWeights& weights, bool reverse, const Dims& batch_sizes) {
    if (input == nullptr || weights.input == nullptr || weights.hidden == nullptr) {
        fail(at, kind.name, " needs an input and two weights.");
    }
    check_operands(at, input);
    if (!input->isFloat()) {
        fail(at, "Not valid dtype for this function.");
    }
    if (!input->isCPU()) {
        refuse_gpu();
    }
    const Dims& shape = input->Shape();
    const bool packed = !batch_sizes.empty();
    if (shape.size() != (packed ? 2U : 3U) || shape.back() < 1) {
        fail(at, kind.name, packed ? " needs a packed input [entries, in]" : " needs an input [steps, N, in]",
             ", however it is ", shape);
    }
    Plan plan;
    Dims sizes = batch_sizes;
    if (packed) {
        for (std::size_t i = 0; i < sizes.size(); ++i) {
            if (sizes[i] < 1 || (i > 0 && sizes[i] > sizes[i - 1])) {
                fail(at, "The batch sizes of ", kind.name, " should be positive and not rise: ", batch_sizes);
            }
            plan.entries += std::min(sizes[i], std::numeric_limits<std::int64_t>::max() - plan.entries);
        }
        if (plan.entries != shape[0]) {
            fail(at, "The batch sizes of ", kind.name, " have ", plan.entries, " entries, its input ", shape[0]);
        }
        plan.sequences = sizes[0];
    } else {
        plan.sequences = shape[1];
        plan.entries = shape[0] * shape[1];
        sizes.assign(plan.entries == 0 ? 0 : static_cast<std::size_t>(shape[0]), shape[1]);
    }
    plan.steps = walk(sizes, reverse);
    plan.in = shape.back();
    plan.dtype = input->Dtype();
    const Dims& square = weights.hidden->Shape();
    plan.width = square.size() == 2 ? square[1] : 0;
    if (plan.width < 1) {
        fail(at, kind.name, " needs a hidden weight [", kind.gates, " H, H], however it is ", square);
    }
    const std::int64_t rows = kind.gates * plan.width;
    check_parameter(at, kind, weights.hidden, input, {rows, plan.width});
    check_parameter(at, kind, weights.input, input, {rows, plan.in});
    for (const Tensor* bias : {weights.input_bias, weights.hidden_bias}) {
        if (bias != nullptr) {
            check_parameter(at, kind, bias, input, {rows});
        }
    }
    for (const Tensor* state : {hidden, cell}) {
        if (state != nullptr) {
            check_parameter(at, kind, state, input, {plan.sequences, plan.width});
        }
    }
    plan.output = shape;
    plan.output.back() = plan.width;
    return plan;
}

TensorPtr zeros(const Dims& shape, std::int64_t dtype) {
    TensorPtr result = make_tensor(shape, dtype);
    if (result->Size() > 0) {
        result->fill_(0);
    }
    return result;
}

// A new contiguous tensor with the state's values, which steps update.
TensorPtr copy_of_state(const Tensor* state, const Plan& plan) {
    if (state == nullptr || state->Size() == 0) {
        return zeros({plan.sequences, plan.width}, plan.dtype);
    }
    return TensorPtr(state->clone());
}

std::int64_t row_length(const Tensor* t) { return t->Shape().back(); }

// Row `first` of a contiguous tensor [.., columns]; null stays null.
void* row_address(const Tensor* t, std::int64_t first) {
    return t == nullptr ? nullptr : static_cast<char*>(t->getRawData()) + first * row_length(t) * t->itemsize();
}

// Rows of a contiguous tensor as a matrix.
TensorPtr rows_of(const Tensor* t, std::int64_t first, std::int64_t rows) {
    const std::int64_t columns = row_length(t);
    return TensorPtr(share_storage_tensor(t->getStorage(), {rows, columns}, {columns, 1}, t->Dtype(),
                                          t->StorageOffset() + first * columns));
}

// The first columns of all rows.
TensorPtr columns_of(const Tensor* t, std::int64_t rows, std::int64_t columns) {
    return TensorPtr(
        share_storage_tensor(t->getStorage(), {rows, columns}, {row_length(t), 1}, t->Dtype(), t->StorageOffset()));
}

PreviousState previous_state(const Step& step, const Part& part, const Tensor* all, const Tensor* initial) {
    return {row_address(all, step.previous_first + part.begin), step.from_previous - part.begin,
            row_address(initial, part.begin)};
}

// The products of the steps with the state's weight.
class StateProducts {
  public:
    StateProducts(const Plan& plan, Tensor* weight, bool transposed)
        : weight_(Borrowed::contiguous(weight)),
          dtype_(plan.dtype),
          transposed_(transposed),
          depth_(weight->Shape()[transposed ? 1 : 0]),
          cols_(weight->Shape()[transposed ? 0 : 1]) {
        if (plan.by_sequences()) {
            packed_ = std::make_unique<FixedFactor>(dtype_, weight_->getRawData(), transposed, depth_, cols_);
        }
    }

    /// Of the part's rows of a; both matrices begin at them.
    void operator()(const Part& part, const void* a, bool accumulate, void* c) const {
        if (packed_) {
            packed_->multiply(a, part.rows, accumulate, c);
            return;
        }
        const device::cpu::ProductPlan plan{1, part.rows, cols_, depth_, false, transposed_, accumulate};
        device::cpu::product(dtype_, plan, a, weight_->getRawData(), c);
    }

  private:
    Borrowed weight_;
    std::int64_t dtype_;
    bool transposed_;
    std::int64_t depth_;
    std::int64_t cols_;
    std::unique_ptr<FixedFactor> packed_;
};

// Does nothing come before the step?
bool starts_from_zeros(const Step& step, const Tensor* initial) {
    return initial == nullptr && step.from_previous == 0;
}

// What is added to the input's part of the gates: its bias, and the first `columns` of the state's.
TensorPtr joint_bias(const RecurrentWeights& weights, std::int64_t columns) {
    if (weights.input_bias == nullptr && weights.hidden_bias == nullptr) {
        return nullptr;
    }
    if (weights.hidden_bias == nullptr) {
        return TensorPtr(weights.input_bias->clone());
    }
    const Tensor* hidden = weights.hidden_bias;
    TensorPtr result = weights.input_bias == nullptr ? zeros(hidden->Shape(), hidden->Dtype())
                                                     : TensorPtr(weights.input_bias->clone());
    const auto head = [&](const Tensor* t) {
        return TensorPtr(
            share_storage_tensor(t->getStorage(), {columns}, {t->Strides()[0]}, t->Dtype(), t->StorageOffset()));
    };
    const TensorPtr target = head(result.get());
    add(1, target.get(), 1, head(hidden).get(), target.get(), 0);
    return result;
}

// The part of the gates that the input makes, for all steps: the first columns of [entries, 4 H].
TensorPtr gates_of_input(const Plan& plan, const Kind& kind, Tensor* input, const RecurrentWeights& weights) {
    TensorPtr gates = make_tensor({plan.entries, saved_gates * plan.width}, plan.dtype);
    const TensorPtr part = columns_of(gates.get(), plan.entries, kind.gates * plan.width);
    const Borrowed x = Borrowed::contiguous(input);
    Tensor::dot(rows_of(x.get(), 0, plan.entries).get(), 0, weights.input, 1, part.get(), 0);
    // A GRU keeps the state's part of n apart, bias included.
    const std::int64_t shared = kind.has_cell ? 4 * plan.width : 2 * plan.width;
    if (const TensorPtr bias = joint_bias(weights, shared)) {
        const TensorPtr repeated(Tensor::broadcast_to(bias.get(), part->Shape()));
        add(1, part.get(), 1, repeated.get(), part.get(), 0);
    }
    return gates;
}

Recurrent make_result(const Plan& plan, const Kind& kind, const Tensor* hidden, const Tensor* cell) {
    Recurrent result;
    result.output = make_tensor(plan.output, plan.dtype);
    result.hidden = copy_of_state(hidden, plan);
    if (kind.has_cell) {
        result.cell = copy_of_state(cell, plan);
        result.cells = make_tensor({plan.entries, plan.width}, plan.dtype);
    }
    return result;
}

// ---- Gradients ----

// Gradients and saved tensors, checked and contiguous, and the states' gradients on their way back.
class Backward {
  public:
    Backward(const Where& at, const Kind& kind, const Plan& plan, const RecurrentUpstream& upstream,
             const RecurrentSaved& saved, const Tensor* input)
        : plan_(plan),
          upstream_(Borrowed::contiguous(checked(at, kind, upstream.output, plan.output, input))),
          output_(Borrowed::contiguous(required(at, kind, saved.output, plan.output, input))),
          gates_(
              Borrowed::contiguous(required(at, kind, saved.gates, {plan.entries, saved_gates * plan.width}, input))),
          cells_(Borrowed::contiguous(kind.has_cell ? required(at, kind, saved.cells, {plan.entries, plan.width}, input)
                                                    : nullptr)) {
        const Dims state{plan.sequences, plan.width};
        hidden = copy_of_state(checked(at, kind, upstream.hidden, state, input), plan);
        if (kind.has_cell) {
            cell = copy_of_state(checked(at, kind, upstream.cell, state, input), plan);
        }
        by_input = make_tensor({plan.entries, kind.gates * plan.width}, plan.dtype);
    }

    const void* upstream(const Part& part) const { return row_address(upstream_.get(), part.entry); }
    const void* gates(const Part& part) const { return row_address(gates_.get(), part.entry); }
    const void* cells(const Part& part) const { return row_address(cells_.get(), part.entry); }
    const Tensor* all_cells() const { return cells_.get(); }
    const Tensor* all_outputs() const { return output_.get(); }

    /// The hidden states before all steps, one row for each entry.
    TensorPtr states_before(const Tensor* initial) const {
        TensorPtr result = make_tensor({plan_.entries, plan_.width}, plan_.dtype);
        const std::size_t row = static_cast<std::size_t>(plan_.width * result->itemsize());
        for (const Step& step : plan_.steps) {
            auto* to = static_cast<char*>(row_address(result.get(), step.first));
            const auto known = static_cast<std::size_t>(step.from_previous);
            const auto fresh = static_cast<std::size_t>(step.rows) - known;
            if (known > 0) {
                std::memcpy(to, row_address(output_.get(), step.previous_first), known * row);
            }
            if (initial != nullptr && fresh > 0) {
                std::memcpy(to + known * row, row_address(initial, step.from_previous), fresh * row);
            } else {
                std::memset(to + known * row, 0, fresh * row);
            }
        }
        return result;
    }

    TensorPtr hidden;     ///< gradient of the state, step by step
    TensorPtr cell;       ///< likewise, of an LSTM
    TensorPtr by_input;   ///< of what the input puts into the gates, for all steps
    TensorPtr by_hidden;  ///< of what the state does, where that differs

  private:
    static Tensor* checked(const Where& at, const Kind& kind, Tensor* t, const Dims& shape, const Tensor* input) {
        if (t != nullptr) {
            check_parameter(at, kind, t, input, shape);
        }
        return t;
    }
    static Tensor* required(const Where& at, const Kind& kind, Tensor* t, const Dims& shape, const Tensor* input) {
        if (t == nullptr) {
            fail(at, "The gradients of ", kind.name, " need what its forward pass saved.");
        }
        return checked(at, kind, t, shape, input);
    }

    const Plan& plan_;
    Borrowed upstream_, output_, gates_, cells_;
};

// What the products give once all steps are done.
RecurrentGradients collect(const Plan& plan, const Kind& kind, Backward& from, Tensor* input, const Tensor* initial,
                           const RecurrentWeights& weights, const RecurrentWanted& wanted) {
    RecurrentGradients result;
    const std::int64_t rows = kind.gates * plan.width;
    const auto [wants_input, wants_hidden, wants_cell, wants_w_input, wants_w_hidden, wants_b_input, wants_b_hidden] =
        wanted;
    const auto make = [&](bool is_wanted, const Dims& shape) {
        return !is_wanted ? nullptr : plan.entries == 0 ? zeros(shape, plan.dtype) : make_tensor(shape, plan.dtype);
    };
    result.input = make(wants_input, input->Shape());
    result.input_weight = make(wants_w_input, {rows, plan.in});
    result.hidden_weight = make(wants_w_hidden, {rows, plan.width});
    result.input_bias = make(wants_b_input && plan.entries == 0, {rows});
    result.hidden_bias = make(wants_b_hidden && plan.entries == 0, {rows});
    if (plan.entries > 0) {
        Tensor* const by_input = from.by_input.get();
        Tensor* const by_hidden = from.by_hidden ? from.by_hidden.get() : by_input;
        if (wants_input) {
            Tensor::dot(by_input, 0, weights.input, 0, rows_of(result.input.get(), 0, plan.entries).get(), 0);
        }
        if (wants_w_input) {
            const Borrowed x = Borrowed::contiguous(input);
            Tensor::dot(by_input, 1, rows_of(x.get(), 0, plan.entries).get(), 0, result.input_weight.get(), 0);
        }
        if (wants_w_hidden) {
            Tensor::dot(by_hidden, 1, from.states_before(initial).get(), 0, result.hidden_weight.get(), 0);
        }
        if (wants_b_input) {
            result.input_bias = linear_bias_grad(nullptr, by_input);
        }
        if (wants_b_hidden) {
            result.hidden_bias = by_hidden == by_input && result.input_bias ? TensorPtr(result.input_bias->clone())
                                                                            : linear_bias_grad(nullptr, by_hidden);
        }
    }
    result.hidden = wants_hidden ? std::move(from.hidden) : nullptr;
    result.cell = wants_cell ? std::move(from.cell) : nullptr;
    return result;
}

}  // namespace

Recurrent lstm(Tensor* input, Tensor* hidden, Tensor* cell, const RecurrentWeights& weights, bool reverse,
               const Dims& batch_sizes) {
    const Where at = where("ornik::nn::lstm");
    const Plan plan = plan_of(at, lstm_kind, input, hidden, cell, weights, reverse, batch_sizes);
    Recurrent result = make_result(plan, lstm_kind, hidden, cell);
    if (plan.entries == 0) {
        result.gates = make_tensor({0, saved_gates * plan.width}, plan.dtype);
        return result;
    }
    result.gates = gates_of_input(plan, lstm_kind, input, weights);
    const StateProducts add_state_part(plan, weights.hidden, true);
    for_each_part(plan, false, [&](const Step& step, const Part& part) {
        void* const gates = row_address(result.gates.get(), part.entry);
        void* const state = row_address(result.hidden.get(), part.begin);
        if (!starts_from_zeros(step, hidden)) {
            add_state_part(part, state, true, gates);
        }
        device::cpu::lstm_gates(part.kernel, gates, row_address(result.cell.get(), part.begin), state,
                                row_address(result.cells.get(), part.entry),
                                row_address(result.output.get(), part.entry));
    });
    return result;
}

RecurrentGradients lstm_grad(const RecurrentUpstream& upstream, Tensor* input, Tensor* hidden, Tensor* cell,
                             const RecurrentWeights& weights, const RecurrentSaved& saved, bool reverse,
                             const Dims& batch_sizes, const RecurrentWanted& wanted) {
    const Where at = where("ornik::nn::lstm_grad");
    const Plan plan = plan_of(at, lstm_kind, input, hidden, cell, weights, reverse, batch_sizes);
    Backward from(at, lstm_kind, plan, upstream, saved, input);
    const StateProducts state_gradient(plan, weights.hidden, false);
    const Borrowed first_hidden = Borrowed::contiguous(hidden);
    const Borrowed first_cell = Borrowed::contiguous(cell);
    for_each_part(plan, true, [&](const Step& step, const Part& part) {
        void* const into = row_address(from.by_input.get(), part.entry);
        void* const state = row_address(from.hidden.get(), part.begin);
        device::cpu::lstm_gates_grad(part.kernel, from.gates(part), from.cells(part),
                                     previous_state(step, part, from.all_cells(), first_cell.get()),
                                     from.upstream(part), state, row_address(from.cell.get(), part.begin), into);
        if (&step != &plan.steps.front() || wanted[1]) {
            state_gradient(part, into, false, state);
        }
    });
    return collect(plan, lstm_kind, from, input, first_hidden.get(), weights, wanted);
}

Recurrent gru(Tensor* input, Tensor* hidden, const RecurrentWeights& weights, bool reverse, const Dims& batch_sizes) {
    const Where at = where("ornik::nn::gru");
    const Plan plan = plan_of(at, gru_kind, input, hidden, nullptr, weights, reverse, batch_sizes);
    Recurrent result = make_result(plan, gru_kind, hidden, nullptr);
    if (plan.entries == 0) {
        result.gates = make_tensor({0, saved_gates * plan.width}, plan.dtype);
        return result;
    }
    result.gates = gates_of_input(plan, gru_kind, input, weights);
    const StateProducts state_part(plan, weights.hidden, true);
    const Borrowed bias = Borrowed::contiguous(weights.hidden_bias);
    const void* bias_of_n = bias.get() == nullptr
                                ? nullptr
                                : static_cast<const char*>(bias->getRawData()) + 2 * plan.width * bias->itemsize();
    const TensorPtr recurrent = zeros({plan.sequences, 3 * plan.width}, plan.dtype);
    for_each_part(plan, false, [&](const Step& step, const Part& part) {
        void* const of_state = row_address(recurrent.get(), part.begin);
        void* const state = row_address(result.hidden.get(), part.begin);
        if (!starts_from_zeros(step, hidden)) {
            state_part(part, state, false, of_state);
        }
        device::cpu::gru_gates(part.kernel, row_address(result.gates.get(), part.entry), of_state, bias_of_n, state,
                               row_address(result.output.get(), part.entry));
    });
    return result;
}

RecurrentGradients gru_grad(const RecurrentUpstream& upstream, Tensor* input, Tensor* hidden,
                            const RecurrentWeights& weights, const RecurrentSaved& saved, bool reverse,
                            const Dims& batch_sizes, const RecurrentWanted& wanted) {
    const Where at = where("ornik::nn::gru_grad");
    const Plan plan = plan_of(at, gru_kind, input, hidden, nullptr, weights, reverse, batch_sizes);
    Backward from(at, gru_kind, plan, upstream, saved, input);
    from.by_hidden = make_tensor({plan.entries, 3 * plan.width}, plan.dtype);
    const StateProducts add_state_gradient(plan, weights.hidden, false);
    const Borrowed first_hidden = Borrowed::contiguous(hidden);
    for_each_part(plan, true, [&](const Step& step, const Part& part) {
        void* const by_hidden = row_address(from.by_hidden.get(), part.entry);
        void* const state = row_address(from.hidden.get(), part.begin);
        device::cpu::gru_gates_grad(
            part.kernel, from.gates(part), previous_state(step, part, from.all_outputs(), first_hidden.get()),
            from.upstream(part), state, row_address(from.by_input.get(), part.entry), by_hidden);
        if (&step != &plan.steps.front() || wanted[1]) {
            add_state_gradient(part, by_hidden, true, state);
        }
    });
    return collect(plan, gru_kind, from, input, first_hidden.get(), weights, wanted);
}

}  // namespace ornik::nn
