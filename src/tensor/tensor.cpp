// tensor.cpp: construction, destruction and queries of Tensor.
#include "tensor/tensor.h"

#include <algorithm>
#include <cstring>
#include <thread>

#include "hardware/parallel.h"
#include "tensor/checks.h"
#include "tensor/geometry.h"
#include "utils/object_cache.h"
#include "utils/utils.h"

namespace ornik {

std::int32_t pack_dtype_and_device(std::int64_t dtype, std::int64_t device) {
    const std::int64_t slot = device < device_first_gpu ? 0 : device - (device_first_gpu - 1);
    return static_cast<std::int32_t>(dtype | (slot << 4));
}

Tensor::Tensor() = default;

Tensor::Tensor(const Dims& shape, std::int32_t packed) { construct(shape, packed, nullptr, nullptr); }

Tensor::Tensor(const Dims& shape, const void* data, std::int32_t packed, void* ndarray_handle) {
    construct(shape, packed, data, ndarray_handle);
}

Tensor::Tensor(const Dims& shape, const Tensor* other) {
    check_given(where("ornik::Tensor::Tensor"), other);
    construct(shape, static_cast<std::int32_t>(other->device_), nullptr, nullptr);
}

Tensor::Tensor(const std::vector<float>& /*values*/, const Dims& shape, std::int32_t /*packed*/) {
    construct(shape, 0, nullptr, nullptr);
}

void* Tensor::operator new(std::size_t bytes) { return detail::take_object_memory(bytes); }

void Tensor::operator delete(void* memory, std::size_t bytes) noexcept { detail::give_object_memory(memory, bytes); }

void Tensor::construct(const Dims& shape, std::int32_t packed, const void* data, void* ndarray_handle) {
    const Where at = where("ornik::Tensor::Tensor");
    meta_sync_ = 1;
    const std::int64_t dtype = packed & 15;
    const std::int64_t slot = packed >> 4;
    JungleInlegalShape(shape);
    const std::int64_t device = slot == 0 ? device_cpu : device_first_gpu - 1 + slot;
    CheckDev(device);
    if (dtype + 1 > dtype_count) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    if (slot != 0) {
        refuse_gpu();
    }
    const std::int64_t numel = checked_numel(at, shape);
    dtype_ = dtype;
    ndarray_handles_ = ndarray_handle;
    device_ = device;
    gpu_index_ = device - device_first_gpu;
    take_axes(Dims(shape), shape2stride(shape));
    size_ = numel;
    meta_ = new_meta(size_, dtype_, device_, layout::dense, 0);
    meta_axes_.store(Record::stale, std::memory_order_relaxed);
    meta_->allocateDtypeData();
    if (data != nullptr) {
        std::memcpy(meta_->getRawData(), data, static_cast<std::size_t>(size_ * itemsize()));
    }
    options_pending_ = 0;
    refresh_options();
    apply_team_size();
}

Tensor::~Tensor() {
    if (ndarray_handles_ == nullptr && first_guard_ == 0) {
        deleteData();
    }
    options_.reset();
    csr_members_.clear();
    meta_.reset();
}

void Tensor::deleteData() {
    if (first_guard_ != 0 || second_guard_ != 0 || is_dense()) {
        return;
    }
    for (Tensor*& member : csr_members_) {
        delete member;
        member = nullptr;
    }
}

void Tensor::refresh_options() noexcept { options_state_.store(Record::stale, std::memory_order_relaxed); }

template <typename Make>
void Tensor::make_current(std::atomic<Record>& record, const Make& make) {
    for (Record state = record.load(std::memory_order_acquire); state != Record::current;
         state = record.load(std::memory_order_acquire)) {
        if (state == Record::in_the_making || !record.compare_exchange_strong(state, Record::in_the_making)) {
            std::this_thread::yield();
            continue;
        }
        try {
            make();
        } catch (...) {
            record.store(Record::stale, std::memory_order_release);
            throw;
        }
        record.store(Record::current, std::memory_order_release);
    }
}

const std::shared_ptr<TensorToptions>& Tensor::get_options() const {
    if (options_pending_ == 0) {
        make_current(options_state_, [&] {
            options_ =
                std::make_shared<TensorToptions>(TensorToptions{dtype_, device_, shape_, size_, strides_, ndim_});
        });
    }
    return options_;
}

std::shared_ptr<tensorT::Tensor_Meta> Tensor::new_meta(std::int64_t size, std::int64_t dtype, std::int64_t device,
                                                       std::int64_t layout, std::int64_t offset) const {
    return std::allocate_shared<tensorT::Tensor_Meta>(detail::ObjectAllocator<tensorT::Tensor_Meta>{},
                                                      tensorT::Tensor_Meta::WithoutAxes{}, size, dtype, device, layout,
                                                      offset);
}

void Tensor::give_meta_axes() const {
    make_current(meta_axes_, [&] {
        Dims shape = shape_;
        Dims strides = strides_;
        meta_->take_geometry(std::move(shape), std::move(strides));
    });
}

bool Tensor::is_contiguous() const { return is_dense() && is_row_major(shape_, strides_, size_); }

bool Tensor::sameDtype(const Tensor* a, const Tensor* b) {
    check_given(where("ornik::Tensor::sameDtype"), a, b);
    return a->dtype_ == b->dtype_;
}

std::int64_t Tensor::getDeviceID(std::int64_t code) {
    if (code < 0) {
        return -1;
    }
    if (code < device_first_gpu) {
        return 0;
    }
    return code < device_other ? 1 : 2;
}

std::string Tensor::getDeviceName() const {
    switch (getDeviceID(device_)) {
        case 0:
            return "CPU";
        case 1:
            return "GPU";
        default:
            return "unknown";
    }
}

namespace {

// Product of shape[begin .. end) in 32 bits, wrapping.
std::int32_t extent_product(const Dims& shape, std::int32_t begin, std::size_t end) {
    std::uint32_t product = 1;
    for (std::size_t i = static_cast<std::size_t>(std::max(begin, 0)); i < end; ++i) {
        product *= static_cast<std::uint32_t>(shape[i]);
    }
    return static_cast<std::int32_t>(product);
}

void check_axis(const Where& at, std::int32_t k, std::int32_t ndim) {
    if (k > ndim - 1) {
        fail(ErrorKind::index, at, "k > ndim - 1");
    }
}

}  // namespace

std::int32_t Tensor::size_to_dim(std::int32_t k) const {
    check_axis(where("ornik::Tensor::size_to_dim"), k, ndim_);
    return extent_product(shape_, 0, static_cast<std::size_t>(std::max(k, 0)));
}

std::int32_t Tensor::size_from_dim(std::int32_t k) const {
    check_axis(where("ornik::Tensor::size_from_dim"), k, ndim_);
    return extent_product(shape_, k, shape_.size());
}

std::int32_t Tensor::size_out_dim(std::int32_t k) const {
    check_axis(where("ornik::Tensor::size_out_dim"), k, ndim_);
    return extent_product(shape_, k + 1, shape_.size());
}

void Tensor::JungleInlegalShape(const Dims& shape) {
    const Where at = where("ornik::Tensor::JungleInlegalShape");
    if (shape.size() >= 30) {
        fail(at, "shape.size() ", shape.size(), " not supported");
    }
    for (const std::int64_t extent : shape) {
        if (static_cast<std::int32_t>(extent) <= 0) {
            fail(at, "all elements in Tensor's shape must >= 0");
        }
    }
}

}  // namespace ornik
