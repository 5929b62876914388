// files.cpp: tensors in files.
#include "ktensor/files.h"

#include <nanobind/stl/string.h>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "io/npy.h"
#include "io/npz.h"
#include "module.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

using TensorDict = nb::typed<nb::dict, std::string, KTensor>;
using TextDict = nb::typed<nb::dict, std::string, std::string>;

LoadMode mode_of(const std::string& name) {
    if (name == "copy_on_write") {
        return LoadMode::copy_on_write;
    }
    if (name == "read_only") {
        return LoadMode::read_only;
    }
    if (name != "copy") {
        raise_error(PyExc_ValueError,
                    "a mode of loading is \"copy_on_write\", \"read_only\" or \"copy\", not \"" + name + "\"");
    }
    return LoadMode::copy;
}

std::string to_text(PyObject* object) {
    Py_ssize_t size = 0;
    const char* text = PyUnicode_Check(object) ? PyUnicode_AsUTF8AndSize(object, &size) : nullptr;
    if (text == nullptr) {
        check_python();
        raise_error(PyExc_TypeError, "a name is a string, but got " + type_name(object));
    }
    return {text, static_cast<std::size_t>(size)};
}

NamedTensors to_named(const TensorDict& tensors) {
    NamedTensors result;
    for (const auto& [name, tensor] : tensors) {
        result.emplace_back(to_text(name.ptr()), to_tensor(tensor.ptr()));
    }
    return result;
}

NamedTensors to_handles(std::vector<NamedTensor> tensors) {
    NamedTensors result;
    for (NamedTensor& item : tensors) {
        result.emplace_back(std::move(item.name), KTensor(std::move(item.tensor)));
    }
    return result;
}

std::vector<TensorEntry> entries_of(const NamedTensors& tensors) {
    std::vector<TensorEntry> entries;
    for (const auto& [name, tensor] : tensors) {
        entries.push_back({name, tensor.tensor()});
    }
    return entries;
}

FileMetadata to_metadata(const TextDict& texts) {
    FileMetadata metadata;
    for (const auto& [key, value] : texts) {
        metadata[to_text(key.ptr())] = to_text(value.ptr());
    }
    return metadata;
}

nb::tuple with_metadata(SafetensorsFile file) {
    nb::dict texts;
    for (const auto& [key, value] : file.metadata) {
        texts[nb::str(key.data(), key.size())] = nb::str(value.data(), value.size());
    }
    return nb::make_tuple(to_dict(to_handles(std::move(file.tensors))), texts);
}

nb::bytes to_bytes(const std::vector<std::byte>& bytes) { return nb::bytes(bytes.data(), bytes.size()); }
std::span<const std::byte> span_of(const nb::bytes& bytes) {
    return {reinterpret_cast<const std::byte*>(bytes.c_str()), bytes.size()};
}

}  // namespace

nb::dict to_dict(NamedTensors tensors) {
    nb::dict result;
    for (auto& [name, tensor] : tensors) {
        result[nb::str(name.data(), name.size())] = nb::steal(checked(wrap(std::move(tensor))));
    }
    return result;
}

void add_files(nb::module_& m) {
    m.def("save", [](const Text& path, const TensorDict& tensors, const TextDict& metadata, Flag compress, Flag sync) {
        const NamedTensors named = to_named(tensors);
        const FileMetadata texts = to_metadata(metadata);
        without_lock([&] { save(path.value, named, texts, {compress, sync}); });
    });
    m.def(
        "load",
        [](const Text& path, const Text& mode) {
            const LoadMode how = mode_of(mode);
            return to_dict(without_lock([&] { return load(path.value, how); }));
        },
        nb::sig("def load(path: str, mode: str, /) -> dict[str, ornik.KTensor]"));
    m.def(
        "load_safetensors",
        [](const Text& path, const Text& mode) {
            const LoadMode how = mode_of(mode);
            return with_metadata(without_lock([&] { return load_safetensors(path.value, how); }));
        },
        nb::sig("def load_safetensors(path: str, mode: str, /) -> tuple[dict[str, ornik.KTensor], dict[str, str]]"));
    m.def("safetensors_to_bytes", [](const TensorDict& tensors, const TextDict& metadata) {
        const NamedTensors named = to_named(tensors);
        return to_bytes(safetensors_to_bytes(entries_of(named), to_metadata(metadata)));
    });
    m.def(
        "safetensors_from_bytes",
        [](const nb::bytes& bytes) { return with_metadata(safetensors_from_bytes(span_of(bytes))); },
        nb::sig("def safetensors_from_bytes(data: bytes, /) -> tuple[dict[str, ornik.KTensor], dict[str, str]]"));
    m.def("npy_to_bytes", [](const KTensor& t) { return to_bytes(npy_to_bytes(t.tensor())); });
    m.def("npy_from_bytes", [](const nb::bytes& bytes) { return KTensor(npy_from_bytes(span_of(bytes))); });
    m.def("npz_to_bytes", [](const TensorDict& tensors, Flag compress) {
        const NamedTensors named = to_named(tensors);
        return to_bytes(npz_to_bytes(entries_of(named), {compress, false}));
    });
    m.def(
        "npz_from_bytes", [](const nb::bytes& bytes) { return to_dict(to_handles(npz_from_bytes(span_of(bytes)))); },
        nb::sig("def npz_from_bytes(data: bytes, /) -> dict[str, ornik.KTensor]"));
}

}  // namespace ornik::python
