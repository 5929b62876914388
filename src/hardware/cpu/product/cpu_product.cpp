// cpu_product.cpp: cuts a product into pieces of its output and hands them to the workers.
//
// The bits of a result must not depend on the cut. The matrix library computes an element by one of several
// inner loops, chosen by the element's place in the register tiling and by the shape of the whole product;
// sums run in the same order as long as the cuts fall between tiles and no piece is small enough to be
// taken for a vector or a tiny product. The units below are whole numbers of tiles for every element type
// and vector width: 4 rows; 1 to 3 vectors of columns.
#include "hardware/cpu/product/cpu_product.h"

#include <algorithm>

#include "cpu_product_kernels.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t row_unit = 32;
constexpr std::int64_t col_unit = 96;
// Rows of a piece, where there are enough: each piece lays out all of B for itself.
constexpr std::int64_t piece_rows = 128;
// Multiplications that are worth a second thread.
constexpr std::int64_t grain_work = 1 << 16;

template <typename T>
void run_piece(const ProductPlan& plan, const ProductPiece& piece, const T* a, const T* b, T* c) {
    if constexpr (std::is_same_v<T, bool>) {
        bool_product_piece(plan, piece, reinterpret_cast<const unsigned char*>(a),
                           reinterpret_cast<const unsigned char*>(b), reinterpret_cast<unsigned char*>(c));
    } else if constexpr (std::is_integral_v<T>) {
        using Unsigned = std::make_unsigned_t<T>;
        integer_product_piece(plan, piece, reinterpret_cast<const Unsigned*>(a), reinterpret_cast<const Unsigned*>(b),
                              reinterpret_cast<Unsigned*>(c));
    } else if constexpr (std::is_floating_point_v<T>) {
        product_piece(plan, piece, a, b, c);
    } else {
        using Standard = std::complex<decltype(T::real)>;  // The same two parts in the same order.
        product_piece(plan, piece, reinterpret_cast<const Standard*>(a), reinterpret_cast<const Standard*>(b),
                      reinterpret_cast<Standard*>(c));
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

void product(std::int64_t dtype, const ProductPlan& plan, const void* a, const void* b, void* c) {
    if (plan.batch < 1 || plan.rows < 1 || plan.cols < 1) {
        return;
    }
    dispatch(AllTypes{}, dtype, [&]<typename T>() {
        run_product(plan, static_cast<const T*>(a), static_cast<const T*>(b), static_cast<T*>(c));
    });
}

}  // namespace ornik::device::cpu
