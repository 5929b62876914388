// cpu_product.cpp: hands a product to the kernels of its dtype, those of integers in pieces of the output.
#include "hardware/cpu/product/cpu_product.h"

#include <algorithm>

#include "cpu_product_kernels.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

// A piece's least extents, and its rows where there are enough: each piece lays out all of B for itself.
constexpr std::int64_t row_unit = 32;
constexpr std::int64_t col_unit = 96;
constexpr std::int64_t piece_rows = 128;
// Multiplications that are worth a second thread.
constexpr std::int64_t grain_work = 1 << 16;

template <typename T>
void run_piece(const ProductPlan& plan, const ProductPiece& piece, const T* a, const T* b, T* c) {
    if constexpr (std::is_same_v<T, bool>) {
        bool_product_piece(plan, piece, reinterpret_cast<const unsigned char*>(a),
                           reinterpret_cast<const unsigned char*>(b), reinterpret_cast<unsigned char*>(c));
    } else {
        using Unsigned = std::make_unsigned_t<T>;
        integer_product_piece(plan, piece, reinterpret_cast<const Unsigned*>(a), reinterpret_cast<const Unsigned*>(b),
                              reinterpret_cast<Unsigned*>(c));
    }
}

template <typename T>
void run_product(const ProductPlan& plan, const T* a, const T* b, T* c) {
    const auto slice = [&](std::int64_t index, const ProductPiece& piece) {
        const auto start = [index](const ProductPlace& place, std::int64_t size) {
            return place.starts != nullptr ? place.starts[index] : index * size;
        };
        run_piece(plan, piece, a + start(plan.place_a, plan.rows * plan.depth),
                  b + start(plan.place_b, plan.depth * plan.cols), c + start(plan.place_c, plan.rows * plan.cols));
    };
    const std::int64_t work = plan.rows * plan.cols * plan.depth;
    const bool cut_slices = work >= grain_work && (plan.rows >= 2 * row_unit || plan.cols >= 2 * col_unit);
    if (!cut_slices || plan.batch >= 2 * usable_processors()) {
        const std::int64_t grain = work > 0 ? grain_work / work + 1 : plan.batch + 1;
        parallel_for(plan.batch, 1, grain, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t index = begin; index < end; ++index) {
                slice(index, {0, plan.rows, 0, plan.cols});
            }
        });
        return;
    }
    const bool by_rows = plan.rows >= 2 * row_unit;
    for (std::int64_t index = 0; index < plan.batch; ++index) {
        if (by_rows) {
            parallel_for(plan.rows, row_unit, std::min(plan.rows / 2, piece_rows),
                         [&](std::int64_t begin, std::int64_t end) {
                             slice(index, {begin, end, 0, plan.cols});
                         });
        } else {
            parallel_for(plan.cols, col_unit, 1, [&](std::int64_t begin, std::int64_t end) {
                slice(index, {0, plan.rows, begin, end});
            });
        }
    }
}

}  // namespace

void product(std::int64_t dtype, const ProductPlan& plan, const void* a, const void* b, void* c,
             const ProductEnds* ends) {
    if (plan.batch < 1 || plan.rows < 1 || plan.cols < 1) {
        return;
    }
    dispatch(AllTypes{}, dtype, [&]<typename T>() {
        const T* left = static_cast<const T*>(a);
        const T* right = static_cast<const T*>(b);
        T* out = static_cast<T*>(c);
        if constexpr (std::is_integral_v<T>) {
            run_product(plan, left, right, out);
        } else if constexpr (std::is_floating_point_v<T>) {
            float_product(plan, left, right, out, ends);
        } else {
            using Standard = std::complex<decltype(T::real)>;  // The same two parts in the same order.
            float_product(plan, reinterpret_cast<const Standard*>(left), reinterpret_cast<const Standard*>(right),
                          reinterpret_cast<Standard*>(out), ends);
        }
    });
}

}  // namespace ornik::device::cpu
