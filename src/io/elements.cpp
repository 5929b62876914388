#include "io/elements.h"

#include <algorithm>
#include <iterator>
#include <limits>

#include "tensor/geometry.h"
#include "tensor/make_tensor.h"

namespace ornik::io {

namespace {

// clang-format off
constexpr FileDtype file_dtypes[] = {
    {"b1",  "BOOL", 1,  dtype::boolean,    Encoding::any_bool},
    {"u1",  "U8",   1,  dtype::uint8,      Encoding::plain},
    {"i1",  "I8",   1,  dtype::int8,       Encoding::plain},
    {"i2",  "I16",  2,  dtype::int16,      Encoding::plain},
    {"i4",  "I32",  4,  dtype::int32,      Encoding::plain},
    {"i8",  "I64",  8,  dtype::int64,      Encoding::plain},
    {"f4",  "F32",  4,  dtype::float32,    Encoding::plain},
    {"f8",  "F64",  8,  dtype::float64,    Encoding::plain},
    {"c8",  "C64",  8,  dtype::complex64,  Encoding::plain},
    {"c16", "",     16, dtype::complex128, Encoding::plain},
    {"f2",  "F16",  2,  dtype::float32,    Encoding::half},
    {"",    "BF16", 2,  dtype::float32,    Encoding::brain_half},
    {"u2",  "U16",  2,  dtype::int32,      Encoding::unsigned16},
    {"u4",  "U32",  4,  dtype::int64,      Encoding::unsigned32},
};
// clang-format on

constexpr bool dtypes_come_first() {
    for (std::int64_t code = 0; code < dtype_count; ++code) {
        if (file_dtypes[code].dtype != code || file_dtypes[code].item_size != dtype_item_size(code)) {
            return false;
        }
    }
    return true;
}
static_assert(dtypes_come_first(), "file_dtype() takes the row at the position of the code");

const FileDtype* find_dtype(std::string_view FileDtype::*column, std::string_view name) {
    const auto* row = std::find_if(std::begin(file_dtypes), std::end(file_dtypes),
                                   [&](const FileDtype& type) { return type.*column == name; });
    return name.empty() || row == std::end(file_dtypes) ? nullptr : row;
}

Dims reversed(Dims values) {
    std::reverse(values.begin(), values.end());
    return values;
}

Dims dense_strides(const Dims& shape, bool fortran) {
    return fortran ? reversed(shape2stride(reversed(shape))) : shape2stride(shape);
}

// True when the elements lie without gaps in the order of `dense`: where an axis has one index its stride is idle.
bool follows(const Tensor* t, const Dims& dense) {
    for (std::size_t i = 0; i < dense.size(); ++i) {
        if (t->Shape()[i] > 1 && t->Strides()[i] != dense[i]) {
            return false;
        }
    }
    return true;
}

// Kernels that only move elements take them as words of their whole size, of up to eight bytes.
bool is_aligned(const void* data, std::int64_t dtype) {
    const auto alignment = static_cast<std::uintptr_t>(std::min<std::int64_t>(dtype_item_size(dtype), 8));
    return reinterpret_cast<std::uintptr_t>(data) % alignment == 0;
}

// True when the bytes are elements of a tensor as they stand.
bool can_share(const FileBytes& source, const FileDtype& type, bool swap) {
    if (source.mode == LoadMode::copy || source.bytes.empty() || !is_aligned(source.bytes.data(), type.dtype)) {
        return false;
    }
    if (type.encoding == Encoding::any_bool) {
        return device::cpu::are_bools(source.bytes.data(), static_cast<std::int64_t>(source.bytes.size()));
    }
    return type.encoding == Encoding::plain && (!swap || type.item_size == 1);
}

}  // namespace

const FileDtype* find_npy_dtype(std::string_view name) { return find_dtype(&FileDtype::npy, name); }
const FileDtype* find_safetensors_dtype(std::string_view name) { return find_dtype(&FileDtype::safetensors, name); }
const FileDtype& file_dtype(std::int64_t dtype) { return file_dtypes[dtype]; }

Buffer make_buffer(std::size_t size) {
    std::shared_ptr<Tensor> memory = make_tensor({static_cast<std::int64_t>(size)}, dtype::uint8);
    auto* data = static_cast<std::byte*>(memory->getRawData());
    return {data, std::move(memory)};
}

std::int64_t checked_bytes(const FilePlace& place, const Dims& shape, std::int64_t item_size) {
    if (shape.size() > most_axes) {
        fail(place.at(), place.text(), "a shape of ", shape.size(), " axes; a tensor has at most ", most_axes, ".");
    }
    // Zeros do not count: strides are products of the other extents even where there are no elements.
    std::int64_t bytes = item_size;
    for (const std::int64_t extent : shape) {
        const std::int64_t factor = std::max<std::int64_t>(extent, 1);
        if (bytes > std::numeric_limits<std::int64_t>::max() / factor) {
            fail(place.at(), place.text(), "more elements than a tensor can have: shape ", tuple_text(shape), ".");
        }
        bytes *= factor;
    }
    return std::find(shape.begin(), shape.end(), 0) == shape.end() ? bytes : 0;
}

std::unique_ptr<Tensor> tensor_over(const FileBytes& source, const FileDtype& type, const Dims& shape, bool fortran,
                                    bool swap) {
    const auto n = static_cast<std::int64_t>(source.bytes.size()) / type.item_size;
    const std::byte* data = source.bytes.data();
    const bool read_only = source.mode == LoadMode::read_only;
    std::shared_ptr<tensorT::Tensor_storage> storage;
    if (can_share(source, type, swap)) {
        // With LoadMode::read_only nothing is written through the pointer, else the map is ours to write to.
        storage = tensorT::Tensor_storage::from_foreign(
            const_cast<std::byte*>(data), n, type.dtype, [owner = source.owner] {}, read_only);
    } else {
        storage = make_tensor({n}, type.dtype)->getStorage();
        device::cpu::decode(storage->getRawData(), data, n, type.dtype, type.encoding, swap);
        storage->set_read_only(read_only);
    }
    return std::unique_ptr<Tensor>(
        view_tensor(storage, shape, dense_strides(shape, fortran), device_cpu, type.dtype, 0));
}

void check_saveable(const FilePlace& place, const Tensor* t) {
    if (t == nullptr) {
        fail(place.at(), place.text(), "there is no tensor.");
    }
    if (!t->is_dense() || t->getStorage() == nullptr) {
        fail(place.at(), place.text(), "only dense tensors can be written.");
    }
    if (t->Shape().size() > most_axes) {
        fail(place.at(), place.text(), "the tensor has ", t->Shape().size(), " axes; at most ", most_axes,
             " can be written.");
    }
}

std::int64_t saved_numel(const FilePlace& place, const Tensor* t) {
    check_extents(place.at(), t->Shape());
    return checked_numel(place.at(), t->Shape());
}

ElementRun::ElementRun(const FilePlace& place, const Tensor* t, bool any_order) {
    check_saveable(place, t);
    const std::int64_t numel = saved_numel(place, t);
    const bool row_major = numel < 2 || follows(t, dense_strides(t->Shape(), false));
    fortran_ = !row_major && any_order && follows(t, dense_strides(t->Shape(), true));
    if (!row_major && !fortran_) {
        copy_ = make_tensor(t->Shape(), t->Dtype());
        copy_tensor(t, copy_.get());
        t = copy_.get();
    }
    bytes_ = {static_cast<const std::byte*>(t->getRawData()), static_cast<std::size_t>(numel * t->itemsize())};
}

}  // namespace ornik::io
