#include "descriptors/item_moves.h"

#include <cstring>

namespace ornik {

namespace {

template <std::int64_t Size>
void move_items(char* to, std::int64_t to_stride, const char* from, std::int64_t from_stride, std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) {
        std::memcpy(to + i * to_stride, from + i * from_stride, Size);
    }
}

}  // namespace

MoveItems item_mover(std::int64_t item_size) {
    switch (item_size) {
        case 1:
            return move_items<1>;
        case 2:
            return move_items<2>;
        case 4:
            return move_items<4>;
        case 8:
            return move_items<8>;
        default:
            return move_items<largest_item>;
    }
}

}  // namespace ornik
