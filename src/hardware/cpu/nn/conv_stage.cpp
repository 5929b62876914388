#include "conv_stage.h"

namespace ornik::device::cpu {

StagePlan::StagePlan(const ConvPass& conv_pass, TileShape tile_shape)
    : pass(conv_pass),
      tile(tile_shape),
      rows(pass.rows, tile.rows),
      cols(pass.cols, tile.cols),
      row_tiles((pass.rows.positions + tile.rows - 1) / tile.rows),
      col_tiles((pass.cols.positions + tile.cols - 1) / tile.cols),
      plane(rows.count * cols.count) {
    for (std::size_t i = 0; i < pass.rows.taps.size(); ++i) {
        for (std::size_t j = 0; j < pass.cols.taps.size(); ++j) {
            taps.push_back(rows.tap_slots[i] * cols.count + cols.tap_slots[j]);
            kernels.push_back(pass.rows.taps[i].kernel * pass.kernel_cols + pass.cols.taps[j].kernel);
        }
    }
}

}  // namespace ornik::device::cpu
