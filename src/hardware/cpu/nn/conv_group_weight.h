// conv_group_weight.h: the gradient of the weight of a convolution that keeps its channels apart. Internal; for
// *_vector.cpp alone.
//
// Lanes are groups. The order of the sums is that of every weight's gradient (conv_weight_blocks.h).
#pragma once

#include <algorithm>
#include <vector>

#include "conv_lane_kernel.h"
#include "conv_transpose.h"
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
          planes_(places(lanes, in_.plan.plane)),
          channels_(places(lanes, pass.target_plane())) {}

    void run(T* weight) const {
        const Scratch<T> totals(in_.blocks.chunks * chunk_totals());
        in_.run_items(in_.blocks.chunks * vectors_, in_.geometry.groups * in_.taps,
                      [&](std::int64_t begin, std::int64_t end) {
                          const Scratch<T> slots(lanes * in_.plan.plane);
                          const Scratch<T> values(in_.blocks.samples * in_.plan.plane * lanes);
                          const Scratch<T> gradients(in_.blocks.positions() * lanes);
                          for (std::int64_t item = begin; item < end; ++item) {
                              run_item(item / vectors_, item % vectors_, slots.get(), values.get(), gradients.get(),
                                       totals.get());
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

    std::int64_t chunk_totals() const { return vectors_ * in_.taps * lanes; }

    void run_item(std::int64_t chunk, std::int64_t vector, T* slots, T* values, T* gradients, T* totals) const {
        const std::int64_t group = vector * lanes;
        const std::int64_t count = std::min(lanes, in_.geometry.groups - group);
        T* out = totals + chunk * chunk_totals() + vector * in_.taps * lanes;
        std::vector<std::int64_t> steps;
        for (std::int64_t unit = in_.blocks.first(chunk); unit < in_.blocks.first(chunk + 1); ++unit) {
            const auto [tile, sample, samples] = in_.unit(unit);
            steps.clear();
            for (std::int64_t s = 0; s < samples; ++s) {
                const std::int64_t channel = (sample + s) * in_.geometry.groups + group;
                stage_planes(in_.plan, tile, in_.image + channel * in_.plan.pass.source_plane(), count, slots);
                turn_rows(slots, planes_.data(), count, lanes, in_.plan.plane, values + s * in_.plan.plane * lanes,
                          lanes);
                turn_rows(in_.grid_at(tile, channel), channels_.data(), count, lanes, tile.positions(),
                          gradients + s * tile.positions() * lanes, lanes);
                for (std::int64_t r = 0; r < tile.rows; ++r) {
                    for (std::int64_t x = 0; x < tile.cols; ++x) {
                        steps.push_back((s * in_.plan.plane + r * in_.plan.slot_row + x) * lanes);
                    }
                }
            }
            for (std::int64_t t = 0; t < in_.taps; t += taps_together) {
                add<taps_together>(std::min<std::int64_t>(taps_together, in_.taps - t), in_.plan.taps.data() + t,
                                   values, gradients, steps, unit == in_.blocks.first(chunk), out + t * lanes);
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

    WeightOperands<T> in_;
    std::int64_t vectors_;
    std::vector<std::int64_t> planes_;
    std::vector<std::int64_t> channels_;
};

}  // namespace
}  // namespace ornik::device::cpu
