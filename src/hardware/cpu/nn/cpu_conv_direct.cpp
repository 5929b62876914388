// cpu_conv_direct.cpp: the weight gradient of convolutions that keep their channels apart.
#include <algorithm>

#include "conv_stage.h"
#include "cpu_conv_kernels.h"
#include "hardware/cpu/product/cpu_taps.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t most_positions = 4096;  // of a tile

}  // namespace

template <typename T>
void run_direct_weight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid,
                       bool conjugate_grid, T* weight) {
    const StagePlan plan(pass, choose_tile(pass, most_positions, 1), SlotLayout::shared);
    const auto taps = static_cast<std::int64_t>(plan.taps.size());
    parallel_for(geometry.groups, 1, 2, [&](std::int64_t begin, std::int64_t end) {
        const Scratch<T> slots(plan.plane);
        std::vector<T> sums(plan.taps.size());
        for (std::int64_t group = begin; group < end; ++group) {
            std::fill(sums.begin(), sums.end(), T(0));
            for (std::int64_t unit = 0; unit < geometry.batch * plan.tiles(); ++unit) {
                const Tile tile(plan, unit % plan.tiles());
                const std::int64_t part = unit / plan.tiles() * geometry.groups + group;
                stage_planes(plan, tile, image + part * pass.source_plane(), 1, slots.get());
                conjugate(slots.get(), plan.plane);
                const T* gradients = grid + part * pass.target_plane() + tile.row * pass.cols.positions + tile.col;
                tap_dots(slots.get(), plan.slot_row, plan.taps.data(), taps, gradients, pass.cols.positions, tile.rows,
                         tile.cols, sums.data());
            }
            if (conjugate_grid) {
                conjugate(sums.data(), taps);
            }
            for (std::size_t t = 0; t < sums.size(); ++t) {
                weight[group * taps + plan.kernels[t]] = sums[t];
            }
        }
    });
}

#define ORNIK_INSTANTIATE_CONV_DIRECT(T) \
    template void run_direct_weight(const ConvPass&, const ConvGeometry&, const T*, const T*, bool, T*)

ORNIK_INSTANTIATE_CONV_DIRECT(float);
ORNIK_INSTANTIATE_CONV_DIRECT(double);
ORNIK_INSTANTIATE_CONV_DIRECT(std::complex<float>);
ORNIK_INSTANTIATE_CONV_DIRECT(std::complex<double>);

}  // namespace ornik::device::cpu
