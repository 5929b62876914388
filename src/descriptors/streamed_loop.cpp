#include "descriptors/streamed_loop.h"

#include <algorithm>

#include "hardware/block_copy.h"

namespace ornik {

namespace {

constexpr std::int64_t buffer_bytes = 8192;  // of one output
constexpr std::int64_t least_row_bytes = 1024;

}  // namespace

void StreamedLoop::add_output(std::size_t operand, std::int64_t item_size, std::int64_t numel, std::int64_t row,
                              bool in_place) {
    if (!loop_.is_light || in_place || output_count_ == most_outputs ||
        numel * item_size < device::cpu::streaming_bytes || row * item_size < least_row_bytes) {
        return;
    }
    outputs_[output_count_++] = {operand, item_size};
    const std::int64_t fitting = buffer_bytes / item_size;
    piece_ = piece_ == 0 ? fitting : std::min(piece_, fitting);
}

void StreamedLoop::run(char* const* data, std::size_t operands, const std::int64_t* stride0,
                       const std::int64_t* stride1, std::int64_t n0, std::int64_t n1) const {
    if (output_count_ == 0) {
        loop_(data, stride0, stride1, n0, n1);
        return;
    }
    alignas(64) char buffers[most_outputs][buffer_bytes];
    std::array<char*, max_operands> pointers;
    for (std::int64_t j = 0; j < n1; ++j) {
        for (std::int64_t begin = 0; begin < n0; begin += piece_) {
            const std::int64_t count = std::min(piece_, n0 - begin);
            for (std::size_t i = 0; i < operands; ++i) {
                pointers[i] = data[i] + j * stride1[i] + begin * stride0[i];
            }
            char* places[most_outputs];
            for (std::size_t k = 0; k < output_count_; ++k) {
                places[k] = pointers[outputs_[k].operand];
                pointers[outputs_[k].operand] = buffers[k];
            }
            loop_(pointers.data(), stride0, stride1, count, 1);
            for (std::size_t k = 0; k < output_count_; ++k) {
                device::cpu::stream_block(places[k], buffers[k], count * outputs_[k].item_size);
            }
        }
    }
}

void StreamedLoop::finish() const {
    if (output_count_ > 0) {
        device::cpu::finish_streams();
    }
}

}  // namespace ornik
