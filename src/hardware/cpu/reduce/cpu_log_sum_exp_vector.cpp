#include <limits>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/elementary.h"
#include "hardware/cpu/reduce/cpu_reduce_grad.h"

namespace ornik::device::cpu {

void log_sum_exp_grad(const Tensor* g, const Tensor* x, const Tensor* y, Tensor* out) {
    MultiTensorIterationHelper elements;
    for (const Tensor* input : {g, x, y}) {
        elements.add_input(input);
    }
    elements.add_output(out);
    elements.build();
    dispatch(FloatTypes{}, out->Dtype(), [&]<typename T>() {
        elements.run<TypeList<T>, TypeList<T, T, T>>([](T gradient, T value, T log_sum) {
            return gradient * elementary::exp(log_sum == -std::numeric_limits<T>::infinity() ? value : value - log_sum);
        });
    });
}

}  // namespace ornik::device::cpu
