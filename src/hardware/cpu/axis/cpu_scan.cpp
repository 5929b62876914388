// cpu_scan.cpp: running sums and products.
//
// A running sum goes by stretches of a fixed size: each is summed up by itself, several at a time, and then
// shifted by what came before it. Long runs are shared among threads: totals of all stretches first, then the
// shifts, then the sums. Both roads do the same operations and give the same bits.
#include "hardware/cpu/axis/cpu_scan.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "../reduce/cpu_reduce_walk.h"
#include "cpu_axis_runs.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t stretch = 512;
constexpr std::int64_t together = 4;  // Stretches of a block: their additions overlap in the pipeline.
constexpr std::int64_t block_items = stretch * together;
constexpr std::int64_t long_run = 1 << 16;

// What sums run in, and what their type is.
template <typename T>
struct WideOf {
    using type = std::conditional_t<std::is_integral_v<T>, std::int64_t, double>;
};
template <typename P>
struct WideOf<complex_scalar::complex<P>> {
    using type = complex_scalar::complex<double>;
};
template <typename T>
using Wide = typename WideOf<T>::type;
template <typename T>
using Result = std::conditional_t<std::is_integral_v<T>, std::int64_t, T>;

template <typename T>
Wide<T> widen(Stored<T> item) {
    if constexpr (std::is_same_v<T, bool>) {
        return item != 0 ? 1 : 0;
    } else {
        return convert_element<Wide<T>>(item);
    }
}

// The sum of all stretches so far. What a floating addition rounds off is kept and added to the next use.
template <typename W>
class Carry {
  public:
    W value() const {
        if constexpr (std::is_same_v<W, std::int64_t>) {
            return sum_;
        } else if constexpr (is_complex_element<W>) {
            return {rounded(sum_.real, lost_.real), rounded(sum_.imag, lost_.imag)};
        } else {
            return rounded(sum_, lost_);
        }
    }

    void add(W total) {
        if constexpr (std::is_same_v<W, std::int64_t>) {
            sum_ = element::add(sum_, total);
        } else if constexpr (is_complex_element<W>) {
            add(sum_.real, lost_.real, total.real);
            add(sum_.imag, lost_.imag, total.imag);
        } else {
            add(sum_, lost_, total);
        }
    }

  private:
    static double rounded(double sum, double lost) { return std::isfinite(sum) ? sum + lost : sum; }
    static void add(double& sum, double& lost, double total) {
        const double next = sum + total;
        const double moved = next - sum;
        lost += (sum - (next - moved)) + (total - moved);
        sum = next;
    }

    W sum_{};
    W lost_{};
};

template <typename W>
using Totals = std::array<W, together>;

// The running sums of each stretch of a block by itself; returns the totals. `sums` may be null.
template <typename T>
Totals<Wide<T>> scan_block(const Stored<T>* in, std::int64_t n, Wide<T>* sums) {
    using W = Wide<T>;
    Totals<W> total{};
    const auto step = [&](std::int64_t s, std::int64_t at) {
        auto& sum = total[static_cast<std::size_t>(s)];
        sum = element::add(sum, widen<T>(in[at]));
        if (sums != nullptr) {
            sums[at] = sum;
        }
    };
    if (n == block_items) {
        for (std::int64_t i = 0; i < stretch; ++i) {
            for (std::int64_t s = 0; s < together; ++s) {
                step(s, s * stretch + i);
            }
        }
    } else {
        for (std::int64_t i = 0; i < n; ++i) {
            step(i / stretch, i);
        }
    }
    return total;
}

template <typename T>
void finish_block(const Stored<T>* in, std::int64_t n, Carry<Wide<T>>& carry, Result<T>* out) {
    Wide<T> sums[block_items];
    const Totals<Wide<T>> totals = scan_block<T>(in, n, sums);
    for (std::int64_t s = 0; s * stretch < n; ++s) {
        const Wide<T> shift = carry.value();
        for (std::int64_t i = s * stretch; i < std::min(n, (s + 1) * stretch); ++i) {
            out[i] = convert_element<Result<T>>(element::add(shift, sums[i]));
        }
        carry.add(totals[static_cast<std::size_t>(s)]);
    }
}

template <typename T>
void scan_run(const Stored<T>* in, std::int64_t n, Result<T>* out) {
    Carry<Wide<T>> carry;
    for (std::int64_t begin = 0; begin < n; begin += block_items) {
        finish_block<T>(in + begin, std::min(block_items, n - begin), carry, out + begin);
    }
}

template <typename T>
void scan_long_run(const Stored<T>* in, std::int64_t n, Result<T>* out) {
    const std::int64_t blocks = reduce_detail::parts(n, block_items);
    const auto size = [&](std::int64_t block) { return std::min(block_items, n - block * block_items); };
    std::vector<Totals<Wide<T>>> totals(static_cast<std::size_t>(blocks));
    parallel_for(blocks, 1, 2, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t block = begin; block < end; ++block) {
            totals[static_cast<std::size_t>(block)] = scan_block<T>(in + block * block_items, size(block), nullptr);
        }
    });
    std::vector<Carry<Wide<T>>> carries(static_cast<std::size_t>(blocks));
    for (std::size_t block = 1; block < carries.size(); ++block) {
        carries[block] = carries[block - 1];
        for (const Wide<T>& total : totals[block - 1]) {
            carries[block].add(total);
        }
    }
    parallel_for(blocks, 1, 2, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t block = begin; block < end; ++block) {
            finish_block<T>(in + block * block_items, size(block), carries[static_cast<std::size_t>(block)],
                            out + block * block_items);
        }
    });
}

template <typename T>
T conjugate(T value) {
    if constexpr (is_complex_element<T>) {
        return conj(value);
    } else {
        return value;
    }
}

// out[i] = conj(x[0] .. x[i - 1]) (g[i] + conj(x[i + 1]) (g[i + 1] + ...)): no division, so zeros are no case.
template <typename T>
void cumprod_grad_run(const T* x, const T* g, T* out, std::int64_t n) {
    T tail = T(0);
    for (std::int64_t i = n; i-- > 0;) {
        tail = i + 1 < n ? g[i] + conjugate(x[i + 1]) * tail : g[i];
        out[i] = tail;
    }
    T before = T(1);
    for (std::int64_t i = 0; i < n; ++i) {
        out[i] = conjugate(before) * out[i];
        before = before * x[i];
    }
}

template <typename T>
void prod_grad_run(const T* x, T g, T* out, std::int64_t n) {
    T before = T(1);
    for (std::int64_t i = 0; i < n; ++i) {
        out[i] = before;
        before = before * x[i];
    }
    T behind = T(1);
    for (std::int64_t i = n; i-- > 0;) {
        out[i] = g * conjugate(out[i] * behind);
        behind = behind * x[i];
    }
}

AxisRuns runs_of(std::initializer_list<const Tensor*> inputs, Tensor* out, int axis) {
    AxisRuns runs(axis);
    for (const Tensor* input : inputs) {
        runs.add_input(input);
    }
    runs.add_output(out);
    return runs;
}

}  // namespace

void cumsum(const Tensor* in, Tensor* out, int axis) {
    const std::int64_t n = in->Shape()[static_cast<std::size_t>(axis)];
    const AxisRuns runs = runs_of({in}, out, axis);
    dispatch(AllTypes{}, in->Dtype(), [&]<typename T>() {
        // Threads share runs where there are several, and one long run otherwise.
        if (n >= long_run && n == in->Size()) {
            runs.for_each(1,
                          [&](char* const* run) { scan_long_run<T>(as<Stored<T>>(run[0]), n, as<Result<T>>(run[1])); });
        } else {
            runs.for_each(1, [&](char* const* run) { scan_run<T>(as<Stored<T>>(run[0]), n, as<Result<T>>(run[1])); });
        }
    });
}

void cumprod(const Tensor* in, Tensor* out, int axis) {
    const std::int64_t n = in->Shape()[static_cast<std::size_t>(axis)];
    const AxisRuns runs = runs_of({in}, out, axis);
    dispatch(AllTypes{}, in->Dtype(), [&]<typename T>() {
        runs.for_each(1, [&](char* const* run) {
            Wide<T> product = convert_element<Wide<T>>(1.0F);
            for (std::int64_t i = 0; i < n; ++i) {
                product = element::mult(product, widen<T>(as<Stored<T>>(run[0])[i]));
                as<Result<T>>(run[1])[i] = convert_element<Result<T>>(product);
            }
        });
    });
}

void cumprod_grad(const Tensor* x, const Tensor* g, Tensor* out, int axis) {
    const std::int64_t n = x->Shape()[static_cast<std::size_t>(axis)];
    const AxisRuns runs = runs_of({x, g}, out, axis);
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() {
        runs.for_each(
            2, [&](char* const* run) { cumprod_grad_run(as<const T>(run[0]), as<const T>(run[1]), as<T>(run[2]), n); });
    });
}

void prod_grad(const Tensor* x, const Tensor* g, Tensor* out, int axis) {
    const std::int64_t n = x->Shape()[static_cast<std::size_t>(axis)];
    const AxisRuns runs = runs_of({x, g}, out, axis);
    dispatch(FloatOrComplexTypes{}, x->Dtype(), [&]<typename T>() {
        runs.for_each(
            1, [&](char* const* run) { prod_grad_run(as<const T>(run[0]), *as<const T>(run[1]), as<T>(run[2]), n); });
    });
}

}  // namespace ornik::device::cpu
