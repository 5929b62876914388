// conv_workers.h: runs the tiles of all passes of one convolution.
//
// Passes of one adjoint read the same source and write neighbouring places: a worker runs a tile of each in turn,
// while both are in its cache.
#pragma once

#include <algorithm>
#include <memory>
#include <vector>

#include "conv_order.h"
#include "conv_stage.h"
#include "cpu_conv_kernels.h"
#include "hardware/parallel.h"
#include "hardware/workers.h"

namespace ornik::device::cpu {

/// Elements that a worker needs for one tile.
struct WorkspaceSize {
    std::int64_t slots = 0;
    std::int64_t local = 0;    // results that are not computed in place
    std::int64_t weights = 0;  // laid out for one tile
    std::int64_t work = 0;     // multiplications of a tile
};

/// Positions of a tile whose totals wait from block to block.
inline constexpr std::int64_t most_blocked_positions = 400;

/// Totals of one block need not wait: larger tiles, of so many slots, as long as there are some for all processors.
inline std::int64_t most_tile_positions(const ConvSum& sum) {
    constexpr std::int64_t most_slots = 1 << 15;
    constexpr std::int64_t most_unblocked_positions = 1024;
    const std::int64_t channels = conv_block_channels(sum.source_channels, sum.kernel_elements);
    return sum.source_channels > channels
               ? most_blocked_positions
               : std::clamp(most_slots / channels, most_blocked_positions, most_unblocked_positions);
}

/// Samples that go together where one is a single small tile.
inline std::int64_t tile_samples(const ConvSum& sum, std::int64_t tiles, std::int64_t positions) {
    return tiles > 1 ? 1 : std::clamp<std::int64_t>(most_blocked_positions / positions, 1, sum.batch);
}

/// The target channels' panels in cuts that are computed on their own, each from what it stages of the source. The bits
/// do not depend on them: there are enough for all workers, and as many as keep a cut's totals in the second level of
/// cache.
struct TargetCuts {
    static constexpr std::int64_t most_totals = 1 << 16;

    std::int64_t cuts;
    std::int64_t channels;  // of a cut

    TargetCuts(std::int64_t target_channels, std::int64_t panel, std::int64_t tiles, std::int64_t positions) {
        const std::int64_t panels = (target_channels + panel - 1) / panel;
        const std::int64_t most = std::max<std::int64_t>(1, most_totals / (positions * panel));
        const std::int64_t workers = parallel_workers();
        const std::int64_t wanted = workers == 1 ? 1 : (4 * workers + tiles - 1) / tiles;
        cuts = std::min(panels, std::max(wanted, (panels + most - 1) / most));
        // Of the cuts with as many panels or fewer, those that the busiest worker ends with first.
        const std::int64_t largest = (panels + cuts - 1) / cuts;
        std::int64_t best = largest;
        for (std::int64_t size = largest - 1; size > 0; --size) {
            best = busiest(workers, tiles, panels, size) < busiest(workers, tiles, panels, best) ? size : best;
        }
        channels = best * panel;
        cuts = (target_channels + channels - 1) / channels;
    }

  private:
    // Panels that one worker has to do.
    static std::int64_t busiest(std::int64_t workers, std::int64_t tiles, std::int64_t panels, std::int64_t size) {
        const std::int64_t items = tiles * ((panels + size - 1) / size);
        return (items + workers - 1) / workers * size;
    }
};

/// Memory of a worker, null for no elements: all threads wait for each other at the pool.
template <typename T>
class Room {
  public:
    explicit Room(std::int64_t count) : memory_(count > 0 ? std::make_unique<Scratch<T>>(count) : nullptr) {}
    T* get() const { return memory_ ? memory_->get() : nullptr; }

  private:
    std::unique_ptr<Scratch<T>> memory_;
};

template <typename T>
struct Workspace {
    explicit Workspace(const WorkspaceSize& size) : slots(size.slots), local(size.local), weights(size.weights) {}
    Room<T> slots;
    Room<T> local;
    Room<T> weights;
};

/// One element of `sums` per pass, with part_count() (a group of one sample or several), tiles(), cuts() (of the target
/// channels), size() and run_tile(part, tile, cut, workspace).
template <typename T, typename Sum>
void run_sums(const std::vector<Sum>& sums) {
    std::int64_t part_count = 0;
    std::int64_t tiles = 0;
    std::int64_t cuts = 0;
    WorkspaceSize size;
    for (const Sum& s : sums) {
        const WorkspaceSize own = s.size();
        size = {std::max(size.slots, own.slots), std::max(size.local, own.local), std::max(size.weights, own.weights),
                size.work + own.work};
        part_count = std::max(part_count, s.part_count());
        tiles = std::max(tiles, s.tiles());
        cuts = std::max(cuts, s.cuts());
    }
    const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / std::max<std::int64_t>(1, size.work));
    parallel_for(part_count * tiles * cuts, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        Workspace<T> workspace(size);
        for (std::int64_t item = begin; item < end; ++item) {
            const std::int64_t cut = item % cuts;
            const std::int64_t tile = item / cuts % tiles;
            const std::int64_t part = item / cuts / tiles;
            for (const Sum& s : sums) {
                if (part < s.part_count() && tile < s.tiles() && cut < s.cuts()) {
                    s.run_tile(part, tile, cut, workspace);
                }
            }
        }
    });
}

}  // namespace ornik::device::cpu
