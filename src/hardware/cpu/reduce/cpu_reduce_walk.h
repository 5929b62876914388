// cpu_reduce_walk.h: the walk under every reduction kernel.
//
// The reduced elements of one result are cut into chunks of a fixed size. A kernel turns a chunk into a
// state; states are combined pairwise, as a tree whose form depends on the number of chunks alone. Results
// therefore have the same bits whatever the team size, and the error of a floating sum grows with the
// logarithm of its length.
//
// A kernel is a class with
//
//     using Item;                    // what lies in memory
//     using State;
//     State row(const Item* items, std::int64_t n, std::int64_t first) const;
//         // n >= 1 adjacent items, of which the first has position `first` among the reduced ones
//     void columns(const Item* const* rows, std::int64_t n, std::int64_t cols, std::int64_t first,
//                  State* states) const;
//         // the same for `cols` results at once: item [i, j] is rows[i][j]
//     void combine(State& a, const State& b) const;    // b follows a
//
// and, optionally,
//
//     void across(const Item* const* rows, std::int64_t n, std::int64_t cols, State* states) const;
//         // for each of at most reduce_across columns the bits that row() would give
//     static constexpr bool exact = true;
//         // results do not depend on how elements are grouped, as those with an integer for their state
//
// States are plain numbers. What is compiled for every kernel is these functions alone; the walk itself is there once.
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "descriptors/reduce_descriptor.h"

namespace ornik::device::cpu {

inline constexpr std::int64_t reduce_chunk = 2048;    // items of a row
inline constexpr std::int64_t reduce_rows = 128;      // rows of a chunk of columns
inline constexpr std::int64_t reduce_columns = 4096;  // results that advance together
inline constexpr std::int64_t reduce_across = 1024;   // the same, where each has several partial results
inline constexpr std::int64_t reduce_staged = 32;     // the same, where elements are collected first
inline constexpr std::int64_t reduce_grain = 32768;   // items worth a second thread

/// How elements lie in memory: any byte may stand for a bool.
template <typename T>
using Stored = std::conditional_t<std::is_same_v<T, bool>, std::uint8_t, T>;

namespace reduce_detail {

inline std::int64_t parts(std::int64_t n, std::int64_t size) { return (n + size - 1) / size; }

inline constexpr std::int64_t largest_state = 32;  // bytes

/// A kernel, and how results are made of its states, without their types.
struct BoundKernel {
    std::int64_t item_size;
    std::int64_t state_size;
    std::int64_t out_size;
    const void* kernel;
    const void* finish;
    /// states[r] = row(items[r], n, first) for r < count
    void (*rows)(const void* kernel, const char* const* items, std::int64_t count, std::int64_t n, std::int64_t first,
                 char* states);
    using Columns = void (*)(const void* kernel, const char* const* rows, std::int64_t n, std::int64_t cols,
                             std::int64_t first, char* states);
    Columns columns;
    /// Null when results do not depend on how elements are grouped.
    Columns across;
    /// Of `chunks` groups of `width` states the first one becomes what all of them combine to, as a tree.
    void (*combine)(const void* kernel, char* states, std::int64_t chunks, std::int64_t width);
    /// out[j * stride] = finish(states[j]) for j < count
    void (*store)(const void* finish, const char* states, std::int64_t count, char* out, std::int64_t stride);
};

/// count >= 1.
void run(const ReduceDescriptor& plan, const void* in, void* out, const BoundKernel& kernel);

template <typename Kernel>
struct KernelCalls {
    using Item = typename Kernel::Item;
    using State = typename Kernel::State;
    static_assert(sizeof(State) <= largest_state && std::is_trivially_copyable_v<State>);
    /// Whether results are the same however elements are grouped.
    static constexpr bool is_exact = std::is_integral_v<State> || requires { Kernel::exact; };

    static const Kernel& of(const void* kernel) { return *static_cast<const Kernel*>(kernel); }

    static void rows(const void* kernel, const char* const* items, std::int64_t count, std::int64_t n,
                     std::int64_t first, char* states) {
        auto* const out = reinterpret_cast<State*>(states);
        for (std::int64_t r = 0; r < count; ++r) {
            out[r] = of(kernel).row(reinterpret_cast<const Item*>(items[r]), n, first);
        }
    }

    static void columns(const void* kernel, const char* const* rows, std::int64_t n, std::int64_t cols,
                        std::int64_t first, char* states) {
        of(kernel).columns(reinterpret_cast<const Item* const*>(rows), n, cols, first,
                           reinterpret_cast<State*>(states));
    }

    // across() of the kernel, or row() of elements that are collected for several columns at a time.
    static void across(const void* kernel, const char* const* row_bytes, std::int64_t n, std::int64_t cols,
                       std::int64_t /*first*/, char* state_bytes) {
        const auto* const* rows = reinterpret_cast<const Item* const*>(row_bytes);
        auto* const states = reinterpret_cast<State*>(state_bytes);
        if constexpr (requires { of(kernel).across(rows, n, cols, states); }) {
            of(kernel).across(rows, n, cols, states);
        } else {
            constexpr std::int64_t together = 16;
            constexpr std::int64_t row_items = reduce_chunk + 64 / sizeof(Item);  // Rows apart in the cache's sets.
            std::vector<Item> buffer(static_cast<std::size_t>(together * row_items));
            for (std::int64_t begin = 0; begin < cols; begin += together) {
                const std::int64_t width = std::min(together, cols - begin);
                for (std::int64_t i = 0; i < n; ++i) {
                    for (std::int64_t j = 0; j < width; ++j) {
                        buffer[static_cast<std::size_t>(j * row_items + i)] = rows[i][begin + j];
                    }
                }
                for (std::int64_t j = 0; j < width; ++j) {
                    states[begin + j] = of(kernel).row(buffer.data() + j * row_items, n, 0);
                }
            }
        }
    }

    static void combine(const void* kernel, char* state_bytes, std::int64_t chunks, std::int64_t width) {
        auto* const states = reinterpret_cast<State*>(state_bytes);
        for (std::int64_t step = 1; step < chunks; step *= 2) {
            for (std::int64_t i = 0; i + step < chunks; i += 2 * step) {
                for (std::int64_t j = 0; j < width; ++j) {
                    of(kernel).combine(states[i * width + j], states[(i + step) * width + j]);
                }
            }
        }
    }
};

template <typename State, typename Out, typename Finish>
void store(const void* finish, const char* states, std::int64_t count, char* out, std::int64_t stride) {
    for (std::int64_t j = 0; j < count; ++j) {
        reinterpret_cast<Out*>(out)[j * stride] =
            (*static_cast<const Finish*>(finish))(reinterpret_cast<const State*>(states)[j]);
    }
}

}  // namespace reduce_detail

/// out[...] = finish(state of all reduced items). count >= 1.
template <typename Kernel, typename Out, typename Finish>
void reduce(const ReduceDescriptor& plan, const void* in, Out* out, const Kernel& kernel, const Finish& finish) {
    using Calls = reduce_detail::KernelCalls<Kernel>;
    using State = typename Kernel::State;
    reduce_detail::BoundKernel bound{sizeof(typename Kernel::Item),
                                     sizeof(State),
                                     sizeof(Out),
                                     &kernel,
                                     &finish,
                                     Calls::rows,
                                     Calls::columns,
                                     nullptr,
                                     Calls::combine,
                                     reduce_detail::store<State, Out, Finish>};
    if constexpr (!Calls::is_exact) {
        bound.across = Calls::across;
    }
    reduce_detail::run(plan, in, out, bound);
}

/// A kernel whose state is one number: Rule::lift makes it from an item, Rule::join combines two.
template <typename ItemType, typename StateType, typename Rule>
struct Fold {
    using Item = ItemType;
    using State = StateType;
    // Independent partial results, as many on every machine: enough for wide registers and several of them.
    static constexpr std::int64_t lanes = std::max<std::int64_t>(4, 128 / static_cast<std::int64_t>(sizeof(State)));

    static State row(const Item* items, std::int64_t n, std::int64_t /*first*/ = 0) {
        if (n < lanes) {
            State state = Rule::lift(items[0]);
            for (std::int64_t i = 1; i < n; ++i) {
                state = Rule::join(state, Rule::lift(items[i]));
            }
            return state;
        }
        State lane[lanes];
        for (std::int64_t j = 0; j < lanes; ++j) {
            lane[j] = Rule::lift(items[j]);
        }
        std::int64_t i = lanes;
        for (; i + lanes <= n; i += lanes) {
            for (std::int64_t j = 0; j < lanes; ++j) {
                lane[j] = Rule::join(lane[j], Rule::lift(items[i + j]));
            }
        }
        for (std::int64_t j = 0; i + j < n; ++j) {
            lane[j] = Rule::join(lane[j], Rule::lift(items[i + j]));
        }
        for (std::int64_t width = lanes / 2; width > 0; width /= 2) {
            for (std::int64_t j = 0; j < width; ++j) {
                lane[j] = Rule::join(lane[j], lane[j + width]);
            }
        }
        return lane[0];
    }

    static void columns(const Item* const* rows, std::int64_t n, std::int64_t cols, std::int64_t /*first*/,
                        State* states) {
        for (std::int64_t j = 0; j < cols; ++j) {
            states[j] = Rule::lift(rows[0][j]);
        }
        for (std::int64_t i = 1; i < n; ++i) {
            const Item* row = rows[i];
            for (std::int64_t j = 0; j < cols; ++j) {
                states[j] = Rule::join(states[j], Rule::lift(row[j]));
            }
        }
    }

    static void across(const Item* const* rows, std::int64_t n, std::int64_t cols, State* states) {
        if (n < lanes) {
            columns(rows, n, cols, 0, states);
            return;
        }
        // Partial results of all columns, lane by lane; several rows of a lane at a time save passes over them.
        std::vector<State> partial(static_cast<std::size_t>(lanes * cols));
        const auto lane = [&](std::int64_t i) { return partial.data() + i % lanes * cols; };
        const auto join_row = [&](std::int64_t i, std::int64_t begin, std::int64_t end) {
            const Item* row = rows[i];
            State* sums = lane(i);
            for (std::int64_t j = begin; j < end; ++j) {
                sums[j] = Rule::join(sums[j], Rule::lift(row[j]));
            }
        };
        for (std::int64_t i = 0; i < lanes; ++i) {
            std::transform(rows[i], rows[i] + cols, lane(i), Rule::lift);
        }
        // Some rows of a lane at a time, block by block: the lane's partial results stay in the nearest cache.
        constexpr std::int64_t together = 4;
        constexpr std::int64_t block = 256;
        std::int64_t first = lanes;
        for (; first + together * lanes <= n; first += together * lanes) {
            for (std::int64_t i = first; i < first + lanes; ++i) {
                for (std::int64_t begin = 0; begin < cols; begin += block) {
                    for (std::int64_t k = 0; k < together; ++k) {
                        join_row(i + k * lanes, begin, std::min(cols, begin + block));
                    }
                }
            }
        }
        for (; first < n; ++first) {
            join_row(first, 0, cols);
        }
        for (std::int64_t width = lanes / 2; width > 0; width /= 2) {
            for (std::int64_t j = 0; j < width * cols; ++j) {
                partial[static_cast<std::size_t>(j)] = Rule::join(partial[static_cast<std::size_t>(j)],
                                                                  partial[static_cast<std::size_t>(j + width * cols)]);
            }
        }
        std::copy_n(partial.data(), cols, states);
    }

    static void combine(State& a, const State& b) { a = Rule::join(a, b); }
};

}  // namespace ornik::device::cpu
