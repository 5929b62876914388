// indexing_axes.cpp: indexing several axes at once, and masks.
#include "hardware/cpu/index/cpu_index.h"
#include "indices.h"
#include "tensor/broadcast.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik {

namespace {

<<<<<<< HEAD
=======
// A row-major mask: true where `t` is not zero.
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

// Column d of `columns` [count, ndim]: the coordinates along axis d of flat positions in a shape.
TensorResult coordinates(const Tensor* positions, const Dims& shape) {
    const auto rank = static_cast<std::int64_t>(shape.size());
    TensorResult columns = new_result({positions->Size(), rank}, dtype::int64);
    device::cpu::coordinates(positions, shape, columns.get());
    return columns;
}

TensorResult column_of(const Tensor* columns, std::size_t d) {
    const Dims& shape = columns->Shape();
    return new_view(columns, {shape[0]}, {shape[1]}, shape[0] > 0 ? static_cast<std::int64_t>(d) : 0);
}

// Checked indices of a tensor of a shape: int64 views of one shape, and the shape of what they select.
class Indices {
  public:
    Indices(const Where& at, const Dims& shape, const std::vector<Tensor*>& indices) : indexed_(shape.size()) {
        std::vector<TensorResult> positions(shape.size());
        std::size_t axis = 0;
        for (const Tensor* index : indices) {
            const std::size_t wide = index != nullptr && index->isBool() ? index->Shape().size() : 1;
            if (axis + wide > shape.size()) {
                fail(ErrorKind::index, at, "Too many indices for a shape of ", shape);
            }
            if (index != nullptr && index->isBool()) {
                add_mask(at, shape, index, axis, positions);
            } else if (index != nullptr) {
                positions[axis] = as_positions(at, index);
                check_positions(at, positions[axis].get(), shape[axis]);
            }
            axis += wide;
        }
        for (const TensorResult& index : positions) {
            index_shape_ = index ? infer_size_impl(index_shape_, index->Shape()) : index_shape_;
        }
        bool found = false;
        bool ended = false;
        bool apart = false;
        for (std::size_t i = 0; i < shape.size(); ++i) {
            if (!positions[i]) {
                ended = found;
                selected_shape_.push_back(shape[i]);
                continue;
            }
            apart = apart || ended;
            position_ = found ? position_ : i;
            found = true;
            views_.push_back(TensorResult(Tensor::broadcast_to(positions[i].get(), index_shape_)));
            indexed_.axes[i] = views_.back().get();
        }
        position_ = apart ? 0 : position_;
        selected_shape_.insert(selected_shape_.begin() + static_cast<std::ptrdiff_t>(position_), index_shape_.begin(),
                               index_shape_.end());
    }

    const Dims& selected_shape() const { return selected_shape_; }
    device::cpu::SliceWalk walk(const Tensor* x, const Tensor* other) const {
        return slice_walk(indexed_, x, other, index_shape_, position_);
    }

  private:
    static void add_mask(const Where& at, const Dims& shape, const Tensor* mask, std::size_t axis,
                         std::vector<TensorResult>& positions) {
        check_cpu(at, mask);
        if (mask->Shape().empty() || !std::equal(mask->Shape().begin(), mask->Shape().end(),
                                                 shape.begin() + static_cast<std::ptrdiff_t>(axis))) {
            fail(at, "A mask of shape ", mask->Shape(), "does not fit axis ", axis, " of a shape of ", shape);
        }
        const TensorResult columns = coordinates(true_positions_of(mask).get(), mask->Shape());
        for (std::size_t d = 0; d < mask->Shape().size(); ++d) {
            positions[axis + d] = column_of(columns.get(), d);
        }
    }

    IndexedAxes indexed_;
    std::vector<TensorResult> views_;
    Dims index_shape_;
    Dims selected_shape_;
    std::size_t position_ = 0;  // Of the index axes among the selected ones.
};

>>>>>>> memory
void check_mask(const Where& at, const Tensor* mask) {
    check_cpu(at, mask);
    if (!mask->isBool()) {
        fail(ErrorKind::dtype, at, "Mask should be a bool tensor");
    }
}

}  // namespace

Tensor* index_get(Tensor* x, const std::vector<Tensor*>& indices) {
    const Where at = where("ornik::index_get");
    check_cpu(at, x);
    const Indices checked(at, x->Shape(), indices);
    TensorResult result = new_result(checked.selected_shape(), x->Dtype());
    device::cpu::take_slices(checked.walk(x, result.get()));
    return result.release();
}

void index_put_(Tensor* x, const std::vector<Tensor*>& indices, Tensor* values, bool accumulate) {
    const Where at = where("ornik::index_put_");
    check_cpu(at, x, values);
    check_not_expanded(at, x);
    const Indices checked(at, x->Shape(), indices);
    if (!Tensor::sameDtype(x, values)) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    const TensorResult expanded(Tensor::broadcast_to(values, checked.selected_shape()));
    const TensorResult source = row_major_copy(expanded.get());
    const device::cpu::SliceWalk walk = checked.walk(x, source.get());
    announce_write(at, x);
    device::cpu::put_slices(walk, accumulate);
}

Tensor* index_get_grad(Tensor* grad, const Dims& shape, const std::vector<Tensor*>& indices) {
    const Where at = where("ornik::index_get_grad");
    check_cpu(at, grad);
    check_dtype(at, is_float_or_complex(grad));
    const Indices checked(at, shape, indices);
    check_source(at, grad, grad, checked.selected_shape());
    TensorResult result = filled_result(shape, grad->Dtype(), 0.0F);
    const TensorResult source = row_major_copy(grad);
    device::cpu::put_slices(checked.walk(result.get(), source.get()), true);
    return result.release();
}

Tensor* index_put_grad(Tensor* grad, const std::vector<Tensor*>& indices) {
    const Where at = where("ornik::index_put_grad");
    check_cpu(at, grad);
    const Indices checked(at, grad->Shape(), indices);
    TensorResult result = row_major_copy(grad);
    checked.clear(result.get());
    return result.release();
}

Tensor* index_put_values_grad(Tensor* grad, const Dims& values_shape, const std::vector<Tensor*>& indices,
                              bool accumulate) {
    const Where at = where("ornik::index_put_values_grad");
    check_cpu(at, grad);
    const Indices checked(at, grad->Shape(), indices);
    return gradient_of_value(at, checked.taken(grad, !accumulate).get(), values_shape).release();
}

Tensor* masked_select(Tensor* x, Tensor* mask) {
    const Where at = where("ornik::masked_select");
    check_cpu(at, x);
    check_mask(at, mask);
    const Dims shape = infer_size_impl(x->Shape(), mask->Shape());
    const TensorResult whole_mask = truth_of(TensorResult(Tensor::broadcast_to(mask, shape)).get());
    TensorResult whole(Tensor::broadcast_to(x, shape));
    if (!whole->is_contiguous()) {
        whole = row_major_copy(whole.get());
    }
    const device::cpu::TrueRanks ranks = device::cpu::true_ranks(whole_mask.get());
    TensorResult result = new_result({ranks.count()}, x->Dtype());
    device::cpu::masked_take(whole.get(), whole_mask.get(), ranks, result.get());
    return result.release();
}

Tensor* masked_select_grad(Tensor* grad, const Dims& shape, Tensor* mask) {
    const Where at = where("ornik::masked_select_grad");
    check_cpu(at, grad);
    check_dtype(at, is_float_or_complex(grad));
    check_mask(at, mask);
    const Dims whole_shape = infer_size_impl(shape, mask->Shape());
    const TensorResult whole_mask = truth_of(TensorResult(Tensor::broadcast_to(mask, whole_shape)).get());
    const device::cpu::TrueRanks ranks = device::cpu::true_ranks(whole_mask.get());
    check_source(at, grad, grad, {ranks.count()});
    const TensorResult source = row_major_copy(grad);
    TensorResult whole = filled_result(whole_shape, grad->Dtype(), 0.0F);
    device::cpu::masked_put(source.get(), whole_mask.get(), ranks, whole.get());
    if (whole_shape == shape) {
        return whole.release();
    }
    // What was broadcast adds up.
    std::vector<int> repeated;
    const std::size_t lead = whole_shape.size() - shape.size();
    for (std::size_t i = 0; i < whole_shape.size(); ++i) {
        if (i < lead || shape[i - lead] != whole_shape[i]) {
            repeated.push_back(static_cast<int>(i));
        }
    }
    const TensorResult added(sum(whole.get(), repeated, true));
    TensorResult result = new_result(shape, grad->Dtype());
    device::cpu::copy(added.get(), result.get());
    return result.release();
}

Tensor* nonzero(Tensor* x) {
    check_cpu(where("ornik::nonzero"), x);
    return coordinates(true_positions_of(x).get(), x->Shape()).release();
}

}  // namespace ornik
