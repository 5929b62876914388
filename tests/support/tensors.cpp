// tensors.cpp: what most tests share, compiled once.
#include "tensors.h"

namespace ornik::test {

std::string name_of(Layout layout) {
    constexpr const char* names[] = {"contiguous", "transposed", "every_other", "offset", "reversed"};
    return names[static_cast<int>(layout)];
}

std::int64_t numel_of(const Dims& shape) {
    std::int64_t numel = 1;
    for (const std::int64_t extent : shape) {
        numel *= extent;
    }
    return numel;
}

void for_each_offset(const Dims& shape, const Dims& strides, const std::function<void(std::int64_t)>& visit) {
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

std::string bytes_of(const Tensor* t) {
    std::string bytes;
    const char* data = static_cast<const char*>(t->getRawData());
    for_each_offset(t->Shape(), t->Strides(), [&](std::int64_t at) {
        bytes.append(data + at * t->itemsize(), static_cast<std::size_t>(t->itemsize()));
    });
    return bytes;
}

std::vector<double> doubles_of(const Tensor* t) {
    const TensorPtr wide(t->Size() > 0 ? t->astype(dtype::float64) : nullptr);
    return wide ? values_of<double>(wide) : std::vector<double>{};
}

std::vector<std::size_t> flat_positions(const std::vector<Dims>& lists, const Dims& shape) {
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

TensorPtr make_empty(const Dims& shape, std::int64_t dtype, Layout layout) {
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

}  // namespace ornik::test

ORNIK_TEST_TEMPLATES(template)
