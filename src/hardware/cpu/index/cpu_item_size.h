// cpu_item_size.h: moves look at the size of an element alone.
#pragma once

#include <cstdint>

namespace ornik::device::cpu {

struct Item16 {
    std::uint64_t half[2];
};

/// Calls function.operator()<Item>() for a type of the size of an element.
template <typename Function>
void by_item_size(std::int64_t item_size, const Function& function) {
    switch (item_size) {
        case 1:
            return function.template operator()<std::uint8_t>();
        case 2:
            return function.template operator()<std::uint16_t>();
        case 4:
            return function.template operator()<std::uint32_t>();
        case 8:
            return function.template operator()<std::uint64_t>();
        default:
            return function.template operator()<Item16>();
    }
}

}  // namespace ornik::device::cpu
