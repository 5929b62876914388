// cpu_reduce_walk.cpp: the walk itself, over bytes.
#include "cpu_reduce_walk.h"

#include "descriptors/item_moves.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu::reduce_detail {

namespace {

constexpr std::int64_t results_at_once = 64;

// Units of `items` items each that are worth a second thread.
std::int64_t grain(std::int64_t items) { return std::max<std::int64_t>(2, reduce_grain / items); }

class Walk {
  public:
    Walk(const ReduceDescriptor& plan, const void* in, void* out, const BoundKernel& kernel)
        : plan_(plan),
          in_(static_cast<const char*>(in)),
          out_(static_cast<char*>(out)),
          kernel_(kernel),
          move_(item_mover(kernel.item_size)) {}

    // A row at a time; each is one chunk.
    void by_short_rows() const {
        const std::int64_t n = plan_.count;
        const ReduceAxis inner = plan_.kept.empty() ? ReduceAxis{1, 0, 0} : plan_.kept.front();
        const std::int64_t batch = std::clamp<std::int64_t>(reduce_chunk / n, 1, results_at_once);
        parallel_for(plan_.outputs, 1, grain(n), [&](std::int64_t begin, std::int64_t end) {
            Scratch scratch;
            const char* items[results_at_once];
            alignas(16) char states[results_at_once * largest_state];
            ReduceWalk outer(plan_.kept, begin / inner.size, std::min<std::size_t>(1, plan_.kept.size()));
            for (std::int64_t unit = begin, place = begin % inner.size; unit < end;) {
                const std::int64_t count = std::min({batch, end - unit, inner.size - place});
                for (std::int64_t r = 0; r < count; ++r) {
                    items[r] = collect(at(outer.offset() + (place + r) * inner.stride), 0, n,
                                       scratch.bytes + r * n * kernel_.item_size);
                }
                kernel_.rows(kernel_.kernel, items, count, n, 0, states);
                store(states, count, outer.result_offset() + place * inner.result_stride, inner.result_stride);
                unit += count;
                place += count;
                if (place == inner.size) {
                    place = 0;
                    outer.next();
                }
            }
        });
    }

    // Rows of several chunks.
    void by_rows() const {
        const std::int64_t chunks = parts(plan_.count, reduce_chunk);
        std::vector<char> states = make_states(plan_.outputs * chunks);
        parallel_for(plan_.outputs * chunks, 1, grain(reduce_chunk), [&](std::int64_t begin, std::int64_t end) {
            Scratch scratch;
            ReduceWalk kept(plan_.kept, begin / chunks);
            for (std::int64_t unit = begin, chunk = begin % chunks; unit < end; ++unit) {
                const std::int64_t first = chunk * reduce_chunk;
                const std::int64_t n = std::min(reduce_chunk, plan_.count - first);
                const char* items = collect(at(kept.offset()), first, n, scratch.bytes);
                kernel_.rows(kernel_.kernel, &items, 1, n, first, states.data() + unit * kernel_.state_size);
                if (++chunk == chunks) {
                    chunk = 0;
                    kept.next();
                }
            }
        });
        parallel_for(plan_.outputs, 1, grain(chunks), [&](std::int64_t begin, std::int64_t end) {
            ReduceWalk kept(plan_.kept, begin);
            for (std::int64_t i = begin; i < end; ++i, kept.next()) {
                char* all = states.data() + i * chunks * kernel_.state_size;
                kernel_.combine(kernel_.kernel, all, chunks, 1);
                store(all, 1, kept.result_offset(), 1);
            }
        });
    }

    // Tiles of at most `tile` adjacent results, whose elements are taken `chunk_rows` at a time.
    void by_tiles(std::int64_t chunk_rows, std::int64_t tile, BoundKernel::Columns advance) const {
        const ReduceAxis& column_axis = plan_.kept.front();
        const std::int64_t tiles = parts(column_axis.size, tile);
        const std::int64_t width = std::min(column_axis.size, tile);
        const std::int64_t chunks = parts(plan_.count, chunk_rows);
        const std::int64_t groups = plan_.outputs / column_axis.size * tiles;  // Of results that advance together.
        const auto tile_cols = [&](std::int64_t index) { return std::min(width, column_axis.size - index * width); };
        const auto store_group = [&](const char* states, std::int64_t group) {
            const std::int64_t index = group % tiles;
            store(states, tile_cols(index),
                  ReduceWalk(plan_.kept, group / tiles, 1).result_offset() + index * width * column_axis.result_stride,
                  column_axis.result_stride);
        };
        std::vector<char> states = make_states(chunks > 1 ? groups * chunks * width : 0);
        const std::int64_t unit_items = std::min(plan_.count, chunk_rows) * width;
        parallel_for(groups * chunks, 1, grain(unit_items), [&](std::int64_t begin, std::int64_t end) {
            std::vector<char> own = make_states(chunks > 1 ? 0 : width);
            const char* rows[reduce_chunk];
            for (std::int64_t unit = begin; unit < end; ++unit) {
                const std::int64_t group = unit / chunks;
                const std::int64_t first = unit % chunks * chunk_rows;
                const std::int64_t n = std::min(chunk_rows, plan_.count - first);
                const std::int64_t base = ReduceWalk(plan_.kept, group / tiles, 1).offset() + group % tiles * width;
                ReduceWalk walk(plan_.reduced, first);
                for (std::int64_t i = 0; i < n; ++i, walk.next()) {
                    rows[i] = at(base + walk.offset());
                }
                char* target = chunks > 1 ? states.data() + unit * width * kernel_.state_size : own.data();
                advance(kernel_.kernel, rows, n, tile_cols(group % tiles), first, target);
                if (chunks == 1) {
                    store_group(target, group);
                }
            }
        });
        if (chunks == 1) {
            return;
        }
        parallel_for(groups, 1, grain(chunks * width), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t group = begin; group < end; ++group) {
                char* all = states.data() + group * chunks * width * kernel_.state_size;
                kernel_.combine(kernel_.kernel, all, chunks, width);
                store_group(all, group);
            }
        });
    }

    // The arithmetic of columns() for results whose elements lie anyhow.
    void by_staged_columns() const {
        const std::int64_t chunks = parts(plan_.count, reduce_rows);
        const std::int64_t width = std::min(plan_.outputs, reduce_staged);
        const std::int64_t groups = parts(plan_.outputs, width);
        const std::int64_t depth = std::min(plan_.count, reduce_rows);
        const std::int64_t row_bytes = width * kernel_.item_size;
        std::vector<char> states = make_states(groups * chunks * width);
        const auto group_cols = [&](std::int64_t group) { return std::min(width, plan_.outputs - group * width); };
        parallel_for(groups * chunks, 1, grain(depth * width), [&](std::int64_t begin, std::int64_t end) {
            Scratch scratch;
            std::vector<char> staged(static_cast<std::size_t>(depth * row_bytes));
            const char* rows[reduce_rows];
            for (std::int64_t i = 0; i < depth; ++i) {
                rows[i] = staged.data() + i * row_bytes;
            }
            for (std::int64_t unit = begin; unit < end; ++unit) {
                const std::int64_t group = unit / chunks;
                const std::int64_t first = unit % chunks * reduce_rows;
                const std::int64_t n = std::min(reduce_rows, plan_.count - first);
                ReduceWalk kept(plan_.kept, group * width);
                for (std::int64_t j = 0; j < group_cols(group); ++j, kept.next()) {
                    const char* items = collect(at(kept.offset()), first, n, scratch.bytes);
                    move_(staged.data() + j * kernel_.item_size, row_bytes, items, kernel_.item_size, n);
                }
                kernel_.columns(kernel_.kernel, rows, n, group_cols(group), first,
                                states.data() + unit * width * kernel_.state_size);
            }
        });
        parallel_for(groups, 1, grain(chunks * width), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t group = begin; group < end; ++group) {
                char* all = states.data() + group * chunks * width * kernel_.state_size;
                kernel_.combine(kernel_.kernel, all, chunks, width);
                ReduceWalk kept(plan_.kept, group * width);
                for (std::int64_t j = 0; j < group_cols(group); ++j, kept.next()) {
                    store(all + j * kernel_.state_size, 1, kept.result_offset(), 1);
                }
            }
        });
    }

  private:
    // Items that do not lie side by side are collected here. Not initialised.
    struct Scratch {
        alignas(64) char bytes[reduce_chunk * largest_item];
        Scratch() {}
    };

    const char* at(std::int64_t offset) const { return in_ + offset * kernel_.item_size; }

    std::vector<char> make_states(std::int64_t count) const {
        return std::vector<char>(static_cast<std::size_t>(count * kernel_.state_size));
    }

    void store(const char* states, std::int64_t count, std::int64_t result_offset, std::int64_t stride) const {
        kernel_.store(kernel_.finish, states, count, out_ + result_offset * kernel_.out_size, stride);
    }

    // Items [begin, begin + n) of the reduced axes: as they lie when they are adjacent, else collected in
    // `buffer`.
    const char* collect(const char* base, std::int64_t begin, std::int64_t n, char* buffer) const {
        const std::int64_t size = kernel_.item_size;
        if (plan_.reduced.empty()) {
            return base;
        }
        const ReduceAxis& inner = plan_.reduced.front();
        if (plan_.reduced.size() == 1) {  // The usual case, and rows may be short.
            if (inner.stride == 1) {
                return base + begin * size;
            }
            move_(buffer, size, base + begin * inner.stride * size, inner.stride * size, n);
            return buffer;
        }
        std::int64_t column = begin % inner.size;
        ReduceWalk outer(plan_.reduced, begin / inner.size, 1);
        if (inner.stride == 1 && column + n <= inner.size) {
            return base + (outer.offset() + column) * size;
        }
        for (std::int64_t done = 0; done < n; column = 0, outer.next()) {
            const std::int64_t run = std::min(n - done, inner.size - column);
            move_(buffer + done * size, size, base + (outer.offset() + column * inner.stride) * size,
                  inner.stride * size, run);
            done += run;
        }
        return buffer;
    }

    const ReduceDescriptor& plan_;
    const char* in_;
    char* out_;
    const BoundKernel& kernel_;
    MoveItems move_;
};

}  // namespace

void run(const ReduceDescriptor& plan, const void* in, void* out, const BoundKernel& kernel) {
    using Form = ReduceDescriptor::Form;
    const Walk walk(plan, in, out, kernel);
    if (plan.outputs == 0) {
        return;
    }
    if (plan.form == Form::columns) {
        walk.by_tiles(reduce_rows, reduce_columns, kernel.columns);
    } else if (plan.form == Form::across && kernel.across != nullptr) {
        walk.by_tiles(reduce_chunk, reduce_across, kernel.across);
    } else if (plan.form == Form::staged && kernel.across != nullptr) {
        walk.by_staged_columns();
    } else if (plan.count <= reduce_chunk) {
        walk.by_short_rows();
    } else {
        walk.by_rows();
    }
}

}  // namespace ornik::device::cpu::reduce_detail
