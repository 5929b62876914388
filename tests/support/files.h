// files.h: folders that go away, and whole files as texts.
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <span>
#include <string>
#include <vector>

namespace ornik::test {

/// An empty folder for as long as this lives.
class TemporaryFolder {
  public:
    TemporaryFolder() {
        std::random_device random;
        path_ = std::filesystem::temp_directory_path() /
                ("ornik-test-" + std::to_string(random()) + std::to_string(random()));
        std::filesystem::create_directory(path_);
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path_); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    std::size_t entries() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(path_), {}));
    }

  private:
    std::filesystem::path path_;
};

inline std::string read_file(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::span<const std::byte> as_bytes(const std::string& text) { return std::as_bytes(std::span(text)); }

inline std::string as_text(const std::vector<std::byte>& bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// The number in `size` bytes, the lowest first.
inline std::string little_endian(std::uint64_t number, std::size_t size) {
    std::string bytes;
    for (std::size_t i = 0; i < size; ++i) {
        bytes += static_cast<char>(number >> (8 * i) & 0xFFU);
    }
    return bytes;
}

/// A NumPy file of the given version with this dictionary as its header.
inline std::string npy_file(const std::string& dictionary, const std::string& data, int version = 1) {
    return "\x93NUMPY" + little_endian(static_cast<std::uint64_t>(version), 2) +
           little_endian(dictionary.size(), version == 1 ? 2 : 4) + dictionary + data;
}

/// A safetensors file with this header.
inline std::string safetensors_file(const std::string& header, const std::string& data) {
    return little_endian(header.size(), 8) + header + data;
}

}  // namespace ornik::test
