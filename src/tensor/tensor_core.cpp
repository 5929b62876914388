// tensor_core.cpp: conversion between dtypes and copies between tensors.
#include <algorithm>
#include <cstdio>

#include "hardware/cpu/copy/cpu_core.h"
#include "tensor/borrowed.h"
#include "tensor/broadcast.h"
#include "tensor/checks.h"
#include "tensor/geometry.h"
#include "tensor/overlap.h"
#include "tensor/tensor.h"

namespace ornik {

Dims just_if_broadcastable(const Dims& input, const Dims& reference) {
    const Where at = where("ornik::just_if_broadcastable");
    const std::size_t rank = reference.size();
    if (rank < input.size()) {
        fail(at, "reference shape's size should >= input shape's size in broadcast_to. input : ", input,
             ", target: ", reference, " .");
    }
    for (std::size_t i = rank; i-- > 0;) {
        const std::int64_t size = detail::aligned_entry(input, i, rank);
        if (size != reference[i] && size != 1) {
            fail(at, " The expanded size : ", reference, " must match the input shape: ", input,
                 " at non-singleton dimension ", i, ".");
        }
    }
    Dims padded(rank - input.size(), 1);
    padded.insert(padded.end(), input.begin(), input.end());
    return padded;
}

namespace {

// Null, or a view of all elements of the shape for a tensor that counts others (setSize, copy_tensor).
std::unique_ptr<Tensor> counted_by_shape(const Where& at, const Tensor* t) {
    if (t->Size() == checked_numel(at, t->Shape())) {
        return nullptr;
    }
    return std::unique_ptr<Tensor>(
        share_storage_tensor(t->getStorage(), t->Shape(), t->Strides(), t->Dtype(), t->StorageOffset()));
}

}  // namespace

Tensor* Tensor::astype(std::int64_t dtype) const {
    if (dtype == dtype_) {
        return clone();
    }
    if (!isCPU()) {
        return nullptr;
    }
    const Where at = where("ornik::Tensor::astype");
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    const std::unique_ptr<Tensor> counted = counted_by_shape(at, this);
    std::unique_ptr<Tensor> result(empty(shape_, device_, dtype));
    device::cpu::copy(counted ? counted.get() : this, result.get());
    return result.release();
}

Tensor* Tensor::toDtype(std::int64_t dtype, bool copy) {
    if (dtype == dtype_ && !copy) {
        return this;
    }
    return astype(dtype);
}

void Tensor::CopyToTargetWithDtype(Tensor* target, std::int64_t dtype, bool copy_flag) {
    const Where at = where("ornik::Tensor::CopyToTargetWithDtype");
    check_given(at, target);
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    if (target->dtype_ != dtype) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    if (dtype == dtype_ && copy_flag) {
        copy_tensor(this, target);
    }
    if (target->size_ != size_) {
        fail(at, "Tensors with different size : A", shape_, "B:", target->shape_);
    }
    if (isCPU()) {
        check_operands(at, this);
        announce_write(at, target);
        device::cpu::copy(this, target);
    }
}

Tensor* Tensor::contiguous() { return is_contiguous() ? this : clone(); }

Tensor* Tensor::clone() const {
    const std::unique_ptr<Tensor> counted = counted_by_shape(where("ornik::Tensor::clone"), this);
    std::unique_ptr<Tensor> result(empty(shape_, device_, dtype_));
    copy_tensor(counted ? counted.get() : this, result.get());
    return result.release();
}

void Tensor::copy_from_(Tensor* src) {
    const Where at = where("ornik::Tensor::copy_from_");
    check_operands(at, src);
    check_writable(at, this);
    const Borrowed converted = Borrowed::of_dtype(src, dtype_);
    if (converted->shape_ == shape_) {
        copy_tensor(converted.get(), this);
        return;
    }
    const std::unique_ptr<Tensor> expanded(broadcast_to(converted.get(), shape_));
    copy_tensor(expanded.get(), this);
}

void copy_tensor(const Tensor* A, Tensor* B) {
    const Where at = where("ornik::copy_tensor");
    check_given(at, A, B);
    switch (memory_overlap(A, B)) {
        case Overlap::same:
            return;
        case Overlap::partial:
            fail(at, "copy tensors may have overlap mem.");
        case Overlap::none:
            break;
    }
    if (!B->Shape().empty() && A->Size() != B->Size()) {
        fail(at, "Tensors with different size : A", A->Shape(), "B:", B->Shape());
    }
    if (A->is_csr() && B->is_dense()) {
        fail(at, "A->is_csr() && B->is_dense().");
    }
    if (A->is_coo() && B->is_dense()) {
        fail(at, "A->is_coo() && B->is_dense().");
    }
    if (!A->isCPU() || !B->isCPU()) {
        std::printf("(%d %d)\n", static_cast<int>(A->Device()), static_cast<int>(B->Device()));
        fail(ErrorKind::device, at, "unsupported copy between devices");
    }
    check_operands(at, A);
    announce_write(at, B);
    if (!B->Shape().empty() || A->Size() == B->Size()) {
        device::cpu::copy(A, B);
        return;
    }
    // B counts A's elements from now on, all in its one place; not before the copy is done.
    Tensor repeated;
    repeated.init_none_tensor_with_shared_storage({A->Size()}, {0}, B->Dtype(), B->Device(), B->getStorage(),
                                                  B->Layout(), B->StorageOffset());
    device::cpu::copy(A, &repeated);
    B->setSize(A->Size());
}

void tensorT::Tensor_Meta::convert_dtype_and_copy_data(const void* src, std::int64_t src_dtype) {
    const Where at = where("ornik::tensorT::Tensor_Meta::convert_dtype_and_copy_data");
    if (!is_valid_dtype(src_dtype)) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    if (!storage_) {
        fail(at, "Tensor_Meta has no storage to fill.");
    }
    Tensor source;
    source.initialize_none_tensor(shape_, src_dtype, device_, layout::dense);
    if (src == nullptr && source.Size() != 0) {
        fail(at, "Tensor_Meta needs elements to copy.");
    }
    Tensor target;
    target.init_none_tensor_with_shared_storage(shape_, stride_, dtype_, device_, storage_, layout::dense,
                                                storage_offset_);
    announce_write(at, &target);
    std::copy_n(static_cast<const char*>(src), source.Size() * source.itemsize(),
                static_cast<char*>(source.getRawData()));
    device::cpu::copy(&source, &target);
}

}  // namespace ornik
