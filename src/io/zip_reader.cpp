#include <algorithm>
#include <unordered_set>

#include "io/zip.h"
#include "io/zip_format.h"

namespace ornik::io {

namespace {

using namespace zip;

// Besides those: how hard the packer tried.
constexpr std::uint64_t known_flags = flag_sizes_follow | flag_utf8 | 1 << 1 | 1 << 2;

// A number of 1 to 8 bytes; the caller has checked that they are there.
std::uint64_t number(ByteSpan bytes, std::size_t at, std::size_t size) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) {
        value |= std::to_integer<std::uint64_t>(bytes[at + i]) << (8 * i);
    }
    return value;
}

std::string text(ByteSpan bytes, std::size_t at, std::size_t size) {
    const ByteSpan part = bytes.subspan(at, size);
    return {reinterpret_cast<const char*>(part.data()), part.size()};
}

// Where the directory is and how many records it has.
struct Directory {
    std::uint64_t begin;
    std::uint64_t end;
    std::uint64_t count;
};

std::size_t find_end(const FilePlace& place, ByteSpan archive) {
    const std::size_t size = archive.size();
    const std::size_t longest_comment = all_ones_16;
    for (std::size_t back = end_size; back <= size && back <= end_size + longest_comment; ++back) {
        const std::size_t at = size - back;
        if (number(archive, at, 4) == end_signature && number(archive, at + 20, 2) == back - end_size) {
            return at;
        }
    }
    fail(place.at(), place.text(), "no zip archive, or cut short: its end record is missing.");
}

Directory find_directory(const FilePlace& place, ByteSpan archive) {
    const std::size_t end = find_end(place, archive);
    const auto field = [&](std::size_t offset, std::size_t size) { return number(archive, end + offset, size); };
    Directory directory{field(16, 4), end, field(10, 2)};
    std::uint64_t bytes = field(12, 4);
    std::uint64_t disks = field(4, 2) | field(6, 2) | (field(8, 2) ^ field(10, 2));
    const bool saturated = directory.count == all_ones_16 || bytes == all_ones_32 || directory.begin == all_ones_32;
    if (saturated && end >= wide_locator_size &&
        number(archive, end - wide_locator_size, 4) == wide_locator_signature) {
        const std::size_t locator = end - wide_locator_size;
        const std::uint64_t at = number(archive, locator + 8, 8);
        if (at > locator || locator - at < wide_end_size || number(archive, at, 4) != wide_end_signature ||
            number(archive, at + 4, 8) != locator - at - 12) {
            fail(place.at(), place.text(), "the zip64 end record is not where its locator says, at ", at, ".");
        }
        const auto wide = [&](std::size_t offset, std::size_t size) { return number(archive, at + offset, size); };
        disks = wide(16, 4) | wide(20, 4) | (wide(24, 8) ^ wide(32, 8));
        directory = {wide(48, 8), at, wide(32, 8)};
        bytes = wide(40, 8);
    }
    if (disks != 0) {
        fail(place.at(), place.text(), "the archive spans several disks.");
    }
    if (directory.begin > directory.end || directory.end - directory.begin != bytes) {
        fail(place.at(), place.text(), "a directory of ", bytes, " bytes at ", directory.begin,
             " does not end at its end record, at ", directory.end, ".");
    }
    if (directory.count > bytes / record_size) {
        fail(place.at(), place.text(), "a directory of ", directory.count, " entries does not fit into ", bytes,
             " bytes.");
    }
    return directory;
}

// The numbers of a record that may stand in its zip64 field, in the order in which they do.
void widen(const FilePlace& place, ByteSpan extra, std::initializer_list<std::uint64_t*> numbers) {
    ByteSpan wide;
    for (std::size_t at = 0; at + 4 <= extra.size();) {
        const std::size_t size = number(extra, at + 2, 2);
        if (size > extra.size() - at - 4) {
            fail(place.at(), place.text(), "an extra field of ", size, " bytes; ", extra.size() - at - 4,
                 " bytes are left for it.");
        }
        if (number(extra, at, 2) == wide_field) {
            wide = extra.subspan(at + 4, size);
        }
        at += 4 + size;
    }
    std::size_t at = 0;
    for (std::uint64_t* value : numbers) {
        if (*value == all_ones_32 && wide.size() >= at + 8) {
            *value = number(wide, at, 8);
            at += 8;
        }
    }
}

void check_name(const FilePlace& place, const std::string& name, bool marked_utf8) {
    const bool is_ascii =
        std::all_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    if (!is_ascii && (!marked_utf8 || !is_utf8(name))) {
        fail(place.at(), place.text(), "the name is no UTF-8, or is not marked as such.");
    }
}

// The header in front of an entry's bytes has to say what the directory says.
void check_local_header(const FilePlace& place, ByteSpan archive, std::uint64_t directory, ZipEntry& entry,
                        std::uint64_t method) {
    if (entry.begin > directory || directory - entry.begin < local_size ||
        number(archive, entry.begin, 4) != local_signature) {
        fail(place.at(), place.text(), "its header is not where the directory says, at ", entry.begin, ".");
    }
    const auto field = [&](std::size_t offset, std::size_t size) {
        return number(archive, entry.begin + offset, size);
    };
    const std::size_t name_size = field(26, 2);
    const std::size_t extra_size = field(28, 2);
    const std::uint64_t left = directory - entry.begin - local_size;
    if (left < name_size + extra_size || left - name_size - extra_size < entry.packed) {
        fail(place.at(), place.text(), entry.packed, " bytes at ", entry.begin,
             " reach into the directory, which begins at ", directory, ".");
    }
    entry.data = entry.begin + local_size + name_size + extra_size;
    const std::string name = text(archive, entry.begin + local_size, name_size);
    if (name != entry.name) {
        fail(place.at(), place.text(), "its own header names it ", in_quotes(name), ".");
    }
    std::uint64_t size = field(22, 4);
    std::uint64_t packed = field(18, 4);
    widen(place, archive.subspan(entry.begin + local_size + name_size, extra_size), {&size, &packed});
    const bool sizes_follow = (field(6, 2) & flag_sizes_follow) != 0;
    const bool same_sizes = size == entry.size && packed == entry.packed && field(14, 4) == entry.crc;
    if ((field(6, 2) & flag_encrypted) != 0 || field(8, 2) != method || (!sizes_follow && !same_sizes)) {
        fail(place.at(), place.text(), "its own header and the directory disagree on method, sizes or checksum.");
    }
}

void check_overlaps(const FilePlace& file, const std::vector<ZipEntry>& entries) {
    std::vector<const ZipEntry*> order;
    for (const ZipEntry& entry : entries) {
        order.push_back(&entry);
    }
    std::sort(order.begin(), order.end(), [](const ZipEntry* a, const ZipEntry* b) { return a->begin < b->begin; });
    for (std::size_t i = 1; i < order.size(); ++i) {
        const ZipEntry& last = *order[i - 1];
        if (order[i]->begin < last.data + last.packed) {
            const FilePlace place = file.in_entry(order[i]->name);
            fail(place.at(), place.text(), "it begins at ", order[i]->begin, ", but ", in_quotes(last.name),
                 " ends at ", last.data + last.packed, ".");
        }
    }
}

}  // namespace

std::vector<ZipEntry> read_zip_directory(const FilePlace& file, ByteSpan archive) {
    const Directory directory = find_directory(file, archive);
    std::vector<ZipEntry> entries;
    std::unordered_set<std::string> names;
    std::size_t at = directory.begin;
    for (std::uint64_t i = 0; i < directory.count; ++i) {
        const std::uint64_t left = directory.end - at;
        if (left < record_size || number(archive, at, 4) != record_signature) {
            fail(file.at(), file.text(), "record ", i, " of the directory is broken, at ", at, ".");
        }
        const auto field = [&](std::size_t offset, std::size_t size) { return number(archive, at + offset, size); };
        const std::size_t name_size = field(28, 2);
        const std::size_t extra_size = field(30, 2);
        const std::size_t comment_size = field(32, 2);
        if (left - record_size < name_size + extra_size + comment_size) {
            fail(file.at(), file.text(), "record ", i, " of the directory is broken, at ", at, ".");
        }
        const std::string name = text(archive, at + record_size, name_size);
        const FilePlace place = file.in_entry(name);
        const std::uint64_t flags = field(8, 2);
        const std::uint64_t method = field(10, 2);
        std::uint64_t size = field(24, 4);
        std::uint64_t packed = field(20, 4);
        std::uint64_t begin = field(42, 4);
        widen(place, archive.subspan(at + record_size + name_size, extra_size), {&size, &packed, &begin});
        if ((flags & flag_encrypted) != 0) {
            fail(place.at(), place.text(), "it is encrypted.");
        }
        if ((flags & ~known_flags) != 0 || (method != method_stored && method != method_deflated)) {
            fail(ErrorKind::not_implemented, place.at(), place.text(), "method ", method, " with flags ", flags,
                 "; only stored and deflated entries can be read.");
        }
        if (field(34, 2) != 0) {
            fail(place.at(), place.text(), "it is on another disk.");
        }
        check_name(place, name, (flags & flag_utf8) != 0);
        if (!names.insert(name).second) {
            fail(place.at(), place.text(), "the name comes twice.");
        }
        // Deflate makes 258 bytes of two bits at best.
        constexpr std::uint64_t best_ratio = 1032;
        if (method == method_stored ? size != packed : size / best_ratio > packed) {
            fail(place.at(), place.text(), size, " bytes can not come from ", packed, " in the archive.");
        }
        ZipEntry entry{
            name, begin, 0, packed, size, static_cast<std::uint32_t>(field(16, 4)), method == method_deflated};
        check_local_header(place, archive, directory.begin, entry, method);
        entries.push_back(std::move(entry));
        at += record_size + name_size + extra_size + comment_size;
    }
    if (at != directory.end) {
        fail(file.at(), file.text(), directory.end - at, " bytes are left in the directory behind its ",
             directory.count, " entries.");
    }
    check_overlaps(file, entries);
    return entries;
}

}  // namespace ornik::io
