// product_run.h: floating and complex products, from whole batches down to tiles. Included by *_vector.cpp files.
//
// An element's sum runs in blocks of 256 steps of depth, each a chain of its own (product_tile.h), and the blocks' sums
// are added in order. All else is free, and chosen by sizes alone: which factor gives the tiles' rows, what is laid out
// in panels first, and who computes what.
#pragma once

#include <algorithm>
#include <optional>

#include "cpu_product_kernels.h"
#include "hardware/parallel.h"
#include "hardware/scratch.h"
#include "product_panels.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t block_depth = 256;
// Multiplications worth a second thread, and bytes of panels that are laid out at once.
constexpr std::int64_t grain_work = 1 << 17;
constexpr std::int64_t panels_bytes = std::int64_t{8} << 20;

constexpr std::int64_t parts_of(std::int64_t n, std::int64_t size) { return (n + size - 1) / size; }

// One product of row-major C; element (i, j) at c + i * c_row + j. `add`: to what C holds, where the depth is one
// block.
template <typename T>
struct Factors {
    Strided<T> a;
    Strided<T> b;
    T* c;
    std::int64_t c_row;
    std::int64_t rows;
    std::int64_t cols;
    std::int64_t depth;
    bool add;

    std::int64_t work() const { return rows * cols * depth; }
    std::int64_t panels() const { return parts_of(cols, TileShape<T>::cols); }
    std::int64_t panel_cols(std::int64_t panel) const {
        return std::min<std::int64_t>(TileShape<T>::cols, cols - panel * TileShape<T>::cols);
    }
    TileEnd end(std::int64_t first_step) const { return first_step > 0 || add ? TileEnd::add : TileEnd::store; }
};

// Rows [begin, end) in the fewest strips of a tile's height, as even as they can be.
template <typename T>
struct Strips {
    std::int64_t begin;
    std::int64_t rows;
    std::int64_t count;

    Strips(std::int64_t first, std::int64_t last)
        : begin(first), rows(last - first), count(parts_of(rows, TileShape<T>::rows)) {}
    std::int64_t first(std::int64_t strip) const { return begin + rows * strip / count; }
    std::int64_t height(std::int64_t strip) const { return first(strip + 1) - first(strip); }
};

// Memory for panels: on the stack while that is enough.
template <typename R>
class PanelMemory {
  public:
    R* take(std::int64_t count) {
        if (count <= near) {
            return here_;
        }
        if (count > count_) {
            far_.emplace(count);
            count_ = count;
        }
        return far_->get();
    }

  private:
    static constexpr std::int64_t near = 8192 / sizeof(R);
    alignas(64) R here_[near + Scratch<R>::beyond / sizeof(R)];
    std::optional<Scratch<R>> far_;
    std::int64_t count_ = 0;
};

// A tile of `cols` columns at `out`.
template <typename T, bool Swapped, bool Packed>
void tile_at(const TileOperands<T>& in, std::int64_t rows, std::int64_t cols, T* out, std::int64_t out_row,
             TileEnd end) {
    using Shape = TileShape<T>;
    constexpr std::int64_t width = lanes<RealOf<T>>;
    const std::int64_t vectors = cols > width ? Shape::vectors : 1;
    const SumTile<T> sum = tile_function<T, Swapped, Packed>(rows, vectors);
    if (cols == vectors * width) {
        sum(in, out, out_row, end);
        return;
    }
    alignas(64) T whole[Shape::rows * Shape::cols];
    sum(in, whole, Shape::cols, TileEnd::store);
    for (std::int64_t i = 0; i < rows; ++i) {
        T* to = out + i * out_row;
        const T* from = whole + i * Shape::cols;
        if (end == TileEnd::store) {
            std::copy_n(from, cols, to);
        } else {
            for (std::int64_t j = 0; j < cols; ++j) {
                to[j] = to[j] + from[j];
            }
        }
    }
}

// Elements of a block of A in packed strips.
template <typename T>
std::int64_t strips_size(std::int64_t rows) {
    return rows * block_depth;
}

// The strips of A over a block of depth, one after the other.
template <typename T>
void pack_strips(const Factors<T>& f, const Strips<T>& strips, std::int64_t k, std::int64_t depth, T* to) {
    for (std::int64_t s = 0; s < strips.count; ++s) {
        pack_rows(f.a.from(strips.first(s), k), strips.height(s), depth, to + (strips.first(s) - strips.begin) * depth);
    }
}

// The strips against a panel, whose row k is at b + k * b_step. `packed` is what pack_strips made, or null.
template <typename T, bool Swapped>
void panel_times_strips(const Factors<T>& f, const Strips<T>& strips, const T* packed, std::int64_t k,
                        std::int64_t depth, std::int64_t panel, const RealOf<T>* b, std::int64_t b_step) {
    const std::int64_t col = panel * TileShape<T>::cols;
    for (std::int64_t s = 0; s < strips.count; ++s) {
        const std::int64_t row = strips.first(s);
        T* out = f.c + row * f.c_row + col;
        if (packed != nullptr) {
            const TileOperands<T> in{packed + (row - strips.begin) * depth, 1, strips.height(s), b, b_step, depth};
            tile_at<T, Swapped, true>(in, strips.height(s), f.panel_cols(panel), out, f.c_row, f.end(k));
        } else {
            const Strided<T> a = f.a.from(row, k);
            const TileOperands<T> in{a.data, a.row, a.col, b, b_step, depth};
            tile_at<T, Swapped, false>(in, strips.height(s), f.panel_cols(panel), out, f.c_row, f.end(k));
        }
    }
}

// Many rows: all panels of some blocks of depth are laid out first, then every worker takes some rows through them.
template <typename T, bool Swapped>
void multiply_by_rows(const Factors<T>& f) {
    using R = RealOf<T>;
    constexpr std::int64_t panel_size = TileShape<T>::cols * TileShape<T>::parts * block_depth;
    constexpr std::int64_t together = 8;  // panels that are laid out along the rows of B
    constexpr std::int64_t rows_at_once = 16;
    const std::int64_t panels = f.panels();
    const std::int64_t blocks = parts_of(f.depth, block_depth);
    const std::int64_t pass = std::clamp<std::int64_t>(
        panels_bytes / (panels * panel_size * static_cast<std::int64_t>(sizeof(R))), 1, blocks);
    const std::int64_t groups = parts_of(panels, together);
    const Scratch<R> memory(pass * panels * panel_size);
    const auto panel_at = [&](std::int64_t block, std::int64_t panel) {
        return memory.get() + (block * panels + panel) * panel_size;
    };
    const std::int64_t workers = usable_processors();
    const std::int64_t row_tasks = std::clamp<std::int64_t>(f.rows / (4 * TileShape<T>::rows), 1, 8 * workers);
    const std::int64_t col_tasks =
        std::clamp<std::int64_t>(parts_of(2 * workers, row_tasks), 1, std::max<std::int64_t>(1, panels / 4));
    for (std::int64_t first = 0; first < blocks; first += pass) {
        const std::int64_t count = std::min(pass, blocks - first);
        const auto depth_of = [&](std::int64_t block) {
            return std::min(block_depth, f.depth - (first + block) * block_depth);
        };
        parallel_for(count * groups, 1, 2, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t item = begin; item < end; ++item) {
                const std::int64_t block = item / groups;
                const std::int64_t depth = depth_of(block);
                const std::int64_t last = std::min(panels, (item % groups + 1) * together);
                for (std::int64_t k = 0; k < depth; k += rows_at_once) {
                    for (std::int64_t p = item % groups * together; p < last; ++p) {
                        const std::int64_t cols = f.panel_cols(p);
                        pack_panel(f.b.from((first + block) * block_depth + k, p * TileShape<T>::cols),
                                   std::min(rows_at_once, depth - k), cols,
                                   panel_at(block, p) + k * panel_row<T>(cols));
                    }
                }
            }
        });
        parallel_for(row_tasks * col_tasks, 1, 2, [&](std::int64_t begin, std::int64_t end) {
            const Scratch<T> packed(parts_of(f.rows, row_tasks) * block_depth);
            for (std::int64_t task = begin; task < end; ++task) {
                const std::int64_t row_task = task / col_tasks;
                const std::int64_t col_task = task % col_tasks;
                const Strips<T> strips(f.rows * row_task / row_tasks, f.rows * (row_task + 1) / row_tasks);
                for (std::int64_t block = 0; block < count; ++block) {
                    const std::int64_t k = (first + block) * block_depth;
                    const std::int64_t depth = depth_of(block);
                    pack_strips(f, strips, k, depth, packed.get());
                    for (std::int64_t p = panels * col_task / col_tasks; p < panels * (col_task + 1) / col_tasks; ++p) {
                        panel_times_strips<T, Swapped>(f, strips, packed.get(), k, depth, p, panel_at(block, p),
                                                       panel_row<T>(f.panel_cols(p)));
                    }
                }
            }
        });
    }
}

// Few rows: every worker takes some columns, and lays their panels out for itself.
template <typename T, bool Swapped>
void multiply_by_cols(const Factors<T>& f) {
    using R = RealOf<T>;
    const std::int64_t panels = f.panels();
    const Strips<T> strips(0, f.rows);
    const std::int64_t grain = std::max<std::int64_t>(2, grain_work / std::max<std::int64_t>(1, f.work() / panels));
    const bool pack = panels >= 4 && f.rows >= 4;
    std::optional<Scratch<T>> packed;
    if (pack) {
        packed.emplace(f.rows * f.depth);
        for (std::int64_t k = 0; k < f.depth; k += block_depth) {
            pack_strips(f, strips, k, std::min(block_depth, f.depth - k), packed->get() + k * f.rows);
        }
    }
    parallel_for(panels, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        PanelMemory<R> memory;
        for (std::int64_t p = begin; p < end; ++p) {
            const std::int64_t cols = f.panel_cols(p);
            const std::int64_t row = panel_row<T>(cols);
            const bool in_place = TileShape<T>::parts == 1 && f.b.col == 1 && cols == row && strips.count <= 2;
            for (std::int64_t k = 0; k < f.depth; k += block_depth) {
                const std::int64_t depth = std::min(block_depth, f.depth - k);
                const Strided<T> b = f.b.from(k, p * TileShape<T>::cols);
                const R* panel = reinterpret_cast<const R*>(b.data);
                if (!in_place) {
                    R* to = memory.take(depth * row);
                    pack_panel(b, depth, cols, to);
                    panel = to;
                }
                panel_times_strips<T, Swapped>(f, strips, pack ? packed->get() + k * f.rows : nullptr, k, depth, p,
                                               panel, in_place ? b.row : row);
            }
        }
    });
}

template <typename T, bool Swapped>
void multiply(const Factors<T>& f) {
    if (f.rows >= 192) {
        multiply_by_rows<T, Swapped>(f);
    } else {
        multiply_by_cols<T, Swapped>(f);
    }
}

// Few columns make bad vectors: the transposed product, into memory of its own. Also where what is added to must wait
// for the whole sum.
template <typename T, bool Swapped>
void multiply_aside(const Factors<T>& f, T* c, std::int64_t c_row, std::int64_t c_col, bool add) {
    const Scratch<T> aside(f.rows * f.cols);
    Factors<T> g = f;
    g.c = aside.get();
    g.c_row = f.cols;
    g.add = false;
    multiply<T, Swapped>(g);
    const std::int64_t rows = Swapped ? f.cols : f.rows;
    const std::int64_t cols = Swapped ? f.rows : f.cols;
    parallel_for(rows, 1, parts_of(grain_work, cols), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            const T* from = aside.get() + (Swapped ? i : i * f.cols);
            const std::int64_t step = Swapped ? f.cols : 1;
            T* to = c + i * c_row;
            for (std::int64_t j = 0; j < cols; ++j) {
                to[j * c_col] = add ? to[j * c_col] + from[j * step] : from[j * step];
            }
        }
    });
}

// Whole rows of vectors that a product of so many rows and columns takes.
template <typename T>
std::int64_t vectors_of(std::int64_t rows, std::int64_t cols) {
    return rows * parts_of(cols, lanes<RealOf<T>>);
}

template <typename T>
void multiply_one(const ProductPlan& plan, const T* a, const T* b, T* c) {
    const std::int64_t width_c = plan.row_step_c();
    if (plan.rows < 1 || plan.cols < 1) {
        return;
    }
    if (plan.depth == 0) {
        for (std::int64_t i = 0; i < plan.rows && !plan.accumulate; ++i) {
            std::fill_n(c + i * width_c, plan.cols, T(0));
        }
        return;
    }
    const auto strided = [](const T* data, bool transposed, std::int64_t step) {
        return transposed ? Strided<T>{data, 1, step} : Strided<T>{data, step, 1};
    };
    const Strided<T> left = strided(a, plan.transpose_a, plan.row_step_a());
    const Strided<T> right = strided(b, plan.transpose_b, plan.row_step_b());
    if (2 * vectors_of<T>(plan.cols, plan.rows) < vectors_of<T>(plan.rows, plan.cols)) {
        const Factors<T> f{right.turned(), left.turned(), nullptr, 0, plan.cols, plan.rows, plan.depth, false};
        multiply_aside<T, true>(f, c, width_c, 1, plan.accumulate);
        return;
    }
    const Factors<T> f{left, right, c, width_c, plan.rows, plan.cols, plan.depth, plan.accumulate};
    if (plan.accumulate && plan.depth > block_depth) {
        multiply_aside<T, false>(f, c, width_c, 1, true);
    } else {
        multiply<T, false>(f);
    }
}

}  // namespace

template <typename T>
void float_product(const ProductPlan& plan, const T* a, const T* b, T* c) {
    const auto one = [&](std::int64_t index) {
        const auto start = [index](const ProductPlace& place, std::int64_t size) {
            return place.starts != nullptr ? place.starts[index] : index * size;
        };
        multiply_one(plan, a + start(plan.place_a, plan.rows * plan.depth),
                     b + start(plan.place_b, plan.depth * plan.cols), c + start(plan.place_c, plan.rows * plan.cols));
    };
    const std::int64_t work = plan.rows * plan.cols * plan.depth;
    if (work < grain_work || plan.batch >= 2 * usable_processors()) {
        // Within a region, a product is its worker's own.
        const std::int64_t grain = work > 0 ? grain_work / work + 1 : plan.batch + 1;
        parallel_for(plan.batch, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t index = begin; index < end; ++index) {
                one(index);
            }
        });
        return;
    }
    for (std::int64_t index = 0; index < plan.batch; ++index) {
        one(index);
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
void packed_product(const T* a, const void* packed, std::int64_t rows, std::int64_t cols, std::int64_t depth,
                    bool accumulate, T* c) {
    Factors<T> f{{a, depth, 1}, {}, c, cols, rows, cols, depth, accumulate};
    std::optional<Scratch<T>> aside;
    if (accumulate && depth > block_depth) {
        aside.emplace(rows * cols);
        f.c = aside->get();
        f.add = false;
    }
    const Strips<T> strips(0, rows);
    const RealOf<T>* panel = static_cast<const RealOf<T>*>(packed);
    for (std::int64_t k = 0; k < depth; k += block_depth) {
        const std::int64_t steps = std::min(block_depth, depth - k);
        for (std::int64_t p = 0; p < f.panels(); ++p) {
            const std::int64_t row = panel_row<T>(f.panel_cols(p));
            panel_times_strips<T, false>(f, strips, nullptr, k, steps, p, panel, row);
            panel += steps * row;
        }
    }
    if (aside) {
        std::transform(c, c + rows * cols, aside->get(), c, [](T x, T y) { return x + y; });
    }
}

#define ORNIK_INSTANTIATE_PRODUCTS(T)                                             \
    template void float_product(const ProductPlan&, const T*, const T*, T*);      \
    template std::int64_t packed_factor_size<T>(std::int64_t, std::int64_t);      \
    template void pack_factor(const T*, bool, std::int64_t, std::int64_t, void*); \
    template void packed_product(const T*, const void*, std::int64_t, std::int64_t, std::int64_t, bool, T*)

}  // namespace ornik::device::cpu
