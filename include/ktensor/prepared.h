// prepared.h: the weight of a layer in inference, laid out as the kernels read it.
//
//     PreparedWeight prepared;                                         // kept beside the weight
//     KTensor y = prepared.linear(x, weight, bias, nn::LayerEnd::relu);  // from the second call on without laying out
#pragma once

#include <memory>
#include <optional>

#include "../layers/functional/layer_end.h"
#include "convolutions.h"
#include "ktensor.h"

namespace ornik {

class Carried;
namespace nn {
class PreparedConvolution;
}

/// Keeps one weight (and bias) laid out, from the second call with the same one on: a copy of the weight's size. A
/// write to either, which their storage counts, or another weight in its place, lets it go. Calls that are recorded,
/// and weights in memory that others may write to (foreign memory, arrays that Python has made of it while they live),
/// use the weight as it is. What is written by a span or a pointer that was taken before the latest call is not
/// noticed: take it again.
///
/// Results have the bits of the operations one after the other, prepared or not. Threads may share one.
class ORNIK_API PreparedWeight {
  public:
    PreparedWeight();
    ~PreparedWeight();
    PreparedWeight(PreparedWeight&& other) noexcept;
    PreparedWeight& operator=(PreparedWeight&& other) noexcept;

    /// The end of linear(x, weight, bias) + residual; the residual, of the result's shape, may be undefined.
    [[nodiscard]] KTensor linear(const KTensor& x, const KTensor& weight, const KTensor& bias = KTensor(),
                                 nn::LayerEnd end = nn::LayerEnd::none, const KTensor& residual = KTensor());
    /// The same of a convolution.
    [[nodiscard]] KTensor convolution(const KTensor& x, const KTensor& weight, const KTensor& bias = KTensor(),
                                      const nn::ConvParameters& parameters = {}, nn::LayerEnd end = nn::LayerEnd::none,
                                      const KTensor& residual = KTensor());

    /// Whether the convolution takes images in blocks; lays its weight out at once. False for one that is not kept.
    [[nodiscard]] bool takes_blocks(const KTensor& weight, const KTensor& bias, const nn::ConvParameters& parameters);
    /// The convolution of what a part of a fused network hands on: in blocks where it takes them, and x is
    /// in blocks or what follows asks for them. Without a residual it is null.
    [[nodiscard]] Carried convolution(const Carried& x, const KTensor& weight, const KTensor& bias,
                                      const nn::ConvParameters& parameters, nn::LayerEnd end, const Carried* residual,
                                      bool asked_for_blocks);

    /// Lets go of what is kept.
    void drop();
    /// What is kept takes, in bytes.
    [[nodiscard]] std::int64_t bytes() const;

  private:
    struct State;
    struct Entry;
    template <typename Layer, typename Make>
    std::shared_ptr<const Layer> kept(Entry now, bool at_once, const Make& make);
    std::shared_ptr<const nn::PreparedConvolution> kept_at_once(const KTensor& weight, const KTensor& bias,
                                                                const nn::ConvParameters& parameters);
    template <typename Layer, typename Make, typename Plain>
    KTensor run(const KTensor& x, const KTensor& weight, const KTensor& bias, nn::LayerEnd end, const KTensor& residual,
                bool recorded, const nn::ConvParameters& parameters, const Make& make, const Plain& plain);
    std::unique_ptr<State> state_;
};

/// The activation of that name.
[[nodiscard]] ORNIK_API KTensor apply_end(const KTensor& x, nn::LayerEnd end);
/// The end that is this function.
[[nodiscard]] ORNIK_API std::optional<nn::LayerEnd> end_of(KTensor (*function)(const KTensor&));

}  // namespace ornik
