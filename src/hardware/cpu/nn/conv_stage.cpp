#include "conv_stage.h"

namespace ornik::device::cpu {

StagePlan::StagePlan(const ConvPass& conv_pass, TileShape tile_shape, SlotLayout layout)
    : pass(conv_pass),
      tile(tile_shape),
      row_tiles((pass.rows.positions + tile.rows - 1) / tile.rows),
      col_tiles((pass.cols.positions + tile.cols - 1) / tile.cols) {
    const AxisSlots rows(pass.rows, tile.rows, false);
    const AxisSlots cols(pass.cols, tile.cols, layout == SlotLayout::linear);
    const auto row_runs = static_cast<std::int64_t>(rows.sources.size());
    slot_row = cols.length;
    // All rows of a run of columns, then those of the next one.
    const std::int64_t run = row_runs * rows.length * slot_row;
    plane = run * static_cast<std::int64_t>(cols.sources.size());
    for (std::size_t i = 0; i < pass.rows.taps.size(); ++i) {
        const std::int64_t row = static_cast<std::int64_t>(rows.taps[i].run) * rows.length + rows.taps[i].slot;
        for (std::size_t j = 0; j < pass.cols.taps.size(); ++j) {
            taps.push_back(static_cast<std::int64_t>(cols.taps[j].run) * run + row * slot_row + cols.taps[j].slot);
            kernels.push_back(pass.rows.taps[i].kernel * pass.kernel_cols + pass.cols.taps[j].kernel);
        }
    }
    for (std::int64_t index = 0; index < tiles(); ++index) {
        first_spans_.push_back(spans_.size());
        std::int64_t slot = 0;
        for (const std::int64_t col : cols.sources) {
            for (const std::int64_t row : rows.sources) {
                for (std::int64_t r = 0; r < rows.length; ++r, slot += slot_row) {
                    add_span(slot, (index / col_tiles * tile.rows + r) * pass.rows.step + row,
                             index % col_tiles * tile.cols * pass.cols.step + col);
                }
            }
        }
    }
    first_spans_.push_back(spans_.size());
}

void StagePlan::add_span(std::int64_t slot, std::int64_t row, std::int64_t col) {
    const std::int64_t step = pass.cols.step;
    const bool outside = row < 0 || row >= pass.rows.source;
    const std::int64_t before = col >= 0 ? 0 : (-col + step - 1) / step;
    const std::int64_t until = col >= pass.cols.source ? 0 : (pass.cols.source - 1 - col) / step + 1;
    const std::int64_t begin = std::min(before, slot_row);
    const std::int64_t count = outside ? 0 : std::max<std::int64_t>(0, std::min(until, slot_row) - begin);
    const std::int64_t source = count == 0 ? 0 : row * pass.cols.source + col + begin * step;
    spans_.push_back({slot, slot_row, source, begin, count});
}

}  // namespace ornik::device::cpu
