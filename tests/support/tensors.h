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
inline std::string name_of(Layout layout) {
    constexpr const char* names[] = {"contiguous", "transposed", "every_other", "offset", "reversed"};
    return names[static_cast<int>(layout)];
}

inline std::int64_t numel_of(const Dims& shape) {
    std::int64_t numel = 1;
    for (const std::int64_t extent : shape) {
        numel *= extent;
    }
    return numel;
}

/// A list as a call, for lambdas: the formatter spreads those with a braced list over three lines.
inline Dims dims(auto... extents) { return {static_cast<std::int64_t>(extents)...}; }

/// Calls visit(element offset) in row-major order.
inline void for_each_offset(const Dims& shape, const Dims& strides, const std::function<void(std::int64_t)>& visit) {
    Dims index(shape.size(), 0);
    for (std::int64_t i = 0, n = numel_of(shape); i < n; ++i) {
        std::int64_t offset = 0;
        for (std::size_t d = 0; d < shape.size(); ++d) {
            offset += index[d] * strides[d];
        }
        visit(offset);
        for (std::size_t d = shape.size(); d-- > 0 && ++index[d] == shape[d];) {
            index[d] = 0;
        }
    }
}

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
inline std::string bytes_of(const Tensor* t) {
    std::string bytes;
    const char* data = static_cast<const char*>(t->getRawData());
    for_each_offset(t->Shape(), t->Strides(), [&](std::int64_t at) {
        bytes.append(data + at * t->itemsize(), static_cast<std::size_t>(t->itemsize()));
    });
    return bytes;
}
inline std::string bytes_of(const TensorPtr& t) { return bytes_of(t.get()); }

/// Elements of any real tensor as doubles.
inline std::vector<double> doubles_of(const Tensor* t) {
    const TensorPtr wide(t->Size() > 0 ? t->astype(dtype::float64) : nullptr);
    return wide ? values_of<double>(wide) : std::vector<double>{};
}

/// The row-major positions, in a tensor of the shape, of the elements that one list of indices per axis picks.
inline std::vector<std::size_t> flat_positions(const std::vector<Dims>& lists, const Dims& shape) {
    std::vector<std::size_t> flat{0};
    for (std::size_t k = 0; k < lists.size(); ++k) {
        std::vector<std::size_t> next;
        for (const std::size_t base : flat) {
            for (const std::int64_t i : lists[k]) {
                next.push_back(base * static_cast<std::size_t>(shape[k]) + static_cast<std::size_t>(i));
            }
        }
        flat = next;
    }
    return flat;
}

/// A tensor of the shape with undefined values, laid out as asked.
inline TensorPtr make_empty(const Dims& shape, std::int64_t dtype, Layout layout = Layout::contiguous) {
    const std::size_t rank = shape.size();
    const std::int64_t numel = numel_of(shape);
    Dims strides(rank, 1);
    for (std::size_t i = 1; i < rank; ++i) {
        if (layout == Layout::transposed) {
            strides[i] = strides[i - 1] * shape[i - 1];
        } else {
            strides[rank - 1 - i] = strides[rank - i] * shape[rank - i];
        }
    }
    std::int64_t offset = layout == Layout::offset ? 3 : 0;
    if (layout == Layout::every_other || layout == Layout::reversed) {
        for (std::int64_t& stride : strides) {
            stride *= layout == Layout::reversed ? -1 : 2;
        }
        offset = layout == Layout::reversed ? numel - 1 : 1;
    }
    const TensorPtr whole(Tensor::empty({2 * numel + 3}, 0, dtype));
    return TensorPtr(share_storage_tensor(whole->getStorage(), shape, strides, dtype, offset));
}

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
