#include "descriptors/selection.h"

#include "tensor/geometry.h"

namespace ornik {

namespace {

// Everything about shapes and selections reports under one file name.
constexpr const char* family = "src/tensor/tensor_shape.cpp";

Dims counts_of(const std::vector<AxisSelection>& selection) {
    Dims counts;
    for (const AxisSelection& axis : selection) {
        counts.push_back(axis.count);
    }
    return counts;
}

}  // namespace

void SelDescriptor::build(const Dims& input_shape) {
    indices_ = parse_indices(items_, input_shape);
    selection_.clear();
    for (const Dims& range : indices_) {
        selection_.push_back({range[0], 1, range[1] - range[0] + 1});
    }
    input_shape_ = input_shape;
    output_shape_ = counts_of(selection_);
}

void SelDescriptorV2::build(const Dims& input_shape) {
    std::vector<AxisSelection> selection = parse_selection(items_, input_shape);
    for (const AxisSelection& axis : selection) {
        if (axis.lowest() < 0) {
            fail(ErrorKind::not_implemented, where("ornik::SelDescriptorV2::build", family), "unsuppoted select");
        }
    }
    keep_ = just_keep_dims(items_, input_shape);
    selection_ = std::move(selection);
    input_shape_ = input_shape;
    input_strides_ = shape2stride(input_shape);
    output_shape_ = counts_of(selection_);
}

void SelDescriptorV2::build(const Dims& input_shape, const Dims& selected_shape) {
    SelDescriptorV2 built(items_);
    built.build(input_shape);
    if (selected_shape != built.output_shape_ && selected_shape != built.kept_shape()) {
        fail(where("ornik::SelDescriptorV2::build", family), "Incompatible Shape for select_index_grad(),");
    }
    *this = built;
}

std::vector<Dims> SelDescriptorV2::indices() const {
    std::vector<Dims> result;
    for (const AxisSelection& axis : selection_) {
        result.push_back(axis.positions());
    }
    return result;
}

}  // namespace ornik
