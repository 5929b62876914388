// block_rows.h: the order in which rows of blocked images (cpu_blocks.h) are computed. Internal.
#pragma once

#include <algorithm>
#include <cstdint>

#include "hardware/workers.h"

namespace ornik::device::cpu {

/// Are planes of so many positions parted between threads by their rows, and not by their channels? What a layer reads
/// has then been written, but for the edges, by the thread that reads it. Of smaller planes the edges, and what is
/// fetched ahead beyond them, are too large a part.
inline bool are_parted_by_rows(std::int64_t batch, std::int64_t positions) {
    constexpr std::int64_t least = 512;
    const std::int64_t workers = parallel_workers();
    return batch < workers && positions >= least * workers;
}

/// The rows of all planes [batch, groups] in a row, so that equal parts of it are bands of rows of all groups.
class BlockRows {
  public:
    BlockRows(std::int64_t batch, std::int64_t groups, std::int64_t rows, std::int64_t cols)
        : batch_(batch), groups_(groups), rows_(rows) {
        bands_ = are_parted_by_rows(batch, rows * cols) ? std::min<std::int64_t>(parallel_workers(), rows) : 1;
    }
    std::int64_t count() const { return batch_ * groups_ * rows_; }

    /// run(plane, first row, behind the last one) for those from the one place to the other.
    template <typename Run>
    void visit(std::int64_t begin, std::int64_t end, const Run& run) const {
        while (begin < end) {
            const std::int64_t sample = begin / (groups_ * rows_);
            const std::int64_t place = begin % (groups_ * rows_);
            const std::int64_t band = ((place / groups_ + 1) * bands_ - 1) / rows_;
            const std::int64_t first = band * rows_ / bands_;
            const std::int64_t height = (band + 1) * rows_ / bands_ - first;
            const std::int64_t group = (place - first * groups_) / height;
            const std::int64_t row = (place - first * groups_) % height;
            const std::int64_t count = std::min(height - row, end - begin);
            run(sample * groups_ + group, first + row, first + row + count);
            begin += count;
        }
    }

  private:
    std::int64_t batch_;
    std::int64_t groups_;
    std::int64_t rows_;
    std::int64_t bands_;
};

}  // namespace ornik::device::cpu
