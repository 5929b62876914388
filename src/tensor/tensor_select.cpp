// tensor_select.cpp: selection by text items: copies, views, set operations and gradients.
//
// A selection of integers and ranges is a strided view, and everything is done through it. Lists of positions go
// through the kernels of hardware/cpu/cpu_indexing.h; positions that a list repeats are sorted out before, so that
// no kernel writes one place twice.
#include <algorithm>
#include <numeric>

#include "descriptors/selection.h"
#include "hardware/cpu/index/cpu_indexing.h"
#include "tensor/borrowed.h"
#include "tensor/broadcast.h"
#include "tensor/checks.h"
#include "tensor/geometry.h"
#include "tensor/overlap.h"
#include "tensor/tensor.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor_math/slice_items.h"

namespace ornik {

namespace {

// Everything about shapes and selections reports under one file name.
constexpr const char* family = "src/tensor/tensor_shape.cpp";

using Selection = std::vector<AxisSelection>;

Dims shape_of(const Selection& selection) {
    Dims shape;
    for (const AxisSelection& axis : selection) {
        shape.push_back(axis.count);
    }
    return shape;
}

bool is_regular(const Selection& selection) {
    return std::all_of(selection.begin(), selection.end(), [](const AxisSelection& axis) { return axis.list.empty(); });
}

// The view of a selection without lists.
std::unique_ptr<Tensor> selected_view(const Tensor* t, const Selection& selection) {
    Dims strides;
    std::int64_t offset = t->StorageOffset();
    for (std::size_t k = 0; k < selection.size(); ++k) {
        strides.push_back(t->Strides()[k] * selection[k].step);
        offset += t->Strides()[k] * selection[k].start;
    }
    return std::unique_ptr<Tensor>(
        view_tensor(t->getStorage(), shape_of(selection), strides, t->Device(), t->Dtype(), offset));
}

std::unique_ptr<Tensor> gathered(const Tensor* t, const Selection& selection) {
    std::unique_ptr<Tensor> result;
    if (is_regular(selection)) {
        result.reset(selected_view(t, selection)->clone());
    } else {
        result.reset(Tensor::empty(shape_of(selection), t->Device(), t->Dtype()));
        device::cpu::gather_positions(t, selection, result.get());
    }
    return result;
}

// The positions of a list in rising order, each once, and for each the places of the list that name it.
struct UniquePositions {
    Dims positions;
    device::cpu::AxisGroups groups;

    explicit UniquePositions(const Dims& list) {
        groups.extent = static_cast<std::int64_t>(list.size());
        groups.members.resize(list.size());
        std::iota(groups.members.begin(), groups.members.end(), 0);
        const auto position = [&list](std::int64_t place) { return list[static_cast<std::size_t>(place)]; };
        std::stable_sort(groups.members.begin(), groups.members.end(),
                         [&](std::int64_t a, std::int64_t b) { return position(a) < position(b); });
        for (std::size_t i = 0; i < list.size(); ++i) {
            if (i == 0 || position(groups.members[i]) != positions.back()) {
                positions.push_back(position(groups.members[i]));
                groups.starts.push_back(static_cast<std::int64_t>(i));
            }
        }
        groups.starts.push_back(groups.extent);
    }

    bool has_repeats() const { return positions.size() != groups.members.size(); }
};

AxisSelection list_of(Dims positions) {
    const auto count = static_cast<std::int64_t>(positions.size());
    return {0, 1, count, std::move(positions)};
}

// Writes `value`, of the selection's shape, into the selected elements of t.
void write_selected(const Where& at, Tensor* t, const Selection& selection, const Tensor* value) {
    if (is_regular(selection)) {
        copy_tensor(value, selected_view(t, selection).get());
        return;
    }
    Selection to = selection;
    Selection from;
    for (AxisSelection& axis : to) {
        from.push_back({0, 1, axis.count});
        const UniquePositions unique(axis.list);
        if (!unique.has_repeats()) {
            continue;
        }
        Dims last_places;
        for (std::size_t g = 1; g < unique.groups.starts.size(); ++g) {
            last_places.push_back(unique.groups.members[static_cast<std::size_t>(unique.groups.starts[g] - 1)]);
        }
        from.back() = list_of(std::move(last_places));
        axis = list_of(unique.positions);
    }
    announce_write(at, t);
    device::cpu::scatter_positions(value, from, to, t);
}

// `value` converted to t's dtype, apart from t's memory, and broadcast to the selection's shape. The axes that `keep`
// leaves out have extent 1 in the selection and may be missing in the value.
void set_selected(const Where& at, Tensor* t, const Selection& selection, const std::vector<bool>& keep,
                  Tensor* value) {
    check_operands(at, t, value);
    if (value->Device() != t->Device()) {
        fail(ErrorKind::device, at, "set select ndim input tensor should on same device.");
    }
    check_not_expanded(at, t);
    const Dims whole = shape_of(selection);
    const Dims kept = kept_entries(whole, keep);
    const auto fits = [value](const Dims& target) {
        const Dims& shape = value->Shape();
        bool result = shape.size() <= target.size();
        for (std::size_t i = 0; result && i < shape.size(); ++i) {
            const std::int64_t extent = target[target.size() - shape.size() + i];
            result = shape[i] == extent || shape[i] == 1;
        }
        return result;
    };
    const bool fits_kept = fits(kept);
    if (!fits_kept && !fits(whole)) {
        fail(at, "Incompatible dims for select_index()");
    }
    check_writable(at, t);
    const Borrowed converted = Borrowed::of_dtype(value, t->Dtype());
    std::unique_ptr<Tensor> apart;
    if (memory_overlap(converted.get(), t) != Overlap::none) {
        apart.reset(converted->clone());
    }
    const std::unique_ptr<Tensor> spread(
        Tensor::broadcast_to(apart ? apart.get() : converted.get(), fits_kept ? kept : whole));
    if (!fits_kept) {
        write_selected(at, t, selection, spread.get());
        return;
    }
    Dims strides;
    for (std::size_t k = 0, i = 0; k < whole.size(); ++k) {
        strides.push_back(keep[k] ? spread->Strides()[i++] : 0);
    }
    const std::unique_ptr<Tensor> aligned(
        share_storage_tensor(spread->getStorage(), whole, strides, spread->Dtype(), spread->StorageOffset()));
    write_selected(at, t, selection, aligned.get());
}

// The gradient of a selection as a contiguous tensor of the selection's shape, and the selection without repeated
// positions: what was selected several times has been added up.
std::unique_ptr<Tensor> fold_repeats(const Tensor* grad, Selection& selection) {
    std::unique_ptr<Tensor> folded(grad->clone());
    folded->reshape_(shape_of(selection));
    std::int64_t outer = 1;
    for (AxisSelection& axis : selection) {
        const UniquePositions unique(axis.list);
        if (unique.has_repeats()) {
            const std::int64_t inner = folded->Size() / outer / axis.count;
            axis = list_of(unique.positions);
            std::unique_ptr<Tensor> sums(Tensor::empty(shape_of(selection), grad->Device(), grad->Dtype()));
            device::cpu::sum_groups(folded.get(), outer, unique.groups, inner, sums.get());
            folded = std::move(sums);
        }
        outer *= axis.count;
    }
    return folded;
}

}  // namespace

Tensor* Tensor::select(const std::vector<std::string>& items) const {
    check_operands(where("ornik::Tensor::select", family), this);
    SelDescriptor descriptor(items);
    descriptor.build(shape_);
    return gathered(this, descriptor.selection()).release();
}

Tensor* Tensor::select_ndim(const std::vector<std::string>& items) const {
    check_operands(where("ornik::Tensor::select_ndim", family), this);
    SelDescriptorV2 descriptor(items);
    descriptor.build(shape_);
    std::unique_ptr<Tensor> result = gathered(this, descriptor.selection());
    const Dims kept = descriptor.kept_shape();
    if (kept != result->Shape()) {
        result->reshape_(kept);
    }
    return result.release();
}

Tensor* Tensor::select_ndim_without_copy(const std::vector<std::string>& items) const {
    SelDescriptorV2 descriptor(items);
    descriptor.build(shape_);
    const Dims strides = get_new_strides_for_select(items, descriptor.selection(), strides_);
    const std::int64_t offset = get_indexing_storage_offset(descriptor.selection(), strides_);
    return view_tensor(getStorage(), descriptor.kept_shape(), kept_entries(strides, descriptor.keep()), device_, dtype_,
                       StorageOffset() + offset);
}

Tensor* Tensor::select_ndim_grad(const Tensor* grad, const std::vector<std::string>& items) const {
    check_operands(where("ornik::Tensor::select_ndim_grad", family), grad);
    SelDescriptorV2 descriptor(items);
    descriptor.build(shape_, grad->Shape());
    Selection selection = descriptor.selection();
    const std::unique_ptr<Tensor> folded = fold_repeats(grad, selection);
    std::unique_ptr<Tensor> result(zeros(shape_, grad->Device(), grad->Dtype()));
    device::cpu::cpu_select_ndim_backward(folded.get(), selection, result.get());
    return result.release();
}

void Tensor::set_select_legacy(Tensor* value, const std::vector<std::string>& items) {
    SelDescriptor descriptor(items);
    descriptor.build(shape_);
    set_selected(where("ornik::Tensor::set_select_legacy", family), this, descriptor.selection(),
                 std::vector<bool>(shape_.size(), true), value);
}

void Tensor::set_select_ndim(Tensor* value, const std::vector<std::string>& items) {
    SelDescriptorV2 descriptor(items);
    descriptor.build(shape_);
    set_selected(where("ornik::Tensor::set_select_ndim", family), this, descriptor.selection(), descriptor.keep(),
                 value);
}

void Tensor::set_select_ndim_grad(Tensor* grad, const std::vector<std::string>& items) {
    const Where at = where("ornik::Tensor::set_select_ndim_grad", family);
    check_operands(at, this, grad);
    SelDescriptorV2 descriptor(items);
    descriptor.build(shape_, grad->Shape());
    if (grad->Device() != device_) {
        fail(ErrorKind::device, at, "set select ndim input tensor should on same device.");
    }
    check_not_expanded(at, this);
    check_writable(at, this);
    Selection selection = descriptor.selection();
    const Borrowed converted = Borrowed::of_dtype(grad, dtype_);
    const std::unique_ptr<Tensor> folded = fold_repeats(converted.get(), selection);
    const std::unique_ptr<Tensor> old = gathered(this, selection);
    old->add_tensor_inplace(folded.get());
    announce_write(at, this);
    device::cpu::cpu_select_ndim_backward(old.get(), selection, this);
}

// ---- Gradients of set_select_ndim ----

Tensor* set_select_ndim_grad(const Tensor* grad, const std::vector<std::string>& items) {
    check_operands(where("ornik::set_select_ndim_grad"), grad);
    std::unique_ptr<Tensor> result(grad->clone());
    const std::unique_ptr<Tensor> zero(Tensor::zeros({}, grad->Device(), grad->Dtype()));
    result->set_select_ndim(zero.get(), items);
    return result.release();
}

Tensor* set_select_ndim_value_grad(const Tensor* grad, const Dims& value_shape, const std::vector<std::string>& items) {
    const Where at = where("ornik::set_select_ndim_value_grad");
    check_operands(at, grad);
    SelDescriptorV2 descriptor(items);
    descriptor.build(grad->Shape());
    const Selection& selection = descriptor.selection();
    std::unique_ptr<Tensor> taken = gathered(grad, selection);
    for (std::size_t k = 0; k < selection.size(); ++k) {
        const UniquePositions unique(selection[k].list);
        Selection replaced = selection;
        for (std::size_t i = 0; i < replaced.size(); ++i) {
            replaced[i] = {0, 1, selection[i].count};
        }
        for (std::size_t g = 1; unique.has_repeats() && g < unique.groups.starts.size(); ++g) {
            for (std::int64_t i = unique.groups.starts[g - 1]; i + 1 < unique.groups.starts[g]; ++i) {
                replaced[k] = {unique.groups.members[static_cast<std::size_t>(i)], 1, 1};
                selected_view(taken.get(), replaced)->fill_(0);
            }
        }
    }
    // The value may have had the selection's axes of extent 1, or not.
    const Dims kept = descriptor.kept_shape();
    if (value_shape.size() <= kept.size() && kept != taken->Shape()) {
        taken->reshape_(kept);
    }
    return gradient_of_value(at, taken.get(), value_shape).release();
}

}  // namespace ornik
