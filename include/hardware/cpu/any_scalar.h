// any_scalar.h: a scalar argument of any element type, without a template parameter. Internal.
#pragma once

#include <cstring>

#include "../../tensor/scalar.h"
#include "copy/element_convert.h"
#include "dispatch.h"

namespace ornik {

class AnyScalar {
  public:
    template <typename T>
    explicit AnyScalar(T value) : dtype_(dtype_code<T>) {
        static_assert(sizeof(T) <= sizeof(bytes_));
        std::memcpy(bytes_, &value, sizeof(T));
    }

    explicit AnyScalar(const Scalar& scalar) : dtype_(scalar.Dtype()) {
        std::memcpy(bytes_, scalar.data(), sizeof(bytes_));
    }

    std::int64_t dtype() const { return dtype_; }

    template <typename To>
    To as() const {
        To result{};
        dispatch(AllTypes{}, dtype_, [&]<typename From>() {
            From value;
            std::memcpy(&value, bytes_, sizeof(From));
            result = convert_element<To>(value);
        });
        return result;
    }

  private:
    std::int64_t dtype_;
    alignas(16) unsigned char bytes_[16];
};

}  // namespace ornik
