// operation_rows.h: every operation that records gradients. Internal.
//
//   twice   the gradient is made of recorded operations when asked to: second derivatives
//   once    only first derivatives
//
// The tests walk this list: an operation without a check of its gradient fails.
#pragma once

#include <cstdint>

#include "../descriptors/element_operations.h"

// clang-format off

//      name              second derivatives
#define ORNIK_ARITHMETIC_ROWS(ROW) \
    ROW(add,              twice) \
    ROW(sub,              twice) \
    ROW(mul,              twice) \
    ROW(div,              twice) \
    ROW(add_scalar,       twice) \
    ROW(mul_scalar,       twice) \
    ROW(div_scalar,       twice) \
    ROW(where,            twice) \
    ROW(clamp,            twice) \
    ROW(clamp_min,        twice) \
    ROW(clamp_max,        twice)

#define ORNIK_SHAPE_ROWS(ROW) \
    ROW(astype,           twice) \
    ROW(broadcast_to,     twice) \
    ROW(sum_to_shape,     twice) \
    ROW(view,             twice)

// clang-format on

namespace ornik::autograd {

#define ORNIK_ELEMENT_ROW(name, accepts, result, error32, error64) name,
#define ORNIK_OPERATION_ROW(name, times) name,
enum class Op : std::uint16_t {
    ORNIK_DIFFERENTIABLE_OPERATIONS(ORNIK_ELEMENT_ROW) ORNIK_ARITHMETIC_PAIR_OPERATIONS(ORNIK_ELEMENT_ROW)
        ORNIK_ARITHMETIC_ROWS(ORNIK_OPERATION_ROW) ORNIK_SHAPE_ROWS(ORNIK_OPERATION_ROW) custom,
    count
};
#undef ORNIK_ELEMENT_ROW
#undef ORNIK_OPERATION_ROW

struct OpInfo {
    const char* name;
    bool twice;
};

inline constexpr bool once = false;
inline constexpr bool twice = true;

#define ORNIK_ELEMENT_ROW(name, accepts, result, error32, error64) {#name, twice},
#define ORNIK_OPERATION_ROW(name, times) {#name, times},
inline constexpr OpInfo operation_table[] = {
    ORNIK_DIFFERENTIABLE_OPERATIONS(ORNIK_ELEMENT_ROW) ORNIK_ARITHMETIC_PAIR_OPERATIONS(ORNIK_ELEMENT_ROW)
        ORNIK_ARITHMETIC_ROWS(ORNIK_OPERATION_ROW) ORNIK_SHAPE_ROWS(ORNIK_OPERATION_ROW){"custom", twice},
};
#undef ORNIK_ELEMENT_ROW
#undef ORNIK_OPERATION_ROW

constexpr const OpInfo& info_of(Op op) { return operation_table[static_cast<std::size_t>(op)]; }

}  // namespace ornik::autograd
