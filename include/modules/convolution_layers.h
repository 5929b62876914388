// convolution_layers.h: convolutions along one axis and two.
#pragma once

#include <array>
#include <cstdint>

#include "../ktensor/convolutions.h"
#include "../ktensor/prepared.h"
#include "module.h"

namespace ornik {

/// Entries are for rows and columns; layers along one axis look at the first alone.
struct ConvOptions {
    std::array<std::int64_t, 2> stride{1, 1};
    std::array<std::int64_t, 2> padding{0, 0};  ///< zeros on both sides
    std::array<std::int64_t, 2> dilation{1, 1};
    std::int64_t groups = 1;
    bool bias = true;
    std::array<std::int64_t, 2> output_padding{0, 0};  ///< of transposed convolutions
    bool same = false;  ///< the padding that keeps the extents, for stride 1; not for transposed convolutions
};

namespace detail {

/// What all of them share: weight and bias, uniform within 1 / sqrt(elements of weight[0]). Outside training, calls
/// that are not recorded keep the weight laid out: ktensor/prepared.h.
class ORNIK_API Convolution : public Module {
  public:
    KTensor forward(const KTensor& x) override { return forward(x, nn::LayerEnd::none); }
    /// The end of forward(x) + residual, which may be undefined: the same bits in fewer passes.
    KTensor forward(const KTensor& x, nn::LayerEnd end, const KTensor& residual = KTensor());
    [[nodiscard]] const nn::ConvParameters& conv_parameters() const { return parameters_; }

    KTensor weight;
    KTensor bias;

  protected:
    Convolution(const char* name, std::int64_t in, std::int64_t out, const Dims& kernel, const ConvOptions& options,
                bool transposed);

  private:
    nn::ConvParameters parameters_;
    PreparedWeight prepared_;
};

}  // namespace detail

/// [N, in, L] -> [N, out, L']; weight [out, in / groups, kernel], bias [out].
class ORNIK_API Conv1d : public detail::Convolution {
  public:
    Conv1d(std::int64_t in, std::int64_t out, std::int64_t kernel, const ConvOptions& options = {})
        : Convolution("Conv1d", in, out, {kernel}, options, false) {}
};

/// [N, in, H, W] -> [N, out, H', W']; weight [out, in / groups, rows, columns], bias [out].
class ORNIK_API Conv2d : public detail::Convolution {
  public:
    Conv2d(std::int64_t in, std::int64_t out, std::array<std::int64_t, 2> kernel, const ConvOptions& options = {})
        : Convolution("Conv2d", in, out, {kernel[0], kernel[1]}, options, false) {}
    Conv2d(std::int64_t in, std::int64_t out, std::int64_t kernel, const ConvOptions& options = {})
        : Convolution("Conv2d", in, out, {kernel, kernel}, options, false) {}
};

/// Weight [in, out / groups, kernel], bias [out].
class ORNIK_API ConvTranspose1d : public detail::Convolution {
  public:
    ConvTranspose1d(std::int64_t in, std::int64_t out, std::int64_t kernel, const ConvOptions& options = {})
        : Convolution("ConvTranspose1d", in, out, {kernel}, options, true) {}
};

/// Weight [in, out / groups, rows, columns], bias [out].
class ORNIK_API ConvTranspose2d : public detail::Convolution {
  public:
    ConvTranspose2d(std::int64_t in, std::int64_t out, std::array<std::int64_t, 2> kernel,
                    const ConvOptions& options = {})
        : Convolution("ConvTranspose2d", in, out, {kernel[0], kernel[1]}, options, true) {}
    ConvTranspose2d(std::int64_t in, std::int64_t out, std::int64_t kernel, const ConvOptions& options = {})
        : Convolution("ConvTranspose2d", in, out, {kernel, kernel}, options, true) {}
};

}  // namespace ornik
