#include "hardware/block_copy.h"

#include <algorithm>
#include <cstring>

#if defined(__AVX__)
#include <immintrin.h>
#endif

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t line = 64;
constexpr std::int64_t least_block = 4096;  // Shorter ones are not worth the wait at their end.

void copy_plain(char* to, const char* from, std::int64_t bytes) {
    std::memcpy(to, from, static_cast<std::size_t>(bytes));
}

// Whole cache lines.
void stream_lines(char* to, const char* from, std::int64_t bytes) {
#if defined(__AVX__)
    for (std::int64_t i = 0; i < bytes; i += line) {
        const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from + i));
        const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from + i + line / 2));
        _mm256_stream_si256(reinterpret_cast<__m256i*>(to + i), low);
        _mm256_stream_si256(reinterpret_cast<__m256i*>(to + i + line / 2), high);
    }
#else
    copy_plain(to, from, bytes);
#endif
}

}  // namespace

void stream_block(void* to, const void* from, std::int64_t bytes) {
    char* target = static_cast<char*>(to);
    const char* source = static_cast<const char*>(from);
    const auto misplaced = static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(to) % line);
    const std::int64_t head = std::min(bytes, misplaced == 0 ? 0 : line - misplaced);
    const std::int64_t lines = (bytes - head) / line * line;
    copy_plain(target, source, head);
    stream_lines(target + head, source + head, lines);
    copy_plain(target + head + lines, source + head + lines, bytes - head - lines);
}

void finish_streams() {
#if defined(__AVX__)
    _mm_sfence();
#endif
}

void copy_block(void* to, const void* from, std::int64_t bytes, std::int64_t total) {
    if (total >= streaming_bytes && bytes >= least_block) {
        stream_block(to, from, bytes);
        finish_streams();
    } else {
        copy_plain(static_cast<char*>(to), static_cast<const char*>(from), bytes);
    }
}

}  // namespace ornik::device::cpu
