// Files that lie, and what is said about them.
#include <gtest/gtest.h>

#include "io/npy.h"
#include "io/npz.h"
#include "io/safetensors.h"
#include "io/zip.h"
#include "support/expect_error.h"
#include "support/files.h"
#include "support/tensors.h"
#include "tensor/tensor_sparse.h"

namespace ornik::test {
namespace {

struct Hostile {
    std::string bytes;
    std::string message;
    std::string file;
};

template <typename Read>
void expect_all(const std::vector<Hostile>& rows, const Read& read, const std::string& function) {
    for (const Hostile& row : rows) {
        expect_error([&] { read(as_bytes(row.bytes)); }, "Can not read bytes in memory" + row.message, function,
                     row.file);
    }
}

// A text with its escapes resolved.
std::string plain(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            bytes += text[i];
        } else if (text[++i] == 'x') {
            bytes += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            bytes += text[i] == 'n' ? '\n' : text[i] == 't' ? '\t' : text[i];
        }
    }
    return bytes;
}

// The headers that refusals.txt lists, in quotes, below the name of a format, each above what is said about it.
std::vector<Hostile> refused_headers(const std::string& format, std::string (*file)(const std::string& header)) {
    std::vector<Hostile> rows;
    std::ifstream lines(std::filesystem::path(ORNIK_TEST_FILES).parent_path() / "refusals.txt");
    std::string section;
    for (std::string line, message; std::getline(lines, line);) {
        if (line[0] != ' ') {
            section = line;
        } else if (std::getline(lines, message) && section == format) {
            message = plain(message.substr(4));
            rows.push_back({file(plain(line.substr(3, line.size() - 4))), message,
                            message.find("header, byte") != std::string::npos    ? "include/io/text_cursor.h"
                            : message.find("more elements") != std::string::npos ? "src/io/elements.cpp"
                                                                                 : "src/io/" + format + ".cpp"});
        }
    }
    EXPECT_GT(rows.size(), 25U) << format;
    return rows;
}

TEST(HostileFiles, Npy) {
    const std::string four = std::string(4, 'x');
    std::vector<Hostile> rows = refused_headers("npy", [](const std::string& text) { return npy_file(text, "xxxx"); });
    const auto add = [&rows](const std::string& bytes, const std::string& message) {
        rows.push_back({bytes, ": " + message, "src/io/npy.cpp"});
    };
    add("", "no NumPy file: it does not start with \\x93NUMPY.");
    add("\x93NUMPX\1", "no NumPy file: it does not start with \\x93NUMPY.");
    add("\x93NUMPY", "it ends after 6 bytes, within the fixed part of its header.");
    add(std::string("\x93NUMPY\2\0\1\0\0", 11), "it ends after 11 bytes, within the fixed part of its header.");
    add(std::string("\x93NUMPY\4\0\1\0\0\0", 12), "format version 4.0; known are 1.0, 2.0 and 3.0.");
    add(std::string("\x93NUMPY\1\1\1\0", 10), "format version 1.1; known are 1.0, 2.0 and 3.0.");
    add(std::string("\x93NUMPY\1\0\xFF\xFF{}", 12), "a header of 65535 bytes; 2 bytes are left in the file.");
    add(std::string("\x93NUMPY\3\0\xFF\xFF\xFF\xFF{}", 14),
        "a header of 4294967295 bytes; 2 bytes are left in the file.");
    const auto shape = [&](const std::string& text) {
        return npy_file("{'descr': '<f4', 'fortran_order': True, 'shape': " + text + ", }", four);
    };
    add(shape("(2,)"), "shape (2,) takes 8 bytes behind the header; there are 4.");
    add(shape("(3, 0)"), "shape (3, 0) takes 0 bytes behind the header; there are 4.");
    add(npy_file("{'descr':'|u1','fortran_order':False,'shape':()}", four, 2),
        "shape () takes 1 bytes behind the header; there are 4.");
    const std::string ones = "(1" + [] {
        std::string text;
        for (int i = 0; i < 29; ++i) {
            text += ", 1";
        }
        return text;
    }() + ")";
    rows.push_back({shape(ones), ": a shape of 30 axes; a tensor has at most 29.", "src/io/elements.cpp"});
    rows.push_back({shape("(0, 9223372036854775807)"),
                    ": more elements than a tensor can have: shape (0, 9223372036854775807).", "src/io/elements.cpp"});
    expect_all(
        rows, [](auto bytes) { return npy_from_bytes(bytes); }, "ornik::npy_from_bytes");
    // Python 2 wrote long integers with a letter.
    EXPECT_EQ(npy_from_bytes(as_bytes(shape("(1L, 1L)")))->Shape(), (Dims{1, 1}));
}

TEST(HostileFiles, Safetensors) {
    const std::string own = "src/io/safetensors.cpp";
    const auto entry = [](const std::string& dtype, const std::string& shape, const std::string& offsets) {
        return R"("a":{"dtype":")" + dtype + R"(","shape":[)" + shape + R"(],"data_offsets":[)" + offsets + "]}";
    };
    std::vector<Hostile> rows =
        refused_headers("safetensors", [](const std::string& text) { return safetensors_file(text, "12345678"); });
    rows.insert(rows.end(),
                {{"abc", ": it ends after 3 bytes; the header's length takes 8.", own},
                 {little_endian(100'000'001, 8), ": a header of 100000001 bytes; at most 100000000 are allowed.", own},
                 {little_endian(~0ULL, 8) + "{}",
                  ": a header of 18446744073709551615 bytes; at most 100000000 are allowed.", own},
                 {little_endian(3, 8) + "{}", ": a header of 3 bytes; 2 bytes are left in the file.", own},
                 {safetensors_file("{}", "x"), ": the file has 1 bytes of data, the entries use 0.", own}});
    expect_all(
        rows, [](auto bytes) { return safetensors_from_bytes(bytes); }, "ornik::safetensors_from_bytes");

    const SafetensorsFile good = safetensors_from_bytes(as_bytes(safetensors_file(
        "{\"__metadata__\" : { \"\\u00e9\\ud83d\\ude00\\/\\b\" : \"\\\\\" }\t,\r\n" + entry("I8", "8", "0,8") + "  }  ",
        "12345678")));
    EXPECT_EQ(good.metadata, (FileMetadata{{"é😀/\b", "\\"}}));
    // A text of the metadata makes complex numbers of pairs; any other does not.
    for (const bool marked : {false, true}) {
        const std::string text = std::string("{\"__metadata__\":{\"dtype:a\":\"complex") + (marked ? "128" : "64") +
                                 "\"}," + entry("F64", "1,2", "0,16") + "}";
        const SafetensorsFile read = safetensors_from_bytes(as_bytes(safetensors_file(text, std::string(16, '\0'))));
        EXPECT_EQ(read.tensors.at(0).tensor->Dtype(), marked ? dtype::complex128 : dtype::float64);
        EXPECT_EQ(read.metadata.size(), marked ? 0U : 1U);
    }
}

std::string zip_of(const std::vector<std::pair<std::string, std::string>>& entries, bool compress = false,
                   std::uint64_t zip64_from = 0xFFFFFFFF) {
    io::MemorySink sink;
    io::ZipWriter zip(sink, compress, zip64_from);
    for (const auto& [name, contents] : entries) {
        zip.add(name, {as_bytes(contents)});
    }
    zip.finish();
    return as_text(sink.take());
}

std::string patched(std::string bytes, std::size_t at, const std::string& patch) {
    return bytes.replace(at, patch.size(), patch);
}

TEST(HostileFiles, Npz) {
    const std::string reader = "src/io/zip_reader.cpp";
    const TensorPtr t = make<float>({3}, {1, 2, 3});
    const std::string npy = as_text(npy_to_bytes(t.get()));  // 128 + 12 bytes
    const std::string good = zip_of({{"a.npy", npy}, {"b.npy", npy}});
    ASSERT_EQ(npz_from_bytes(as_bytes(good)).size(), 2U);
    const std::size_t size = good.size();
    const std::size_t end = size - 22;
    const std::size_t first = good.find("PK\1\2"), second = good.find("PK\1\2", first + 1);
    const std::size_t local_b = good.find("PK\3\4", 4);
    const auto text = [](std::size_t number) { return std::to_string(number); };
    const std::string in_b = ", entry 'b.npy': ";
    std::vector<Hostile> rows;
    const auto add = [&](const std::string& bytes, const std::string& message, const std::string& file = "") {
        rows.push_back({bytes, message, file.empty() ? reader : file});
    };
    const auto patch = [&](std::size_t at, std::uint64_t number, std::size_t bytes, const std::string& message,
                           const std::string& file = "") {
        add(patched(good, at, little_endian(number, bytes)), message, file);
    };
    add("", ": no zip archive, or cut short: its end record is missing.");
    add(good + "x", ": no zip archive, or cut short: its end record is missing.");
    patch(end + 4, 1, 2, ": the archive spans several disks.");
    patch(end + 8, 1, 2, ": the archive spans several disks.");
    patch(end + 16, first + 1, 4,
          ": a directory of " + text(end - first) + " bytes at " + text(first + 1) +
              " does not end at its end record, at " + text(end) + ".");
    patch(end + 8, 0x00070007, 4, ": a directory of 7 entries does not fit into " + text(end - first) + " bytes.");
    patch(end + 8, 0x00010001, 4, ": " + text(end - second) + " bytes are left in the directory behind its 1 entries.");
    patch(first + 28, 0xFFFF, 2, ": record 0 of the directory is broken, at " + text(first) + ".");
    patch(second, 0, 4, ": record 1 of the directory is broken, at " + text(second) + ".");
    patch(second + 8, 1, 2, in_b + "it is encrypted.");
    patch(second + 8, 1 << 6, 2, in_b + "method 0 with flags 64; only stored and deflated entries can be read.");
    patch(second + 10, 12, 2, in_b + "method 12 with flags 0; only stored and deflated entries can be read.");
    patch(second + 34, 3, 2, in_b + "it is on another disk.");
    patch(second + 20, 141, 4, in_b + "140 bytes can not come from 141 in the archive.");
    patch(second + 10, 8, 2, in_b + "its own header and the directory disagree on method, sizes or checksum.");
    patch(second + 16, 0, 4, in_b + "its own header and the directory disagree on method, sizes or checksum.");
    patch(local_b + 22, 0, 4, in_b + "its own header and the directory disagree on method, sizes or checksum.");
    patch(second + 42, 5, 4, in_b + "its header is not where the directory says, at 5.");
    patch(second + 42, 0xFFFFFFF0, 4, in_b + "its header is not where the directory says, at 4294967280.");
    patch(second + 42, 0, 4, in_b + "its own header names it 'a.npy'.");
    patch(local_b + 28, 0xFFFF, 2,
          in_b + "140 bytes at " + text(local_b) + " reach into the directory, which begins at " + text(first) + ".");
    patch(second + 46, 'a', 1, ", entry 'a.npy': the name comes twice.");
    patch(first - 1, 0x7F, 1,
          in_b + "its checksum is " + text(io::crc32(as_bytes(patched(npy, 139, "\x7F")))) + ", the directory says " +
              text(io::crc32(as_bytes(npy))) + ".",
          "src/io/deflate.cpp");
    add(zip_of({{"a.npy", npy}, {"b.npy", "garbage"}}), in_b + "no NumPy file: it does not start with \\x93NUMPY.",
        "src/io/npy.cpp");
    add(zip_of({{"a.npy", npy}, {"b.txt", npy}}), ", entry 'b.txt': the name does not end in '.npy'.",
        "src/io/npz.cpp");
    for (const std::string name : {"../a", "/a", "a/../b", "a//b", "./a", "a/", "C:a", "a\\b", "a\nb"}) {
        const std::string shown = name == "a\nb" ? "a\\x0ab" : name;
        add(zip_of({{name + ".npy", npy}}), ", entry '" + shown + ".npy': the name is no plain path.",
            "src/io/npz.cpp");
    }
    add(zip_of({{".npy", npy}}), ", entry '.npy': the name is empty.", "src/io/npz.cpp");
    const std::string accent = zip_of({{"\xC3\xA9.npy", npy}});
    add(zip_of({{"\xC3.npy", npy}}), ", entry '\\xc3.npy': the name is no UTF-8, or is not marked as such.");
    add(patched(accent, accent.find("PK\1\2") + 9, std::string(1, '\0')),
        ", entry 'é.npy': the name is no UTF-8, or is not marked as such.");

    // A record that would begin in the last one's name, and end behind the directory.
    const std::string short_of = zip_of({{"a.npy", npy}, {"PK\1\2" + std::string(20, 'n'), npy}});
    const std::size_t name_at = short_of.rfind("PK\1\2");
    add(patched(short_of, short_of.find("PK\1\2", first) + 32, little_endian(46, 2)),
        ": record 1 of the directory is broken, at " + text(name_at) + ".");

    // An entry inside another one's bytes.
    const std::string inner = zip_of({{"b.npy", npy}}), outer = zip_of({{"a.npy", inner}, {"b.npy", npy}});
    const std::size_t inside = outer.find("PK\3\4", 4);
    const std::string nested = patched(outer, outer.rfind("PK\1\2") + 42, little_endian(inside, 4));
    add(nested, in_b + "it begins at " + text(inside) + ", but 'a.npy' ends at " + text(inside + inner.size()) + ".");

    const std::string wide = zip_of({{"a.npy", npy}}, false, 1);
    const std::size_t wide_end = wide.find("PK\6\6");
    add(patched(wide, wide.find("PK\6\7") + 8, little_endian(wide_end + 1, 8)),
        ": the zip64 end record is not where its locator says, at " + text(wide_end + 1) + ".");
    add(patched(wide, wide.find("PK\1\2") + 46 + 5 + 2, little_endian(60, 2)),
        ", entry 'a.npy': an extra field of 60 bytes; 24 bytes are left for it.");

    const std::string packed = zip_of({{"a.npy", npy}, {"b.npy", npy}}, npz_can_compress());
    if (npz_can_compress()) {
        const std::size_t record = packed.rfind("PK\1\2");
        const std::size_t local = packed.find("PK\3\4", 4);
        const auto lying = [&](std::uint64_t claimed) {
            return patched(patched(packed, record + 24, little_endian(claimed, 4)), local + 22,
                           little_endian(claimed, 4));
        };
        for (const std::size_t claimed : {139, 141, 0}) {
            add(lying(claimed),
                in_b + "its packed bytes are broken, or do not give the " + text(claimed) +
                    " bytes that the directory says.",
                "src/io/deflate.cpp");
        }
        const std::uint64_t bytes = static_cast<unsigned char>(packed[record + 20]);
        add(lying(0xFFFFFFF0), in_b + "4294967280 bytes can not come from " + text(bytes) + " in the archive.");
        add(patched(packed, local + 40, "\xFF\xFF\xFF"),
            in_b + "its packed bytes are broken, or do not give the 140 bytes that the directory says.",
            "src/io/deflate.cpp");
    }
    expect_all(
        rows, [](auto bytes) { return npz_from_bytes(bytes); }, "ornik::npz_from_bytes");
}

TEST(HostileFiles, EveryTruncationIsRefused) {
    for (const auto& entry : std::filesystem::directory_iterator(ORNIK_TEST_FILES)) {
        const std::string bytes = read_file(entry.path());
        const std::string kind = entry.path().extension().string();
        for (std::size_t n = 0; kind != ".py" && n < bytes.size(); ++n) {
            const std::string part = bytes.substr(0, n);
            const auto read = [&] {
                if (kind == ".npy") {
                    npy_from_bytes(as_bytes(part));
                } else if (kind == ".npz") {
                    npz_from_bytes(as_bytes(part));
                } else {
                    safetensors_from_bytes(as_bytes(part));
                }
            };
            EXPECT_THROW(read(), Error) << entry.path() << " " << n;
        }
    }
}

TEST(HostileFiles, WhatCanNotBeOpenedOrWritten) {
    const TemporaryFolder folder;
    const auto absent = folder / "no" / "file";
    const auto quoted = [](const std::filesystem::path& path) { return "'" + path.string() + "'"; };
    const std::string opening = "src/io/open_file.cpp";
    const auto reading = [&](const std::filesystem::path& path) { return "Can not read " + quoted(path) + ": "; };
    const auto writing = [&](const std::filesystem::path& path) { return "Can not write " + quoted(path) + ": "; };
    const TensorPtr t = make<float>({2}, {1, 2});
    const TensorPtr c = make<Complex<double>>({1}, {{1, 2}});
    const TensorPtr pairs = make<double>({1, 2}, {1, 2});
    const TensorPtr sparse(to_csr(make<float>({2, 2}, {1, 0, 0, 2}).get()));
    write_file(folder / "empty", "");
    expect_error([&] { load_npy(absent); }, reading(absent) + "No such file or directory.", "ornik::load_npy", opening);
    expect_error([&] { load_npz(folder / ""); }, reading(folder / "") + "it is not a regular file.", "ornik::load_npz",
                 opening);
    expect_error([&] { load_safetensors(folder / "empty"); },
                 reading(folder / "empty") + "it ends after 0 bytes; the header's length takes 8.",
                 "ornik::load_safetensors", "src/io/safetensors.cpp");
    expect_error([&] { save_npy(absent, t.get()); }, writing(absent) + "No such file or directory.", "ornik::save_npy",
                 "src/io/output.cpp");
    expect_error([&] { save_npy(folder / "", t.get()); }, writing(folder / "") + "it is not a regular file.",
                 "ornik::save_npy", "src/io/output.cpp");
    expect_error([&] { save_npy(folder / "x", t.get(), {.compress = true}); },
                 writing(folder / "x") + "the format has no compression.", "ornik::save_npy", "src/io/output.cpp");
    EXPECT_EQ(folder.entries(), 1U);

    const std::string bad_name = "Can not write bytes in memory, entry ";
    const auto archive = [](const std::vector<TensorEntry>& entries) { return [entries] { npz_to_bytes(entries); }; };
    const Refusal archives[] = {
        {"npz", archive({{"a", t.get()}, {"a", t.get()}}), "'a': the name comes twice."},
        {"npz", archive({{"../a", t.get()}}), "'../a': the name is no plain path."},
        {"npz", archive({{"\xFF", t.get()}}), "'\\xff': the name is no UTF-8."},
        {"npz", archive({{std::string(70'000, 'a'), t.get()}}),
         "'" + std::string(100, 'a') + "...': the name is longer than an archive can hold."},
        {"elements", archive({{"s", sparse.get()}}), "'s': only dense tensors can be written."},
    };
    for (const Refusal& row : archives) {
        expect_error(row.call, bad_name + row.message, "ornik::npz_to_bytes", "src/io/" + row.function + ".cpp");
    }
    const auto tensors = [](const std::string& name, const Tensor* value, const FileMetadata& metadata = {}) {
        return [=] { safetensors_to_bytes({{name, value}, {"b", value}}, metadata); };
    };
    const Refusal named[] = {
        {"", tensors("b", t.get()), "'b': the name comes twice."},
        {"", tensors("__metadata__", t.get()), "'__metadata__': the name is taken."},
        {"", tensors("\xFF", t.get()), "'\\xff': the name '\\xff' is no UTF-8."},
        {"", tensors("c", c.get(), {{"dtype:c", "x"}}), "'c': the metadata's key 'dtype:c' is taken."},
        {"", tensors("p", pairs.get(), {{"dtype:p", "complex128"}}), "'p': the metadata's key 'dtype:p' is taken."}};
    for (const Refusal& row : named) {
        expect_error(row.call, bad_name + row.message, "ornik::safetensors_to_bytes", "src/io/safetensors.cpp");
    }
    expect_error(tensors("t", t.get(), {{"k", "\xFF"}}),
                 "Can not write bytes in memory: the metadata's text '\\xff' is no UTF-8.",
                 "ornik::safetensors_to_bytes", "src/io/safetensors.cpp");
}

}  // namespace
}  // namespace ornik::test
