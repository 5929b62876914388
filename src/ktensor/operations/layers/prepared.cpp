// prepared.cpp: weights laid out for inference.
#include "ktensor/prepared.h"

#include <mutex>
#include <variant>

#include "ktensor/activations.h"
#include "ktensor/arithmetic.h"
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

bool may_be_kept(const KTensor& t) {
    const tensorT::Tensor_storage* storage = t.defined() ? t.tensor()->borrow_storage() : nullptr;
    return !t.defined() || (storage != nullptr && knows_its_writes(*storage));
}

}  // namespace

KTensor apply_end(const KTensor& x, nn::LayerEnd end) {
    switch (end) {
        case nn::LayerEnd::relu:
            return relu(x);
        case nn::LayerEnd::relu6:
            return relu6(x);
        case nn::LayerEnd::sigmoid:
            return sigmoid(x);
        case nn::LayerEnd::tanh:
            return tanh(x);
        case nn::LayerEnd::silu:
            return silu(x);
        case nn::LayerEnd::gelu:
            return gelu(x);
        case nn::LayerEnd::hardsigmoid:
            return hardsigmoid(x);
        case nn::LayerEnd::hardswish:
            return hardswish(x);
        default:
            return x;
    }
}

struct PreparedWeight::Entry {
    Elements weight;
    Elements bias;
    nn::ConvParameters parameters;
    std::variant<std::monostate, nn::PreparedLinear, nn::PreparedConvolution> layer;
};

struct PreparedWeight::State {
    std::mutex lock;
    std::shared_ptr<const Entry> entry;

    std::shared_ptr<const Entry> get() {
        const std::lock_guard guard(lock);
        return entry;
    }
    void set(std::shared_ptr<const Entry> next) {
        const std::lock_guard guard(lock);
        entry.swap(next);
    }
};

PreparedWeight::PreparedWeight() : state_(std::make_unique<State>()) {}
PreparedWeight::~PreparedWeight() = default;
PreparedWeight::PreparedWeight(PreparedWeight&& other) noexcept = default;
PreparedWeight& PreparedWeight::operator=(PreparedWeight&& other) noexcept = default;

void PreparedWeight::drop() {
    if (state_->get()) {
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

// Undefined where the weight is new.
template <typename Layer, typename Make>
KTensor PreparedWeight::run_prepared(const KTensor& x, Entry now, nn::LayerEnd end, const KTensor& residual,
                                     const Make& make) {
    std::shared_ptr<const Entry> entry = state_->get();
    const bool is_known =
        entry && entry->weight == now.weight && entry->bias == now.bias && are_equal(entry->parameters, now.parameters);
    const Layer* layer = is_known ? std::get_if<Layer>(&entry->layer) : nullptr;
    if (layer == nullptr) {
        auto next = std::make_shared<Entry>(std::move(now));
        if (is_known) {
            state_->set(nullptr);  // The old one's memory first.
            layer = &next->layer.template emplace<Layer>(make());
        }
        entry = next;
        state_->set(std::move(next));
    }
    return layer != nullptr ? make_ktensor((*layer)(x.tensor(), end, residual.tensor())) : KTensor();
}

template <typename Layer, typename Make, typename Plain>
KTensor PreparedWeight::run(const KTensor& x, const KTensor& weight, const KTensor& bias, nn::LayerEnd end,
                            const KTensor& residual, bool recorded, const nn::ConvParameters& parameters,
                            const Make& make, const Plain& plain) {
    if (!recorded && may_be_kept(weight) && may_be_kept(bias)) {
        try {
            if (KTensor y =
                    run_prepared<Layer>(x, {Elements(weight), Elements(bias), parameters, {}}, end, residual, make);
                y.defined()) {
                return y;
            }
        } catch (const std::exception&) {
            drop();  // No memory for it, or operands that the operation below refuses in its own words.
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

}  // namespace ornik
