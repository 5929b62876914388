// pooling_layers.h: pools of [N, C, L] and [N, C, H, W]. Padding counts as zeros in averages.
#pragma once

#include <array>
#include <cstdint>

#include "../ktensor/convolutions.h"
#include "module.h"

namespace ornik {

namespace detail {

class ORNIK_API Pool : public Module {
  public:
    [[nodiscard]] const nn::PoolParameters& pool_parameters() const { return parameters_; }

  protected:
    Pool(const char* name, int axes, const nn::PoolParameters& parameters);
    nn::PoolParameters parameters_;
};

/// Windows of `kernel`, by default side by side; or, as PoolParameters, others for rows and columns.
template <int axes, KTensor (*function)(const KTensor&, const nn::PoolParameters&)>
class PoolOf : public Pool {
  public:
    KTensor forward(const KTensor& x) override { return function(x, parameters_); }

  protected:
    PoolOf(const char* name, const nn::PoolParameters& parameters) : Pool(name, axes, parameters) {}
    PoolOf(const char* name, std::int64_t kernel, std::int64_t stride, std::int64_t padding)
        : Pool(name, axes, {{kernel, kernel}, {stride, stride}, {padding, padding}}) {}
};

}  // namespace detail

class MaxPool1d : public detail::PoolOf<1, max_pool> {
  public:
    explicit MaxPool1d(std::int64_t kernel) : MaxPool1d(kernel, kernel) {}
    MaxPool1d(std::int64_t kernel, std::int64_t stride, std::int64_t padding = 0)
        : PoolOf("MaxPool1d", kernel, stride, padding) {}
};

class MaxPool2d : public detail::PoolOf<2, max_pool> {
  public:
    explicit MaxPool2d(std::int64_t kernel) : MaxPool2d(kernel, kernel) {}
    MaxPool2d(std::int64_t kernel, std::int64_t stride, std::int64_t padding = 0)
        : PoolOf("MaxPool2d", kernel, stride, padding) {}
    explicit MaxPool2d(const nn::PoolParameters& parameters) : PoolOf("MaxPool2d", parameters) {}
};

class AvgPool1d : public detail::PoolOf<1, average_pool> {
  public:
    explicit AvgPool1d(std::int64_t kernel) : AvgPool1d(kernel, kernel) {}
    AvgPool1d(std::int64_t kernel, std::int64_t stride, std::int64_t padding = 0)
        : PoolOf("AvgPool1d", kernel, stride, padding) {}
};

class AvgPool2d : public detail::PoolOf<2, average_pool> {
  public:
    explicit AvgPool2d(std::int64_t kernel) : AvgPool2d(kernel, kernel) {}
    AvgPool2d(std::int64_t kernel, std::int64_t stride, std::int64_t padding = 0)
        : PoolOf("AvgPool2d", kernel, stride, padding) {}
    explicit AvgPool2d(const nn::PoolParameters& parameters) : PoolOf("AvgPool2d", parameters) {}
};

/// As many windows as asked for, each from the floor of its share to the ceiling.
class ORNIK_API AdaptiveAvgPool1d : public Module {
  public:
    explicit AdaptiveAvgPool1d(std::int64_t output);
    KTensor forward(const KTensor& x) override { return adaptive_average_pool(x, {output_, 1}); }

  private:
    std::int64_t output_;
};

class ORNIK_API AdaptiveMaxPool1d : public Module {
  public:
    explicit AdaptiveMaxPool1d(std::int64_t output);
    KTensor forward(const KTensor& x) override { return adaptive_max_pool(x, {output_, 1}); }

  private:
    std::int64_t output_;
};

class ORNIK_API AdaptiveAvgPool2d : public Module {
  public:
    explicit AdaptiveAvgPool2d(std::array<std::int64_t, 2> output);
    explicit AdaptiveAvgPool2d(std::int64_t output) : AdaptiveAvgPool2d(std::array{output, output}) {}
    [[nodiscard]] const std::array<std::int64_t, 2>& output() const { return output_; }
    KTensor forward(const KTensor& x) override { return adaptive_average_pool(x, output_); }

  private:
    std::array<std::int64_t, 2> output_;
};

class ORNIK_API AdaptiveMaxPool2d : public Module {
  public:
    explicit AdaptiveMaxPool2d(std::array<std::int64_t, 2> output);
    explicit AdaptiveMaxPool2d(std::int64_t output) : AdaptiveMaxPool2d(std::array{output, output}) {}
    KTensor forward(const KTensor& x) override { return adaptive_max_pool(x, output_); }

  private:
    std::array<std::int64_t, 2> output_;
};

}  // namespace ornik
