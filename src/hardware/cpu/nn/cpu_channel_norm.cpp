// Batch and group normalization. The work runs over runs: the `inner` elements of one channel of one sample.
#include <array>
#include <cmath>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/cpu_normalization.h"
#include "row_sums.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t shortest_run = 16;  // Shorter runs are worked on together, as columns.

template <typename T>
const T* data_of(const Tensor* t) {
    return t == nullptr ? nullptr : static_cast<const T*>(t->getRawData());
}

template <typename T>
T* data_of(Tensor* t) {
    return static_cast<T*>(t->getRawData());
}

std::size_t at(std::int64_t i) { return static_cast<std::size_t>(i); }

// Calls run(sample, channel) for every run, in parallel.
template <typename Run>
void for_each_run(const ChannelNorm& norm, const Run& run) {
    parallel_for(norm.samples * norm.channels, 1, grain_of_items(norm.inner), [&](auto begin, auto end) {
        for (std::int64_t i = begin; i < end; ++i) {
            run(i / norm.channels, i % norm.channels);
        }
    });
}

// The pair of statistics that a run belongs to.
std::int64_t statistic(const ChannelNorm& norm, std::int64_t sample, std::int64_t channel) {
    return norm.groups == 0 ? channel : sample * norm.groups + channel / (norm.channels / norm.groups);
}

using ChannelSums = std::vector<double>;

// For every channel the sum over its elements of term(element index, statistic index): short runs, as columns
// [channels, inner].
template <typename T, typename Term>
ChannelSums column_channel_sums(const ChannelNorm& norm, const Term& term) {
    const std::int64_t cols = norm.channels * norm.inner;
    std::vector<std::int64_t> statistic_of(at(cols));  // of the first sample
    for (std::int64_t j = 0; j < cols; ++j) {
        statistic_of[at(j)] = statistic(norm, 0, j / norm.inner);
    }
    const std::vector<double> columns = column_sums<T>(norm.samples, cols, [&](std::int64_t sample) {
        return [&term, first = sample * cols, shift = sample * norm.groups, of = statistic_of.data()](std::int64_t j) {
            return term(first + j, shift + of[j]);
        };
    });
    ChannelSums sums(at(norm.channels), 0.0);
    for (std::size_t j = 0; j < columns.size(); ++j) {
        sums[j / at(norm.inner)] += columns[j];
    }
    return sums;
}

template <typename T>
std::vector<Moments> channel_moments(const T* x, const ChannelNorm& norm) {
    std::vector<Moments> result(at(norm.channels));
    if (norm.inner < shortest_run) {
        const auto count = static_cast<double>(norm.samples * norm.inner);
        const ChannelSums sums = column_channel_sums<T>(norm, [=](auto i, auto /*channel*/) { return x[i]; });
        std::vector<T> centers(sums.size());
        std::transform(sums.begin(), sums.end(), centers.begin(), [&](double s) { return static_cast<T>(s / count); });
        const T* center = centers.data();
        const ChannelSums squares =
            column_channel_sums<T>(norm, [=](auto i, auto c) { return (x[i] - center[c]) * (x[i] - center[c]); });
        for (std::size_t c = 0; c < sums.size(); ++c) {
            result[c] = {count, sums[c] / count, squares[c]};
        }
        return result;
    }
    std::vector<Moments> runs(at(norm.samples * norm.channels));
    for_each_run(norm, [&](std::int64_t sample, std::int64_t channel) {
        const std::int64_t run = sample * norm.channels + channel;
        runs[at(run)] = row_moments(x + run * norm.inner, norm.inner);
    });
    for (std::size_t run = 0; run < runs.size(); ++run) {
        Moments& channel = result[run % at(norm.channels)];
        run < at(norm.channels) ? void(channel = runs[run]) : channel.merge(runs[run]);
    }
    return result;
}

// Coefficients of a channel, in the element type.
template <typename T, std::size_t K>
using Coefficients = std::array<T, K>;

// out[i] = element(i, coefficients of the channel) everywhere.
template <typename T, std::size_t K, typename Element>
void apply_per_channel(const ChannelNorm& norm, const std::vector<Coefficients<T, K>>& channels, const Element& element,
                       T* out) {
    if (norm.inner >= shortest_run) {
        for_each_run(norm, [&](std::int64_t sample, std::int64_t channel) {
            const std::int64_t first = (sample * norm.channels + channel) * norm.inner;
            const Coefficients<T, K> own = channels[at(channel)];
            ORNIK_INDEPENDENT_ITERATIONS
            for (std::int64_t i = first; i < first + norm.inner; ++i) {
                out[i] = element(i, own);
            }
        });
        return;
    }
    // Coefficients are laid out like the rows [channels, inner].
    const std::int64_t cols = norm.channels * norm.inner;
    std::array<std::vector<T>, K> wide;
    const T* coefficients[K];
    for (std::size_t k = 0; k < K; ++k) {
        for (std::int64_t j = 0; j < cols; ++j) {
            wide[k].push_back(channels[at(j / norm.inner)][k]);
        }
        coefficients[k] = wide[k].data();
    }
    parallel_for(norm.samples, 1, grain_of_items(cols), [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t first = begin * cols; first < end * cols; first += cols) {
            ORNIK_INDEPENDENT_ITERATIONS
            for (std::int64_t j = 0; j < cols; ++j) {
                Coefficients<T, K> own;
                for (std::size_t k = 0; k < K; ++k) {
                    own[k] = coefficients[k][j];
                }
                out[first + j] = element(first + j, own);
            }
        }
    });
}

// (x - center) scale + shift; the coefficients are center, scale, shift.
template <typename T>
auto normalized(const T* x) {
    return [x](std::int64_t i, const Coefficients<T, 3>& c) { return (x[i] - c[0]) * c[1] + c[2]; };
}

// direct g + slope (x - center) + constant, the input's gradient; the coefficients are direct, slope, center,
// constant.
template <typename T>
auto gradient_of_input(const T* x, const T* g) {
    return [x, g](std::int64_t i, const Coefficients<T, 4>& c) { return c[0] * g[i] + (c[1] * (x[i] - c[2]) + c[3]); };
}

// Its coefficients, from the sums over one set of `count` elements of gamma g, and of gamma g x^, where x^ is the
// normalized x.
template <typename T>
Coefficients<T, 4> gradient_step(double rstd, double gamma, T center, double sum, double product, double count) {
    return {static_cast<T>(gamma * rstd), static_cast<T>(-rstd * rstd * product / count), center,
            static_cast<T>(-rstd * sum / count)};
}

template <typename T>
double reciprocal_deviation(const T* variance, std::int64_t i, double eps) {
    return 1 / std::sqrt(static_cast<double>(variance[i]) + eps);
}

template <typename T>
double value_or(const T* values, std::int64_t i, double otherwise) {
    return values == nullptr ? otherwise : static_cast<double>(values[i]);
}

// What gradients are made of.
template <typename T>
struct Operands {
    explicit Operands(const NormGradient& from, double epsilon)
        : x(data_of<T>(from.input)),
          g(data_of<T>(from.gradient)),
          center(data_of<T>(from.mean)),
          variance(data_of<T>(from.variance)),
          gamma(data_of<T>(from.gamma)),
          eps(epsilon) {}

    double rstd(std::int64_t s) const { return reciprocal_deviation(variance, s, eps); }

    const T* x;
    const T* g;
    const T* center;
    const T* variance;
    const T* gamma;
    double eps;
};

// Of one run, or of one channel: the sum of g and, where it is asked for, of g x^.
using GradientSums = std::array<double, 2>;

template <typename T>
GradientSums run_sums(const Operands<T>& of, const ChannelNorm& norm, std::int64_t run, bool products) {
    const std::int64_t s = statistic(norm, run / norm.channels, run % norm.channels);
    const T* x = of.x + run * norm.inner;
    const T* g = of.g + run * norm.inner;
    if (!products) {
        return {row_sums<T>(norm.inner, [=](auto at) { return at(g); })[0], 0.0};
    }
    GradientSums sums = row_sums<T>(
        norm.inner, [=](auto at) { return at(g); },
        [=, center = of.center[s]](auto at) { return at(g) * (at(x) - center); });
    sums[1] *= of.rstd(s);
    return sums;
}

// The runs' sums of every channel.
std::vector<GradientSums> join_runs(const ChannelNorm& norm, const std::vector<GradientSums>& runs) {
    std::vector<GradientSums> sums(at(norm.channels));
    for (std::size_t run = 0; run < runs.size(); ++run) {
        sums[run % sums.size()][0] += runs[run][0];
        sums[run % sums.size()][1] += runs[run][1];
    }
    return sums;
}

template <typename T>
std::vector<GradientSums> channel_sums(const Operands<T>& of, const ChannelNorm& norm, bool products) {
    if (norm.inner >= shortest_run) {
        std::vector<GradientSums> runs(at(norm.samples * norm.channels));
        for_each_run(norm, [&](std::int64_t sample, std::int64_t channel) {
            const std::int64_t run = sample * norm.channels + channel;
            runs[at(run)] = run_sums(of, norm, run, products);
        });
        return join_runs(norm, runs);
    }
    const ChannelSums sums = column_channel_sums<T>(norm, [&](auto i, auto /*statistic*/) { return of.g[i]; });
    ChannelSums product_sums(at(norm.channels));
    if (products) {
        const std::int64_t statistics = norm.groups == 0 ? norm.channels : norm.samples * norm.groups;
        std::vector<T> rstds;
        for (std::int64_t s = 0; s < statistics; ++s) {
            rstds.push_back(static_cast<T>(of.rstd(s)));
        }
        product_sums = column_channel_sums<T>(
            norm, [&](auto i, auto s) { return of.g[i] * ((of.x[i] - of.center[s]) * rstds[at(s)]); });
    }
    std::vector<GradientSums> result(sums.size());
    for (std::size_t c = 0; c < sums.size(); ++c) {
        result[c] = {sums[c], product_sums[c]};
    }
    return result;
}

// The step of gradient_of_input for a channel of a batch normalization, given its sums.
template <typename T>
Coefficients<T, 4> channel_step(const Operands<T>& of, const ChannelNorm& norm, std::int64_t channel,
                                const GradientSums& sums) {
    const double gamma = value_or(of.gamma, channel, 1);
    return gradient_step(of.rstd(channel), gamma, of.center[channel], gamma * sums[0], gamma * sums[1],
                         static_cast<double>(norm.samples * norm.inner));
}

// The input's gradient through a batch's statistics: a channel's elements are still near when its sums are known.
// Returns the sums.
template <typename T>
std::vector<GradientSums> write_channels(const Operands<T>& of, const ChannelNorm& norm, T* out) {
    std::vector<GradientSums> all(at(norm.channels));
    const auto element = gradient_of_input(of.x, of.g);
    parallel_for(norm.channels, 1, grain_of_items(norm.samples * norm.inner), [&](auto begin, auto end) {
        for (std::int64_t channel = begin; channel < end; ++channel) {
            GradientSums& sums = all[at(channel)];
            for (std::int64_t sample = 0; sample < norm.samples; ++sample) {
                const GradientSums run = run_sums(of, norm, sample * norm.channels + channel, true);
                sums[0] += run[0];
                sums[1] += run[1];
            }
            const Coefficients<T, 4> own = channel_step(of, norm, channel, sums);
            for (std::int64_t sample = 0; sample < norm.samples; ++sample) {
                const std::int64_t first = (sample * norm.channels + channel) * norm.inner;
                ORNIK_INDEPENDENT_ITERATIONS
                for (std::int64_t i = first; i < first + norm.inner; ++i) {
                    out[i] = element(i, own);
                }
            }
        }
    });
    return all;
}

// gamma's gradients are the sums of g x^, beta's those of g.
template <typename T>
void store_parameters(const std::vector<GradientSums>& sums, Tensor* gamma, Tensor* beta) {
    for (std::size_t c = 0; c < sums.size(); ++c) {
        if (gamma != nullptr) {
            data_of<T>(gamma)[c] = static_cast<T>(sums[c][1]);
        }
        if (beta != nullptr) {
            data_of<T>(beta)[c] = static_cast<T>(sums[c][0]);
        }
    }
}

// The input's gradient in group number `group` of all samples. Keeps the sums of its runs, where `runs` has room.
template <typename T>
void write_group(const Operands<T>& of, const ChannelNorm& norm, std::int64_t group, std::vector<GradientSums>& runs,
                 T* out) {
    const std::int64_t width = norm.channels / norm.groups;
    const std::int64_t first_run = group * width;
    const auto gamma = [&](std::int64_t run) { return value_or(of.gamma, run % norm.channels, 1); };
    double sum = 0;
    double product = 0;
    for (std::int64_t run = first_run; run < first_run + width; ++run) {
        const GradientSums sums = run_sums(of, norm, run, true);
        sum += gamma(run) * sums[0];
        product += gamma(run) * sums[1];
        if (!runs.empty()) {
            runs[at(run)] = sums;
        }
    }
    const auto element = gradient_of_input(of.x, of.g);
    const auto count = static_cast<double>(width * norm.inner);
    for (std::int64_t run = first_run; run < first_run + width; ++run) {
        const auto step = gradient_step(of.rstd(group), gamma(run), of.center[group], sum, product, count);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t i = run * norm.inner; i < (run + 1) * norm.inner; ++i) {
            out[i] = element(i, step);
        }
    }
}

}  // namespace

void batch_statistics(const Tensor* input, const ChannelNorm& norm, Tensor* mean, Tensor* variance) {
    if (is_without_elements(input, {mean, variance})) {
        return;
    }
    dispatch(FloatTypes{}, input->Dtype(), [&]<typename T>() {
        const std::vector<Moments> moments = channel_moments(data_of<T>(input), norm);
        for (std::size_t c = 0; c < moments.size(); ++c) {
            data_of<T>(mean)[c] = static_cast<T>(moments[c].mean);
            data_of<T>(variance)[c] = static_cast<T>(moments[c].variance());
        }
    });
}

void update_running(const Tensor* batch, double factor, double momentum, Tensor* running) {
    // A loop of its own: it needs no memory, so that mean and variance move together or not at all.
    dispatch(FloatTypes{}, running->Dtype(), [&]<typename T>() {
        const std::int64_t step = running->Strides()[0];
        const std::int64_t batch_step = batch->Strides()[0];
        for (std::int64_t c = 0; c < running->Size(); ++c) {
            T& value = data_of<T>(running)[c * step];
            const auto from = static_cast<double>(value);
            const double to = factor * static_cast<double>(data_of<T>(batch)[c * batch_step]);
            value = from == to ? value : static_cast<T>((1 - momentum) * from + momentum * to);
        }
    });
}

void batch_norm(const Tensor* input, const ChannelNorm& norm, const Tensor* mean, const Tensor* variance,
                const Tensor* gamma, const Tensor* beta, Tensor* out) {
    if (is_without_elements(input, {})) {
        return;
    }
    dispatch(FloatTypes{}, input->Dtype(), [&]<typename T>() {
        std::vector<Coefficients<T, 3>> channels;
        for (std::int64_t c = 0; c < norm.channels; ++c) {
            const double rstd = reciprocal_deviation(data_of<T>(variance), c, norm.eps);
            channels.push_back({data_of<T>(mean)[c], static_cast<T>(rstd * value_or(data_of<T>(gamma), c, 1)),
                                static_cast<T>(value_or(data_of<T>(beta), c, 0))});
        }
        apply_per_channel(norm, channels, normalized(data_of<T>(input)), data_of<T>(out));
    });
}

void batch_norm_grads(const NormGradient& from, const ChannelNorm& norm, bool fixed_statistics, Tensor* input_gradient,
                      Tensor* gamma_gradient, Tensor* beta_gradient) {
    if (is_without_elements(from.input, {gamma_gradient, beta_gradient})) {
        return;
    }
    dispatch(FloatTypes{}, from.input->Dtype(), [&]<typename T>() {
        const Operands<T> of(from, norm.eps);
        const bool through_statistics = input_gradient != nullptr && !fixed_statistics;
        if (through_statistics && norm.inner >= shortest_run && norm.channels >= 2 * usable_processors()) {
            store_parameters<T>(write_channels(of, norm, data_of<T>(input_gradient)), gamma_gradient, beta_gradient);
            return;
        }
        std::vector<GradientSums> sums(at(norm.channels));
        if (through_statistics || gamma_gradient != nullptr || beta_gradient != nullptr) {
            sums = channel_sums(of, norm, through_statistics || gamma_gradient != nullptr);
        }
        store_parameters<T>(sums, gamma_gradient, beta_gradient);
        if (input_gradient == nullptr) {
            return;
        }
        std::vector<Coefficients<T, 4>> channels;
        for (std::int64_t c = 0; c < norm.channels; ++c) {
            channels.push_back(through_statistics
                                   ? channel_step(of, norm, c, sums[at(c)])
                                   : gradient_step(of.rstd(c), value_or(of.gamma, c, 1), of.center[c], 0, 0, 1));
        }
        apply_per_channel(norm, channels, gradient_of_input(of.x, of.g), data_of<T>(input_gradient));
    });
}

void group_norm(const Tensor* input, const ChannelNorm& norm, const Tensor* gamma, const Tensor* beta, Tensor* mean,
                Tensor* variance, Tensor* out) {
    if (is_without_elements(input, {mean, variance})) {
        return;
    }
    dispatch(FloatTypes{}, input->Dtype(), [&]<typename T>() {
        const T* x = data_of<T>(input);
        T* y = data_of<T>(out);
        const auto element = normalized(x);
        const std::int64_t width = norm.channels / norm.groups;
        const std::int64_t size = width * norm.inner;
        parallel_for(norm.samples * norm.groups, 1, grain_of_items(size), [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t group = begin; group < end; ++group) {
                const Moments moments = row_moments(x + group * size, size);
                const T center = static_cast<T>(moments.mean);
                const double rstd = 1 / std::sqrt(moments.variance() + norm.eps);
                for (std::int64_t k = 0; k < width; ++k) {
                    const std::int64_t channel = group % norm.groups * width + k;
                    const Coefficients<T, 3> step{center,
                                                  static_cast<T>(rstd * value_or(data_of<T>(gamma), channel, 1)),
                                                  static_cast<T>(value_or(data_of<T>(beta), channel, 0))};
                    const std::int64_t first = group * size + k * norm.inner;
                    ORNIK_INDEPENDENT_ITERATIONS
                    for (std::int64_t i = first; i < first + norm.inner; ++i) {
                        y[i] = element(i, step);
                    }
                }
                data_of<T>(mean)[group] = center;
                data_of<T>(variance)[group] = static_cast<T>(moments.variance());
            }
        });
    });
}

void group_norm_grads(const NormGradient& from, const ChannelNorm& norm, Tensor* input_gradient, Tensor* gamma_gradient,
                      Tensor* beta_gradient) {
    if (is_without_elements(from.input, {gamma_gradient, beta_gradient})) {
        return;
    }
    dispatch(FloatTypes{}, from.input->Dtype(), [&]<typename T>() {
        const Operands<T> of(from, norm.eps);
        const bool parameters = gamma_gradient != nullptr || beta_gradient != nullptr;
        const bool by_runs = input_gradient != nullptr && norm.inner >= shortest_run;
        std::vector<GradientSums> runs(parameters && by_runs ? at(norm.samples * norm.channels) : 0);
        if (input_gradient != nullptr) {
            const std::int64_t size = norm.channels / norm.groups * norm.inner;
            parallel_for(norm.samples * norm.groups, 1, grain_of_items(size), [&](auto begin, auto end) {
                for (std::int64_t group = begin; group < end; ++group) {
                    write_group(of, norm, group, runs, data_of<T>(input_gradient));
                }
            });
        }
        if (parameters) {
            store_parameters<T>(by_runs ? join_runs(norm, runs) : channel_sums(of, norm, gamma_gradient != nullptr),
                                gamma_gradient, beta_gradient);
        }
    });
}

}  // namespace ornik::device::cpu
