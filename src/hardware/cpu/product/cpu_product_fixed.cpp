#include "hardware/cpu/product/cpu_product_fixed.h"

#include "cpu_product_kernels.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {

struct FixedFactor::Packed {
    explicit Packed(std::int64_t bytes) : panels(bytes) {}
    Scratch<unsigned char> panels;
};

FixedFactor::FixedFactor(std::int64_t dtype, const void* b, bool transposed, std::int64_t depth, std::int64_t cols)
    : dtype_(dtype), depth_(depth), cols_(cols) {
    dispatch(FloatTypes{}, dtype, [&]<typename T>() {
        packed_ = std::make_unique<Packed>(packed_factor_size<T>(depth, cols) * static_cast<std::int64_t>(sizeof(T)));
        pack_factor(static_cast<const T*>(b), transposed, depth, cols, packed_->panels.get());
    });
}

FixedFactor::~FixedFactor() = default;

void FixedFactor::multiply(const void* a, std::int64_t rows, bool accumulate, void* c) const {
    dispatch(FloatTypes{}, dtype_, [&]<typename T>() {
        packed_product(static_cast<const T*>(a), packed_->panels.get(), rows, cols_, depth_, accumulate,
                       static_cast<T*>(c));
    });
}

}  // namespace ornik::device::cpu
