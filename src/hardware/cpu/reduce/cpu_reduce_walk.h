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
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "descriptors/reduce_descriptor.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

inline constexpr std::int64_t reduce_chunk = 2048;    // items of a row
inline constexpr std::int64_t reduce_rows = 128;      // rows of a chunk of columns
inline constexpr std::int64_t reduce_columns = 4096;  // results that advance together
inline constexpr std::int64_t reduce_across = 256;    // the same, where each has several partial results
inline constexpr std::int64_t reduce_staged = 32;     // the same, where elements are collected first
inline constexpr std::int64_t reduce_grain = 32768;   // items worth a second thread

/// How elements lie in memory: any byte may stand for a bool.
template <typename T>
using Stored = std::conditional_t<std::is_same_v<T, bool>, std::uint8_t, T>;

namespace reduce_detail {

inline std::int64_t parts(std::int64_t n, std::int64_t size) { return (n + size - 1) / size; }

// Units of `items` items each that are worth a second thread.
inline std::int64_t grain(std::int64_t items) { return std::max<std::int64_t>(2, reduce_grain / items); }

template <typename Kernel>
void combine_tree(const Kernel& kernel, typename Kernel::State* states, std::int64_t chunks, std::int64_t width) {
    for (std::int64_t step = 1; step < chunks; step *= 2) {
        for (std::int64_t i = 0; i + step < chunks; i += 2 * step) {
            for (std::int64_t j = 0; j < width; ++j) {
                kernel.combine(states[i * width + j], states[(i + step) * width + j]);
            }
        }
    }
}

// Items [begin, begin + n) of the reduced axes: as they lie when they are adjacent, else collected in
// `buffer`.
template <typename Item>
const Item* collect(const std::vector<ReduceAxis>& axes, const Item* base, std::int64_t begin, std::int64_t n,
                    Item* buffer) {
    if (axes.empty()) {
        return base;
    }
    const ReduceAxis& inner = axes.front();
    if (axes.size() == 1) {  // The usual case, and rows may be short.
        if (inner.stride == 1) {
            return base + begin;
        }
        for (std::int64_t i = 0; i < n; ++i) {
            buffer[i] = base[(begin + i) * inner.stride];
        }
        return buffer;
    }
    std::int64_t column = begin % inner.size;
    ReduceWalk outer(axes, begin / inner.size, 1);
    if (inner.stride == 1 && column + n <= inner.size) {
        return base + outer.offset() + column;
    }
    for (std::int64_t done = 0; done < n; column = 0, outer.next()) {
        const std::int64_t run = std::min(n - done, inner.size - column);
        const Item* source = base + outer.offset() + column * inner.stride;
        for (std::int64_t i = 0; i < run; ++i) {
            buffer[done + i] = source[i * inner.stride];
        }
        done += run;
    }
    return buffer;
}

template <typename Kernel, typename Out, typename Finish>
void reduce_by_rows(const ReduceDescriptor& plan, const typename Kernel::Item* in, Out* out, const Kernel& kernel,
                    const Finish& finish) {
    using State = typename Kernel::State;
    const std::int64_t chunks = parts(plan.count, reduce_chunk);
    std::vector<State> states(static_cast<std::size_t>(chunks > 1 ? plan.outputs * chunks : 0));
    const std::int64_t unit_items = std::min(plan.count, reduce_chunk);
    parallel_for(plan.outputs * chunks, 1, grain(unit_items), [&](std::int64_t begin, std::int64_t end) {
        typename Kernel::Item buffer[reduce_chunk];
        ReduceWalk kept(plan.kept, begin / chunks);
        for (std::int64_t unit = begin, chunk = begin % chunks; unit < end; ++unit) {
            const std::int64_t first = chunk * reduce_chunk;
            const std::int64_t n = std::min(reduce_chunk, plan.count - first);
            const auto* items = collect(plan.reduced, in + kept.offset(), first, n, buffer);
            const State state = kernel.row(items, n, first);
            if (chunks == 1) {
                out[kept.result_offset()] = finish(state);
            } else {
                states[static_cast<std::size_t>(unit)] = state;
            }
            if (++chunk == chunks) {
                chunk = 0;
                kept.next();
            }
        }
    });
    if (chunks == 1) {
        return;
    }
    parallel_for(plan.outputs, 1, grain(chunks), [&](std::int64_t begin, std::int64_t end) {
        ReduceWalk kept(plan.kept, begin);
        for (std::int64_t i = begin; i < end; ++i, kept.next()) {
            combine_tree(kernel, states.data() + i * chunks, chunks, 1);
            out[kept.result_offset()] = finish(states[static_cast<std::size_t>(i * chunks)]);
        }
    });
}

// across() of the kernel, or row() of elements that are collected for several columns at a time.
template <typename Kernel>
void across(const Kernel& kernel, const typename Kernel::Item* const* rows, std::int64_t n, std::int64_t cols,
            typename Kernel::State* states) {
    if constexpr (requires { kernel.across(rows, n, cols, states); }) {
        kernel.across(rows, n, cols, states);
    } else {
        using Item = typename Kernel::Item;
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
                states[begin + j] = kernel.row(buffer.data() + j * row_items, n, 0);
            }
        }
    }
}

// Tiles of at most `tile` adjacent results, whose elements are taken ChunkRows at a time: advance(rows, n, cols, first,
// states) makes their states.
template <std::int64_t ChunkRows, typename Kernel, typename Out, typename Finish, typename Advance>
void reduce_tiles(const ReduceDescriptor& plan, std::int64_t tile, const typename Kernel::Item* in, Out* out,
                  const Kernel& kernel, const Finish& finish, const Advance& advance) {
    using State = typename Kernel::State;
    const ReduceAxis& column_axis = plan.kept.front();
    const std::int64_t tiles = parts(column_axis.size, tile);
    const std::int64_t width = std::min(column_axis.size, tile);
    const std::int64_t chunks = parts(plan.count, ChunkRows);
    const std::int64_t groups = plan.outputs / column_axis.size * tiles;  // Of results that advance together.
    const auto tile_cols = [&](std::int64_t index) { return std::min(width, column_axis.size - index * width); };
    const auto store = [&](const State* states, std::int64_t cols, Out* target) {
        for (std::int64_t j = 0; j < cols; ++j) {
            target[j * column_axis.result_stride] = finish(states[j]);
        }
    };
    const auto target_of = [&](std::int64_t group) {
        return out + ReduceWalk(plan.kept, group / tiles, 1).result_offset() +
               group % tiles * width * column_axis.result_stride;
    };
    std::vector<State> states(static_cast<std::size_t>(chunks > 1 ? groups * chunks * width : 0));
    const std::int64_t unit_items = std::min(plan.count, ChunkRows) * width;
    parallel_for(groups * chunks, 1, grain(unit_items), [&](std::int64_t begin, std::int64_t end) {
        std::vector<State> own(static_cast<std::size_t>(chunks > 1 ? 0 : width));
        for (std::int64_t unit = begin; unit < end; ++unit) {
            const std::int64_t group = unit / chunks;
            const std::int64_t first = unit % chunks * ChunkRows;
            const std::int64_t n = std::min(ChunkRows, plan.count - first);
            const std::int64_t cols = tile_cols(group % tiles);
            const auto* base = in + ReduceWalk(plan.kept, group / tiles, 1).offset() + group % tiles * width;
            const typename Kernel::Item* rows[ChunkRows];
            ReduceWalk walk(plan.reduced, first);
            for (std::int64_t i = 0; i < n; ++i, walk.next()) {
                rows[i] = base + walk.offset();
            }
            State* target = chunks > 1 ? states.data() + unit * width : own.data();
            advance(rows, n, cols, first, target);
            if (chunks == 1) {
                store(target, cols, target_of(group));
            }
        }
    });
    if (chunks == 1) {
        return;
    }
    parallel_for(groups, 1, grain(chunks * width), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t group = begin; group < end; ++group) {
            State* all = states.data() + group * chunks * width;
            combine_tree(kernel, all, chunks, width);
            store(all, tile_cols(group % tiles), target_of(group));
        }
    });
}

// The arithmetic of columns() for results whose elements lie anyhow.
template <typename Kernel, typename Out, typename Finish>
void reduce_staged_columns(const ReduceDescriptor& plan, const typename Kernel::Item* in, Out* out,
                           const Kernel& kernel, const Finish& finish) {
    using Item = typename Kernel::Item;
    using State = typename Kernel::State;
    const std::int64_t chunks = parts(plan.count, reduce_rows);
    const std::int64_t width = std::min(plan.outputs, reduce_staged);
    const std::int64_t groups = parts(plan.outputs, width);
    const std::int64_t depth = std::min(plan.count, reduce_rows);
    std::vector<State> states(static_cast<std::size_t>(groups * chunks * width));
    parallel_for(groups * chunks, 1, grain(depth * width), [&](std::int64_t begin, std::int64_t end) {
        std::vector<Item> staged(static_cast<std::size_t>(depth * width));
        const Item* rows[reduce_rows];
        for (std::int64_t i = 0; i < depth; ++i) {
            rows[i] = staged.data() + i * width;
        }
        for (std::int64_t unit = begin; unit < end; ++unit) {
            const std::int64_t first_output = unit / chunks * width;
            const std::int64_t cols = std::min(width, plan.outputs - first_output);
            const std::int64_t first = unit % chunks * reduce_rows;
            const std::int64_t n = std::min(reduce_rows, plan.count - first);
            ReduceWalk kept(plan.kept, first_output);
            for (std::int64_t j = 0; j < cols; ++j, kept.next()) {
                Item buffer[reduce_rows];
                const Item* items = collect(plan.reduced, in + kept.offset(), first, n, buffer);
                for (std::int64_t i = 0; i < n; ++i) {
                    staged[static_cast<std::size_t>(i * width + j)] = items[i];
                }
            }
            kernel.columns(rows, n, cols, first, states.data() + unit * width);
        }
    });
    parallel_for(groups, 1, grain(chunks * width), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t group = begin; group < end; ++group) {
            State* all = states.data() + group * chunks * width;
            combine_tree(kernel, all, chunks, width);
            ReduceWalk kept(plan.kept, group * width);
            for (std::int64_t j = 0; j < std::min(width, plan.outputs - group * width); ++j, kept.next()) {
                out[kept.result_offset()] = finish(all[j]);
            }
        }
    });
}

// Whether results are the same however elements are grouped.
template <typename Kernel>
constexpr bool is_exact() {
    return std::is_integral_v<typename Kernel::State> || requires { Kernel::exact; };
}

}  // namespace reduce_detail

/// out[...] = finish(state of all reduced items). count >= 1.
template <typename Kernel, typename Out, typename Finish>
void reduce(const ReduceDescriptor& plan, const void* in, Out* out, const Kernel& kernel, const Finish& finish) {
    const auto* items = static_cast<const typename Kernel::Item*>(in);
    if (plan.outputs == 0) {
        return;
    }
    using Form = ReduceDescriptor::Form;
    if (plan.form == Form::columns) {
        reduce_detail::reduce_tiles<reduce_rows>(plan, reduce_columns, items, out, kernel, finish,
                                                 [&](auto rows, auto n, auto cols, auto first, auto states) {
                                                     kernel.columns(rows, n, cols, first, states);
                                                 });
        return;
    }
    if constexpr (!reduce_detail::is_exact<Kernel>()) {
        if (plan.form == Form::across) {
            reduce_detail::reduce_tiles<reduce_chunk>(plan, reduce_across, items, out, kernel, finish,
                                                      [&](auto rows, auto n, auto cols, auto /*first*/, auto states) {
                                                          reduce_detail::across(kernel, rows, n, cols, states);
                                                      });
            return;
        }
        if (plan.form == Form::staged) {
            reduce_detail::reduce_staged_columns(plan, items, out, kernel, finish);
            return;
        }
    }
    reduce_detail::reduce_by_rows(plan, items, out, kernel, finish);
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
        State lane[lanes][reduce_across];
        for (std::int64_t i = 0; i < n; ++i) {
            const Item* row = rows[i];
            State* sums = lane[i % lanes];
            for (std::int64_t j = 0; j < cols; ++j) {
                sums[j] = i < lanes ? Rule::lift(row[j]) : Rule::join(sums[j], Rule::lift(row[j]));
            }
        }
        for (std::int64_t width = lanes / 2; width > 0; width /= 2) {
            for (std::int64_t i = 0; i < width; ++i) {
                for (std::int64_t j = 0; j < cols; ++j) {
                    lane[i][j] = Rule::join(lane[i][j], lane[i + width][j]);
                }
            }
        }
        std::copy_n(lane[0], cols, states);
    }

    static void combine(State& a, const State& b) { a = Rule::join(a, b); }
};

}  // namespace ornik::device::cpu
