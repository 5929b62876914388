// optimizers.cpp: steps over lists of parameters, and clipping.
#include "modules/optimizers.h"

#include <algorithm>
#include <cmath>

#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/elements.h"
#include "ktensor/impl.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "optimizers/optimizers.h"
#include "optimizers/steps.h"
#include "utils/error.h"

namespace ornik {

using autograd::describe;

Optimizer::~Optimizer() = default;

void Optimizer::add_group(const std::vector<KTensor>& parameters) {
    for (const KTensor& parameter : parameters) {
        const auto is_known = [&](const Slot& slot) { return slot.parameter.is(parameter); };
        if (!parameter.defined() || !parameter.is_leaf() || !parameter.wants_grad()) {
            fail(where("ornik::Optimizer"), "Optimizer(): parameter ", slots_.size(), ", ", describe(parameter),
                 ", is no leaf that asks for gradients.");
        }
        if (std::any_of(slots_.begin(), slots_.end(), is_known)) {
            fail(where("ornik::Optimizer"), "Optimizer(): parameter ", slots_.size(), ", ", describe(parameter),
                 ", is listed twice.");
        }
        slots_.push_back({parameter, group_sizes_.size(), 0, {}});
    }
    group_sizes_.push_back(parameters.size());
}

void Optimizer::step() {
    const NoGrad values_alone;
    for (Slot& slot : slots_) {
        if (const KTensor gradient = slot.parameter.grad(); gradient.defined()) {
            ++slot.steps;
            update(slot, gradient);
        }
    }
}

void Optimizer::zero_grad() {
    for (Slot& slot : slots_) {
        slot.parameter.zero_grad();
    }
}

double Optimizer::momentum(std::size_t /*group*/) const {
    fail(ErrorKind::not_implemented, where("ornik::Optimizer::momentum"),
         "momentum(): this optimizer does not have one.");
}

void Optimizer::set_momentum(std::size_t /*group*/, double /*momentum*/) { (void)momentum(); }

Tensor* Optimizer::kept(Slot& slot, const char* name) {
    const auto place =
        std::find_if(slot.kept.begin(), slot.kept.end(), [&](const auto& entry) { return entry.first == name; });
    if (place != slot.kept.end()) {
        return place->second.tensor();
    }
    return slot.kept.emplace_back(name, KTensor::zeros_like(slot.parameter)).second.tensor();
}

// ---- State ----

NamedTensors Optimizer::state() const {
    NamedTensors result;
    for (std::size_t i = 0; i < slots_.size(); ++i) {
        const std::string prefix = std::to_string(i) + ".";
        if (slots_[i].steps > 0) {
            result.emplace_back(prefix + "step", KTensor::scalar(Scalar(slots_[i].steps)));
        }
        for (const auto& [name, tensor] : slots_[i].kept) {
            result.emplace_back(prefix + name, tensor);
        }
    }
    return result;
}

void Optimizer::load_state(const NamedTensors& state) {
    struct Entry {
        std::size_t slot;
        std::string name;
        const KTensor* value;
    };
    std::vector<Entry> entries;
    std::string faults;
    for (const auto& [name, value] : state) {
        const std::size_t point = name.find('.');
        const bool is_number = point != std::string::npos && point > 0 && point < 10 &&
                               std::all_of(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(point),
                                           [](char c) { return c >= '0' && c <= '9'; });
        const std::size_t slot = is_number ? std::stoul(name.substr(0, point)) : slots_.size();
        const std::string rest = is_number ? name.substr(point + 1) : "";
        if (slot >= slots_.size() || rest.empty()) {
            faults += " " + name + " belongs to no parameter;";
        } else if (!value.defined() ||
                   (rest == "step" ? value.size() != 1 : value.shape() != slots_[slot].parameter.shape())) {
            faults += " " + name + " is " + describe(value) + " for " + describe(slots_[slot].parameter) + ";";
        } else {
            entries.push_back({slot, rest, &value});
        }
    }
    if (!faults.empty()) {
        faults.back() = '.';
        fail(where("ornik::Optimizer::load_state"), "load_state():", faults);
    }
    const NoGrad values_alone;
    for (Slot& slot : slots_) {
        slot.steps = 0;
        slot.kept.clear();
    }
    for (const Entry& entry : entries) {
        Slot& slot = slots_[entry.slot];
        if (entry.name == "step") {
            slot.steps = astype(*entry.value, dtype::int64).item<std::int64_t>();
        } else {
            KTensor own = KTensor::empty_like(slot.parameter);
            slot.kept.emplace_back(entry.name, copy_(own, *entry.value));
        }
    }
}

// ---- Steps ----

namespace {

float single(double value) { return static_cast<float>(value); }

std::int32_t step_number(std::int64_t steps) {
    return static_cast<std::int32_t>(std::min<std::int64_t>(steps, std::numeric_limits<std::int32_t>::max()));
}

}  // namespace

void SGD::update(Slot& slot, const KTensor& gradient) {
    const SgdOptions& o = options_[slot.group];
    const bool first = slot.kept.empty();
    Tensor* buffer = o.momentum != 0 ? kept(slot, "momentum_buffer") : nullptr;
    nn::sgd_step(slot.parameter.tensor(), gradient.tensor(), buffer,
                 {single(o.lr), single(o.momentum), single(o.dampening), single(o.weight_decay), o.nesterov, first});
}

void Adam::update(Slot& slot, const KTensor& gradient) {
    const AdamOptions& o = options_[slot.group];
    Tensor* m = kept(slot, "exp_avg");
    Tensor* v = kept(slot, "exp_avg_sq");
    nn::adam_step(slot.parameter.tensor(), gradient.tensor(), m, v, o.amsgrad ? kept(slot, "max_exp_avg_sq") : nullptr,
                  {single(o.lr), single(o.beta1), single(o.beta2), single(o.eps), single(o.weight_decay),
                   step_number(slot.steps)});
}

void AdamW::update(Slot& slot, const KTensor& gradient) {
    const AdamOptions& o = options_[slot.group];
    Tensor* m = kept(slot, "exp_avg");
    Tensor* v = kept(slot, "exp_avg_sq");
    adamw_step(slot.parameter.tensor(), gradient.tensor(), single(o.lr), single(o.beta1), single(o.beta2),
               single(o.eps), single(o.weight_decay), step_number(slot.steps), m, v,
               o.amsgrad ? kept(slot, "max_exp_avg_sq") : nullptr, o.amsgrad);
}

void Adamax::update(Slot& slot, const KTensor& gradient) {
    const AdamaxOptions& o = options_[slot.group];
    Tensor* m = kept(slot, "exp_avg");
    nn::adamax_step(slot.parameter.tensor(), gradient.tensor(), m, kept(slot, "exp_inf"),
                    {single(o.lr), single(o.beta1), single(o.beta2), single(o.eps), single(o.weight_decay),
                     step_number(slot.steps)});
}

void Adagrad::update(Slot& slot, const KTensor& gradient) {
    const AdagradOptions& o = options_[slot.group];
    const double lr = o.lr / (1 + static_cast<double>(slot.steps - 1) * o.lr_decay);
    nn::adagrad_step(slot.parameter.tensor(), gradient.tensor(), kept(slot, "sum"),
                     {single(lr), single(o.eps), single(o.weight_decay)});
}

void Adadelta::update(Slot& slot, const KTensor& gradient) {
    const AdadeltaOptions& o = options_[slot.group];
    Tensor* average = kept(slot, "square_avg");
    nn::adadelta_step(slot.parameter.tensor(), gradient.tensor(), average, kept(slot, "acc_delta"),
                      {single(o.lr), single(o.rho), single(o.eps), single(o.weight_decay)});
}

void RMSprop::update(Slot& slot, const KTensor& gradient) {
    const RmspropOptions& o = options_[slot.group];
    Tensor* average = kept(slot, "square_avg");
    Tensor* mean = o.centered ? kept(slot, "grad_avg") : nullptr;
    nn::rmsprop_step(slot.parameter.tensor(), gradient.tensor(), average, mean,
                     o.momentum != 0 ? kept(slot, "momentum_buffer") : nullptr,
                     {single(o.lr), single(o.alpha), single(o.eps), single(o.momentum), single(o.weight_decay)});
}

// ---- Clipping ----

double clip_grad_norm(const std::vector<KTensor>& parameters, double max_norm, bool infinity) {
    const NoGrad values_alone;
    double total = 0;
    std::vector<KTensor> gradients;
    for (const KTensor& parameter : parameters) {
        KTensor gradient = parameter.grad();
        if (!gradient.defined() || gradient.size() == 0) {
            continue;
        }
        const double norm = infinity ? astype(max(abs(gradient)), dtype::float64).item<double>()
                                     : astype(l2_norm(gradient), dtype::float64).item<double>();
        // NaN stays.
        total = infinity ? (norm > total || std::isnan(norm) ? norm : total) : std::hypot(total, norm);
        gradients.push_back(std::move(gradient));
    }
    if (const double factor = max_norm / (total + 1e-6); factor < 1) {
        for (KTensor& gradient : gradients) {
            mul_(gradient, Scalar(factor));
        }
    }
    return total;
}

void clip_grad_value(const std::vector<KTensor>& parameters, double bound) {
    const NoGrad values_alone;
    for (const KTensor& parameter : parameters) {
        if (KTensor gradient = parameter.grad(); gradient.defined()) {
            clamp_(gradient, Scalar(-bound), Scalar(bound));
        }
    }
}

}  // namespace ornik
