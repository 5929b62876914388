// product_tile.h: a tile of a product, whose sums stay in registers. Included by *_vector.cpp files.
//
// Every element is a chain of fused multiply-adds over the depth, in sequence, from 0 on: no width of vectors, no shape
// of tiles and no way to lay out the operands changes its bits.
#pragma once

#include <algorithm>
#include <array>
#include <complex>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "hardware/cpu/vector_chain.h"

namespace ornik::device::cpu {

using vec::fused;
using vec::lanes;
using vec::load;
using vec::Vector;

template <typename T>
struct TileShape {
    using Real = T;
    static constexpr int parts = 1;
    /// The tile takes all registers but those of a step's operands: two vectors of columns and one element.
    static constexpr int rows = vec::vector_registers == 16 ? 6 : vec::vector_bytes == 64 ? 14 : 12;
    static constexpr int vectors = 2;
    static constexpr int cols = vectors * lanes<T>;
};
template <typename R>
struct TileShape<std::complex<R>> {
    using Real = R;
    static constexpr int parts = 2;
    static constexpr int rows = 6;
    static constexpr int vectors = vec::vector_registers == 16 ? 1 : 2;
    static constexpr int cols = vectors * lanes<R>;
};
template <typename T>
using RealOf = typename TileShape<T>::Real;

/// Memory that later tiles want, brought near a little at a time: hardware does not know of it.
struct Ahead {
    const char* at[3];
    const char* end[3];
    std::int64_t lines;  // of each, at a time
    std::int64_t step = 64;

    void fetch() {
        for (int m = 0; m < 3; ++m) {
            for (std::int64_t n = 0; n < lines && at[m] < end[m]; ++n, at[m] += step) {
                vec::prefetch_near(at[m]);
            }
        }
    }
};

/// Rows of A, element (i, k) at a + i * a_row + k * a_step, and a panel of B: row k at b + k * b_step holds the real
/// parts of the columns, then the imaginary ones. Steps count elements of T in A, reals in B.
template <typename T>
struct TileOperands {
    const T* a;
    std::int64_t a_row;
    std::int64_t a_step;
    const RealOf<T>* b;
    std::int64_t b_step;
    std::int64_t depth;
    Ahead* ahead = nullptr;         // or null; a tile fetches as often as it has rows
    RealOf<T>* laid_out = nullptr;  // where a tile that Copies lays out the panel
};

/// Where the sums go, row by row, and what they are added to or begin with: the same place or another.
template <typename T>
struct TileTarget {
    T* out;
    std::int64_t out_row;
    const T* old = out;
    std::int64_t old_row = out_row;
    const T* row_bias = nullptr;  // added at last, an element for each row, or null; for real numbers
};
/// What becomes of the sums: stored, added to what is old, or begun with it.
enum class TileEnd { store, add, resume };

template <std::size_t... I, typename V>
ORNIK_EXPAND V zipped(V a, V b, std::size_t first, std::index_sequence<I...> /*lanes*/) {
#if defined(__GNUC__)
    constexpr int count = sizeof...(I);
    if (first == 0) {
        return __builtin_shufflevector(a, b, (I % 2 * count + I / 2)...);
    }
    return __builtin_shufflevector(a, b, (I % 2 * count + I / 2 + count / 2)...);
#else
    return first == 0 ? a : b;
#endif
}

template <typename V, typename R>
ORNIK_EXPAND void put_sums(const V& sums, TileEnd end, const R* old, R* out) {
    vec::store(end == TileEnd::add ? load<V>(old) + sums : sums, out);
}

/// Rows x Vectors of a tile; complex sums interleaved as std::complex. `Swapped`: A holds the
/// right factor's elements, which decides the order of a complex product's terms. `Packed`: a_row is 1, a_step Rows.
/// `Copies`: on its way the tile lays out B's rows, one after the other.
template <typename T, bool Swapped, bool Packed, int Rows, int Vectors, bool Copies = false>
[[gnu::noinline]] void sum_tile(const TileOperands<T>& in, const TileTarget<T>& to, TileEnd end) {
    using R = RealOf<T>;
    using V = Vector<R>;
    constexpr int width = lanes<R>;
    constexpr int parts = TileShape<T>::parts;
    constexpr int across = parts * Vectors;
    constexpr std::int64_t steps_ahead = 16;
    R* const out = reinterpret_cast<R*>(to.out);
    const std::int64_t out_row = to.out_row * parts;
    const R* const old = reinterpret_cast<const R*>(to.old);
    const std::int64_t old_row = to.old_row * parts;
    vec::run_chains<R>([&](auto way) ORNIK_EXPANDED {
        using Way = decltype(way);
        typename Way::Sum sums[Rows][across];
        if (parts == 1 && end == TileEnd::resume) {
            ORNIK_UNROLLED for (int i = 0; i < Rows; ++i) {
                ORNIK_UNROLLED for (int v = 0; v < across; ++v) {
                    sums[i][v] = way.from(load<V>(old + i * old_row + v * width));
                }
            }
        } else {
            ORNIK_UNROLLED for (int i = 0; i < Rows; ++i) {
                ORNIK_UNROLLED for (int v = 0; v < across; ++v) { sums[i][v] = way.from(V{}); }
            }
        }
        // Three rows share an address.
        constexpr int groups = Packed ? 1 : (Rows + 2) / 3;
        const char* a[groups];
        const std::int64_t row = in.a_row * static_cast<std::int64_t>(sizeof(T));
        const std::int64_t step = in.a_step * static_cast<std::int64_t>(sizeof(T));
        ORNIK_UNROLLED for (int g = 0; g < groups; ++g) { a[g] = reinterpret_cast<const char*>(in.a) + 3 * g * row; }
        const R* b = in.b;
        [[maybe_unused]] R* laid_out = in.laid_out;
        // Panels go on where hardware looks no further: on the next page. Streams of a few steps it knows better.
        const std::int64_t ahead = in.depth > steps_ahead ? steps_ahead * in.b_step : 0;
        // The places of the sums come near one row after the other: all at once they would hold up the operands.
        const std::int64_t stretch = in.depth / (Rows + Rows / 2) + 1;
        std::int64_t left = in.depth;
        for (int row_ahead = end == TileEnd::resume ? Rows : 0; left > 0; ++row_ahead) {
            std::int64_t steps = left;
            if (row_ahead < Rows) {
                steps = std::min(stretch, left);
                vec::prefetch_for_writing(out + row_ahead * out_row);
                vec::prefetch_for_writing(out + row_ahead * out_row + across * width - 1);
                if (in.ahead != nullptr) {
                    in.ahead->fetch();
                }
            }
            left -= steps;
            for (; steps > 0; --steps) {
                typename Way::Factor x[across];
                ORNIK_UNROLLED for (std::size_t at = 0; at < sizeof(V[across]); at += 64) {
                    vec::prefetch(reinterpret_cast<const char*>(b + ahead) + at);
                }
                ORNIK_UNROLLED for (int v = 0; v < across; ++v) {
                    const V reals = load<V>(b + v * width);
                    x[v] = way.factor(reals);
                    if constexpr (Copies) {
                        vec::store(reals, laid_out + v * width);
                    }
                }
                if constexpr (Copies) {
                    laid_out += across * width;
                }
                ORNIK_UNROLLED for (int i = 0; i < Rows; ++i) {
                    const R* y = reinterpret_cast<const R*>(Packed ? a[0] + i * static_cast<std::int64_t>(sizeof(T))
                                                                   : a[i / 3 % groups] + i % 3 * row);
                    const auto re = way.weight(y[0]);
                    if constexpr (parts == 1) {
                        ORNIK_UNROLLED for (int v = 0; v < Vectors; ++v) { way.add(re, x[v], sums[i][v]); }
                    } else {
                        const auto im = way.weight(y[1]);
                        ORNIK_UNROLLED for (int v = 0; v < Vectors; ++v) {
                            const auto& x_re = x[v];
                            const auto& x_im = x[Vectors + v];
                            way.add(re, x_re, sums[i][v]);
                            way.subtract(im, x_im, sums[i][v]);
                            way.add(Swapped ? im : re, Swapped ? x_re : x_im, sums[i][Vectors + v]);
                            way.add(Swapped ? re : im, Swapped ? x_im : x_re, sums[i][Vectors + v]);
                        }
                    }
                }
                ORNIK_UNROLLED for (int g = 0; g < groups; ++g) { a[g] += Packed ? Rows * sizeof(T) : step; }
                b += in.b_step;
            }
        }
        if (!way.vouches_for(sums)) {
            return false;
        }
        if constexpr (parts == 2) {
            constexpr std::make_index_sequence<static_cast<std::size_t>(width)> every{};
            ORNIK_UNROLLED for (int i = 0; i < Rows; ++i) {
                R* at = out + i * out_row;
                const R* from = old + i * old_row;
                ORNIK_UNROLLED for (int v = 0; v < Vectors; ++v) {
                    const V re = way.value(sums[i][v]);
                    const V im = way.value(sums[i][Vectors + v]);
                    put_sums(zipped(re, im, 0, every), end, from + 2 * v * width, at + 2 * v * width);
                    put_sums(zipped(re, im, 1, every), end, from + (2 * v + 1) * width, at + (2 * v + 1) * width);
                }
            }
        } else {
            // What becomes of the sums is asked once, not for each of them.
            V whole[Rows][Vectors];
            ORNIK_UNROLLED for (int i = 0; i < Rows; ++i) {
                ORNIK_UNROLLED for (int v = 0; v < Vectors; ++v) { whole[i][v] = way.value(sums[i][v]); }
            }
            if (end == TileEnd::add) {
                ORNIK_UNROLLED for (int i = 0; i < Rows; ++i) {
                    ORNIK_UNROLLED for (int v = 0; v < Vectors; ++v) {
                        whole[i][v] = load<V>(old + i * old_row + v * width) + whole[i][v];
                    }
                }
            }
            if (to.row_bias != nullptr) {
                ORNIK_UNROLLED for (int i = 0; i < Rows; ++i) {
                    ORNIK_UNROLLED for (int v = 0; v < Vectors; ++v) { whole[i][v] = whole[i][v] + to.row_bias[i]; }
                }
            }
            ORNIK_UNROLLED for (int i = 0; i < Rows; ++i) {
                ORNIK_UNROLLED for (int v = 0; v < Vectors; ++v) {
                    vec::store(whole[i][v], out + i * out_row + v * width);
                }
            }
        }
        return true;
    });
}

template <typename T>
using SumTile = void (*)(const TileOperands<T>& in, const TileTarget<T>& to, TileEnd end);

/// sum_tile of `rows` rows and of one vector or all.
template <typename T, bool Swapped, bool Packed>
SumTile<T> tile_function(std::int64_t rows, std::int64_t vectors) {
    using Shape = TileShape<T>;
    constexpr bool swapped = Swapped && Shape::parts == 2;  // Products of reals are the same.
    constexpr auto functions = []<int... I>(std::integer_sequence<int, I...> /*heights*/) {
        return std::array<std::array<SumTile<T>, sizeof...(I)>, 2>{
            {{sum_tile<T, swapped, Packed, I + 1, 1>...}, {sum_tile<T, swapped, Packed, I + 1, Shape::vectors>...}}};
    }
    (std::make_integer_sequence<int, Shape::rows>{});
    return functions[vectors == 1 ? 0 : 1][static_cast<std::size_t>(rows - 1)];
}

/// sum_tile of `rows` rows, more than half of what a tile can have, and a whole panel of real numbers, which it lays
/// out.
template <typename T, bool Packed>
SumTile<T> copying_tile_function(std::int64_t rows) {
    using Shape = TileShape<T>;
    constexpr auto functions = []<int... I>(std::integer_sequence<int, I...> /*heights*/) {
        return std::array<SumTile<T>, sizeof...(I)>{
            sum_tile<T, false, Packed, std::max(I, Shape::rows / 2) + 1, Shape::vectors, true>...};
    }
    (std::make_integer_sequence<int, Shape::rows>{});
    return functions[static_cast<std::size_t>(rows - 1)];
}

}  // namespace ornik::device::cpu
