// deflate.cpp: packed entries, through zlib where the build has it.
#include "io/zip.h"

#if defined(ORNIK_HAVE_ZLIB)
#include <zlib.h>

#include <algorithm>
#include <limits>
#include <new>
#endif

namespace ornik::io {

#if defined(ORNIK_HAVE_ZLIB)

namespace {

// A zip entry is a deflate stream without zlib's frame.
constexpr int raw_stream = -15;
// zlib counts in 32 bits.
constexpr std::size_t longest_run = std::numeric_limits<uInt>::max();

void require(int code) {
    if (code != Z_OK) {
        throw std::bad_alloc();
    }
}

struct Inflater {
    z_stream stream{};
    Inflater() { require(inflateInit2(&stream, raw_stream)); }
    ~Inflater() { inflateEnd(&stream); }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
};

struct Deflater {
    z_stream stream{};
    Deflater() { require(deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, raw_stream, 8, Z_DEFAULT_STRATEGY)); }
    ~Deflater() { deflateEnd(&stream); }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;
};

void set_input(z_stream& stream, ByteSpan bytes) {
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<std::byte*>(bytes.data()));
    stream.avail_in = static_cast<uInt>(bytes.size());
}

void inflate_into(const FilePlace& place, ByteSpan packed, std::byte* to, std::size_t size) {
    Inflater inflater;
    z_stream& stream = inflater.stream;
    std::size_t made = 0;
    int code = Z_OK;
    while (code == Z_OK && made <= size) {
        if (stream.avail_in == 0) {
            const std::size_t run = std::min(packed.size(), longest_run);
            set_input(stream, packed.first(run));
            packed = packed.subspan(run);
        }
        Bytef surplus = 0;  // Where a byte too many shows.
        const std::size_t room = std::min(size - made, longest_run);
        stream.next_out = room > 0 ? reinterpret_cast<Bytef*>(to + made) : &surplus;
        stream.avail_out = static_cast<uInt>(std::max<std::size_t>(room, 1));
        const uInt before = stream.avail_out;
        code = ::inflate(&stream, Z_NO_FLUSH);
        made += before - stream.avail_out;
    }
    if (code != Z_STREAM_END || made != size || stream.avail_in > 0 || !packed.empty()) {
        fail(place.at(), place.text(), "its packed bytes are broken, or do not give the ", size,
             " bytes that the directory says.");
    }
}

}  // namespace

bool has_deflate() { return true; }

std::uint64_t ZipWriter::write_deflated(std::initializer_list<ByteSpan> parts) {
    Deflater deflater;
    z_stream& stream = deflater.stream;
    std::vector<std::byte> room(1 << 16);
    const std::uint64_t begin = position_;
    const auto run = [&](int flush) {
        do {
            stream.next_out = reinterpret_cast<Bytef*>(room.data());
            stream.avail_out = static_cast<uInt>(room.size());
            ::deflate(&stream, flush);
            write({room.data(), room.size() - stream.avail_out});
        } while (stream.avail_out == 0);
    };
    for (ByteSpan part : parts) {
        while (!part.empty()) {
            const std::size_t size = std::min(part.size(), longest_run);
            set_input(stream, part.first(size));
            run(Z_NO_FLUSH);
            part = part.subspan(size);
        }
    }
    run(Z_FINISH);
    return position_ - begin;
}

#else

namespace {

void inflate_into(const FilePlace& place, ByteSpan /*packed*/, std::byte* /*to*/, std::size_t /*size*/) {
    fail(ErrorKind::not_implemented, place.at(), place.text(),
         "it is deflated, and this build of the library has no zlib.");
}

}  // namespace

bool has_deflate() { return false; }

// The front end refuses compression before it comes to this.
std::uint64_t ZipWriter::write_deflated(std::initializer_list<ByteSpan> /*parts*/) { return 0; }

#endif

FileBytes unpack(const FilePlace& place, const FileBytes& archive, const ZipEntry& entry) {
    FileBytes contents = archive.part(entry.data, entry.packed);
    if (entry.deflated) {
        const Buffer buffer = make_buffer(entry.size);
        inflate_into(place, contents.bytes, buffer.data, entry.size);
        contents.bytes = {buffer.data, entry.size};
        contents.owner = buffer.owner;
        if (contents.mode == LoadMode::copy) {
            contents.mode = LoadMode::copy_on_write;  // This is the copy.
        }
    }
    if (const std::uint32_t crc = crc32(contents.bytes); crc != entry.crc) {
        fail(place.at(), place.text(), "its checksum is ", crc, ", the directory says ", entry.crc, ".");
    }
    return contents;
}

}  // namespace ornik::io
