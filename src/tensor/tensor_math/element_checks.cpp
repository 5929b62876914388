#include "element_checks.h"

#include <algorithm>
#include <limits>

#include "hardware/cpu/any_scalar.h"
#include "tensor/checks.h"
#include "tensor/scalar.h"

namespace ornik {

std::unique_ptr<Tensor> make_result(const Dims& shape, std::int64_t dtype) {
    if (std::find(shape.begin(), shape.end(), 0) == shape.end()) {
        return std::unique_ptr<Tensor>(Tensor::empty(shape, 0, dtype));
    }
    auto result = std::make_unique<Tensor>();
    result->initialize_none_tensor(shape, dtype, 0, layout::dense);
    return result;
}

void refuse_dtype(const Where& at, const std::string& name, std::int64_t dtype) {
    fail(ErrorKind::not_implemented, at, name, "() is not supported for ",
         detail::dtype_table[static_cast<std::size_t>(dtype)].name, " tensor.");
}

void check_pair(const Where& at, const Tensor* a, const Tensor* b) {
    check_operands(at, a, b);
    if (!a->isCPU() || !b->isCPU()) {
        fail(ErrorKind::device, at, "Tensors in different devices");
    }
    if (a->Shape() != b->Shape()) {
        fail(at, "Incompatible shape: lhs has a shape of ", a->Shape(), ", rhs has a shape of ", b->Shape());
    }
}

void check_output(const Where& at, const Dims& shape, std::int64_t dtype, const Tensor* out) {
    check_operands(at, out);
    if (!out->isCPU()) {
        fail(ErrorKind::device, at, "Tensors in different devices");
    }
    if (out->Shape() != shape) {
        fail(at, "Incompatible shape: lhs has a shape of ", shape, ", result has a shape of ", out->Shape());
    }
    if (out->Dtype() != dtype) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    check_not_expanded(at, out);
    check_writable(at, out);
}

namespace {

template <typename T>
T saturated(const AnyScalar& scalar) {
    if (scalar.dtype() > dtype::int64) {
        return scalar.as<T>();
    }
    const auto value = scalar.as<std::int64_t>();
    if constexpr (sizeof(T) < sizeof(std::int64_t)) {
        return static_cast<T>(
            std::clamp<std::int64_t>(value, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
    } else {
        return value;
    }
}

}  // namespace

std::unique_ptr<Tensor> repeated_scalar(const Scalar& scalar, std::int64_t dtype, const Dims& shape, bool saturate) {
    const std::unique_ptr<Tensor> one = make_result({}, dtype);
    const AnyScalar value(scalar);
    dispatch(AllTypes{}, dtype, [&]<typename T>() {
        T* place = static_cast<T*>(one->getRawData());
        if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
            *place = saturate ? saturated<T>(value) : value.as<T>();
        } else {
            *place = value.as<T>();
        }
    });
    auto repeated = std::make_unique<Tensor>();
    repeated->init_none_tensor_with_shared_storage(shape, Dims(shape.size(), 0), dtype, 0, one->getStorage(),
                                                   layout::dense, 0);
    return repeated;
}

}  // namespace ornik
