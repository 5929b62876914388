// conv_block_depth.h: sums over taps alone, of blocked images (cpu_blocks.h) whose channels stay apart. Internal; for
// *_vector.cpp alone.
//
// A vector holds the channels of one position. Nothing is staged: where a row of the source ends, or there is none, a
// row of zeros is read.
#pragma once

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "block_rows.h"
#include "conv_ends.h"
#include "conv_pass.h"
#include "hardware/cpu/vector_chain.h"
#include "hardware/parallel.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {
namespace {

/// For positions q, side by side, sum over rows i and columns j, in order, of
///     weights[i * cols + j] * rows[i][q * step + offsets[j]]
/// where all but `rows` counts vectors, which lie in the rows `along` elements apart; ended and stored. Of the values
/// that neighbouring columns meet, the first `lead` and the last `trail` lie beyond the edge.
template <typename T>
struct DepthChain {
    const T* const* rows;
    std::int64_t row_count;
    const std::int64_t* offsets;
    std::int64_t col_count;
    std::int64_t step;
    std::int64_t first;  // added to all offsets
    std::int64_t along;
    std::int64_t lead;
    std::int64_t trail;
    const T* weights;
    T* out;
    std::int64_t out_step;  // elements from one position to the next
    LaneEnds<T> ends;
};

constexpr int depth_positions = 6;  // that go together

/// Cols > 0: so many neighbouring columns, a step apart for neighbouring positions, with less than Cols values beyond
/// an edge; 0: any, all inside.
template <typename T, int Cols, int Step, int Positions>
[[gnu::noinline]] void depth_chain(const DepthChain<T>& in) {
    using V = vec::Vector<T>;
    constexpr int width = vec::lanes<T>;
    vec::run_chains<T>([&](auto steps) ORNIK_EXPANDED {
        using Steps = decltype(steps);
        typename Steps::Sum sums[1][Positions];
        ORNIK_UNROLLED
        for (int q = 0; q < Positions; ++q) {
            sums[0][q] = steps.from(V{});
        }
        const T* weights = in.weights;
        const std::int64_t along = in.along;
        [[maybe_unused]] const std::int64_t lead = in.lead;
        [[maybe_unused]] const std::int64_t trail = in.trail;
        for (std::int64_t i = 0; i < in.row_count; ++i) {
            if constexpr (Cols > 0) {
                constexpr int count = (Positions - 1) * Step + Cols;
                const T* at = in.rows[i] + (in.first + in.offsets[0]) * along;
                typename Steps::Factor weight[Cols];
                ORNIK_UNROLLED
                for (int j = 0; j < Cols; ++j) {
                    weight[j] = steps.weight(vec::load<V>(weights + j * width));
                }
                weights += Cols * width;
                // Every value is read once; each position meets its columns in order.
                ORNIK_UNROLLED
                for (int k = 0; k < count; ++k, at += along) {
                    const bool outside = (k < Cols - 1 && k < lead) || (count - k < Cols && count - k <= trail);
                    const auto value = steps.factor(outside ? V{} : vec::load<V>(at));
                    ORNIK_UNROLLED
                    for (int j = 0; j < Cols; ++j) {
                        const int q = (k - j) / Step;
                        if (k >= j && (k - j) % Step == 0 && q < Positions) {
                            steps.add(weight[j], value, sums[0][q]);
                        }
                    }
                }
            } else {
                for (std::int64_t j = 0; j < in.col_count; ++j, weights += width) {
                    const T* const row = in.rows[i] + (in.first + in.offsets[j]) * along;
                    const auto weight = steps.weight(vec::load<V>(weights));
                    ORNIK_UNROLLED
                    for (int q = 0; q < Positions; ++q) {
                        steps.add(weight, steps.factor(vec::load<V>(row + q * in.step * along)), sums[0][q]);
                    }
                }
            }
        }
        if (!steps.vouches_for(sums)) {
            return false;
        }
        V totals[1][Positions];
        ORNIK_UNROLLED
        for (int q = 0; q < Positions; ++q) {
            totals[0][q] = steps.value(sums[0][q]);
        }
        end_lanes(in.ends, totals, 0, in.out_step);
        ORNIK_UNROLLED
        for (int q = 0; q < Positions; ++q) {
            vec::store(totals[0][q], in.out + q * in.out_step);
        }
        return true;
    });
}

template <typename T>
using DepthChainFunction = void (*)(const DepthChain<T>&);
template <typename T>
using DepthChains = std::array<DepthChainFunction<T>, depth_positions>;

template <typename T, int Cols, int Step, int... Position>
constexpr DepthChains<T> depth_chains_of(std::integer_sequence<int, Position...> /*positions*/) {
    return {&depth_chain<T, Cols, Step, Position + 1>...};
}

/// Those for a number of columns that are `dilation` apart.
template <typename T>
const DepthChains<T>& depth_chains(std::int64_t cols, std::int64_t dilation, std::int64_t step) {
    constexpr auto positions = std::make_integer_sequence<int, depth_positions>();
    static constexpr auto any = depth_chains_of<T, 0, 0>(positions);
    if constexpr (vec::has_forms) {
        static constexpr auto three = depth_chains_of<T, 3, 1>(positions);
        static constexpr auto three_apart = depth_chains_of<T, 3, 2>(positions);
        static constexpr auto five = depth_chains_of<T, 5, 1>(positions);
        static constexpr auto five_apart = depth_chains_of<T, 5, 2>(positions);
        if (dilation == 1 && step <= 2 && cols == 3) {
            return step == 1 ? three : three_apart;
        }
        if (dilation == 1 && step <= 2 && cols == 5) {
            return step == 1 ? five : five_apart;
        }
    }
    return any;
}

template <typename T>
class BlockDepth {
  public:
    /// weights[(group of lanes * taps + tap) * lanes]; a bias fills whole vectors.
    BlockDepth(const ConvPass& pass, std::int64_t batch, std::int64_t groups, const T* source, const T* weights,
               const ConvEnds<T>& ends, T* target)
        : pass_(pass),
          groups_(groups),
          rows_(batch, groups, pass.rows.positions, pass.cols.positions),
          source_(source),
          weights_(weights),
          ends_(ends),
          target_(target) {
        for (const PassAxis::Tap& tap : pass.cols.taps) {
            offsets_.push_back(tap.offset);
        }
        const auto cols = static_cast<std::int64_t>(offsets_.size());
        const std::int64_t step = pass.cols.step;
        const std::int64_t dilation = cols > 1 ? offsets_[1] - offsets_[0] : 1;
        chains_ = &depth_chains<T>(cols, dilation, step);
        const bool meets_edges = chains_ != &depth_chains<T>(0, 0, 0) && -offsets_.front() < cols &&
                                 (pass.cols.positions - 1) * step + offsets_.back() - pass.cols.source + 1 < cols;
        inside_ = 0;
        outside_ = pass.cols.positions;
        if (!meets_edges) {
            const std::int64_t reach = pass.cols.source - 1 - offsets_.back();
            inside_ = std::min(outside_, offsets_.front() >= 0 ? 0 : (-offsets_.front() + step - 1) / step);
            outside_ = std::max(inside_, reach < 0 ? 0 : std::min(outside_, reach / step + 1));
        }
        std::int64_t x = inside_;
        for (std::int64_t count = (outside_ - x + depth_positions - 1) / depth_positions; count > 0; --count) {
            const std::int64_t positions = (outside_ - x + count - 1) / count;
            const std::int64_t last = (x + positions - 1) * step + offsets_.back();
            pieces_.push_back({positions, x * step, std::max<std::int64_t>(0, -(x * step + offsets_.front())),
                               std::max<std::int64_t>(0, last - pass.cols.source + 1)});
            x += positions;
        }
    }

    void run() const {
        const Scratch<T> zeros(pass_.cols.source * width);
        std::fill_n(zeros.get(), pass_.cols.source * width, T(0));
        const std::int64_t work = pass_.cols.positions * pass_.taps() * width;
        parallel_for(rows_.count(), 1, std::max<std::int64_t>(2, conv_grain / work),
                     [&](std::int64_t begin, std::int64_t end) {
                         std::vector<const T*> near(pass_.rows.taps.size());
                         std::vector<const T*> taps(static_cast<std::size_t>(pass_.taps()));
                         rows_.visit(begin, end, [&](std::int64_t image, std::int64_t y, std::int64_t last) {
                             for (; y < last; ++y) {
                                 run_row(image, y, zeros.get(), near, taps);
                             }
                         });
                     });
    }

  private:
    static constexpr std::int64_t width = vec::lanes<T>;

    struct Piece {
        std::int64_t positions;
        std::int64_t first;  // of the source
        std::int64_t lead;
        std::int64_t trail;
    };

    void run_row(std::int64_t image, std::int64_t y, const T* zeros, std::vector<const T*>& near,
                 std::vector<const T*>& taps) const {
        const T* plane = source_ + image * pass_.source_plane() * width;
        for (std::size_t i = 0; i < near.size(); ++i) {
            const std::int64_t at = y * pass_.rows.step + pass_.rows.taps[i].offset;
            near[i] = at < 0 || at >= pass_.rows.source ? zeros : plane + at * pass_.cols.source * width;
        }
        const std::int64_t group = image % groups_;
        const std::int64_t place = (image * pass_.rows.positions + y) * pass_.cols.positions * width;
        DepthChain<T> chain{near.data(),
                            static_cast<std::int64_t>(near.size()),
                            offsets_.data(),
                            static_cast<std::int64_t>(offsets_.size()),
                            pass_.cols.step,
                            0,
                            width,
                            0,
                            0,
                            weights_ + group * pass_.taps() * width,
                            target_ + place,
                            width,
                            {ends_.bias == nullptr ? nullptr : ends_.bias + group * width,
                             ends_.residual == nullptr ? nullptr : ends_.residual + place, ends_.clip}};
        for (std::int64_t x = 0; x < inside_; ++x) {
            run_edge(chain, x, zeros, taps);
        }
        for (const Piece& piece : pieces_) {
            chain.first = piece.first;
            chain.lead = piece.lead;
            chain.trail = piece.trail;
            (*chains_)[static_cast<std::size_t>(piece.positions - 1)](chain);
            pass(chain, piece.positions);
        }
        for (std::int64_t x = outside_; x < pass_.cols.positions; ++x) {
            run_edge(chain, x, zeros, taps);
        }
        if (ends_.row != nullptr && ends_.clip == ConvClip::none) {
            ends_.row(target_ + place, pass_.cols.positions * width);
        }
    }

    static void pass(DepthChain<T>& chain, std::int64_t positions) {
        chain.out += positions * width;
        if (chain.ends.residual != nullptr) {
            chain.ends.residual += positions * width;
        }
    }

    // A position some of whose columns are not there: every tap is a row of its own.
    void run_edge(DepthChain<T>& chain, std::int64_t x, const T* zeros, std::vector<const T*>& taps) const {
        static constexpr std::int64_t none = 0;
        const auto cols = static_cast<std::int64_t>(offsets_.size());
        const auto rows = static_cast<std::int64_t>(pass_.rows.taps.size());
        for (std::int64_t j = 0; j < cols; ++j) {
            const std::int64_t at = x * pass_.cols.step + offsets_[static_cast<std::size_t>(j)];
            const bool outside = at < 0 || at >= pass_.cols.source;
            for (std::int64_t i = 0; i < rows; ++i) {
                taps[static_cast<std::size_t>(i * cols + j)] = outside ? zeros : chain.rows[i] + at * width;
            }
        }
        DepthChain<T> edge = chain;
        edge.rows = taps.data();
        edge.row_count = pass_.taps();
        edge.offsets = &none;
        edge.col_count = 1;
        edge.first = 0;
        depth_chain<T, 0, 0, 1>(edge);
        pass(chain, 1);
    }

    const ConvPass& pass_;
    std::int64_t groups_;  // of channels: each has images of a vector
    BlockRows rows_;
    const T* source_;
    const T* weights_;
    ConvEnds<T> ends_;
    T* target_;
    std::vector<std::int64_t> offsets_;  // per column of the kernel
    std::int64_t inside_;                // the positions that chains of several serve
    std::int64_t outside_;               // behind them
    std::vector<Piece> pieces_;          // from the one to the other
    const DepthChains<T>* chains_;
};

}  // namespace
}  // namespace ornik::device::cpu
