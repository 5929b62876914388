// cpu_reduce_extreme.cpp: largest and smallest elements, their places, and truth of any or all.
#include "cpu_reduce_extreme.h"

#include "hardware/cpu/copy/element_convert.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/reduce/cpu_reduce.h"

namespace ornik::device::cpu {

namespace {

// Whether an element is true (bit 0), and whether one is false (bit 1).
template <typename Item>
struct Truth {
    static std::uint8_t lift(Item item) { return convert_element<bool>(item) ? 1 : 2; }
    static std::uint8_t join(std::uint8_t a, std::uint8_t b) { return static_cast<std::uint8_t>(a | b); }
};

template <bool All>
void reduce_truth(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) {
    dispatch(AllTypes{}, in->Dtype(), [&]<typename T>() {
        using Item = std::conditional_t<std::is_integral_v<T> && sizeof(T) == 1, std::uint8_t, T>;
        reduce(plan, in->getRawData(), static_cast<bool*>(out->getRawData()), Fold<Item, std::uint8_t, Truth<Item>>{},
               [](std::uint8_t found) { return All ? (found & 2) == 0 : (found & 1) != 0; });
    });
}

template <bool Largest>
void reduce_extreme(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) {
    dispatch(RealTypes{}, in->Dtype(), [&]<typename T>() {
        if constexpr (std::is_same_v<T, bool>) {
            reduce_truth<!Largest>(plan, in, out);
        } else {
            reduce(plan, in->getRawData(), static_cast<T*>(out->getRawData()), ExtremeFold<T, Largest>{},
                   [](T state) { return state; });
        }
    });
}

// The first extreme element and its position.
template <typename T, bool Largest>
struct Place {
    using Item = Stored<T>;
    using Rule = Extreme<T, Largest>;
    static constexpr bool exact = true;
    struct State {
        Item value;
        std::int64_t position;
    };

    static State row(const Item* items, std::int64_t n, std::int64_t first) {
        const Item value = ExtremeFold<T, Largest>::row(items, n);
        constexpr std::int64_t block = 64;
        const auto is_it = [&](std::int64_t i) {
            const Item item = Rule::lift(items[i]);
            return static_cast<int>(item == value) |
                   (static_cast<int>(item != item) & static_cast<int>(value != value));
        };
        std::int64_t i = 0;
        for (; i + block <= n; i += block) {
            int found = 0;
            for (std::int64_t j = 0; j < block; ++j) {
                found |= is_it(i + j);
            }
            if (found != 0) {
                break;
            }
        }
        while (is_it(i) == 0) {
            ++i;
        }
        return {value, first + i};
    }

    static void columns(const Item* const* rows, std::int64_t n, std::int64_t cols, std::int64_t first, State* states) {
        constexpr std::int64_t block = 1024;
        // Positions as wide as the items: values and positions then advance in registers of one width.
        using Position = std::conditional_t<sizeof(Item) == 8, std::int64_t, std::int32_t>;
        for (std::int64_t begin = 0; begin < cols; begin += block) {
            const std::int64_t width = std::min(block, cols - begin);
            Item best[block];
            Position place[block] = {};
            for (std::int64_t j = 0; j < width; ++j) {
                best[j] = Rule::lift(rows[0][begin + j]);
            }
            for (std::int64_t i = 1; i < n; ++i) {
                const Item* row = rows[i] + begin;
                for (std::int64_t j = 0; j < width; ++j) {
                    const Item item = Rule::lift(row[j]);
                    const Item old = best[j];
                    const bool moves = (Largest ? item > old : item < old) | ((item != item) & (old == old));
                    best[j] = moves ? item : old;
                    place[j] = moves ? static_cast<Position>(i) : place[j];
                }
            }
            for (std::int64_t j = 0; j < width; ++j) {
                states[begin + j] = {best[j], first + place[j]};
            }
        }
    }

    static void combine(State& a, const State& b) {
        if (Rule::beyond(b.value, a.value)) {
            a = b;
        }
    }
};

template <bool Largest>
void reduce_place(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) {
    dispatch(RealTypes{}, in->Dtype(), [&]<typename T>() {
        using Kernel = Place<T, Largest>;
        reduce(plan, in->getRawData(), static_cast<std::int64_t*>(out->getRawData()), Kernel{},
               [](const typename Kernel::State& state) { return state.position; });
    });
}

}  // namespace

void reduce_max(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) { reduce_extreme<true>(plan, in, out); }
void reduce_min(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) { reduce_extreme<false>(plan, in, out); }
void reduce_argmax(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) { reduce_place<true>(plan, in, out); }
void reduce_argmin(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) { reduce_place<false>(plan, in, out); }
void reduce_any(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) { reduce_truth<false>(plan, in, out); }
void reduce_all(const ReduceDescriptor& plan, const Tensor* in, Tensor* out) { reduce_truth<true>(plan, in, out); }

}  // namespace ornik::device::cpu
