#include "hardware/cpu/nn/cpu_embedding.h"

#include <algorithm>
#include <cstring>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t bytes_grain = 1 << 17;
constexpr std::int64_t line_elements = 16;  // of a table row, so that threads do not share cache lines

const std::int64_t* indices_of(const Tensor* indices) {
    return static_cast<const std::int64_t*>(indices->getRawData());
}

}  // namespace

bool indices_in_range(const Tensor* indices, std::int64_t rows) {
    const std::int64_t* index = indices_of(indices);
    return std::all_of(index, index + indices->Size(), [&](std::int64_t i) { return i >= 0 && i < rows; });
}

void take_rows(const Tensor* table, const Tensor* indices, Tensor* out) {
    const std::int64_t bytes = table->Shape()[1] * table->itemsize();
    const std::int64_t* index = indices_of(indices);
    const auto* from = static_cast<const char*>(table->getRawData());
    auto* to = static_cast<char*>(out->getRawData());
    const std::int64_t grain = std::max<std::int64_t>(2, bytes_grain / bytes);
    parallel_for(indices->Size(), 1, grain, [=](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            std::memcpy(to + i * bytes, from + index[i] * bytes, static_cast<std::size_t>(bytes));
        }
    });
}

void add_rows_at(const Tensor* rows, const Tensor* indices, Tensor* table) {
    const std::int64_t* index = indices_of(indices);
    const std::int64_t count = indices->Size();
    dispatch(FloatOrComplexTypes{}, table->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;  // A complex row is a real row of twice the length.
        const std::int64_t width = table->Shape()[1] * static_cast<std::int64_t>(sizeof(T) / sizeof(Real));
        const std::int64_t table_rows = table->Shape()[0];
        const auto* from = static_cast<const Real*>(rows->getRawData());
        auto* to = static_cast<Real*>(table->getRawData());
        const std::int64_t work = (count + table_rows) * static_cast<std::int64_t>(sizeof(Real));
        // Threads share the columns: every element of the table is added to by one of them, in order.
        parallel_for(width, line_elements, std::max<std::int64_t>(2, bytes_grain / work), [=](auto begin, auto end) {
            for (std::int64_t row = 0; row < table_rows; ++row) {
                std::fill(to + row * width + begin, to + row * width + end, Real(0));
            }
            for (std::int64_t i = 0; i < count; ++i) {
                const Real* source = from + i * width;
                Real* target = to + index[i] * width;
                ORNIK_INDEPENDENT_ITERATIONS
                for (std::int64_t j = begin; j < end; ++j) {
                    target[j] += source[j];
                }
            }
        });
    });
}

}  // namespace ornik::device::cpu
