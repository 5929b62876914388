// operands.cpp: operands of element-wise operations.
#include "ktensor/operands.h"

#include "hardware/cpu/any_scalar.h"
#include "hardware/cpu/dispatch.h"
#include "ktensor/elements.h"
#include "ktensor/impl.h"
#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "tensor/broadcast.h"
#include "tensor/tensor_math/promotion.h"
#include "utils/error.h"

namespace ornik::autograd {

Dims broadcast_shape(const char* operation, const KTensor& a, const KTensor& b) {
    const Dims& left = a.shape();
    const Dims& right = b.shape();
    if (left == right) {
        return left;
    }
    Dims shape(std::max(left.size(), right.size()));
    for (std::size_t i = 0; i < shape.size(); ++i) {
        const std::int64_t size_a = detail::aligned_entry(left, i, shape.size());
        const std::int64_t size_b = detail::aligned_entry(right, i, shape.size());
        if (size_a != size_b && size_a != 1 && size_b != 1) {
            fail(where("ornik::KTensor"), operation, "(): ", describe(a), " and ", describe(b),
                 " do not broadcast: axis ", i, " of the common shape has ", size_a, " and ", size_b, " elements.");
        }
        shape[i] = size_a == 1 ? size_b : size_a;
    }
    return shape;
}

std::vector<KTensor> promoted(const char* name, const std::vector<KTensor>& tensors) {
    if (tensors.empty()) {
        fail(where("ornik::KTensor"), name, "(): there is no tensor in the list.");
    }
    for (std::size_t i = 0; i < tensors.size(); ++i) {
        autograd::check_defined(name, tensors[i], i);
    }
    std::int64_t dtype = tensors.front().dtype();
    for (const KTensor& t : tensors) {
        dtype = promotion::of_tensors(dtype, t.dtype());
    }
    std::vector<KTensor> result;
    for (const KTensor& t : tensors) {
        result.push_back(astype(t, dtype));
    }
    return result;
}

Shown::Shown(const KTensor& t, const Dims& shape) : tensor_(t.tensor()) {
    if (tensor_->Shape() != shape) {
        view_.reset(Tensor::broadcast_to(tensor_, shape));
        tensor_ = view_.get();
    }
}

Scalar convert_scalar(const Scalar& scalar, std::int64_t dtype) {
    if (scalar.Dtype() == dtype) {
        return scalar;
    }
    const AnyScalar any(scalar);
    Scalar result(false);
    dispatch(AllTypes{}, dtype, [&]<typename T>() { result = Scalar(any.as<T>()); });
    return result;
}

Scalar weak_scalar(const Scalar& scalar, std::int64_t tensor_dtype) {
    if (tensor_dtype < dtype::float32) {
        return scalar;
    }
    const bool widens = is_dtype_class(scalar.Dtype(), DtypeClass::complex) && tensor_dtype < dtype::complex64;
    if (widens) {
        return convert_scalar(scalar, tensor_dtype == dtype::float32 ? dtype::complex64 : dtype::complex128);
    }
    return convert_scalar(scalar, tensor_dtype);
}

Scalar conj_scalar(const Scalar& scalar) {
    if (!is_dtype_class(scalar.Dtype(), DtypeClass::complex)) {
        return scalar;
    }
    const AnyScalar any(scalar);
    const auto z = any.as<complex_scalar::complex<double>>();
    return convert_scalar(Scalar(complex_scalar::complex<double>(z.real, -z.imag)), scalar.Dtype());
}

KTensor scalar_tensor(const Scalar& scalar, std::int64_t dtype) {
    std::unique_ptr<Tensor> result = empty_tensor({}, dtype);
    const AnyScalar any(scalar);
    dispatch(AllTypes{}, dtype, [&]<typename T>() { *static_cast<T*>(result->getRawData()) = any.as<T>(); });
    return make_ktensor(std::move(result));
}

KTensor conj_of(const KTensor& t) { return t.is_complex() ? conj(t) : t; }

namespace {

int kind_of(std::int64_t dtype) {
    return is_valid_dtype(dtype) ? static_cast<int>(detail::dtype_table[static_cast<std::size_t>(dtype)].dtype_class)
                                 : 0;
}

}  // namespace

KTensor inverse_or_zero(const KTensor& t) {
    const KTensor zero = equal(t, Scalar(0.0F));
    return where(zero, Scalar(0.0F), reciprocal(where(zero, Scalar(1.0F), t)));
}

void check_holds(const char* operation, const KTensor& target, const Dims& shape, std::int64_t dtype) {
    if (target.shape() != shape) {
        fail(where("ornik::KTensor"), operation, "(): ", describe(target), " can not hold a result of shape ",
             describe(shape, dtype), ".");
    }
    if (kind_of(dtype) > kind_of(target.dtype())) {
        fail(ErrorKind::dtype, where("ornik::KTensor"), operation, "(): ", describe(target),
             " can not hold a result of ", dtype_name(dtype), ".");
    }
}

}  // namespace ornik::autograd
