// row_writer.h: where rows of a result are computed. Internal.
#pragma once

#include <cstdint>
#include <vector>

#include "hardware/block_copy.h"

namespace ornik::device::cpu {

/// The rows of an output, for one thread. Those of one that no cache can hold are written past the caches.
template <typename T>
class RowWriter {
  public:
    RowWriter(T* data, std::int64_t cols, bool past_caches)
        : data_(data), cols_(cols), buffer_(past_caches ? static_cast<std::size_t>(cols) : 0) {}
    ~RowWriter() {
        if (!buffer_.empty()) {
            finish_streams();
        }
    }
    RowWriter(const RowWriter&) = delete;
    RowWriter& operator=(const RowWriter&) = delete;

    /// Where to put row i before done(i).
    T* row(std::int64_t i) { return buffer_.empty() ? data_ + i * cols_ : buffer_.data(); }
    void done(std::int64_t i) {
        if (!buffer_.empty()) {
            stream_block(data_ + i * cols_, buffer_.data(), cols_ * static_cast<std::int64_t>(sizeof(T)));
        }
    }

  private:
    T* data_;
    std::int64_t cols_;
    std::vector<T> buffer_;
};

}  // namespace ornik::device::cpu
