// basic_layers.h: linear maps, embeddings, dropout.
#pragma once

#include <cstdint>
#include <optional>

#include "../ktensor/prepared.h"
#include "module.h"

namespace ornik {

/// x W^T + b of x [..., in]: weight [out, in], bias [out], both uniform within 1 / sqrt(in). Outside training, calls
/// that are not recorded keep the weight laid out: ktensor/prepared.h.
class ORNIK_API Linear : public Module {
  public:
    Linear(std::int64_t in, std::int64_t out, bool bias = true);
    KTensor forward(const KTensor& x) override { return forward(x, nn::LayerEnd::none); }
    /// The end of forward(x) + residual, which may be undefined: the same bits in fewer passes.
    KTensor forward(const KTensor& x, nn::LayerEnd end, const KTensor& residual = KTensor());

    KTensor weight;
    KTensor bias;

  private:
    PreparedWeight prepared_;
};

/// Rows of a table [count, width] by index, at first normal deviates. The padding row, which may be counted from the
/// end, is 0 and gets no gradient.
class ORNIK_API Embedding : public Module {
  public:
    Embedding(std::int64_t count, std::int64_t width, std::optional<std::int64_t> padding_index = std::nullopt);
    KTensor forward(const KTensor& indices) override;

    KTensor weight;

  private:
    std::optional<std::int64_t> padding_index_;
};

/// In training: each element becomes 0 with probability p, the others are scaled by 1 / (1 - p).
class ORNIK_API Dropout : public Module {
  public:
    explicit Dropout(double p = 0.5);
    KTensor forward(const KTensor& x) override;

  private:
    double p_;
};

/// The same for whole channels of [N, C, ...].
class ORNIK_API DropoutChannels : public Module {
  public:
    explicit DropoutChannels(double p = 0.5);
    KTensor forward(const KTensor& x) override;

  private:
    double p_;
};
using Dropout1d = DropoutChannels;
using Dropout2d = DropoutChannels;

}  // namespace ornik
