#include "descriptors/tile_transpose.h"

#if defined(__AVX__)
#include <immintrin.h>
#endif

namespace ornik {

namespace {

// Rows of a large matrix lie on different pages, which hardware prefetchers do not follow: the rows this
// far ahead are asked for by hand.
constexpr std::int64_t prefetch_rows = 16;
constexpr std::int64_t cache_line = 64;

struct Item16 {
    std::uint64_t half[2];
};

// Blocks of `block` x `block` elements, transposed in registers where there is such a form.
template <typename Item>
struct Block {
    static constexpr std::int64_t size = 8;
    static void transpose(Item* out, std::int64_t row, const char* source, std::int64_t row_step) {
        for (std::int64_t i = 0; i < size; ++i) {
            const Item* in = reinterpret_cast<const Item*>(source + i * row_step);
            for (std::int64_t j = 0; j < size; ++j) {
                out[j * row + i] = in[j];
            }
        }
    }
};

#if defined(__AVX__)
template <>
struct Block<float> {
    static constexpr std::int64_t size = 8;
    static void transpose(float* out, std::int64_t row, const char* source, std::int64_t row_step) {
        __m256 a[8];
        for (int i = 0; i < 8; ++i) {
            a[i] = _mm256_loadu_ps(reinterpret_cast<const float*>(source + i * row_step));
        }
        __m256 b[8];  // Pairs of rows, interleaved.
        for (int i = 0; i < 8; i += 2) {
            b[i] = _mm256_unpacklo_ps(a[i], a[i + 1]);
            b[i + 1] = _mm256_unpackhi_ps(a[i], a[i + 1]);
        }
        for (int half = 0; half < 8; half += 4) {  // Groups of four rows.
            a[half + 0] = _mm256_shuffle_ps(b[half], b[half + 2], 0x44);
            a[half + 1] = _mm256_shuffle_ps(b[half], b[half + 2], 0xee);
            a[half + 2] = _mm256_shuffle_ps(b[half + 1], b[half + 3], 0x44);
            a[half + 3] = _mm256_shuffle_ps(b[half + 1], b[half + 3], 0xee);
        }
        for (int j = 0; j < 4; ++j) {
            _mm256_store_ps(out + j * row, _mm256_permute2f128_ps(a[j], a[j + 4], 0x20));
            _mm256_store_ps(out + (j + 4) * row, _mm256_permute2f128_ps(a[j], a[j + 4], 0x31));
        }
    }
};

template <>
struct Block<double> {
    static constexpr std::int64_t size = 4;
    static void transpose(double* out, std::int64_t row, const char* source, std::int64_t row_step) {
        __m256d a[4];
        for (int i = 0; i < 4; ++i) {
            a[i] = _mm256_loadu_pd(reinterpret_cast<const double*>(source + i * row_step));
        }
        const __m256d low01 = _mm256_unpacklo_pd(a[0], a[1]);
        const __m256d high01 = _mm256_unpackhi_pd(a[0], a[1]);
        const __m256d low23 = _mm256_unpacklo_pd(a[2], a[3]);
        const __m256d high23 = _mm256_unpackhi_pd(a[2], a[3]);
        _mm256_store_pd(out, _mm256_permute2f128_pd(low01, low23, 0x20));
        _mm256_store_pd(out + row, _mm256_permute2f128_pd(high01, high23, 0x20));
        _mm256_store_pd(out + 2 * row, _mm256_permute2f128_pd(low01, low23, 0x31));
        _mm256_store_pd(out + 3 * row, _mm256_permute2f128_pd(high01, high23, 0x31));
    }
};
#endif

void prefetch_row([[maybe_unused]] const char* source, [[maybe_unused]] std::int64_t bytes) {
#if defined(__GNUC__)
    for (std::int64_t at = 0; at < bytes; at += cache_line) {
        __builtin_prefetch(source + at);
    }
#endif
}

template <typename Item>
void transpose(void* buffer, std::int64_t row, const char* source, std::int64_t row_step, std::int64_t n0,
               std::int64_t n1) {
    constexpr std::int64_t block = Block<Item>::size;
    constexpr auto item_size = static_cast<std::int64_t>(sizeof(Item));
    Item* out = static_cast<Item*>(buffer);
    const std::int64_t whole0 = n0 / block * block;
    const std::int64_t whole1 = n1 / block * block;
    for (std::int64_t i = 0; i < whole0; i += block) {
        for (std::int64_t ahead = i + prefetch_rows; ahead < i + prefetch_rows + block && ahead < n0; ++ahead) {
            prefetch_row(source + ahead * row_step, n1 * item_size);
        }
        for (std::int64_t j = 0; j < whole1; j += block) {
            Block<Item>::transpose(out + j * row + i, row, source + i * row_step + j * item_size, row_step);
        }
    }
    for (std::int64_t i = 0; i < n0; ++i) {
        const Item* in = reinterpret_cast<const Item*>(source + i * row_step);
        for (std::int64_t j = i < whole0 ? whole1 : 0; j < n1; ++j) {
            out[j * row + i] = in[j];
        }
    }
}

}  // namespace

void transpose_tile(void* buffer, std::int64_t row, const char* source, std::int64_t row_step, std::int64_t item_size,
                    std::int64_t n0, std::int64_t n1) {
    switch (item_size) {
        case 1:
            return transpose<std::uint8_t>(buffer, row, source, row_step, n0, n1);
        case 2:
            return transpose<std::uint16_t>(buffer, row, source, row_step, n0, n1);
        case 4:
            return transpose<float>(buffer, row, source, row_step, n0, n1);
        case 8:
            return transpose<double>(buffer, row, source, row_step, n0, n1);
        default:
            return transpose<Item16>(buffer, row, source, row_step, n0, n1);
    }
}

}  // namespace ornik
