// zip_format.h: the numbers of zip archives that reader and writer share. Internal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ornik::io::zip {

inline constexpr std::uint64_t local_signature = 0x04034B50;
inline constexpr std::uint64_t record_signature = 0x02014B50;
inline constexpr std::uint64_t end_signature = 0x06054B50;
inline constexpr std::uint64_t wide_end_signature = 0x06064B50;
inline constexpr std::uint64_t wide_locator_signature = 0x07064B50;

// Bytes of the fixed part of each.
inline constexpr std::size_t local_size = 30;
inline constexpr std::size_t record_size = 46;
inline constexpr std::size_t end_size = 22;
inline constexpr std::size_t wide_end_size = 56;
inline constexpr std::size_t wide_locator_size = 20;

inline constexpr std::uint64_t method_stored = 0;
inline constexpr std::uint64_t method_deflated = 8;

inline constexpr std::uint64_t flag_encrypted = 1;
inline constexpr std::uint64_t flag_sizes_follow = 1 << 3;
inline constexpr std::uint64_t flag_utf8 = 1 << 11;

inline constexpr std::uint64_t wide_field = 1;  // of the extra fields
// A number that stands in the wide field or the wide end instead.
inline constexpr std::uint64_t all_ones_16 = 0xFFFF;
inline constexpr std::uint64_t all_ones_32 = 0xFFFFFFFF;

}  // namespace ornik::io::zip
