// row_loop.h: the row form of the element-wise engine's inner loop. Internal.
//
// A row function gets pieces of contiguous rows, function(n, out..., in...), and loops over them itself:
// one loop per function, which the compiler turns into vector code. Operands that are not contiguous along
// the row pass through small buffers, so the function never sees a stride.
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "../tensor/dtype.h"
#include "element_load.h"

namespace ornik::detail {

template <typename Function, typename Outs, typename Ins>
struct RowLoop;

template <typename Function, typename... Outs, typename... Ins>
struct RowLoop<Function, TypeList<Outs...>, TypeList<Ins...>> {
    static constexpr std::size_t outputs = sizeof...(Outs);
    static constexpr std::size_t inputs = sizeof...(Ins);
    static constexpr std::size_t operands = outputs + inputs;
    static constexpr std::int64_t item_sizes[] = {sizeof(Outs)..., sizeof(Ins)...};
    /// Longest piece a function gets: several inputs and outputs of it stay in the first cache.
    static constexpr std::int64_t longest = 1024;
    static constexpr std::int64_t staged = 256;

    static void run(const void* function, char* const* data, const std::int64_t* stride0, const std::int64_t* stride1,
                    std::int64_t n0, std::int64_t n1) {
        // Storage may hold bytes that are no valid bool: bool inputs are read one by one.
        constexpr bool is_bool_input[] = {(sizeof(Outs) == 0)..., std::is_same_v<Ins, bool>...};
        Staging staging{};
        bool any_staged = false;
        for (std::size_t i = 0; i < operands; ++i) {
            staging.used[i] = stride0[i] != item_sizes[i] || is_bool_input[i];
            any_staged = any_staged || staging.used[i];
        }
        const std::int64_t piece = any_staged ? staged : longest;
        for (std::int64_t j = 0; j < n1; ++j) {
            for (std::int64_t begin = 0; begin < n0; begin += piece) {
                char* source[operands];
                for (std::size_t i = 0; i < operands; ++i) {
                    source[i] = data[i] + j * stride1[i] + begin * stride0[i];
                }
                call(*static_cast<const Function*>(function), source, stride0, std::min(piece, n0 - begin), staging,
                     begin == 0, std::make_index_sequence<outputs>{}, std::make_index_sequence<inputs>{});
            }
        }
    }

  private:
    struct Staging {
        bool used[operands];
        char* buffer(std::size_t operand) { return bytes + operand * staged * widest; }

      private:
        static constexpr std::size_t widest = std::max({sizeof(Outs)..., sizeof(Ins)...});
        // Not initialised: only what was gathered is read.
        struct Bytes {
            alignas(64) char bytes[operands * staged * widest];
            Bytes() {}
            operator char*() { return bytes; }
        } bytes;
    };

    template <std::size_t... O, std::size_t... I>
    static void call(const Function& f, char* const* source, const std::int64_t* stride, std::int64_t n,
                     Staging& staging, bool row_begins, std::index_sequence<O...>, std::index_sequence<I...>) {
        (gather<Ins>(staging, outputs + I, source, stride, n, row_begins), ...);
        f(n, reinterpret_cast<Outs*>(staging.used[O] ? staging.buffer(O) : source[O])...,
          reinterpret_cast<const Ins*>(staging.used[outputs + I] ? staging.buffer(outputs + I)
                                                                 : source[outputs + I])...);
        (scatter<Outs>(staging, O, source, stride, n), ...);
    }

    template <typename T>
    static void gather(Staging& staging, std::size_t i, char* const* source, const std::int64_t* stride, std::int64_t n,
                       bool row_begins) {
        // A constant stays in its buffer for the whole row; the first piece is the longest.
        if (staging.used[i] && (stride[i] != 0 || row_begins)) {
            T* buffer = reinterpret_cast<T*>(staging.buffer(i));
            for (std::int64_t k = 0; k < n; ++k) {
                buffer[k] = load<T>(source[i] + k * stride[i]);
            }
        }
    }

    template <typename T>
    static void scatter(Staging& staging, std::size_t o, char* const* source, const std::int64_t* stride,
                        std::int64_t n) {
        if (staging.used[o]) {
            const T* buffer = reinterpret_cast<const T*>(staging.buffer(o));
            for (std::int64_t k = 0; k < n; ++k) {
                *reinterpret_cast<T*>(source[o] + k * stride[o]) = buffer[k];
            }
        }
    }
};

}  // namespace ornik::detail
