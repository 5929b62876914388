// files.cpp: tensors in files.
#include "ktensor/files.h"

#include "io/npy.h"
#include "io/npz.h"
#include "ktensor/impl.h"
#include "utils/error.h"

namespace ornik {

namespace {

enum class Kind { npy, npz, safetensors };

Kind kind_of(const Where& at, const char* operation, const std::filesystem::path& path) {
    const std::filesystem::path ending = path.extension();
    if (ending == ".npy") {
        return Kind::npy;
    }
    if (ending == ".npz") {
        return Kind::npz;
    }
    if (ending != ".safetensors") {
        fail(at, operation, "(): \"", path.string(), "\" does not end in .safetensors, .npz or .npy.");
    }
    return Kind::safetensors;
}

NamedTensors take_over(std::vector<NamedTensor> tensors) {
    NamedTensors result;
    for (NamedTensor& item : tensors) {
        result.emplace_back(std::move(item.name), KTensor(std::move(item.tensor)));
    }
    return result;
}

}  // namespace

void save(const std::filesystem::path& path, const NamedTensors& tensors, const FileMetadata& metadata,
          const SaveOptions& options) {
    const Where at = where("ornik::save");
    const Kind kind = kind_of(at, "save", path);
    if (kind == Kind::npy && tensors.size() != 1) {
        fail(at, "save(): a .npy file takes one tensor, not ", tensors.size(), ".");
    }
    if (kind != Kind::safetensors && !metadata.empty()) {
        fail(at, "save(): metadata belongs to .safetensors files, not to \"", path.string(), "\".");
    }
    std::vector<TensorEntry> entries;
    for (const auto& [name, tensor] : tensors) {
        entries.push_back({name, tensor.tensor()});
    }
    switch (kind) {
        case Kind::npy:
            return save_npy(path, entries[0].tensor, options);
        case Kind::npz:
            return save_npz(path, entries, options);
        case Kind::safetensors:
            return save_safetensors(path, entries, metadata, options);
    }
}

NamedTensors load(const std::filesystem::path& path, LoadMode mode) {
    switch (kind_of(where("ornik::load"), "load", path)) {
        case Kind::npy:
            return {{"", KTensor(load_npy(path, mode))}};
        case Kind::npz:
            return take_over(load_npz(path, mode));
        default:
            return take_over(load_safetensors(path, mode).tensors);
    }
}

}  // namespace ornik
