// conv_workers.h: runs the tiles of all passes of one convolution.
//
// Passes of one adjoint read the same source and write neighbouring places: a worker runs a tile of each in turn,
// while both are in its cache.
#pragma once

#include <algorithm>
#include <vector>

#include "conv_stage.h"
#include "cpu_conv_kernels.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

/// Elements that a worker needs for one tile.
struct WorkspaceSize {
    std::int64_t slots = 0;
    std::int64_t local = 0;  // results that are not computed in place
    std::int64_t work = 0;   // multiplications of a tile
};

/// Channels of each of the fewest blocks of at most `most`.
inline std::int64_t equal_blocks(std::int64_t channels, std::int64_t most) {
    const std::int64_t blocks = std::max<std::int64_t>(1, (channels + most - 1) / most);
    return std::max<std::int64_t>(1, (channels + blocks - 1) / blocks);
}

/// Parts of the target channels, each computed on its own.
struct TargetCuts {
    static constexpr std::int64_t plenty_of_tiles = 16;  // fewer are cut by target channels, too
    static constexpr std::int64_t least_channels = 32;   // a cut stages its source once more: not below this
    static constexpr std::int64_t most_channels = 256;   // whose weights stay in the second level of cache

    std::int64_t cuts;
    std::int64_t channels;  // of a cut: a multiple of `unit`

    TargetCuts(const ConvSum& sum, std::int64_t tiles_per_part, std::int64_t unit) {
        const std::int64_t tiles = sum.batch * sum.groups * tiles_per_part;
        cuts = (plenty_of_tiles + tiles - 1) / tiles;
        cuts = std::min(cuts, (sum.target_channels + least_channels - 1) / least_channels);
        cuts = std::max(cuts, (sum.target_channels + most_channels - 1) / most_channels);
        channels = ((sum.target_channels + cuts - 1) / cuts + unit - 1) / unit * unit;
        cuts = (sum.target_channels + channels - 1) / channels;
    }
};

template <typename T>
struct Workspace {
    explicit Workspace(const WorkspaceSize& size) : slots(size.slots), local(size.local) {}
    Scratch<T> slots;
    Scratch<T> local;
};

/// One element of `sums` per pass, with tiles(), cuts() (parts of the target channels), size() and
/// run_tile(part, tile, cut, workspace); a part is a sample's group.
template <typename T, typename Sum>
void run_sums(const ConvSum& sum, const std::vector<Sum>& sums) {
    std::int64_t tiles = 0;
    std::int64_t cuts = 0;
    WorkspaceSize size;
    for (const Sum& s : sums) {
        const WorkspaceSize own = s.size();
        size = {std::max(size.slots, own.slots), std::max(size.local, own.local), size.work + own.work};
        tiles = std::max(tiles, s.tiles());
        cuts = std::max(cuts, s.cuts());
    }
    const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / std::max<std::int64_t>(1, size.work));
    parallel_for(sum.batch * sum.groups * tiles * cuts, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        Workspace<T> workspace(size);
        for (std::int64_t item = begin; item < end; ++item) {
            const std::int64_t cut = item % cuts;
            const std::int64_t tile = item / cuts % tiles;
            for (const Sum& s : sums) {
                if (cut < s.cuts() && tile < s.tiles()) {
                    s.run_tile(item / cuts / tiles, tile, cut, workspace);
                }
            }
        }
    });
}

}  // namespace ornik::device::cpu
