// solver_scalar.h: element types as solvers know them.
#pragma once

#include <complex>

#include "utils/complex_helper.h"

namespace ornik::device::cpu {

namespace detail {
template <typename T>
struct SolverScalarOf {
    using type = T;
};
template <typename T>
struct SolverScalarOf<complex_scalar::complex<T>> {
    using type = std::complex<T>;
};
}  // namespace detail

/// The type that solvers and products compute in; complex ones have the same two parts in the same order.
template <typename T>
using SolverScalar = typename detail::SolverScalarOf<T>::type;

}  // namespace ornik::device::cpu
