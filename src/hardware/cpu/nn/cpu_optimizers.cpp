#include "hardware/cpu/nn/cpu_optimizers.h"

#include <array>
#include <cmath>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/elements/element_math.h"

namespace ornik::device::cpu {

namespace {

template <typename T, std::size_t>
using Same = T;

template <typename T, typename Function, std::size_t... I>
void run_elements(const MultiTensorIterationHelper& elements, const Function& step, std::index_sequence<I...> /*n*/) {
    elements.run<TypeList<Same<T, I>...>, TypeList<T, Same<T, I>...>>(step);
}

// The new value of `updated`, or std::tuple of several, is step(gradient, old values of `updated`) for every element.
template <typename T, std::size_t N, typename Function>
void update(const Tensor* grad, const std::array<Tensor*, N>& updated, const Function& step) {
    MultiTensorIterationHelper elements;
    elements.add_input(grad);
    for (Tensor* t : updated) {
        elements.add_input(t);
        elements.add_output(t);
    }
    elements.build();
    run_elements<T>(elements, step, std::make_index_sequence<N>{});
}

// The same with grad + decay param in place of grad; the parameter is the first of `updated`.
template <typename T, std::size_t N, typename Function>
void update(const Tensor* grad, const std::array<Tensor*, N>& updated, float decay, const Function& step) {
    if (decay == 0) {
        update<T>(grad, updated, step);
        return;
    }
    update<T>(grad, updated, [step, share = static_cast<T>(decay)](T g, T p, auto... states) {
        return step(g + share * p, p, states...);
    });
}

// keep old + (1 - keep) value, 1 - keep taken in single precision.
template <typename T>
auto average(float keep) {
    return [old_share = static_cast<T>(keep), new_share = static_cast<T>(1.0F - keep)](T old, T value) {
        return old_share * old + new_share * value;
    };
}

// The larger one; b when it is NaN.
template <typename T>
inline T larger(T a, T b) {
    return a >= b ? a : b;
}

}  // namespace

void sgd(Tensor* param, const Tensor* grad, float lr, Tensor* velocity, float momentum, bool nesterov) {
    dispatch(FloatOrComplexTypes{}, param->Dtype(), [&]<typename T>() {
        const auto keep = convert_element<element::Coefficient<T>>(momentum);
        const auto step = convert_element<element::Coefficient<T>>(-lr);
        const auto combine = [keep, step](T v, T g) { return element::scale<T>(keep, v) + element::scale<T>(step, g); };
        const std::array updated{param, velocity};
        if (nesterov) {
            update<T>(grad, updated, [combine](T g, T p, T v) {
                const T velocity_now = combine(v, g);
                return std::tuple{combine(velocity_now, g) + p, velocity_now};
            });
        } else {
            update<T>(grad, updated, [combine](T g, T p, T v) {
                const T velocity_now = combine(v, g);
                return std::tuple{p + velocity_now, velocity_now};
            });
        }
    });
}

void sgd_with_buffer(Tensor* param, const Tensor* grad, Tensor* buffer, const nn::SgdParameters& parameters) {
    dispatch(FloatTypes{}, param->Dtype(), [&]<typename T>() {
        const T step = static_cast<T>(-parameters.lr);
        const T keep = static_cast<T>(parameters.momentum);
        const T share = static_cast<T>(1.0F - parameters.dampening);
        const float decay = parameters.weight_decay;
        if (buffer == nullptr) {
            update<T>(grad, std::array{param}, decay, [=](T g, T p) { return step * g + p; });
            return;
        }
        const bool first = parameters.first;
        const auto buffered = [=](T g, T b) { return first ? g : keep * b + share * g; };
        if (parameters.nesterov) {
            update<T>(grad, std::array{param, buffer}, decay, [=](T g, T p, T b) {
                const T now = buffered(g, b);
                return std::tuple{step * (g + keep * now) + p, now};
            });
        } else {
            update<T>(grad, std::array{param, buffer}, decay, [=](T g, T p, T b) {
                const T now = buffered(g, b);
                return std::tuple{step * now + p, now};
            });
        }
    });
}

void rmsprop(Tensor* param, const Tensor* grad, Tensor* square_avg, Tensor* mean, Tensor* buffer,
             const nn::RmspropParameters& parameters) {
    dispatch(FloatTypes{}, param->Dtype(), [&]<typename T>() {
        const auto averaged = average<T>(parameters.alpha);
        const T step = static_cast<T>(-parameters.lr);
        const T margin = static_cast<T>(parameters.eps);
        const T keep = static_cast<T>(parameters.momentum);
        const float decay = parameters.weight_decay;
        const auto plain = [=](T g, T square) { return g / (std::sqrt(square) + margin); };
        const auto centered = [=](T g, T square, T a) { return plain(g, larger(square - a * a, T(0))); };
        if (mean == nullptr && buffer == nullptr) {
            update<T>(grad, std::array{param, square_avg}, decay, [=](T g, T p, T s) {
                const T square = averaged(s, g * g);
                return std::tuple{step * plain(g, square) + p, square};
            });
        } else if (mean == nullptr) {
            update<T>(grad, std::array{param, square_avg, buffer}, decay, [=](T g, T p, T s, T b) {
                const T square = averaged(s, g * g);
                const T now = keep * b + plain(g, square);
                return std::tuple{step * now + p, square, now};
            });
        } else if (buffer == nullptr) {
            update<T>(grad, std::array{param, square_avg, mean}, decay, [=](T g, T p, T s, T a) {
                const T square = averaged(s, g * g);
                const T centre = averaged(a, g);
                return std::tuple{step * centered(g, square, centre) + p, square, centre};
            });
        } else {
            update<T>(grad, std::array{param, square_avg, mean, buffer}, decay, [=](T g, T p, T s, T a, T b) {
                const T square = averaged(s, g * g);
                const T centre = averaged(a, g);
                const T now = keep * b + centered(g, square, centre);
                return std::tuple{step * now + p, square, centre, now};
            });
        }
    });
}

namespace {

template <typename T, bool Decays>
void adam_pass(Tensor* param, const Tensor* grad, const AdamFactors& factors, Tensor* m, Tensor* v, Tensor* vmax) {
    const auto first_average = average<T>(factors.beta1);
    const auto second_average = average<T>(factors.beta2);
    const T first = static_cast<T>(factors.first);
    const T second = static_cast<T>(factors.second);
    const T step = static_cast<T>(-factors.lr);
    const T margin = static_cast<T>(factors.eps);
    const T decay = static_cast<T>(-(factors.lr * factors.weight_decay));
    const auto moved = [=](T p, T mean, T square) {
        const T kept = Decays ? p + decay * p : p;
        return step * (first * mean / (std::sqrt(second * square) + margin)) + kept;
    };
    if (vmax == nullptr) {
        update<T>(grad, std::array{param, m, v}, factors.coupled_decay, [=](T g, T p, T old_mean, T old_square) {
            const T mean = first_average(old_mean, g);
            const T square = second_average(old_square, g * g);
            return std::tuple{moved(p, mean, square), mean, square};
        });
    } else {
        update<T>(grad, std::array{param, m, v, vmax}, factors.coupled_decay,
                  [=](T g, T p, T old_mean, T old_square, T old_largest) {
                      const T mean = first_average(old_mean, g);
                      const T square = second_average(old_square, g * g);
                      const T largest = larger(old_largest, square);
                      return std::tuple{moved(p, mean, largest), mean, square, largest};
                  });
    }
}

}  // namespace

void adam(Tensor* param, const Tensor* grad, const AdamFactors& factors, Tensor* m, Tensor* v, Tensor* vmax) {
    dispatch(FloatTypes{}, param->Dtype(), [&]<typename T>() {
        const auto pass = factors.weight_decay != 0 ? adam_pass<T, true> : adam_pass<T, false>;
        pass(param, grad, factors, m, v, vmax);
    });
}

void adamax(Tensor* param, const Tensor* grad, const AdamFactors& factors, Tensor* m, Tensor* u) {
    dispatch(FloatTypes{}, param->Dtype(), [&]<typename T>() {
        const auto averaged = average<T>(factors.beta1);
        const T keep = static_cast<T>(factors.beta2);
        const T first = static_cast<T>(factors.first);
        const T step = static_cast<T>(-factors.lr);
        const T margin = static_cast<T>(factors.eps);
        update<T>(grad, std::array{param, m, u}, factors.coupled_decay, [=](T g, T p, T old_mean, T old_norm) {
            const T mean = averaged(old_mean, g);
            const T kept = keep * old_norm;
            const T size = std::abs(g) + margin;
            const T norm = larger(kept, size);
            return std::tuple{step * (first * mean / norm) + p, mean, norm};
        });
    });
}

void adagrad(Tensor* param, const Tensor* grad, Tensor* sum, const nn::AdagradParameters& parameters) {
    dispatch(FloatTypes{}, param->Dtype(), [&]<typename T>() {
        const T step = static_cast<T>(-parameters.lr);
        const T margin = static_cast<T>(parameters.eps);
        update<T>(grad, std::array{param, sum}, parameters.weight_decay, [=](T g, T p, T old_sum) {
            const T total = old_sum + g * g;
            return std::tuple{step * (g / (std::sqrt(total) + margin)) + p, total};
        });
    });
}

void adadelta(Tensor* param, const Tensor* grad, Tensor* square_avg, Tensor* acc_delta,
              const nn::AdadeltaParameters& parameters) {
    dispatch(FloatTypes{}, param->Dtype(), [&]<typename T>() {
        const auto averaged = average<T>(parameters.rho);
        const T step = static_cast<T>(-parameters.lr);
        const T margin = static_cast<T>(parameters.eps);
        update<T>(grad, std::array{param, square_avg, acc_delta}, parameters.weight_decay,
                  [=](T g, T p, T old_square, T old_delta) {
                      const T square = averaged(old_square, g * g);
                      const T delta = std::sqrt(old_delta + margin) / std::sqrt(square + margin) * g;
                      return std::tuple{step * delta + p, square, averaged(old_delta, delta * delta)};
                  });
    });
}

}  // namespace ornik::device::cpu
