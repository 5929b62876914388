// activation_layers.h: activations as modules; formulas: ktensor/activations.h, elements.h and reductions.h.
#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "../ktensor/activations.h"
#include "../ktensor/elements.h"
#include "module.h"

namespace ornik {

namespace detail {

/// A text as an argument of a template.
template <std::size_t size>
struct Label {
    constexpr Label(const char (&characters)[size]) { std::copy_n(characters, size, text.begin()); }  // NOLINT
    std::array<char, size> text{};
};

/// The end of that name.
ORNIK_API std::optional<nn::LayerEnd> end_named(std::string_view name);

}  // namespace detail

/// A function without parameters as a module.
template <detail::Label name, KTensor (*function)(const KTensor&)>
class FunctionModule : public Module {
  public:
    KTensor forward(const KTensor& x) override { return function(x); }
    std::optional<nn::LayerEnd> as_end() const override { return detail::end_named(name.text.data()); }

  protected:
    std::string type_name() const override { return name.text.data(); }
};
using ReLU = FunctionModule<"ReLU", relu>;
using ReLU6 = FunctionModule<"ReLU6", relu6>;
using SiLU = FunctionModule<"SiLU", silu>;
using SELU = FunctionModule<"SELU", selu>;
using Mish = FunctionModule<"Mish", mish>;
using Hardswish = FunctionModule<"Hardswish", hardswish>;
using Hardsigmoid = FunctionModule<"Hardsigmoid", hardsigmoid>;
using Sigmoid = FunctionModule<"Sigmoid", static_cast<KTensor (*)(const KTensor&)>(sigmoid)>;
using LogSigmoid = FunctionModule<"LogSigmoid", logsigmoid>;
using Tanh = FunctionModule<"Tanh", static_cast<KTensor (*)(const KTensor&)>(tanh)>;

/// x Phi(x), or its approximation x (1 + tanh(sqrt(2 / pi) (x + 0.044715 x^3))) / 2.
class ORNIK_API GELU : public Module {
  public:
    explicit GELU(bool by_tanh = false);
    KTensor forward(const KTensor& x) override;
    std::optional<nn::LayerEnd> as_end() const override;

  private:
    bool by_tanh_;
};

/// log(1 + exp(beta x)) / beta
class ORNIK_API Softplus : public Module {
  public:
    explicit Softplus(double beta = 1);
    KTensor forward(const KTensor& x) override;

  private:
    double beta_;
};

class ORNIK_API LeakyReLU : public Module {
  public:
    explicit LeakyReLU(float slope = 0.01F);
    KTensor forward(const KTensor& x) override { return leaky_relu(x, slope_); }

  private:
    float slope_;
};

/// x above 0, weight x else: one weight, or one for each channel of [N, C, ...].
class ORNIK_API PReLU : public Module {
  public:
    explicit PReLU(std::int64_t channels = 1, double first = 0.25);
    KTensor forward(const KTensor& x) override;

    KTensor weight;
};

class ORNIK_API ELU : public Module {
  public:
    explicit ELU(float alpha = 1);
    KTensor forward(const KTensor& x) override { return elu(x, alpha_); }

  private:
    float alpha_;
};

class ORNIK_API Hardtanh : public Module {
  public:
    explicit Hardtanh(double low = -1, double high = 1);
    KTensor forward(const KTensor& x) override { return hardtanh(x, low_, high_); }

  private:
    double low_;
    double high_;
};

class ORNIK_API Softmax : public Module {
  public:
    explicit Softmax(int axis = -1);
    KTensor forward(const KTensor& x) override;

  private:
    int axis_;
};

class ORNIK_API LogSoftmax : public Module {
  public:
    explicit LogSoftmax(int axis = -1);
    KTensor forward(const KTensor& x) override;

  private:
    int axis_;
};

}  // namespace ornik
