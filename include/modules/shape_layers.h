// shape_layers.h: other shapes of the same elements, and other resolutions.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "module.h"

namespace ornik {

class ORNIK_API Identity : public Module {
  public:
    KTensor forward(const KTensor& x) override { return x; }
};

/// Axes start .. end, both included, become one: by default all behind the first.
class ORNIK_API Flatten : public Module {
  public:
    explicit Flatten(int start = 1, int end = -1);
    KTensor forward(const KTensor& x) override;

  private:
    int start_;
    int end_;
};

/// One axis becomes several, whose extents multiply to its own; one of them may be -1.
class ORNIK_API Unflatten : public Module {
  public:
    Unflatten(int axis, Dims extents);
    KTensor forward(const KTensor& x) override;

  private:
    int axis_;
    Dims extents_;
};

/// [N, C r r, H, W] -> [N, C, H r, W r]
class ORNIK_API PixelShuffle : public Module {
  public:
    explicit PixelShuffle(std::int64_t factor);
    KTensor forward(const KTensor& x) override;

  private:
    std::int64_t factor_;
};

/// The reverse.
class ORNIK_API PixelUnshuffle : public Module {
  public:
    explicit PixelUnshuffle(std::int64_t factor);
    KTensor forward(const KTensor& x) override;

  private:
    std::int64_t factor_;
};

/// Images [N, C, H, W] in another resolution, given as extents or as a factor, whose products are rounded down. Modes:
/// ktensor/images.h.
class ORNIK_API Upsample : public Module {
  public:
    explicit Upsample(std::array<std::int64_t, 2> size, const std::string& mode = "nearest",
                      bool align_corners = false);
    explicit Upsample(double factor, const std::string& mode = "nearest", bool align_corners = false);
    KTensor forward(const KTensor& x) override;

  private:
    void describe();

    std::array<std::int64_t, 2> size_{0, 0};
    double factor_ = 0;
    std::string mode_;
    bool align_corners_;
};

}  // namespace ornik
