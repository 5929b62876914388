// conv_group_weight.h: the gradient of the weight of a convolution that keeps its channels apart. Internal; for
// *_vector.cpp alone.
//
// Lanes are groups. The order of the sums is that of every weight's gradient (conv_weight_blocks.h).
#pragma once

#include <algorithm>
#include <vector>

#include "conv_lane_kernel.h"
#include "conv_turned_rows.h"
#include "conv_weight_operands.h"
#include "hardware/cpu/vector_chain.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
class GroupWeight {
  public:
    GroupWeight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid)
        : in_(pass, geometry, image, grid),
          vectors_(lane_groups<T>(geometry.groups)),
          channels_(places(lanes, pass.target_plane())),
          first_row_(pass.rows.taps.front().offset),
          first_col_(pass.cols.taps.front().offset),
          window_(pass.rows.source, pass.cols.source, extent(pass.rows, in_.blocks.tile.rows),
                  extent(pass.cols, in_.blocks.tile.cols)) {
        for (const PassAxis::Tap& row : pass.rows.taps) {
            for (const PassAxis::Tap& col : pass.cols.taps) {
                taps_.push_back((row.offset - first_row_) * window_.pitch() + (col.offset - first_col_) * lanes);
            }
        }
    }

    void run(T* weight) const {
        const Scratch<T> totals(in_.blocks.chunks * chunk_totals());
        in_.run_items(
            in_.blocks.chunks * vectors_, in_.geometry.groups * in_.taps, [&](std::int64_t begin, std::int64_t end) {
                TurnedRows<T> values(window_);
                const Scratch<T> gradients(in_.blocks.tile.rows * in_.blocks.tile.cols * lanes);
                const Scratch<T> sums(in_.taps * lanes);
                for (std::int64_t item = begin; item < end; ++item) {
                    run_item(item / vectors_, item % vectors_, values, gradients.get(), sums.get(), totals.get());
                }
            });
        for (std::int64_t g = 0; g < in_.geometry.groups; ++g) {
            for (std::int64_t t = 0; t < in_.taps; ++t) {
                const T* total = totals.get() + (g / lanes * in_.taps + t) * lanes + g % lanes;
                T sum = *total;
                for (std::int64_t chunk = 1; chunk < in_.blocks.chunks; ++chunk) {
                    sum += total[chunk * chunk_totals()];
                }
                weight[g * in_.taps + t] = sum;
            }
        }
    }

  private:
    static constexpr std::int64_t lanes = vec::lanes<T>;
    static constexpr int taps_together = 9;

    // Places that so many positions reach.
    static std::int64_t extent(const PassAxis& axis, std::int64_t positions) {
        return (positions - 1) * axis.step + axis.taps.back().offset - axis.taps.front().offset + 1;
    }

    std::int64_t chunk_totals() const { return vectors_ * in_.taps * lanes; }

    void run_item(std::int64_t chunk, std::int64_t vector, TurnedRows<T>& values, T* gradients, T* sums,
                  T* totals) const {
        const std::int64_t group = vector * lanes;
        const std::int64_t count = std::min(lanes, in_.geometry.groups - group);
        const PassAxis& rows = in_.plan.pass.rows;
        const PassAxis& cols = in_.plan.pass.cols;
        T* out = totals + chunk * chunk_totals() + vector * in_.taps * lanes;
        for (std::int64_t unit = in_.blocks.first(chunk); unit < in_.blocks.first(chunk + 1); ++unit) {
            const auto [tile, sample, samples] = in_.unit(unit);
            std::fill_n(sums, in_.taps * lanes, T(0));
            for (std::int64_t s = 0; s < samples; ++s) {
                const std::int64_t channel = (sample + s) * in_.geometry.groups + group;
                values.move(in_.image + channel * in_.plan.pass.source_plane(), count,
                            tile.row * rows.step + first_row_, tile.col * cols.step + first_col_);
                turn_rows(in_.grid_at(tile, channel), channels_.data(), count, lanes, tile.positions(), gradients,
                          lanes);
                for (std::int64_t t = 0; t < in_.taps; t += taps_together) {
                    add<taps_together>(std::min<std::int64_t>(taps_together, in_.taps - t), taps_.data() + t, tile,
                                       values.get(), gradients, sums + t * lanes);
                }
            }
            const bool first = unit == in_.blocks.first(chunk);
            for (std::int64_t i = 0; i < in_.taps * lanes; ++i) {
                out[i] = first ? sums[i] : out[i] + sums[i];
            }
        }
    }

    // The chains of `count` taps go on.
    template <int Taps>
    void add(std::int64_t count, const std::int64_t* taps, const Tile& tile, const T* values, const T* gradients,
             T* out) const {
        if constexpr (Taps > 1) {
            if (count < Taps) {
                return add<Taps - 1>(count, taps, tile, values, gradients, out);
            }
        }
        using V = vec::Vector<T>;
        const T* places[Taps];
        ORNIK_UNROLLED
        for (int t = 0; t < Taps; ++t) {
            places[t] = values + taps[t];
        }
        const std::int64_t down = in_.plan.pass.rows.step * window_.pitch();
        const std::int64_t right = in_.plan.pass.cols.step * lanes;
        vec::run_chains<T>([&](auto arithmetic) ORNIK_EXPANDED {
            typename decltype(arithmetic)::Sum sums[Taps];
            ORNIK_UNROLLED
            for (int t = 0; t < Taps; ++t) {
                sums[t] = arithmetic.from(vec::load<V>(out + t * lanes));
            }
            const T* gradient = gradients;
            for (std::int64_t row = 0; row < tile.rows; ++row) {
                const std::int64_t end = row * down + tile.cols * right;
                for (std::int64_t at = row * down; at < end; at += right, gradient += lanes) {
                    const auto weight = arithmetic.weight(vec::load<V>(gradient));
                    ORNIK_UNROLLED
                    for (int t = 0; t < Taps; ++t) {
                        arithmetic.add(weight, arithmetic.factor(vec::load<V>(places[t] + at)), sums[t]);
                    }
                }
            }
            if (!arithmetic.vouches_for(sums)) {
                return false;
            }
            ORNIK_UNROLLED
            for (int t = 0; t < Taps; ++t) {
                vec::store(arithmetic.value(sums[t]), out + t * lanes);
            }
            return true;
        });
    }

    WeightOperands<T> in_;
    std::int64_t vectors_;
    std::vector<std::int64_t> channels_;
    std::int64_t first_row_;  // of what a tile's first position reaches
    std::int64_t first_col_;
    TurnedWindow<T> window_;
    std::vector<std::int64_t> taps_;  // from there, in the window
};

}  // namespace
}  // namespace ornik::device::cpu
