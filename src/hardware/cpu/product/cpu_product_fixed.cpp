// cpu_product_fixed.cpp: the matrix library's own blocks, with the fixed factor packed ahead.
//
// In a product of few rows, packing the other factor costs as much as the multiplications. The library computes the
// transposed product, so that its left operand is the fixed one; the order of its sums is kept: blocks of depth one
// after the other, in groups of four rows from the first on.
#include "hardware/cpu/product/cpu_product_fixed.h"

#include <algorithm>
#include <vector>

#include "cpu_product_eigen.h"
#include "hardware/cpu/dispatch.h"

namespace ornik::device::cpu {

namespace {

using Eigen::Index;
namespace internal = Eigen::internal;  // The library's macros ask for it.

constexpr Index most_rows = 32;  // packed at once

// The smallest sum of extents that the library does not compute element by element.
constexpr std::int64_t blocked_extents = 20;

template <typename T>
class Blocks {
  public:
    Blocks(const T* b, bool transposed, Index depth, Index cols) : depth_(depth), cols_(cols), block_depth_(depth) {
        Index m = cols;
        Index n = most_rows;
        internal::computeProductBlockingSizes<T, T, 1>(block_depth_, m, n, Index{1});
        // Each block of depth begins at an aligned place.
        constexpr Index unit = EIGEN_MAX_ALIGN_BYTES / sizeof(T);
        block_step_ = (block_depth_ * cols + unit - 1) / unit * unit;
        elements_.resize(static_cast<std::size_t>(block_step_ * ((depth + block_depth_ - 1) / block_depth_)));
        if (transposed) {
            pack<Eigen::RowMajor>(b, depth);
        } else {
            pack<Eigen::ColMajor>(b, cols);
        }
    }

    // c = a B, c being free of what it held.
    void multiply(const T* a, Index rows, T* c) const {
        using Result = internal::blas_data_mapper<T, Index, Eigen::ColMajor>;
        using Right = internal::const_blas_data_mapper<T, Index, Eigen::ColMajor>;
        internal::gemm_pack_rhs<T, Index, Right, Traits::nr, Eigen::ColMajor> pack_rows;
        internal::gebp_kernel<T, T, Index, Result, Traits::mr, Traits::nr> run;
        std::fill_n(c, rows * cols_, T(0));
        ei_declare_aligned_stack_constructed_variable(T, packed_rows, block_depth_ * most_rows, nullptr);
        for (Index first = 0; first < rows; first += most_rows) {
            const Index count = std::min(most_rows, rows - first);
            const Right right(a + first * depth_, depth_);
            const Result result(c + first * cols_, cols_);
            const T* block = elements_.data();
            for (Index k = 0; k < depth_; k += block_depth_, block += block_step_) {
                const Index depth = std::min(block_depth_, depth_ - k);
                pack_rows(packed_rows, right.getSubMapper(k, 0), depth, count);
                run(result, block, packed_rows, cols_, depth, count, T(1));
            }
        }
    }

  private:
    using Traits = internal::gebp_traits<T, T>;

    template <int Order>
    void pack(const T* b, Index step) {
        using Left = internal::const_blas_data_mapper<T, Index, Order>;
        internal::gemm_pack_lhs<T, Index, Left, Traits::mr, Traits::LhsProgress, typename Traits::LhsPacket4Packing,
                                Order>
            pack_block;
        const Left left(b, step);
        T* block = elements_.data();
        for (Index k = 0; k < depth_; k += block_depth_, block += block_step_) {
            pack_block(block, left.getSubMapper(0, k), std::min(block_depth_, depth_ - k), cols_);
        }
    }

    Index depth_;
    Index cols_;
    Index block_depth_;
    Index block_step_ = 0;
    std::vector<T, Eigen::aligned_allocator<T>> elements_;
};

}  // namespace

struct FixedFactor::Packed {
    virtual ~Packed() = default;
};

namespace {

template <typename T>
struct PackedAs final : FixedFactor::Packed {
    PackedAs(const void* b, bool transposed, Index depth, Index cols)
        : blocks(static_cast<const T*>(b), transposed, depth, cols) {}
    Blocks<T> blocks;
};

}  // namespace

FixedFactor::FixedFactor(std::int64_t dtype, const void* b, bool transposed, std::int64_t depth, std::int64_t cols)
    : dtype_(dtype), b_(b), transposed_(transposed), depth_(depth), cols_(cols) {
    dispatch(FloatTypes{}, dtype,
             [&]<typename T>() { packed_ = std::make_unique<PackedAs<T>>(b, transposed, depth, cols); });
}

FixedFactor::~FixedFactor() = default;

void FixedFactor::multiply(const void* a, std::int64_t rows, std::int64_t all_rows, bool accumulate, void* c) const {
    dispatch(FloatTypes{}, dtype_, [&]<typename T>() {
        const T* left = static_cast<const T*>(a);
        T* out = static_cast<T*>(c);
        if (all_rows == 1 || cols_ == 1 || all_rows + depth_ + cols_ < blocked_extents) {
            const ProductPlan plan{1, rows, cols_, depth_, false, transposed_, accumulate};
            product_piece(plan, {0, rows, 0, cols_}, left, static_cast<const T*>(b_), out);
            return;
        }
        const Blocks<T>& blocks = static_cast<const PackedAs<T>&>(*packed_).blocks;
        if (!accumulate) {
            blocks.multiply(left, rows, out);
            return;
        }
        // The finished product is added, not each of its terms.
        ei_declare_aligned_stack_constructed_variable(T, product, most_rows * cols_, nullptr);
        for (std::int64_t first = 0; first < rows; first += most_rows) {
            const std::int64_t count = std::min<std::int64_t>(most_rows, rows - first);
            blocks.multiply(left + first * depth_, count, product);
            std::transform(product, product + count * cols_, out + first * cols_, out + first * cols_,
                           [](T x, T y) { return y + x; });
        }
    });
}

}  // namespace ornik::device::cpu
