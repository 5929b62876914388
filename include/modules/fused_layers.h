// fused_layers.h: what fuse() makes of networks. Internal; for bindings, which take it apart and put it together again.
//
// Between parts that take them, images go in blocks (layers/functional/blocked_image.h); they become planes where a
// part does not, and where the network ends.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "../ktensor/carried.h"
#include "../ktensor/prepared.h"
#include "containers.h"
#include "module.h"
#include "normalization_layers.h"

namespace ornik::detail {

/// A part of a fused network.
class ORNIK_API FusedPart {
  public:
    virtual ~FusedPart();
    /// Its result is in blocks only where what follows asks for them, or x is in blocks.
    virtual Carried pass(const Carried& x, bool asked_for_blocks) = 0;
    /// Does it gain by images in blocks? Parts that are asked before they pass lay their weights out.
    virtual bool takes_blocks() = 0;
    /// May images that come together pass one by one, on threads of their own? Not where something is recorded.
    virtual bool takes_images_apart() = 0;
};

/// A convolution or linear map with a normalization folded in and an end.
class ORNIK_API FusedLayer : public Module, public FusedPart {
  public:
    struct Parts {
        std::string kind;  ///< for texts
        KTensor weight;
        KTensor bias;
        std::optional<nn::ConvParameters> convolution;
        bool is_normalized = false;
        nn::LayerEnd end = nn::LayerEnd::none;
    };
    /// Open: it may take more. Tensors are those given, without their pasts.
    explicit FusedLayer(Parts parts);
    [[nodiscard]] const Parts& made_of() const { return parts_; }

    /// False where the layer has an end already, or another number of channels.
    bool take(const BatchNorm& norm);
    bool take(nn::LayerEnd end);
    [[nodiscard]] bool has_end() const { return parts_.end != nn::LayerEnd::none; }
    /// Nothing is taken any more.
    void close();

    KTensor forward(const KTensor& x) override { return pass(Carried(x), false).tensor(); }
    Carried pass(const Carried& x, bool asked_for_blocks) override { return pass(x, nullptr, asked_for_blocks); }
    /// The end of forward(x) + residual, which may be null.
    Carried pass(const Carried& x, const Carried* residual, bool asked_for_blocks);
    bool takes_blocks() override;
    bool takes_images_apart() override;

  protected:
    std::string type_name() const override { return "Fused"; }

  private:
    [[nodiscard]] std::int64_t outputs() const;

    Parts parts_;
    PreparedWeight prepared_;
};

/// MaxPool2d, AvgPool2d, or AdaptiveAvgPool2d of one window.
class ORNIK_API FusedPool : public Module, public FusedPart {
  public:
    /// Null for other modules, and for classes derived from these.
    static std::shared_ptr<FusedPool> of(const std::shared_ptr<Module>& module);

    [[nodiscard]] const std::shared_ptr<Module>& plain() const { return plain_; }
    KTensor forward(const KTensor& x) override { return plain_->forward(x); }
    Carried pass(const Carried& x, bool asked_for_blocks) override;
    bool takes_blocks() override { return true; }
    bool takes_images_apart() override { return true; }

  protected:
    std::string type_name() const override { return plain_->kind(); }

  private:
    using Blocked = Carried (*)(const nn::BlockedImage& x, const nn::PoolParameters& parameters);
    FusedPool(std::shared_ptr<Module> plain, Blocked blocked, const nn::PoolParameters& parameters);

    std::shared_ptr<Module> plain_;
    Blocked blocked_;
    nn::PoolParameters parameters_;
};

/// Parts in a row. Where there are images for all threads, each takes its own through those that allow it.
class ORNIK_API FusedChain : public Sequential, public FusedPart {
  public:
    KTensor forward(const KTensor& x) override { return pass(Carried(x), false).tensor(); }
    Carried pass(const Carried& x, bool asked_for_blocks) override;
    bool takes_blocks() override;
    bool takes_images_apart() override;

  protected:
    std::string type_name() const override { return "Sequential"; }

  private:
    Carried pass(std::size_t begin, std::size_t end, const Carried& x, bool asked_for_blocks);
    std::optional<KTensor> pass_apart(std::size_t begin, std::size_t end, const KTensor& images);
};

/// end(last(first(x)) + shortcut(x)); the sum, and the end where the layer has it, inside the last layer. First,
/// shortcut and activation may be null.
class ORNIK_API FusedResidual : public Module, public FusedPart {
  public:
    FusedResidual(std::shared_ptr<Module> first, std::shared_ptr<FusedLayer> last, std::shared_ptr<Module> shortcut,
                  std::shared_ptr<Module> activation);
    [[nodiscard]] const FusedLayer& last() const { return *last_; }

    KTensor forward(const KTensor& x) override { return pass(Carried(x), false).tensor(); }
    /// With `added` in the shortcut's place.
    KTensor forward(const KTensor& x, const KTensor& added);
    Carried pass(const Carried& x, bool asked_for_blocks) override;
    bool takes_blocks() override;
    bool takes_images_apart() override;

  private:
    Carried pass(const Carried& x, const Carried& added, bool asked_for_blocks);

    std::shared_ptr<Module> first_;
    std::shared_ptr<FusedLayer> last_;
    std::shared_ptr<Module> shortcut_;
    std::shared_ptr<Module> activation_;
};

}  // namespace ornik::detail
