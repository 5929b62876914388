// cpu_decode.h: elements of files made into elements of tensors. Internal.
#pragma once

#include <cstdint>

namespace ornik {

/// How an element lies in a file.
enum class Encoding : std::uint8_t {
    plain,       // as in a tensor
    any_bool,    // a byte that is true unless 0
    half,        // IEEE binary16: float32 in the tensor
    brain_half,  // the upper half of a float32: float32 in the tensor
    unsigned16,  // int32 in the tensor
    unsigned32   // int64 in the tensor
};

namespace device::cpu {

/// Writes `n` elements of `dtype` to `to`, which is aligned for them, from encoded ones anywhere. With `swap`, the
/// bytes of each number, and of each part of a complex one, stand in the other order. The runs do not overlap.
void decode(void* to, const void* from, std::int64_t n, std::int64_t dtype, Encoding encoding, bool swap);

/// True when each of n bytes is 0 or 1.
bool are_bools(const void* bytes, std::int64_t n);

}  // namespace device::cpu
}  // namespace ornik
