// dispatch.h: from a dtype code to a C++ type, once per kernel call. Internal.
//
//     dispatch(AllTypes{}, dtype, [&]<typename T>() { fill<T>(out, value); });
#pragma once

#include <cassert>

#include "../../tensor/dtype.h"

namespace ornik {

using RealTypes = TypeList<bool, std::uint8_t, std::int8_t, std::int16_t, std::int32_t, std::int64_t, float, double>;
using IntegerTypes = TypeList<std::uint8_t, std::int8_t, std::int16_t, std::int32_t, std::int64_t>;
using FloatTypes = TypeList<float, double>;
using ComplexTypes = TypeList<complex_scalar::complex<float>, complex_scalar::complex<double>>;
using FloatOrComplexTypes = TypeList<float, double, complex_scalar::complex<float>, complex_scalar::complex<double>>;

/// Calls function.operator()<T>() for the type T of the list whose dtype code is `code`. The front end
/// has refused other codes before: none of them reaches this place.
template <typename... Ts, typename Function>
void dispatch(TypeList<Ts...> /*types*/, std::int64_t code, Function&& function) {
    [[maybe_unused]] const bool found =
        ((code == dtype_code<Ts> ? (function.template operator()<Ts>(), true) : false) || ...);
    assert(found && "dtype not served by this kernel");
}

}  // namespace ornik
