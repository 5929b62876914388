// npy.h: one tensor in a file of the NumPy format, versions 1, 2 and 3.
//
// The header is a Python dictionary of 'descr', 'fortran_order' and 'shape', read strictly as that. Element types on
// reading: all ten dtypes in either byte order; float16 becomes float32, uint16 int32 and uint32 int64, which hold
// every value of them. Any other type (uint64, text, objects, structures) is refused by name. A file in Fortran order
// gives a view with strides. The file ends with the last element: bytes behind it are refused.
//
// Written is version 1 with this machine's byte order; a tensor that is contiguous from its first axis on is written
// in Fortran order, as it lies. Source of the format: the documentation of numpy.lib.format.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <span>
#include <vector>

#include "named_tensors.h"

namespace ornik {

/// Replaces the file, or makes it. Dense tensors of up to 29 axes.
ORNIK_API void save_npy(const std::filesystem::path& path, const Tensor* t, const SaveOptions& options = {});
/// The same bytes in memory.
ORNIK_API std::vector<std::byte> npy_to_bytes(const Tensor* t);

[[nodiscard]] ORNIK_API std::unique_ptr<Tensor> load_npy(const std::filesystem::path& path,
                                                         LoadMode mode = LoadMode::copy_on_write);
/// From the bytes of a whole file. The elements are copied.
[[nodiscard]] ORNIK_API std::unique_ptr<Tensor> npy_from_bytes(std::span<const std::byte> bytes);

}  // namespace ornik
