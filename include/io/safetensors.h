// safetensors.h: named tensors behind one JSON header, and texts about them.
//
// A file is the header's length N in 8 bytes, little endian, N bytes of JSON, at most 100 000 000, and the elements,
// row-major and little endian. An entry of the header is {"dtype", "shape", "data_offsets"}; "__metadata__" maps
// texts to texts. Refused are names that come twice, and elements that overlap, leave bytes unused, go beyond the end
// or disagree with shape and dtype.
//
// Element types on reading: BOOL U8 I8 I16 I32 I64 F32 F64 C64 are dtypes of the library; F16 and BF16 become float32,
// U16 int32 and U32 int64, which hold every value of them. Others are refused by name. The format has no complex128:
// such a tensor "w" is written as F64 with a last axis of 2, and the text "complex128" under the key "dtype:w" of the
// metadata makes it complex again when it is read here.
//
// Written are the names in order of falling item size, so that every element lies at a multiple of its own size.
// Source of the format: the description of the safetensors project.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "named_tensors.h"

namespace ornik {

/// What stands under "__metadata__": UTF-8.
using FileMetadata = std::map<std::string, std::string>;

/// The contents of a file.
struct SafetensorsFile {
    std::vector<NamedTensor> tensors;  ///< In the order of the header.
    FileMetadata metadata;             ///< Without the "dtype:" texts that have made a tensor complex.
};

/// Replaces the file, or makes it. Dense tensors of up to 29 axes (28 for complex128); names are UTF-8, at most once
/// each, not "__metadata__".
ORNIK_API void save_safetensors(const std::filesystem::path& path, const std::vector<TensorEntry>& entries,
                                const FileMetadata& metadata = {}, const SaveOptions& options = {});
/// The same bytes in memory.
ORNIK_API std::vector<std::byte> safetensors_to_bytes(const std::vector<TensorEntry>& entries,
                                                      const FileMetadata& metadata = {});

ORNIK_API SafetensorsFile load_safetensors(const std::filesystem::path& path, LoadMode mode = LoadMode::copy_on_write);
/// From the bytes of a whole file. The elements are copied.
ORNIK_API SafetensorsFile safetensors_from_bytes(std::span<const std::byte> bytes);

}  // namespace ornik
