#include "hardware/cpu/copy/cpu_decode.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>

#include "hardware/block_copy.h"
#include "hardware/parallel.h"
#include "tensor/dtype.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t grain = 1 << 16;

template <typename Word>
Word reversed(Word word) {
    auto bytes = std::bit_cast<std::array<std::uint8_t, sizeof(Word)>>(word);
    std::reverse(bytes.begin(), bytes.end());
    return std::bit_cast<Word>(bytes);
}

// to[i] = value(from[i]), where `from` has no alignment.
template <typename Word, bool swap, typename Out, typename Value>
void decode_words(Out* to, const void* from, std::int64_t n, Value value) {
    const char* words = static_cast<const char*>(from);
    parallel_for(n, 16, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            Word word;
            std::memcpy(&word, words + i * static_cast<std::int64_t>(sizeof(Word)), sizeof(Word));
            to[i] = value(swap ? reversed(word) : word);
        }
    });
}

template <typename Word, typename Out, typename Value>
void decode_words(void* to, const void* from, std::int64_t n, bool swap, Value value) {
    if (swap) {
        decode_words<Word, true>(static_cast<Out*>(to), from, n, value);
    } else {
        decode_words<Word, false>(static_cast<Out*>(to), from, n, value);
    }
}

// Every half is a float: the mantissa gets 13 zeros, the exponent another bias.
std::uint32_t bits_of_half(std::uint16_t half) {
    const std::uint32_t sign = (half & 0x8000U) << 16U;
    const std::uint32_t exponent = half >> 10U & 0x1FU;
    const std::uint32_t mantissa = half & 0x3FFU;
    if (exponent == 0) {
        return sign | std::bit_cast<std::uint32_t>(static_cast<float>(mantissa) * 0x1p-24F);
    }
    return sign | (exponent == 0x1F ? 0xFFU : exponent + 112) << 23U | mantissa << 13U;
}

void copy_plain(void* to, const void* from, std::int64_t bytes) {
    parallel_for(bytes, 64, 4 * grain, [&](std::int64_t begin, std::int64_t end) {
        copy_block(static_cast<char*>(to) + begin, static_cast<const char*>(from) + begin, end - begin, bytes);
    });
}

void swap_plain(void* to, const void* from, std::int64_t n, std::int64_t dtype) {
    const auto same = [](auto word) { return word; };
    const std::int64_t parts = is_dtype_class(dtype, DtypeClass::complex) ? 2 : 1;
    switch (dtype_item_size(dtype) / parts) {
        case 1:
            return copy_plain(to, from, n);
        case 2:
            return decode_words<std::uint16_t, std::uint16_t>(to, from, n, true, same);
        case 4:
            return decode_words<std::uint32_t, std::uint32_t>(to, from, n * parts, true, same);
        default:
            return decode_words<std::uint64_t, std::uint64_t>(to, from, n * parts, true, same);
    }
}

}  // namespace

void decode(void* to, const void* from, std::int64_t n, std::int64_t dtype, Encoding encoding, bool swap) {
    switch (encoding) {
        case Encoding::plain:
            return swap ? swap_plain(to, from, n, dtype) : copy_plain(to, from, n * dtype_item_size(dtype));
        case Encoding::any_bool:
            return decode_words<std::uint8_t, bool>(to, from, n, false, [](std::uint8_t byte) { return byte != 0; });
        case Encoding::half:
            return decode_words<std::uint16_t, std::uint32_t>(to, from, n, swap, bits_of_half);
        case Encoding::brain_half:
            return decode_words<std::uint16_t, std::uint32_t>(
                to, from, n, swap, [](std::uint16_t word) { return std::uint32_t{word} << 16U; });
        case Encoding::unsigned16:
            return decode_words<std::uint16_t, std::int32_t>(to, from, n, swap,
                                                             [](std::uint16_t word) { return word; });
        case Encoding::unsigned32:
            return decode_words<std::uint32_t, std::int64_t>(to, from, n, swap,
                                                             [](std::uint32_t word) { return word; });
    }
}

bool are_bools(const void* bytes, std::int64_t n) {
    std::atomic<bool> good{true};
    parallel_for(n, 64, 4 * grain, [&](std::int64_t begin, std::int64_t end) {
        std::uint8_t seen = 0;
        for (std::int64_t i = begin; i < end; ++i) {
            seen |= static_cast<const std::uint8_t*>(bytes)[i];
        }
        if (seen > 1) {
            good = false;
        }
    });
    return good;
}

}  // namespace ornik::device::cpu
