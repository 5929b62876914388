// product_run.h: floating and complex products, from whole batches down to tiles. Included by *_vector.cpp files.
//
// An element's sum runs in blocks of 256 steps of depth, each a chain of its own (product_tile.h), and the blocks' sums
// are added in order. All else is free, and chosen by sizes alone: which factor gives the tiles' rows, what is laid out
// in panels first, and who computes what.
#pragma once

#include <optional>
#include <tuple>

#include "product_laid_out.h"

namespace ornik::device::cpu {

namespace {

// Do tiles read B best where it lies? Rows of whole vectors that are not quite far from each other can be read again
// and again where vectors are long: there a panel's layout costs more than the way through its pages.
template <typename T>
bool is_read_in_place(const Strided<T>& b, std::int64_t strips) {
    constexpr bool is_long = vec::vector_bytes == 64;
    const std::int64_t row = b.row * static_cast<std::int64_t>(sizeof(T));
    return TileShape<T>::parts == 1 && b.col == 1 &&
           (strips <= 2 || !is_far(b) || (is_long && row <= 4096 && row % vec::vector_bytes == 0));
}

// The rows of B that make a block of a panel.
template <typename T>
Ahead rows_ahead(const Factors<T>& f, std::int64_t panel, std::int64_t k) {
    constexpr std::int64_t bytes = TileShape<T>::cols * sizeof(T);
    constexpr std::int64_t places[] = {0, bytes / 2, bytes - 1};
    Ahead ahead{};
    if (f.b.col == 1 && panel < f.panels()) {
        const std::int64_t rows = std::min(block_depth, f.depth - k);
        ahead.step = f.b.row * static_cast<std::int64_t>(sizeof(T));
        ahead.lines = parts_of(rows, f.rows);
        for (int m = 0; m < 3; ++m) {
            ahead.at[m] = reinterpret_cast<const char*>(f.b.from(k, panel * TileShape<T>::cols).data) + places[m];
            ahead.end[m] = ahead.at[m] + rows * ahead.step;
        }
    }
    return ahead;
}

// Few rows: every worker takes some columns, and lays their panels out for itself where it can not read them in place.
template <typename T, bool Swapped>
[[gnu::noinline]] void multiply_by_cols(const Factors<T>& f) {
    using R = RealOf<T>;
    const std::int64_t panels = f.panels();
    const Strips<T> strips(0, f.rows);
    // What one worker packs for all is slow to reach the others: A is read as it lies where that goes.
    const bool pack = panels > 2 && is_crowding(f.a);
    const bool in_place = is_read_in_place(f.b, strips.count);
    const std::int64_t block_size = strips_size(strips, block_depth);
    std::optional<Scratch<T>> packed;
    if (pack) {
        const std::int64_t blocks = parts_of(f.depth, block_depth);
        packed.emplace(blocks * block_size);
        parallel_for(blocks * strips.count, 1, parts_of(grain_work / 4, TileShape<T>::rows * block_depth),
                     [&](std::int64_t begin, std::int64_t end) {
                         for (std::int64_t item = begin; item < end; ++item) {
                             const std::int64_t block = item / strips.count;
                             const std::int64_t k = block * block_depth;
                             pack_strip(f, strips, item % strips.count, k, std::min(block_depth, f.depth - k),
                                        packed->get() + block * block_size);
                         }
                     });
    }
    // Where A is more than stays near, a block of it meets several panels.
    const bool large = f.rows * f.depth * static_cast<std::int64_t>(sizeof(T)) > 2 * near_bytes_of_a;
    const std::int64_t workers = usable_processors();
    const std::int64_t together = large ? std::clamp<std::int64_t>(panels / (2 * workers), 1, panels_together) : 1;
    const std::int64_t groups = std::min(panels, parts_of(parts_of(panels, together), workers) * workers);
    const std::int64_t grain = std::max<std::int64_t>(2, grain_work / std::max<std::int64_t>(1, f.work() / groups));
    parallel_for(groups, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        PanelMemory<R> memory;
        const auto multiply_panel = [&](std::int64_t p, std::int64_t k, Ahead next) {
            const std::int64_t cols = f.panel_cols(p);
            const std::int64_t row = panel_row<T>(cols);
            const std::int64_t depth = std::min(block_depth, f.depth - k);
            const Strided<T> b = f.b.from(k, p * TileShape<T>::cols);
            T* const c = f.c + p * TileShape<T>::cols;
            PanelOperands<T> in{pack ? packed->get() + k / block_depth * block_size : nullptr,
                                k,
                                depth,
                                p,
                                reinterpret_cast<const R*>(b.data),
                                b.row,
                                {c, f.c_row, c, f.c_row, f.bias_in_tiles(k + depth)},
                                f.end(k),
                                f.next != nullptr ? f.next : &next};
            if (!in_place || cols < row) {
                R* const to = memory.take(depth * row);
                if (TileShape<T>::parts == 1 && f.b.col == 1 && cols == TileShape<T>::cols) {
                    in.laid_out = to;
                } else {
                    pack_panel(b, depth, cols, to);
                    in.b = to;
                    in.b_step = row;
                }
            }
            panel_times_strips<T, Swapped>(f, strips, in);
        };
        for (std::int64_t group = begin; group < end; ++group) {
            const std::int64_t first = panels * group / groups;
            const std::int64_t behind = panels * (group + 1) / groups;
            for (std::int64_t k = 0; k < f.depth; k += block_depth) {
                const bool last = k + block_depth >= f.depth;
                for (std::int64_t p = first; p < behind; ++p) {
                    const bool goes_on = p + 1 < behind;
                    multiply_panel(p, k,
                                   in_place  ? Ahead{}
                                   : goes_on ? rows_ahead(f, p + 1, k)
                                   : last    ? rows_ahead(f, behind, 0)
                                             : rows_ahead(f, first, k + block_depth));
                }
            }
            const std::int64_t col = first * TileShape<T>::cols;
            f.finish(0, f.rows, col, std::min(f.cols, behind * TileShape<T>::cols) - col, f.bias_in_tiles(f.depth));
        }
    });
}

template <typename T>
const void* from_element(const void* elements, std::int64_t first) {
    return elements == nullptr ? nullptr : static_cast<const T*>(elements) + first;
}

// More rows than columns: every worker takes some rows. Strips are a finer measure than few panels, and what is packed
// of A is nobody else's.
template <typename T, bool Swapped>
void multiply_rows_apart(const Factors<T>& f) {
    const std::int64_t workers = usable_processors();
    const std::int64_t tasks = workers * std::clamp<std::int64_t>(f.rows / (workers * 128), 1, 4);
    const std::int64_t grain = std::max<std::int64_t>(2, grain_work * tasks / f.work());
    parallel_for(tasks, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        const std::int64_t first = f.rows * begin / tasks;
        Factors<T> part = f;
        part.a = f.a.from(first, 0);
        part.c += first * f.c_row;
        part.rows = f.rows * end / tasks - first;
        if (part.rows < 1) {
            return;
        }
        ProductEnds ends;
        if (f.ends != nullptr) {
            ends = *f.ends;
            ends.residual = from_element<T>(ends.residual, first * ends.residual_row);
            ends.row_bias = from_element<T>(ends.row_bias, first);
            part.ends = &ends;
        }
        multiply_by_cols<T, Swapped>(part);
    });
}

// Would some workers have notably more columns than others?
template <typename T>
bool parts_unevenly_by_cols(const Factors<T>& f) {
    const std::int64_t workers = usable_processors();
    return f.panels() < 3 * workers && f.cols % (workers * TileShape<T>::cols) != 0;
}

template <typename T, bool Swapped>
void multiply(const Factors<T>& f) {
    if constexpr (TileShape<T>::parts == 1) {
        if (f.rows <= TileShape<T>::rows && f.b.col == 1 && is_far(f.b)) {
            multiply_streaming(f);
            return;
        }
        if (f.rows == 1 && f.b.col != 1) {
            multiply_turned_row(f);
            return;
        }
    }
    // A block of A stays in the second level of cache.
    constexpr std::int64_t most_rows = 2 * near_bytes_of_a / (block_depth * sizeof(T));
    const bool is_shared = f.work() >= grain_work;  // What is not is not cut, and lays out no more than it must.
    if (f.rows > most_rows || (is_shared && f.rows > f.cols && f.panels() < 2 * usable_processors())) {
        multiply_by_rows<T, Swapped>(f);
    } else if (is_shared && f.rows >= f.cols && (parts_unevenly_by_cols(f) || is_crowding(f.a)) &&
               is_read_in_place(f.b, parts_of(f.rows, TileShape<T>::rows))) {
        multiply_rows_apart<T, Swapped>(f);
    } else {
        multiply_by_cols<T, Swapped>(f);
    }
}

// Few columns make bad vectors: the transposed product, into memory of its own. Also where what is added to must wait
// for the whole sum.
template <typename T, bool Swapped>
void multiply_aside(const Factors<T>& f, T* c, std::int64_t c_row, bool add) {
    const Scratch<T> aside(f.rows * f.cols);
    Factors<T> g = f;
    g.c = aside.get();
    g.c_row = f.cols;
    g.add = false;
    g.ends = nullptr;
    multiply<T, Swapped>(g);
    Factors<T> whole = f;
    whole.c = c;
    whole.c_row = c_row;
    whole.rows = Swapped ? f.cols : f.rows;
    whole.cols = Swapped ? f.rows : f.cols;
    parallel_for(whole.rows, 1, parts_of(grain_work, whole.cols), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            const T* from = aside.get() + (Swapped ? i : i * f.cols);
            const std::int64_t step = Swapped ? f.cols : 1;
            T* to = c + i * c_row;
            for (std::int64_t j = 0; j < whole.cols; ++j) {
                to[j] = add ? to[j] + from[j * step] : from[j * step];
            }
        }
        whole.finish(begin, end - begin, 0, whole.cols);
    });
}

template <typename T>
void multiply_one(const ProductPlan& plan, const T* a, const T* b, T* c, const ProductEnds* ends,
                  Ahead* next = nullptr) {
    const std::int64_t width_c = plan.row_step_c();
    if (plan.rows < 1 || plan.cols < 1) {
        return;
    }
    if (plan.depth == 0) {
        for (std::int64_t i = 0; i < plan.rows && !plan.accumulate; ++i) {
            std::fill_n(c + i * width_c, plan.cols, T(0));
        }
        Factors<T>{{}, {}, c, width_c, plan.rows, plan.cols, 0, false, ends}.finish(0, plan.rows, 0, plan.cols);
        return;
    }
    const auto strided = [](const T* data, bool transposed, std::int64_t step) {
        return transposed ? Strided<T>{data, 1, step} : Strided<T>{data, step, 1};
    };
    const Strided<T> left = strided(a, plan.transpose_a, plan.row_step_a());
    const Strided<T> right = strided(b, plan.transpose_b, plan.row_step_b());
    if (plan.rows > plan.cols && (4 * plan.cols <= lanes<RealOf<T>> || plan.cols == 1)) {
        const Factors<T> f{right.turned(), left.turned(), nullptr, 0, plan.cols, plan.rows, plan.depth, false, ends};
        multiply_aside<T, true>(f, c, width_c, plan.accumulate);
        return;
    }
    const Factors<T> f{left, right, c, width_c, plan.rows, plan.cols, plan.depth, plan.accumulate, ends, next};
    if (plan.accumulate && plan.depth > block_depth) {
        multiply_aside<T, false>(f, c, width_c, true);
    } else {
        multiply<T, false>(f);
    }
}

}  // namespace

// Matrices of a batch that are fetched ahead: neither so few bytes that the hardware has them, nor too many to keep.
constexpr std::int64_t nearest_bytes = std::int64_t{4} << 10;
constexpr std::int64_t near_bytes = std::int64_t{256} << 10;

template <typename T>
const char* bytes_at(const T* at) {
    return reinterpret_cast<const char*>(at);
}

template <typename T>
void float_product(const ProductPlan& plan, const T* a, const T* b, T* c, const ProductEnds* ends) {
    const std::int64_t stored_a = plan.row_step_a() * (plan.transpose_a ? plan.depth : plan.rows);
    const std::int64_t stored_b = plan.row_step_b() * (plan.transpose_b ? plan.cols : plan.depth);
    const std::int64_t stored_c = plan.row_step_c() * plan.rows;
    const auto at = [&](std::int64_t index) {
        const auto start = [index](const ProductPlace& place, std::int64_t size) {
            return place.starts != nullptr ? place.starts[index] : index * size;
        };
        return std::tuple{a + start(plan.place_a, plan.rows * plan.depth),
                          b + start(plan.place_b, plan.depth * plan.cols),
                          c + start(plan.place_c, plan.rows * plan.cols)};
    };
    const auto one = [&](std::int64_t index, Ahead* next) {
        const auto [x, y, z] = at(index);
        multiply_one(plan, x, y, z, ends, next);
    };
    const std::int64_t work = plan.rows * plan.cols * plan.depth;
    if (work < grain_work || plan.batch >= 2 * usable_processors()) {
        // Within a region, a product is its worker's own.
        const std::int64_t grain = work > 0 ? grain_work / work + 1 : plan.batch + 1;
        const std::int64_t bytes = (stored_a + stored_b + stored_c) * static_cast<std::int64_t>(sizeof(T));
        const std::int64_t tiles = parts_of(plan.rows, TileShape<T>::rows) * parts_of(plan.cols, TileShape<T>::cols) *
                                   parts_of(plan.depth, block_depth);
        parallel_for(plan.batch, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t index = begin; index < end; ++index) {
                if (index + 1 == end || bytes < nearest_bytes || bytes > near_bytes) {
                    one(index, nullptr);
                    continue;
                }
                const auto [x, y, z] = at(index + 1);
                const auto lines = [tiles](std::int64_t size) {
                    return size * sizeof(T) / 64 / (tiles * TileShape<T>::rows) + 1;
                };
                Ahead next{{bytes_at(x), bytes_at(y), bytes_at(z)},
                           {bytes_at(x + stored_a), bytes_at(y + stored_b), bytes_at(z + stored_c)},
                           static_cast<std::int64_t>(lines(std::max({stored_a, stored_b, stored_c})))};
                one(index, &next);
            }
        });
        return;
    }
    for (std::int64_t index = 0; index < plan.batch; ++index) {
        one(index, nullptr);
    }
}

template <typename T>
std::int64_t packed_factor_size(std::int64_t depth, std::int64_t cols) {
    const std::int64_t last = (cols - 1) % TileShape<T>::cols + 1;
    return depth * ((cols - last) * TileShape<T>::parts + panel_row<T>(last));
}

template <typename T>
void pack_factor(const T* b, bool transposed, std::int64_t depth, std::int64_t cols, void* packed) {
    const Strided<T> from = transposed ? Strided<T>{b, 1, depth} : Strided<T>{b, cols, 1};
    RealOf<T>* to = static_cast<RealOf<T>*>(packed);
    for (std::int64_t k = 0; k < depth; k += block_depth) {
        const std::int64_t steps = std::min(block_depth, depth - k);
        for (std::int64_t j = 0; j < cols; j += TileShape<T>::cols) {
            const std::int64_t count = std::min<std::int64_t>(TileShape<T>::cols, cols - j);
            pack_panel(from.from(k, j), steps, count, to);
            to += steps * panel_row<T>(count);
        }
    }
}

template <typename T>
void packed_product(const T* a, std::int64_t a_row, const void* packed, std::int64_t rows, std::int64_t cols,
                    std::int64_t depth, bool accumulate, T* c, const ProductEnds* ends) {
    Factors<T> f{{a, a_row, 1}, {}, c, cols, rows, cols, depth, accumulate, ends};
    if (rows < 1 || cols < 1 || depth < 1) {
        if (!accumulate) {
            std::fill_n(c, rows * cols, T(0));
        }
        f.finish(0, rows, 0, cols);
        return;
    }
    const RealOf<T>* panels = static_cast<const RealOf<T>*>(packed);
    const std::int64_t step = packed_factor_size<T>(1, cols);
    const auto multiply_all = [&] {
        const std::int64_t blocks = parts_of(depth, block_depth);
        for (std::int64_t first = 0; first < blocks; first += most_blocks) {
            multiply_laid_out<T, false>(
                f, first, std::min(most_blocks, blocks - first), [&](std::int64_t block, std::int64_t panel) {
                    const std::int64_t k = block * block_depth;
                    return panels + k * step +
                           std::min(block_depth, depth - k) * panel * TileShape<T>::cols * TileShape<T>::parts;
                });
        }
    };
    if (!accumulate || depth <= block_depth) {
        multiply_all();
        return;
    }
    const Scratch<T> aside(rows * cols);
    f.c = aside.get();
    f.add = false;
    f.ends = nullptr;
    multiply_all();
    std::transform(c, c + rows * cols, aside.get(), c, [](T x, T y) { return x + y; });
    f.c = c;
    f.ends = ends;
    f.finish(0, rows, 0, cols);
}

#define ORNIK_INSTANTIATE_PRODUCTS(T)                                                                                 \
    template void float_product(const ProductPlan&, const T*, const T*, T*, const ProductEnds*);                      \
    template std::int64_t packed_factor_size<T>(std::int64_t, std::int64_t);                                          \
    template void pack_factor(const T*, bool, std::int64_t, std::int64_t, void*);                                     \
    template void packed_product(const T*, std::int64_t, const void*, std::int64_t, std::int64_t, std::int64_t, bool, \
                                 T*, const ProductEnds*)

}  // namespace ornik::device::cpu
