// tensors.h: tensors in awkward layouts, and their values read back without the library's own walks.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tensor/tensor.h"

namespace ornik::test {

using TensorPtr = std::unique_ptr<Tensor>;
template <typename T>
using Complex = complex_scalar::complex<T>;

enum class Layout { contiguous, transposed, every_other, offset, reversed };
inline constexpr Layout all_layouts[] = {Layout::contiguous, Layout::transposed, Layout::every_other, Layout::offset,
                                         Layout::reversed};
std::string name_of(Layout layout);

std::int64_t numel_of(const Dims& shape);

/// A list as a call, for lambdas: the formatter spreads those with a braced list over three lines.
inline Dims dims(auto... extents) { return {static_cast<std::int64_t>(extents)...}; }

/// Calls visit(element offset) in row-major order.
void for_each_offset(const Dims& shape, const Dims& strides, const std::function<void(std::int64_t)>& visit);

template <typename T>
std::vector<T> values_of(const Tensor* t) {
    std::vector<T> values;
    const T* data = static_cast<const T*>(t->getRawData());
    for_each_offset(t->Shape(), t->Strides(), [&](std::int64_t offset) { values.push_back(data[offset]); });
    return values;
}
template <typename T>
std::vector<T> values_of(const TensorPtr& t) {
    return values_of<T>(t.get());
}

/// The bytes of all elements in row-major order.
std::string bytes_of(const Tensor* t);
inline std::string bytes_of(const TensorPtr& t) { return bytes_of(t.get()); }

/// Elements of any real tensor as doubles.
std::vector<double> doubles_of(const Tensor* t);

/// The row-major positions, in a tensor of the shape, of the elements that one list of indices per axis picks.
std::vector<std::size_t> flat_positions(const std::vector<Dims>& lists, const Dims& shape);

/// A tensor of the shape with undefined values, laid out as asked.
TensorPtr make_empty(const Dims& shape, std::int64_t dtype, Layout layout = Layout::contiguous);

/// The same with the values, in row-major order.
template <typename T>
TensorPtr make(const Dims& shape, const std::vector<T>& values, Layout layout = Layout::contiguous) {
    TensorPtr t = make_empty(shape, dtype_code<T>, layout);
    T* data = static_cast<T*>(t->getRawData());
    std::size_t i = 0;
    for_each_offset(t->Shape(), t->Strides(), [&](std::int64_t at) { data[at] = values[i++]; });
    return t;
}

/// first, first + 1, ...; a complex element gets a second part so that mixing the parts up shows.
template <typename T>
std::vector<T> counted(std::int64_t n, int first = 0) {
    std::vector<T> values;
    for (std::int64_t i = 0; i < n; ++i) {
        const auto value = static_cast<double>(first + i);
        if constexpr (requires(T z) { z.imag; }) {
            using Part = decltype(T::real);
            values.push_back({static_cast<Part>(value), static_cast<Part>(1 - 2 * value)});
        } else if constexpr (std::is_same_v<T, bool>) {
            values.push_back((first + i) % 3 != 0);
        } else {
            values.push_back(static_cast<T>(static_cast<std::int64_t>(value)));
        }
    }
    return values;
}

/// Calls test.operator()<T>() for every type of the list.
template <typename... Ts, typename Test>
void for_types(TypeList<Ts...>, const Test& test) {
    (test.template operator()<Ts>(), ...);
}

}  // namespace ornik::test

// What most tests use of these is compiled once, in tensors.cpp: half of what they would compile otherwise.
#define ORNIK_TEST_ELEMENTS(TEMPLATE, T)                                                            \
    TEMPLATE class std::vector<T>;                                                                  \
    TEMPLATE std::vector<T> ornik::test::values_of<T>(const ornik::Tensor*);                        \
    TEMPLATE ornik::test::TensorPtr ornik::test::make<T>(const ornik::Dims&, const std::vector<T>&, \
                                                         ornik::test::Layout);                      \
    TEMPLATE std::vector<T> ornik::test::counted<T>(std::int64_t, int);
#define ORNIK_TEST_TEMPLATES(TEMPLATE)                          \
    ORNIK_TEST_ELEMENTS(TEMPLATE, bool)                         \
    ORNIK_TEST_ELEMENTS(TEMPLATE, std::uint8_t)                 \
    ORNIK_TEST_ELEMENTS(TEMPLATE, std::int8_t)                  \
    ORNIK_TEST_ELEMENTS(TEMPLATE, std::int16_t)                 \
    ORNIK_TEST_ELEMENTS(TEMPLATE, std::int32_t)                 \
    ORNIK_TEST_ELEMENTS(TEMPLATE, std::int64_t)                 \
    ORNIK_TEST_ELEMENTS(TEMPLATE, float)                        \
    ORNIK_TEST_ELEMENTS(TEMPLATE, double)                       \
    ORNIK_TEST_ELEMENTS(TEMPLATE, ornik::test::Complex<float>)  \
    ORNIK_TEST_ELEMENTS(TEMPLATE, ornik::test::Complex<double>) \
    TEMPLATE class std::vector<std::string>;                    \
    TEMPLATE class std::vector<ornik::Dims>;                    \
    TEMPLATE class std::unique_ptr<ornik::Tensor>;              \
    TEMPLATE class std::function<void(std::int64_t)>;           \
    TEMPLATE class std::function<void()>;
ORNIK_TEST_TEMPLATES(extern template)
