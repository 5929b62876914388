// tensor_state.cpp: updates of a tensor's description and the initialisers behind views.
//
// Whoever changes shape, strides, offset, dtype or storage comes through check_inside, so that no
// kernel ever meets a tensor whose elements lie outside its storage. The meta is kept equal to the
// tensor while the meta-sync flag is set.
#include <algorithm>

#include "tensor/geometry.h"
#include "tensor/tensor.h"
#include "utils/utils.h"

namespace ornik {

void Tensor::refresh_options() {
    if (options_pending_ != 0) {
        return;
    }
    options_ = std::make_shared<TensorToptions>(TensorToptions{dtype_, device_, shape_, size_, strides_, ndim_});
}

void Tensor::check_inside(const Where& at, const Dims& shape, const Dims& strides, std::int64_t offset,
                          std::int64_t dtype, const tensorT::Tensor_storage* storage) const {
    if (storage == nullptr) {
        return;
    }
    const bool is_constant = std::all_of(strides.begin(), strides.end(), [](std::int64_t step) { return step == 0; });
    const bool has_negative_extent = std::any_of(shape.begin(), shape.end(), [](std::int64_t n) { return n < 0; });
    const bool is_empty = std::find(shape.begin(), shape.end(), 0) != shape.end();
    const std::int64_t capacity = storage->byte_size() / std::max<std::int64_t>(dtype_item_size(dtype), 1);
    // A tensor without elements touches nothing, but its address must still lie in (or just behind) the
    // storage.
    const bool same_rank = shape.size() == strides.size();
    const std::optional<Span> span = is_empty || is_constant || !same_rank ? Span{} : element_span(shape, strides);
    const std::int64_t last_start = is_empty ? capacity : capacity - 1;
    if (!same_rank || (has_negative_extent && !is_constant) || !span || offset < 0 || offset + span->lowest < 0 ||
        offset > last_start || span->highest > last_start - offset) {
        fail(at, "Tensor does not fit into its storage: shape ", shape, ", strides ", strides, ", offset ", offset,
             ", storage for ", capacity, " elements.");
    }
}

void Tensor::check_new_shape(const Dims& shape) const {
    const Where at = where("ornik::Tensor::updateShape");
    const std::int64_t numel = checked_numel(at, shape);
    if (numel != size_ && size_ >= 2) {
        fail(at, shape_, " not same size for reshape: ", shape);
    }
    for (const std::int64_t extent : shape) {
        const auto low_bits = static_cast<std::int32_t>(extent);
        if (low_bits < 1) {
            fail(at, "Dim in shape should >0, however it equals ", low_bits);
        }
    }
}

void Tensor::set_geometry(const Dims& shape, const Dims& strides) {
    shape_ = shape;
    strides_ = strides;
    ndim_ = static_cast<std::int32_t>(shape.size());
    if (meta_sync_ == 1 && meta_) {
        meta_->SetShape(shape_);
        meta_->SetStride(strides_);
    }
    refresh_options();
}

void Tensor::updateShape(const Dims& shape) {
    check_new_shape(shape);
    // Strides follow when the number of axes changes; the size follows in updateSize().
    const Dims strides = strides_.size() == shape.size() ? strides_ : shape2stride(shape);
    check_inside(where("ornik::Tensor::updateShape"), shape, strides, StorageOffset(), dtype_, getStorage().get());
    set_geometry(shape, strides);
}

void Tensor::updateStrides() { updateStrides(shape2stride(shape_)); }

void Tensor::updateStrides(const Dims& strides) {
    check_inside(where("ornik::Tensor::updateStrides"), shape_, strides, StorageOffset(), dtype_, getStorage().get());
    strides_ = strides;
    if (meta_sync_ == 1 && meta_) {
        meta_->SetStride(strides_);
    }
    refresh_options();
}

void Tensor::updateSize() { setSize(checked_numel(where("ornik::Tensor::updateSize"), shape_)); }

void Tensor::setSize(std::int64_t size) {
    size_ = size;
    if (meta_sync_ == 1 && meta_) {
        meta_->setSize(size_);
    }
    refresh_options();
}

void Tensor::updateDtype(std::int64_t dtype) {
    const Where at = where("ornik::Tensor::updateDtype");
    if (!is_valid_dtype(dtype)) {
        fail(at, "Not valid data type.");
    }
    check_inside(at, shape_, strides_, StorageOffset(), dtype, getStorage().get());
    dtype_ = dtype;
    if (meta_sync_ == 1 && meta_) {
        meta_->SetDtype(dtype_);
    }
    refresh_options();
}

void Tensor::updateDevice(std::int64_t device) {
    device_ = device;
    gpu_index_ = device - device_first_gpu;
    if (meta_sync_ == 1 && meta_) {
        meta_->SetDevice(device_);
    }
    refresh_options();
}

void Tensor::updateOffset(std::int64_t offset) {
    check_inside(where("ornik::Tensor::updateOffset"), shape_, strides_, offset, dtype_, getStorage().get());
    if (meta_) {
        meta_->SetOffset(offset);
    }
}

void Tensor::setStorage(const std::shared_ptr<tensorT::Tensor_storage>& storage) {
    check_inside(where("ornik::Tensor::setStorage"), shape_, strides_, StorageOffset(), dtype_, storage.get());
    if (meta_) {
        meta_->setStorage(storage);
    }
}

// The fields that every initialiser sets; row-major strides.
int Tensor::describe(const Where& at, const Dims& shape, std::int64_t dtype, std::int64_t device) {
    if (!is_valid_dtype(dtype)) {
        fail(at, "Not valid data type.");
    }
    const std::int64_t numel = checked_numel(at, shape);
    dtype_ = dtype;
    device_ = device;
    gpu_index_ = device - device_first_gpu;
    shape_ = shape;
    ndim_ = static_cast<std::int32_t>(shape.size());
    size_ = numel;
    strides_ = shape2stride(shape);
    if_scalar_ = shape.empty();
    meta_sync_ = 1;
    return 0;
}

int Tensor::init_tensor_without_alloc_data(const Dims& shape, std::int64_t dtype, std::int64_t device,
                                           std::int64_t /*layout*/) {
    describe(where("ornik::Tensor::init_tensor_without_alloc_data"), shape, dtype, device);
    options_pending_ = 0;
    refresh_options();
    return 0;
}

int Tensor::initialize_none_tensor(const Dims& shape, std::int64_t dtype, std::int64_t device, std::int64_t layout) {
    describe(where("ornik::Tensor::initialize_none_tensor"), shape, dtype, device);
    meta_ = std::make_shared<tensorT::Tensor_Meta>(shape_, strides_, dtype_, device_, layout, 0, true);
    options_pending_ = 0;
    refresh_options();
    return 0;
}

int Tensor::init_none_tensor_with_shared_storage(const Dims& shape, const Dims& strides, std::int64_t dtype,
                                                 std::int64_t device,
                                                 const std::shared_ptr<tensorT::Tensor_storage>& storage,
                                                 std::int64_t layout, std::int64_t offset) {
    const Where at = where("ornik::Tensor::init_none_tensor_with_shared_storage");
    if (!storage) {
        fail(at, "Tensor needs a storage to share.");
    }
    if (!is_valid_dtype(dtype)) {
        fail(at, "Not valid data type.");
    }
    check_inside(at, shape, strides, offset, dtype, storage.get());
    describe(at, shape, dtype, device);
    strides_ = strides;
    meta_ = std::make_shared<tensorT::Tensor_Meta>(shape_, strides_, dtype_, device_, layout, offset, false);
    meta_->setStorage(storage);
    options_pending_ = 0;
    refresh_options();
    return 0;
}

int Tensor::init_sparse_tensor(const Dims& shape, std::int64_t dtype, std::int64_t device, std::int64_t layout,
                               std::vector<std::unique_ptr<Tensor>>&& members) {
    describe(where("ornik::Tensor::init_sparse_tensor"), shape, dtype, device);
    meta_ = std::make_shared<tensorT::Tensor_Meta>(shape_, strides_, dtype_, device_, layout, 0, false);
    storage_type_ = static_cast<std::int32_t>(layout);
    options_pending_ = 0;
    refresh_options();
    csr_members_.resize(members.size());
    std::transform(members.begin(), members.end(), csr_members_.begin(), [](auto& member) { return member.release(); });
    return 0;
}

Tensor* view_tensor(const std::shared_ptr<tensorT::Tensor_storage>& storage, const Dims& shape, const Dims& strides,
                    std::int64_t device, std::int64_t dtype, std::int64_t offset) {
    auto view = std::make_unique<Tensor>();
    view->init_none_tensor_with_shared_storage(shape, strides, dtype, device, storage, layout::dense, offset);
    return view.release();
}

Tensor* share_storage_tensor(const std::shared_ptr<tensorT::Tensor_storage>& storage, const Dims& shape,
                             const Dims& strides, std::int64_t dtype, std::int64_t offset) {
    if (!storage) {
        fail(where("ornik::share_storage_tensor"), "Tensor needs a storage to share.");
    }
    return view_tensor(storage, shape, strides, storage->getDevice(), dtype, offset);
}

}  // namespace ornik
