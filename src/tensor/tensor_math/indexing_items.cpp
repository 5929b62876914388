// indexing_items.cpp: index tensors mixed with ranges, positions and new axes.
#include <algorithm>

#include "indices.h"
#include "tensor/tensor_math/indexing.h"

namespace ornik {

namespace {

// A view for everything but the index tensors, and indices of that view.
class ItemSelection {
  public:
    ItemSelection(const Where& at, const Dims& shape, const SliceItems& items)
        : axes_(resolve_items(at, shape, items, true)) {
        const bool has_tensors = std::any_of(axes_.begin(), axes_.end(), [](const ItemAxis& a) { return a.tensor; });
        for (ItemAxis& axis : axes_) {
            if (axis.tensor != nullptr) {
                add(at, axis);
            } else if (axis.is_dropped && has_tensors) {
                // A position takes part in broadcasting: position 0 of what is left of its axis.
                axis.is_dropped = false;
                own(filled_result({}, dtype::int64, 0.0F));
            } else if (!axis.is_dropped && !axis.is_covered) {
                list_.push_back(nullptr);
            }
        }
        indices_ = std::make_unique<Indices>(at, shape_of(axes_), list_);
    }

    const Indices& indices() const { return *indices_; }
    const Dims& shape() const { return indices_->selected_shape(); }
    TensorResult view(const Tensor* t) const { return view_of(t, axes_); }

  private:
    void own(TensorResult index) {
        owned_.push_back(std::move(index));
        list_.push_back(owned_.back().get());
    }

    void add(const Where& at, const ItemAxis& axis) {
        if (axis.source != ItemAxis::none) {
            list_.push_back(axis.tensor);
            return;
        }
        check_cpu(at, axis.tensor);
        own(filled_result({*static_cast<const bool*>(axis.tensor->getRawData()) ? 1 : 0}, dtype::int64, 0.0F));
    }

    std::vector<ItemAxis> axes_;
    std::vector<const Tensor*> list_;
    std::vector<TensorResult> owned_;
    std::unique_ptr<Indices> indices_;
};

}  // namespace

Tensor* index_advanced(const Tensor* x, const SliceItems& items) {
    const Where at = where("ornik::index_advanced");
    check_cpu(at, x);
    const ItemSelection selection(at, x->Shape(), items);
    return selection.indices().taken(selection.view(x).get()).release();
}

void set_index_advanced(Tensor* x, const Tensor* value, const SliceItems& items, bool accumulate) {
    const Where at = where("ornik::set_index_advanced");
    check_cpu(at, x);
    check_not_expanded(at, x);
    const ItemSelection selection(at, x->Shape(), items);
    const TensorResult source = row_major_copy(value_for(at, x, value, selection.shape()).get());
    const TensorResult view = selection.view(x);
    const device::cpu::SliceWalk walk = selection.indices().walk(view.get(), source.get());
    announce_write(at, x);
    device::cpu::put_slices(walk, accumulate);
}

Tensor* index_advanced_grad(const Tensor* grad, const Dims& shape, const SliceItems& items) {
    const Where at = where("ornik::index_advanced_grad");
    check_cpu(at, grad);
    const ItemSelection selection(at, shape, items);
    check_gradient_shape(at, grad, selection.shape());
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    const TensorResult source = row_major_copy(grad);
    device::cpu::put_slices(selection.indices().walk(selection.view(result.get()).get(), source.get()), true);
    return result.release();
}

Tensor* set_index_advanced_grad(const Tensor* grad, const SliceItems& items) {
    const Where at = where("ornik::set_index_advanced_grad");
    check_cpu(at, grad);
    const ItemSelection selection(at, grad->Shape(), items);
    TensorResult result = row_major_copy(grad);
    selection.indices().clear(selection.view(result.get()).get());
    return result.release();
}

Tensor* set_index_advanced_value_grad(const Tensor* grad, const Dims& value_shape, const SliceItems& items,
                                      bool accumulate) {
    const Where at = where("ornik::set_index_advanced_value_grad");
    check_cpu(at, grad);
    const ItemSelection selection(at, grad->Shape(), items);
    const TensorResult taken = selection.indices().taken(selection.view(grad).get(), !accumulate);
    return gradient_of_value(at, taken.get(), value_shape).release();
}

}  // namespace ornik
