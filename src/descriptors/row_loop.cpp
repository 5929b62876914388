#include "descriptors/row_loop.h"

#include <algorithm>

#include "descriptors/item_moves.h"

namespace ornik::detail {

namespace {

// Longest piece that goes through buffers: those of several inputs and outputs stay in the first cache.
constexpr std::int64_t staged = 256;

// Storage may hold bytes that are no valid bool: any but zero is true.
void read_bools(char* to, const char* from, std::int64_t from_stride, std::int64_t n) {
    for (std::int64_t k = 0; k < n; ++k) {
        to[k] = static_cast<char>(from[k * from_stride] != 0);
    }
}

// Not initialised: only what was gathered is read.
struct Buffers {
    alignas(64) char bytes[most_row_operands * staged * largest_item];
    Buffers() {}
};

}  // namespace

void run_row_loop(const void* bound_rows, char* const* data, const std::int64_t* stride0, const std::int64_t* stride1,
                  std::int64_t n0, std::int64_t n1) {
    const BoundRows& rows = *static_cast<const BoundRows*>(bound_rows);
    bool is_staged[most_row_operands];
    bool any_staged = false;
    for (std::size_t i = 0; i < rows.operands; ++i) {
        is_staged[i] = stride0[i] != rows.item_sizes[i] || rows.is_bool_input[i];
        any_staged = any_staged || is_staged[i];
    }
    const std::int64_t piece = any_staged ? staged : n0;
    const std::int64_t buffer_size = staged * *std::max_element(rows.item_sizes, rows.item_sizes + rows.operands);
    Buffers buffers;
    for (std::int64_t j = 0; j < n1; ++j) {
        for (std::int64_t begin = 0; begin < n0; begin += piece) {
            const std::int64_t n = std::min(piece, n0 - begin);
            char* sources[most_row_operands];
            char* places[most_row_operands];
            for (std::size_t i = 0; i < rows.operands; ++i) {
                sources[i] = data[i] + j * stride1[i] + begin * stride0[i];
                places[i] = is_staged[i] ? buffers.bytes + static_cast<std::int64_t>(i) * buffer_size : sources[i];
                // A constant stays in its buffer for the whole row; the first piece is the longest.
                if (i < rows.outputs || !is_staged[i] || (stride0[i] == 0 && begin > 0)) {
                    continue;
                }
                if (rows.is_bool_input[i]) {
                    read_bools(places[i], sources[i], stride0[i], n);
                } else {
                    item_mover(rows.item_sizes[i])(places[i], rows.item_sizes[i], sources[i], stride0[i], n);
                }
            }
            rows.call(rows.function, n, places);
            for (std::size_t i = 0; i < rows.outputs; ++i) {
                if (is_staged[i]) {
                    item_mover(rows.item_sizes[i])(sources[i], stride0[i], places[i], rows.item_sizes[i], n);
                }
            }
        }
    }
}

}  // namespace ornik::detail
