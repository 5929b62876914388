// geometry.h: pure rules over shapes and strides, counted in elements.
#pragma once

#include <cstdint>
#include <optional>

#include "../export.h"
#include "../utils/error.h"
#include "../utils/shape_rules.h"

namespace ornik {

/// Number of elements of a shape, 1 for []. A product beyond 64 bits is reported as an error of `at`; that of the other
/// extents where some are 0, so that products over some of the axes fit as well.
std::int64_t checked_numel(const Where& at, const Dims& shape);

/// Refuses a negative extent.
void check_extents(const Where& at, const Dims& shape);

/// True when a walk over `numel` adjacent items, and one over the shape, both meet exactly the elements in order:
/// `numel` is the shape's count, and `strides` are the row-major strides of `shape`. With fewer than two elements any
/// strides will do; axes of extent 1 are compared like any other.
bool is_row_major(const Dims& shape, const Dims& strides, std::int64_t numel);

/// Lowest and highest position, relative to element 0, that a strided tensor touches. Nothing when it
/// has no elements.
struct Span {
    std::int64_t lowest = 0;
    std::int64_t highest = 0;
};

/// The span of a shape under strides; nullopt when a position does not fit in 64 bits. A shape with a
/// zero extent spans only position 0 and is to be tested by its element count first.
std::optional<Span> element_span(const Dims& shape, const Dims& strides);

/// Strides under which a tensor of (shape, strides, numel) shows the same elements, in the same order, as
/// a tensor of shape `target`. Empty when no such view exists (also when `target` is empty). A tensor
/// without axes gives zero strides for any target. `target` holds no -1.
Dims view_strides(const Dims& shape, const Dims& strides, std::int64_t numel, const Dims& target);

}  // namespace ornik
