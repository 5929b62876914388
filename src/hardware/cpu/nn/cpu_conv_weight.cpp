// cpu_conv_weight.cpp: the gradient of a convolution's weight.
//
// A product whose depth runs over all positions of all samples: rows are (tap, image channel), columns are grid
// channels. Its depth is cut into a number of chunks that depends on the sizes alone; chunks are summed in order.
#include <algorithm>

#include "conv_panels.h"
#include "cpu_conv_kernels.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t block_rows = 288;                     // of the column matrix in one product
constexpr std::int64_t most_positions = 256;                 // of a tile: the depth of one product
constexpr std::int64_t position_unit = 8;                    // nothing but a round number
constexpr std::int64_t enough_items = 16;                    // chunks are made for so many
constexpr std::int64_t chunk_bytes = std::int64_t{4} << 20;  // of the sums of all chunks

template <typename T>
class ProductWeight {
  public:
    ProductWeight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid)
        : geometry_(geometry),
          image_(image),
          grid_(grid),
          plan_(pass, choose_tile(pass, most_positions, position_unit)),
          taps_(pass.taps()) {
        const std::int64_t most = std::max<std::int64_t>(1, block_rows / taps_);
        blocks_ = (geometry.image_channels + most - 1) / most;
        block_channels_ = (geometry.image_channels + blocks_ - 1) / blocks_;
        rows_ = taps_ * block_channels_;
        if (kernel_.widths[0] != 0) {
            rows_ = (rows_ + piece<T> - 1) / piece<T> * piece<T>;  // Narrow panels are slow; excess rows are ignored.
        }
        item_sums_ = rows_ * geometry.grid_channels;
        const std::int64_t parts = geometry.groups * blocks_;
        const std::int64_t room = chunk_bytes / static_cast<std::int64_t>(sizeof(T)) / (parts * item_sums_);
        chunks_ = std::min({(enough_items + parts - 1) / parts, room, geometry.batch * plan_.tiles()});
        chunks_ = std::max<std::int64_t>(1, chunks_);
    }

    void run(bool conjugate_grid, T* weight) {
        const std::int64_t items = chunks_ * geometry_.groups * blocks_;
        const Scratch<T> sums(items * item_sums_);
        const std::int64_t positions = plan_.tile.rows * plan_.tile.cols;
        const std::int64_t units = (geometry_.batch * plan_.tiles() + chunks_ - 1) / chunks_;
        const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / (units * positions * item_sums_));
        parallel_for(items, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            const Scratch<T> slots(block_channels_ * plan_.plane);
            const Scratch<T> left(kernel_.next_stretch(rows_, positions) * positions);
            const Scratch<T> right(positions * geometry_.grid_channels);
            for (std::int64_t item = begin; item < end; ++item) {
                run_item(item, slots.get(), left.get(), right.get(), sums.get() + item * item_sums_);
            }
        });
        gather(sums.get(), conjugate_grid, weight);
    }

  private:
    void run_item(std::int64_t item, T* slots, T* left, T* right, T* sums) const {
        const std::int64_t block = item % blocks_;
        const std::int64_t group = item / blocks_ % geometry_.groups;
        const std::int64_t chunk = item / blocks_ / geometry_.groups;
        const std::int64_t first = block * block_channels_;
        const std::int64_t channels = std::min(block_channels_, geometry_.image_channels - first);
        const std::int64_t grid_plane = plan_.pass.target_plane();
        const std::int64_t units = geometry_.batch * plan_.tiles();
        const std::int64_t positions = plan_.tile.rows * plan_.tile.cols;
        std::fill_n(sums, item_sums_, T(0));
        for (std::int64_t unit = chunk * units / chunks_; unit < (chunk + 1) * units / chunks_; ++unit) {
            const Tile tile(plan_, unit % plan_.tiles());
            const std::int64_t part = unit / plan_.tiles() * geometry_.groups + group;
            const T* planes = image_ + (part * geometry_.image_channels + first) * plan_.pass.source_plane();
            stage_channels_last(plan_, tile, planes, channels, slots);
            conjugate(slots, channels * plan_.plane);
            const T* gradients =
                grid_ + part * geometry_.grid_channels * grid_plane + tile.row * plan_.pass.cols.positions + tile.col;
            kernel_.pack_right(gradients, 1, grid_plane, tile.positions(), geometry_.grid_channels, right);
            std::int64_t rows = 0;
            for (std::int64_t row = 0; row < rows_; row += rows) {
                rows = kernel_.next_stretch(rows_ - row, positions);
                pack_rows(tile, row, row + rows, channels, slots, left);
                kernel_.multiply(left, right, rows, tile.positions(), geometry_.grid_channels, sums + row, rows_);
            }
        }
    }

    // Row tap * channels + channel, a step of depth for every position.
    void pack_rows(const Tile& tile, std::int64_t begin, std::int64_t end, std::int64_t channels, const T* slots,
                   T* left) const {
        PanelPieces<T> pieces;
        std::int64_t width = 0;
        for (std::int64_t row = begin; row < end; row += width) {
            width = kernel_.next_panel(end - row);
            pieces.clear();
            for (std::int64_t i = 0; i < width && row + i < taps_ * channels;) {
                const std::int64_t tap = (row + i) / channels;
                const std::int64_t channel = (row + i) % channels;
                const std::int64_t count = std::min(width - i, channels - channel);
                pieces.add(i, plan_.taps[static_cast<std::size_t>(tap)] * channels + channel, count);
                i += count;
            }
            for (std::int64_t r = 0; r < tile.rows; ++r) {
                left = pieces.copy_steps(slots + r * plan_.cols.count * channels, channels, tile.cols, width, left);
            }
        }
    }

    void gather(const T* sums, bool conjugate_grid, T* weight) const {
        const std::int64_t inner = geometry_.image_channels * taps_;
        parallel_for(geometry_.groups * geometry_.grid_channels, 1, std::max<std::int64_t>(2, conv_grain / inner),
                     [&](std::int64_t begin, std::int64_t end) {
                         for (std::int64_t item = begin; item < end; ++item) {
                             for (std::int64_t c = 0; c < geometry_.image_channels; ++c) {
                                 gather_kernel(sums, item / geometry_.grid_channels, item % geometry_.grid_channels, c,
                                               conjugate_grid, weight);
                             }
                         }
                     });
    }

    void gather_kernel(const T* sums, std::int64_t group, std::int64_t o, std::int64_t c, bool conjugate_grid,
                       T* weight) const {
        const std::int64_t block = c / block_channels_;
        const std::int64_t channels = std::min(block_channels_, geometry_.image_channels - block * block_channels_);
        const std::int64_t stride = geometry_.groups * blocks_ * item_sums_;
        const T* first = sums + (group * blocks_ + block) * item_sums_ + o * rows_ + c % block_channels_;
        const std::int64_t pair =
            geometry_.image_first ? c * geometry_.grid_channels + o : o * geometry_.image_channels + c;
        T* kernel = weight + (group * geometry_.image_channels * geometry_.grid_channels + pair) * taps_;
        for (std::int64_t t = 0; t < taps_; ++t) {
            T sum = first[t * channels];
            for (std::int64_t chunk = 1; chunk < chunks_; ++chunk) {
                sum += first[chunk * stride + t * channels];
            }
            kernel[plan_.kernels[static_cast<std::size_t>(t)]] = sum;
        }
        if (conjugate_grid) {
            conjugate(kernel, taps_);
        }
    }

    const PanelKernel<T>& kernel_ = panel_kernel<T>();
    const ConvGeometry& geometry_;
    const T* image_;
    const T* grid_;
    StagePlan plan_;
    std::int64_t taps_;
    std::int64_t blocks_ = 0;
    std::int64_t block_channels_ = 0;
    std::int64_t rows_ = 0;
    std::int64_t item_sums_ = 0;
    std::int64_t chunks_ = 0;
};

}  // namespace

template <typename T>
void run_conv_weight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid,
                     bool conjugate_grid, T* weight) {
    if (geometry.image_channels == 1 && geometry.grid_channels == 1) {
        run_direct_weight(pass, geometry, image, grid, conjugate_grid, weight);
    } else {
        const ConvPass rows = pass.is_pointwise() ? pass.as_one_row() : pass;
        ProductWeight<T>(rows, geometry, image, grid).run(conjugate_grid, weight);
    }
}

#define ORNIK_INSTANTIATE_CONV_WEIGHT(T) \
    template void run_conv_weight(const ConvPass&, const ConvGeometry&, const T*, const T*, bool, T*)

ORNIK_INSTANTIATE_CONV_WEIGHT(float);
ORNIK_INSTANTIATE_CONV_WEIGHT(double);
ORNIK_INSTANTIATE_CONV_WEIGHT(std::complex<float>);
ORNIK_INSTANTIATE_CONV_WEIGHT(std::complex<double>);

}  // namespace ornik::device::cpu
