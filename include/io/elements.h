// elements.h: tensors over the bytes of a file, and the bytes of a tensor. Internal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string_view>

#include "../hardware/cpu/copy/cpu_decode.h"
#include "named_tensors.h"
#include "place.h"

namespace ornik::io {

using ByteSpan = std::span<const std::byte>;

inline ByteSpan bytes_of_text(std::string_view text) { return std::as_bytes(std::span(text)); }

/// The most axes of a tensor.
inline constexpr std::size_t most_axes = 29;

/// An element type of files.
struct FileDtype {
    std::string_view npy;          // kind and size of a 'descr'; empty: not in such files
    std::string_view safetensors;  // empty: not in such files
    std::int64_t item_size;        // in the file
    std::int64_t dtype;            // of the tensor
    Encoding encoding;
};

/// Null for a type that can not be read.
const FileDtype* find_npy_dtype(std::string_view name);
const FileDtype* find_safetensors_dtype(std::string_view name);
/// The type that a dtype is written as.
const FileDtype& file_dtype(std::int64_t dtype);

/// Bytes of a file, and how tensors may use them.
struct FileBytes {
    ByteSpan bytes;
    std::shared_ptr<const void> owner;  // keeps them alive; null when somebody else does
    LoadMode mode = LoadMode::copy;     // anything else needs an owner

    FileBytes part(std::size_t begin, std::size_t size) const { return {bytes.subspan(begin, size), owner, mode}; }
};

/// The contents of a file, mapped where the system can.
FileBytes open_file(const FilePlace& place, const std::filesystem::path& path, LoadMode mode);

/// `size` bytes of the library's memory, to be filled, aligned as tensors are.
struct Buffer {
    std::byte* data;
    std::shared_ptr<const void> owner;
};
Buffer make_buffer(std::size_t size);

/// Bytes that a tensor has in a file. Fails for more axes, elements or bytes than a tensor can have.
std::int64_t checked_bytes(const FilePlace& place, const Dims& shape, std::int64_t item_size);

/// The tensor whose elements the bytes are, exactly: in row-major order, or first axis fastest with `fortran`; with
/// `swap`, in the byte order that is not this machine's. Shared or copied as the bytes' mode says.
std::unique_ptr<Tensor> tensor_over(const FileBytes& source, const FileDtype& type, const Dims& shape, bool fortran,
                                    bool swap);

/// The elements of a tensor as one run of bytes: where they lie, or copied together.
class ElementRun {
  public:
    /// Row-major; with `any_order`, first axis fastest when they lie so. The tensor is to outlive this. Fails for a
    /// tensor that no file can hold.
    ElementRun(const FilePlace& place, const Tensor* t, bool any_order);

    ByteSpan bytes() const { return bytes_; }
    bool fortran() const { return fortran_; }

  private:
    std::unique_ptr<Tensor> copy_;
    ByteSpan bytes_;
    bool fortran_ = false;
};

/// Fails for null, sparse and undescribed tensors, and for more than most_axes axes.
void check_saveable(const FilePlace& place, const Tensor* t);
/// The elements that its shape counts: a tensor without axes may claim more than the one it shows.
std::int64_t saved_numel(const FilePlace& place, const Tensor* t);

}  // namespace ornik::io
