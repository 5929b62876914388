// selection.cpp: from the items of an index to a view, or to a plan with index tensors.
#include "ktensor/selection.h"

#include <algorithm>

#include "ktensor/indexing.h"
#include "ktensor/operands.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik::autograd {

namespace {

bool is_mask(const KTensor& t) { return t.dtype() == dtype::boolean; }

SliceItem raw_slice(const Slice& slice) {
    return {SliceItem::Kind::slice,  slice.begin.value_or(0), slice.end.value_or(0), slice.step,
            slice.begin.has_value(), slice.end.has_value()};
}

// `block` becomes the common shape.
bool broadcast_into(Dims& block, const Dims& shape) {
    if (block.size() < shape.size()) {
        block.insert(block.begin(), shape.size() - block.size(), 1);
    }
    const std::size_t lead = block.size() - shape.size();
    for (std::size_t i = 0; i < shape.size(); ++i) {
        std::int64_t& extent = block[lead + i];
        if (extent != shape[i] && extent != 1 && shape[i] != 1) {
            return false;
        }
        extent = extent == 1 ? shape[i] : extent;
    }
    return true;
}

}  // namespace

void check_index(const char* operation, const KTensor& index, bool mask) {
    if (!index.defined()) {
        fail(where("ornik::KTensor"), operation, "(): an index tensor is an undefined KTensor.");
    }
    if (index.is_floating() || index.is_complex() || (is_mask(index) && !mask)) {
        fail(ErrorKind::dtype, where("ornik::KTensor"), operation, "(): an index tensor holds integers",
             mask ? " or bool" : "", ", not ", describe(index), ".");
    }
}

void check_positions(const char* operation, const KTensor& x, std::size_t axis, const KTensor& index) {
    const std::int64_t extent = x.shape()[axis];
    for (const std::int64_t position : index.to_vector<std::int64_t>()) {
        if (position < -extent || position >= extent) {
            fail(ErrorKind::index, where("ornik::KTensor"), operation, "(): index ", position,
                 " is out of range for axis ", axis, " of ", describe(x), ", which has ", extent, " elements.");
        }
    }
}

SliceItems view_items(const IndexList& items) {
    SliceItems raw;
    raw.reserve(items.items().size());
    for (const Index& item : items.items()) {
        switch (item.kind()) {
            case Index::Kind::position:
                raw.push_back(SliceItem::index(item.position()));
                break;
            case Index::Kind::slice:
                raw.push_back(raw_slice(item.slice()));
                break;
            case Index::Kind::rest:
                raw.push_back(SliceItem::ellipsis());
                break;
            case Index::Kind::new_axis:
                raw.push_back(SliceItem::new_axis());
                break;
            case Index::Kind::truth:
            case Index::Kind::tensor:
                break;
        }
    }
    return raw;
}

SliceItems restored(SliceItems items, Backward& pass) {
    std::size_t k = 0;
    for (SliceItem& item : items) {
        if (item.kind == SliceItem::Kind::tensor) {
            item.tensor = pass.saved_raw(k++);
        }
    }
    return items;
}

std::vector<Index> restored_items(const SliceItems& items, Backward& pass) {
    std::vector<Index> result;
    result.reserve(items.size());
    std::size_t k = 0;
    for (const SliceItem& item : items) {
        switch (item.kind) {
            case SliceItem::Kind::index:
                result.emplace_back(item.begin);
                break;
            case SliceItem::Kind::slice:
                result.emplace_back(Slice(item.has_begin ? Slice::Bound(item.begin) : std::nullopt,
                                          item.has_end ? Slice::Bound(item.end) : std::nullopt, item.step));
                break;
            case SliceItem::Kind::ellipsis:
                result.emplace_back(ellipsis);
                break;
            case SliceItem::Kind::new_axis:
                result.emplace_back(newaxis);
                break;
            case SliceItem::Kind::tensor:
                result.emplace_back(pass.saved(k++));
                break;
        }
    }
    return result;
}

Selection::Selection(const char* operation, const KTensor& x, const IndexList& items)
    : operation_(operation), x_(x), items_(items.items()) {
    check_defined(operation, x, 0);
    std::size_t dropped = 0;
    std::size_t added = 0;
    count_items(dropped, added);
    if (has_tensors_) {
        make_plan();
    } else {
        make_view(x.shape().size() - dropped + added);
    }
}

void Selection::count_items(std::size_t& dropped, std::size_t& added) {
    std::size_t named = 0;
    for (const Index& item : items_) {
        switch (item.kind()) {
            case Index::Kind::position:
                ++dropped;
                ++named;
                break;
            case Index::Kind::slice:
                ++named;
                break;
            case Index::Kind::rest:
                if (has_ellipsis_) {
                    fail(ErrorKind::index, where("ornik::KTensor"), operation_,
                         "(): an ellipsis can stand once among the items.");
                }
                has_ellipsis_ = true;
                break;
            case Index::Kind::new_axis:
                ++added;
                break;
            case Index::Kind::truth:
                has_tensors_ = true;
                break;
            case Index::Kind::tensor:
                check_index(operation_, item.tensor(), true);
                has_tensors_ = true;
                named += is_mask(item.tensor()) ? item.tensor().shape().size() : 1;
                break;
        }
    }
    const std::size_t rank = x_.shape().size();
    if (named > rank) {
        fail(ErrorKind::index, where("ornik::KTensor"), operation_, "(): ", describe(x_), " has ", rank, " axes; ",
             named, " are indexed.");
    }
    rest_ = rank - named;
}

std::int64_t Selection::position(const Index& item, std::size_t axis) const {
    const std::int64_t extent = x_.shape()[axis];
    const std::int64_t given = item.position();
    if (given < -extent || given >= extent) {
        fail(ErrorKind::index, where("ornik::KTensor"), operation_, "(): index ", given, " is out of range for axis ",
             axis, " of ", describe(x_), ", which has ", extent, " elements.");
    }
    return given < 0 ? given + extent : given;
}

SliceRange Selection::range(const Index& item, std::size_t axis) const {
    if (item.slice().step == 0) {
        fail(where("ornik::KTensor"), operation_, "(): the slice of axis ", axis, " of ", describe(x_),
             " has a step of 0.");
    }
    return slice_range(raw_slice(item.slice()), x_.shape()[axis]);
}

// From the last axis to the first: a new axis gets the stride that keeps contiguous elements contiguous.
void Selection::make_view(std::size_t rank) {
    const Dims& extents = x_.shape();
    const Dims& steps = x_.strides();
    shape_.resize(rank);
    strides_.resize(rank);
    std::size_t axis = extents.size();
    std::size_t at = rank;
    std::int64_t next = 1;
    bool has_elements = true;
    const auto keep = [&](std::int64_t extent, std::int64_t stride) {
        --at;
        shape_[at] = extent;
        strides_[at] = stride;
        has_elements = has_elements && extent != 0;
        next = stride * std::max<std::int64_t>(extent, 1);
    };
    const auto keep_rest = [&] {
        for (std::size_t i = 0; i < rest_; ++i) {
            --axis;
            keep(extents[axis], steps[axis]);
        }
    };
    if (!has_ellipsis_) {
        keep_rest();
    }
    for (std::size_t i = items_.size(); i-- > 0;) {
        const Index& item = items_[i];
        if (item.kind() == Index::Kind::position) {
            --axis;
            offset_ += position(item, axis) * steps[axis];
        } else if (item.kind() == Index::Kind::slice) {
            --axis;
            const SliceRange chosen = range(item, axis);
            offset_ += chosen.begin * steps[axis];
            keep(chosen.count, steps[axis] * chosen.step);
        } else if (item.kind() == Index::Kind::rest) {
            keep_rest();
        } else {
            keep(1, next);
        }
    }
    offset_ = has_elements ? offset_ : 0;
}

KTensor Selection::view_of(const KTensor& target) const { return share(target, shape_, strides_, offset_); }

void Selection::hold(const KTensor& tensor, std::size_t axis) {
    tensors_.push_back(tensor);
    tensor_axes_.push_back(axis);
    raw_.push_back(SliceItem::positions(tensor.tensor()));
}

void Selection::add_tensor(const KTensor& tensor, std::size_t& axis, Dims& block) {
    Dims shape = tensor.shape();
    const std::size_t rank = shape.size();
    if (!is_mask(tensor)) {
        hold(tensor, axis);
        ++axis;
    } else if (rank == 0) {
        hold(tensor, x_.shape().size());
        shape = {tensor.item<bool>() ? 1 : 0};
    } else {
        if (!std::equal(shape.begin(), shape.end(), x_.shape().begin() + static_cast<std::ptrdiff_t>(axis))) {
            fail(ErrorKind::index, where("ornik::KTensor"), operation_, "(): a mask of ", describe(tensor),
                 " does not fit ", describe(x_), " from axis ", axis, " on.");
        }
        const KTensor places = nonzero(tensor);
        shape = {places.shape()[0]};
        for (std::size_t d = 0; d < rank; ++d) {
            const auto column = shape[0] == 0 ? 0 : static_cast<std::int64_t>(d);
            hold(share(places, shape, {static_cast<std::int64_t>(rank)}, column), axis);
            ++axis;
        }
    }
    const Dims before = block;
    if (!broadcast_into(block, shape)) {
        fail(ErrorKind::index, where("ornik::KTensor"), operation_, "(): index tensors of ",
             describe(before, dtype::int64), " and ", describe(shape, dtype::int64), " do not broadcast.");
    }
}

void Selection::make_plan() {
    const Dims& extents = x_.shape();
    Dims block;                   // the common shape of the index tensors
    Dims kept;                    // the extents of all other axes
    std::size_t block_place = 0;  // among them
    bool found = false;
    bool ended = false;
    bool apart = false;
    constexpr std::size_t none = SIZE_MAX;
    std::size_t surplus = none;
    std::size_t axis = 0;
    const auto take_part = [&] {
        apart = apart || ended;
        block_place = found ? block_place : kept.size();
        found = true;
    };
    const auto keep = [&](std::int64_t extent) {
        ended = found;
        kept.push_back(extent);
    };
    for (const Index& item : items_) {
        switch (item.kind()) {
            case Index::Kind::position:
                take_part();
                raw_.push_back(SliceItem::index(position(item, axis)));
                ++axis;
                break;
            case Index::Kind::slice:
                keep(range(item, axis).count);
                raw_.push_back(raw_slice(item.slice()));
                ++axis;
                break;
            case Index::Kind::new_axis:
                keep(1);
                raw_.push_back(SliceItem::new_axis());
                break;
            case Index::Kind::rest:
                if (rest_ == 0 && found) {
                    // It keeps index tensors on its sides apart although it stands for no axis.
                    surplus = kept.size();
                    keep(1);
                    raw_.push_back(SliceItem::new_axis());
                    break;
                }
                raw_.push_back(SliceItem::ellipsis());
                for (std::size_t i = 0; i < rest_; ++i) {
                    keep(extents[axis++]);
                }
                break;
            case Index::Kind::truth:
                take_part();
                add_tensor(KTensor::scalar(Scalar(item.truth())), axis, block);
                break;
            case Index::Kind::tensor:
                take_part();
                add_tensor(item.tensor(), axis, block);
                break;
        }
    }
    while (axis < extents.size()) {
        keep(extents[axis++]);
    }
    raw_shape_ = std::move(kept);
    raw_shape_.insert(raw_shape_.begin() + static_cast<std::ptrdiff_t>(apart ? 0 : block_place), block.begin(),
                      block.end());
    shape_ = raw_shape_;
    if (surplus != none) {
        shape_.erase(shape_.begin() + static_cast<std::ptrdiff_t>(surplus + block.size()));
    }
}

void Selection::explain(ErrorKind kind) const {
    for (std::size_t i = 0; kind == ErrorKind::index && i < tensors_.size(); ++i) {
        if (tensor_axes_[i] < x_.shape().size()) {
            check_positions(operation_, x_, tensor_axes_[i], tensors_[i]);
        }
    }
}

KTensor Selection::fitted(const KTensor& value) const {
    const Dims& given = value.shape();
    const std::size_t surplus = given.size() - std::min(given.size(), shape_.size());
    const auto first = given.begin() + static_cast<std::ptrdiff_t>(surplus);
    bool fits = std::all_of(given.begin(), first, [](std::int64_t extent) { return extent == 1; });
    const std::size_t lead = shape_.size() - (given.size() - surplus);
    for (std::size_t i = surplus; fits && i < given.size(); ++i) {
        fits = given[i] == 1 || given[i] == shape_[lead + i - surplus];
    }
    if (!fits) {
        fail(where("ornik::KTensor"), operation_, "(): ", describe(value), " does not broadcast to the selected ",
             describe(shape_, x_.dtype()), ".");
    }
    if (has_tensors_ && raw_shape_ != shape_) {
        return reshape(broadcast_to(surplus > 0 ? reshape(value, Dims(first, given.end())) : value, shape_),
                       raw_shape_);
    }
    return surplus > 0 ? reshape(value, Dims(first, given.end())) : value;
}

}  // namespace ornik::autograd
