// crc32.cpp: the checksum of zip archives, sixteen bytes at a time.
#include <array>
#include <bit>
#include <cstring>

#include "io/zip.h"

namespace ornik::io {

namespace {

constexpr std::size_t step = 16;
using Tables = std::array<std::array<std::uint32_t, 256>, step>;

// tables[k][b]: what byte b does to the checksum when k more bytes follow it.
constexpr Tables make_tables() {
    Tables tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1U) != 0 ? crc >> 1U ^ 0xEDB88320U : crc >> 1U;
        }
        tables[0][byte] = crc;
    }
    for (std::size_t k = 1; k < step; ++k) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t crc = tables[k - 1][byte];
            tables[k][byte] = crc >> 8U ^ tables[0][crc & 0xFFU];
        }
    }
    return tables;
}

constexpr Tables tables = make_tables();

// Eight bytes as a number, the first the lowest.
std::uint64_t word_at(const std::byte* at) {
    std::uint64_t word = 0;
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(&word, at, sizeof(word));
    } else {
        for (std::size_t i = 0; i < sizeof(word); ++i) {
            word |= std::to_integer<std::uint64_t>(at[i]) << (8 * i);
        }
    }
    return word;
}

// What the bytes of a word do when `behind` more bytes follow it.
std::uint32_t effect(std::uint64_t word, std::size_t behind) {
    std::uint32_t crc = 0;
    for (std::size_t i = 0; i < 8; ++i) {
        crc ^= tables[behind + 7 - i][word >> (8 * i) & 0xFFU];
    }
    return crc;
}

}  // namespace

std::uint32_t crc32(ByteSpan bytes, std::uint32_t before) {
    std::uint32_t crc = ~before;
    const std::byte* at = bytes.data();
    std::size_t left = bytes.size();
    for (; left >= step; left -= step, at += step) {
        crc = effect(word_at(at) ^ crc, 8) ^ effect(word_at(at + 8), 0);
    }
    for (; left > 0; --left, ++at) {
        crc = crc >> 8U ^ tables[0][(crc ^ std::to_integer<std::uint32_t>(*at)) & 0xFFU];
    }
    return ~crc;
}

}  // namespace ornik::io
