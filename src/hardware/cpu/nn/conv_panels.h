// conv_panels.h: writes staged slots into the panels of the left operand of a packed product.
//
// A panel takes its rows from a few contiguous stretches of slots. They are copied in pieces: the excess of one
// piece is overwritten by the next one, so every stretch costs whole vector moves only.
#pragma once

#include <vector>

#include "conv_stage.h"
#include "hardware/cpu/cpu_panels.h"

namespace ornik::device::cpu {

/// Where the rows of one panel come from, in pieces of elements of T.
template <typename T>
class PanelPieces {
  public:
    void clear() { pieces_.clear(); }

    /// Rows [row, row + count) of the panel from `slot` on.
    void add(std::int64_t row, std::int64_t slot, std::int64_t count) {
        for (std::int64_t i = 0; i < count; i += piece<T>) {
            pieces_.push_back({row + i, slot + i});
        }
    }

    /// One step of depth of the panel, at `to`.
    void copy(const T* slots, T* to) const {
        for (const Piece& p : pieces_) {
            copy_piece(slots + p.slot, to + p.row);
        }
    }

    /// A step for every (channel, tap), panels of `width` rows; returns the end.
    T* copy_all(const T* slots, std::int64_t channel_slots, std::int64_t channels,
                const std::vector<std::int64_t>& taps, std::int64_t width, T* to) const {
        switch (pieces_.size()) {
            case 1:
                return copy_fixed<1>(slots, channel_slots, channels, taps, width, to);
            case 2:
                return copy_fixed<2>(slots, channel_slots, channels, taps, width, to);
            case 3:
                return copy_fixed<3>(slots, channel_slots, channels, taps, width, to);
            case 4:
                return copy_fixed<4>(slots, channel_slots, channels, taps, width, to);
            default:
                break;
        }
        for (std::int64_t c = 0; c < channels; ++c) {
            for (const std::int64_t tap : taps) {
                copy(slots + c * channel_slots + tap, to);
                to += width;
            }
        }
        return to;
    }

  private:
    struct Piece {
        std::int64_t row;
        std::int64_t slot;
    };

    template <std::size_t Count>
    T* copy_fixed(const T* slots, std::int64_t channel_slots, std::int64_t channels,
                  const std::vector<std::int64_t>& taps, std::int64_t width, T* to) const {
        Piece local[Count];
        std::copy_n(pieces_.begin(), Count, local);
        for (std::int64_t c = 0; c < channels; ++c) {
            for (const std::int64_t tap : taps) {
                const T* from = slots + c * channel_slots + tap;
                for (std::size_t i = 0; i < Count; ++i) {
                    copy_piece(from + local[i].slot, to + local[i].row);
                }
                to += width;
            }
        }
        return to;
    }

    std::vector<Piece> pieces_;
};

}  // namespace ornik::device::cpu
