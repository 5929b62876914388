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
