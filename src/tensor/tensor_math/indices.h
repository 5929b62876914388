// indices.h: index tensors of several axes, checked and brought to one shape. Internal.
#pragma once

#include <vector>

#include "index_checks.h"
#include "slice_items.h"
#include "slices.h"

namespace ornik {

/// A row-major mask: true where `t` is not zero.
TensorResult truth_of(const Tensor* t);
/// The flat positions of the elements that are not zero, ascending.
TensorResult true_positions_of(const Tensor* t);
/// Column d of the result [count, ndim]: the coordinates along axis d of flat positions in a shape.
TensorResult coordinates(const Tensor* positions, const Dims& shape);

/// Checked indices of a tensor of a shape: int64 views of one shape, and the shape of what they select. A null
/// index, or none at the end, takes the whole axis; a mask stands for as many axes as it has.
class Indices {
  public:
    Indices(const Where& at, const Dims& shape, const std::vector<const Tensor*>& indices);
    Indices(const Where& at, const Dims& shape, const std::vector<Tensor*>& indices)
        : Indices(at, shape, std::vector<const Tensor*>(indices.begin(), indices.end())) {}

    const Dims& selected_shape() const { return selected_shape_; }
    /// Slices of x beside `other`, which has the selected shape and whose index axes lie like one axis.
    device::cpu::SliceWalk walk(const Tensor* x, const Tensor* other) const;

    /// The selected elements of x; of those that repeat a position, all but the last are 0 with `last_alone`.
    TensorResult taken(const Tensor* x, bool last_alone = false) const;
    /// Makes the selected elements of x zero.
    void clear(Tensor* x) const;

  private:
    void add_mask(const Where& at, const Tensor* mask, std::size_t axis);

    Dims shape_;
    std::vector<TensorResult> positions_;
    std::vector<TensorResult> views_;
    IndexedAxes indexed_;
    Dims index_shape_{};
    Dims selected_shape_{};
    std::size_t position_ = 0;  // Of the index axes among the selected ones.
};

}  // namespace ornik
