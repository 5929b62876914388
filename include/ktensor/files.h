// files.h: tensors in files.
//
//     ornik::save("net.safetensors", network.state());
//     network.load_state(ornik::load("net.safetensors"));
#pragma once

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "../io/named_tensors.h"
#include "../io/safetensors.h"
#include "ktensor.h"

namespace ornik {

using NamedTensors = std::vector<std::pair<std::string, KTensor>>;

/// Writes named tensors into a file of the kind that its name ends in: .safetensors, or .npz. A .npy file takes one
/// tensor, whose name is not kept. The file is replaced when all is written. Metadata belongs to safetensors alone.
ORNIK_API void save(const std::filesystem::path& path, const NamedTensors& tensors, const FileMetadata& metadata = {},
                    const SaveOptions& options = {});
/// The tensors of such a file; that of a .npy file is named "". They share a memory map of the file where their bytes
/// can serve as they are (io/named_tensors.h).
[[nodiscard]] ORNIK_API NamedTensors load(const std::filesystem::path& path, LoadMode mode = LoadMode::copy_on_write);

}  // namespace ornik
