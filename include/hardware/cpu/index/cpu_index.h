// cpu_index.h: kernels that read and write elements at computed places. Internal.
//
// Index tensors are int64 and in range: [-n, n) for an axis of n elements, negative ones counting from the end.
// Other operands have any dtype and any strides. Where places repeat, elements are written or added in
// row-major order of the indices, whatever the number of threads.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// The first index outside [-n, n).
std::optional<std::int64_t> first_outside(const Tensor* index, std::int64_t n);

/// out[.., i, ..] = x[.., index[.., i, ..], ..]; out has index's shape, x at least that of the other axes.
void gather(const Tensor* x, const Tensor* index, Tensor* out, int axis);
/// out[.., index[.., i, ..], ..] = source[.., i, ..], or += it.
void scatter(const Tensor* index, const Tensor* source, Tensor* out, int axis, bool accumulate);
/// out[.., i, ..] = g[.., index[.., i, ..], ..] where i is the last to write there, else 0. Axis extent n of g.
void scatter_source_grad(const Tensor* g, const Tensor* index, Tensor* out, int axis);

/// One axis of a walk over slices: extent, and steps in the indexed tensor and in the other one.
struct SliceAxis {
    std::int64_t size = 0;
    std::int64_t stride = 0;
    std::int64_t other_stride = 0;
};

/// Slices of `indexed` beside elements of `other`: element (k, i, ..) of `other` belongs to offsets[k] plus the
/// position (i, ..) of the slice.
struct SliceWalk {
    const Tensor* indexed = nullptr;
    const Tensor* other = nullptr;
    std::vector<std::int64_t> offsets{};  // Elements of `indexed`.
    std::int64_t offset_stride = 0;       // In `other`, from one k to the next.
    std::vector<SliceAxis> axes{};
};

/// offsets[k] += stride times element k of `index` in row-major order, wrapped into [0, n).
void add_offsets(const Tensor* index, std::int64_t n, std::int64_t stride, std::vector<std::int64_t>& offsets);

/// mask[k] = does a later one of `places` equal places[k]? The mask is row-major and bool, with an element for each.
void mark_replaced(const std::vector<std::int64_t>& places, Tensor* mask);

/// other = slices of indexed.
void take_slices(const SliceWalk& walk);
/// Slices of indexed = other, or += it.
void put_slices(const SliceWalk& walk, bool accumulate);

/// How many elements of a row-major bool tensor are true before each block of it, and in all.
struct TrueRanks {
    std::vector<std::int64_t> start{};
    std::int64_t count() const { return start.back(); }
};
TrueRanks true_ranks(const Tensor* mask);

// Further operands are row-major: flat positions, ascending (int64); selected elements of x, which has mask's
// shape; and back.
void true_positions(const Tensor* mask, const TrueRanks& ranks, Tensor* positions);
/// columns[k, d]: the coordinate along axis d of flat position k in a row-major tensor of the shape.
void coordinates(const Tensor* positions, const Dims& shape, Tensor* columns);
void masked_take(const Tensor* x, const Tensor* mask, const TrueRanks& ranks, Tensor* out);
void masked_put(const Tensor* values, const Tensor* mask, const TrueRanks& ranks, Tensor* x);

}  // namespace ornik::device::cpu
