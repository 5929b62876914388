// element_sum.h: the type in which elements of one type are added up. Internal.
#pragma once

#include "../elements/element_math.h"

namespace ornik::element {

template <typename T>
struct SumType {
    using type = T;
};
template <>
struct SumType<float> {
    using type = double;
};
template <>
struct SumType<complex_scalar::complex<float>> {
    using type = complex_scalar::complex<double>;
};

/// Double precision for single precision; integers wrap in their own type, bool is the or.
template <typename T>
using SumOf = typename SumType<T>::type;

}  // namespace ornik::element
