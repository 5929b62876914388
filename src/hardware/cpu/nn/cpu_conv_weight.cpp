// cpu_conv_weight.cpp: the gradient of a convolution's weight.
//
// Sums over all positions of all samples, one for every pair of a grid channel and an image element (channel, tap).
// One side's channels are staged side by side, and go through the sums as packets; the other side's elements are
// the weights of the sums, read plane by plane. The side that fills packets better gives them. The sum over positions
// is cut into a number of chunks that depends on the sizes alone; chunks are summed in order.
#include <algorithm>
#include <vector>

#include "conv_parts.h"
#include "conv_stage.h"
#include "hardware/cpu/product/cpu_taps.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t block_elements = 288;                 // (channel, tap) of the image, in one block
constexpr std::int64_t most_positions = 256;                 // of a tile
constexpr std::int64_t steps_together = 128;                 // positions whose packets stay in the nearest cache
constexpr std::int64_t enough_items = 16;                    // chunks are made for so many
constexpr std::int64_t chunk_bytes = std::int64_t{4} << 20;  // of the sums of all chunks

std::int64_t divide_up(std::int64_t n, std::int64_t by) { return (n + by - 1) / by; }

// The channels of one side, side by side, in whole packets.
template <typename T>
std::int64_t lanes_of(std::int64_t channels) {
    const std::int64_t packet = tap_packet<Real<T>>() / parts<T>;
    return divide_up(channels, packet) * packet;
}

template <typename T>
class SlotWeight {
  public:
    SlotWeight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid)
        : geometry_(geometry),
          image_(image),
          grid_(grid),
          plan_(pass, choose_tile(pass, most_positions, 1), SlotLayout::shared),
          taps_(pass.taps()),
          blocks_(divide_up(geometry.image_channels, std::max<std::int64_t>(1, block_elements / taps_))),
          block_channels_(divide_up(geometry.image_channels, blocks_)),
          image_lanes_(lanes_of<T>(block_channels_) * geometry.grid_channels <=
                       lanes_of<T>(geometry.grid_channels) * block_channels_) {
        lanes_ = lanes_of<T>(image_lanes_ ? block_channels_ : geometry.grid_channels);
        row_ = image_lanes_ ? taps_ * lanes_ : lanes_;
        item_sums_ = (image_lanes_ ? geometry.grid_channels : block_channels_ * taps_) * parts<T> * row_;
        const std::int64_t items = geometry.groups * blocks_;
        const std::int64_t room = chunk_bytes / static_cast<std::int64_t>(sizeof(T)) / (items * item_sums_);
        chunks_ = std::min({divide_up(enough_items, items), room, geometry.batch * plan_.tiles()});
        chunks_ = std::max<std::int64_t>(1, chunks_);
        list_offsets();
    }

    void run(bool conjugate_grid, T* weight) const {
        const std::int64_t items = chunks_ * geometry_.groups * blocks_;
        const Scratch<T> sums(items * item_sums_);
        const std::int64_t positions = plan_.tile.rows * plan_.tile.cols;
        const std::int64_t units = divide_up(geometry_.batch * plan_.tiles(), chunks_);
        const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / (units * positions * item_sums_));
        parallel_for(items, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            const std::int64_t slot_count = plan_.plane * (image_lanes_ ? lanes_ : block_channels_);
            const Scratch<T> slots(slot_count);
            std::fill_n(slots.get(), slot_count, T(0));  // Lanes without a channel hold numbers, too.
            const Scratch<T> gradients(image_lanes_ ? 0 : positions * lanes_);
            for (std::int64_t item = begin; item < end; ++item) {
                run_item(item, slots.get(), gradients.get(), sums.get() + item * item_sums_);
            }
        });
        gather(sums.get(), conjugate_grid, weight);
    }

  private:
    // Where positions, packets and targets of one block lie, in real numbers.
    void list_offsets() {
        for (std::int64_t r = 0; r < plan_.tile.rows; ++r) {
            for (std::int64_t x = 0; x < plan_.tile.cols; ++x) {
                image_steps_.push_back((r * plan_.slot_row + x) * (image_lanes_ ? lanes_ : 1) * parts<T>);
                grid_steps_.push_back((r * plan_.tile.cols + x) * (image_lanes_ ? 1 : lanes_) * parts<T>);
            }
        }
        const std::int64_t packet = tap_packet<Real<T>>();
        for (std::int64_t t = 0; t < (image_lanes_ ? taps_ : 1); ++t) {
            const std::int64_t slot = image_lanes_ ? plan_.taps[static_cast<std::size_t>(t)] * lanes_ * parts<T> : 0;
            for (std::int64_t lane = 0; lane < lanes_ * parts<T>; lane += packet) {
                packets_.push_back({slot + lane, t * lanes_ * parts<T> + lane, packet});
            }
        }
        const auto add_target = [&](std::int64_t element) {
            for (std::int64_t part = 0; part < parts<T>; ++part) {
                targets_.push_back(element * parts<T> + part);
            }
        };
        for (std::int64_t o = 0; image_lanes_ && o < geometry_.grid_channels; ++o) {
            add_target(o * plan_.pass.target_plane());
        }
        for (std::int64_t c = 0; !image_lanes_ && c < block_channels_; ++c) {
            for (const std::int64_t tap : plan_.taps) {
                add_target(c * plan_.plane + tap);
            }
        }
    }

    void run_item(std::int64_t item, T* slots, T* gradients, T* sums) const {
        const std::int64_t first = item % blocks_ * block_channels_;
        const std::int64_t group = item / blocks_ % geometry_.groups;
        const std::int64_t chunk = item / blocks_ / geometry_.groups;
        const std::int64_t channels = std::min(block_channels_, geometry_.image_channels - first);
        const std::int64_t grid_plane = plan_.pass.target_plane();
        const std::int64_t units = geometry_.batch * plan_.tiles();
        std::fill_n(sums, item_sums_, T(0));
        for (std::int64_t unit = chunk * units / chunks_; unit < (chunk + 1) * units / chunks_; ++unit) {
            const Tile tile(plan_, unit % plan_.tiles());
            const std::int64_t part = unit / plan_.tiles() * geometry_.groups + group;
            const T* planes = image_ + (part * geometry_.image_channels + first) * plan_.pass.source_plane();
            const T* values =
                grid_ + part * geometry_.grid_channels * grid_plane + tile.row * plan_.pass.cols.positions + tile.col;
            TapSums<Real<T>> in{};
            if (image_lanes_) {
                stage_channels_last(plan_, tile, planes, channels, lanes_, slots);
                conjugate(slots, plan_.plane * lanes_);
                in.slots = as_real(slots);
                in.weights = as_real(values);
                in.targets = geometry_.grid_channels * parts<T>;
            } else {
                stage_planes(plan_, tile, planes, channels, slots);
                conjugate(slots, plan_.plane * channels);
                channels_last(values, grid_plane, 1, geometry_.grid_channels, tile.positions(), lanes_, gradients);
                in.slots = as_real(gradients);
                in.weights = as_real(slots);
                in.targets = channels * taps_ * parts<T>;
            }
            in.target_weights = targets_.data();
            in.packets = packets_.data();
            in.packet_count = static_cast<std::int64_t>(packets_.size());
            in.out = as_real(sums);
            in.out_stride = row_ * parts<T>;
            for (std::int64_t step = 0; step < tile.positions(); step += steps_together) {
                in.step_slots = (image_lanes_ ? image_steps_ : grid_steps_).data() + step;
                in.step_weights = (image_lanes_ ? grid_steps_ : image_steps_).data() + step;
                in.steps = std::min(steps_together, tile.positions() - step);
                tap_sums(in);
            }
        }
        if constexpr (parts<T> == 2) {
            for (std::int64_t row = 0; row < item_sums_; row += 2 * row_) {
                join_parts(sums + row, row_, row_);
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
        const std::int64_t in_block = c % block_channels_;
        const std::int64_t chunk_stride = geometry_.groups * blocks_ * item_sums_;
        const T* first = sums + (group * blocks_ + c / block_channels_) * item_sums_ +
                         (image_lanes_ ? o * parts<T> * row_ + in_block : in_block * taps_ * parts<T> * row_ + o);
        const std::int64_t tap_stride = image_lanes_ ? lanes_ : parts<T> * row_;
        const std::int64_t pair =
            geometry_.image_first ? c * geometry_.grid_channels + o : o * geometry_.image_channels + c;
        T* kernel = weight + (group * geometry_.image_channels * geometry_.grid_channels + pair) * taps_;
        for (std::int64_t t = 0; t < taps_; ++t) {
            T sum = first[t * tap_stride];
            for (std::int64_t chunk = 1; chunk < chunks_; ++chunk) {
                sum += first[chunk * chunk_stride + t * tap_stride];
            }
            kernel[plan_.kernels[static_cast<std::size_t>(t)]] = sum;
        }
        if (conjugate_grid) {
            conjugate(kernel, taps_);
        }
    }

    const ConvGeometry& geometry_;
    const T* image_;
    const T* grid_;
    StagePlan plan_;
    std::int64_t taps_;
    std::int64_t blocks_;
    std::int64_t block_channels_;
    bool image_lanes_;        // the image's channels are the packets, or the grid's
    std::int64_t lanes_ = 0;  // of one position
    std::int64_t row_ = 0;    // sums of one target
    std::int64_t item_sums_ = 0;
    std::int64_t chunks_ = 0;
    std::vector<std::int64_t> image_steps_;  // per position of a tile
    std::vector<std::int64_t> grid_steps_;
    std::vector<TapPacket> packets_;
    std::vector<std::int64_t> targets_;
};

}  // namespace

template <typename T>
void run_conv_weight(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid,
                     bool conjugate_grid, T* weight) {
    if (geometry.image_channels == 1 && geometry.grid_channels == 1) {
        run_direct_weight(pass, geometry, image, grid, conjugate_grid, weight);
    } else {
        const ConvPass rows = pass.is_pointwise() ? pass.as_one_row() : pass;
        SlotWeight<T>(rows, geometry, image, grid).run(conjugate_grid, weight);
    }
}

#define ORNIK_INSTANTIATE_CONV_WEIGHT(T) \
    template void run_conv_weight(const ConvPass&, const ConvGeometry&, const T*, const T*, bool, T*)

ORNIK_INSTANTIATE_CONV_WEIGHT(float);
ORNIK_INSTANTIATE_CONV_WEIGHT(double);
ORNIK_INSTANTIATE_CONV_WEIGHT(std::complex<float>);
ORNIK_INSTANTIATE_CONV_WEIGHT(std::complex<double>);

}  // namespace ornik::device::cpu
