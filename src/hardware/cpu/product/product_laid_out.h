// product_laid_out.h: products whose panels of B are laid out before the first tile. Included by *_vector.cpp files.
#pragma once

#include "product_strips.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t most_blocks = 8;  // of depth, that are laid out at once

// Lays out all panels of some blocks of depth.
template <typename T>
void pack_blocks(const Factors<T>& f, std::int64_t first, std::int64_t count, RealOf<T>* to, std::int64_t panel_size) {
    constexpr std::int64_t cols = TileShape<T>::cols;
    const std::int64_t panels = f.panels();
    const std::int64_t whole = f.cols / cols;
    const std::int64_t depth = std::min(count * block_depth, f.depth - first * block_depth);
    if constexpr (TileShape<T>::parts == 1) {
        if (f.b.col == 1) {
            // Along the rows of B, so many panels at a time that all their pages are known.
            constexpr std::int64_t rows_at_once = 16;
            constexpr std::int64_t panels_at_once = 32;
            parallel_for(parts_of(depth, rows_at_once), 1, 2, [&](std::int64_t begin, std::int64_t end) {
                for (std::int64_t k = begin * rows_at_once; k < std::min(depth, end * rows_at_once);
                     k += rows_at_once) {
                    const std::int64_t rows = std::min(rows_at_once, depth - k);
                    const Strided<T> b = f.b.from(first * block_depth + k, 0);
                    T* block = to + k / block_depth * panels * panel_size;
                    for (std::int64_t p = 0; p < whole; p += panels_at_once) {
                        pack_along(b.from(0, p * cols), rows, std::min(panels_at_once, whole - p),
                                   block + p * panel_size + k % block_depth * cols, panel_size);
                    }
                    if (whole < panels) {
                        const std::int64_t rest = f.panel_cols(whole);
                        pack_panel(b.from(0, whole * cols), rows, rest,
                                   block + whole * panel_size + k % block_depth * panel_row<T>(rest));
                    }
                }
            });
            return;
        }
    }
    parallel_for(count * panels, 1, 2, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t item = begin; item < end; ++item) {
            const std::int64_t k = item / panels * block_depth;
            pack_panel(f.b.from(first * block_depth + k, item % panels * cols), std::min(block_depth, depth - k),
                       f.panel_cols(item % panels), to + item * panel_size);
        }
    });
}

// Takes all rows through some blocks of depth, whose panels begin at panel_at(block, panel): tiles of C in a grid.
// Between blocks the sums of a few panels wait side by side, where they crowd nothing.
template <typename T, bool Swapped, typename PanelAt>
void multiply_laid_out(const Factors<T>& f, std::int64_t first, std::int64_t count, const PanelAt& panel_at) {
    using Shape = TileShape<T>;
    const std::int64_t workers = usable_processors();
    const std::int64_t panels = f.panels();
    // Equal shares for all workers, several for each.
    constexpr std::int64_t most_rows = near_bytes_of_a / (block_depth * sizeof(T));
    const std::int64_t row_tasks =
        std::min(parts_of(f.rows, 4 * Shape::rows), parts_of(parts_of(f.rows, most_rows), 2 * workers) * 2 * workers);
    const std::int64_t col_tasks = std::clamp<std::int64_t>(panels / 4, 1, parts_of(2 * workers, row_tasks));
    const bool pack = panels > 2 && is_crowding(f.a);
    const std::int64_t grain = std::max<std::int64_t>(2, grain_work * row_tasks * col_tasks / f.work());
    parallel_for(row_tasks * col_tasks, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        const std::int64_t rows = parts_of(f.rows, row_tasks);
        const std::int64_t packed_size = strips_size(Strips<T>(0, rows), block_depth);
        const std::int64_t waiting_size = rows * Shape::cols;
        const Scratch<T> packed(pack ? count * packed_size : 0);
        const Scratch<T> waiting(count > 1 ? panels_together * waiting_size : 0);
        for (std::int64_t task = begin; task < end; ++task) {
            const std::int64_t row_task = task / col_tasks;
            const std::int64_t first_panel = panels * (task % col_tasks) / col_tasks;
            const std::int64_t last_panel = panels * (task % col_tasks + 1) / col_tasks;
            const Strips<T> strips(f.rows * row_task / row_tasks, f.rows * (row_task + 1) / row_tasks);
            for (std::int64_t block = 0; pack && block < count; ++block) {
                const std::int64_t k = (first + block) * block_depth;
                for (std::int64_t s = 0; s < strips.count; ++s) {
                    pack_strip(f, strips, s, k, std::min(block_depth, f.depth - k), packed.get() + block * packed_size);
                }
            }
            for (std::int64_t group = first_panel; group < last_panel; group += panels_together) {
                const std::int64_t group_end = std::min(group + panels_together, last_panel);
                for (std::int64_t block = 0; block < count; ++block) {
                    const std::int64_t k = (first + block) * block_depth;
                    const std::int64_t depth = std::min(block_depth, f.depth - k);
                    for (std::int64_t p = group; p < group_end; ++p) {
                        const TileTarget<T> c{f.c + strips.begin * f.c_row + p * Shape::cols, f.c_row};
                        const TileTarget<T> aside{waiting.get() + (p - group) * waiting_size, Shape::cols};
                        const TileTarget<T>& out = block + 1 < count ? aside : c;
                        const TileTarget<T>& old = block > 0 ? aside : c;
                        const bool more = p + 1 < group_end;
                        const RealOf<T>* next = more                ? panel_at(first + block, p + 1)
                                                : block + 1 < count ? panel_at(first + block + 1, group)
                                                                    : nullptr;
                        const std::int64_t bytes = next == nullptr ? 0 : depth * Shape::cols * sizeof(T);
                        const char* from = reinterpret_cast<const char*>(next);
                        Ahead ahead{{from}, {from + bytes}, parts_of(bytes, 64 * strips.rows)};
                        panel_times_strips<T, Swapped>(
                            f, strips,
                            {pack ? packed.get() + block * packed_size : nullptr,
                             k,
                             depth,
                             p,
                             panel_at(first + block, p),
                             panel_row<T>(f.panel_cols(p)),
                             {out.out, out.out_row, old.out, old.out_row, f.bias_in_tiles(k + depth)},
                             f.end(k),
                             &ahead});
                    }
                }
            }
            if (first + count == parts_of(f.depth, block_depth)) {
                const std::int64_t col = first_panel * Shape::cols;
                f.finish(strips.begin, strips.rows, col, std::min(f.cols, last_panel * Shape::cols) - col,
                         f.bias_in_tiles(f.depth));
            }
        }
    });
}

// Many rows: all panels of some blocks of depth are laid out first.
template <typename T, bool Swapped>
void multiply_by_rows(const Factors<T>& f) {
    using R = RealOf<T>;
    // Neighbouring panels do not crowd the same places of a cache.
    constexpr std::int64_t panel_size = TileShape<T>::cols * TileShape<T>::parts * block_depth + 64 / sizeof(R);
    const std::int64_t panels = f.panels();
    const std::int64_t blocks = parts_of(f.depth, block_depth);
    const std::int64_t pass = std::clamp<std::int64_t>(
        panels_bytes / (panels * panel_size * static_cast<std::int64_t>(sizeof(R))), 1, std::min(most_blocks, blocks));
    const Scratch<R> memory(pass * panels * panel_size);
    for (std::int64_t first = 0; first < blocks; first += pass) {
        const std::int64_t count = std::min(pass, blocks - first);
        pack_blocks(f, first, count, memory.get(), panel_size);
        multiply_laid_out<T, Swapped>(f, first, count, [&](std::int64_t block, std::int64_t panel) {
            return memory.get() + ((block - first) * panels + panel) * panel_size;
        });
    }
}

}  // namespace

}  // namespace ornik::device::cpu
