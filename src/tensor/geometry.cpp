#include "tensor/geometry.h"

#include <algorithm>
#include <limits>

namespace ornik {

namespace {

// Portable overflow tests; true when the result does not fit.
bool multiply_overflows(std::int64_t a, std::int64_t b, std::int64_t& result) {
    if (((a | b) >> 31) == 0) {  // Small and not negative: the common case, without divisions.
        result = a * b;
        return false;
    }
    constexpr std::int64_t max = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t min = std::numeric_limits<std::int64_t>::min();
    if (a > 0 ? (b > max / a || b < min / a) : (a < -1 ? (b > min / a || b < max / a) : (a == -1 && b == min))) {
        return true;
    }
    result = a * b;
    return false;
}

// For strides of what is refused by its element count, and of tensors without a storage, which may be anything.
std::int64_t wrapping_product(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

bool add_overflows(std::int64_t a, std::int64_t b, std::int64_t& result) {
    if (b > 0 ? a > std::numeric_limits<std::int64_t>::max() - b : a < std::numeric_limits<std::int64_t>::min() - b) {
        return true;
    }
    result = a + b;
    return false;
}

}  // namespace

std::int64_t checked_numel(const Where& at, const Dims& shape) {
    std::int64_t numel = 1;
    bool is_empty = false;
    for (const std::int64_t extent : shape) {
        is_empty = is_empty || extent == 0;
        if (extent != 0 && multiply_overflows(numel, extent, numel)) {
            fail(at, "Too many elements for a tensor: shape ", shape, ".");
        }
    }
    return is_empty ? 0 : numel;
}

void check_extents(const Where& at, const Dims& shape) {
    if (std::any_of(shape.begin(), shape.end(), [](std::int64_t extent) { return extent < 0; })) {
        fail(at, "Extents can not be negative: shape ", shape);
    }
}

bool is_row_major(const Dims& shape, const Dims& strides, std::int64_t numel) {
    if (numel < 2) {
        return numel >= 0 && (std::find(shape.begin(), shape.end(), 0) != shape.end() ||
                              std::all_of(shape.begin(), shape.end(), [](std::int64_t extent) { return extent == 1; }));
    }
    if (shape.size() != strides.size()) {
        return false;
    }
    std::int64_t step = 1;
    for (std::size_t i = shape.size(); i-- > 0;) {
        if (strides[i] != step) {
            return false;
        }
        step *= shape[i];
    }
    return step == numel;
}

std::optional<Span> element_span(const Dims& shape, const Dims& strides) {
    Span span;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        std::int64_t reach = 0;
        if (shape[i] <= 1) {
            continue;
        }
        std::int64_t& end = strides[i] < 0 ? span.lowest : span.highest;
        if (multiply_overflows(shape[i] - 1, strides[i], reach) || add_overflows(end, reach, end)) {
            return std::nullopt;
        }
    }
    return span;
}

Dims view_strides(const Dims& shape, const Dims& strides, std::int64_t numel, const Dims& target) {
    if (shape.empty()) {
        return Dims(target.size(), 0);
    }
    if (numel == 0) {
        if (target == shape) {
            return strides;
        }
        Dims result(target.size(), 1);
        for (std::size_t i = target.size(); i-- > 1;) {
            result[i - 1] = wrapping_product(result[i], std::max<std::int64_t>(target[i], 1));
        }
        return result;
    }
    // Walk the axes from the last to the first, collecting runs of axes that lie in memory like one
    // axis ("chunks"), and lay the target's axes into each chunk.
    Dims result(target.size(), 0);
    std::size_t open = target.size();  // Target axes not yet placed.
    std::int64_t chunk_base = strides.back();
    std::int64_t chunk_numel = 1;
    std::int64_t view_numel = 1;
    for (std::size_t d = shape.size(); d-- > 0;) {
        chunk_numel *= shape[d];
        if (d > 0 && (shape[d - 1] == 1 || strides[d - 1] == wrapping_product(chunk_numel, chunk_base))) {
            continue;
        }
        while (open > 0 && (view_numel < chunk_numel || target[open - 1] == 1)) {
            --open;
            result[open] = wrapping_product(view_numel, chunk_base);
            if (multiply_overflows(view_numel, target[open], view_numel)) {
                return {};
            }
        }
        if (view_numel != chunk_numel) {
            return {};
        }
        if (d > 0) {
            chunk_base = strides[d - 1];
            chunk_numel = 1;
            view_numel = 1;
        }
    }
    return open == 0 ? result : Dims{};
}

}  // namespace ornik
