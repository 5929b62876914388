// module.h: layers of the library with the parameters they use, put together by hand.
//
// The library's layers compute; they own no parameters and record no graph. A Module adds what a training program
// needs: it owns its parameters, keeps the input of its latest forward pass, and turns the gradient of its output
// into that of its input, leaving the parameters' gradients beside them.
#pragma once

#include <ornik.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

using TensorPtr = std::shared_ptr<ornik::Tensor>;

/// A tensor that training changes.
struct Parameter {
    TensorPtr value;
    TensorPtr gradient;              // of the latest backward pass
    std::vector<TensorPtr> state{};  // what the optimizer keeps
};

class Module {
  public:
    virtual ~Module() = default;
    virtual TensorPtr forward(const TensorPtr& input, bool training) = 0;
    /// The gradient of the latest input from that of the output. Writes the parameters' gradients.
    virtual TensorPtr backward(const TensorPtr& output_gradient) = 0;
    virtual std::vector<Parameter*> parameters() { return {}; }
};

/// Modules one after the other.
class Sequential : public Module {
  public:
    explicit Sequential(std::vector<std::unique_ptr<Module>> modules) : modules_(std::move(modules)) {}
    TensorPtr forward(const TensorPtr& input, bool training) override;
    TensorPtr backward(const TensorPtr& output_gradient) override;
    std::vector<Parameter*> parameters() override;

  private:
    std::vector<std::unique_ptr<Module>> modules_;
};

/// A layer that takes (weight, bias, input): dense or convolution.
class Weighted : public Module {
  public:
    /// The first module of a network can do without the gradient of its input: null is passed on then.
    Weighted(ornik::Layer* layer, TensorPtr weight, TensorPtr bias, bool needs_input_gradient = true);
    TensorPtr forward(const TensorPtr& input, bool training) override;
    TensorPtr backward(const TensorPtr& output_gradient) override;
    std::vector<Parameter*> parameters() override;

  private:
    std::unique_ptr<ornik::Layer> layer_;
    Parameter weight_;
    Parameter bias_;
    bool needs_input_gradient_;
    TensorPtr input_;
};

/// A normalization with a factor and a summand for each of `size` channels or features.
class Normalization : public Module {
  public:
    TensorPtr forward(const TensorPtr& input, bool training) override;
    TensorPtr backward(const TensorPtr& output_gradient) override;
    std::vector<Parameter*> parameters() override { return {&gamma_, &beta_}; }

  protected:
    Normalization(ornik::Layer* layer, std::int64_t size);
    /// Those of the input, gamma and beta.
    virtual std::array<ornik::Tensor*, 3> gradients(ornik::Tensor* output_gradient) = 0;
    /// `Norm` is the class of the layer.
    template <typename Norm>
    std::array<ornik::Tensor*, 3> all_gradients(ornik::Tensor* output_gradient);

    std::unique_ptr<ornik::Layer> layer_;
    Parameter gamma_;
    Parameter beta_;
    TensorPtr running_mean_;  // of batch normalization, else null
    TensorPtr running_variance_;
    TensorPtr input_;
};

/// Batch normalization of [N, channels, ...].
class BatchNormalization : public Normalization {
  public:
    explicit BatchNormalization(std::int64_t channels);

  private:
    std::array<ornik::Tensor*, 3> gradients(ornik::Tensor* output_gradient) override;
};

/// Layer normalization of the last axis, [..., width].
class LayerNormalization : public Normalization {
  public:
    explicit LayerNormalization(std::int64_t width);

  private:
    std::array<ornik::Tensor*, 3> gradients(ornik::Tensor* output_gradient) override;
};

/// An activation by name.
class Activation : public Module {
  public:
    explicit Activation(const std::string& name);
    TensorPtr forward(const TensorPtr& input, bool training) override;
    TensorPtr backward(const TensorPtr& output_gradient) override;

  private:
    std::unique_ptr<ornik::Layer> layer_;
    TensorPtr input_;
    TensorPtr output_;
};

/// The largest of every 2 x 2 pixels of [N, channels, rows, cols].
class MaxPool : public Module {
  public:
    MaxPool();
    TensorPtr forward(const TensorPtr& input, bool training) override;
    TensorPtr backward(const TensorPtr& output_gradient) override;

  private:
    std::unique_ptr<ornik::Layer> layer_;
    TensorPtr input_;
};

/// [N, ...] as [N, features]: a view.
class Flatten : public Module {
  public:
    TensorPtr forward(const TensorPtr& input, bool training) override;
    TensorPtr backward(const TensorPtr& output_gradient) override;

  private:
    ornik::Dims shape_;
};
