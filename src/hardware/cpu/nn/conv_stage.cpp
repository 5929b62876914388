#include "conv_stage.h"

namespace ornik::device::cpu {

StagePlan::StagePlan(const ConvPass& conv_pass, TileShape tile_shape, SlotLayout slot_layout, std::int64_t rest_cols)
    : pass(conv_pass),
      tile(tile_shape),
      layout(slot_layout),
      rest(rest_cols),
      row_tiles((pass.rows.positions + tile.rows - 1) / tile.rows),
      col_tiles((pass.cols.positions + tile.cols - 1) / tile.cols) {
    const bool linear = layout == SlotLayout::linear;
    const AxisSlots rows(pass.rows, tile.rows, false);
    const AxisSlots cols(pass.cols, tile.cols, linear);
    plane = rows.count * cols.count;
    slot_row = linear ? tile.cols : cols.count;
    // A run of columns: beside the one before it in every row, or behind all rows of the one before it.
    const auto place = [&](std::int64_t col_slot) { return linear ? col_slot * rows.count : col_slot; };
    for (std::size_t i = 0; i < pass.rows.taps.size(); ++i) {
        for (std::size_t j = 0; j < pass.cols.taps.size(); ++j) {
            taps.push_back(rows.tap_slots[i] * slot_row + place(cols.tap_slots[j]));
            kernels.push_back(pass.rows.taps[i].kernel * pass.kernel_cols + pass.cols.taps[j].kernel);
        }
    }
    if (rest > 0) {
        for (const std::int64_t row : rows.tap_slots) {
            for (std::size_t j = 0; j < cols.tap_slots.size(); ++j) {
                rest_taps.push_back(plane + (static_cast<std::int64_t>(j) * rows.count + row) * rest);
            }
        }
        for (const std::int64_t col : cols.tap_slots) {
            for (std::int64_t row = 0; row < rows.count; ++row) {
                rest_copies_.push_back({plane, row * slot_row + col + tile.cols - rest});
                plane += rest;
            }
        }
    }
    for (std::int64_t index = 0; index < tiles(); ++index) {
        first_spans_.push_back(spans_.size());
        for (const AxisSlots::Run& row_run : rows.runs) {
            for (std::int64_t r = 0; r < row_run.count; ++r) {
                for (const AxisSlots::Run& run : cols.runs) {
                    const std::int64_t slot = (row_run.slot + r) * slot_row + place(run.slot);
                    const std::int64_t source_row =
                        (index / col_tiles * tile.rows + r) * pass.rows.step + row_run.source;
                    add_span(slot, run.count, source_row, index % col_tiles * tile.cols * pass.cols.step + run.source);
                }
            }
        }
        std::sort(spans_.begin() + static_cast<std::ptrdiff_t>(first_spans_.back()), spans_.end(),
                  [](const StageSpan& a, const StageSpan& b) { return a.slot < b.slot; });
    }
    first_spans_.push_back(spans_.size());
}

void StagePlan::add_span(std::int64_t slot, std::int64_t length, std::int64_t row, std::int64_t col) {
    const std::int64_t step = pass.cols.step;
    const bool outside = row < 0 || row >= pass.rows.source;
    const std::int64_t before = col >= 0 ? 0 : (-col + step - 1) / step;
    const std::int64_t until = col >= pass.cols.source ? 0 : (pass.cols.source - 1 - col) / step + 1;
    const std::int64_t begin = std::min(before, length);
    const std::int64_t count = outside ? 0 : std::max<std::int64_t>(0, std::min(until, length) - begin);
    const std::int64_t source = count == 0 ? 0 : row * pass.cols.source + col + begin * step;
    spans_.push_back({slot, length, source, begin, count});
}

}  // namespace ornik::device::cpu
