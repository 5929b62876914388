// conv_depth_sum.h: sums over taps alone, of convolutions that keep their channels apart. Internal; for *_vector.cpp
// alone.
//
// Rows of the source are staged one by one, with the zeros at their edges, into a ring of as many as a row of results
// reads: all that is touched stays in the first level of cache. Lanes are neighbouring positions.
#pragma once

#include <algorithm>
#include <bit>
#include <vector>

#include "conv_copy.h"
#include "conv_ends.h"
#include "conv_order.h"
#include "conv_pass.h"
#include "hardware/cpu/vector_chain.h"
#include "hardware/parallel.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
class DepthSum {
  public:
    static bool suits(const std::vector<ConvPass>& passes, const ConvSum& sum) {
        return sum.source_channels == 1 && passes.size() == 1 && passes[0].fills_target() &&
               passes[0].cols.positions <= most_positions && sum.batch * sum.groups >= 2 * usable_processors();
    }

    DepthSum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const ConvEnds<T>& ends,
             T* target)
        : pass_(pass),
          sum_(sum),
          source_(source),
          weight_(weight),
          ends_(ends),
          target_(target),
          cols_(pass.cols, pass.cols.positions, false),
          run_(round_up(cols_.length + width, width)),
          row_(run_ * static_cast<std::int64_t>(cols_.sources.size())) {
        const auto [least, most] =
            std::minmax_element(pass.rows.taps.begin(), pass.rows.taps.end(),
                                [](const PassAxis::Tap& a, const PassAxis::Tap& b) { return a.offset < b.offset; });
        least_ = least->offset;
        most_ = most->offset;
        ring_ =
            static_cast<std::int64_t>(std::bit_ceil(static_cast<std::uint64_t>(most_ - least_ + 1 + pass.rows.step)));
        const std::int64_t step = pass.cols.step;
        for (std::size_t run = 0; run < cols_.sources.size(); ++run) {
            const std::int64_t from = cols_.sources[run];
            const std::int64_t begin = from >= 0 ? 0 : (-from + step - 1) / step;
            const std::int64_t end =
                from >= pass.cols.source ? 0 : std::min(cols_.length, (pass.cols.source - 1 - from) / step + 1);
            if (begin < end) {
                spans_.push_back({static_cast<std::int64_t>(run) * run_ + begin, from + begin * step, end - begin});
            }
        }
        for (const AxisSlots::Tap& col : cols_.taps) {
            col_slots_.push_back(static_cast<std::int64_t>(col.run) * run_ + col.slot);
        }
        for (const PassAxis::Tap& row : pass.rows.taps) {
            for (const PassAxis::Tap& col : pass.cols.taps) {
                kernels_.push_back(row.kernel * pass.kernel_cols + col.kernel);
            }
        }
    }

    void run() const {
        const std::int64_t planes = sum_.batch * sum_.groups;
        const std::int64_t work = pass_.target_plane() * pass_.taps() * sum_.target_channels;
        parallel_for(planes, 1, std::max<std::int64_t>(2, conv_grain / work),
                     [&](std::int64_t begin, std::int64_t end) {
                         // The last row holds zeros.
                         const Scratch<T> rows((ring_ + 1) * row_);
                         std::fill_n(rows.get(), (ring_ + 1) * row_, T(0));
                         if constexpr (vec::has_forms) {
                             if (pass_.rows.taps.size() == 3 && pass_.cols.taps.size() == 3) {
                                 run_planes<3, 3>(begin, end, rows.get());
                                 return;
                             }
                         }
                         run_planes<0, 0>(begin, end, rows.get());
                     });
    }

  private:
    using V = vec::Vector<T>;
    static constexpr std::int64_t width = vec::lanes<T>;
    static constexpr std::int64_t most_positions = 2048;
    static constexpr std::int64_t together = 4;  // vectors of a row

    // Staged rows that a row of results reads, and places in them, in the order of the chain.
    struct Taps {
        std::int64_t row_count;
        std::int64_t col_count;
        const T* const* rows;
        const std::int64_t* cols;
        const T* weights;
    };

    // Rows and Cols 0: any.
    template <int Rows, int Cols>
    void run_planes(std::int64_t begin, std::int64_t end, T* rows) const {
        std::vector<T> weights(kernels_.size());
        const std::size_t row_taps = pass_.rows.taps.size();
        std::vector<const T*> near(row_taps);
        const Taps taps{static_cast<std::int64_t>(row_taps), static_cast<std::int64_t>(col_slots_.size()), near.data(),
                        col_slots_.data(), weights.data()};
        for (std::int64_t plane = begin; plane < end; ++plane) {
            const std::int64_t group = plane % sum_.groups;
            for (std::int64_t o = 0; o < sum_.target_channels; ++o) {
                const T* weight = weight_ + group * sum_.group_stride + o * sum_.target_stride;
                for (std::size_t t = 0; t < weights.size(); ++t) {
                    weights[t] = weight[kernels_[t]];
                }
                const T bias = ends_.bias == nullptr ? T(0) : ends_.bias[group * sum_.target_channels + o];
                run_plane<Rows, Cols>(plane, plane * sum_.target_channels + o, bias, rows, near.data(), taps);
            }
        }
    }

    template <int Rows, int Cols>
    void run_plane(std::int64_t from, std::int64_t to, T bias, T* rows, const T** near, const Taps& taps) const {
        const T* source = source_ + from * pass_.source_plane();
        const std::int64_t plane = pass_.target_plane();
        std::int64_t staged = 0;  // rows of the source
        for (std::int64_t y = 0; y < pass_.rows.positions; ++y) {
            const std::int64_t first = y * pass_.rows.step;
            staged = std::max(staged, first + least_);
            // Those of the next row, too: what was written just now is not read quickly.
            for (; staged < std::min(first + most_ + 1 + pass_.rows.step, pass_.rows.source); ++staged) {
                stage(source + staged * pass_.cols.source, rows + (staged & (ring_ - 1)) * row_);
            }
            find_rows(y, rows, near);
            run_row<Rows, Cols>(taps, bias, to * plane + y * pass_.cols.positions, (to + 1) * plane);
        }
    }

    // The staged rows that row y of the target reads.
    void find_rows(std::int64_t y, const T* rows, const T** near) const {
        for (const PassAxis::Tap& row : pass_.rows.taps) {
            const std::int64_t at = y * pass_.rows.step + row.offset;
            const bool outside = at < 0 || at >= pass_.rows.source;
            *near++ = rows + (outside ? ring_ : at & (ring_ - 1)) * row_;
        }
    }

    // One row of the source, as AxisSlots has it; zeros beyond its ends were there before.
    void stage(const T* source, T* slots) const {
        const std::int64_t step = pass_.cols.step;
        for (const Span& span : spans_) {
            const T* first = source + span.source;
            if (step == 1) {
                copy_row(first, span.count, slots + span.slot);
            } else if (step == 2) {
                copy_every_second(first, span.count, slots + span.slot);
            } else {
                for (std::int64_t i = 0; i < span.count; ++i) {
                    slots[span.slot + i] = first[i * step];
                }
            }
        }
    }

    // The places of the target from `at` on; its plane ends at `end`.
    template <int Rows, int Cols>
    void run_row(const Taps& taps, T bias, std::int64_t at, std::int64_t end) const {
        const std::int64_t count = pass_.cols.positions;
        if (count >= width || at + width <= end) {
            // The last vector overlaps the one before it; that of a short row is written over by the next row.
            const std::int64_t last = std::max<std::int64_t>(0, count - width);
            const std::int64_t vectors = (count + width - 1) / width;
            for (std::int64_t v = 0; v < vectors; v += together) {
                const std::int64_t x = v * width;
                switch (std::min(together, vectors - v)) {
                    case 1:
                        run_vectors<Rows, Cols, 1>(taps, x, last, bias, at);
                        break;
                    case 2:
                        run_vectors<Rows, Cols, 2>(taps, x, last, bias, at);
                        break;
                    case 3:
                        run_vectors<Rows, Cols, 3>(taps, x, last, bias, at);
                        break;
                    default:
                        run_vectors<Rows, Cols, together>(taps, x, last, bias, at);
                }
            }
        } else {
            V sums[1];
            sum_taps<Rows, Cols, 1>(taps, 0, 0, sums);
            T results[width] = {};
            ConvEnds<T> ends = ends_;
            if (ends_.residual != nullptr) {
                copy_row(ends_.residual + at, count, results);
                ends.residual = results;
            }
            vec::store(ended(ends, sums[0], bias, 0), results);
            copy_row(results, count, target_ + at);
        }
        if (ends_.clip == ConvClip::none && ends_.row != nullptr) {
            ends_.row(target_ + at, count);
        }
    }

    // Of so many vectors.
    template <int Rows, int Cols, int Vectors>
    ORNIK_EXPAND static void sum_taps(const Taps& taps, std::int64_t x, std::int64_t last, V (&results)[Vectors]) {
        std::int64_t starts[Vectors];
        ORNIK_UNROLLED
        for (int v = 0; v < Vectors; ++v) {
            starts[v] = std::min(x + v * width, last);
        }
        vec::run_chains<T>([&](auto steps) ORNIK_EXPANDED {
            typename decltype(steps)::Sum sums[Vectors];
            ORNIK_UNROLLED
            for (int s = 0; s < Vectors; ++s) {
                sums[s] = steps.from(V{});
            }
            const T* weights = taps.weights;
            const auto add = [&](const T* row, std::int64_t col) ORNIK_EXPANDED {
                const auto weight = steps.weight(*weights++);
                ORNIK_UNROLLED
                for (int s = 0; s < Vectors; ++s) {
                    steps.add(weight, steps.factor(vec::load<V>(row + col + starts[s])), sums[s]);
                }
            };
            if constexpr (Rows > 0) {
                ORNIK_UNROLLED
                for (int i = 0; i < Rows; ++i) {
                    ORNIK_UNROLLED
                    for (int j = 0; j < Cols; ++j) {
                        add(taps.rows[i], taps.cols[j]);
                    }
                }
            } else {
                for (std::int64_t i = 0; i < taps.row_count; ++i) {
                    for (std::int64_t j = 0; j < taps.col_count; ++j) {
                        add(taps.rows[i], taps.cols[j]);
                    }
                }
            }
            if (!steps.vouches_for(sums)) {
                return false;
            }
            ORNIK_UNROLLED
            for (int s = 0; s < Vectors; ++s) {
                results[s] = steps.value(sums[s]);
            }
            return true;
        });
    }

    template <int Rows, int Cols, int Vectors>
    [[gnu::noinline]] void run_vectors(const Taps& taps, std::int64_t x, std::int64_t last, T bias,
                                       std::int64_t at) const {
        V sums[Vectors];
        sum_taps<Rows, Cols, Vectors>(taps, x, last, sums);
        ORNIK_UNROLLED
        for (int s = 0; s < Vectors; ++s) {
            const std::int64_t place = at + std::min(x + s * width, last);
            vec::store(ended(ends_, sums[s], bias, place), target_ + place);
        }
    }

    struct Span {
        std::int64_t slot;
        std::int64_t source;
        std::int64_t count;
    };

    const ConvPass& pass_;
    const ConvSum& sum_;
    const T* source_;
    const T* weight_;
    ConvEnds<T> ends_;
    T* target_;
    AxisSlots cols_;
    std::int64_t run_;  // slots of a run, its end readable by whole vectors
    std::int64_t row_;  // slots of a source row
    std::int64_t least_ = 0;
    std::int64_t most_ = 0;
    std::int64_t ring_ = 1;  // source rows that are staged at a time, a power of two
    std::vector<Span> spans_;
    std::vector<std::int64_t> col_slots_;  // in a staged row, per tap
    std::vector<std::int64_t> kernels_;    // position in the kernel, per tap
};

}  // namespace
}  // namespace ornik::device::cpu
