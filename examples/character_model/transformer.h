// transformer.h: a small character-level transformer: embedding, blocks of causal self-attention and a dense pair, a
// dense map to scores.
#pragma once

#include "training/module.h"

struct TransformerSize {
    std::int64_t vocabulary = 0;
    std::int64_t context = 64;  // characters seen at once
    std::int64_t width = 64;
    int heads = 4;
    int blocks = 2;
};

class Transformer {
  public:
    explicit Transformer(const TransformerSize& size);

    /// Scores of the next character, [batch, n, vocabulary], from int64 characters [batch, n], n <= context.
    TensorPtr forward(const TensorPtr& characters, bool training);
    /// Writes the gradients of all parameters.
    void backward(const TensorPtr& score_gradient);
    std::vector<Parameter*> parameters();

  private:
    std::unique_ptr<ornik::Layer> embedding_;
    Parameter characters_;
    Parameter positions_;  // [context, width]
    std::unique_ptr<Sequential> blocks_;
    TensorPtr input_;
};
