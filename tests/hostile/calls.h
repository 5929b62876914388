// calls.h: a row for every public function that takes operands or numbers. Shared by the test and by the fuzzer.
#pragma once

#include <functional>

#include "arguments.h"
#include "descriptors/element_operations.h"

namespace ornik::test {

/// A public function. `operands` names its good operands by their letters (arguments.h), a member's own tensor first;
/// those marked ! are written by it, those marked ? may be. The last letter stands for all operands that follow. Behind
/// a bar stand the good numbers of other arguments, in order (World::number). Rows that start with - are refused
/// always, rows that start with ~ may be.
struct CallRow {
    std::string name;
    std::string_view operands;
    std::function<void(World&)> call;
    bool refused = false;
    bool may_be_refused = false;
};

template <typename Class>
Class& object_of(World& world) {
    static_assert(std::is_same_v<Class, Tensor>);
    Tensor* self = world.operand();
    return *(self == nullptr ? world.keep(tensor_of('1')) : self);
}

template <typename R, typename... A>
void call_function(World& world, R (*function)(A...)) {
    invoke<R, A...>(world, function);
}
template <typename R, typename C, typename... A>
void call_function(World& world, R (C::*member)(A...)) {
    C& self = object_of<C>(world);
    invoke<R, A...>(world, [&](auto&&... a) { return (self.*member)(std::forward<decltype(a)>(a)...); });
}
template <typename R, typename C, typename... A>
void call_function(World& world, R (C::*member)(A...) const) {
    const C& self = object_of<C>(world);
    invoke<R, A...>(world, [&](auto&&... a) { return (self.*member)(std::forward<decltype(a)>(a)...); });
}

class CallTable {
  public:
    template <auto... functions>
    void add(std::string_view operands, std::string names) {
        (add_one(operands, names, [](World& world) { call_function(world, functions); }), ...);
    }
    void add_one(std::string_view operands, std::string& names, std::function<void(World&)> call) {
        const std::size_t comma = std::min(names.find(", "), names.size());
        const char mark = operands.empty() ? ' ' : operands.front();
        rows.push_back({names.substr(0, comma), operands.substr(mark == '-' || mark == '~' ? 1 : 0), std::move(call),
                        mark == '-', mark == '~'});
        names.erase(0, comma + 2);
    }

    std::vector<CallRow> rows;
};

#define ORNIK_CALLS(operands, ...) table.add<__VA_ARGS__>(operands, #__VA_ARGS__);
/// One overload, by the type of its pointer.
#define ORNIK_OVERLOAD(operands, type, function) table.add<static_cast<type>(function)>(operands, #function " " #type);

/// Element-wise mathematics, arithmetic and copies.
void add_element_calls(CallTable& table);
/// Tensors: making, viewing, selecting, filling.
void add_tensor_calls(CallTable& table);
/// Everything that computes with whole tensors.
void add_operation_calls(CallTable& table);
/// Joins, slices, products, and the layers, losses and steps without state.
void add_function_calls(CallTable& table);
/// Layers, losses, optimizers, and their factories.
void add_network_calls(CallTable& table);

/// What a call came to: the text of its refusal, empty when it worked, and what is wrong with it. Anything but a
/// library error with a text is a fault, and so is a write that was not announced or not to be expected.
struct CallOutcome {
    std::string refusal;
    std::string fault;
};

inline CallOutcome run_call(const CallRow& row, World& world) {
    CallOutcome outcome;
    try {
        row.call(world);
        std::for_each(world.results.begin(), world.results.end(), [](const auto& t) { World::bytes(t.get()); });
    } catch (const std::runtime_error& error) {
        outcome.refusal = error.what();
        outcome.fault = outcome.refusal.empty() ? "an error without a text" : "";
    } catch (const std::exception& error) {
        outcome.refusal = error.what();
        // A selection item without a number that fits.
        const bool expected =
            outcome.refusal == "invalid stoi argument" || outcome.refusal == "stoi argument out of range";
        outcome.fault = expected ? "" : outcome.refusal;
    }
    // A refused call leaves every element alone; one that worked writes where it may and says so.
    for (const World::Operand& operand : world.operands) {
        const bool announced = operand.storage && operand.storage->version() != operand.version;
        const bool may_be = std::any_of(world.operands.begin(), world.operands.end(), [&](const World::Operand& other) {
            return other.mark != ' ' && other.storage == operand.storage;
        });
        const bool changed = !outcome.refusal.empty() && World::bytes(operand.tensor) != operand.before;
        if (changed || (announced && !may_be)) {
            outcome.fault = "wrote to an operand. " + outcome.refusal;
        }
    }
    return outcome;
}

inline const std::vector<CallRow>& call_rows() {
    static const CallTable table = [] {
        CallTable all;
        add_element_calls(all);
        add_tensor_calls(all);
        add_operation_calls(all);
        add_function_calls(all);
        add_network_calls(all);
        return all;
    }();
    return table.rows;
}

}  // namespace ornik::test
