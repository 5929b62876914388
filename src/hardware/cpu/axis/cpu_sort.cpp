// cpu_sort.cpp: sorting by keys.
//
// An element becomes an unsigned key whose order is the element's; keys and places are then sorted digit by
// digit, from the lowest, which is stable. Short rows are sorted by insertion, and the first few of a long row
// are selected.
#include "hardware/cpu/axis/cpu_sort.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "../reduce/cpu_reduce_walk.h"
#include "cpu_axis_runs.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t sort_cost = 16;
constexpr std::int64_t short_row = 48;

template <typename T>
using Key = std::conditional_t<sizeof(T) == 1, std::uint8_t,
                               std::conditional_t<sizeof(T) == 2, std::uint16_t,
                                                  std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>>>;

template <typename T>
Key<T> key_of(Stored<T> item) {
    using K = Key<T>;
    constexpr K sign = static_cast<K>(K(1) << (sizeof(K) * 8 - 1));
    if constexpr (std::is_same_v<T, bool>) {
        return item != 0 ? 1 : 0;
    } else if constexpr (std::is_unsigned_v<T>) {
        return item;
    } else if constexpr (std::is_integral_v<T>) {
        return static_cast<K>(static_cast<K>(item) ^ sign);
    } else {
        const T unsigned_zero = item == T(0) ? T(0) : item;
        K bits;
        std::memcpy(&bits, &unsigned_zero, sizeof(K));
        // Not a number: beyond the key of infinity.
        return item != item ? std::numeric_limits<K>::max() : (bits & sign) != 0 ? static_cast<K>(~bits) : bits | sign;
    }
}

template <typename T>
Key<T> key_of(Stored<T> item, bool descending) {
    const Key<T> key = key_of<T>(item);
    return descending && item == item ? static_cast<Key<T>>(~key) : key;
}

template <typename K>
struct Entry {
    K key;
    std::uint32_t place;

    // Places differ: this order is total, and agrees with that of a stable sort by keys.
    friend bool operator<(const Entry& a, const Entry& b) { return a.key != b.key ? a.key < b.key : a.place < b.place; }
};

template <typename K>
void radix_sort(std::vector<Entry<K>>& entries) {
    constexpr std::size_t digits = sizeof(K);
    std::array<std::array<std::uint32_t, 256>, digits> counts{};
    for (const Entry<K>& entry : entries) {
        for (std::size_t d = 0; d < digits; ++d) {
            ++counts[d][static_cast<std::uint8_t>(entry.key >> (8 * d))];
        }
    }
    std::vector<Entry<K>> other(entries.size());
    for (std::size_t d = 0; d < digits; ++d) {
        auto& next = counts[d];
        const auto digit = [d](K key) { return static_cast<std::uint8_t>(key >> (8 * d)); };
        if (next[digit(entries.front().key)] == entries.size()) {
            continue;  // All alike in this digit.
        }
        std::uint32_t total = 0;
        for (std::uint32_t& count : next) {
            total += std::exchange(count, total);
        }
        for (const Entry<K>& entry : entries) {
            other[next[digit(entry.key)]++] = entry;
        }
        entries.swap(other);
    }
}

// The first k entries come into order.
template <typename K>
void sort_entries(std::vector<Entry<K>>& entries, std::int64_t k) {
    const auto n = static_cast<std::int64_t>(entries.size());
    if (n <= short_row) {
        for (auto i = entries.begin(); i != entries.end(); ++i) {
            std::rotate(std::upper_bound(entries.begin(), i, *i), i, i + 1);
        }
    } else if (k <= n / 64) {
        std::partial_sort(entries.begin(), entries.begin() + k, entries.end());
    } else if (k < n / 4) {
        std::nth_element(entries.begin(), entries.begin() + k, entries.end());
        std::sort(entries.begin(), entries.begin() + k);
    } else {
        radix_sort(entries);
    }
}

template <typename T>
std::vector<Entry<Key<T>>> entries_of(const Stored<T>* row, std::int64_t n, bool descending) {
    std::vector<Entry<Key<T>>> entries(static_cast<std::size_t>(n));
    for (std::int64_t i = 0; i < n; ++i) {
        entries[static_cast<std::size_t>(i)] = {key_of<T>(row[i], descending), static_cast<std::uint32_t>(i)};
    }
    return entries;
}

template <typename T>
auto median_of(std::vector<Stored<T>>& row) {
    using Result = std::conditional_t<std::is_integral_v<T>, float, T>;
    for (Stored<T>& item : row) {
        if constexpr (std::is_same_v<T, bool>) {
            item = item != 0 ? 1 : 0;
        } else if (item != item) {
            return static_cast<Result>(item);
        }
    }
    const auto middle = row.begin() + static_cast<std::ptrdiff_t>(row.size() / 2);
    std::nth_element(row.begin(), middle, row.end());
    const auto upper = static_cast<double>(*middle);
    if (row.size() % 2 != 0) {
        return static_cast<Result>(*middle);
    }
    const auto lower = static_cast<double>(*std::max_element(row.begin(), middle));
    return static_cast<Result>(lower == upper ? lower : lower / 2 + upper / 2);
}

std::int64_t row_grain(std::int64_t n) { return std::max<std::int64_t>(2, (1 << 14) / (n * sort_cost + 1)); }

}  // namespace

void sort(const Tensor* in, Tensor* values, Tensor* places, int axis, bool descending) {
    const std::int64_t n = in->Shape()[static_cast<std::size_t>(axis)];
    const Tensor* first_out = values != nullptr ? values : places;
    const std::int64_t k = first_out->Shape()[static_cast<std::size_t>(axis)];
    if (k == 0) {
        return;
    }
    AxisRuns runs(axis);
    runs.add_input(in);
    for (Tensor* out : {values, places}) {
        if (out != nullptr) {
            runs.add_output(out);
        }
    }
    dispatch(RealTypes{}, in->Dtype(), [&]<typename T>() {
        runs.for_each(sort_cost, [&](char* const* run) {
            const auto* row = as<const Stored<T>>(run[0]);
            auto entries = entries_of<T>(row, n, descending);
            sort_entries(entries, k);
            for (std::int64_t i = 0; values != nullptr && i < k; ++i) {
                as<Stored<T>>(run[1])[i] = row[entries[static_cast<std::size_t>(i)].place];
            }
            for (std::int64_t i = 0; places != nullptr && i < k; ++i) {
                as<std::int64_t>(run[values != nullptr ? 2 : 1])[i] = entries[static_cast<std::size_t>(i)].place;
            }
        });
    });
}

void median(const Tensor* rows, Tensor* out) {
    const std::int64_t n = rows->Shape()[1];
    dispatch(RealTypes{}, rows->Dtype(), [&]<typename T>() {
        const auto* items = static_cast<const Stored<T>*>(rows->getRawData());
        parallel_for(rows->Shape()[0], 1, row_grain(n), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t i = begin; i < end; ++i) {
                std::vector<Stored<T>> row(items + i * n, items + (i + 1) * n);
                const auto middle = median_of<T>(row);
                static_cast<std::remove_const_t<decltype(middle)>*>(out->getRawData())[i] = middle;
            }
        });
    });
}

void median_grad(const Tensor* rows, const Tensor* g, Tensor* out) {
    const std::int64_t n = rows->Shape()[1];
    dispatch(FloatTypes{}, rows->Dtype(), [&]<typename T>() {
        const T* items = static_cast<const T*>(rows->getRawData());
        const T* gradient = static_cast<const T*>(g->getRawData());
        T* result = static_cast<T*>(out->getRawData());
        parallel_for(rows->Shape()[0], 1, row_grain(n), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t i = begin; i < end; ++i) {
                auto entries = entries_of<T>(items + i * n, n, false);
                sort_entries(entries, n);
                T* row = result + i * n;
                std::fill_n(row, n, T(0));
                for (const std::int64_t middle : {(n - 1) / 2, n / 2}) {
                    row[entries[static_cast<std::size_t>(middle)].place] += gradient[i] / 2;
                }
            }
        });
    });
}

void search_sorted(const Tensor* sorted, const Tensor* values, Tensor* out, bool right) {
    const std::int64_t n = sorted->Shape()[1];
    const std::int64_t m = values->Shape()[1];
    auto* counts = static_cast<std::int64_t*>(out->getRawData());
    dispatch(RealTypes{}, sorted->Dtype(), [&]<typename T>() {
        const auto* rows = static_cast<const Stored<T>*>(sorted->getRawData());
        const auto* value = static_cast<const Stored<T>*>(values->getRawData());
        parallel_for(values->Size(), 1, 1 << 12, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t i = begin; i < end; ++i) {
                const auto* row = rows + i / m * n;
                const Key<T> key = key_of<T>(value[i]);
                counts[i] = std::partition_point(row, row + n,
                                                 [&](Stored<T> item) {
                                                     const Key<T> other = key_of<T>(item);
                                                     return right ? other <= key : other < key;
                                                 }) -
                            row;
            }
        });
    });
}

std::int64_t count_different(const Tensor* sorted) {
    std::int64_t count = 0;
    dispatch(RealTypes{}, sorted->Dtype(), [&]<typename T>() {
        const auto* items = static_cast<const Stored<T>*>(sorted->getRawData());
        for (std::int64_t i = 0; i < sorted->Size(); ++i) {
            count += i == 0 || key_of<T>(items[i]) != key_of<T>(items[i - 1]) ? 1 : 0;
        }
    });
    return count;
}

void collect_different(const Tensor* sorted, const Tensor* places, Tensor* values, Tensor* inverse, Tensor* counts) {
    const auto* place = static_cast<const std::int64_t*>(places->getRawData());
    auto* index = static_cast<std::int64_t*>(inverse->getRawData());
    auto* count = static_cast<std::int64_t*>(counts->getRawData());
    dispatch(RealTypes{}, sorted->Dtype(), [&]<typename T>() {
        const auto* items = static_cast<const Stored<T>*>(sorted->getRawData());
        std::int64_t last = -1;
        for (std::int64_t i = 0; i < sorted->Size(); ++i) {
            if (i == 0 || key_of<T>(items[i]) != key_of<T>(items[i - 1])) {
                static_cast<Stored<T>*>(values->getRawData())[++last] = items[i];
                count[last] = 0;
            }
            ++count[last];
            index[place[i]] = last;
        }
    });
}

}  // namespace ornik::device::cpu
