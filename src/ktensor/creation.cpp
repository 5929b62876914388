// creation.cpp: new tensors.
#include "hardware/cpu/any_scalar.h"
#include "hardware/cpu/dispatch.h"
#include "ktensor/impl.h"
#include "ktensor/ktensor.h"
#include "utils/error.h"

namespace ornik {

namespace {

std::unique_ptr<Tensor> new_tensor(const char* name, const Dims& shape, std::int64_t dtype) {
    for (const std::int64_t extent : shape) {
        if (extent < 0) {
            fail(where("ornik::KTensor"), name, "(): there is no shape ", autograd::describe(shape, dtype), ".");
        }
    }
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, where("ornik::KTensor"), name, "(): there is no dtype ", dtype, ".");
    }
    return autograd::empty_tensor(shape, dtype);
}

}  // namespace

KTensor KTensor::empty(const Dims& shape, std::int64_t dtype) {
    return autograd::make_ktensor(new_tensor("empty", shape, dtype));
}

KTensor KTensor::full(const Dims& shape, const Scalar& value, std::int64_t dtype) {
    std::unique_ptr<Tensor> result = new_tensor("full", shape, dtype);
    if (result->Size() != 0) {
        const AnyScalar any(value);
        dispatch(AllTypes{}, dtype, [&]<typename T>() { result->fill_with_(any.as<T>()); });
    }
    return autograd::make_ktensor(std::move(result));
}

KTensor KTensor::zeros(const Dims& shape, std::int64_t dtype) { return full(shape, Scalar(0.0F), dtype); }

KTensor KTensor::ones(const Dims& shape, std::int64_t dtype) { return full(shape, Scalar(1.0F), dtype); }

}  // namespace ornik
