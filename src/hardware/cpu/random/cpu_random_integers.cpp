// cpu_random_integers.cpp: whole numbers of a range, and permutations.
#include <numeric>
#include <utility>

#include "draw_blocks.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/random/cpu_random.h"
#include "word_stream.h"

namespace ornik::device::cpu {

namespace {

using IntegerOrFloatTypes =
    TypeList<std::uint8_t, std::int8_t, std::int16_t, std::int32_t, std::int64_t, float, double>;

struct Wide {
    std::uint64_t high, low;
};

Wide multiply(std::uint64_t a, std::uint64_t b) {
    constexpr std::uint64_t mask = 0xffffffffU;
    const std::uint64_t low = (a & mask) * (b & mask);
    const std::uint64_t cross = (a >> 32) * (b & mask) + (low >> 32);
    const std::uint64_t other = (a & mask) * (b >> 32) + (cross & mask);
    return {(a >> 32) * (b >> 32) + (cross >> 32) + (other >> 32), other << 32 | (low & mask)};
}

// A number below `range`, each as likely as the others: the high half of word * range, where words that would
// favour some numbers are replaced.
std::uint64_t below(std::uint64_t word, std::uint64_t range) {
    Wide product = multiply(word, range);
    if (product.low < range) {
        const std::uint64_t surplus = (0 - range) % range;
        random::WordStream more(word);
        while (product.low < surplus) {
            product = multiply(more.next(), range);
        }
    }
    return product.high;
}

}  // namespace

void fill_integers(generator::Lease& source, Tensor* out, std::int64_t low, std::int64_t high) {
    const std::uint64_t range = static_cast<std::uint64_t>(high) - static_cast<std::uint64_t>(low);
    dispatch(IntegerOrFloatTypes{}, out->Dtype(), [&]<typename T>() {
        T* const data = static_cast<T*>(out->getRawData());
        random::draw_words(source, out->Size(),
                           [=](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
                               for (std::int64_t i = 0; i < count; ++i) {
                                   const std::uint64_t value = static_cast<std::uint64_t>(low) + below(words[i], range);
                                   data[first + i] = static_cast<T>(static_cast<std::int64_t>(value));
                               }
                           });
    });
}

void fill_permutation(generator::Lease& source, Tensor* out) {
    const std::int64_t n = out->Size();
    const std::unique_ptr<Tensor> buffer(Tensor::empty({n}, 0, dtype::int64));
    auto* const places = static_cast<std::int64_t*>(buffer->getRawData());
    random::draw_words(source, n - 1, [&](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
        for (std::int64_t i = 0; i < count; ++i) {
            // What is exchanged with the last place of the n - (first + i) that are still open.
            places[first + i] = static_cast<std::int64_t>(below(words[i], static_cast<std::uint64_t>(n - first - i)));
        }
    });
    dispatch(IntegerTypes{}, out->Dtype(), [&]<typename T>() {
        T* const data = static_cast<T*>(out->getRawData());
        std::iota(data, data + n, T(0));
        for (std::int64_t i = 0; i < n - 1; ++i) {
            std::swap(data[n - 1 - i], data[places[i]]);
        }
    });
}

}  // namespace ornik::device::cpu
