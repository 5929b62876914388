// npz.h: named tensors as .npy files in a zip archive.
//
// An entry "w.npy" is the tensor "w"; every entry has to be one. Names are UTF-8, not empty, without a backslash,
// control characters or a drive, and every part between slashes is a name: no "", "." or "..". Entries are stored or
// deflated; archives may be larger than 4 GiB (zip64). All of them are read and their checksums compared. Refused are
// encryption, several disks, entries of one name, entries that share bytes, and sizes that do not agree.
//
// Stored entries are written at multiples of 64 bytes, so that reading can map them; archives of other writers are
// often not aligned, and are then copied. Source of the format: APPNOTE.TXT 6.3.
#pragma once

#include <cstddef>
#include <filesystem>
#include <span>
#include <vector>

#include "named_tensors.h"

namespace ornik {

/// True when this build can write and read deflated entries. Without, they are refused by name.
ORNIK_API bool npz_can_compress();

/// Replaces the file, or makes it. Entries in the order given, at most once each. What npy.h says of tensors holds.
ORNIK_API void save_npz(const std::filesystem::path& path, const std::vector<TensorEntry>& entries,
                        const SaveOptions& options = {});
/// The same bytes in memory.
ORNIK_API std::vector<std::byte> npz_to_bytes(const std::vector<TensorEntry>& entries, const SaveOptions& options = {});

/// The tensors in the order of the archive's directory. Deflated entries are unpacked, whatever the mode.
ORNIK_API std::vector<NamedTensor> load_npz(const std::filesystem::path& path, LoadMode mode = LoadMode::copy_on_write);
/// From the bytes of a whole file. The elements are copied.
ORNIK_API std::vector<NamedTensor> npz_from_bytes(std::span<const std::byte> bytes);

}  // namespace ornik
