// dtype.h: the ten element types of a tensor, written once.
//
// DtypeRows is the only list of element types in the library: codes, names, item sizes, the kernels' dispatch and
// the type lists of the tests all derive from it.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "../export.h"
#include "../utils/complex_helper.h"

namespace ornik {

enum class DtypeClass { boolean, integral, floating, complex };

template <typename... Ts>
struct TypeList {};

namespace detail {

template <std::size_t N>
struct FixedText {
    char text[N];
    // NOLINTNEXTLINE(google-explicit-constructor): a literal becomes a template argument.
    consteval FixedText(const char (&literal)[N]) { std::copy_n(literal, N, text); }
};

template <std::int64_t Code, typename T, DtypeClass Class, FixedText Name>
struct DtypeRow {
    using type = T;
    static constexpr std::int64_t code = Code;
    static constexpr DtypeClass dtype_class = Class;
    static constexpr std::string_view name = Name.text;
};

// clang-format off
using DtypeRows = TypeList<
    DtypeRow<0, bool,                           DtypeClass::boolean,  "bool">,
    DtypeRow<1, std::uint8_t,                   DtypeClass::integral, "uint8">,
    DtypeRow<2, std::int8_t,                    DtypeClass::integral, "int8">,
    DtypeRow<3, std::int16_t,                   DtypeClass::integral, "int16">,
    DtypeRow<4, std::int32_t,                   DtypeClass::integral, "int32">,
    DtypeRow<5, std::int64_t,                   DtypeClass::integral, "int64">,
    DtypeRow<6, float,                          DtypeClass::floating, "float32">,
    DtypeRow<7, double,                         DtypeClass::floating, "float64">,
    DtypeRow<8, complex_scalar::complex<float>,  DtypeClass::complex, "complex64">,
    DtypeRow<9, complex_scalar::complex<double>, DtypeClass::complex, "complex128">>;
// clang-format on

struct DtypeInfo {
    std::string_view name;
    std::int64_t item_size;
    DtypeClass dtype_class;
};

template <typename... Rows>
constexpr auto dtype_infos(TypeList<Rows...>) {
    return std::array{DtypeInfo{Rows::name, sizeof(typename Rows::type), Rows::dtype_class}...};
}

template <typename... Rows>
constexpr bool codes_are_positions(TypeList<Rows...>) {
    std::int64_t position = 0;
    return ((Rows::code == position++) && ...);
}

template <typename T, typename... Rows>
constexpr std::int64_t find_code(TypeList<Rows...>) {
    std::int64_t code = -1;
    ((std::is_same_v<T, typename Rows::type> ? void(code = Rows::code) : void()), ...);
    return code;
}

template <typename... Rows>
TypeList<typename Rows::type...> element_types(TypeList<Rows...>);

inline constexpr auto dtype_table = dtype_infos(DtypeRows{});
static_assert(codes_are_positions(DtypeRows{}));

}  // namespace detail

/// The ten C++ element types, at the position of their code.
using AllTypes = decltype(detail::element_types(detail::DtypeRows{}));

/// Number of element types; the valid codes are 0 .. dtype_count - 1.
inline constexpr std::int64_t dtype_count = static_cast<std::int64_t>(detail::dtype_table.size());

/// Dtype code of a C++ element type.
template <typename T>
inline constexpr std::int64_t dtype_code = [] {
    constexpr std::int64_t code = detail::find_code<T>(detail::DtypeRows{});
    static_assert(code >= 0, "not an element type");
    return code;
}();

/// The dtype codes by name, for callers: `dtype::float32`.
namespace dtype {
inline constexpr std::int64_t boolean = dtype_code<bool>;
inline constexpr std::int64_t uint8 = dtype_code<std::uint8_t>;
inline constexpr std::int64_t int8 = dtype_code<std::int8_t>;
inline constexpr std::int64_t int16 = dtype_code<std::int16_t>;
inline constexpr std::int64_t int32 = dtype_code<std::int32_t>;
inline constexpr std::int64_t int64 = dtype_code<std::int64_t>;
inline constexpr std::int64_t float32 = dtype_code<float>;
inline constexpr std::int64_t float64 = dtype_code<double>;
inline constexpr std::int64_t complex64 = dtype_code<complex_scalar::complex<float>>;
inline constexpr std::int64_t complex128 = dtype_code<complex_scalar::complex<double>>;
}  // namespace dtype

constexpr bool is_valid_dtype(std::int64_t code) { return code >= 0 && code < dtype_count; }

/// Bytes of one element; 0 for a code that is no dtype.
constexpr std::int64_t dtype_item_size(std::int64_t code) {
    return is_valid_dtype(code) ? detail::dtype_table[static_cast<std::size_t>(code)].item_size : 0;
}

constexpr bool is_dtype_class(std::int64_t code, DtypeClass dtype_class) {
    return is_valid_dtype(code) && detail::dtype_table[static_cast<std::size_t>(code)].dtype_class == dtype_class;
}

/// "numpy.float32" and so on; "unknown" for a code that is no dtype.
ORNIK_API std::string dtype_name(std::int64_t code);

}  // namespace ornik
