// indexing.h: reading and writing elements at places.
//
//     x[3]                                      // a view of slice 3 of the first axis
//     x.index({Slice(1), ellipsis, -1})         // a view
//     x.index({mask})                           // a copy
//     x.set_index({0, Slice({}, {}, 2)}, 1.5)
//
// Integer tensors may be of any integer dtype; negative positions count from the end, as negative axes do. Every
// position is checked before anything is written (ErrorKind::index). Where places repeat, the last element in row-major
// order of the positions stays, or all are added in that order: the same bits for any number of threads. All functions
// have first and second derivatives, by x and by what is written, but for nonzero.
#pragma once

#include <cstddef>
#include <iterator>

#include "index.h"
#include "ktensor.h"

namespace ornik {

// ---- By items (index.h) ----
//
// Positions, slices, new axes and the ellipsis give a view, which shares the storage. With index tensors the result is
// a copy: ranges, new axes and the ellipsis are applied first; then index tensors, the coordinates of the true elements
// of masks, and positions are broadcast to one shape. It takes the place of their axes where their items are
// neighbours, and comes first otherwise.

[[nodiscard]] ORNIK_API KTensor index(const KTensor& x, const IndexList& items);
/// x, with the value, converted to its dtype and broadcast, in place of the selected elements, or added to them.
/// Leading axes of extent 1 that the selection lacks do not count. What is added has to be of a kind that x holds: no
/// fractions to integers.
[[nodiscard]] ORNIK_API KTensor index_put(const KTensor& x, const IndexList& items, const KTensor& value,
                                          bool accumulate = false);
[[nodiscard]] ORNIK_API KTensor index_put(const KTensor& x, const IndexList& items, const Scalar& value,
                                          bool accumulate = false);
/// The same in place, as x.set_index(). The value may share memory with x.
ORNIK_API KTensor& index_put_(KTensor& x, const IndexList& items, const KTensor& value, bool accumulate = false);
ORNIK_API KTensor& index_put_(KTensor& x, const IndexList& items, const Scalar& value, bool accumulate = false);

// ---- Parts of one axis: views ----

/// Without the axis.
[[nodiscard]] ORNIK_API KTensor select(const KTensor& x, int axis, std::int64_t position);
[[nodiscard]] ORNIK_API KTensor slice(const KTensor& x, int axis, const Slice& positions);
/// `count` positions from `begin` on, all of them inside the axis.
[[nodiscard]] ORNIK_API KTensor narrow(const KTensor& x, int axis, std::int64_t begin, std::int64_t count);

/// The slices of an axis one by one: for (const KTensor& row : along(x)).
class Along {
  public:
    class Iterator {
      public:
        using iterator_category = std::input_iterator_tag;
        using value_type = KTensor;
        using difference_type = std::ptrdiff_t;

        Iterator(const Along* range, std::int64_t position) : range_(range), position_(position) {}
        KTensor operator*() const { return select(range_->x_, range_->axis_, position_); }
        Iterator& operator++() {
            ++position_;
            return *this;
        }
        void operator++(int) { ++position_; }
        bool operator==(const Iterator& other) const { return position_ == other.position_; }

      private:
        const Along* range_;
        std::int64_t position_;
    };

    Along(const KTensor& x, int axis) : x_(x), axis_(axis), count_(x.size(axis)) {}
    Iterator begin() const { return {this, 0}; }
    Iterator end() const { return {this, count_}; }

  private:
    KTensor x_;
    int axis_;
    std::int64_t count_;
};
[[nodiscard]] inline Along along(const KTensor& x, int axis = 0) { return {x, axis}; }

// ---- Slices of one axis by an integer tensor of at most one axis ----

/// Slices index[0], index[1], ... of the axis.
[[nodiscard]] ORNIK_API KTensor index_select(const KTensor& x, int axis, const KTensor& index);
/// x, with slice k of `source` added to slice index[k]. source has x's dtype, and its shape but for the axis.
[[nodiscard]] ORNIK_API KTensor index_add(const KTensor& x, int axis, const KTensor& index, const KTensor& source);
ORNIK_API KTensor& index_add_(KTensor& x, int axis, const KTensor& index, const KTensor& source);
/// Elements by their position in row-major order, shaped as index.
[[nodiscard]] ORNIK_API KTensor take(const KTensor& x, const KTensor& index);

// ---- One position per element, along one axis ----
//
// index has as many axes as x, whose other extents may be smaller than x's; source is shaped as index and of x's dtype.

/// result[i][j][k] = x[i][index[i][j][k]][k] for axis 1; shaped as index.
[[nodiscard]] ORNIK_API KTensor gather(const KTensor& x, int axis, const KTensor& index);
/// The same after x and index have been broadcast to each other along the other axes.
[[nodiscard]] ORNIK_API KTensor take_along_axis(const KTensor& x, const KTensor& index, int axis = -1);
/// x, but result[i][index[i][j][k]][k] = source[i][j][k] for axis 1.
[[nodiscard]] ORNIK_API KTensor scatter(const KTensor& x, int axis, const KTensor& index, const KTensor& source);
ORNIK_API KTensor& scatter_(KTensor& x, int axis, const KTensor& index, const KTensor& source);
/// x, with source[i][j][k] added at [i][index[i][j][k]][k] for axis 1.
[[nodiscard]] ORNIK_API KTensor scatter_add(const KTensor& x, int axis, const KTensor& index, const KTensor& source);
ORNIK_API KTensor& scatter_add_(KTensor& x, int axis, const KTensor& index, const KTensor& source);

// ---- Masks (masked_fill and where stand in elements.h) ----

/// The elements of x where the bool mask is true, in row-major order, as one axis. x and mask are broadcast.
[[nodiscard]] ORNIK_API KTensor masked_select(const KTensor& x, const KTensor& mask);
/// int64 positions [count, ndim] of the elements that are not zero, in row-major order. NaN is not zero.
[[nodiscard]] ORNIK_API KTensor nonzero(const KTensor& x);
[[nodiscard]] inline KTensor argwhere(const KTensor& x) { return nonzero(x); }

// ---- Diagonals and triangles ----

/// A view: axes `a` and `b` are dropped, and a last axis walks their diagonal, displaced by `offset` towards higher
/// positions of b.
[[nodiscard]] ORNIK_API KTensor diagonal(const KTensor& x, std::int64_t offset = 0, int a = 0, int b = 1);
/// x, with this diagonal replaced by `source`, which has its shape and x's dtype.
[[nodiscard]] ORNIK_API KTensor diagonal_scatter(const KTensor& x, const KTensor& source, std::int64_t offset = 0,
                                                 int a = 0, int b = 1);
/// The last axis of x as a diagonal of axes `a` and `b` of the result, which has one axis more; zeros elsewhere.
[[nodiscard]] ORNIK_API KTensor diag_embed(const KTensor& x, std::int64_t offset = 0, int a = -2, int b = -1);
/// One axis: the matrix with this diagonal. A matrix: a view of its diagonal.
[[nodiscard]] ORNIK_API KTensor diag(const KTensor& x, std::int64_t offset = 0);
/// The elements of the last two axes with column - row <= k (tril) or >= k (triu), zeros elsewhere.
[[nodiscard]] ORNIK_API KTensor tril(const KTensor& x, std::int64_t k = 0);
[[nodiscard]] ORNIK_API KTensor triu(const KTensor& x, std::int64_t k = 0);

}  // namespace ornik
