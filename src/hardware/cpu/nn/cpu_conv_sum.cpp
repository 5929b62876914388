// cpu_conv_sum.cpp: sums over taps and source channels, as products of packed operands.
//
// The weight is packed once per call. Then every tile of positions is computed on its own: its part of the
// source is staged, written into the product's panels for a block of channels at a time, and multiplied into
// the target planes where they lie. No column matrix exists beyond one block of one tile.
#include <algorithm>
#include <memory>

#include "conv_workers.h"
#include "hardware/cpu/cpu_taps.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t block_depth = 288;        // rows of the column matrix in one product
constexpr std::int64_t most_positions = 384;     // of a tile
constexpr std::int64_t position_unit = 24;       // the widest panel of the common vector width
constexpr std::int64_t plenty_of_tiles = 16;     // fewer are cut by target channels, too
constexpr std::int64_t least_cut_channels = 32;  // a cut stages its source once more: not below this
constexpr std::int64_t most_cut_channels = 256;  // whose weights stay in the second level of cache

template <typename T>
class ProductSum {
  public:
    ProductSum(const ConvPass& pass, const ConvSum& sum, const T* source, const T* weight, const T* bias, T* target)
        : sum_(sum),
          source_(source),
          bias_(bias),
          target_(target),
          direct_(pass.is_pointwise() && pass.fills_target()),
          in_place_(pass.fills_target()),
          block_channels_(channels_per_block(sum.source_channels, pass.taps())),
          plan_(direct_ ? pass.as_one_row() : pass, tile_for(direct_ ? pass.as_one_row() : pass)) {
        const std::int64_t tiles = sum.batch * sum.groups * plan_.tiles();
        cuts_ = (plenty_of_tiles + tiles - 1) / tiles;
        cuts_ = std::min(cuts_, (sum.target_channels + least_cut_channels - 1) / least_cut_channels);
        cuts_ = std::max(cuts_, (sum.target_channels + most_cut_channels - 1) / most_cut_channels);
        // A packed operand can be cut at multiples of 4 columns.
        cut_channels_ = ((sum.target_channels + cuts_ - 1) / cuts_ + 3) / 4 * 4;
        cuts_ = (sum.target_channels + cut_channels_ - 1) / cut_channels_;
        packed_ = std::make_unique<Scratch<T>>(sum.groups * sum.source_channels * taps() * sum.target_channels);
        pack_weight(weight, packed_->get());
    }

    std::int64_t tiles() const { return plan_.tiles(); }
    std::int64_t cuts() const { return cuts_; }
    WorkspaceSize size() const {
        const std::int64_t positions = plan_.tile.rows * plan_.tile.cols;
        const std::int64_t depth = block_channels_ * taps();
        return {direct_ ? 0 : block_channels_ * plan_.plane, next_rows(positions, depth) * depth,
                in_place_ ? 0 : positions * cut_channels_, positions * cut_channels_ * sum_.source_channels * taps()};
    }

    void run_tile(std::int64_t part, std::int64_t index, std::int64_t cut_index, Workspace<T>& workspace) const {
        const Tile tile(plan_, index);
        const std::int64_t cut = cut_index * cut_channels_;
        const std::int64_t group = part % sum_.groups;
        const std::int64_t channels = std::min(cut_channels_, sum_.target_channels - cut);
        const std::int64_t target_plane = plan_.pass.target_plane();
        T* target = target_ + (part * sum_.target_channels + cut) * target_plane;
        T* out = in_place_ ? target + tile.row * plan_.pass.cols.positions + tile.col : workspace.local.get();
        const std::int64_t out_stride = in_place_ ? target_plane : tile.positions();

        for (std::int64_t o = 0; o < channels; ++o) {
            const T start = bias_ == nullptr ? T(0) : bias_[group * sum_.target_channels + cut + o];
            std::fill_n(out + o * out_stride, tile.positions(), start);
        }
        for (std::int64_t first = 0; first < sum_.source_channels; first += block_channels_) {
            const std::int64_t block = std::min(block_channels_, sum_.source_channels - first);
            const T* planes = source_ + (part * sum_.source_channels + first) * plan_.pass.source_plane();
            const std::int64_t depth = block * taps();
            if (!direct_) {
                stage_planes(plan_, tile, planes, block, workspace.slots.get());
            }
            const T* right =
                packed_->get() + (group * sum_.source_channels + first) * taps() * sum_.target_channels + cut * depth;
            T* left = workspace.left.get();
            std::int64_t rows = 0;
            for (std::int64_t row = 0; row < tile.positions(); row += rows) {
                rows = next_rows(tile.positions() - row, depth);
                if (direct_) {
                    pack_direct(planes + tile.col + row, block, rows, left);
                } else {
                    pack_staged(tile, row, rows, workspace.slots.get(), block, left, workspace.pieces);
                }
                kernel_.multiply(left, right, rows, depth, channels, out + row, out_stride);
            }
        }
        for (std::int64_t o = 0; o < channels && !in_place_; ++o) {
            write_positions(plan_.pass, tile, out + o * out_stride, target + o * target_plane);
        }
    }

  private:
    std::int64_t taps() const { return static_cast<std::int64_t>(plan_.taps.size()); }

    static std::int64_t channels_per_block(std::int64_t channels, std::int64_t taps) {
        const std::int64_t most = std::max<std::int64_t>(1, block_depth / taps);
        const std::int64_t blocks = std::max<std::int64_t>(1, (channels + most - 1) / most);
        return (channels + blocks - 1) / blocks;
    }

    static TileShape tile_for(const ConvPass& pass) { return choose_tile(pass, most_positions, position_unit); }

    // Positions to pack and multiply at once. Channels of a source that is read where it lies are far apart: the
    // longer the stretches, the better.
    std::int64_t next_rows(std::int64_t rows, std::int64_t depth) const {
        return direct_ ? rows : kernel_.next_stretch(rows, depth);
    }

    // For every group and block of channels: depth (channel, tap) x target channels.
    void pack_weight(const T* weight, T* packed) const {
        if (sum_.source_channels == 0) {
            return;
        }
        const std::int64_t blocks = (sum_.source_channels + block_channels_ - 1) / block_channels_;
        parallel_for(sum_.groups * blocks, 1, 2, [&](std::int64_t begin, std::int64_t end) {
            const Scratch<T> dense(block_channels_ * taps() * sum_.target_channels);
            for (std::int64_t item = begin; item < end; ++item) {
                const std::int64_t group = item / blocks;
                const std::int64_t first = item % blocks * block_channels_;
                const std::int64_t channels = std::min(block_channels_, sum_.source_channels - first);
                T* element = dense.get();
                for (std::int64_t o = 0; o < sum_.target_channels; ++o) {
                    for (std::int64_t c = first; c < first + channels; ++c) {
                        const T* kernel =
                            weight + group * sum_.group_stride + o * sum_.target_stride + c * sum_.source_stride;
                        for (const std::int64_t k : plan_.kernels) {
                            *element++ = conjugate_if(sum_.conjugate, kernel[k]);
                        }
                    }
                }
                const std::int64_t depth = channels * taps();
                kernel_.pack_right(dense.get(), 1, depth, depth, sum_.target_channels,
                                   packed + (group * sum_.source_channels + first) * taps() * sum_.target_channels);
            }
        });
    }

    void pack_staged(const Tile& tile, std::int64_t first, std::int64_t rows, const T* slots, std::int64_t channels,
                     T* left, PanelPieces<T>& pieces) const {
        std::int64_t width = 0;
        for (std::int64_t position = first; position < first + rows; position += width) {
            width = kernel_.next_panel(first + rows - position);
            pieces.clear();
            for (std::int64_t i = 0; i < width;) {
                const std::int64_t row = (position + i) / tile.cols;
                const std::int64_t col = (position + i) % tile.cols;
                const std::int64_t count = std::min(width - i, tile.cols - col);
                pieces.add(i, row * plan_.cols.count + col, count);
                i += count;
            }
            left = pieces.copy_taps(slots, plan_.plane, channels, plan_.taps, width, left);
        }
    }

    // Straight from the source, which ends where it ends: exact copies. Channel by channel, since a channel's
    // positions lie side by side in memory far away.
    void pack_direct(const T* planes, std::int64_t channels, std::int64_t positions, T* left) const {
        const std::int64_t plane = plan_.pass.source_plane();
        for (std::int64_t c = 0; c < channels; ++c) {
            const T* from = planes + c * plane;
            std::int64_t width = 0;
            for (std::int64_t position = 0; position < positions; position += width) {
                width = kernel_.next_panel(positions - position);
                T* to = left + position * channels + c * width;
                const std::int64_t whole = width / piece<T> * piece<T>;
                for (std::int64_t i = 0; i < whole; i += piece<T>) {
                    copy_piece(from + position + i, to + i);
                }
                for (std::int64_t i = whole; i < width; ++i) {
                    to[i] = from[position + i];
                }
            }
        }
    }

    const PanelKernel<T>& kernel_ = panel_kernel<T>();
    const ConvSum& sum_;
    const T* source_;
    const T* bias_;
    T* target_;
    bool direct_;
    bool in_place_;
    std::int64_t block_channels_;
    StagePlan plan_;
    std::int64_t cuts_ = 1;
    std::int64_t cut_channels_ = 0;
    std::unique_ptr<Scratch<T>> packed_;
};

}  // namespace

template <typename T>
void run_conv_sum(const std::vector<ConvPass>& passes, const ConvSum& sum, const T* source, const T* weight,
                  const T* bias, T* target) {
    if (sum.target_channels <= most_direct_targets) {
        run_direct_sum(passes, sum, source, weight, bias, target);
        return;
    }
    std::vector<ProductSum<T>> sums;
    for (const ConvPass& pass : passes) {
        sums.emplace_back(pass, sum, source, weight, bias, target);
    }
    run_sums<T>(sum, sums);
}

#define ORNIK_INSTANTIATE_CONV_SUM(T) \
    template void run_conv_sum(const std::vector<ConvPass>&, const ConvSum&, const T*, const T*, const T*, T*)

ORNIK_INSTANTIATE_CONV_SUM(float);
ORNIK_INSTANTIATE_CONV_SUM(double);
ORNIK_INSTANTIATE_CONV_SUM(std::complex<float>);
ORNIK_INSTANTIATE_CONV_SUM(std::complex<double>);

}  // namespace ornik::device::cpu
