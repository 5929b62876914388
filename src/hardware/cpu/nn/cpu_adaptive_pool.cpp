#include <algorithm>

#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"
#include "hardware/cpu/nn/cpu_pool.h"
#include "hardware/parallel.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t grain = 1 << 15;  // elements worth a second thread

struct Window {
    std::int64_t begin, end;
    std::int64_t extent() const { return end - begin; }
};

Window window(const PoolAxis& axis, std::int64_t o) {
    return {o * axis.in / axis.out, ((o + 1) * axis.in + axis.out - 1) / axis.out};
}

// visit(first element of an input plane, of an output plane, ...) for the windows of all planes in order.
template <typename Plane>
void for_each_plane(const PoolPlan& plan, const Plane& visit) {
    const std::int64_t in_size = plan.rows.in * plan.cols.in;
    const std::int64_t out_size = plan.rows.out * plan.cols.out;
    parallel_for(plan.planes, 1, std::max<std::int64_t>(2, grain / in_size), [&](auto begin, auto end) {
        for (std::int64_t p = begin; p < end; ++p) {
            visit(p * in_size, p * out_size);
        }
    });
}

// visit(output's place in the plane, rows, columns)
template <typename Visit>
void for_each_window(const PoolPlan& plan, const Visit& visit) {
    for (std::int64_t y = 0, o = 0; y < plan.rows.out; ++y) {
        const Window rows = window(plan.rows, y);
        for (std::int64_t x = 0; x < plan.cols.out; ++x, ++o) {
            visit(o, rows, window(plan.cols, x));
        }
    }
}

template <typename T>
element::Coefficient<T> share_of(const Window& rows, const Window& cols) {
    using Real = element::Coefficient<T>;
    return Real(1) / static_cast<Real>(rows.extent() * cols.extent());
}

}  // namespace

void adaptive_average_pool(const Tensor* in, const PoolPlan& plan, Tensor* out) {
    dispatch(FloatOrComplexTypes{}, in->Dtype(), [&]<typename T>() {
        for_each_plane(plan, [&](std::int64_t in_first, std::int64_t out_first) {
            const T* from = static_cast<const T*>(in->getRawData()) + in_first;
            T* to = static_cast<T*>(out->getRawData()) + out_first;
            for_each_window(plan, [&](std::int64_t o, const Window& rows, const Window& cols) {
                T sum(0);
                for (std::int64_t i = rows.begin; i < rows.end; ++i) {
                    for (std::int64_t j = cols.begin; j < cols.end; ++j) {
                        sum = sum + from[i * plan.cols.in + j];
                    }
                }
                to[o] = element::scale(share_of<T>(rows, cols), sum);
            });
        });
    });
}

void adaptive_average_pool_grad(const Tensor* gradient, const PoolPlan& plan, Tensor* out) {
    dispatch(FloatOrComplexTypes{}, gradient->Dtype(), [&]<typename T>() {
        for_each_plane(plan, [&](std::int64_t in_first, std::int64_t out_first) {
            const T* from = static_cast<const T*>(gradient->getRawData()) + out_first;
            T* to = static_cast<T*>(out->getRawData()) + in_first;
            std::fill_n(to, plan.rows.in * plan.cols.in, T(0));
            for_each_window(plan, [&](std::int64_t o, const Window& rows, const Window& cols) {
                const T value = element::scale(share_of<T>(rows, cols), from[o]);
                for (std::int64_t i = rows.begin; i < rows.end; ++i) {
                    for (std::int64_t j = cols.begin; j < cols.end; ++j) {
                        to[i * plan.cols.in + j] = to[i * plan.cols.in + j] + value;
                    }
                }
            });
        });
    });
}

}  // namespace ornik::device::cpu
