// conv_group_weight.h: the gradient of the weight of a convolution that keeps its channels apart. Internal; for
// *_vector.cpp alone.
//
// Lanes are groups. The order of the sums is that of every weight's gradient (conv_weight_blocks.h).
#pragma once

#include <algorithm>
#include <vector>

#include "conv_stage.h"
#include "conv_transpose.h"
#include "conv_weight_blocks.h"
#include "cpu_conv_kernels.h"
#include "hardware/cpu/vector_chain.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
class GroupWeight {
  public:
    GroupWeight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid)
        : geometry_(geometry),
          image_(image),
          grid_(grid),
          blocks_(pass, geometry),
          plan_(pass, blocks_.tile, SlotLayout::shared),
          taps_(pass.taps()),
          vectors_((geometry.groups + lanes - 1) / lanes) {
        for (std::int64_t i = 0; i < lanes; ++i) {
            planes_.push_back(i * plan_.plane);
            channels_.push_back(i * pass.target_plane());
        }
    }

    void run(T* weight) const {
        const Scratch<T> totals(blocks_.chunks * chunk_totals());
        const std::int64_t items = blocks_.chunks * vectors_;
        const std::int64_t work = geometry_.batch * plan_.pass.target_plane() * geometry_.groups * taps_ / items;
        parallel_for(items, 1, std::max<std::int64_t>(2, conv_grain / std::max<std::int64_t>(1, work)),
                     [&](std::int64_t begin, std::int64_t end) {
                         const Scratch<T> slots(lanes * plan_.plane);
                         const Scratch<T> values(blocks_.samples * plan_.plane * lanes);
                         const Scratch<T> gradients(blocks_.positions() * lanes);
                         for (std::int64_t item = begin; item < end; ++item) {
                             run_item(item / vectors_, item % vectors_, slots.get(), values.get(), gradients.get(),
                                      totals.get());
                         }
                     });
        for (std::int64_t g = 0; g < geometry_.groups; ++g) {
            for (std::int64_t t = 0; t < taps_; ++t) {
                const T* total = totals.get() + (g / lanes * taps_ + t) * lanes + g % lanes;
                T sum = *total;
                for (std::int64_t chunk = 1; chunk < blocks_.chunks; ++chunk) {
                    sum += total[chunk * chunk_totals()];
                }
                weight[g * taps_ + t] = sum;
            }
        }
    }

  private:
    static constexpr std::int64_t lanes = vec::lanes<T>;
    static constexpr int taps_together = 9;

    std::int64_t chunk_totals() const { return vectors_ * taps_ * lanes; }

    void run_item(std::int64_t chunk, std::int64_t vector, T* slots, T* values, T* gradients, T* totals) const {
        const std::int64_t group = vector * lanes;
        const std::int64_t count = std::min(lanes, geometry_.groups - group);
        T* out = totals + chunk * chunk_totals() + vector * taps_ * lanes;
        std::vector<std::int64_t> steps;
        for (std::int64_t unit = blocks_.first(chunk); unit < blocks_.first(chunk + 1); ++unit) {
            const Tile tile(plan_, unit % plan_.tiles());
            const std::int64_t sample = unit / plan_.tiles() * blocks_.samples;
            const std::int64_t samples = std::min(blocks_.samples, geometry_.batch - sample);
            steps.clear();
            for (std::int64_t s = 0; s < samples; ++s) {
                const std::int64_t channel = (sample + s) * geometry_.groups + group;
                stage_planes(plan_, tile, image_ + channel * plan_.pass.source_plane(), count, slots);
                turn_rows(slots, planes_.data(), count, lanes, plan_.plane, values + s * plan_.plane * lanes, lanes);
                turn_rows(grid_ + channel * plan_.pass.target_plane() + tile.row * plan_.pass.cols.positions + tile.col,
                          channels_.data(), count, lanes, tile.positions(), gradients + s * tile.positions() * lanes,
                          lanes);
                for (std::int64_t r = 0; r < tile.rows; ++r) {
                    for (std::int64_t x = 0; x < tile.cols; ++x) {
                        steps.push_back((s * plan_.plane + r * plan_.slot_row + x) * lanes);
                    }
                }
            }
            for (std::int64_t t = 0; t < taps_; t += taps_together) {
                add<taps_together>(std::min<std::int64_t>(taps_together, taps_ - t), plan_.taps.data() + t, values,
                                   gradients, steps, unit == blocks_.first(chunk), out + t * lanes);
            }
        }
    }

    // The chains of `count` taps.
    template <int Taps>
    static void add(std::int64_t count, const std::int64_t* taps, const T* values, const T* gradients,
                    const std::vector<std::int64_t>& steps, bool first, T* out) {
        if constexpr (Taps > 1) {
            if (count < Taps) {
                return add<Taps - 1>(count, taps, values, gradients, steps, first, out);
            }
        }
        using V = vec::Vector<T>;
        const T* places[Taps];
        ORNIK_UNROLLED
        for (int t = 0; t < Taps; ++t) {
            places[t] = values + taps[t] * lanes;
        }
        vec::run_chains<T>([&](auto arithmetic) ORNIK_EXPANDED {
            typename decltype(arithmetic)::Sum sums[Taps];
            ORNIK_UNROLLED
            for (int t = 0; t < Taps; ++t) {
                sums[t] = arithmetic.from(V{});
            }
            const T* row = gradients;
            for (const std::int64_t step : steps) {
                const auto gradient = arithmetic.weight(vec::load<V>(row));
                row += lanes;
                ORNIK_UNROLLED
                for (int t = 0; t < Taps; ++t) {
                    arithmetic.add(gradient, arithmetic.factor(vec::load<V>(places[t] + step)), sums[t]);
                }
            }
            if (!arithmetic.vouches_for(sums)) {
                return false;
            }
            ORNIK_UNROLLED
            for (int t = 0; t < Taps; ++t) {
                const V sum = arithmetic.value(sums[t]);
                vec::store(first ? sum : vec::load<V>(out + t * lanes) + sum, out + t * lanes);
            }
            return true;
        });
    }

    const ConvGeometry& geometry_;
    const T* image_;
    const T* grid_;
    WeightBlocks blocks_;
    StagePlan plan_;
    std::int64_t taps_;
    std::int64_t vectors_;
    std::vector<std::int64_t> planes_;
    std::vector<std::int64_t> channels_;
};

}  // namespace
}  // namespace ornik::device::cpu
