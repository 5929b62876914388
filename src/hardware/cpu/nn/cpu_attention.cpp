#include "hardware/cpu/nn/cpu_attention.h"

#include <algorithm>
#include <limits>

#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/row_exp.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t grain = 1 << 12;  // exponentials worth a second thread

template <typename Row>
void for_each_row(const Tensor* t, const Row& visit) {
    const std::int64_t n = t->Shape().back();
    if (t->Size() == 0) {
        return;
    }
    parallel_for(t->Size() / n, 1, std::max<std::int64_t>(2, grain / n), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            visit(i, n);
        }
    });
}

// Where row i begins, in elements from the first one.
std::int64_t row_offset(const Tensor* t, std::int64_t i) {
    std::int64_t offset = 0;
    for (std::size_t axis = t->Shape().size() - 1; axis-- > 0;) {
        offset += i % t->Shape()[axis] * t->Strides()[axis];
        i /= t->Shape()[axis];
    }
    return offset;
}

template <typename T>
void softmax_row(T* x, std::int64_t n) {
    const T highest = row::highest(x, n);
    if (highest == -std::numeric_limits<T>::infinity()) {
        // Nothing may be attended to, or NaN is all there is.
        std::replace(x, x + n, highest, T(0));
        return;
    }
    row::softmax(x, n, highest, x);
}

// Calls visit(row, its first entry, entries that are seen); the others become 0.
template <typename T, typename Visit>
void softmax_rows(Tensor* scores, bool causal, const Visit& visit) {
    const std::int64_t rows = causal ? scores->Shape().end()[-2] : 1;
    for_each_row(scores, [&](std::int64_t i, std::int64_t n) {
        T* x = static_cast<T*>(scores->getRawData()) + i * n;
        const std::int64_t seen = causal ? std::min(n, i % rows + 1) : n;
        visit(i, x, seen);
        softmax_row(x, seen);
        std::fill(x + seen, x + n, T(0));
    });
}

// masked(x, mask entry) is the score that the softmax sees.
template <typename T, typename M, typename Masked>
void masked_rows(Tensor* scores, bool causal, const Tensor* mask, const Masked& masked) {
    softmax_rows<T>(scores, causal, [&](std::int64_t i, T* x, std::int64_t n) {
        const M* m = static_cast<const M*>(mask->getRawData()) + row_offset(mask, i);
        const std::int64_t step = mask->Strides().back();
        for (std::int64_t j = 0; j < n; ++j) {
            x[j] = masked(x[j], m[j * step]);
        }
    });
}

}  // namespace

void attention_softmax(Tensor* scores, double scale, const Tensor* mask, bool causal) {
    dispatch(FloatTypes{}, scores->Dtype(), [&]<typename T>() {
        const T factor = static_cast<T>(scale);
        if (mask == nullptr) {
            softmax_rows<T>(scores, causal, [&](std::int64_t /*i*/, T* x, std::int64_t n) {
                std::transform(x, x + n, x, [&](T score) { return factor * score; });
            });
        } else if (mask->isBool()) {
            // As bytes: storage may hold some that are no valid bool.
            masked_rows<T, std::uint8_t>(scores, causal, mask, [&](T score, std::uint8_t seen) {
                return seen != 0 ? factor * score : -std::numeric_limits<T>::infinity();
            });
        } else {
            masked_rows<T, T>(scores, causal, mask, [&](T score, T bias) { return factor * score + bias; });
        }
    });
}

void attention_softmax_grad(const Tensor* y, Tensor* gradient, double scale) {
    dispatch(FloatTypes{}, y->Dtype(), [&]<typename T>() {
        const T factor = static_cast<T>(scale);
        for_each_row(y, [&](std::int64_t i, std::int64_t n) {
            const T* output = static_cast<const T*>(y->getRawData()) + i * n;
            T* g = static_cast<T*>(gradient->getRawData()) + i * n;
            const T sum = row::dot(output, g, n);
            for (std::int64_t j = 0; j < n; ++j) {
                g[j] = factor * output[j] * (g[j] - sum);
            }
        });
    });
}

}  // namespace ornik::device::cpu
