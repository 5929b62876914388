// cpu_core.cpp: fills, sequences and triangles.
#include "hardware/cpu/copy/cpu_core.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/any_scalar.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/called_functions.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

void fill(Tensor* out, const Scalar& value) {
    // The old elements are an input that the function does not look at.
    MultiTensorIterationHelper elements;
    elements.add_input(out);
    elements.add_output(out);
    elements.build();
    dispatch(AllTypes{}, out->Dtype(), [&]<typename Item>() {
        const Item item = AnyScalar(value).as<Item>();
        elements.run<TypeList<Item>, TypeList<Item>>([item](const Item&) { return item; });
    });
}

void sequence(Tensor* out, float start, float step, const float* close_at) {
    dispatch(RealTypes{}, out->Dtype(), [&]<typename T>() {
        T* items = static_cast<T*>(out->getRawData());
        const auto to_item = [](float x) {
            // Integers: toward zero for x >= 0, toward minus infinity below.
            return convert_element<T>(std::is_integral_v<T> && x < 0 ? std::floor(x) : x);
        };
        float x = start;
        for (std::int64_t i = 0; i < out->Size(); ++i) {
            items[i] = to_item(x);
            x = x + step;
        }
        if (close_at != nullptr) {
            items[out->Size() - 1] = to_item(*close_at);
        }
    });
}

void power_of(float base, const Tensor* in, Tensor* out) {
    MultiTensorIterationHelper elements;
    elements.add_input(in);
    elements.add_output(out);
    elements.build();
    dispatch(RealTypes{}, out->Dtype(), [&]<typename T>() {
        if constexpr (std::is_same_v<T, double>) {
            elements.run<TypeList<T>, TypeList<double>>(
                [base](double x) { return elementary::called::pow(double{base}, x); });
        } else {
            elements.run<TypeList<T>, TypeList<float>>([base](float x) {
                return convert_element<T>(static_cast<float>(elementary::called::pow(double{base}, double{x})));
            });
        }
    });
}

void triangle(const Tensor* in, Tensor* out, std::int64_t k, bool lower) {
    const Dims& shape = in->Shape();
    const std::int64_t rows = shape[shape.size() - 2];
    const std::int64_t cols = shape.back();
    const std::int64_t item_size = in->itemsize();
    const char* source = static_cast<const char*>(in->getRawData());
    char* target = static_cast<char*>(out->getRawData());
    const std::int64_t grain = std::max<std::int64_t>(1, (1 << 18) / (cols * item_size));
    parallel_for(in->Size() / cols, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t row = begin; row < end; ++row) {
            // The first column beyond the diagonal: [0, edge) is the lower side, or what triu drops.
            const std::int64_t diagonal = row % rows + std::clamp(k, -rows, cols);
            const std::int64_t edge = std::clamp<std::int64_t>(lower ? diagonal + 1 : diagonal, 0, cols);
            const std::int64_t keep_begin = (lower ? 0 : edge) * item_size;
            const std::int64_t keep_end = (lower ? edge : cols) * item_size;
            const std::int64_t start = row * cols * item_size;
            std::memset(target + start, 0, static_cast<std::size_t>(keep_begin));
            std::memcpy(target + start + keep_begin, source + start + keep_begin,
                        static_cast<std::size_t>(keep_end - keep_begin));
            std::memset(target + start + keep_end, 0, static_cast<std::size_t>(cols * item_size - keep_end));
        }
    });
}

void unit_diagonal(Tensor* out, std::int64_t offset) {
    const std::int64_t rows = out->Shape()[0];
    const std::int64_t cols = out->Shape()[1];
    dispatch(AllTypes{}, out->Dtype(), [&]<typename T>() {
        T* items = static_cast<T*>(out->getRawData());
        for (std::int64_t row = std::max<std::int64_t>(0, -offset); row < rows && row + offset < cols; ++row) {
            items[row * cols + row + offset] = convert_element<T>(1.0F);
        }
    });
}

}  // namespace ornik::device::cpu
