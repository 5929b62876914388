// conv_panels.h: writes staged slots into the panels of the left operand of a packed product.
//
// A panel takes its rows from a few contiguous stretches of slots. They are copied in pieces: the excess of one
// piece is overwritten by the next one, so every stretch costs whole vector moves only.
#pragma once

#include <algorithm>
#include <utility>
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

    /// Steps of depth for every (channel, tap), panels of `width` rows; returns the end.
    T* copy_taps(const T* slots, std::int64_t channel_slots, std::int64_t channels,
                 const std::vector<std::int64_t>& taps, std::int64_t width, T* to) const {
        const auto copy = [&](const auto panel) {  // By value: its places may stay in registers.
            for (std::int64_t c = 0; c < channels; ++c) {
                for (const std::int64_t tap : taps) {
                    panel(slots + c * channel_slots + tap, to);
                    to += width;
                }
            }
        };
        with_pieces(copy);
        return to;
    }

    /// `count` steps of depth, taken `step` slots apart.
    T* copy_steps(const T* slots, std::int64_t step, std::int64_t count, std::int64_t width, T* to) const {
        const auto copy = [&](const auto panel) {  // By value: its places may stay in registers.
            for (std::int64_t i = 0; i < count; ++i) {
                panel(slots + i * step, to);
                to += width;
            }
        };
        with_pieces(copy);
        return to;
    }

  private:
    struct Piece {
        std::int64_t row;
        std::int64_t slot;
    };

    // Calls use(copy of one step), with the number of pieces known to the compiler where there are few.
    template <typename Use>
    void with_pieces(const Use& use) const {
        switch (pieces_.size()) {
            case 1:
                return use(FewPieces<1>(pieces_));
            case 2:
                return use(FewPieces<2>(pieces_));
            case 3:
                return use(FewPieces<3>(pieces_));
            case 4:
                return use(FewPieces<4>(pieces_));
            case 5:
                return use(FewPieces<5>(pieces_));
            case 8:
                return use(FewPieces<8>(pieces_));
            default:
                break;
        }
        use([&](const T* slots, T* to) {
            for (const Piece& p : pieces_) {
                copy_piece(slots + p.slot, to + p.row);
            }
        });
    }

    template <std::size_t Count>
    struct FewPieces {
        explicit FewPieces(const std::vector<Piece>& all) { std::copy_n(all.begin(), Count, pieces); }
        void operator()(const T* slots, T* to) const {
            [&]<std::size_t... I>(std::index_sequence<I...>) {
                (copy_piece(slots + pieces[I].slot, to + pieces[I].row), ...);
            }
            (std::make_index_sequence<Count>{});
        }
        Piece pieces[Count];
    };

    std::vector<Piece> pieces_;
};

}  // namespace ornik::device::cpu
