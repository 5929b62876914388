// zip.h: the zip container, stored and deflated entries. Internal.
//
// The reader believes nothing: the directory, the entries' own headers, the sizes and the checksums have to agree, and
// no byte may belong to two entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "elements.h"
#include "output.h"

namespace ornik::io {

/// The CRC-32 of zip archives, continued from that of the bytes before.
std::uint32_t crc32(ByteSpan bytes, std::uint32_t before = 0);

/// True when this build can inflate and deflate.
bool has_deflate();

struct ZipEntry {
    std::string name;
    std::size_t begin;   // of its header
    std::size_t data;    // of its bytes in the archive
    std::size_t packed;  // how many of them
    std::size_t size;    // unpacked
    std::uint32_t crc;
    bool deflated;
};

/// Entries in the order of the directory. `place` names the file.
std::vector<ZipEntry> read_zip_directory(const FilePlace& place, ByteSpan archive);

/// An entry's contents, with their checksum compared: a part of the archive, or unpacked. `place` names the entry.
FileBytes unpack(const FilePlace& place, const FileBytes& archive, const ZipEntry& entry);

class ZipWriter {
  public:
    /// Sizes and positions of `zip64_from` and more are written in 64 bits.
    ZipWriter(ByteSink& sink, bool deflate, std::uint64_t zip64_from = 0xFFFFFFFF)
        : sink_(sink), deflate_(deflate), zip64_from_(zip64_from) {}

    /// Appends an entry with the parts as its contents. Stored ones begin at a multiple of 64 bytes.
    void add(std::string_view name, std::initializer_list<ByteSpan> parts);
    /// Writes the directory.
    void finish();

  private:
    struct Written {
        std::string name;
        std::uint64_t begin;
        std::uint64_t packed;
        std::uint64_t size;
        std::uint32_t crc;
    };

    void write(ByteSpan bytes);
    void write(const std::string& text) { write(bytes_of_text(text)); }
    std::uint64_t write_deflated(std::initializer_list<ByteSpan> parts);
    std::string fields_of(const Written& entry, bool wide) const;

    ByteSink& sink_;
    bool deflate_;
    std::uint64_t zip64_from_;
    std::uint64_t position_ = 0;
    std::vector<Written> entries_;
};

}  // namespace ornik::io
