// conv_weight_sum.h: the gradient of a convolution's weight. Internal; for *_vector.cpp alone.
//
// An element's sum runs over the positions of all samples. A block of positions is one chain (conv_weight_blocks.h);
// the blocks of a chunk are added in order, then the chunks. One side's channels are staged side by side and fill the
// lanes, the other side's values are broadcast: the grid's channels with the image's channels for one tap after the
// other, or, where a side has few of them, with all (channel, tap) together, in either role.
#pragma once

#include <algorithm>
#include <array>
#include <vector>

#include "conv_lane_kernel.h"
#include "conv_order.h"
#include "conv_transpose.h"
#include "conv_weight_operands.h"

namespace ornik::device::cpu {
namespace {

template <typename T>
class WeightSum {
  public:
    WeightSum(const ConvPass& pass, const ConvGeometry& geometry, const T* image, const T* grid)
        : in_(pass, geometry, image, grid), channels_(places(geometry.grid_channels, pass.target_plane())) {
        choose_roles();
        unstaged_ = by_tap() && pass.is_pointwise();
        const std::int64_t panels = (lanes_ + panel - 1) / panel;
        const std::int64_t tasks = in_.blocks.chunks * geometry.groups * value_cuts();
        const std::int64_t wanted = (4 * usable_processors() + tasks - 1) / tasks;
        const std::int64_t cuts = std::min(panels, std::max(wanted, (panels * panel + most_lanes - 1) / most_lanes));
        cut_lanes_ = (panels + cuts - 1) / cuts * panel;
        for (std::int64_t e = 0; e < geometry.image_channels * in_.taps; ++e) {
            elements_.push_back(e / in_.taps * in_.plan.plane + in_.plan.taps[static_cast<std::size_t>(e % in_.taps)]);
        }
        planes_ = places(geometry.image_channels, unstaged_ ? pass.source_plane() : in_.plan.plane);
    }

    void run(T* weight) const {
        const Scratch<T> totals(in_.blocks.chunks * in_.geometry.groups * group_totals());
        const std::int64_t lane_cuts = (lanes_ + cut_lanes_ - 1) / cut_lanes_;
        const std::int64_t items = in_.blocks.chunks * in_.geometry.groups * lane_cuts * value_cuts();
        in_.run_items(items, group_totals() * in_.geometry.groups, [&](std::int64_t begin, std::int64_t end) {
            Buffers buffers(*this);
            for (std::int64_t item = begin; item < end; ++item) {
                const std::int64_t part = item / (lane_cuts * value_cuts());
                const std::int64_t lane = item / value_cuts() % lane_cuts * cut_lanes_;
                const std::int64_t value = item % value_cuts() * most_values;
                run_item(part / in_.geometry.groups, part % in_.geometry.groups,
                         {lane, std::min(lane + cut_lanes_, lanes_)},
                         {value, by_tap() ? std::min(value + most_values, values_) : values_}, buffers, totals.get());
            }
        });
        gather(totals.get(), weight);
    }

  private:
    enum class Roles { channels_by_tap, grid_by_elements, elements_by_grid };
    struct Range {
        std::int64_t begin;
        std::int64_t end;
        std::int64_t size() const { return end - begin; }
    };
    static constexpr std::int64_t panel = lane_vectors * lane_width<T>;
    static constexpr std::int64_t most_lanes = 128;   // of an item
    static constexpr std::int64_t most_values = 128;  // channels of an item, where they go tap by tap

    // The steps that find the image. The others add zeros, which only a sum of -0 shows (conv_edge_rows.h).
    struct TapSteps {
        std::vector<std::int64_t> offsets;
        LaneSteps steps;
    };
    // What a worker needs: the lanes' panels, what is broadcast, and the planes that either comes from.
    struct Buffers {
        explicit Buffers(const WeightSum& sum)
            : slots((sum.by_tap() ? std::min(sum.values_, most_values) : sum.in_.geometry.image_channels) *
                    sum.in_.plan.plane),
              lanes(sum.in_.blocks.positions() * sum.cut_lanes_),
              values(sum.in_.blocks.samples * sum.sample_values()) {}
        Scratch<T> slots;
        Scratch<T> lanes;
        Scratch<T> values;
        std::vector<std::int64_t> steps;
        std::vector<TapSteps> taps;  // where they go one by one, of the tile and samples below
        std::int64_t noted_tile = -1;
        std::int64_t noted_samples = 0;
    };

    // Vectors cycles of a position: chains of few sums wait for themselves.
    static double cost(std::int64_t lanes, std::int64_t values, std::int64_t repeats) {
        const std::int64_t pieces = (values + lane_positions - 1) / lane_positions;
        const double piece = static_cast<double>(values) / static_cast<double>(pieces);
        return static_cast<double>(round_up(lanes, panel) / panel * pieces * repeats) * std::max(4.5, piece);
    }

    void choose_roles() {
        const std::int64_t elements = in_.geometry.image_channels * in_.taps;
        const double turning = 0.5 * static_cast<double>(elements);
        const double costs[] = {cost(in_.geometry.grid_channels, in_.geometry.image_channels, in_.taps),
                                cost(in_.geometry.grid_channels, elements, 1) + turning,
                                cost(elements, in_.geometry.grid_channels, 1) + turning};
        roles_ = static_cast<Roles>(std::min_element(std::begin(costs), std::end(costs)) - std::begin(costs));
        lanes_ = roles_ == Roles::elements_by_grid ? elements : in_.geometry.grid_channels;
        values_ = roles_ == Roles::channels_by_tap    ? in_.geometry.image_channels
                  : roles_ == Roles::grid_by_elements ? elements
                                                      : in_.geometry.grid_channels;
    }

    bool by_tap() const { return roles_ == Roles::channels_by_tap; }
    std::int64_t value_cuts() const { return by_tap() ? (values_ + most_values - 1) / most_values : 1; }
    std::int64_t rows() const { return by_tap() ? values_ * in_.taps : values_; }  // of totals, in every panel
    std::int64_t group_totals() const { return round_up(lanes_, lane_width<T>) * rows(); }
    std::int64_t width_at(std::int64_t lane) const { return std::min(panel, round_up(lanes_, lane_width<T>) - lane); }
    // Of one position, or slot.
    std::int64_t value_pitch() const {
        return round_up(by_tap() ? std::min(values_, most_values) : values_, lane_width<T>);
    }
    std::int64_t sample_values() const {
        return (by_tap() ? in_.plan.plane : in_.plan.tile.rows * in_.plan.tile.cols) * value_pitch();
    }

    void run_item(std::int64_t chunk, std::int64_t group, Range lanes, Range values, Buffers& buffers,
                  T* totals) const {
        const Range units = {in_.blocks.first(chunk), in_.blocks.first(chunk + 1)};
        T* out = totals + (chunk * in_.geometry.groups + group) * group_totals();
        for (std::int64_t unit = units.begin; unit < units.end; ++unit) {
            const auto [tile, sample, samples] = in_.unit(unit);
            const std::int64_t steps = samples * tile.positions();
            buffers.steps.clear();
            for (std::int64_t s = 0; s < samples; ++s) {
                stage(tile, (sample + s) * in_.geometry.groups + group, s, steps, lanes, values, buffers);
            }
            if (by_tap() && (buffers.noted_tile != tile.index || buffers.noted_samples != samples)) {
                note_taps(tile, samples, buffers);
            }
            for (std::int64_t lane = lanes.begin; lane < lanes.end; lane += panel) {
                const std::int64_t width = width_at(lane);
                LaneChain<T> chain{buffers.values.get(),
                                   all_steps(buffers.steps.data(), steps),
                                   buffers.lanes.get() + (lane - lanes.begin) * steps,
                                   unit == units.begin,
                                   out + lane * rows(),
                                   width,
                                   lane_width<T>,
                                   buffers.lanes.get(),
                                   0};
                if (!by_tap()) {
                    run_lane_chains(chain, width, values.size());
                    continue;
                }
                const LaneSteps all = chain.steps;
                const bool leaves_out = std::any_of(buffers.taps.begin(), buffers.taps.end(),
                                                    [&](const TapSteps& tap) { return tap.steps.count < steps; }) &&
                                        are_finite(chain.weights, steps * width);
                chain.out += values.begin * in_.taps * width;
                chain.out_stride = in_.taps * width;
                T* const first = chain.out;
                for (std::size_t tap = 0; tap < in_.plan.taps.size(); ++tap) {
                    if (leaves_out) {
                        chain.steps = buffers.taps[tap].steps;
                        chain.all = chain.steps.count < steps ? &all : nullptr;
                    }
                    chain.slots = buffers.values.get() + in_.plan.taps[tap] * value_pitch();
                    chain.out = first + static_cast<std::int64_t>(tap) * width;
                    run_lane_chains(chain, width, values.size());
                }
            }
        }
    }

    // Of all taps. Runs of steps are of one length: rows of several samples are left out where whole ones are taken.
    void note_taps(const Tile& tile, std::int64_t samples, Buffers& buffers) const {
        const PassAxis& rows = in_.plan.pass.rows;
        const PassAxis& cols = in_.plan.pass.cols;
        buffers.taps.resize(in_.plan.taps.size());
        auto tap = buffers.taps.begin();
        for (const PassAxis::Tap& row_tap : rows.taps) {
            for (const PassAxis::Tap& col_tap : cols.taps) {
                const Range across = inside(cols, col_tap, {tile.col, tile.col + tile.cols});
                const bool whole = across.size() == tile.cols;
                const Range down = whole || samples == 1 ? inside(rows, row_tap, {tile.row, tile.row + tile.rows})
                                                         : Range{0, tile.rows};
                const std::int64_t unit = whole ? tile.positions() : tile.cols;
                const std::int64_t run = whole ? tile.cols * down.size() : across.size();
                const std::int64_t first = down.begin * tile.cols + across.begin;
                tap->offsets.clear();
                for (std::int64_t s = 0; s < samples; ++s) {
                    const auto from = buffers.steps.begin() + s * tile.positions() + first;
                    for (std::int64_t at = 0; at < tile.cols * down.size(); at += unit) {
                        tap->offsets.insert(tap->offsets.end(), from + at, from + at + run);
                    }
                }
                tap->steps = {tap->offsets.data(), static_cast<std::int64_t>(tap->offsets.size()), first, run,
                              unit - run};
                ++tap;
            }
        }
        buffers.noted_tile = tile.index;
        buffers.noted_samples = samples;
    }

    // The positions of a tile's range where a tap meets the image, from the first one of the tile on.
    static Range inside(const PassAxis& axis, const PassAxis::Tap& tap, Range tile) {
        Range result{0, tile.size()};
        while (result.size() > 0 && !axis.is_inside(tap, tile.begin + result.begin)) {
            ++result.begin;
        }
        while (result.size() > 0 && !axis.is_inside(tap, tile.begin + result.end - 1)) {
            --result.end;
        }
        return result;
    }

    // The values and lanes of one sample's positions in the block.
    void stage(const Tile& tile, std::int64_t part, std::int64_t s, std::int64_t steps, Range lanes, Range values,
               Buffers& buffers) const {
        const std::int64_t pitch = value_pitch();
        const T* gradients = in_.grid_at(tile, part * in_.geometry.grid_channels);
        T* sample = buffers.values.get() + s * sample_values();
        const Range channels = by_tap() ? values : Range{0, in_.geometry.image_channels};
        const T* image =
            in_.image + (part * in_.geometry.image_channels + channels.begin) * in_.plan.pass.source_plane();
        if (!unstaged_) {
            stage_planes(in_.plan, tile, image, channels.size(), buffers.slots.get());
        }
        if (by_tap()) {
            const std::int64_t place = tile.row * in_.plan.pass.cols.positions + tile.col;
            turn_rows(unstaged_ ? image + place : buffers.slots.get(), planes_.data(), channels.size(),
                      round_up(channels.size(), lane_width<T>), unstaged_ ? tile.positions() : in_.plan.plane, sample,
                      pitch);
        } else if (roles_ == Roles::elements_by_grid) {
            turn_rows(gradients, channels_.data(), values_, pitch, tile.positions(), sample, pitch);
        } else {
            turn_tile(tile, elements_.data(), values_, buffers.slots.get(), sample, pitch);
        }
        for (std::int64_t lane = lanes.begin; lane < lanes.end; lane += panel) {
            const std::int64_t width = width_at(lane);
            const std::int64_t count = std::min(width, lanes_ - lane);
            T* to = buffers.lanes.get() + (lane - lanes.begin) * steps + s * tile.positions() * width;
            if (roles_ == Roles::elements_by_grid) {
                turn_tile(tile, elements_.data() + lane, count, buffers.slots.get(), to, width);
            } else {
                turn_rows(gradients, channels_.data() + lane, count, width, tile.positions(), to, width);
            }
        }
        const std::int64_t first = s * sample_values();
        for (std::int64_t r = 0; r < tile.rows; ++r) {
            for (std::int64_t x = 0; x < tile.cols; ++x) {
                buffers.steps.push_back(first + (by_tap() ? r * in_.plan.slot_row + x : r * tile.cols + x) * pitch);
            }
        }
    }

    // The tile's positions one after the other, `count` elements of each side by side.
    void turn_tile(const Tile& tile, const std::int64_t* elements, std::int64_t count, const T* slots, T* to,
                   std::int64_t pitch) const {
        for (std::int64_t r = 0; r < tile.rows; ++r) {
            turn_rows(slots + r * in_.plan.slot_row, elements, count, pitch, tile.cols, to + r * tile.cols * pitch,
                      pitch);
        }
    }

    // Adds up the chunks of a panel's row and writes it to its places in the weight. Rows of totals are elements, their
    // lanes grid channels, or the other way round.
    void gather(T* totals, T* weight) const {
        const std::int64_t panels = (lanes_ + panel - 1) / panel;
        const std::int64_t grain = std::max<std::int64_t>(2, conv_grain / (rows() * panel));
        parallel_for(in_.geometry.groups * panels, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t item = begin; item < end; ++item) {
                const std::int64_t lane = item % panels * panel;
                const std::int64_t width = width_at(lane);
                T* total = totals + item / panels * group_totals() + lane * rows();
                for (std::int64_t chunk = 1; chunk < in_.blocks.chunks; ++chunk) {
                    const T* added = total + chunk * in_.geometry.groups * group_totals();
                    for (std::int64_t i = 0; i < rows() * width; ++i) {
                        total[i] += added[i];
                    }
                }
                write_panel(total, width, item / panels, lane, weight);
            }
        });
    }

    void write_panel(const T* total, std::int64_t width, std::int64_t group, std::int64_t lane, T* weight) const {
        const std::int64_t count = std::min(width, lanes_ - lane);
        if (roles_ == Roles::elements_by_grid) {
            for (std::int64_t o = 0; o < rows(); ++o) {
                for (std::int64_t i = 0; i < count; ++i) {
                    weight[place(group, o, lane + i)] = total[o * width + i];
                }
            }
        } else if (in_.geometry.image_first) {
            for (std::int64_t e = 0; e < rows(); ++e) {
                for (std::int64_t i = 0; i < count; ++i) {
                    weight[place(group, lane + i, e)] = total[e * width + i];
                }
            }
        } else {
            for (std::int64_t i = 0; i < count; i += lane_width<T>) {
                turn_columns(total + i, width, rows(), std::min<std::int64_t>(lane_width<T>, count - i),
                             weight + place(group, lane + i, 0), rows(),
                             [](const auto& v, std::int64_t, std::int64_t) { return v; });
            }
        }
    }

    std::int64_t place(std::int64_t group, std::int64_t o, std::int64_t e) const {
        const std::int64_t c = e / in_.taps;
        const std::int64_t pair =
            in_.geometry.image_first ? c * in_.geometry.grid_channels + o : o * in_.geometry.image_channels + c;
        return (group * in_.geometry.image_channels * in_.geometry.grid_channels + pair) * in_.taps + e % in_.taps;
    }

    WeightOperands<T> in_;
    Roles roles_;
    std::int64_t lanes_;   // of a group
    std::int64_t values_;  // of a group that are broadcast, per tap where these go one by one
    std::int64_t cut_lanes_;
    bool unstaged_;                       // The image is read where it is.
    std::vector<std::int64_t> elements_;  // slot of (channel, tap)
    std::vector<std::int64_t> channels_;  // place of a grid channel's plane
    std::vector<std::int64_t> planes_;    // slot of an image channel's plane
};

}  // namespace
}  // namespace ornik::device::cpu
