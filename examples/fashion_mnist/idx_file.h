// idx_file.h: reads gzip-compressed IDX files, the format of the image data set.
//
// An IDX file is a big-endian header (two zero bytes, the element type, the number of axes, one 32-bit extent
// per axis) followed by the elements in row-major order. Only unsigned bytes are read here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct IdxFile {
    std::vector<std::int64_t> shape;
    std::vector<std::uint8_t> items;
};

/// Fails with std::runtime_error, naming the file and what is wrong with it.
IdxFile read_idx(const std::string& path, std::size_t axes);

/// Images with one label each.
struct ImageSet {
    IdxFile images;  // [count, rows, cols]
    IdxFile labels;  // [count], classes 0 .. 9
    std::int64_t count() const { return images.shape[0]; }
    std::int64_t pixels() const { return images.shape[1] * images.shape[2]; }
};

/// Reads a pair of files and checks that they belong together; `part` is "train" or "t10k".
ImageSet read_image_set(const std::string& folder, const std::string& part, int classes);
