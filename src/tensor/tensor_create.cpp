// tensor_create.cpp: empty and filled tensors.
#include "hardware/cpu/copy/cpu_core.h"
#include "tensor/checks.h"
#include "tensor/tensor.h"
#include "utils/utils.h"

namespace ornik {

namespace {

// The packed word of two codes; refused before a wild code can turn into another dtype or a GPU slot.
std::int32_t checked_word(const Where& at, std::int64_t device, std::int64_t dtype) {
    CheckDev(device);
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    return pack_dtype_and_device(dtype, device);
}

std::unique_ptr<Tensor> make(const Where& at, const Dims& shape, std::int64_t device, std::int64_t dtype) {
    return std::make_unique<Tensor>(shape, checked_word(at, device, dtype));
}

std::unique_ptr<Tensor> make_filled(const Where& at, const Dims& shape, const Scalar& value, std::int64_t device,
                                    std::int64_t dtype) {
    std::unique_ptr<Tensor> result = make(at, shape, device, dtype);
    device::cpu::fill(result.get(), value);
    return result;
}

void check_fill_value(const Where& at, const Scalar& value, std::int64_t dtype) {
    if (is_dtype_class(value.Dtype(), DtypeClass::complex) && !is_dtype_class(dtype, DtypeClass::complex)) {
        fail(ErrorKind::dtype, at, "Fill non-complex tensor with complex value is not valid.");
    }
}

}  // namespace

Tensor* Tensor::empty(const Dims& shape, std::int64_t device, std::int64_t dtype) {
    return make(where("ornik::Tensor::empty"), shape, device, dtype).release();
}

Tensor* Tensor::empty_like(const Tensor* t) {
    const Where at = where("ornik::Tensor::empty_like");
    check_given(at, t);
    return make(at, t->shape_, t->device_, t->dtype_).release();
}

Tensor* Tensor::empty_with_dtype_and_dev(const Dims& shape, std::int32_t packed) { return new Tensor(shape, packed); }

Tensor* Tensor::empty_strided(const Dims& shape, const Dims& strides, std::int32_t packed) {
    auto result = std::make_unique<Tensor>(shape, packed);
    result->updateStrides(strides);
    return result.release();
}

Tensor* Tensor::empty_using_tensor_options(const TensorToptions& options) {
    return make(where("ornik::Tensor::empty_using_tensor_options"), options.shape, options.device, options.dtype)
        .release();
}

Tensor* Tensor::new_tensor(const Dims& shape, const Dims& strides, bool scalar_flag, std::int64_t device,
                           std::int64_t dtype) {
    std::unique_ptr<Tensor> result = make(where("ornik::Tensor::new_tensor"), shape, device, dtype);
    result->updateStrides(strides);
    if (scalar_flag && shape.empty()) {
        result->setSize(1);
    }
    return result.release();
}

Tensor* Tensor::zeros(const Dims& shape, std::int64_t device, std::int64_t dtype) {
    return make_filled(where("ornik::Tensor::zeros"), shape, 0.0F, device, dtype).release();
}

Tensor* Tensor::zeros_like(const Tensor* t) {
    const Where at = where("ornik::Tensor::zeros_like");
    check_given(at, t);
    return make_filled(at, t->shape_, 0.0F, t->device_, t->dtype_).release();
}

Tensor* Tensor::zeros_with_tensor_options(const TensorToptions& options) {
    return make_filled(where("ornik::Tensor::zeros_with_tensor_options"), options.shape, 0.0F, options.device,
                       options.dtype)
        .release();
}

Tensor* Tensor::ones(const Dims& shape, std::int64_t device, std::int64_t dtype) {
    return make_filled(where("ornik::Tensor::ones"), shape, 1.0F, device, dtype).release();
}

Tensor* Tensor::full(const Dims& shape, const Scalar& value, std::int64_t device, std::int64_t dtype) {
    const Where at = where("ornik::Tensor::full");
    const std::int32_t word = checked_word(at, device, dtype);
    check_fill_value(at, value, dtype);
    auto result = std::make_unique<Tensor>(shape, word);
    device::cpu::fill(result.get(), value);
    return result.release();
}

Tensor* Tensor::scalar(std::int32_t packed) { return new Tensor(Dims{}, packed); }

void Tensor::fill_(double value) { fill_with_(value); }

void Tensor::fill_with_(const Scalar& value) {
    const Where at = where("ornik::Tensor::fill_with_");
    check_fill_value(at, value, dtype_);
    if (is_dense()) {
        announce_write(at, this);
    }  // The engine refuses the others, in its own words.
    device::cpu::fill(this, value);
}

}  // namespace ornik
