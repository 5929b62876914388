// files_target.h: one run of the readers of files on arbitrary bytes. What a reader accepts, it reads again from what
// the writer makes of it. Shared by the fuzzer and by its bounded run as a test.
#pragma once

#include "fuzz/selection_target.h"
#include "io/npy.h"
#include "io/npz.h"
#include "io/safetensors.h"

namespace ornik::test {

inline bool same_tensor(const Tensor* a, const Tensor* b) { return a->Dtype() == b->Dtype() && same_bytes(a, b); }

inline void demand_same(const std::vector<NamedTensor>& a, const std::vector<NamedTensor>& b) {
    demand(a.size() == b.size());
    for (const NamedTensor& item : a) {
        bool found = false;
        for (const NamedTensor& other : b) {
            found = found || (other.name == item.name && same_tensor(other.tensor.get(), item.tensor.get()));
        }
        demand(found);
    }
}

inline std::vector<TensorEntry> entries_of(const std::vector<NamedTensor>& tensors) {
    std::vector<TensorEntry> entries;
    for (const NamedTensor& item : tensors) {
        entries.push_back({item.name, item.tensor.get()});
    }
    return entries;
}

/// Returns how many of the three readers accepted the bytes.
inline int exercise_files(const std::uint8_t* data, std::size_t size) {
    const auto bytes = std::as_bytes(std::span(data, size));
    int accepted_by = 0;
    const auto attempt = [&](const auto& read, const auto& check) {
        decltype(read()) contents;
        try {
            contents = read();
        } catch (const Error&) {
            return;
        }
        ++accepted_by;
        check(contents);
    };
    attempt([&] { return npy_from_bytes(bytes); },
            [](const auto& t) { demand(same_tensor(npy_from_bytes(npy_to_bytes(t.get())).get(), t.get())); });
    attempt([&] { return npz_from_bytes(bytes); },
            [](const auto& tensors) { demand_same(npz_from_bytes(npz_to_bytes(entries_of(tensors))), tensors); });
    attempt([&] { return safetensors_from_bytes(bytes); },
            [](const auto& file) {
                const auto again =
                    safetensors_from_bytes(safetensors_to_bytes(entries_of(file.tensors), file.metadata));
                demand_same(again.tensors, file.tensors);
                demand(again.metadata == file.metadata);
            });
    return accepted_by;
}

}  // namespace ornik::test
