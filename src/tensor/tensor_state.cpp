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

namespace {

// The object model reports under one file name, its shape setter with the reshaping operations.
constexpr const char* family = "src/tensor/tensor.cpp";
constexpr const char* shape_setter = "src/tensor/tensor_shape.cpp";

std::int64_t capacity_of(const tensorT::Tensor_storage& storage, std::int64_t dtype) {
    return storage.byte_size() / std::max<std::int64_t>(dtype_item_size(dtype), 1);
}

bool lies_inside(const Dims& shape, const Dims& strides, std::int64_t offset, std::int64_t capacity) {
    const bool is_constant = std::all_of(strides.begin(), strides.end(), [](std::int64_t step) { return step == 0; });
    const bool has_negative_extent = std::any_of(shape.begin(), shape.end(), [](std::int64_t n) { return n < 0; });
    const bool is_empty = std::find(shape.begin(), shape.end(), 0) != shape.end();
    if (shape.size() != strides.size() || (has_negative_extent && !is_constant)) {
        return false;
    }
    // A tensor without elements touches nothing, but its address must still lie in (or just behind) the
    // storage.
    const std::optional<Span> span = is_empty || is_constant ? Span{} : element_span(shape, strides);
    const std::int64_t last_start = is_empty ? capacity : capacity - 1;
    return span && offset >= 0 && offset + span->lowest >= 0 && offset <= last_start &&
           span->highest <= last_start - offset;
}

void check_dtype_code(const Where& at, std::int64_t dtype) {
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
}

// What the initialisers but that of views need of their arguments; the element count.
std::int64_t check_description(const Where& at, const Dims& shape, std::int64_t dtype) {
    check_dtype_code(at, dtype);
    check_extents(at, shape);
    return checked_numel(at, shape);
}

// Any code may come; far from those of devices it wraps.
std::int64_t gpu_index_of(std::int64_t device) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(device) - std::uint64_t{device_first_gpu});
}

}  // namespace

// ---- Shape and strides: made first, taken over by what can not fail ----

// The one place where a tensor gets its axes.
void Tensor::take_axes(Dims&& shape, Dims&& strides) noexcept {
    shape_ = std::move(shape);
    strides_ = std::move(strides);
    ndim_ = static_cast<std::int32_t>(shape_.size());
    if_scalar_ = shape_.empty();
}

void Tensor::set_geometry(const Dims& shape, const Dims& strides, std::int64_t size) {
    const bool has_meta = meta_sync_ == 1 && meta_;
    const bool meta_has_axes = has_meta && meta_axes_.load(std::memory_order_relaxed) == Record::current;
    Dims own[] = {shape, strides};
    Dims of_meta[] = {meta_has_axes ? shape : Dims{}, meta_has_axes ? strides : Dims{}};
    take_axes(std::move(own[0]), std::move(own[1]));
    size_ = size;
    if (meta_has_axes) {
        meta_->take_geometry(std::move(of_meta[0]), std::move(of_meta[1]));
    }
    if (has_meta) {
        meta_->setSize(size);
    }
    refresh_options();
}

void Tensor::assign_size(std::int64_t size) {
    size_ = size;
    if (meta_sync_ == 1 && meta_) {
        meta_->setSize(size);
    }
    refresh_options();
}

// ---- Updates ----

void Tensor::check_inside(const Where& at, const Dims& shape, const Dims& strides, std::int64_t offset,
                          std::int64_t dtype, const tensorT::Tensor_storage* storage) const {
    if (storage == nullptr) {
        return;
    }
    const std::int64_t capacity = capacity_of(*storage, dtype);
    if (!lies_inside(shape, strides, offset, capacity)) {
        fail(at, "Tensor does not fit into its storage: shape ", shape, ", strides ", strides, ", offset ", offset,
             ", storage for ", capacity, " elements.");
    }
}

void Tensor::check_new_shape(const Dims& shape) const {
    const Where at = where("ornik::Tensor::updateShape", shape_setter);
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

// The strides that updateShape sets: the first of its choices under which the elements lie in the storage.
Dims Tensor::strides_for(const Where& at, const Dims& shape) const {
    std::vector<Dims> choices{shape2stride(shape)};
    if (strides_.size() == shape.size()) {
        choices.insert(is_contiguous() ? choices.end() : choices.begin(), strides_);
    }
    const tensorT::Tensor_storage* const storage = borrow_storage();
    if (storage != nullptr) {
        if (checked_numel(at, shape) == size_) {
            choices.push_back(view_strides(shape_, strides_, size_, shape));
        }
        for (Dims& strides : choices) {
            if (lies_inside(shape, strides, StorageOffset(), capacity_of(*storage, dtype_))) {
                return std::move(strides);
            }
        }
    }
    check_inside(at, shape, choices.front(), StorageOffset(), dtype_, storage);
    return choices.front();
}

void Tensor::updateShape(const Dims& shape) {
    check_new_shape(shape);
    // The size follows in updateSize().
    set_geometry(shape, strides_for(where("ornik::Tensor::updateShape", shape_setter), shape), size_);
}

void Tensor::updateStrides() { updateStrides(shape2stride(shape_)); }

void Tensor::updateStrides(const Dims& strides) {
    const Where at = where("ornik::Tensor::updateStrides", family);
    check_inside(at, shape_, strides, StorageOffset(), dtype_, borrow_storage());
    if (strides.size() != shape_.size()) {
        fail(at, "Strides ", strides, "do not fit shape ", shape_);
    }
    set_geometry(shape_, strides, size_);
}

void Tensor::updateSize() { assign_size(checked_numel(where("ornik::Tensor::updateSize", family), shape_)); }

void Tensor::setSize(std::int64_t size) {
    const Where at = where("ornik::Tensor::setSize", family);
    if (size < 0 || (!shape_.empty() && size > checked_numel(at, shape_))) {
        fail(at, "Size can not be ", size, " for shape ", shape_);
    }
    assign_size(size);
}

void Tensor::updateDtype(std::int64_t dtype) {
    const Where at = where("ornik::Tensor::updateDtype", family);
    check_dtype_code(at, dtype);
    check_inside(at, shape_, strides_, StorageOffset(), dtype, borrow_storage());
    dtype_ = dtype;
    if (meta_sync_ == 1 && meta_) {
        meta_->SetDtype(dtype_);
    }
    refresh_options();
}

void Tensor::updateDevice(std::int64_t device) {
    device_ = device;
    gpu_index_ = gpu_index_of(device);
    if (meta_sync_ == 1 && meta_) {
        meta_->SetDevice(device_);
    }
    refresh_options();
}

void Tensor::updateOffset(std::int64_t offset) {
    check_inside(where("ornik::Tensor::updateOffset", family), shape_, strides_, offset, dtype_, borrow_storage());
    if (meta_) {
        meta_->SetOffset(offset);
    }
}

void Tensor::setStorage(const std::shared_ptr<tensorT::Tensor_storage>& storage) {
    check_inside(where("ornik::Tensor::setStorage", family), shape_, strides_, StorageOffset(), dtype_, storage.get());
    if (meta_) {
        meta_->setStorage(storage);
    }
}

// ---- Initialisers ----

// Nothing of what the tensor was stays.
void Tensor::become(Dims&& shape, Dims&& strides, std::int64_t size, std::int64_t dtype, std::int64_t device,
                    std::shared_ptr<tensorT::Tensor_Meta>&& meta) noexcept {
    if (ndarray_handles_ == nullptr) {
        deleteData();
    }
    csr_members_.clear();
    take_axes(std::move(shape), std::move(strides));
    size_ = size;
    dtype_ = dtype;
    device_ = device;
    gpu_index_ = gpu_index_of(device);
    meta_ = std::move(meta);
    meta_axes_.store(meta_ ? Record::stale : Record::current, std::memory_order_relaxed);
    meta_sync_ = 1;
    options_pending_ = 0;
    refresh_options();
}

int Tensor::init_tensor_without_alloc_data(const Dims& shape, std::int64_t dtype, std::int64_t device,
                                           std::int64_t /*layout*/) {
    const std::int64_t size =
        check_description(where("ornik::Tensor::init_tensor_without_alloc_data", family), shape, dtype);
    become(Dims(shape), shape2stride(shape), size, dtype, device, nullptr);
    return 0;
}

int Tensor::initialize_none_tensor(const Dims& shape, std::int64_t dtype, std::int64_t device, std::int64_t layout) {
    const std::int64_t size = check_description(where("ornik::Tensor::initialize_none_tensor", family), shape, dtype);
    Dims strides = shape2stride(shape);
    auto meta = new_meta(size, dtype, device, layout, 0);
    meta->allocateDtypeData();
    become(Dims(shape), std::move(strides), size, dtype, device, std::move(meta));
    return 0;
}

int Tensor::init_none_tensor_with_shared_storage(const Dims& shape, const Dims& strides, std::int64_t dtype,
                                                 std::int64_t device,
                                                 const std::shared_ptr<tensorT::Tensor_storage>& storage,
                                                 std::int64_t layout, std::int64_t offset) {
    const Where at = where("ornik::Tensor::init_none_tensor_with_shared_storage", family);
    if (!storage) {
        fail(at, "Tensor needs a storage to share.");
    }
    check_dtype_code(at, dtype);
    check_inside(at, shape, strides, offset, dtype, storage.get());
    const std::int64_t size = checked_numel(at, shape);
    auto meta = new_meta(size, dtype, device, layout, offset);
    meta->setStorage(storage);
    become(Dims(shape), Dims(strides), size, dtype, device, std::move(meta));
    return 0;
}

int Tensor::init_sparse_tensor(const Dims& shape, std::int64_t dtype, std::int64_t device, std::int64_t layout,
                               std::vector<std::unique_ptr<Tensor>>&& members) {
    const Where at = where("ornik::Tensor::init_sparse_tensor", family);
    const std::int64_t size = check_description(at, shape, dtype);
    if (layout != ornik::layout::csr && layout != ornik::layout::coo) {
        fail(at, "A sparse tensor has layout 1 (CSR) or 2 (COO), however it is ", layout);
    }
    Dims strides = shape2stride(shape);
    std::vector<Tensor*> owned(members.size());
    auto meta = new_meta(size, dtype, device, layout, 0);
    become(Dims(shape), std::move(strides), size, dtype, device, std::move(meta));
    storage_type_ = static_cast<std::int32_t>(layout);
    std::transform(members.begin(), members.end(), owned.begin(), [](auto& member) { return member.release(); });
    csr_members_ = std::move(owned);
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
        fail(where("ornik::share_storage_tensor", family), "Tensor needs a storage to share.");
    }
    return view_tensor(storage, shape, strides, storage->getDevice(), dtype, offset);
}

}  // namespace ornik
