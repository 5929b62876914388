#include "io/npy.h"

#include <bit>
#include <optional>

#include "io/npy_format.h"
#include "io/output.h"
#include "io/text_cursor.h"

namespace ornik {

namespace io {

namespace {

constexpr std::string_view magic = "\x93NUMPY";
constexpr bool host_is_big = std::endian::native == std::endian::big;
constexpr std::string_view wanted_types =
    "one of b1 u1 i1 i2 i4 i8 f2 f4 f8 c8 c16 u2 u4 behind '<' or '>' ('|' for one byte)";

struct NpyHeader {
    const FileDtype* type = nullptr;
    bool swap = false;
    bool fortran = false;
    Dims shape;
};

// The header's dictionary: Python's syntax for what NumPy writes there, and nothing else.
class HeaderReader : TextCursor {
  public:
    HeaderReader(const FilePlace& place, std::string_view text) : TextCursor(place, text, " \n"), place_(place) {}

    NpyHeader dictionary() {
        expect('{');
        while (!accept('}')) {
            const std::string_view key = string("a key");
            expect(':');
            if (key == "descr" && !descr_) {
                descr_ = true;
                descr();
            } else if (key == "fortran_order" && !fortran_) {
                fortran_ = boolean();
            } else if (key == "shape" && !shape_) {
                shape_ = tuple();
            } else {
                refuse("wanted 'descr', 'fortran_order' and 'shape', once each; found ", in_quotes(key), ".");
            }
            if (!accept(',')) {
                expect('}');
                break;
            }
        }
        finish();
        if (!descr_ || !fortran_ || !shape_) {
            refuse("no ", !descr_ ? "'descr'" : !fortran_ ? "'fortran_order'" : "'shape'", ".");
        }
        header_.fortran = *fortran_;
        header_.shape = *shape_;
        return header_;
    }

  private:
    bool accept_word(std::string_view word) {
        skip_spaces();
        const bool is_there = rest().starts_with(word);
        skip(is_there ? word.size() : 0);
        return is_there;
    }

    std::string_view string(std::string_view what) {
        const char quote = accept('\'') ? '\'' : '"';
        if (quote == '"' && !accept('"')) {
            refuse("wanted ", what, " in quotes, found ", found(), ".");
        }
        const std::size_t end = rest().find(quote);
        if (end == std::string_view::npos) {
            refuse("a text has no end.");
        }
        const std::string_view value = rest().substr(0, end);
        skip(end + 1);
        return value;
    }

    bool boolean() {
        if (accept_word("True")) {
            return true;
        }
        if (!accept_word("False")) {
            refuse("wanted True or False, found ", found(), ".");
        }
        return false;
    }

    Dims tuple() {
        Dims values;
        expect('(');
        while (!accept(')')) {
            values.push_back(digits("an extent"));
            skip(next_is_one_of("L") ? 1 : 0);  // Python 2 wrote long integers so.
            if (accept(',')) {
                continue;
            }
            if (expect(')'); values.size() == 1) {
                refuse("wanted a tuple, found a number in parentheses.");
            }
            break;
        }
        return values;
    }

    void descr() {
        if (accept('[')) {
            refuse("'descr' is a structure; wanted ", wanted_types, ".");
        }
        const std::string_view name = string("the element type");
        const char order = name.empty() ? ' ' : name[0];
        const std::string_view kind = name.substr(name.empty() ? 0 : 1);
        header_.type = find_npy_dtype(kind);
        const bool one_byte = header_.type != nullptr && header_.type->item_size == 1;
        if (header_.type == nullptr || !(order == '<' || order == '>' || (order == '|' && one_byte))) {
            fail(ErrorKind::dtype, place_.at(), place_.text(), "elements of type ", in_quotes(name),
                 " are not supported; wanted ", wanted_types, ".");
        }
        header_.swap = !one_byte && (order == '>') != host_is_big;
    }

    const FilePlace& place_;
    NpyHeader header_;
    bool descr_ = false;
    std::optional<bool> fortran_;
    std::optional<Dims> shape_;
};

}  // namespace

std::unique_ptr<Tensor> parse_npy(const FilePlace& place, const FileBytes& file) {
    const std::string_view text(reinterpret_cast<const char*>(file.bytes.data()), file.bytes.size());
    if (text.substr(0, magic.size()) != magic) {
        fail(place.at(), place.text(), "no NumPy file: it does not start with \\x93NUMPY.");
    }
    const auto byte = [text](std::size_t i) { return static_cast<std::size_t>(static_cast<unsigned char>(text[i])); };
    const std::size_t version = text.size() < 8 ? 1 : byte(6);
    const std::size_t begin = version == 1 ? 10 : 12;
    if (version < 1 || version > 3 || (text.size() >= 8 && byte(7) != 0)) {
        fail(place.at(), place.text(), "format version ", byte(6), ".", byte(7), "; known are 1.0, 2.0 and 3.0.");
    }
    if (text.size() < begin) {
        fail(place.at(), place.text(), "it ends after ", text.size(), " bytes, within the fixed part of its header.");
    }
    const std::size_t length = byte(8) | byte(9) << 8U | (version == 1 ? 0 : byte(10) << 16U | byte(11) << 24U);
    if (length > text.size() - begin) {
        fail(place.at(), place.text(), "a header of ", length, " bytes; ", text.size() - begin,
             " bytes are left in the file.");
    }
    const NpyHeader header = HeaderReader(place, text.substr(begin, length)).dictionary();
    const std::int64_t wanted = checked_bytes(place, header.shape, header.type->item_size);
    const std::size_t left = text.size() - begin - length;
    if (static_cast<std::uint64_t>(wanted) != left) {
        fail(place.at(), place.text(), "shape ", tuple_text(header.shape), " takes ", wanted,
             " bytes behind the header; there are ", left, ".");
    }
    return tensor_over(file.part(begin + length, left), *header.type, header.shape, header.fortran, header.swap);
}

NpyFile make_npy(const FilePlace& place, const Tensor* t) {
    ElementRun elements(place, t, true);
    const FileDtype& type = file_dtype(t->Dtype());
    const char order = type.item_size == 1 ? '|' : host_is_big ? '>' : '<';
    std::string text = std::string("{'descr': '") + order + std::string(type.npy) +
                       "', 'fortran_order': " + (elements.fortran() ? "True" : "False") +
                       ", 'shape': " + tuple_text(t->Shape()) + ", }";
    if (t->ndim() > 0) {
        // As NumPy does: room for the slowest axis to become 21 digits long, should the array grow in place.
        const std::int64_t slowest = elements.fortran() ? t->Shape().back() : t->Shape().front();
        text.append(21 - std::to_string(slowest).size(), ' ');
    }
    constexpr std::size_t fixed = 10;
    constexpr std::size_t alignment = 64;
    text.append(alignment - (fixed + text.size() + 1) % alignment, ' ');
    text += '\n';
    const std::string length{static_cast<char>(text.size() & 0xFFU), static_cast<char>(text.size() >> 8U)};
    return {std::string(magic) + std::string("\1\0", 2) + length + text, std::move(elements)};
}

namespace {

void write_npy(ByteSink& sink, const NpyFile& file) {
    sink.write(bytes_of_text(file.header));
    sink.write(file.elements.bytes());
}

}  // namespace

}  // namespace io

void save_npy(const std::filesystem::path& path, const Tensor* t, const SaveOptions& options) {
    const auto place = io::FilePlace::writing("ornik::save_npy", path);
    io::refuse_compression(place, options);
    const io::NpyFile file = io::make_npy(place, t);
    io::OutputFile output(place, path);
    io::write_npy(output, file);
    output.commit(options.sync);
}

std::vector<std::byte> npy_to_bytes(const Tensor* t) {
    const auto place = io::FilePlace::writing_memory("ornik::npy_to_bytes");
    io::MemorySink sink;
    io::write_npy(sink, io::make_npy(place, t));
    return sink.take();
}

std::unique_ptr<Tensor> load_npy(const std::filesystem::path& path, LoadMode mode) {
    const auto place = io::FilePlace::reading("ornik::load_npy", path);
    return io::parse_npy(place, io::open_file(place, path, mode));
}

std::unique_ptr<Tensor> npy_from_bytes(std::span<const std::byte> bytes) {
    return io::parse_npy(io::FilePlace::reading_memory("ornik::npy_from_bytes"), {bytes, nullptr, LoadMode::copy});
}

}  // namespace ornik
