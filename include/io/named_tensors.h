// named_tensors.h: what the readers and writers of files have in common.
//
//     ornik::save_safetensors("net.safetensors", {{"weight", weight.get()}, {"bias", bias.get()}});
//     for (const ornik::NamedTensor& item : ornik::load_safetensors("net.safetensors").tensors) { ... }
//
// The formats: npy.h (one array), npz.h (named arrays in a zip archive), safetensors.h (named arrays behind one
// header).
//
// Reading maps the file: an element is fetched from the disk when it is first used, and nothing is copied where the
// bytes can serve as they are, which takes this machine's byte order and an address that suits the element. All other
// elements are copied or converted while the file is read. On systems without memory maps the file is read into memory
// first, and the tensors share that. A mapped file must not be shortened or rewritten in place while its tensors
// live; the writers here do neither.
//
// Writing makes a new file beside the old one and renames it when all is written: whatever goes wrong, the old file is
// still there as it was, and tensors that map it keep their values. Tensors may have any strides and no elements.
//
// Everything in a file is checked before a tensor is made from it. Errors name file, entry, what was found and what
// was wanted.
#pragma once

#include <memory>
#include <string>

#include "../export.h"
#include "../tensor/tensor.h"

namespace ornik {

/// A tensor to be written, which stays the caller's, and its name in the file.
struct TensorEntry {
    std::string name;
    const Tensor* tensor = nullptr;
};

/// A tensor that was read, and its name in the file.
struct NamedTensor {
    std::string name;
    std::unique_ptr<Tensor> tensor;
};

/// How the tensors hold the bytes of a file.
enum class LoadMode {
    copy_on_write,  ///< They share a private map: writing to them changes memory, never the file.
    read_only,      ///< They share a map and refuse writing; copied and converted ones refuse it as well.
    copy            ///< In memory of the library's own. Nothing of the file is held.
};

/// How a file is written.
struct SaveOptions {
    bool compress = false;  ///< Deflate the entries of an .npz file. Formats without compression refuse it.
    bool sync = false;      ///< Return only when the file has reached the disk.
};

}  // namespace ornik
