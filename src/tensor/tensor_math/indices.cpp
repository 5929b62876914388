// indices.cpp: from index tensors of several axes to a walk over slices.
#include "indices.h"

#include <algorithm>

#include "tensor/broadcast.h"
#include "tensor/scalar.h"

namespace ornik {

device::cpu::SliceWalk slice_walk(const IndexedAxes& indexed, const Tensor* x, const Tensor* other,
                                  const Dims& index_shape, std::size_t position) {
    device::cpu::SliceWalk walk{x, other};
    std::int64_t count = 1;
    for (const std::int64_t extent : index_shape) {
        count *= extent;
    }
    walk.offsets.assign(static_cast<std::size_t>(count), 0);
    walk.offset_stride = index_shape.empty() ? 0 : other->Strides()[position + index_shape.size() - 1];
    std::size_t at = 0;  // The axis of `other`.
    for (std::size_t i = 0; i < indexed.axes.size(); ++i) {
        if (indexed.axes[i] != nullptr) {
            device::cpu::add_offsets(indexed.axes[i], x->Shape()[i], x->Strides()[i], walk.offsets);
            continue;
        }
        at += at == position ? index_shape.size() : 0;
        walk.axes.push_back({x->Shape()[i], x->Strides()[i], other->Strides()[at]});
        ++at;
    }
    return walk;
}

TensorResult truth_of(const Tensor* t) {
    TensorResult mask = new_result(t->Shape(), dtype::boolean);
    device::cpu::copy(t, mask.get());
    return mask;
}

TensorResult true_positions_of(const Tensor* t) {
    const TensorResult mask = truth_of(t);
    const device::cpu::TrueRanks ranks = device::cpu::true_ranks(mask.get());
    TensorResult positions = new_result({ranks.count()}, dtype::int64);
    device::cpu::true_positions(mask.get(), ranks, positions.get());
    return positions;
}

TensorResult coordinates(const Tensor* positions, const Dims& shape) {
    const auto rank = static_cast<std::int64_t>(shape.size());
    TensorResult columns = new_result({positions->Size(), rank}, dtype::int64);
    device::cpu::coordinates(positions, shape, columns.get());
    return columns;
}

namespace {

TensorResult column_of(const Tensor* columns, std::size_t d) {
    const Dims& shape = columns->Shape();
    return new_view(columns, {shape[0]}, {shape[1]}, shape[0] > 0 ? static_cast<std::int64_t>(d) : 0);
}

}  // namespace

Indices::Indices(const Where& at, const Dims& shape, const std::vector<const Tensor*>& indices)
    : shape_(shape), positions_(shape.size()), indexed_(shape.size()) {
    std::size_t axis = 0;
    for (const Tensor* index : indices) {
        const std::size_t wide = index != nullptr && index->isBool() ? index->Shape().size() : 1;
        if (axis + wide > shape.size()) {
            fail(ErrorKind::index, at, "Too many indices for a shape of ", shape);
        }
        if (index != nullptr && index->isBool()) {
            add_mask(at, index, axis);
        } else if (index != nullptr) {
            positions_[axis] = as_positions(at, index);
            check_positions(at, positions_[axis].get(), shape[axis]);
        }
        axis += wide;
    }
    for (const TensorResult& index : positions_) {
        index_shape_ = index ? infer_size_impl(index_shape_, index->Shape()) : index_shape_;
    }
    bool found = false;
    bool ended = false;
    bool apart = false;
    for (std::size_t i = 0; i < shape.size(); ++i) {
        if (!positions_[i]) {
            ended = found;
            selected_shape_.push_back(shape[i]);
            continue;
        }
        apart = apart || ended;
        position_ = found ? position_ : i;
        found = true;
        views_.push_back(TensorResult(Tensor::broadcast_to(positions_[i].get(), index_shape_)));
        indexed_.axes[i] = views_.back().get();
    }
    position_ = apart ? 0 : position_;
    selected_shape_.insert(selected_shape_.begin() + static_cast<std::ptrdiff_t>(position_), index_shape_.begin(),
                           index_shape_.end());
}

void Indices::add_mask(const Where& at, const Tensor* mask, std::size_t axis) {
    check_cpu(at, mask);
    if (mask->Shape().empty() ||
        !std::equal(mask->Shape().begin(), mask->Shape().end(), shape_.begin() + static_cast<std::ptrdiff_t>(axis))) {
        fail(at, "A mask of shape ", mask->Shape(), "does not fit axis ", axis, " of a shape of ", shape_);
    }
    const TensorResult columns = coordinates(true_positions_of(mask).get(), mask->Shape());
    for (std::size_t d = 0; d < mask->Shape().size(); ++d) {
        positions_[axis + d] = column_of(columns.get(), d);
    }
}

device::cpu::SliceWalk Indices::walk(const Tensor* x, const Tensor* other) const {
    return slice_walk(indexed_, x, other, index_shape_, position_);
}

TensorResult Indices::taken(const Tensor* x, bool last_alone) const {
    TensorResult result = new_result(selected_shape_, x->Dtype());
    device::cpu::take_slices(walk(x, result.get()));
    if (!last_alone || result->Size() == 0) {
        return result;
    }
    const TensorResult replaced = new_result(index_shape_, dtype::boolean);
    std::vector<std::int64_t> places(static_cast<std::size_t>(replaced->Size()), 0);
    const Dims steps = shape2stride(shape_);
    for (std::size_t i = 0; i < shape_.size(); ++i) {
        if (indexed_.axes[i] != nullptr) {
            device::cpu::add_offsets(indexed_.axes[i], shape_[i], steps[i], places);
        }
    }
    device::cpu::mark_replaced(places, replaced.get());
    Dims strides(selected_shape_.size(), 0);
    std::copy(replaced->Strides().begin(), replaced->Strides().end(),
              strides.begin() + static_cast<std::ptrdiff_t>(position_));
    result->masked_fill_inplace(new_view(replaced.get(), selected_shape_, strides).get(), Scalar(0.0F));
    return result;
}

void Indices::clear(Tensor* x) const {
    const TensorResult zero = filled_result({}, x->Dtype(), 0.0F);
    const TensorResult zeros = new_view(zero.get(), selected_shape_, Dims(selected_shape_.size(), 0));
    device::cpu::put_slices(walk(x, zeros.get()), false);
}

}  // namespace ornik
