// block_copy.h: copies of blocks of bytes. Internal.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

/// Targets of so many bytes do not stay in the caches that all processors share: whatever is written past the caches
/// does not have to be read first, which is a third of a copy's traffic.
inline constexpr std::int64_t streaming_bytes = std::int64_t{24} << 20;

/// Copies `bytes` bytes between blocks that do not overlap. They are part of a target of `total` bytes.
void copy_block(void* to, const void* from, std::int64_t bytes, std::int64_t total);

/// Copies past the caches, where the processor can. Other threads see the block after finish_streams().
void stream_block(void* to, const void* from, std::int64_t bytes);
void finish_streams();

}  // namespace ornik::device::cpu
