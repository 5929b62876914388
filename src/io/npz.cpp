#include "io/npz.h"

#include <algorithm>
#include <unordered_set>

#include "io/npy_format.h"
#include "io/zip.h"

namespace ornik {

namespace io {

namespace {

constexpr std::string_view suffix = ".npy";

// Fails for a name that is not a plain path below the archive: unpacked by a careless program, it would land elsewhere.
void check_entry_name(const FilePlace& place, std::string_view name) {
    constexpr std::size_t longest = 0xFFFF;
    if (name.empty() || name.size() > longest - suffix.size() || !is_utf8(name)) {
        fail(place.at(), place.text(), "the name is ",
             name.empty()     ? "empty."
             : !is_utf8(name) ? "no UTF-8."
                              : "longer than an archive can hold.");
    }
    const auto is_forbidden = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '\\'; };
    bool good = std::none_of(name.begin(), name.end(), is_forbidden) && !(name.size() > 1 && name[1] == ':');
    for (std::size_t begin = 0; good && begin <= name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string_view part = name.substr(begin, end - begin);
        good = !part.empty() && part != "." && part != "..";
        begin = end + 1;
    }
    if (!good) {
        fail(place.at(), place.text(), "the name is no plain path.");
    }
}

std::vector<NamedTensor> parse_npz(const FilePlace& file, const FileBytes& source) {
    const std::vector<ZipEntry> entries = read_zip_directory(file, source.bytes);
    for (const ZipEntry& entry : entries) {
        const FilePlace place = file.in_entry(entry.name);
        const std::string_view name = entry.name;
        if (!name.ends_with(suffix)) {
            fail(place.at(), place.text(), "the name does not end in ", in_quotes(suffix), ".");
        }
        check_entry_name(place, name.substr(0, name.size() - suffix.size()));
    }
    std::vector<NamedTensor> result;
    for (const ZipEntry& entry : entries) {
        const FilePlace place = file.in_entry(entry.name);
        std::string name = entry.name.substr(0, entry.name.size() - suffix.size());
        result.push_back({std::move(name), parse_npy(place, unpack(place, source, entry))});
    }
    return result;
}

// All that can be refused, before the first byte is written.
void check_entries(const FilePlace& file, const std::vector<TensorEntry>& entries, const SaveOptions& options) {
    if (options.compress && !has_deflate()) {
        fail(ErrorKind::not_implemented, file.at(), file.text(),
             "compression takes zlib, which this build of the library does not have.");
    }
    std::unordered_set<std::string_view> names;
    for (const auto& [name, t] : entries) {
        const FilePlace place = file.in_entry(name);
        check_entry_name(place, name);
        if (!names.insert(name).second) {
            fail(place.at(), place.text(), "the name comes twice.");
        }
        check_saveable(place, t);
    }
}

void write_npz(const FilePlace& file, const std::vector<TensorEntry>& entries, const SaveOptions& options,
               ByteSink& sink) {
    ZipWriter zip(sink, options.compress);
    for (const auto& [name, t] : entries) {
        const NpyFile contents = make_npy(file.in_entry(name), t);
        zip.add(name + std::string(suffix), {bytes_of_text(contents.header), contents.elements.bytes()});
    }
    zip.finish();
}

}  // namespace

}  // namespace io

bool npz_can_compress() { return io::has_deflate(); }

void save_npz(const std::filesystem::path& path, const std::vector<TensorEntry>& entries, const SaveOptions& options) {
    const auto place = io::FilePlace::writing("ornik::save_npz", path);
    io::check_entries(place, entries, options);
    io::OutputFile output(place, path);
    io::write_npz(place, entries, options, output);
    output.commit(options.sync);
}

std::vector<std::byte> npz_to_bytes(const std::vector<TensorEntry>& entries, const SaveOptions& options) {
    const auto place = io::FilePlace::writing_memory("ornik::npz_to_bytes");
    io::check_entries(place, entries, options);
    io::MemorySink sink;
    io::write_npz(place, entries, options, sink);
    return sink.take();
}

std::vector<NamedTensor> load_npz(const std::filesystem::path& path, LoadMode mode) {
    const auto place = io::FilePlace::reading("ornik::load_npz", path);
    return io::parse_npz(place, io::open_file(place, path, mode));
}

std::vector<NamedTensor> npz_from_bytes(std::span<const std::byte> bytes) {
    return io::parse_npz(io::FilePlace::reading_memory("ornik::npz_from_bytes"), {bytes, nullptr, LoadMode::copy});
}

}  // namespace ornik
