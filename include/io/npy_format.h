// npy_format.h: a NumPy file as the two formats that hold such files use it. Internal.
#pragma once

#include <memory>
#include <string>

#include "elements.h"

namespace ornik::io {

/// The tensor of a whole file.
std::unique_ptr<Tensor> parse_npy(const FilePlace& place, const FileBytes& file);

/// A file in its two parts.
struct NpyFile {
    std::string header;  // a multiple of 64 bytes
    ElementRun elements;
};
NpyFile make_npy(const FilePlace& place, const Tensor* t);

}  // namespace ornik::io
