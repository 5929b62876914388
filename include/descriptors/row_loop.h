// row_loop.h: the row form of the element-wise engine's inner loop. Internal.
//
// A row function gets contiguous rows, function(n, out..., in...), and loops over them itself: one loop per
// function, which the compiler turns into vector code. Operands that are not contiguous along the row pass
// through small buffers, piece by piece, so the function never sees a stride.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "../tensor/dtype.h"

namespace ornik::detail {

/// A row function without its types: all but the function itself is compiled once.
struct BoundRows {
    void (*call)(const void* function, std::int64_t n, char* const* places);
    const void* function;
    const std::int64_t* item_sizes;
    const bool* is_bool_input;
    std::size_t outputs;
    std::size_t operands;
};

inline constexpr std::size_t most_row_operands = 8;

/// An inner loop (iteration_plan.h) over a BoundRows.
void run_row_loop(const void* bound_rows, char* const* data, const std::int64_t* stride0, const std::int64_t* stride1,
                  std::int64_t n0, std::int64_t n1);

template <typename Function, typename Outs, typename Ins>
struct RowLoop;

template <typename Function, typename... Outs, typename... Ins>
struct RowLoop<Function, TypeList<Outs...>, TypeList<Ins...>> {
    static constexpr std::size_t outputs = sizeof...(Outs);
    static constexpr std::size_t operands = outputs + sizeof...(Ins);
    static_assert(operands <= most_row_operands);
    static constexpr std::int64_t item_sizes[] = {sizeof(Outs)..., sizeof(Ins)...};
    static constexpr bool is_bool_input[] = {(sizeof(Outs) == 0)..., std::is_same_v<Ins, bool>...};

    static BoundRows bind(const Function& function) {
        return {&call, &function, item_sizes, is_bool_input, outputs, operands};
    }

  private:
    static void call(const void* function, std::int64_t n, char* const* places) {
        call_with(*static_cast<const Function*>(function), n, places, std::index_sequence_for<Outs...>{},
                  std::index_sequence_for<Ins...>{});
    }

    template <std::size_t... O, std::size_t... I>
    static void call_with(const Function& function, std::int64_t n, char* const* places, std::index_sequence<O...>,
                          std::index_sequence<I...>) {
        function(n, reinterpret_cast<Outs*>(places[O])..., reinterpret_cast<const Ins*>(places[outputs + I])...);
    }
};

}  // namespace ornik::detail
