// reduce_descriptor.h: how a reduction walks its input. Internal.
//
// The axes of a tensor fall into two groups: reduced axes, whose elements become one, and kept axes, one
// result for each of their positions. A descriptor is made from shape and strides alone: axes of extent 1
// are dropped, and neighbours joined that lie in memory like one axis. Kept axes are sorted by stride first;
// reduced axes stay in row-major order, unless order does not matter. The sum of a contiguous [8, 4, 16, 16]
// tensor over axes 0, 2 and 3 reduces axes [256, 8] for each of 4 positions.
//
// Rounding depends on how elements are grouped, so that of ReduceOrder::fixed follows from the shape alone:
// by rows, where the last axis is reduced (or hardly anything is kept behind the reduced axes), else by columns.
// What lies in memory decides between two walks for each, which give the same bits:
//
//   rows         a result at a time: stretches of its elements as they lie, or collected
//   across       the same arithmetic for neighbouring results at once, whose elements are adjacent
//   columns      whole rows of adjacent results advance together
//   staged       the same arithmetic on elements that are collected into such rows
//   scattered    as rows, but elements of one result lie far apart: worth a row-major copy
#pragma once

#include <cstdint>
#include <vector>

#include "../utils/error.h"

namespace ornik {

/// Extent, step in the input and, for kept axes, step in the result; in elements.
struct ReduceAxis {
    std::int64_t size = 0;
    std::int64_t stride = 0;
    std::int64_t result_stride = 0;

    friend bool operator==(const ReduceAxis&, const ReduceAxis&) = default;
};

struct ReduceDescriptor {
    enum class Form { rows, across, columns, staged, scattered };

    /// Row-major shape of the result: reduced axes are 1 or left out.
    Dims result_shape;
    /// Innermost first.
    std::vector<ReduceAxis> kept;
    std::vector<ReduceAxis> reduced;
    /// Positions of the kept axes, and of the reduced ones.
    std::int64_t outputs = 1;
    std::int64_t count = 1;
    Form form = Form::rows;
};

/// Whether the order in which reduced elements are met may be chosen for speed, is row-major because positions
/// are counted, or is, with the grouping, that of a row-major tensor, because results are rounded.
enum class ReduceOrder { any, row_major, fixed };

/// Axes as sorted indices in [0, ndim): negative ones are wrapped by maybe_warp_dim, none means all. An axis
/// given twice is an error of `at`.
std::vector<int> reduce_axes(const Where& at, const std::vector<int>& axes, int ndim);

/// `axes` as reduce_axes gives them.
ReduceDescriptor make_reduce_descriptor(const Dims& shape, const Dims& strides, const std::vector<int>& axes,
                                        bool keep_dims, ReduceOrder order);

/// A row-major walk over several axes, one step at a time; `stride` and `result_stride` positions advance
/// together.
class ReduceWalk {
  public:
    /// The position of step `index`; axes from `first_axis` on.
    ReduceWalk(const std::vector<ReduceAxis>& axes, std::int64_t index, std::size_t first_axis = 0);
    void next();
    std::int64_t offset() const { return offset_; }
    std::int64_t result_offset() const { return result_offset_; }

  private:
    const std::vector<ReduceAxis>& axes_;
    std::size_t first_axis_;
    Dims position_;
    std::int64_t offset_ = 0;
    std::int64_t result_offset_ = 0;
};

}  // namespace ornik
