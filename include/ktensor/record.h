// record.h: how an operation writes itself into the graph. Internal.
//
//     KTensor mul(const KTensor& a, const KTensor& b) {
//         const Recorder record(Op::mul, {&a, &b});          // refuses undefined and stale operands
//         KTensor y = make_ktensor(...);                     // the forward pass
//         if (record.active()) {
//             record.finish(y, {record.operand_if(record.wants(1), 0), record.operand_if(record.wants(0), 1)},
//                           [](Backward& pass) { ... });     // captures: arguments, no tensors
//         }
//         return y;
//     }
//
// Operands that have to be converted are converted by recorded operations first, so that what is saved is an operand
// or a result and, in a pass that is recorded itself, has its own past.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <type_traits>
#include <vector>

#include "backward.h"
#include "node.h"

namespace ornik::autograd {

/// What a node keeps.
struct Keep {
    const KTensor* tensor = nullptr;
    std::int32_t of = Saved::own;
};

class Recorder {
  public:
    /// Operands from `required` on may be undefined.
    Recorder(Op op, std::initializer_list<const KTensor*> operands, std::size_t required = SIZE_MAX);
    Recorder(Op op, const std::vector<KTensor>& operands);
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Is anything to be recorded?
    bool active() const { return active_; }
    bool wants(std::size_t operand) const { return active_ && operands_[operand]->wants_grad(); }

    Keep operand(std::size_t i) const { return {operands_[i], static_cast<std::int32_t>(i)}; }
    Keep operand_if(bool needed, std::size_t i) const { return needed ? operand(i) : Keep{}; }
    static Keep output(const KTensor& y, std::int32_t i = 0) { return {&y, -1 - i}; }
    /// A value that is neither operand nor result: positions, masks, statistics. Undefined ones keep nothing.
    static Keep own(const KTensor& value) { return {value.defined() ? &value : nullptr, Saved::own}; }

    /// Makes the node; y becomes its output. Results that no gradient can reach (integers) stay without a past.
    template <typename Function>
    void finish(KTensor& y, std::initializer_list<Keep> kept, Function&& function) const {
        KTensor* outputs[] = {&y};
        finish(std::span<KTensor* const>(outputs), kept, std::forward<Function>(function));
    }
    template <typename Function>
    void finish(std::span<KTensor* const> outputs, std::initializer_list<Keep> kept, Function&& function) const {
        finish(outputs, std::span<const Keep>(kept.begin(), kept.size()), std::forward<Function>(function));
    }
    template <typename Function>
    void finish(std::span<KTensor* const> outputs, std::span<const Keep> kept, Function&& function) const {
        using Plain = std::decay_t<Function>;
        connect(NodeOf<Plain>::make(op_, operands_.size(), kept.size(), outputs.size(), Plain(std::move(function))),
                outputs, kept);
    }

  private:
    void check(std::size_t required);
    void check_operand(std::size_t i);
    void connect(Ref<Node> node, std::span<KTensor* const> outputs, std::span<const Keep> kept) const;
    void fill(Node& node, std::span<const Keep> kept) const;

    static constexpr std::size_t near_operands = 6;
    Op op_;
    bool active_ = false;
    std::array<const KTensor*, near_operands> near_{};
    std::vector<const KTensor*> far_;
    std::span<const KTensor* const> operands_;
};

/// An operation in place on `target`, recorded: the result y of the operation on old_value(target) is copied into the
/// target's storage, and its past becomes the target's. Outside recording nobody calls this.
void take_over(KTensor& target, const KTensor& y);
/// The same where y shares target's elements, which have been written.
void take_over_past(KTensor& target, const KTensor& y);
/// Before an operation in place: refuses leaves that ask for gradients, and targets that can not have any where one of
/// the operands has.
void check_in_place(const char* operation, const KTensor& target, bool recorded);
/// A copy of the elements with the past of `target`: what an operation may save although its target is overwritten.
KTensor old_value(const KTensor& target);

/// Refuses an undefined tensor by the operation's name.
void check_defined(const char* operation, const KTensor& tensor, std::size_t operand);

}  // namespace ornik::autograd
