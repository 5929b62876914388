// conv_depth_lanes.h: sums over taps alone, of planes whose channels stay apart, with channels side by side. Internal;
// for *_vector.cpp alone.
//
// A tile's part of as many planes as there are lanes is turned, with the zeros at its edges, all passes add to a turned
// tile of the target, and that is turned back.
#pragma once

#include <algorithm>
#include <vector>

#include "conv_block_depth.h"
#include "conv_lane_kernel.h"
#include "conv_order.h"
#include "conv_turned_rows.h"
#include "cpu_conv_kernels.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
class DepthLanes {
  public:
    static bool suits(const std::vector<ConvPass>& passes, const ConvSum& sum) {
        std::int64_t computed = 0;
        for (const ConvPass& pass : passes) {
            computed += pass.rows.positions * pass.cols.positions;
        }
        const std::int64_t planes = sum.batch * sum.groups;
        return sum.source_channels == 1 && 4 * planes >= 3 * round_up(planes, width) &&
               (passes.size() > 1 || width >= least_lanes || passes[0].cols.positions <= short_vectors * width) &&
               computed == passes[0].target_plane() &&
               std::max(passes[0].cols.source, passes[0].cols.target) <= most_cols;
    }

    DepthLanes(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
               const ConvEnds<T>& ends, T* target)
        : sum_(sum),
          source_(source),
          weight_(weight),
          ends_(ends),
          target_(target),
          rows_(passes[0].rows.target),
          cols_(passes[0].cols.target),
          source_rows_(passes[0].rows.source),
          source_cols_(passes[0].cols.source) {
        const std::int64_t wanted = std::max((rows_ * cols_ + most_positions - 1) / most_positions,
                                             (2 * usable_processors() + vectors() - 1) / vectors());
        tile_rows_ = (rows_ + wanted - 1) / wanted;
        for (const ConvPass& pass : passes) {
            forms_.push_back(form_of(pass));
        }
        std::int64_t last_col = source_cols_ - 1;
        for (const Form& form : forms_) {
            const PassAxis& cols = form.pass.cols;
            for (const PassAxis::Tap& tap : cols.taps) {
                first_col_ = std::min(first_col_, tap.offset);
                last_col = std::max(last_col, (cols.positions - 1) * cols.step + tap.offset);
            }
        }
        std::int64_t window_rows = 0;
        for (std::int64_t tile = 0; tile < rows_; tile += tile_rows_) {
            const auto [first, end] = window_at(tile);
            window_rows = std::max(window_rows, end - first);
        }
        window_ = {source_rows_, source_cols_, window_rows, last_col + 1 - first_col_};
    }

    void run() const {
        const std::int64_t tiles = (rows_ + tile_rows_ - 1) / tile_rows_;
        const std::int64_t work = tile_rows_ * cols_ * sum_.kernel_elements * sum_.target_channels * width;
        parallel_for(vectors() * tiles, 1, std::max<std::int64_t>(2, conv_grain / work),
                     [&](std::int64_t begin, std::int64_t end) {
                         Worker worker(*this);
                         for (std::int64_t item = begin; item < end; ++item) {
                             run_item(item / tiles * width, item % tiles * tile_rows_, worker);
                         }
                     });
    }

  private:
    static constexpr std::int64_t width = vec::lanes<T>;
    static constexpr std::int64_t most_cols = 2048;
    // Rows that are summed where they lie need one pass, and are quicker where they are long and few lanes are turned.
    static constexpr std::int64_t least_lanes = 16;
    static constexpr std::int64_t short_vectors = 4;
    static constexpr std::int64_t most_positions = 256;  // of a tile

    // Positions go the way in which a row's taps do.
    struct Form {
        const ConvPass& pass;
        std::int64_t direction;
        std::vector<std::int64_t> offsets;  // per column of the pass, that way
        std::vector<std::int64_t> kernels;  // position in the kernel, per tap
        const DepthChains<T>* chains;
    };
    struct Worker {
        explicit Worker(const DepthLanes& sums)
            : window(sums.window_),
              totals(sums.tile_rows_ * sums.cols_ * width),
              kernel(sums.sum_.kernel_elements * width),
              weights(sums.sum_.kernel_elements * width),
              bias(width),
              near(static_cast<std::size_t>(sums.sum_.kernel_elements)) {}
        TurnedRows<T> window;
        Scratch<T> totals;
        Scratch<T> kernel;
        Scratch<T> weights;
        std::vector<T> bias;
        std::vector<const T*> near;
    };

    static Form form_of(const ConvPass& pass) {
        const std::vector<PassAxis::Tap>& taps = pass.cols.taps;
        Form form{pass, taps.back().offset < taps.front().offset ? -1 : 1, {}, {}, nullptr};
        for (const PassAxis::Tap& col : taps) {
            form.offsets.push_back(form.direction * col.offset);
        }
        for (const PassAxis::Tap& row : pass.rows.taps) {
            for (const PassAxis::Tap& col : taps) {
                form.kernels.push_back(row.kernel * pass.kernel_cols + col.kernel);
            }
        }
        const auto cols = static_cast<std::int64_t>(taps.size());
        form.chains = &depth_chains<T>(cols, cols > 1 ? form.offsets[1] - form.offsets[0] : 1, pass.cols.step);
        return form;
    }

    struct Range {
        std::int64_t begin;
        std::int64_t end;
    };
    // The rows of a pass in the tile.
    Range rows_in(const PassAxis& rows, std::int64_t tile) const {
        const auto before = [&](std::int64_t row) {
            return std::clamp<std::int64_t>((row - rows.first + rows.stride - 1) / rows.stride, 0, rows.positions);
        };
        return {before(tile), before(std::min(tile + tile_rows_, rows_))};
    }
    // The rows of the source that the tile reads.
    Range window_at(std::int64_t tile) const {
        Range window{source_rows_, 0};
        for (const Form& form : forms_) {
            const PassAxis& rows = form.pass.rows;
            const auto [begin, end] = rows_in(rows, tile);
            for (const PassAxis::Tap& tap : rows.taps) {
                if (begin < end) {
                    window.begin = std::min(window.begin, begin * rows.step + tap.offset);
                    window.end = std::max(window.end, (end - 1) * rows.step + tap.offset + 1);
                }
            }
        }
        return window;
    }

    // Planes of all samples, in a row.
    std::int64_t planes() const { return sum_.batch * sum_.groups; }
    std::int64_t vectors() const { return lane_groups<T>(planes()); }

    void run_item(std::int64_t plane, std::int64_t tile, Worker& worker) const {
        const std::int64_t count = std::min(width, planes() - plane);
        const std::int64_t first = window_at(tile).begin;
        worker.window.move(source_ + plane * source_rows_ * source_cols_, count, first, first_col_);
        for (std::int64_t o = 0; o < sum_.target_channels; ++o) {
            std::int64_t starts[width];
            for (std::int64_t i = 0; i < count; ++i) {
                const std::int64_t group = (plane + i) % sum_.groups;
                starts[i] = group * sum_.group_stride + o * sum_.target_stride;
                if (ends_.bias != nullptr) {
                    worker.bias[static_cast<std::size_t>(i)] = ends_.bias[group * sum_.target_channels + o];
                }
            }
            turn_rows(weight_, starts, count, width, sum_.kernel_elements, worker.kernel.get(), width);
            for (const Form& form : forms_) {
                run_form(form, tile, first, worker);
            }
            write(worker.totals.get(), std::min(tile_rows_, rows_ - tile) * cols_, count,
                  ((plane * sum_.target_channels + o) * rows_ + tile) * cols_);
        }
    }

    void run_form(const Form& form, std::int64_t tile, std::int64_t first, Worker& worker) const {
        const PassAxis& rows = form.pass.rows;
        const PassAxis& cols = form.pass.cols;
        T* weights = worker.weights.get();
        for (const std::int64_t kernel : form.kernels) {
            weights = std::copy_n(worker.kernel.get() + kernel * width, width, weights);
        }
        DepthChain<T> chain{};
        chain.rows = worker.near.data();
        chain.row_count = static_cast<std::int64_t>(rows.taps.size());
        chain.offsets = form.offsets.data();
        chain.col_count = static_cast<std::int64_t>(form.offsets.size());
        chain.step = cols.step;
        chain.weights = worker.weights.get();
        chain.along = form.direction * width;
        chain.out_step = cols.stride * chain.along;
        chain.ends.bias = ends_.bias == nullptr ? nullptr : worker.bias.data();
        chain.ends.clip = ends_.residual == nullptr ? ends_.clip : ConvClip::none;
        const auto [begin, end] = rows_in(rows, tile);
        for (std::int64_t y = begin; y < end; ++y) {
            for (std::size_t i = 0; i < rows.taps.size(); ++i) {
                const std::int64_t row = y * rows.step + rows.taps[i].offset - first;
                worker.near[i] = worker.window.get() + row * window_.pitch() - first_col_ * width;
            }
            const std::int64_t first_position = form.direction > 0 ? 0 : cols.positions - 1;
            chain.first = form.direction * first_position * cols.step;
            chain.out =
                worker.totals.get() +
                ((rows.first + y * rows.stride - tile) * cols_ + cols.first + first_position * cols.stride) * width;
            std::int64_t left = cols.positions;
            for (std::int64_t pieces = (left + depth_positions - 1) / depth_positions; pieces > 0; --pieces) {
                const std::int64_t positions = left / pieces;
                (*form.chains)[static_cast<std::size_t>(positions - 1)](chain);
                chain.first += positions * cols.step;
                chain.out += positions * chain.out_step;
                left -= positions;
            }
        }
    }

    // The totals of `count` planes, to the places of the target from `at` on.
    void write(const T* totals, std::int64_t positions, std::int64_t count, std::int64_t at) const {
        const std::int64_t stride = sum_.target_channels * rows_ * cols_;
        const auto turn = [&](const auto& change) {
            turn_columns(totals, width, positions, count, target_ + at, stride, change);
        };
        if (ends_.residual == nullptr) {
            turn([](const auto& v, std::int64_t, std::int64_t) { return v; });
        } else {
            ConvEnds<T> rest = ends_;
            rest.bias = nullptr;
            turn([&](const auto& v, std::int64_t i, std::int64_t k) {
                return ended(rest, v, T(0), at + i * stride + k);
            });
        }
        for (std::int64_t i = 0; i < count && ends_.clip == ConvClip::none && ends_.row != nullptr; ++i) {
            ends_.row(target_ + at + i * stride, positions);
        }
    }

    const ConvSum& sum_;
    const T* source_;
    const T* weight_;
    ConvEnds<T> ends_;
    T* target_;
    std::int64_t rows_;  // of the target
    std::int64_t cols_;
    std::int64_t source_rows_;
    std::int64_t source_cols_;
    std::int64_t tile_rows_;
    std::int64_t first_col_ = 0;  // of the source that is turned
    TurnedWindow<T> window_;
    std::vector<Form> forms_;
};

}  // namespace
}  // namespace ornik::device::cpu
