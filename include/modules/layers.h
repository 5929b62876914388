// layers.h: the layers of networks as modules. Parameter names, layouts and first values as in the large frameworks.
#pragma once

#include <array>
#include <optional>
#include <string>

#include "../ktensor/activations.h"
#include "../ktensor/convolutions.h"
#include "../ktensor/elements.h"
#include "../ktensor/reductions.h"
#include "../ktensor/shapes.h"
#include "module.h"

namespace ornik {

/// x W^T + b: weight [out, in], bias [out], both uniform within 1 / sqrt(in).
class ORNIK_API Linear : public Module {
  public:
    Linear(std::int64_t in, std::int64_t out, bool bias = true);
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;
};

struct ConvOptions {
    std::array<std::int64_t, 2> stride{1, 1};
    std::array<std::int64_t, 2> padding{0, 0};
    std::array<std::int64_t, 2> dilation{1, 1};
    std::int64_t groups = 1;
    bool bias = true;
    std::array<std::int64_t, 2> output_padding{0, 0};  ///< of transposed convolutions
};

/// [N, in, H, W] -> [N, out, H', W']; weight [out, in / groups, kernel...], bias [out], both uniform within
/// 1 / sqrt(in / groups * kernel elements).
class ORNIK_API Conv2d : public Module {
  public:
    Conv2d(std::int64_t in, std::int64_t out, std::array<std::int64_t, 2> kernel, const ConvOptions& options = {});
    Conv2d(std::int64_t in, std::int64_t out, std::int64_t kernel, const ConvOptions& options = {})
        : Conv2d(in, out, std::array<std::int64_t, 2>{kernel, kernel}, options) {}
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;

  private:
    nn::ConvParameters parameters_;
};

/// [N, in, L] -> [N, out, L']; as Conv2d. Only the first of each option counts.
class ORNIK_API Conv1d : public Module {
  public:
    Conv1d(std::int64_t in, std::int64_t out, std::int64_t kernel, const ConvOptions& options = {});
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;

  private:
    nn::ConvParameters parameters_;
};

/// Weight [in, out / groups, kernel...], bias [out], both uniform within 1 / sqrt(out / groups * kernel elements).
class ORNIK_API ConvTranspose2d : public Module {
  public:
    ConvTranspose2d(std::int64_t in, std::int64_t out, std::array<std::int64_t, 2> kernel,
                    const ConvOptions& options = {});
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;

  private:
    nn::ConvParameters parameters_;
};

struct BatchNormOptions {
    double eps = 1e-5;
    std::optional<double> momentum = 0.1;  ///< none: the cumulative average
    bool affine = true;
    bool track_running_stats = true;
};

/// Of [N, C, ...]: weight 1 and bias 0 [C]; buffers running_mean 0 and running_var 1 [C], num_batches_tracked.
class ORNIK_API BatchNorm : public Module {
  public:
    explicit BatchNorm(std::int64_t channels, const BatchNormOptions& options = {});
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;
    KTensor running_mean;
    KTensor running_var;
    KTensor num_batches_tracked;

  private:
    BatchNormOptions options_;
};
using BatchNorm1d = BatchNorm;
using BatchNorm2d = BatchNorm;

/// Weight 1 and bias 0 of the normalized shape.
class ORNIK_API LayerNorm : public Module {
  public:
    explicit LayerNorm(Dims normalized_shape, double eps = 1e-5, bool affine = true);
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;

  private:
    Dims shape_;
    double eps_;
};

class ORNIK_API GroupNorm : public Module {
  public:
    GroupNorm(std::int64_t groups, std::int64_t channels, double eps = 1e-5, bool affine = true);
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;

  private:
    std::int64_t groups_;
    double eps_;
};

/// Rows of a table [count, width] by index, at first normal deviates, the padding row 0.
class ORNIK_API Embedding : public Module {
  public:
    Embedding(std::int64_t count, std::int64_t width, std::optional<std::int64_t> padding_index = std::nullopt);
    KTensor forward(const KTensor& indices) override;

    KTensor weight;

  private:
    std::optional<std::int64_t> padding_index_;
};

class ORNIK_API Dropout : public Module {
  public:
    explicit Dropout(double p = 0.5);
    KTensor forward(const KTensor& x) override { return dropout(x, p_, is_training()); }

  private:
    double p_;
};

class MaxPool2d : public Module {
  public:
    explicit MaxPool2d(std::int64_t kernel) : MaxPool2d(kernel, kernel) {}
    MaxPool2d(std::int64_t kernel, std::int64_t stride, std::int64_t padding = 0)
        : parameters_{{kernel, kernel}, {stride, stride}, {padding, padding}} {}
    KTensor forward(const KTensor& x) override { return max_pool(x, parameters_); }

  private:
    nn::PoolParameters parameters_;
};

class AvgPool2d : public Module {
  public:
    explicit AvgPool2d(std::int64_t kernel) : AvgPool2d(kernel, kernel) {}
    AvgPool2d(std::int64_t kernel, std::int64_t stride, std::int64_t padding = 0)
        : parameters_{{kernel, kernel}, {stride, stride}, {padding, padding}} {}
    KTensor forward(const KTensor& x) override { return average_pool(x, parameters_); }

  private:
    nn::PoolParameters parameters_;
};

class AdaptiveAvgPool2d : public Module {
  public:
    explicit AdaptiveAvgPool2d(std::array<std::int64_t, 2> output) : output_(output) {}
    KTensor forward(const KTensor& x) override { return adaptive_average_pool(x, output_); }

  private:
    std::array<std::int64_t, 2> output_;
};

/// Axes from the second on become one.
class Flatten : public Module {
  public:
    KTensor forward(const KTensor& x) override { return flatten(x, 1); }
};

/// A function without parameters as a module.
template <KTensor (*function)(const KTensor&)>
class FunctionModule : public Module {
  public:
    KTensor forward(const KTensor& x) override { return function(x); }
};
using ReLU = FunctionModule<relu>;
using GELU = FunctionModule<gelu>;
using SiLU = FunctionModule<silu>;
using SELU = FunctionModule<selu>;
using Mish = FunctionModule<mish>;
using Hardswish = FunctionModule<hardswish>;
using Hardsigmoid = FunctionModule<hardsigmoid>;
using Softplus = FunctionModule<softplus>;
using Sigmoid = FunctionModule<sigmoid>;
using LogSigmoid = FunctionModule<logsigmoid>;
using Tanh = FunctionModule<static_cast<KTensor (*)(const KTensor&)>(tanh)>;

class LeakyReLU : public Module {
  public:
    explicit LeakyReLU(float slope = 0.01F) : slope_(slope) {}
    KTensor forward(const KTensor& x) override { return leaky_relu(x, slope_); }

  private:
    float slope_;
};

class ELU : public Module {
  public:
    explicit ELU(float alpha = 1) : alpha_(alpha) {}
    KTensor forward(const KTensor& x) override { return elu(x, alpha_); }

  private:
    float alpha_;
};

class Softmax : public Module {
  public:
    explicit Softmax(int axis = -1) : axis_(axis) {}
    KTensor forward(const KTensor& x) override { return softmax(x, axis_); }

  private:
    int axis_;
};

/// Modules one after the other, named "0", "1", ...
class Sequential : public Module {
  public:
    template <typename... Modules>
    explicit Sequential(Modules&&... modules) {
        (append(std::move(modules)), ...);
    }
    template <typename M>
    void append(M&& module) {
        auto shared = std::make_shared<std::remove_cvref_t<M>>(std::move(module));
        add_part(std::to_string(steps_.size()), shared);
        steps_.push_back(std::move(shared));
    }
    KTensor forward(const KTensor& x) override {
        KTensor result = x;
        for (const std::shared_ptr<Module>& step : steps_) {
            result = step->forward(result);
        }
        return result;
    }

  private:
    std::vector<std::shared_ptr<Module>> steps_;
};

}  // namespace ornik
