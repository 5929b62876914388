// cpu_random_fill.cpp: normal, uniform and binary fills.
#include <cmath>

#include "draw_blocks.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/cpu/random/cpu_random.h"
#include "random_math.h"

namespace ornik::device::cpu {

namespace {

using namespace random;

constexpr std::uint64_t low_half = 0xffffffffU;

// Elements per word of a part type.
template <typename T>
constexpr std::int64_t per_word = sizeof(T) == 4 ? 2 : 1;

template <typename T>
constexpr std::int64_t words_for(std::int64_t parts) {
    return (parts + per_word<T> - 1) / per_word<T>;
}

// Pairs of standard normal deviates by the formulas of Box and Muller, scaled: sqrt(-2 log u) times cosine (even
// places) and sine (odd places) of an angle. u comes from 31 or 53 bits and is never 0; the angle is a second
// number of bits as a share of a turn, less an eighth of a turn, so that the rest behind the quadrant is centred.
void normal_pairs(const std::uint64_t* words, std::int64_t pairs, float* out, float deviation, float even_mean,
                  float odd_mean) {
    for (std::int64_t i = 0; i < pairs; ++i) {
        const auto first = static_cast<std::uint32_t>(words[i]);
        const auto second = static_cast<std::uint32_t>(words[i] >> 32);
        const float u = (static_cast<float>(static_cast<std::int32_t>(first >> 1)) + 0.5F) * 0x1p-31F;
        const float f = static_cast<float>(static_cast<std::int32_t>((second << 2) ^ 0x80000000U)) * 0x1p-32F;
        const float radius = std::sqrt(-2 * log_positive(u));
        const SineCosine<float> angle = sine_cosine(second >> 30, f);
        out[2 * i] = radius * angle.cosine * deviation + even_mean;
        out[2 * i + 1] = radius * angle.sine * deviation + odd_mean;
    }
}

void normal_pairs(const std::uint64_t* words, std::int64_t pairs, double* out, double deviation, double even_mean,
                  double odd_mean) {
    for (std::int64_t i = 0; i < pairs; ++i) {
        const double u = (to_double(words[2 * i] >> 11) + 0.5) * unit53;
        const std::uint64_t second = words[2 * i + 1];
        const double f = to_double((second << 2) >> 11) * unit53 - 0.5;
        const double radius = std::sqrt(-2 * log_positive(u));
        const SineCosine<double> angle = sine_cosine(second >> 62, f);
        out[2 * i] = radius * angle.cosine * deviation + even_mean;
        out[2 * i + 1] = radius * angle.sine * deviation + odd_mean;
    }
}

template <typename T>
void normal_parts(generator::Lease& source, T* out, std::int64_t parts, T deviation, T even_mean, T odd_mean,
                  bool use_cached) {
    if (parts == 0) {
        return;
    }
    if (const auto cached = use_cached ? source.take_cached() : std::nullopt) {
        *out++ = static_cast<T>(*cached) * deviation + even_mean;
        --parts;
        std::swap(even_mean, odd_mean);
    }
    constexpr std::int64_t pair_words = 2 / per_word<T>;
    T last[2];
    draw_words(source, (parts + 1) / 2 * pair_words,
               [&](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
                   const std::int64_t place = first * per_word<T>;
                   const std::int64_t pairs = std::min(count / pair_words, (parts - place) / 2);
                   normal_pairs(words, pairs, out + place, deviation, even_mean, odd_mean);
                   if (pairs < count / pair_words) {
                       normal_pairs(words + pairs * pair_words, 1, last, T(1), T(0), T(0));
                   }
               });
    if (parts % 2 == 1) {
        out[parts - 1] = last[0] * deviation + even_mean;
        if (use_cached) {
            source.keep_cached(static_cast<double>(last[1]));
        }
    }
}

// low + u span, below the excluded end; u is made of 24 or 53 bits.
void uniform_parts(const std::uint64_t* words, std::int64_t parts, float* out, float low, float span, float top) {
    const auto scaled = [=](std::uint32_t bits) {
        const float x = low + static_cast<float>(static_cast<std::int32_t>(bits >> 8)) * 0x1p-24F * span;
        return x < top ? x : top;
    };
    for (std::int64_t i = 0; i < parts / 2; ++i) {
        out[2 * i] = scaled(static_cast<std::uint32_t>(words[i]));
        out[2 * i + 1] = scaled(static_cast<std::uint32_t>(words[i] >> 32));
    }
    if (parts % 2 == 1) {
        out[parts - 1] = scaled(static_cast<std::uint32_t>(words[parts / 2]));
    }
}

void uniform_parts(const std::uint64_t* words, std::int64_t parts, double* out, double low, double span, double top) {
    for (std::int64_t i = 0; i < parts; ++i) {
        const double x = low + to_double(words[i] >> 11) * unit53 * span;
        out[i] = x < top ? x : top;
    }
}

// `yes` with the given probability, else `no`; the words taken are those of an element with parts of this type.
template <typename Part, typename T>
void binary(generator::Lease& source, Tensor* out, double probability, T no, T yes) {
    constexpr std::int64_t per = per_word<Part>;
    // Of the 32 or 53 bits that decide, seen as a whole number.
    const auto limit = static_cast<std::uint64_t>(std::nearbyint(probability * (per == 2 ? 0x1p32 : 0x1p53)));
    T* const data = static_cast<T*>(out->getRawData());
    const std::int64_t size = out->Size();
    draw_words(source, words_for<Part>(size), [=](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
        const T values[2] = {no, yes};
        const std::int64_t place = first * per;
        const std::int64_t items = std::min(count * per, size - place);
        for (std::int64_t i = 0; i < items; ++i) {
            const std::uint64_t bits = per == 2 ? (words[i / 2] >> (i % 2 * 32)) & low_half : words[i] >> 11;
            data[place + i] = values[bits < limit ? 1 : 0];
        }
    });
}

// Real numbers that make up a tensor of T.
template <typename T>
std::int64_t part_count(const Tensor* t) {
    return t->Size() * static_cast<std::int64_t>(sizeof(T) / sizeof(element::Coefficient<T>));
}

}  // namespace

void fill_normal(generator::Lease& source, Tensor* out, double mean, double deviation, bool use_cached) {
    dispatch(FloatOrComplexTypes{}, out->Dtype(), [&]<typename T>() {
        using Part = element::Coefficient<T>;
        normal_parts(source, static_cast<Part*>(out->getRawData()), part_count<T>(out), static_cast<Part>(deviation),
                     static_cast<Part>(mean), is_complex_element<T> ? Part(0) : static_cast<Part>(mean), use_cached);
    });
}

void fill_uniform(generator::Lease& source, Tensor* out, double low, double high) {
    dispatch(FloatOrComplexTypes{}, out->Dtype(), [&]<typename T>() {
        using Part = element::Coefficient<T>;
        const auto begin = static_cast<Part>(low);
        const auto end = static_cast<Part>(high);
        // Rounding may carry the sum up to the excluded end.
        const Part top = begin < end ? std::nextafter(end, begin) : begin;
        auto* const data = static_cast<Part*>(out->getRawData());
        const std::int64_t parts = part_count<T>(out);
        draw_words(source, words_for<Part>(parts),
                   [=](const std::uint64_t* words, std::int64_t first, std::int64_t count) {
                       const std::int64_t place = first * per_word<Part>;
                       uniform_parts(words, std::min(count * per_word<Part>, parts - place), data + place, begin,
                                     end - begin, top);
                   });
    });
}

void fill_binary(generator::Lease& source, Tensor* out, double probability, double value) {
    dispatch(FloatOrComplexTypes{}, out->Dtype(), [&]<typename T>() {
        using Part = element::Coefficient<T>;
        binary<Part>(source, out, probability, T(0), T(static_cast<Part>(value)));
    });
}

void fill_kept(generator::Lease& source, Tensor* out, std::int64_t dtype, double probability) {
    dispatch(FloatOrComplexTypes{}, dtype,
             [&]<typename T>() { binary<element::Coefficient<T>>(source, out, probability, false, true); });
}

}  // namespace ornik::device::cpu
