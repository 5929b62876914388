// streamed_loop.h: outputs that no cache can hold are written past the caches. Internal.
//
// A store to memory that is in no cache first reads what it overwrites: for a sum of two large tensors that is one
// transfer of four. Here the inner loop computes pieces in a small buffer near the processor, and the buffer is
// copied out without the read. Inputs that are overwritten in place have been read anyway, and stay as they are; so do
// the outputs of loops with much to compute, whose stores the processor hides behind the work.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "iteration_plan.h"

namespace ornik {

/// An inner loop with some outputs streamed.
class StreamedLoop {
  public:
    explicit StreamedLoop(const BoundLoop& loop) : loop_(loop) {}

    /// Operand number `operand`, an output of `numel` elements that lie side by side along rows of `row` elements;
    /// it is streamed if it is large enough, `in_place` is false and the loop is light.
    void add_output(std::size_t operand, std::int64_t item_size, std::int64_t numel, std::int64_t row, bool in_place);

    /// As the inner loop. What it wrote is visible to other threads after finish().
    void run(char* const* data, std::size_t operands, const std::int64_t* stride0, const std::int64_t* stride1,
             std::int64_t n0, std::int64_t n1) const;
    void finish() const;

  private:
    static constexpr std::size_t most_outputs = 4;
    struct Output {
        std::size_t operand;
        std::int64_t item_size;
    };

    BoundLoop loop_;
    std::int64_t piece_ = 0;  // elements
    std::size_t output_count_ = 0;
    std::array<Output, most_outputs> outputs_{};
};

}  // namespace ornik
