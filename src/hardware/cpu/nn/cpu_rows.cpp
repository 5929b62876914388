#include "hardware/cpu/nn/cpu_rows.h"

#include <algorithm>
#include <vector>

#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/element_math.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t sum_chunk = 128;      // rows
constexpr std::int64_t sum_grain = 1 << 16;  // additions worth a second thread

template <typename T>
void add_rows(const T* in, std::int64_t begin, std::int64_t end, std::int64_t cols, T* sum) {
    std::fill_n(sum, cols, T(0));
    for (std::int64_t i = begin; i < end; ++i) {
        const T* row = in + i * cols;
        for (std::int64_t j = 0; j < cols; ++j) {
            sum[j] += row[j];
        }
    }
}

template <typename T>
void sum_real_rows(const T* in, std::int64_t rows, std::int64_t cols, T* out) {
    const std::int64_t chunks = (rows + sum_chunk - 1) / sum_chunk;
    std::vector<T> partial(static_cast<std::size_t>(chunks * cols));
    const std::int64_t grain = std::max<std::int64_t>(2, sum_grain / (sum_chunk * cols));
    parallel_for(chunks, 1, grain, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t chunk = begin; chunk < end; ++chunk) {
            add_rows(in, chunk * sum_chunk, std::min(rows, (chunk + 1) * sum_chunk), cols,
                     partial.data() + chunk * cols);
        }
    });
    add_rows(partial.data(), 0, chunks, cols, out);
}

}  // namespace

void sum_rows(const Tensor* in, Tensor* out) {
    const std::int64_t rows = in->Shape()[0];
    const std::int64_t cols = in->Shape()[1];
    dispatch(FloatOrComplexTypes{}, in->Dtype(), [&]<typename T>() {
        using Real = element::Coefficient<T>;  // A complex row is a real row of twice the length.
        sum_real_rows(static_cast<const Real*>(in->getRawData()), rows,
                      cols * static_cast<std::int64_t>(sizeof(T) / sizeof(Real)),
                      static_cast<Real*>(out->getRawData()));
    });
}

}  // namespace ornik::device::cpu
