// tensoriterator.h: the element-wise engine under every kernel. Internal.
//
//     MultiTensorIterationHelper it;
//     it.add_input(a);
//     it.add_input(b);
//     it.add_output(out);
//     it.build();
//     it.run<TypeList<float>, TypeList<float, float>>([](float x, float y) { return x + y; });
//
// Operands may have any strides, stride 0 included, and need equal element counts, not equal shapes: each
// is read in its own row-major order. The engine converts nothing: the kernel names the element types.
// How operands are walked is decided in iteration_plan.h. Functions that are worth a loop of their own, made
// for vector code, take whole rows (run_rows, row_loop.h).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

#include "../tensor/dtype.h"
#include "../tensor/tensor.h"
#include "element_load.h"
#include "iteration_plan.h"
#include "row_loop.h"

namespace ornik {

/// One operand and what the engine knows of it. Shape and strides stay the tensor's: a call is too short
/// for copies to pay.
struct TensorIterationHelper {
    const Tensor* tensor = nullptr;
    bool is_contiguous = false;
    std::int32_t numel = 0;  // Product of the shape in 32 bits, wrapping.
    std::int64_t reserved = 0;
    std::int64_t device = 0;
    std::int64_t dtype = 0;

    const Dims& shape() const { return tensor->Shape(); }
    const Dims& strides() const { return tensor->Strides(); }
};

/// Operands in a row: the common numbers of them without a heap block.
class OperandList {
  public:
    void push_back(const TensorIterationHelper& helper) {
        if (size_ < few_.size()) {
            few_[size_++] = helper;
            return;
        }
        if (many_.empty()) {
            many_.assign(few_.begin(), few_.end());
        }
        many_.push_back(helper);
        ++size_;
    }

    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const TensorIterationHelper* begin() const { return many_.empty() ? few_.data() : many_.data(); }
    const TensorIterationHelper* end() const { return begin() + size_; }
    TensorIterationHelper* begin() { return many_.empty() ? few_.data() : many_.data(); }
    TensorIterationHelper* end() { return begin() + size_; }
    const TensorIterationHelper& front() const { return *begin(); }
    const TensorIterationHelper& operator[](std::size_t i) const { return begin()[i]; }

  private:
    std::array<TensorIterationHelper, 3> few_;
    std::vector<TensorIterationHelper> many_;  // all of them, once there are more
    std::size_t size_ = 0;
};

namespace detail {

template <typename Function, typename Outs, typename Ins>
struct ElementLoop;

/// The inner loop of one function over rows, in three forms: every operand contiguous, one input constant
/// along the row (read once), and any strides.
template <typename Function, typename... Outs, typename... Ins>
struct ElementLoop<Function, TypeList<Outs...>, TypeList<Ins...>> {
    static constexpr std::size_t outputs = sizeof...(Outs);
    static constexpr std::size_t inputs = sizeof...(Ins);
    static constexpr std::size_t operands = outputs + inputs;
    static_assert(operands <= max_operands);
    using OutIndices = std::make_index_sequence<outputs>;
    using InIndices = std::make_index_sequence<inputs>;
    static constexpr std::int64_t item_sizes[] = {sizeof(Outs)..., sizeof(Ins)...};

    static void run(const void* function, char* const* data, const std::int64_t* stride0, const std::int64_t* stride1,
                    std::int64_t n0, std::int64_t n1) {
        const Function& f = *static_cast<const Function*>(function);
        std::size_t constants = 0;
        std::size_t constant = operands;
        bool regular = true;  // Every operand is contiguous along the row, or constant.
        for (std::size_t i = 0; i < operands; ++i) {
            if (stride0[i] == 0 && i >= outputs) {
                ++constants;
                constant = i;
            } else if (stride0[i] != item_sizes[i]) {
                regular = false;
            }
        }
        char* row[operands];
        for (std::int64_t j = 0; j < n1; ++j) {
            for (std::size_t i = 0; i < operands; ++i) {
                row[i] = data[i] + j * stride1[i];
            }
            if (regular && constants == 0) {
                contiguous(f, row, n0, OutIndices{}, InIndices{});
            } else if (regular && constants == 1) {
                one_constant(f, row, n0, constant - outputs, InIndices{});
            } else {
                strided(f, row, stride0, n0, OutIndices{}, InIndices{});
            }
        }
    }

  private:
    template <std::size_t... O, typename Result>
    static inline void store(std::tuple<Outs*...> out, std::int64_t i, Result&& result, std::index_sequence<O...>) {
        if constexpr (outputs == 1) {
            std::get<0>(out)[i] = result;
        } else {
            ((std::get<O>(out)[i] = std::get<O>(result)), ...);
        }
    }

    template <std::size_t... O, std::size_t... I>
    static void contiguous(const Function& f, char* const* row, std::int64_t n, std::index_sequence<O...> o,
                           std::index_sequence<I...>) {
        const std::tuple<Outs*...> out{reinterpret_cast<Outs*>(row[O])...};
        const std::tuple<typename ConstChar<Ins>::type...> in{row[outputs + I]...};
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t i = 0; i < n; ++i) {
            store(out, i, f(load<Ins>(std::get<I>(in) + i * static_cast<std::int64_t>(sizeof(Ins)))...), o);
        }
    }

    template <std::size_t... I>
    static void one_constant(const Function& f, char* const* row, std::int64_t n, std::size_t which,
                             std::index_sequence<I...>) {
        ((which == I ? constant_input<I>(f, row, n, OutIndices{}, InIndices{}) : void()), ...);
    }

    template <std::size_t Constant, std::size_t... O, std::size_t... I>
    static void constant_input(const Function& f, char* const* row, std::int64_t n, std::index_sequence<O...> o,
                               std::index_sequence<I...>) {
        const std::tuple<Outs*...> out{reinterpret_cast<Outs*>(row[O])...};
        const std::tuple<typename ConstChar<Ins>::type...> in{row[outputs + I]...};
        const auto value = load<std::tuple_element_t<Constant, std::tuple<Ins...>>>(row[outputs + Constant]);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t i = 0; i < n; ++i) {
            store(out, i, f(pick<I == Constant, Ins>(value, std::get<I>(in), i)...), o);
        }
    }

    template <std::size_t... O, std::size_t... I>
    static void strided(const Function& f, char* const* row, const std::int64_t* stride, std::int64_t n,
                        std::index_sequence<O...>, std::index_sequence<I...>) {
        for (std::int64_t i = 0; i < n; ++i) {
            const std::tuple<Outs*...> out{reinterpret_cast<Outs*>(row[O] + i * stride[O])...};
            store(out, 0, f(load<Ins>(row[outputs + I] + i * stride[outputs + I])...), OutIndices{});
        }
    }

    template <bool IsConstant, typename T, typename Value>
    static inline T pick(const Value& value, const char* base, std::int64_t i) {
        if constexpr (IsConstant) {
            return value;
        } else {
            return load<T>(base + i * static_cast<std::int64_t>(sizeof(T)));
        }
    }

    template <typename>
    struct ConstChar {
        using type = const char*;
    };
};

}  // namespace detail

/// Applies one function to all elements of its operands. Used once: add operands, build, run. Does not own
/// the tensors.
class MultiTensorIterationHelper {
  public:
    void add_input(const Tensor* tensor);
    /// A tensor may be an input too: the function then reads the old value.
    void add_output(Tensor* tensor);

    /// Compares element counts, then devices, of inputs and outputs with the first operand's.
    void build();

    /// Calls function(in...) for every element and stores what it returns: the output's value, or a
    /// std::tuple of values when there are several outputs. Outs and Ins name the element types in the
    /// order the operands were added. The low 32 bits of the element count, taken as a signed number,
    /// are what is walked. Does nothing when the first input is not on the CPU. For light functions: a large
    /// output that no input shares is written past the caches.
    template <typename Outs, typename Ins, typename Function>
    void run(const Function& function) const {
        using Loop = detail::ElementLoop<Function, Outs, Ins>;
        run_loop(where("ornik::MultiTensorIterationHelper::run", "include/descriptors/tensoriterator.h"),
                 {&Loop::run, &function, true}, Loop::item_sizes, Loop::outputs, Loop::operands);
    }

    /// The row form, for functions with much to compute and for those that compile too often: calls function(n, out...,
    /// in...) with pointers to n contiguous elements of every operand until all elements are done. An output may be an
    /// input, at the same places; outputs that write one place more than once keep no particular value. Light functions
    /// say so.
    template <typename Outs, typename Ins, typename Function>
    void run_rows(const Function& function, bool is_light = false) const {
        using Loop = detail::RowLoop<Function, Outs, Ins>;
        const detail::BoundRows rows = Loop::bind(function);
        run_loop(where("ornik::MultiTensorIterationHelper::run", "include/descriptors/tensoriterator.h"),
                 {&detail::run_row_loop, &rows, is_light}, Loop::item_sizes, Loop::outputs, Loop::operands);
    }

    const OperandList& input_helpers() const { return input_helpers_; }
    const OperandList& output_helpers() const { return output_helpers_; }
    std::int64_t numel() const { return numel_; }
    /// True when every operand is contiguous.
    bool all_contiguous() const { return all_contiguous_; }

  private:
    void run_loop(const Where& at, const BoundLoop& loop, const std::int64_t* item_sizes, std::size_t outputs,
                  std::size_t operands) const;

    OperandList input_helpers_;
    OperandList output_helpers_;
    std::int64_t numel_ = 0;
    bool all_contiguous_ = false;
};

}  // namespace ornik
