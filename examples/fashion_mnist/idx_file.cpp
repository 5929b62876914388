#include "idx_file.h"

#include <zlib.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace {

constexpr std::uint8_t unsigned_bytes = 0x08;
constexpr std::int64_t largest_file = std::int64_t{1} << 31;

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
    throw std::runtime_error(path + ": " + reason);
}

class GzipReader {
  public:
    explicit GzipReader(const std::string& path) : path_(path), file_(gzopen(path.c_str(), "rb"), gzclose) {
        if (!file_) {
            refuse(path_, "cannot be opened (on Debian the data set is the package dataset-fashion-mnist)");
        }
    }

    void read(std::uint8_t* target, std::size_t bytes) {
        if (read_some(target, bytes) < bytes) {
            refuse(path_, "ends too early, it is truncated");
        }
    }

    bool at_end() {
        std::uint8_t byte = 0;
        return read_some(&byte, 1) == 0;
    }

  private:
    std::size_t read_some(std::uint8_t* target, std::size_t bytes) {
        const int got = gzread(file_.get(), target, static_cast<unsigned>(bytes));
        if (got < 0) {
            refuse(path_, "is damaged, or is not a gzip file");
        }
        return static_cast<std::size_t>(got);
    }

    std::string path_;
    std::unique_ptr<gzFile_s, int (*)(gzFile_s*)> file_;
};

}  // namespace

IdxFile read_idx(const std::string& path, std::size_t axes) {
    GzipReader reader(path);
    std::uint8_t magic[4] = {};
    reader.read(magic, sizeof(magic));
    if (magic[0] != 0 || magic[1] != 0 || magic[2] != unsigned_bytes || magic[3] != axes) {
        refuse(path, "is no IDX file of unsigned bytes with " + std::to_string(axes) + " axes");
    }
    IdxFile file;
    std::int64_t count = 1;
    for (std::size_t axis = 0; axis < axes; ++axis) {
        std::uint8_t extent[4] = {};
        reader.read(extent, sizeof(extent));
        const std::int64_t size = std::int64_t{extent[0]} << 24 | extent[1] << 16 | extent[2] << 8 | extent[3];
        if (size < 1 || size > largest_file / count) {
            refuse(path, "has a header with impossible extents");
        }
        file.shape.push_back(size);
        count *= size;
    }
    file.items.resize(static_cast<std::size_t>(count));
    reader.read(file.items.data(), file.items.size());
    if (!reader.at_end()) {
        refuse(path, "holds more bytes than its header tells");
    }
    return file;
}

ImageSet read_image_set(const std::string& folder, const std::string& part, int classes) {
    const std::string label_path = folder + "/" + part + "-labels-idx1-ubyte.gz";
    ImageSet set{read_idx(folder + "/" + part + "-images-idx3-ubyte.gz", 3), read_idx(label_path, 1)};
    if (set.labels.shape[0] != set.count()) {
        refuse(label_path, "has another number of labels than there are images");
    }
    if (*std::max_element(set.labels.items.begin(), set.labels.items.end()) >= classes) {
        refuse(label_path, "has a label beyond class " + std::to_string(classes - 1));
    }
    return set;
}
