// interchange.cpp: memory of others, and ours for others: buffers and DLPack capsules.
#include <algorithm>
#include <cstring>
#include <new>

#include "arguments.h"
#include "dlpack.h"
#include "errors.h"
#include "gil.h"
#include "ktensor/shapes.h"
#include "module.h"
#include "tensor/loan.h"
#include "tensor/tensor.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

constexpr int most_axes = 29;

// ---- Kinds of elements ----

enum class ElementKind { boolean, whole, natural, floating, complex, other };

// The dtype of a kind and size; -1 for none.
std::int64_t dtype_for(ElementKind kind, std::int64_t item_size) {
    for (std::int64_t code = 0; code < dtype_count; ++code) {
        const DtypeClass of = detail::dtype_table[static_cast<std::size_t>(code)].dtype_class;
        const bool same = (kind == ElementKind::boolean && of == DtypeClass::boolean) ||
                          (kind == ElementKind::whole && of == DtypeClass::integral && code != dtype::uint8) ||
                          (kind == ElementKind::natural && code == dtype::uint8) ||
                          (kind == ElementKind::floating && of == DtypeClass::floating) ||
                          (kind == ElementKind::complex && of == DtypeClass::complex);
        if (same && dtype_item_size(code) == item_size) {
            return code;
        }
    }
    return -1;
}

struct Format {
    ElementKind kind = ElementKind::other;
    bool swapped = false;
};

// A format of the struct module: a byte order and one letter, or Z and one for complex numbers.
Format parse_format(const char* text) {
    Format format;
    std::string_view rest = text == nullptr ? "B" : text;
    constexpr bool little = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
    if (!rest.empty() && std::string_view("@=<>!^").find(rest[0]) != std::string_view::npos) {
        format.swapped = rest[0] == '<' ? !little : (rest[0] == '>' || rest[0] == '!') && little;
        rest.remove_prefix(1);
    }
    const bool is_complex = rest.starts_with('Z');
    if (is_complex) {
        rest.remove_prefix(1);
    }
    if (rest.size() != 1) {
        return format;
    }
    const char letter = rest[0];
    const auto among = [letter](std::string_view letters) { return letters.find(letter) != std::string_view::npos; };
    if (is_complex) {
        format.kind = among("fd") ? ElementKind::complex : ElementKind::other;
    } else if (letter == '?') {
        format.kind = ElementKind::boolean;
    } else if (among("bhilqn")) {
        format.kind = ElementKind::whole;
    } else if (among("BHILQNc")) {
        format.kind = ElementKind::natural;
    } else if (among("fd")) {
        format.kind = ElementKind::floating;
    }
    return format;
}

// ---- Memory as it was found ----

struct Found {
    const char* data = nullptr;
    std::int64_t dtype = 0;
    Dims shape;
    Dims steps;  // in bytes
    bool swapped = false;
    bool read_only = false;
};

bool is_empty(const Dims& shape) { return std::find(shape.begin(), shape.end(), 0) != shape.end(); }

bool is_foreign_truth(char byte) { return static_cast<unsigned char>(byte) > 1; }

bool has_foreign_truths(const Found& found, std::size_t axis, const char* at) {
    if (axis == found.shape.size()) {
        return is_foreign_truth(*at);
    }
    const std::int64_t positions = found.steps[axis] == 0 ? 1 : found.shape[axis];
    for (std::int64_t i = 0; i < positions; ++i) {
        if (has_foreign_truths(found, axis + 1, at + i * found.steps[axis])) {
            return true;
        }
    }
    return false;
}

// Bytes other than 0 and 1 among bools; there are elements. Windows that overlap show far more elements than there are
// bytes: where these are all right, nobody has to look at each.
bool has_foreign_truths(const Found& found) {
    const char* low = found.data;
    const char* high = found.data + 1;
    double elements = 1;
    for (std::size_t i = 0; i < found.shape.size(); ++i) {
        const std::int64_t way = (found.shape[i] - 1) * found.steps[i];
        (way < 0 ? low : high) += way;
        elements *= static_cast<double>(found.shape[i]);
    }
    if (elements > static_cast<double>(high - low) && std::none_of(low, high, is_foreign_truth)) {
        return false;
    }
    return has_foreign_truths(found, 0, found.data);
}

// Can the elements be used where they lie?
bool can_share(const Found& found) {
    const std::int64_t item = dtype_item_size(found.dtype);
    const auto alignment = static_cast<std::uintptr_t>(std::min<std::int64_t>(item, 8));
    bool fits = !found.swapped && reinterpret_cast<std::uintptr_t>(found.data) % alignment == 0;
    for (std::size_t i = 0; i < found.steps.size(); ++i) {
        fits = fits && (found.shape[i] <= 1 || found.steps[i] % item == 0);
    }
    return fits && (found.dtype != dtype::boolean || !has_foreign_truths(found));
}

// Element by element, in row-major order: bytes are turned around, and truths made 0 or 1.
void gather(const Found& found, std::size_t axis, const char* at, char*& to) {
    if (axis < found.shape.size()) {
        for (std::int64_t i = 0; i < found.shape[axis]; ++i) {
            gather(found, axis + 1, at + i * found.steps[axis], to);
        }
        return;
    }
    const auto item = static_cast<std::size_t>(dtype_item_size(found.dtype));
    std::memcpy(to, at, item);
    if (found.dtype == dtype::boolean) {
        *to = *to != 0 ? 1 : 0;
    } else if (found.swapped) {
        const bool is_complex = is_dtype_class(found.dtype, DtypeClass::complex);
        const std::size_t part = is_complex ? item / 2 : item;
        for (std::size_t begin = 0; begin < item; begin += part) {
            std::reverse(to + begin, to + begin + part);
        }
    }
    to += item;
}

KTensor copied(const Found& found) {
    KTensor result = KTensor::empty(found.shape, found.dtype);
    if (result.size() != 0) {
        char* to = static_cast<char*>(result.tensor()->getRawData());
        gather(found, 0, found.data, to);
    }
    return result;
}

// A view where the elements can serve as they are, unless a copy is wanted; with `copy` false nothing is ever copied.
// `release` is called once, at once or when the view's memory is free.
KTensor adopt(const Found& found, std::optional<bool> copy, std::function<void()> release) {
    struct Guard {
        std::function<void()> call;
        ~Guard() {
            if (call) {
                call();
            }
        }
    } guard{std::move(release)};
    if (copy == true || is_empty(found.shape)) {
        return copied(found);
    }
    if (!can_share(found)) {
        if (copy == false) {
            raise_error(PyExc_ValueError,
                        "the memory can not be used without a copy: its byte order, alignment or values do not suit");
        }
        return copied(found);
    }
    Dims strides;
    std::int64_t row_major = 1;
    for (std::size_t i = found.shape.size(); i-- > 0;) {
        // An axis of one element may come with any step: that of row-major order keeps it out of the way.
        strides.insert(strides.begin(),
                       found.shape[i] <= 1 ? row_major : found.steps[i] / dtype_item_size(found.dtype));
        row_major *= found.shape[i];
    }
    return KTensor::from_memory(const_cast<char*>(found.data), found.shape, strides, found.dtype,
                                std::exchange(guard.call, nullptr), found.read_only);
}

// ---- Buffers ----

KTensor from_buffer(PyObject* object, std::optional<bool> copy) {
    const nb::object view = nb::steal(PyMemoryView_FromObject(object));
    if (!view.is_valid()) {
        throw nb::python_error();
    }
    const Py_buffer& buffer = *PyMemoryView_GET_BUFFER(view.ptr());
    const Format format = parse_format(buffer.format);
    Found found;
    found.dtype = dtype_for(format.kind, buffer.itemsize);
    if (found.dtype < 0) {
        raise_error(PyExc_TypeError, "elements of the type '" + std::string(buffer.format) + "' and " +
                                         std::to_string(buffer.itemsize) + " bytes have no dtype here");
    }
    if (buffer.suboffsets != nullptr) {
        raise_error(PyExc_BufferError, "memory in pieces can not be used");
    }
    found.data = static_cast<const char*>(buffer.buf);
    found.swapped = format.swapped && buffer.itemsize > 1;
    found.read_only = buffer.readonly != 0;
    found.shape.assign(buffer.shape, buffer.shape + buffer.ndim);
    found.steps.assign(buffer.strides, buffer.strides + buffer.ndim);
    const SharedObject owner(view.ptr());
    return adopt(found, copy, [owner] {});
}

// Elements of a dtype in memory that is known as bytes alone.
KTensor from_bytes(PyObject* object, std::int64_t code, const Dims& shape, std::int64_t offset,
                   std::optional<bool> copy) {
    const nb::object view = nb::steal(PyMemoryView_FromObject(object));
    if (!view.is_valid()) {
        throw nb::python_error();
    }
    const Py_buffer& buffer = *PyMemoryView_GET_BUFFER(view.ptr());
    std::int64_t bytes = dtype_item_size(code);
    bool fits = offset >= 0 && PyBuffer_IsContiguous(&buffer, 'C') != 0;
    for (const std::int64_t extent : shape) {
        fits = fits && extent >= 0 && !__builtin_mul_overflow(bytes, extent, &bytes);
    }
    if (!fits || offset > buffer.len || bytes > buffer.len - offset) {
        raise_error(PyExc_ValueError, "the " + std::to_string(buffer.len) +
                                          " bytes do not hold elements of this shape, dtype and offset in a row");
    }
    Found found;
    found.data = static_cast<const char*>(buffer.buf) + offset;
    found.dtype = code;
    found.shape = shape;
    found.read_only = buffer.readonly != 0;
    found.steps.resize(shape.size());
    std::int64_t step = dtype_item_size(code);
    for (std::size_t i = shape.size(); i-- > 0;) {
        found.steps[i] = step;
        step *= shape[i];
    }
    const SharedObject owner(view.ptr());
    return adopt(found, copy, [owner] {});
}

// ---- DLPack, to others ----

struct Exported {
    KTensor tensor;
    Dims shape;
    Dims strides;
    std::unique_ptr<Loan> loan;  // where others may write
};

constexpr std::array<std::uint8_t, 5> codes{6, 0, 2, 5, 1};  // bool, int, float, complex, unsigned

dlpack::DataType dlpack_type(std::int64_t code) {
    const DtypeClass of = detail::dtype_table[static_cast<std::size_t>(code)].dtype_class;
    const std::uint8_t type = code == dtype::uint8 ? codes[4] : codes[static_cast<std::size_t>(of)];
    return {type, static_cast<std::uint8_t>(8 * dtype_item_size(code)), 1};
}

template <typename Capsule>
void delete_exported(Capsule* managed) {
    delete static_cast<Exported*>(managed->context);
    delete managed;
}

// Of a capsule that nobody has taken.
template <typename Capsule>
void drop_capsule(PyObject* capsule) {
    if (PyCapsule_IsValid(capsule, Capsule::name) == 0) {
        return;
    }
    auto* managed = static_cast<Capsule*>(PyCapsule_GetPointer(capsule, Capsule::name));
    if (managed->deleter != nullptr) {
        managed->deleter(managed);
    }
}

template <typename Capsule>
nb::object export_as(const KTensor& t, std::uint64_t flags) {
    const auto storage = t.tensor()->getStorage();
    auto exported = std::make_unique<Exported>(
        Exported{t, t.shape(), t.strides(), storage->read_only() ? nullptr : std::make_unique<Loan>(storage)});
    auto managed = std::make_unique<Capsule>();
    managed->array = {t.size() == 0 ? nullptr : t.tensor()->getRawData(),
                      {dlpack::cpu, 0},
                      t.ndim(),
                      dlpack_type(t.dtype()),
                      exported->shape.data(),
                      exported->strides.data(),
                      0};
    if constexpr (std::is_same_v<Capsule, dlpack::ManagedVersioned>) {
        managed->version = {1, 1};
        managed->flags = flags;
    }
    managed->deleter = delete_exported<Capsule>;
    managed->context = exported.get();
    PyObject* capsule = checked(PyCapsule_New(managed.get(), Capsule::name, drop_capsule<Capsule>));
    exported.release();
    managed.release();
    return nb::steal(capsule);
}

nb::object to_dlpack(const KTensor& t, bool versioned, bool copy) {
    if (t.wants_grad()) {
        raise_error(PyExc_BufferError, "a tensor that asks for gradients does not lend its memory; use detach()");
    }
    const KTensor given = copy ? clone(t) : t.detach();
    const bool read_only = given.tensor()->getStorage()->read_only();
    if (!versioned) {
        if (read_only) {
            raise_error(PyExc_BufferError, "read-only memory takes version 1 of DLPack: the other one can not say so");
        }
        return export_as<dlpack::Managed>(given, 0);
    }
    return export_as<dlpack::ManagedVersioned>(given,
                                               (read_only ? dlpack::read_only : 0) | (copy ? dlpack::copied : 0));
}

// ---- DLPack, from others ----

std::int64_t dtype_of(const dlpack::DataType& type) {
    for (std::int64_t code = 0; code < dtype_count; ++code) {
        const dlpack::DataType ours = dlpack_type(code);
        if (ours.code == type.code && ours.bits == type.bits && type.lanes == 1) {
            return code;
        }
    }
    raise_error(PyExc_BufferError, "DLPack elements of type " + std::to_string(type.code) + " with " +
                                       std::to_string(type.bits) + " bits and " + std::to_string(type.lanes) +
                                       " lanes have no dtype here");
}

Found read_array(const dlpack::Array& array) {
    if (array.device.type != dlpack::cpu && array.device.type != dlpack::host_pinned) {
        raise_error(PyExc_BufferError, "tensors live in the memory of the processor, not on a device of type " +
                                           std::to_string(array.device.type));
    }
    if (array.ndim < 0 || array.ndim > most_axes || (array.ndim > 0 && array.shape == nullptr)) {
        raise_error(PyExc_BufferError, "a DLPack array of " + std::to_string(array.ndim) + " axes can not be used");
    }
    Found found;
    found.dtype = dtype_of(array.dtype);
    found.shape.assign(array.shape, array.shape + array.ndim);
    found.steps.resize(found.shape.size());
    const std::int64_t item = dtype_item_size(found.dtype);
    const bool empty = is_empty(found.shape);
    std::int64_t row_major = item;
    bool fits = true;
    for (std::size_t i = found.shape.size(); i-- > 0;) {
        fits = fits && found.shape[i] >= 0;
        if (array.strides == nullptr) {
            found.steps[i] = row_major;
        } else {
            fits = fits && !__builtin_mul_overflow(array.strides[i], item, &found.steps[i]);
        }
        std::int64_t reach = 0;
        fits = fits && (empty || !__builtin_mul_overflow(found.steps[i], found.shape[i], &reach));
        fits = fits && (empty || !__builtin_mul_overflow(row_major, found.shape[i], &row_major));
    }
    if (!fits || (!empty && array.data == nullptr)) {
        raise_error(PyExc_BufferError, "the DLPack array's shape, strides and memory do not fit together");
    }
    found.data = static_cast<const char*>(array.data) + array.byte_offset;
    return found;
}

// Takes the capsule over when everything has succeeded: until then its own destructor is in charge.
template <typename Capsule>
KTensor import_as(PyObject* capsule, std::optional<bool> copy, bool read_only) {
    auto* managed = static_cast<Capsule*>(checked(PyCapsule_GetPointer(capsule, Capsule::name)));
    bool is_copy = false;
    if constexpr (std::is_same_v<Capsule, dlpack::ManagedVersioned>) {
        if (managed->version.major > 1) {
            raise_error(PyExc_BufferError,
                        "version " + std::to_string(managed->version.major) + " of DLPack is not known here");
        }
        read_only = (managed->flags & dlpack::read_only) != 0;
        is_copy = (managed->flags & dlpack::copied) != 0;
    }
    Found found = read_array(managed->array);
    found.read_only = read_only;
    if (copy == true && is_copy) {
        copy = std::nullopt;
    }
    struct Owner {
        explicit Owner(Capsule* object) : managed(object) {}
        Owner(const Owner&) = delete;
        Owner& operator=(const Owner&) = delete;
        ~Owner() {
            if (taken && managed->deleter != nullptr) {
                call_with_lock(
                    [](void* argument) {
                        auto* object = static_cast<Capsule*>(argument);
                        object->deleter(object);
                    },
                    managed);
            }
        }
        Capsule* managed;
        bool taken = false;
    };
    const auto owner = std::make_shared<Owner>(managed);
    KTensor result = adopt(found, copy, [owner] {});
    if (PyCapsule_SetName(capsule, Capsule::used_name) != 0) {
        throw nb::python_error();
    }
    owner->taken = true;
    return result;
}

KTensor from_capsule(nb::handle capsule, std::optional<bool> copy, bool read_only) {
    if (PyCapsule_IsValid(capsule.ptr(), dlpack::ManagedVersioned::name) != 0) {
        return import_as<dlpack::ManagedVersioned>(capsule.ptr(), copy, read_only);
    }
    if (PyCapsule_IsValid(capsule.ptr(), dlpack::Managed::name) != 0) {
        return import_as<dlpack::Managed>(capsule.ptr(), copy, read_only);
    }
    if (PyCapsule_CheckExact(capsule.ptr()) == 0) {
        raise_error(PyExc_TypeError, "__dlpack__() gave no capsule, but " + type_name(capsule.ptr()));
    }
    const char* name = PyCapsule_GetName(capsule.ptr());
    PyErr_Clear();
    raise_error(PyExc_ValueError, std::string("a capsule \"") + (name == nullptr ? "" : name) +
                                      "\" can not be used: DLPack capsules are used once");
}

std::optional<bool> copy_argument(nb::handle copy) {
    if (copy.is_none()) {
        return std::nullopt;
    }
    const int value = PyObject_IsTrue(copy.ptr());
    check_python();
    return value == 1;
}

}  // namespace

KTensor from_numpy(PyObject* array) { return from_buffer(array, std::nullopt); }

void add_interchange(nb::module_& m) {
    m.def(
        "from_buffer",
        [](nb::handle object, nb::handle copy) { return from_buffer(object.ptr(), copy_argument(copy)); },
        nb::arg("object").none(), nb::arg("copy").none(),
        nb::sig("def from_buffer(object: object, copy: None | bool) -> ornik.KTensor"));
    m.def(
        "from_bytes",
        [](nb::handle object, Dtype dtype, const Shape& shape, Whole offset, nb::handle copy) {
            return from_bytes(object.ptr(), dtype.code, shape.dims, offset, copy_argument(copy));
        },
        nb::arg("object").none(), nb::arg("dtype"), nb::arg("shape"), nb::arg("offset"), nb::arg("copy").none(),
        nb::sig("def from_bytes(object: object, dtype: object, shape: int | collections.abc.Sequence[int], offset: "
                "int, copy: None | bool) -> ornik.KTensor"));
    m.def(
        "from_capsule",
        [](nb::handle capsule, nb::handle copy, Flag read_only) {
            return from_capsule(capsule, copy_argument(copy), read_only);
        },
        nb::arg("capsule").none(), nb::arg("copy").none(), nb::arg("read_only"),
        nb::sig("def from_capsule(capsule: object, copy: None | bool, read_only: bool) -> ornik.KTensor"));
    m.def("to_dlpack", to_dlpack, nb::arg("tensor"), nb::arg("versioned"), nb::arg("copy"));
}

}  // namespace ornik::python
