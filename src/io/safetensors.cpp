#include "io/safetensors.h"

#include <algorithm>
#include <bit>
#include <unordered_set>

#include "io/elements.h"
#include "io/json.h"
#include "io/output.h"

namespace ornik {

namespace io {

namespace {

constexpr std::size_t prefix_size = 8;
constexpr std::uint64_t longest_header = 100'000'000;
constexpr bool host_is_big = std::endian::native == std::endian::big;
constexpr std::string_view metadata_name = "__metadata__";
constexpr std::string_view complex_text = "complex128";

std::string dtype_key(const std::string& name) { return "dtype:" + name; }

// True when the metadata say that these pairs of float64 are complex numbers.
bool is_marked_complex(const FileMetadata& metadata, const std::string& name, std::int64_t dtype, const Dims& shape) {
    const auto text = metadata.find(dtype_key(name));
    return text != metadata.end() && text->second == complex_text && dtype == dtype::float64 && !shape.empty() &&
           shape.back() == 2;
}

// ---- Reading ----

struct HeaderEntry {
    std::string name;
    std::string dtype;
    Dims shape;
    std::int64_t begin = 0;
    std::int64_t end = 0;
};

struct Header {
    std::vector<HeaderEntry> entries;
    FileMetadata metadata;
};

HeaderEntry parse_entry(const FilePlace& place, JsonReader& json, const std::string& name) {
    HeaderEntry entry;
    entry.name = name;
    bool has_dtype = false;
    bool has_shape = false;
    Dims offsets;
    json.object([&](const std::string& key) {
        if (key == "dtype" && !has_dtype) {
            has_dtype = true;
            entry.dtype = json.string();
        } else if (key == "shape" && !has_shape) {
            has_shape = true;
            json.array([&] { entry.shape.push_back(json.unsigned_integer()); });
        } else if (key == "data_offsets" && offsets.empty()) {
            json.array([&] { offsets.push_back(json.unsigned_integer()); });
            if (offsets.size() != 2) {
                json.refuse("'data_offsets' holds ", offsets.size(), " numbers; wanted 2.");
            }
        } else {
            json.refuse("wanted 'dtype', 'shape' and 'data_offsets', once each; found ", in_quotes(key), ".");
        }
    });
    if (!has_dtype || !has_shape || offsets.empty()) {
        fail(place.at(), place.text(), "no ",
             !has_dtype   ? "'dtype'"
             : !has_shape ? "'shape'"
                          : "'data_offsets'",
             " in the header.");
    }
    entry.begin = offsets[0];
    entry.end = offsets[1];
    return entry;
}

Header parse_header(const FilePlace& file, std::string_view text) {
    if (text.empty() || text[0] != '{') {
        fail(file.at(), file.text(), "the header does not start with '{'.");
    }
    Header header;
    std::unordered_set<std::string> names;
    FilePlace place = file;
    JsonReader json(place, text);
    json.object([&](const std::string& name) {
        place.entry = name;
        if (!names.insert(name).second) {
            json.refuse("the name comes twice.");
        }
        if (name != metadata_name) {
            header.entries.push_back(parse_entry(place, json, name));
        } else {
            json.object([&](const std::string& key) {
                if (!header.metadata.emplace(key, json.string()).second) {
                    json.refuse("the key ", in_quotes(key), " comes twice.");
                }
            });
        }
        place.entry.clear();
    });
    json.finish();
    return header;
}

// Each entry starts where another one ends, from the first byte to the last.
void check_cover(const FilePlace& file, const std::vector<HeaderEntry>& entries, std::int64_t size) {
    std::vector<const HeaderEntry*> order;
    for (const HeaderEntry& entry : entries) {
        order.push_back(&entry);
    }
    std::stable_sort(order.begin(), order.end(), [](const HeaderEntry* a, const HeaderEntry* b) {
        return a->begin != b->begin ? a->begin < b->begin : a->end < b->end;
    });
    std::int64_t covered = 0;
    const HeaderEntry* last = nullptr;
    for (const HeaderEntry* entry : order) {
        const FilePlace place = file.in_entry(entry->name);
        if (entry->begin < covered) {
            fail(place.at(), place.text(), "its data begin at ", entry->begin, ", but those of ", in_quotes(last->name),
                 " end at ", covered, ".");
        }
        if (entry->begin > covered) {
            fail(place.at(), place.text(), "its data begin at ", entry->begin, "; bytes ", covered, " to ",
                 entry->begin, " belong to no entry.");
        }
        covered = entry->end;
        last = entry;
    }
    if (covered != size) {
        fail(file.at(), file.text(), "the file has ", size, " bytes of data, the entries use ", covered, ".");
    }
}

const FileDtype& checked_type(const FilePlace& file, const HeaderEntry& entry, std::int64_t data_size) {
    const FilePlace place = file.in_entry(entry.name);
    const FileDtype* type = find_safetensors_dtype(entry.dtype);
    if (type == nullptr) {
        fail(ErrorKind::dtype, place.at(), place.text(), "elements of type ", in_quotes(entry.dtype),
             " are not supported; wanted one of BOOL U8 I8 I16 I32 I64 F16 BF16 F32 F64 C64 U16 U32.");
    }
    if (entry.begin > entry.end || entry.end > data_size) {
        fail(place.at(), place.text(), "data from ", entry.begin, " to ", entry.end, "; the file has ", data_size,
             " bytes of data.");
    }
    const std::int64_t wanted = checked_bytes(place, entry.shape, type->item_size);
    if (wanted != entry.end - entry.begin) {
        fail(place.at(), place.text(), entry.dtype, " of shape ", tuple_text(entry.shape), " takes ", wanted,
             " bytes; the header gives it ", entry.end - entry.begin, ".");
    }
    return *type;
}

SafetensorsFile parse_safetensors(const FilePlace& file, const FileBytes& source) {
    const std::size_t size = source.bytes.size();
    if (size < prefix_size) {
        fail(file.at(), file.text(), "it ends after ", size, " bytes; the header's length takes ", prefix_size, ".");
    }
    std::uint64_t length = 0;
    for (std::size_t i = 0; i < prefix_size; ++i) {
        length |= std::to_integer<std::uint64_t>(source.bytes[i]) << (8 * i);
    }
    if (length > longest_header) {
        fail(file.at(), file.text(), "a header of ", length, " bytes; at most ", longest_header, " are allowed.");
    }
    if (length > size - prefix_size) {
        fail(file.at(), file.text(), "a header of ", length, " bytes; ", size - prefix_size,
             " bytes are left in the file.");
    }
    const ByteSpan text = source.bytes.subspan(prefix_size, length);
    Header header = parse_header(file, {reinterpret_cast<const char*>(text.data()), text.size()});
    const FileBytes data = source.part(prefix_size + length, size - prefix_size - length);
    const auto data_size = static_cast<std::int64_t>(data.bytes.size());

    std::vector<const FileDtype*> types;
    for (const HeaderEntry& entry : header.entries) {
        types.push_back(&checked_type(file, entry, data_size));
    }
    check_cover(file, header.entries, data_size);

    SafetensorsFile result;
    for (std::size_t i = 0; i < header.entries.size(); ++i) {
        HeaderEntry& entry = header.entries[i];
        const FileDtype* type = types[i];
        if (is_marked_complex(header.metadata, entry.name, type->dtype, entry.shape)) {
            type = &file_dtype(dtype::complex128);
            entry.shape.pop_back();
            header.metadata.erase(dtype_key(entry.name));
        }
        const FileBytes bytes =
            data.part(static_cast<std::size_t>(entry.begin), static_cast<std::size_t>(entry.end - entry.begin));
        result.tensors.push_back({std::move(entry.name), tensor_over(bytes, *type, entry.shape, false, host_is_big)});
    }
    result.metadata = std::move(header.metadata);
    return result;
}

// ---- Writing ----

// Of dtypes with one item size, the order is that of the format's own writer.
int rank_of(std::int64_t code) {
    constexpr std::int64_t order[] = {dtype::int64,   dtype::float64, dtype::complex128, dtype::complex64,
                                      dtype::float32, dtype::int32,   dtype::int16,      dtype::int8,
                                      dtype::uint8,   dtype::boolean};
    return static_cast<int>(std::find(std::begin(order), std::end(order), code) - std::begin(order));
}

void check_text(const FilePlace& place, std::string_view what, std::string_view text) {
    if (!is_utf8(text)) {
        fail(place.at(), place.text(), what, " ", in_quotes(text), " is no UTF-8.");
    }
}

// All that can be refused, before the first byte is written.
void check_entries(const FilePlace& file, const std::vector<TensorEntry>& entries, const FileMetadata& metadata) {
    std::unordered_set<std::string_view> names;
    for (const auto& [name, t] : entries) {
        const FilePlace place = file.in_entry(name);
        check_text(place, "the name", name);
        if (name == metadata_name || !names.insert(name).second) {
            fail(place.at(), place.text(), name == metadata_name ? "the name is taken." : "the name comes twice.");
        }
        check_saveable(place, t);
        const bool is_complex = t->Dtype() == dtype::complex128;
        if (is_complex && t->Shape().size() == most_axes) {
            fail(place.at(), place.text(), "a tensor of dtype complex128 may have ", most_axes - 1, " axes.");
        }
        if (is_complex ? metadata.contains(dtype_key(name))
                       : is_marked_complex(metadata, name, t->Dtype(), t->Shape())) {
            fail(place.at(), place.text(), "the metadata's key ", in_quotes(dtype_key(name)), " is taken.");
        }
    }
    for (const auto& [key, text] : metadata) {
        check_text(file, "the metadata's key", key);
        check_text(file, "the metadata's text", text);
    }
}

std::string header_text(const FilePlace& file, const std::vector<const TensorEntry*>& order, FileMetadata metadata) {
    std::string entries;
    std::int64_t begin = 0;
    for (const TensorEntry* entry : order) {
        const Tensor* t = entry->tensor;
        const bool is_complex = t->Dtype() == dtype::complex128;
        std::string shape;
        for (const std::int64_t extent : t->Shape()) {
            shape += shape.empty() ? "" : ",";
            shape += std::to_string(extent);
        }
        if (is_complex) {
            shape += shape.empty() ? "2" : ",2";
            metadata[dtype_key(entry->name)] = complex_text;
        }
        const std::int64_t end = begin + saved_numel(file, t) * t->itemsize();
        const FileDtype& type = file_dtype(is_complex ? dtype::float64 : t->Dtype());
        entries += ',';
        entries += json_text(entry->name) + ":{\"dtype\":\"" + std::string(type.safetensors) + "\",\"shape\":[" +
                   shape + "],\"data_offsets\":[" + std::to_string(begin) + "," + std::to_string(end) + "]}";
        begin = end;
    }
    std::string texts;
    for (const auto& [key, text] : metadata) {
        texts += texts.empty() ? "" : ",";
        texts += json_text(key) + ":" + json_text(text);
    }
    if (!metadata.empty()) {
        entries.insert(0, std::string(",") + json_text(metadata_name) + ":{" + texts + "}");
    }
    std::string header = "{";
    header.append(entries, entries.empty() ? 0 : 1).push_back('}');
    header.append((prefix_size - header.size() % prefix_size) % prefix_size, ' ');
    if (header.size() > longest_header) {
        fail(file.at(), file.text(), "a header of ", header.size(), " bytes; at most ", longest_header,
             " are allowed.");
    }
    return header;
}

// A file whose writing nothing but the system can stop.
struct FilePlan {
    std::vector<const TensorEntry*> order;
    std::string header;
};

FilePlan plan_file(const FilePlace& file, const std::vector<TensorEntry>& entries, const FileMetadata& metadata) {
    check_entries(file, entries, metadata);
    FilePlan plan;
    for (const TensorEntry& entry : entries) {
        plan.order.push_back(&entry);
    }
    std::sort(plan.order.begin(), plan.order.end(), [](const TensorEntry* a, const TensorEntry* b) {
        const int rank_a = rank_of(a->tensor->Dtype());
        const int rank_b = rank_of(b->tensor->Dtype());
        return rank_a != rank_b ? rank_a < rank_b : a->name < b->name;
    });
    plan.header = header_text(file, plan.order, metadata);
    return plan;
}

void write_safetensors(const FilePlace& file, const FilePlan& plan, ByteSink& sink) {
    std::byte prefix[prefix_size];
    for (std::size_t i = 0; i < prefix_size; ++i) {
        prefix[i] = static_cast<std::byte>(plan.header.size() >> (8 * i) & 0xFFU);
    }
    sink.write(prefix);
    sink.write(bytes_of_text(plan.header));
    for (const TensorEntry* entry : plan.order) {
        const Tensor* t = entry->tensor;
        const ElementRun run(file.in_entry(entry->name), t, false);
        if (!host_is_big || t->itemsize() == 1) {
            sink.write(run.bytes());
            continue;
        }
        const Buffer swapped = make_buffer(run.bytes().size());
        device::cpu::decode(swapped.data, run.bytes().data(), saved_numel(file, t), t->Dtype(), Encoding::plain, true);
        sink.write({swapped.data, run.bytes().size()});
    }
}

}  // namespace

}  // namespace io

void save_safetensors(const std::filesystem::path& path, const std::vector<TensorEntry>& entries,
                      const FileMetadata& metadata, const SaveOptions& options) {
    const auto place = io::FilePlace::writing("ornik::save_safetensors", path);
    io::refuse_compression(place, options);
    const io::FilePlan plan = io::plan_file(place, entries, metadata);
    io::OutputFile output(place, path);
    io::write_safetensors(place, plan, output);
    output.commit(options.sync);
}

std::vector<std::byte> safetensors_to_bytes(const std::vector<TensorEntry>& entries, const FileMetadata& metadata) {
    const auto place = io::FilePlace::writing_memory("ornik::safetensors_to_bytes");
    io::MemorySink sink;
    io::write_safetensors(place, io::plan_file(place, entries, metadata), sink);
    return sink.take();
}

SafetensorsFile load_safetensors(const std::filesystem::path& path, LoadMode mode) {
    const auto place = io::FilePlace::reading("ornik::load_safetensors", path);
    return io::parse_safetensors(place, io::open_file(place, path, mode));
}

SafetensorsFile safetensors_from_bytes(std::span<const std::byte> bytes) {
    return io::parse_safetensors(io::FilePlace::reading_memory("ornik::safetensors_from_bytes"),
                                 {bytes, nullptr, LoadMode::copy});
}

}  // namespace ornik
