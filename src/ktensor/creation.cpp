// creation.cpp: new tensors.
#include <cmath>
#include <cstring>
#include <limits>

#include "hardware/cpu/any_scalar.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/called_functions.h"
#include "ktensor/impl.h"
#include "ktensor/ktensor.h"
#include "ktensor/operands.h"
#include "tensor/geometry.h"
#include "tensor/tensor_math/promotion.h"
#include "utils/error.h"
#include "utils/utils.h"

namespace ornik {

using autograd::describe;
using autograd::make_ktensor;

namespace {

std::unique_ptr<Tensor> new_tensor(const char* name, const Dims& shape, std::int64_t dtype) {
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, where("ornik::KTensor"), name, "(): there is no dtype ", dtype, ".");
    }
    std::int64_t bytes = dtype_item_size(dtype);
    bool fits = true;
    for (const std::int64_t extent : shape) {
        fits = fits && extent >= 0 && (extent == 0 || !__builtin_mul_overflow(bytes, extent, &bytes));
    }
    if (!fits) {
        fail(where("ornik::KTensor"), name, "(): there is no shape ", describe(shape, dtype), ".");
    }
    return autograd::empty_tensor(shape, dtype);
}

// Each element from its position; real dtypes.
template <typename Function>
KTensor by_position(std::unique_ptr<Tensor> t, Function&& function) {
    dispatch(AllTypes{}, t->Dtype(), [&]<typename T>() {
        T* elements = static_cast<T*>(t->getRawData());
        for (std::int64_t i = 0; i < t->Size(); ++i) {
            elements[i] = convert_element<T>(function(i));
        }
    });
    return make_ktensor(std::move(t));
}

}  // namespace

detail::NestedNumbers::NestedNumbers(const OneNumber& number) : numbers_{number.value} {}

detail::NestedNumbers::NestedNumbers(std::initializer_list<NestedNumbers> rows) {
    shape_.push_back(static_cast<std::int64_t>(rows.size()));
    for (const NestedNumbers& row : rows) {
        if (row.shape_ != rows.begin()->shape_) {
            fail(where("ornik::KTensor"), "KTensor(): rows in braces differ: ", shape_text(rows.begin()->shape_),
                 "and ", shape_text(row.shape_), ".");
        }
        numbers_.insert(numbers_.end(), row.numbers_.begin(), row.numbers_.end());
    }
    if (rows.size() != 0) {
        shape_.insert(shape_.end(), rows.begin()->shape_.begin(), rows.begin()->shape_.end());
    }
}

detail::NestedNumbers::~NestedNumbers() = default;

KTensor::KTensor(std::initializer_list<detail::NestedNumbers> rows) {
    const detail::NestedNumbers all(rows);
    std::int64_t dtype = all.numbers().empty() ? dtype::float32 : all.numbers().front().Dtype();
    for (const Scalar& number : all.numbers()) {
        dtype = promotion::of_tensors(dtype, number.Dtype());
    }
    std::unique_ptr<Tensor> t = new_tensor("KTensor", all.shape(), dtype);
    dispatch(AllTypes{}, dtype, [&]<typename T>() {
        T* elements = static_cast<T*>(t->getRawData());
        for (const Scalar& number : all.numbers()) {
            *elements++ = AnyScalar(number).as<T>();
        }
    });
    *this = make_ktensor(std::move(t));
}

KTensor KTensor::scalar(const Scalar& value) { return autograd::scalar_tensor(value, value.Dtype()); }

KTensor KTensor::copy_of(const void* numbers, std::size_t count, const Dims& shape, std::int64_t dtype) {
    std::int64_t elements = 1;
    for (const std::int64_t extent : shape) {
        if (extent < 0 || __builtin_mul_overflow(elements, extent, &elements)) {
            elements = -1;
            break;
        }
    }
    if (elements != static_cast<std::int64_t>(count)) {
        fail(where("ornik::KTensor"), "from(): ", count, " numbers do not make ", describe(shape, dtype), ".");
    }
    std::unique_ptr<Tensor> t = new_tensor("from", shape, dtype);
    if (count != 0) {
        std::memcpy(t->getRawData(), numbers, count * static_cast<std::size_t>(dtype_item_size(dtype)));
    }
    return make_ktensor(std::move(t));
}

KTensor KTensor::from_memory(void* data, const Dims& shape, const Dims& strides, std::int64_t dtype,
                             std::function<void()> deleter, bool read_only) {
    // Whoever fails from here on has taken the memory over.
    struct Guard {
        std::function<void()> call;
        ~Guard() {
            if (call) {
                call();
            }
        }
    } guard{std::move(deleter)};
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, where("ornik::KTensor"), "from_memory(): there is no dtype ", dtype, ".");
    }
    const Dims steps = strides.empty() ? shape2stride(shape) : strides;
    if (steps.size() != shape.size()) {
        fail(where("ornik::KTensor"), "from_memory(): ", describe(shape, dtype), " does not have ", steps.size(),
             " strides.");
    }
    const bool is_empty = std::find(shape.begin(), shape.end(), 0) != shape.end();
    for (std::size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] < 0) {
            fail(where("ornik::KTensor"), "from_memory(): there is no shape ", describe(shape, dtype), ".");
        }
    }
    const std::optional<Span> reach = is_empty ? std::optional<Span>(Span{0, -1}) : element_span(shape, steps);
    std::int64_t bytes = 0;
    if (!reach || __builtin_sub_overflow(reach->highest, reach->lowest, &bytes) || bytes > INT64_MAX / 16 - 1) {
        fail(where("ornik::KTensor"), "from_memory(): the strides of ", describe(shape, dtype), " reach too far.");
    }
    const std::int64_t lowest = reach->lowest;
    char* first = static_cast<char*>(data) + lowest * dtype_item_size(dtype);
    const auto storage = tensorT::Tensor_storage::from_foreign(is_empty ? nullptr : first, bytes + 1, dtype,
                                                               std::exchange(guard.call, nullptr), read_only);
    return make_ktensor(share_storage_tensor(storage, shape, is_empty ? shape2stride(shape) : steps, dtype, -lowest));
}

KTensor KTensor::empty(const Dims& shape, std::int64_t dtype) {
    return make_ktensor(new_tensor("empty", shape, dtype));
}

KTensor KTensor::full(const Dims& shape, const Scalar& value, std::int64_t dtype) {
    std::unique_ptr<Tensor> result = new_tensor("full", shape, dtype);
    if (result->Size() != 0) {
        const AnyScalar any(value);
        dispatch(AllTypes{}, dtype, [&]<typename T>() { result->fill_with_(any.as<T>()); });
    }
    return make_ktensor(std::move(result));
}

KTensor KTensor::zeros(const Dims& shape, std::int64_t dtype) { return full(shape, Scalar(0.0F), dtype); }

KTensor KTensor::ones(const Dims& shape, std::int64_t dtype) { return full(shape, Scalar(1.0F), dtype); }

KTensor KTensor::arange(double start, double end, double step, std::int64_t dtype) {
    const double count = std::ceil((end - start) / step);
    if (step == 0 || !std::isfinite(start) || !std::isfinite(count) || count > 9e15) {
        fail(where("ornik::KTensor"), "arange(): no numbers from ", std::to_string(start), " to ", std::to_string(end),
             " by ", std::to_string(step), ".");
    }
    return by_position(new_tensor("arange", {std::max<std::int64_t>(0, static_cast<std::int64_t>(count))}, dtype),
                       [&](std::int64_t i) { return start + static_cast<double>(i) * step; });
}

namespace {

// `count` numbers from start to end, both included, each through `function`.
template <typename Function>
KTensor spaced(const char* name, double start, double end, std::int64_t count, std::int64_t dtype,
               Function&& function) {
    const double step = count > 1 ? (end - start) / static_cast<double>(count - 1) : 0;
    return by_position(new_tensor(name, {count}, dtype), [&](std::int64_t i) {
        return function(i == count - 1 && i > 0 ? end : start + static_cast<double>(i) * step);
    });
}

}  // namespace

KTensor KTensor::linspace(double start, double end, std::int64_t count, std::int64_t dtype) {
    return spaced("linspace", start, end, count, dtype, [](double x) { return x; });
}

KTensor KTensor::logspace(double start, double end, std::int64_t count, double base, std::int64_t dtype) {
    return spaced("logspace", start, end, count, dtype, [=](double x) { return elementary::called::pow(base, x); });
}

KTensor KTensor::eye(std::int64_t rows, std::int64_t columns, std::int64_t offset, std::int64_t dtype) {
    std::unique_ptr<Tensor> t = new_tensor("eye", {rows, columns}, dtype);
    return by_position(std::move(t), [&](std::int64_t i) { return i % columns - i / columns == offset ? 1.0 : 0.0; });
}

// ---- Random numbers ----

namespace {

// The library draws no numbers for no elements.
template <typename Draw>
KTensor drawn(const char* name, const Dims& shape, std::int64_t dtype, Draw&& draw) {
    std::unique_ptr<Tensor> t = new_tensor(name, shape, dtype);
    return t->Size() == 0 ? make_ktensor(std::move(t)) : make_ktensor(draw());
}

}  // namespace

KTensor KTensor::randn(const Dims& shape, std::int64_t dtype, double mean, double deviation) {
    return drawn("randn", shape, dtype, [&] { return Tensor::randn(shape, mean, deviation, device_cpu, dtype); });
}

KTensor KTensor::rand(const Dims& shape, std::int64_t dtype, double low, double high) {
    return drawn("rand", shape, dtype, [&] { return Tensor::randu(shape, low, high, device_cpu, dtype); });
}

KTensor KTensor::randint(std::int64_t low, std::int64_t high, const Dims& shape, std::int64_t dtype) {
    return drawn("randint", shape, dtype, [&] { return Tensor::randint(shape, low, high, device_cpu, dtype); });
}

KTensor KTensor::randperm(std::int64_t n, std::int64_t dtype) {
    return drawn("randperm", {n}, dtype, [&] { return Tensor::permutation(n, device_cpu, dtype); });
}

}  // namespace ornik
