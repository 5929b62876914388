// fused_layers.cpp: layers that end with what used to follow them, and how images go from one to the next.
#include "modules/fused_layers.h"

#include <algorithm>
#include <typeinfo>
#include <vector>

#include "hardware/parallel.h"
#include "hardware/workers.h"
#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/impl.h"
#include "ktensor/indexing.h"
#include "ktensor/joins.h"
#include "ktensor/shapes.h"
#include "modules/pooling_layers.h"

namespace ornik::detail {

namespace {

using Shared = std::shared_ptr<Module>;

Carried pass_through(Module& module, const Carried& x, bool asked_for_blocks) {
    auto* const part = dynamic_cast<FusedPart*>(&module);
    return part != nullptr ? part->pass(x, asked_for_blocks) : Carried(module.forward(x.tensor()));
}

bool takes_blocks(Module& module) {
    auto* const part = dynamic_cast<FusedPart*>(&module);
    return part != nullptr && part->takes_blocks();
}

bool takes_images_apart(Module& module) {
    auto* const part = dynamic_cast<FusedPart*>(&module);
    return part != nullptr && part->takes_images_apart();
}

// What is recorded stays in planes: no layer has to be laid out for it.
bool is_recorded(const Carried& x) {
    const KTensor past = x.with_past();
    return past.defined() && grad_enabled() && past.wants_grad();
}

bool may_go_apart(const Carried& x) {
    const KTensor images = x.with_past();
    const int workers = parallel_workers();
    return workers > 1 && images.defined() && images.ndim() == 4 && images.size(0) >= workers && !is_recorded(x);
}

}  // namespace

FusedPart::~FusedPart() = default;

// ---- Layers ----

FusedLayer::FusedLayer(Parts parts) : parts_(std::move(parts)) {
    parts_.weight = parts_.weight.detach();
    parts_.bias = parts_.bias.defined() ? parts_.bias.detach() : KTensor();
}

std::int64_t FusedLayer::outputs() const {
    const auto& convolution = parts_.convolution;
    return convolution && convolution->transposed ? parts_.weight.size(1) * convolution->groups : parts_.weight.size(0);
}

bool FusedLayer::take(const BatchNorm& norm) {
    auto& [kind, weight, bias, convolution, is_normalized, end] = parts_;
    const std::int64_t channels = outputs();
    if (has_end() || !norm.running_mean.defined() || norm.running_mean.size(0) != channels || weight.is_complex()) {
        return false;
    }
    const NoGrad values_alone;
    const auto wide = [](const KTensor& t) { return astype(t.detach(), dtype::float64); };
    KTensor scale = 1.0 / sqrt(wide(norm.running_var) + norm.options().eps);
    if (norm.weight.defined()) {
        scale = scale * wide(norm.weight);
    }
    const KTensor mean = wide(norm.running_mean);
    KTensor shift = (bias.defined() ? wide(bias) - mean : -mean) * scale;
    if (norm.bias.defined()) {
        shift = shift + wide(norm.bias);
    }
    // The weight as [groups, in, out, ...] or [out, ...].
    const Dims shape = weight.shape();
    Dims parts = shape;
    Dims spread(parts.size(), 1);
    if (convolution && convolution->transposed) {
        parts[0] /= convolution->groups;
        parts.insert(parts.begin(), convolution->groups);
        spread.insert(spread.begin(), convolution->groups);
        spread[2] = parts[2];
    } else {
        spread[0] = channels;
    }
    const std::int64_t dtype = weight.dtype();
    weight = astype(reshape(reshape(wide(weight), parts) * reshape(scale, spread), shape), dtype);
    bias = astype(shift, dtype);
    is_normalized = true;
    return true;
}

bool FusedLayer::take(nn::LayerEnd end) {
    if (has_end() || parts_.weight.is_complex()) {
        return false;
    }
    parts_.end = end;
    return true;
}

void FusedLayer::close() {
    add_buffer("weight", parts_.weight);
    add_buffer("bias", parts_.bias);
    std::string text = parts_.kind + (parts_.is_normalized ? ", normalized" : "");
    if (has_end()) {
        text.append(", ").append(name_of(parts_.end));
    }
    set_arguments(std::move(text));
    eval();
}

Carried FusedLayer::pass(const Carried& x, const Carried* residual, bool asked_for_blocks) {
    if (is_training()) {
        fail(ErrorKind::state, where("ornik::fuse"),
             "forward(): a fused module is for inference; train the one that it was made from.");
    }
    if (parts_.convolution) {
        return prepared_.convolution(x, parts_.weight, parts_.bias, *parts_.convolution, parts_.end, residual,
                                     asked_for_blocks);
    }
    const KTensor& rows = x.tensor();
    if (parts_.is_normalized && rows.ndim() != 2) {
        fail(where("ornik::fuse"), "forward(): a linear map with a batch normalization folded in takes [N, ",
             parts_.weight.size(1), "], not ", autograd::describe(rows), ".");
    }
    return Carried(prepared_.linear(rows, parts_.weight, parts_.bias, parts_.end,
                                    residual != nullptr ? residual->tensor() : KTensor()));
}

bool FusedLayer::takes_blocks() {
    return parts_.convolution && prepared_.takes_blocks(parts_.weight, parts_.bias, *parts_.convolution);
}

bool FusedLayer::takes_images_apart() {
    const auto is_recorded = [](const KTensor& t) { return t.defined() && t.wants_grad() && grad_enabled(); };
    return !is_training() && takes_blocks() && !is_recorded(parts_.weight) && !is_recorded(parts_.bias);
}

// ---- Pools ----

FusedPool::FusedPool(Shared plain, Blocked blocked, const nn::PoolParameters& parameters)
    : plain_(std::move(plain)), blocked_(blocked), parameters_(parameters) {
    set_arguments(plain_->arguments());
    eval();
}

std::shared_ptr<FusedPool> FusedPool::of(const Shared& module) {
    const Module& plain = *module;
    const auto made = [&](Blocked blocked, const nn::PoolParameters& parameters = {}) {
        return std::shared_ptr<FusedPool>(new FusedPool(module, blocked, parameters));
    };
    if (typeid(plain) == typeid(MaxPool2d)) {
        return made([](const nn::BlockedImage& x, const nn::PoolParameters& p) { return Carried(nn::max_pool(x, p)); },
                    static_cast<const MaxPool2d&>(plain).pool_parameters());
    }
    if (typeid(plain) == typeid(AvgPool2d)) {
        return made(
            [](const nn::BlockedImage& x, const nn::PoolParameters& p) { return Carried(nn::average_pool(x, p)); },
            static_cast<const AvgPool2d&>(plain).pool_parameters());
    }
    if (typeid(plain) == typeid(AdaptiveAvgPool2d) &&
        static_cast<const AdaptiveAvgPool2d&>(plain).output() == std::array<std::int64_t, 2>{1, 1}) {
        return made([](const nn::BlockedImage& x, const nn::PoolParameters&) {
            return Carried(autograd::make_ktensor(nn::global_average(x)));
        });
    }
    return nullptr;
}

Carried FusedPool::pass(const Carried& x, bool /*asked_for_blocks*/) {
    if (x.is_blocked()) {
        const auto pooled = [&]() -> std::optional<Carried> { return blocked_(x.image(), parameters_); };
        if (std::optional<Carried> y = unless_refused(pooled)) {
            return *std::move(y);
        }
    }
    return Carried(plain_->forward(x.tensor()));
}

// ---- Chains and residuals ----

Carried FusedChain::pass(const Carried& x, bool asked_for_blocks) {
    return pass(0, parts().size(), x, asked_for_blocks);
}

Carried FusedChain::pass(std::size_t begin, std::size_t end, const Carried& x, bool asked_for_blocks) {
    Carried y = x;
    const Parts& list = parts();
    for (std::size_t i = begin; i < end; ++i) {
        std::size_t apart = i;
        while (apart < end && may_go_apart(y) && ornik::detail::takes_images_apart(*list[apart].second)) {
            ++apart;
        }
        if (apart > i + 1 && !(apart == end && asked_for_blocks)) {
            if (const std::optional<KTensor> images = pass_apart(i, apart, y.with_past())) {
                y = Carried(*images);
                i = apart - 1;
                continue;
            }
        }
        const bool asked =
            i + 1 == end ? asked_for_blocks : !is_recorded(y) && ornik::detail::takes_blocks(*list[i + 1].second);
        y = pass_through(*list[i].second, y, asked);
    }
    return y;
}

// Every thread takes images through the parts, one at a time: what a part leaves is near when the next one reads it,
// and none waits for other threads. Images too few for all threads are shared by them, as ever. Nothing where one is
// refused: the parts say why, of all of them.
std::optional<KTensor> FusedChain::pass_apart(std::size_t begin, std::size_t end, const KTensor& images) {
    const std::int64_t count = images.size(0);
    const std::int64_t apart = count - count % parallel_workers();
    const auto passed = [&](std::int64_t first, std::int64_t size) {
        return pass(begin, end, Carried(narrow(images, 0, first, size)), false).tensor();
    };
    return unless_refused([&]() -> std::optional<KTensor> {
        std::vector<KTensor> results(static_cast<std::size_t>(apart));
        parallel_for(apart, 1, 1, [&](std::int64_t first, std::int64_t last) {
            const NoGrad values_alone;
            for (std::int64_t i = first; i < last; ++i) {
                results[static_cast<std::size_t>(i)] = passed(i, 1);
            }
        });
        if (apart < count) {
            results.push_back(passed(apart, count - apart));
        }
        return concat(results);
    });
}

bool FusedChain::takes_images_apart() {
    const Parts& list = parts();
    return std::all_of(list.begin(), list.end(),
                       [](const auto& part) { return ornik::detail::takes_images_apart(*part.second); });
}

bool FusedChain::takes_blocks() { return !parts().empty() && ornik::detail::takes_blocks(*parts().front().second); }

FusedResidual::FusedResidual(Shared first, std::shared_ptr<FusedLayer> last, Shared shortcut, Shared activation)
    : first_(std::move(first)),
      last_(std::move(last)),
      shortcut_(std::move(shortcut)),
      activation_(std::move(activation)) {
    const auto add_present = [this](const char* name, const Shared& part) {
        if (part) {
            add_part(name, part);
        }
    };
    add_present("first", first_);
    add_present("last", last_);
    add_present("shortcut", shortcut_);
    add_present("activation", activation_);
}

Carried FusedResidual::pass(const Carried& x, bool asked_for_blocks) {
    if (!shortcut_) {
        return pass(x, x, asked_for_blocks);
    }
    return pass(x, pass_through(*shortcut_, x, !is_recorded(x) && last_->takes_blocks()), asked_for_blocks);
}

Carried FusedResidual::pass(const Carried& x, const Carried& added, bool asked_for_blocks) {
    const bool asked = asked_for_blocks && !activation_;
    const Carried y =
        first_ ? last_->pass(pass_through(*first_, x, !is_recorded(x) && last_->takes_blocks()), &added, asked)
               : last_->pass(x, &added, asked);
    return activation_ ? Carried(activation_->forward(y.tensor())) : y;
}

KTensor FusedResidual::forward(const KTensor& x, const KTensor& added) {
    return pass(Carried(x), Carried(added), false).tensor();
}

bool FusedResidual::takes_images_apart() {
    const auto allows = [](const Shared& part) { return !part || ornik::detail::takes_images_apart(*part); };
    return !activation_ && allows(first_) && allows(last_) && allows(shortcut_);
}

bool FusedResidual::takes_blocks() { return first_ ? ornik::detail::takes_blocks(*first_) : last_->takes_blocks(); }

}  // namespace ornik::detail
