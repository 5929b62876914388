// selection.h: descriptors of a selection by text items; the grammars stand in utils/selection.h.
#pragma once

#include <string>
#include <vector>

#include "../utils/selection.h"
#include "tensor_descriptor.h"

namespace ornik {

/// Legacy grammar: one range per axis, no axis is dropped.
class ORNIK_API SelDescriptor : public TensorDescriptor {
  public:
    explicit SelDescriptor(std::vector<std::string> items) : items_(std::move(items)) {}
    /// Parses the items against the shape; fails without changing the descriptor.
    virtual void build(const Dims& input_shape);
    virtual ~SelDescriptor() = default;

    const std::vector<std::string>& items() const { return items_; }
    /// [first, last] of every axis, last included.
    const std::vector<Dims>& indices() const { return indices_; }
    const std::vector<AxisSelection>& selection() const { return selection_; }

  private:
    std::vector<std::string> items_;
    std::vector<Dims> indices_;
    std::vector<AxisSelection> selection_;
};

/// N-dimensional grammar. The output shape has one axis per input axis; kept_shape() leaves the axes of plain
/// integer items out.
class ORNIK_API SelDescriptorV2 : public TensorDescriptor {
  public:
    explicit SelDescriptorV2(std::vector<std::string> items) : items_(std::move(items)) {}
    /// As below, for a tensor that is to have the selection's shape, with or without the dropped axes; another
    /// shape is refused with "Incompatible Shape for select_index_grad(),".
    virtual void build(const Dims& input_shape, const Dims& selected_shape);
    /// Parses the items against the shape; fails without changing the descriptor. Positions below 0 are refused
    /// with "unsuppoted select".
    virtual void build(const Dims& input_shape);
    virtual ~SelDescriptorV2() = default;

    const std::vector<std::string>& items() const { return items_; }
    const std::vector<AxisSelection>& selection() const { return selection_; }
    /// The positions of every axis, written out.
    std::vector<Dims> indices() const;
    /// Row-major strides of the input shape.
    const Dims& input_strides() const { return input_strides_; }
    /// For every input axis, is it kept?
    const std::vector<bool>& keep() const { return keep_; }
    Dims kept_shape() const { return kept_entries(output_shape_, keep_); }

  private:
    std::vector<std::string> items_;
    std::vector<AxisSelection> selection_;
    Dims input_strides_;
    std::vector<bool> keep_;
};

}  // namespace ornik
