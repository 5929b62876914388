// prepared.cpp: weights laid out for inference.
#include "ktensor/prepared.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <variant>

#include "ktensor/activations.h"
#include "ktensor/arithmetic.h"
#include "ktensor/carried.h"
#include "ktensor/elements.h"
#include "ktensor/networks.h"
#include "ktensor/record.h"
#include "layers/functional/prepared_convolution.h"
#include "layers/functional/prepared_linear.h"
#include "tensor/loan.h"

namespace ornik {

using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

bool are_equal(const nn::ConvParameters& a, const nn::ConvParameters& b) {
    const auto same = [&](std::size_t i) {
        return a.padding[i].begin == b.padding[i].begin && a.padding[i].end == b.padding[i].end;
    };
    return a.stride == b.stride && same(0) && same(1) && a.dilation == b.dilation && a.groups == b.groups &&
           a.transposed == b.transposed && a.output_padding == b.output_padding;
}

// Elements as they were at a time.
class Elements {
  public:
    Elements() = default;
    explicit Elements(const KTensor& t) {
        if (t.defined()) {
            const Tensor& tensor = *t.tensor();
            storage_ = tensor.getStorage();
            version_ = autograd::version_of(tensor);
            first_ = tensor.getRawData();
            dtype_ = tensor.Dtype();
            shape_ = tensor.Shape();
            strides_ = t.strides();
        }
    }
    // Storages that are gone equal none.
    friend bool operator==(const Elements& a, const Elements& b) {
        return !a.storage_.owner_before(b.storage_) && !b.storage_.owner_before(a.storage_) &&
               a.version_ == b.version_ && a.first_ == b.first_ && a.dtype_ == b.dtype_ && a.shape_ == b.shape_ &&
               a.strides_ == b.strides_;
    }

  private:
    std::weak_ptr<tensorT::Tensor_storage> storage_;
    std::uint32_t version_ = 0;
    const void* first_ = nullptr;
    std::int64_t dtype_ = 0;
    Dims shape_;
    Dims strides_;
};

using Function = KTensor (*)(const KTensor&);

// In the order of the ends.
constexpr std::array<Function, nn::layer_end_names.size()> end_functions{nullptr, relu, relu6,       sigmoid,  tanh,
                                                                         silu,    gelu, hardsigmoid, hardswish};

bool may_be_kept(const KTensor& t) {
    const tensorT::Tensor_storage* storage = t.defined() ? t.tensor()->borrow_storage() : nullptr;
    return !t.defined() || (storage != nullptr && knows_its_writes(*storage));
}

}  // namespace

KTensor apply_end(const KTensor& x, nn::LayerEnd end) {
    const Function function = end_functions.at(static_cast<std::size_t>(end));
    return function != nullptr ? function(x) : x;
}

std::optional<nn::LayerEnd> end_of(Function function) {
    const auto place = std::find(end_functions.begin() + 1, end_functions.end(), function);
    return place == end_functions.end() ? std::nullopt
                                        : std::optional(static_cast<nn::LayerEnd>(place - end_functions.begin()));
}

struct PreparedWeight::Entry {
    Elements weight;
    Elements bias;
    nn::ConvParameters parameters;
    std::variant<std::monostate, nn::PreparedLinear, nn::PreparedConvolution> layer;
};

struct PreparedWeight::State {
    std::shared_ptr<const Entry> get() {
        const std::lock_guard guard(lock_);
        return entry_;
    }
    void set(std::shared_ptr<const Entry> next) {
        const std::lock_guard guard(lock_);
        is_empty_.store(!next, std::memory_order_relaxed);
        entry_.swap(next);
    }
    // Without the lock, for the calls of training.
    bool is_empty() const { return is_empty_.load(std::memory_order_relaxed); }

  private:
    std::mutex lock_;
    std::shared_ptr<const Entry> entry_;
    std::atomic<bool> is_empty_ = true;
};

PreparedWeight::PreparedWeight() : state_(std::make_unique<State>()) {}
PreparedWeight::~PreparedWeight() = default;
PreparedWeight::PreparedWeight(PreparedWeight&& other) noexcept = default;
PreparedWeight& PreparedWeight::operator=(PreparedWeight&& other) noexcept = default;

void PreparedWeight::drop() {
    if (!state_->is_empty()) {
        state_->set(nullptr);
    }
}

std::int64_t PreparedWeight::bytes() const {
    const std::shared_ptr<const Entry> entry = state_->get();
    if (!entry) {
        return 0;
    }
    if (const auto* linear = std::get_if<nn::PreparedLinear>(&entry->layer)) {
        return linear->bytes();
    }
    const auto* convolution = std::get_if<nn::PreparedConvolution>(&entry->layer);
    return convolution != nullptr ? convolution->bytes() : 0;
}

// Null where the weight is new, unless it is to be laid out at once.
template <typename Layer, typename Make>
std::shared_ptr<const Layer> PreparedWeight::kept(Entry now, bool at_once, const Make& make) {
    std::shared_ptr<const Entry> entry = state_->get();
    const bool is_known =
        entry && entry->weight == now.weight && entry->bias == now.bias && are_equal(entry->parameters, now.parameters);
    const Layer* layer = is_known ? std::get_if<Layer>(&entry->layer) : nullptr;
    if (layer == nullptr) {
        auto next = std::make_shared<Entry>(std::move(now));
        if (is_known || at_once) {
            entry.reset();
            state_->set(nullptr);  // The old one's memory first.
            layer = &next->layer.template emplace<Layer>(make());
        }
        entry = next;
        state_->set(std::move(next));
    }
    return {std::move(entry), layer};
}

template <typename Layer, typename Make, typename Plain>
KTensor PreparedWeight::run(const KTensor& x, const KTensor& weight, const KTensor& bias, nn::LayerEnd end,
                            const KTensor& residual, bool recorded, const nn::ConvParameters& parameters,
                            const Make& make, const Plain& plain) {
    if (!recorded && may_be_kept(weight) && may_be_kept(bias)) {
        try {
            if (const auto layer = kept<Layer>({Elements(weight), Elements(bias), parameters, {}}, false, make)) {
                return make_ktensor((*layer)(x.tensor(), end, residual.tensor()));
            }
        } catch (const std::exception& error) {
            if (detail::is_shortage(error)) {
                drop();
            } else if (!detail::is_refusal(error)) {
                throw;
            }
        }
    }
    const KTensor y = plain();
    return apply_end(residual.defined() ? y + residual : y, end);
}

KTensor PreparedWeight::linear(const KTensor& x, const KTensor& weight, const KTensor& bias, nn::LayerEnd end,
                               const KTensor& residual) {
    const Recorder record(Op::linear, {&x, &weight, &bias, &residual}, 2);
    return run<nn::PreparedLinear>(
        x, weight, bias, end, residual, record.active(), {},
        [&] { return nn::PreparedLinear(weight.tensor(), bias.tensor()); },
        [&] { return ornik::linear(x, weight, bias); });
}

KTensor PreparedWeight::convolution(const KTensor& x, const KTensor& weight, const KTensor& bias,
                                    const nn::ConvParameters& parameters, nn::LayerEnd end, const KTensor& residual) {
    const Recorder record(Op::convolution, {&x, &weight, &bias, &residual}, 2);
    return run<nn::PreparedConvolution>(
        x, weight, bias, end, residual, record.active(), parameters,
        [&] { return nn::PreparedConvolution(weight.tensor(), bias.tensor(), parameters); },
        [&] { return ornik::convolution(x, weight, bias, parameters); });
}

std::shared_ptr<const nn::PreparedConvolution> PreparedWeight::kept_at_once(const KTensor& weight, const KTensor& bias,
                                                                            const nn::ConvParameters& parameters) {
    return kept<nn::PreparedConvolution>({Elements(weight), Elements(bias), parameters, {}}, true, [&] {
        return nn::PreparedConvolution(weight.tensor(), bias.tensor(), parameters);
    });
}

bool PreparedWeight::takes_blocks(const KTensor& weight, const KTensor& bias, const nn::ConvParameters& parameters) {
    return may_be_kept(weight) && may_be_kept(bias) &&
           detail::unless_refused([&] { return kept_at_once(weight, bias, parameters)->takes_blocks(); });
}

Carried PreparedWeight::convolution(const Carried& x, const KTensor& weight, const KTensor& bias,
                                    const nn::ConvParameters& parameters, nn::LayerEnd end, const Carried* residual,
                                    bool asked_for_blocks) {
    if ((x.is_blocked() || asked_for_blocks) && may_be_kept(weight) && may_be_kept(bias)) {
        const KTensor planes = x.with_past();
        const KTensor added = residual != nullptr ? residual->with_past() : KTensor();
        const Recorder record(Op::convolution, {&weight, &bias, &planes, &added}, 1);
        const auto in_blocks = [&]() -> std::optional<nn::BlockedImage> {
            const std::shared_ptr<const nn::PreparedConvolution> layer = kept_at_once(weight, bias, parameters);
            if (!layer->takes_blocks()) {
                return std::nullopt;
            }
            const nn::BlockedImage* const image = residual != nullptr ? &residual->image() : nullptr;
            return x.is_blocked() ? layer->blocked(x.image(), end, image) : layer->blocked(planes.tensor(), end, image);
        };
        if (!record.active()) {
            if (std::optional<nn::BlockedImage> y = detail::unless_refused(in_blocks)) {
                return Carried(*std::move(y));
            }
        }
    }
    return Carried(
        convolution(x.tensor(), weight, bias, parameters, end, residual != nullptr ? residual->tensor() : KTensor()));
}

}  // namespace ornik
