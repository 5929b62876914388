// normalization_layers.h: normalizations. Of weight and bias, where they are, the first values are 1 and 0.
#pragma once

#include <cstdint>
#include <optional>

#include "module.h"

namespace ornik {

struct BatchNormOptions {
    double eps = 1e-5;
    std::optional<double> momentum = 0.1;  ///< none: the cumulative average
    bool affine = true;
    bool track_running_stats = true;
};

/// Of [N, C, ...]: weight and bias [C]; buffers running_mean 0 and running_var 1 [C], num_batches_tracked.
class ORNIK_API BatchNorm : public Module {
  public:
    explicit BatchNorm(std::int64_t channels, const BatchNormOptions& options = {});
    [[nodiscard]] const BatchNormOptions& options() const { return options_; }
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

/// Over the last axes: weight and bias of the normalized shape.
class ORNIK_API LayerNorm : public Module {
  public:
    explicit LayerNorm(Dims normalized_shape, double eps = 1e-5, bool affine = true, bool bias = true);
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;

  private:
    Dims shape_;
    double eps_;
};

/// x / sqrt(mean(x^2) + eps) over the last axes (Zhang and Sennrich, 2019); weight of their shape. Without eps, the
/// distance from 1 to the next number of x's dtype. Has second derivatives.
class ORNIK_API RMSNorm : public Module {
  public:
    explicit RMSNorm(Dims normalized_shape, std::optional<double> eps = std::nullopt, bool affine = true);
    KTensor forward(const KTensor& x) override;

    KTensor weight;

  private:
    Dims shape_;
    std::optional<double> eps_;
};

/// Weight and bias [channels].
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

/// Each channel of each sample by itself: weight and bias [channels].
class ORNIK_API InstanceNorm : public Module {
  public:
    explicit InstanceNorm(std::int64_t channels, double eps = 1e-5, bool affine = false);
    KTensor forward(const KTensor& x) override;

    KTensor weight;
    KTensor bias;

  private:
    std::int64_t channels_;
    double eps_;
};
using InstanceNorm1d = InstanceNorm;
using InstanceNorm2d = InstanceNorm;

}  // namespace ornik
