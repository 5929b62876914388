// Tensors to files and back, files of other writers, and how tensors hold a file.
#include "support/files.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <csignal>
#include <cstring>

#include "io/npy.h"
#include "io/npz.h"
#include "io/safetensors.h"
#include "io/zip.h"
#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/make_tensor.h"

#if !defined(_WIN32)
#include <sys/resource.h>
#endif

namespace ornik::test {
namespace {

namespace fs = std::filesystem;
constexpr LoadMode all_modes[] = {LoadMode::copy_on_write, LoadMode::read_only, LoadMode::copy};

struct Trip {
    std::string name;
    std::function<TensorPtr(const Tensor*)> run;
};

// Each way out of the library and back. Another tensor goes along where a file can hold two.
std::vector<Trip> all_trips(const TemporaryFolder& folder, const Tensor* other) {
    std::vector<Trip> trips{
        {"npy bytes", [](const Tensor* t) { return npy_from_bytes(npy_to_bytes(t)); }},
        {"safetensors bytes", [=](const Tensor* t) {
             return std::move(safetensors_from_bytes(safetensors_to_bytes({{"t", t}})).tensors.at(0).tensor);
         }}};
    for (const bool compress : {false, true}) {
        if (!compress || npz_can_compress()) {
            trips.push_back({"npz bytes", [=](const Tensor* t) {
                                 const auto bytes = npz_to_bytes({{"o", other}, {"t", t}}, {.compress = compress});
                                 return std::move(npz_from_bytes(bytes).at(1).tensor);
                             }});
        }
    }
    for (const LoadMode mode : all_modes) {
        const std::string number = std::to_string(static_cast<int>(mode));
        const auto path = [&folder](const char* name) { return folder / name; };
        trips.push_back({"npy " + number, [=](const Tensor* t) {
                             save_npy(path("a.npy"), t, {.sync = t->ndim() == 1});
                             return load_npy(path("a.npy"), mode);
                         }});
        trips.push_back({"npz " + number, [=](const Tensor* t) {
                             save_npz(path("ä.npz"), {{"o", other}, {"ü/t", t}});
                             std::vector<NamedTensor> read = load_npz(path("ä.npz"), mode);
                             EXPECT_EQ(read.size(), 2U);
                             EXPECT_EQ(read.at(1).name, "ü/t");
                             EXPECT_EQ(bytes_of(read.at(0).tensor), bytes_of(other));
                             return std::move(read.at(1).tensor);
                         }});
        trips.push_back({"safetensors " + number, [=](const Tensor* t) {
                             save_safetensors(path("a.st"), {{"ü.t", t}, {"o", other}}, {{"ключ", "\"\n\x01\\ü"}});
                             SafetensorsFile read = load_safetensors(path("a.st"), mode);
                             EXPECT_EQ(read.metadata, (FileMetadata{{"ключ", "\"\n\x01\\ü"}}));
                             const std::size_t at = read.tensors.at(0).name == "o" ? 1 : 0;
                             EXPECT_EQ(bytes_of(read.tensors.at(1 - at).tensor), bytes_of(other));
                             EXPECT_EQ(read.tensors.at(at).name, "ü.t");
                             return std::move(read.tensors.at(at).tensor);
                         }});
    }
    return trips;
}

TEST(Files, EveryDtypeAndLayout) {
    const TemporaryFolder folder;
    const TensorPtr other = make<std::int32_t>({3}, {7, -8, 9});
    for (const Trip& trip : all_trips(folder, other.get())) {
        const auto check = [&](const Tensor* t, const std::string& name) {
            const TensorPtr read = trip.run(t);
            ASSERT_TRUE(read) << trip.name << name;
            EXPECT_EQ(read->Dtype(), t->Dtype()) << trip.name << name;
            EXPECT_EQ(read->Shape(), t->Shape()) << trip.name << name;
            EXPECT_EQ(bytes_of(read), bytes_of(t)) << trip.name << name;
        };
        for_types(AllTypes{}, [&]<typename T>() {
            for (const Layout layout : all_layouts) {
                check(make<T>({2, 3, 4}, counted<T>(24, -5), layout).get(), name_of(layout));
            }
            check(make<T>({}, counted<T>(1, 3)).get(), "scalar");
            check(make<T>({1, 5, 1}, counted<T>(5)).get(), "ones");
            check(make_tensor({3, 0, 2}, dtype_code<T>).get(), "empty");
            const TensorPtr row = make<T>({1, 4}, counted<T>(4));
            check(TensorPtr(share_storage_tensor(row->getStorage(), {3, 4}, {0, 1}, dtype_code<T>, 0)).get(),
                  "expanded");
        });
    }
    EXPECT_EQ(folder.entries(), 3U);
    EXPECT_TRUE(npz_from_bytes(npz_to_bytes({})).empty());
    EXPECT_TRUE(safetensors_from_bytes(safetensors_to_bytes({})).tensors.empty());
}

fs::path golden(const std::string& name) { return fs::path(ORNIK_TEST_FILES) / name; }

template <typename T>
void expect_tensor(const Tensor* t, const Dims& shape, const std::vector<T>& values) {
    ASSERT_EQ(t->Dtype(), dtype_code<T>);
    EXPECT_EQ(t->Shape(), shape);
    EXPECT_EQ(values_of<T>(t), values);
}

const std::vector<float> quarters{-0.5F, -0.25F, 0, 0.25F, 0.5F, 0.75F};

// Files made by NumPy and the safetensors package; files/make.py says what they hold. What can be written here as it
// was there has the same bytes.
TEST(Files, OfOtherWriters) {
    for (const LoadMode mode : all_modes) {
        const TensorPtr rows = load_npy(golden("rows.npy"), mode);
        expect_tensor<float>(rows.get(), {2, 3}, quarters);
        EXPECT_EQ(as_text(npy_to_bytes(rows.get())), read_file(golden("rows.npy")));

        const TensorPtr columns = load_npy(golden("columns.npy"), mode);
        expect_tensor<std::int16_t>(columns.get(), {2, 3, 4}, counted<std::int16_t>(24));
        EXPECT_EQ(columns->Strides(), (Dims{1, 2, 6}));
        EXPECT_EQ(as_text(npy_to_bytes(columns.get())), read_file(golden("columns.npy")));

        expect_tensor<Complex<double>>(load_npy(golden("big_endian_2.npy"), mode).get(), {2, 1}, {{1, 2}, {0, -0.5}});
        expect_tensor<float>(load_npy(golden("half_3.npy"), mode).get(), {4}, {1.5F, -2, 65504, 0x1p-24F});

        const std::vector<NamedTensor> stored = load_npz(golden("stored.npz"), mode);
        ASSERT_EQ(stored.size(), 4U);
        EXPECT_EQ(stored[0].name + stored[1].name + stored[2].name + stored[3].name, "wgröße/bscalarnone");
        expect_tensor<float>(stored[0].tensor.get(), {2, 3}, quarters);
        expect_tensor<bool>(stored[1].tensor.get(), {3}, {true, false, true});
        expect_tensor<double>(stored[2].tensor.get(), {}, {7});
        expect_tensor<std::int64_t>(stored[3].tensor.get(), {0, 2}, {});

        const SafetensorsFile mixed = load_safetensors(golden("mixed.safetensors"), mode);
        EXPECT_EQ(mixed.metadata, (FileMetadata{{"note", "line\n\"two\" \\ ü"}}));
        ASSERT_EQ(mixed.tensors.size(), 8U);
        expect_tensor<std::int64_t>(mixed.tensors[0].tensor.get(), {2, 1}, {-1, std::int64_t{1} << 40});
        expect_tensor<double>(mixed.tensors[1].tensor.get(), {}, {2.5});
        expect_tensor<Complex<float>>(mixed.tensors[2].tensor.get(), {1}, {{1, -2}});
        expect_tensor<float>(mixed.tensors[3].tensor.get(), {2, 3}, quarters);
        expect_tensor<std::int32_t>(mixed.tensors[4].tensor.get(), {0, 3}, {});
        expect_tensor<float>(mixed.tensors[5].tensor.get(), {2}, {0.25F, -3});
        expect_tensor<std::uint8_t>(mixed.tensors[6].tensor.get(), {3}, {3, 4, 5});
        expect_tensor<bool>(mixed.tensors[7].tensor.get(), {3}, {true, false, true});
        EXPECT_EQ(mixed.tensors[7].name, "größe");

        // All but the halves, which have become float32, in another order: the bytes do not depend on it.
        std::vector<TensorEntry> entries;
        for (const NamedTensor& item : mixed.tensors) {
            entries.insert(entries.begin(), {item.name, item.tensor.get()});
        }
        std::string bytes = as_text(safetensors_to_bytes(entries, mixed.metadata));
        const std::string header = bytes.substr(8, bytes.rfind('}') - 7);
        const std::string wanted = R"({"__metadata__":{"note":"line\n\"two\" \\ ü"},)"
                                   R"("i":{"dtype":"I64","shape":[2,1],"data_offsets":[0,16]},)"
                                   R"("f":{"dtype":"F64","shape":[],"data_offsets":[16,24]},)"
                                   R"("c":{"dtype":"C64","shape":[1],"data_offsets":[24,32]},)"
                                   R"("half":{"dtype":"F32","shape":[2],"data_offsets":[32,40]},)"
                                   R"("w":{"dtype":"F32","shape":[2,3],"data_offsets":[40,64]},)"
                                   R"("none":{"dtype":"I32","shape":[0,3],"data_offsets":[64,64]},)"
                                   R"("u":{"dtype":"U8","shape":[3],"data_offsets":[64,67]},)"
                                   R"("größe":{"dtype":"BOOL","shape":[3],"data_offsets":[67,70]}})";
        EXPECT_EQ(header, wanted);
        EXPECT_EQ(bytes.size() - 70, (8 + wanted.size() + 7) / 8 * 8);

        if (npz_can_compress()) {
            const std::vector<NamedTensor> deflated = load_npz(golden("deflated.npz"), mode);
            expect_tensor<float>(deflated.at(0).tensor.get(), {2, 3}, quarters);
            std::vector<std::int32_t> hundreds = counted<std::int32_t>(2000);
            for (std::int32_t& value : hundreds) {
                value /= 100;
            }
            expect_tensor<std::int32_t>(deflated.at(1).tensor.get(), {2000}, hundreds);
        } else {
            expect_error([&] { load_npz(golden("deflated.npz"), mode); },
                         "Can not read '" + golden("deflated.npz").string() +
                             "', entry 'w.npy': it is deflated, and this build of the library has no zlib.",
                         "ornik::load_npz", "src/io/deflate.cpp");
        }
    }
}

std::string npy_of(const std::string& descr, std::size_t n, const std::string& data) {
    return npy_file("{'descr': '" + descr + "', 'fortran_order': False, 'shape': (" + std::to_string(n) + ",)}", data);
}

TEST(Files, HalvesAndUnsignedNumbersAreWidened) {
    std::string words;
    for (std::uint32_t word = 0; word < 0x10000; ++word) {
        words += little_endian(word, 2);
    }
    const TensorPtr half = npy_from_bytes(as_bytes(npy_of("<f2", 0x10000, words)));
    const SafetensorsFile brain = safetensors_from_bytes(
        as_bytes(safetensors_file(R"({"b":{"dtype":"BF16","shape":[65536],"data_offsets":[0,131072]}})", words)));
    const TensorPtr counts = npy_from_bytes(as_bytes(npy_of("<u2", 0x10000, words)));
    for (int word = 0; word < 0x10000; ++word) {
        const int exponent = word >> 10 & 31;
        const double mantissa = word & 1023;
        double value = exponent == 0 ? std::ldexp(mantissa, -24) : std::ldexp(1024 + mantissa, exponent - 25);
        if (exponent == 31) {
            value = mantissa == 0 ? INFINITY : NAN;
        }
        const float found = static_cast<const float*>(half->getRawData())[word];
        ASSERT_EQ(std::isnan(found), std::isnan(value)) << word;
        ASSERT_TRUE(std::isnan(value) || found == (word < 0x8000 ? value : -value)) << word;
        ASSERT_EQ(std::signbit(found), word >= 0x8000) << word;
        const float upper = static_cast<const float*>(brain.tensors.at(0).tensor->getRawData())[word];
        ASSERT_EQ(std::bit_cast<std::uint32_t>(upper), static_cast<std::uint32_t>(word) << 16) << word;
        ASSERT_EQ(static_cast<const std::int32_t*>(counts->getRawData())[word], word);
    }
    expect_tensor<std::int64_t>(npy_from_bytes(as_bytes(npy_of(">u4", 2, "\xFF\xFF\xFF\xFE\1\2\3\4"))).get(), {2},
                                {0xFFFFFFFE, 0x01020304});
    // Any byte but 0 is true, in tensors a bool is 0 or 1.
    expect_tensor<bool>(npy_from_bytes(as_bytes(npy_of("|b1", 3, std::string("\2\0\xFF", 3)))).get(), {3},
                        {true, false, true});
}

TEST(Files, BigEndianOfEveryDtype) {
    for_types(AllTypes{}, [&]<typename T>() {
        const TensorPtr t = make<T>({5}, counted<T>(5, -2));
        std::string file = as_text(npy_to_bytes(t.get()));
        EXPECT_NE(file.find("'fortran_order': False, 'shape': (5,), }"), std::string::npos);
        std::size_t part = sizeof(T);
        if constexpr (requires(T z) { z.imag; }) {
            part /= 2;
        }
        if (part > 1) {
            file.replace(file.find('<'), 1, ">");
        }
        for (std::size_t at = file.size() - 5 * sizeof(T); at < file.size(); at += part) {
            std::reverse(file.begin() + static_cast<std::ptrdiff_t>(at),
                         file.begin() + static_cast<std::ptrdiff_t>(at + part));
        }
        expect_tensor<T>(npy_from_bytes(as_bytes(file)).get(), {5}, counted<T>(5, -2));
    });
}

#if !defined(_WIN32)
TEST(Files, AreSharedAndNeverWrittenTo) {
    const TemporaryFolder folder;
    const TensorPtr a = make<double>({2, 3}, counted<double>(6));
    const TensorPtr b = make<bool>({3}, {true, false, true});
    const auto path = folder / "t";
    const std::vector<Trip> loads{
        {"npy", [&](const Tensor*) { return load_npy(path); }},
        {"npz", [&](const Tensor*) { return std::move(load_npz(path).at(0).tensor); }},
        {"safetensors", [&](const Tensor*) { return std::move(load_safetensors(path).tensors.at(0).tensor); }}};
    for (const Trip& load : loads) {
        const auto save = [&](const Tensor* t) {
            load.name == "npy"   ? save_npy(path, t)
            : load.name == "npz" ? save_npz(path, {{"w", t}, {"b", b.get()}})
                                 : save_safetensors(path, {{"w", t}, {"b", b.get()}});
        };
        save(a.get());
        const std::string file = read_file(path);
        const TensorPtr first = load.run(nullptr), second = load.run(nullptr);
        ASSERT_TRUE(first->getStorage()->is_foreign()) << load.name;
#if defined(__linux__)
        EXPECT_NE(read_file("/proc/self/maps").find(path.string()), std::string::npos) << load.name;
#endif
        first->fill_(-1);
        EXPECT_EQ(values_of<double>(second), counted<double>(6)) << load.name;
        EXPECT_EQ(read_file(path), file) << load.name;
        // Onto the file that it comes from, and into nothing: the map stays.
        save(first.get());
        fs::remove(path);
        EXPECT_EQ(values_of<double>(second), counted<double>(6)) << load.name;
        EXPECT_EQ(values_of<double>(first), std::vector<double>(6, -1)) << load.name;
    }
}

TEST(Files, ModesAndAlignment) {
    const TemporaryFolder folder;
    const auto path = folder / "t";
    // float32 at an odd place, bools that are none in memory and some that are, complex64 between two words.
    const std::string one("\0\0\x80\x3F", 4);
    const std::string data = "\1" + one + std::string("\1\2", 2) + "\1" + one + one + one;
    const std::string odd = R"({"a":{"dtype":"U8","shape":[1],"data_offsets":[0,1]},)"
                            R"("f":{"dtype":"F32","shape":[1],"data_offsets":[1,5]},)"
                            R"("n":{"dtype":"BOOL","shape":[2],"data_offsets":[5,7]},)"
                            R"("b":{"dtype":"BOOL","shape":[1],"data_offsets":[7,8]},)"
                            R"("g":{"dtype":"F32","shape":[1],"data_offsets":[8,12]},)"
                            R"("c":{"dtype":"C64","shape":[1],"data_offsets":[12,20]}})";
    write_file(path, safetensors_file(odd + std::string((8 - odd.size() % 8) % 8, ' '), data));
    for (const LoadMode mode : all_modes) {
        const SafetensorsFile file = load_safetensors(path, mode);
        const bool shared[] = {true, false, false, true, true, false};
        for (std::size_t i = 0; i < std::size(shared); ++i) {
            const auto storage = file.tensors[i].tensor->getStorage();
            EXPECT_EQ(storage->is_foreign(), mode != LoadMode::copy && shared[i]) << i;
            EXPECT_EQ(storage->read_only(), mode == LoadMode::read_only) << i;
        }
        expect_tensor<Complex<float>>(file.tensors[5].tensor.get(), {1}, {{1, 1}});
        expect_tensor<float>(file.tensors[1].tensor.get(), {1}, {1});
        expect_tensor<bool>(file.tensors[2].tensor.get(), {2}, {true, true});
        for (const NamedTensor& item : file.tensors) {
            if (mode == LoadMode::read_only) {
                EXPECT_THROW(item.tensor->fill_(1), Error) << item.name;
            } else {
                item.tensor->fill_(1);
            }
        }
    }
}

TEST(Files, AFailedSaveLeavesTheOldFile) {
    const TemporaryFolder folder;
    const auto path = folder / "old";
    const std::string quoted = "'" + path.string() + "'";
    const TensorPtr big = make<double>({5000}, counted<double>(5000));
    struct Save {
        std::string function;
        std::function<void(const Tensor*)> run;
    };
    const auto entries = [](const Tensor* t) { return std::vector<TensorEntry>(1, TensorEntry{"t", t}); };
    const Save saves[] = {{"ornik::save_npy", [&](const Tensor* t) { save_npy(path, t); }},
                          {"ornik::save_npz", [&](const Tensor* t) { save_npz(path, entries(t)); }},
                          {"ornik::save_safetensors", [&](const Tensor* t) { save_safetensors(path, entries(t)); }}};
    for (const Save& save : saves) {
        const std::string& function = save.function;
        write_file(path, "as it was");
        fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write | fs::perms::others_read);
        // A disk that is full after 20 000 bytes.
        rlimit before{};
        getrlimit(RLIMIT_FSIZE, &before);
        const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit small{20'000, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        const std::string text = error_text([&] { save.run(big.get()); });
        setrlimit(RLIMIT_FSIZE, &before);
        std::signal(SIGXFSZ, old_handler);
        EXPECT_EQ(text, located("Can not write " + quoted + ": File too large.", function, "src/io/output.cpp"));
        EXPECT_EQ(read_file(path), "as it was") << function;
        const std::string entry = function == "ornik::save_npy" ? "" : ", entry 't'";
        expect_error([&] { save.run(nullptr); }, "Can not write " + quoted + entry + ": there is no tensor.", function,
                     "src/io/elements.cpp");
        EXPECT_EQ(read_file(path), "as it was") << function;
        EXPECT_EQ(folder.entries(), 1U) << function;
        // Through a link, and with the old file's permissions.
        fs::create_symlink(path, folder / "link");
        save_npy(folder / "link", big.get());
        EXPECT_TRUE(fs::is_symlink(folder / "link"));
        EXPECT_EQ(fs::file_size(path), 40'128U);
        EXPECT_EQ(fs::status(path).permissions(),
                  fs::perms::owner_read | fs::perms::owner_write | fs::perms::others_read);
        fs::remove(folder / "link");
    }
}
#endif

TEST(Files, Checksums) {
    EXPECT_EQ(io::crc32(as_bytes("123456789")), 0xCBF43926U);
    const std::string text(1000, 'x');
    std::uint32_t bitwise = ~0U;
    for (std::size_t n = 0; n < 40; ++n) {
        const std::string part = text.substr(0, n);
        EXPECT_EQ(io::crc32(as_bytes(part)), ~bitwise) << n;
        EXPECT_EQ(io::crc32(as_bytes(part.substr(n / 3)), io::crc32(as_bytes(part.substr(0, n / 3)))), ~bitwise) << n;
        bitwise ^= static_cast<unsigned char>('x');
        for (int bit = 0; bit < 8; ++bit) {
            bitwise = (bitwise & 1U) != 0 ? bitwise >> 1U ^ 0xEDB88320U : bitwise >> 1U;
        }
    }
}

// Archives as they look beyond 4 GiB: every number that can be wide is.
TEST(Files, WideArchives) {
    const TensorPtr t = make<float>({2, 3}, quarters);
    const std::string contents = as_text(npy_to_bytes(t.get()));
    for (const bool compress : {false, true}) {
        if (compress && !npz_can_compress()) {
            continue;
        }
        for (const std::uint64_t zip64_from : {std::uint64_t{1}, std::uint64_t{300}, std::uint64_t{1} << 32}) {
            io::MemorySink sink;
            io::ZipWriter zip(sink, compress, zip64_from);
            for (const char* name : {"a.npy", "b.npy", "c.npy", "d.npy"}) {
                zip.add(name, {as_bytes(contents)});
            }
            zip.finish();
            const std::string bytes = as_text(sink.take());
            const std::vector<NamedTensor> read = npz_from_bytes(as_bytes(bytes));
            ASSERT_EQ(read.size(), 4U) << zip64_from;
            expect_tensor<float>(read[3].tensor.get(), {2, 3}, quarters);
            EXPECT_EQ(bytes.find("PK\6\6") != std::string::npos, zip64_from < 500) << zip64_from;
        }
    }
}

}  // namespace
}  // namespace ornik::test
