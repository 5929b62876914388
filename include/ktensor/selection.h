// selection.h: what the items of an index select. Internal.
#pragma once

#include <span>
#include <vector>

#include "../tensor/slices.h"
#include "backward.h"
#include "index.h"

namespace ornik::autograd {

/// Items checked against a tensor. Without index tensors they are a view of it; with them, items as the floors below
/// take them. Items and tensor have to live as long.
class Selection {
  public:
    Selection(const char* operation, const KTensor& x, const IndexList& items);

    bool is_view() const { return !has_tensors_; }
    const Dims& shape() const { return shape_; }
    /// Of a view: its geometry, as a share of `target`, which has x's shape and strides.
    KTensor view_of(const KTensor& target) const;

    // With index tensors.

    const SliceItems& items() const { return raw_; }
    /// What items() select: shape(), but for axes of extent 1.
    const Dims& raw_shape() const { return raw_shape_; }
    /// The tensors that items() point to, in their order.
    const std::vector<KTensor>& tensors() const { return tensors_; }
    /// Runs what the floors below do with items(). A position that they refuse is refused in the operation's words.
    template <typename Call>
    decltype(auto) checked(Call&& call) const {
        try {
            return call();
        } catch (const Error& error) {
            explain(error.kind());
            throw;
        }
    }

    /// The value as it broadcasts to shape(): without leading axes of extent 1 that the selection lacks. Recorded.
    KTensor fitted(const KTensor& value) const;

  private:
    void count_items(std::size_t& dropped, std::size_t& added);
    void make_view(std::size_t rank);
    void make_plan();
    void add_tensor(const KTensor& tensor, std::size_t& axis, Dims& block);
    void hold(const KTensor& tensor, std::size_t axis);
    std::int64_t position(const Index& item, std::size_t axis) const;
    SliceRange range(const Index& item, std::size_t axis) const;
    void explain(ErrorKind kind) const;

    const char* operation_;
    const KTensor& x_;
    std::span<const Index> items_;
    bool has_tensors_ = false;
    bool has_ellipsis_ = false;
    std::size_t rest_ = 0;  // axes that no item names
    Dims shape_;
    Dims strides_;
    std::int64_t offset_ = 0;
    Dims raw_shape_;
    SliceItems raw_;
    std::vector<KTensor> tensors_;
    std::vector<std::size_t> tensor_axes_;
};

/// Items of a view as the floors below take them.
SliceItems view_items(const IndexList& items);
/// The items of a recorded operation in its gradient: tensors are the saved values, in order. For the floors below, and
/// for operations.
SliceItems restored(SliceItems items, Backward& pass);
std::vector<Index> restored_items(const SliceItems& items, Backward& pass);

/// Refuses what is no index tensor: undefined, floating, complex, and bool unless masks are fine.
void check_index(const char* operation, const KTensor& index, bool mask = false);
/// Refuses the first position of `index` that is none of the `extent` along the axis of x, if there is one.
void check_positions(const char* operation, const KTensor& x, std::size_t axis, const KTensor& index);

}  // namespace ornik::autograd
