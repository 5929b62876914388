#include "hardware/cpu/nn/cpu_packing.h"

#include <algorithm>
#include <cstring>

#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t grain = 1 << 16;  // bytes worth a second thread

// Calls move(byte offset in packed, byte offset in padded, bytes) for every entry.
template <typename Move>
void for_each_entry(const Packing& packing, const Tensor* packed, const Tensor* padded, const Move& move) {
    const std::int64_t bytes = packed->Size() / packing.entries() * packed->itemsize();
    const std::int64_t row = padded->Shape()[1] * bytes;
    Dims first_entry;  // of each step
    std::int64_t entry = 0;
    for (const std::int64_t size : packing.batch_sizes()) {
        first_entry.push_back(entry);
        entry += size;
    }
    const std::int64_t average = std::max<std::int64_t>(1, packing.entries() / packing.steps() * bytes);
    parallel_for(packing.steps(), 1, std::max<std::int64_t>(2, grain / average),
                 [&](std::int64_t begin, std::int64_t end) {
                     for (std::int64_t step = begin; step < end; ++step) {
                         const auto s = static_cast<std::size_t>(step);
                         for (std::int64_t i = 0; i < packing.batch_sizes()[s]; ++i) {
                             const std::int64_t sequence = packing.order()[static_cast<std::size_t>(i)];
                             move((first_entry[s] + i) * bytes, sequence * row + step * bytes, bytes);
                         }
                     }
                 });
}

}  // namespace

void pack(const Tensor* padded, const Packing& packing, Tensor* packed) {
    auto* out = static_cast<char*>(packed->getRawData());
    const auto* in = static_cast<const char*>(padded->getRawData());
    for_each_entry(packing, packed, padded, [=](std::int64_t to, std::int64_t from, std::int64_t bytes) {
        std::memcpy(out + to, in + from, static_cast<std::size_t>(bytes));
    });
}

void unpack(const Tensor* packed, const Packing& packing, Tensor* padded) {
    auto* out = static_cast<char*>(padded->getRawData());
    const auto* in = static_cast<const char*>(packed->getRawData());
    for_each_entry(packing, packed, padded, [=](std::int64_t from, std::int64_t to, std::int64_t bytes) {
        std::memcpy(out + to, in + from, static_cast<std::size_t>(bytes));
    });
}

}  // namespace ornik::device::cpu
