#include <algorithm>

#include "io/zip.h"
#include "io/zip_format.h"

namespace ornik::io {

namespace {

using namespace zip;

constexpr std::size_t alignment = 64;
constexpr std::uint64_t version_plain = 20;
constexpr std::uint64_t version_zip64 = 45;
constexpr std::uint64_t made_on_unix = 3 << 8;
constexpr std::uint64_t readable_file = 0100644;
constexpr std::uint64_t first_day = 1 << 5 | 1;  // 1980-01-01: the same tensors give the same bytes on any day.
constexpr std::uint64_t padding_field = 0xD935;

struct Field {
    std::uint64_t value;
    std::size_t size;
};

std::string packed(std::initializer_list<Field> fields) {
    std::string bytes;
    for (const Field& field : fields) {
        for (std::size_t i = 0; i < field.size; ++i) {
            bytes += static_cast<char>(field.value >> (8 * i) & 0xFFU);
        }
    }
    return bytes;
}

std::string zip64_field(std::initializer_list<Field> fields) {
    const std::string values = packed(fields);
    return packed({{wide_field, 2}, {values.size(), 2}}) + values;
}

// What makes the bytes behind it begin at a multiple of the alignment.
std::string padding(std::uint64_t position) {
    std::size_t size = (alignment - position % alignment) % alignment;
    if (size == 0) {
        return {};
    }
    if (size < 4) {
        size += alignment;
    }
    return packed({{padding_field, 2}, {size - 4, 2}}) + std::string(size - 4, '\0');
}

}  // namespace

void ZipWriter::write(ByteSpan bytes) {
    sink_.write(bytes);
    position_ += bytes.size();
}

// Versions, flags, method, time, date, checksum and sizes: what an entry's header and its record share.
std::string ZipWriter::fields_of(const Written& entry, bool wide) const {
    const bool is_ascii =
        std::all_of(entry.name.begin(), entry.name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    return packed({{wide ? version_zip64 : version_plain, 2},
                   {is_ascii ? 0 : flag_utf8, 2},
                   {deflate_ ? method_deflated : method_stored, 2},
                   {0, 2},
                   {first_day, 2},
                   {entry.crc, 4},
                   {wide ? all_ones_32 : entry.packed, 4},
                   {wide ? all_ones_32 : entry.size, 4},
                   {entry.name.size(), 2}});
}

void ZipWriter::add(std::string_view name, std::initializer_list<ByteSpan> parts) {
    Written entry{std::string(name), position_, 0, 0, 0};
    for (const ByteSpan part : parts) {
        entry.size += part.size();
        entry.crc = crc32(part, entry.crc);
    }
    entry.packed = entry.size;
    // Deflating may lengthen: by five bytes for each block of 16 KiB at worst, and some in all.
    const bool wide = entry.size + entry.size / 1024 + 64 >= zip64_from_;
    const auto header = [&] {
        const std::string zip64 = wide ? zip64_field({{entry.size, 8}, {entry.packed, 8}}) : "";
        const std::uint64_t begin = entry.begin + local_size + entry.name.size() + zip64.size();
        const std::string extra = zip64 + (deflate_ ? "" : padding(begin));
        return packed({{local_signature, 4}}) + fields_of(entry, wide) + packed({{extra.size(), 2}}) + entry.name +
               extra;
    };
    write(header());
    if (deflate_) {
        entry.packed = write_deflated(parts);
        sink_.overwrite(entry.begin, bytes_of_text(header()));
    } else {
        for (const ByteSpan part : parts) {
            write(part);
        }
    }
    entries_.push_back(std::move(entry));
}

void ZipWriter::finish() {
    const std::uint64_t begin = position_;
    for (const Written& entry : entries_) {
        const bool wide = std::max({entry.size, entry.packed, entry.begin}) >= zip64_from_;
        const std::string extra =
            wide ? zip64_field({{entry.size, 8}, {entry.packed, 8}, {entry.begin, 8}}) : std::string();
        write(packed({{record_signature, 4}, {made_on_unix | version_zip64, 2}}) + fields_of(entry, wide) +
              packed({{extra.size(), 2},
                      {0, 2},
                      {0, 2},
                      {0, 2},
                      {readable_file << 16U, 4},
                      {wide ? all_ones_32 : entry.begin, 4}}) +
              entry.name + extra);
    }
    const std::uint64_t end = position_;
    const std::uint64_t count = entries_.size();
    const bool wide = std::max(end - begin, begin) >= zip64_from_ || count >= std::min(zip64_from_, all_ones_16);
    if (wide) {
        write(packed({{wide_end_signature, 4},
                      {wide_end_size - 12, 8},
                      {made_on_unix | version_zip64, 2},
                      {version_zip64, 2},
                      {0, 4},
                      {0, 4},
                      {count, 8},
                      {count, 8},
                      {end - begin, 8},
                      {begin, 8}}) +
              packed({{wide_locator_signature, 4}, {0, 4}, {end, 8}, {1, 4}}));
    }
    write(packed({{end_signature, 4},
                  {0, 2},
                  {0, 2},
                  {wide ? all_ones_16 : count, 2},
                  {wide ? all_ones_16 : count, 2},
                  {wide ? all_ones_32 : end - begin, 4},
                  {wide ? all_ones_32 : begin, 4},
                  {0, 2}}));
}

}  // namespace ornik::io
