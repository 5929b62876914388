// cpu_mask.cpp: what a mask selects.
#include <algorithm>

#include "../index/cpu_item_size.h"
#include "hardware/cpu/index/cpu_index.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t mask_block = 4096;

// Calls visit(rank, position) for every true element, rank counting them; in parallel.
template <typename Visit>
void for_each_true(const std::uint8_t* mask, std::int64_t n, const std::vector<std::int64_t>& start,
                   const Visit& visit) {
    parallel_for(static_cast<std::int64_t>(start.size()) - 1, 1, 16, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t block = begin; block < end; ++block) {
            std::int64_t rank = start[static_cast<std::size_t>(block)];
            for (std::int64_t i = block * mask_block; i < std::min(n, (block + 1) * mask_block); ++i) {
                if (mask[i] != 0) {
                    visit(rank++, i);
                }
            }
        }
    });
}

const std::uint8_t* bytes_of(const Tensor* mask) { return static_cast<const std::uint8_t*>(mask->getRawData()); }

}  // namespace

TrueRanks true_ranks(const Tensor* mask) {
    const std::uint8_t* items = bytes_of(mask);
    const std::int64_t n = mask->Size();
    const std::int64_t blocks = (n + mask_block - 1) / mask_block;
    TrueRanks ranks;
    ranks.start.assign(static_cast<std::size_t>(blocks) + 1, 0);
    parallel_for(blocks, 1, 16, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t block = begin; block < end; ++block) {
            const std::uint8_t* first = items + block * mask_block;
            const std::int64_t length = std::min(mask_block, n - block * mask_block);
            ranks.start[static_cast<std::size_t>(block) + 1] =
                length - std::count(first, first + length, std::uint8_t{0});
        }
    });
    for (std::size_t block = 1; block < ranks.start.size(); ++block) {
        ranks.start[block] += ranks.start[block - 1];
    }
    return ranks;
}

void true_positions(const Tensor* mask, const TrueRanks& ranks, Tensor* positions) {
    auto* out = static_cast<std::int64_t*>(positions->getRawData());
    for_each_true(bytes_of(mask), mask->Size(), ranks.start,
                  [out](std::int64_t rank, std::int64_t i) { out[rank] = i; });
}

void coordinates(const Tensor* positions, const Dims& shape, Tensor* columns) {
    const auto* flat = static_cast<const std::int64_t*>(positions->getRawData());
    auto* out = static_cast<std::int64_t*>(columns->getRawData());
    const std::size_t rank = shape.size();
    parallel_for(positions->Size(), 1, mask_block, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t k = begin; k < end; ++k) {
            std::int64_t rest = flat[k];
            for (std::size_t d = rank; d-- > 0; rest /= shape[d]) {
                out[k * static_cast<std::int64_t>(rank) + static_cast<std::int64_t>(d)] = rest % shape[d];
            }
        }
    });
}

void masked_take(const Tensor* x, const Tensor* mask, const TrueRanks& ranks, Tensor* out) {
    by_item_size(x->itemsize(), [&]<typename Item>() {
        const Item* from = static_cast<const Item*>(x->getRawData());
        Item* to = static_cast<Item*>(out->getRawData());
        for_each_true(bytes_of(mask), mask->Size(), ranks.start,
                      [=](std::int64_t rank, std::int64_t i) { to[rank] = from[i]; });
    });
}

void masked_put(const Tensor* values, const Tensor* mask, const TrueRanks& ranks, Tensor* x) {
    by_item_size(x->itemsize(), [&]<typename Item>() {
        const Item* from = static_cast<const Item*>(values->getRawData());
        Item* to = static_cast<Item*>(x->getRawData());
        for_each_true(bytes_of(mask), mask->Size(), ranks.start,
                      [=](std::int64_t rank, std::int64_t i) { to[i] = from[rank]; });
    });
}

}  // namespace ornik::device::cpu
