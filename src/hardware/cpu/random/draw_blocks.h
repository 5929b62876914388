// draw_blocks.h: hands the engine's words to loops that run in parallel.
//
// Words belong to elements by position, whoever works on them: workers take the next block of state words in
// turn, then temper and transform it beside each other. The result is that of one loop over the engine.
#pragma once

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <new>

#include "hardware/parallel.h"
#include "random/lease.h"

namespace ornik::device::cpu::random {

/// Words that reach a body at once: a multiple of every group, small enough for the nearest cache.
inline constexpr std::int64_t chunk_words = 512;

/// `total` words of the engine: body(words, first, count) is called for chunks words[0 .. count) that start at
/// word `first` of this draw, a multiple of chunk_words.
template <typename Body>
void draw_words(generator::Lease& source, std::int64_t total, const Body& body) {
    constexpr std::int64_t block_words = 16 * chunk_words;
    const std::int64_t blocks = (total + block_words - 1) / block_words;
    std::mutex order;
    std::int64_t next = 0;
    parallel_for(blocks, 1, 2, [&](std::int64_t /*begin*/, std::int64_t /*end*/) {
        // Without memory for a block, its words are drawn piece by piece while the others wait.
        const std::unique_ptr<std::uint64_t[]> raw(
            new (std::nothrow) std::uint64_t[static_cast<std::size_t>(std::min(total, block_words))]);
        std::array<std::uint64_t, chunk_words> words;
        for (;;) {
            std::unique_lock lock(order);
            if (next == blocks) {
                return;
            }
            const std::int64_t begin = next++ * block_words;
            const std::int64_t end = std::min(total, begin + block_words);
            if (raw) {
                source.take(raw.get(), end - begin);
                lock.unlock();
            }
            for (std::int64_t first = begin; first < end; first += chunk_words) {
                const std::int64_t count = std::min(chunk_words, end - first);
                if (!raw) {
                    source.take(words.data(), count);
                }
                const std::uint64_t* const chunk = raw ? raw.get() + (first - begin) : words.data();
                for (std::int64_t i = 0; i < count; ++i) {
                    words[static_cast<std::size_t>(i)] = generator::MersenneTwister64::temper(chunk[i]);
                }
                body(words.data(), first, count);
            }
        }
    });
}

/// A word as a number of [0, 1), a multiple of 2^-53.
inline constexpr double unit53 = 0x1p-53;

}  // namespace ornik::device::cpu::random
