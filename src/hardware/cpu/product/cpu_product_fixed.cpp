#include "hardware/cpu/product/cpu_product_fixed.h"

#include "../linear_algebra/solver_scalar.h"
#include "cpu_product_kernels.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {

struct FixedFactor::Packed {
    explicit Packed(std::int64_t size) : panels(size), bytes(size) {}
    Scratch<unsigned char> panels;
    std::int64_t bytes;
};

FixedFactor::FixedFactor(std::int64_t dtype, const void* b, bool transposed, std::int64_t depth, std::int64_t cols)
    : dtype_(dtype), depth_(depth), cols_(cols) {
    dispatch(FloatOrComplexTypes{}, dtype, [&]<typename T>() {
        using S = SolverScalar<T>;
        constexpr auto real_bytes = static_cast<std::int64_t>(sizeof(decltype(std::real(S{}))));
        packed_ = std::make_unique<Packed>(packed_factor_size<S>(depth, cols) * real_bytes);
        pack_factor(static_cast<const S*>(b), transposed, depth, cols, packed_->panels.get());
    });
}

FixedFactor::~FixedFactor() = default;

std::int64_t FixedFactor::bytes() const { return packed_->bytes; }

void FixedFactor::multiply(const void* a, std::int64_t rows, bool accumulate, void* c, const ProductEnds* ends) const {
    dispatch(FloatOrComplexTypes{}, dtype_, [&]<typename T>() {
        using S = SolverScalar<T>;
        packed_product(static_cast<const S*>(a), depth_, packed_->panels.get(), rows, cols_, depth_, accumulate,
                       static_cast<S*>(c), ends);
    });
}

}  // namespace ornik::device::cpu
