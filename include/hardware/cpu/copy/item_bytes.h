// item_bytes.h: elements as plain bytes, for kernels that move them without looking at them. Internal.
//
// The dtypes of one item size share a kernel, and no byte pattern is interpreted.
#pragma once

#include <cassert>
#include <cstdint>

#include "../../../tensor/dtype.h"

namespace ornik {

struct Bytes16 {
    std::uint64_t half[2];
};
using ItemTypes = TypeList<std::uint8_t, std::uint16_t, std::uint32_t, std::uint64_t, Bytes16>;

namespace detail {

template <typename... Items, typename Function>
void dispatch_item_size(TypeList<Items...> /*types*/, std::int64_t size, Function&& function) {
    [[maybe_unused]] const bool found =
        ((size == static_cast<std::int64_t>(sizeof(Items)) ? (function.template operator()<Items>(), true) : false) ||
         ...);
    assert(found && "no element type has this size");
}

}  // namespace detail

/// Calls function.operator()<Item>() for the item of `size` bytes.
template <typename Function>
void dispatch_item_size(std::int64_t size, Function&& function) {
    detail::dispatch_item_size(ItemTypes{}, size, function);
}

}  // namespace ornik
