// output.h: where the writers of files put their bytes. Internal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "elements.h"

namespace ornik::io {

class ByteSink {
  public:
    virtual ~ByteSink() = default;
    virtual void write(ByteSpan bytes) = 0;
    /// Replaces bytes that were written before.
    virtual void overwrite(std::uint64_t position, ByteSpan bytes) = 0;
};

class MemorySink final : public ByteSink {
  public:
    void write(ByteSpan bytes) override;
    void overwrite(std::uint64_t position, ByteSpan bytes) override;
    std::vector<std::byte> take() { return std::move(bytes_); }

  private:
    std::vector<std::byte> bytes_;
};

/// A file that appears under its name when all of it is written. Until commit(), it stands beside the old one under a
/// name of its own; without commit(), it goes.
class OutputFile final : public ByteSink {
  public:
    OutputFile(FilePlace place, const std::filesystem::path& path);
    ~OutputFile() override;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void write(ByteSpan bytes) override;
    void overwrite(std::uint64_t position, ByteSpan bytes) override;
    /// With `sync`, contents and name are on the disk when this returns.
    void commit(bool sync);

  private:
    [[noreturn]] void fail_with(int error) const;
    [[noreturn]] void fail_with(const std::error_code& error) const;

    FilePlace place_;
    std::filesystem::path path_;
    std::filesystem::path temporary_;
    std::FILE* file_ = nullptr;
};

/// Fails when compression is asked for; for the formats that have none.
void refuse_compression(const FilePlace& place, const SaveOptions& options);

}  // namespace ornik::io
