// optimizer.cpp: groups of parameters, steps, state.
#include "modules/optimizer.h"

#include <algorithm>

#include "ktensor/autograd.h"
#include "ktensor/impl.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

namespace ornik {

using autograd::describe;

Optimizer::~Optimizer() = default;

void Optimizer::add_group(const std::vector<KTensor>& parameters, double lr, double weight_decay) {
    if (!(lr >= 0 && weight_decay >= 0)) {
        fail(where("ornik::Optimizer"), "Optimizer(): learning rate and weight decay are 0 and above, not ",
             std::to_string(lr), " and ", std::to_string(weight_decay), ".");
    }
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

void Optimizer::check_group(std::size_t group) const {
    if (group >= group_sizes_.size()) {
        fail(ErrorKind::index, where("ornik::Optimizer"), "Optimizer: there is no group ", group, " of ",
             group_sizes_.size(), ".");
    }
}

void Optimizer::refuse_momentum() {
    fail(ErrorKind::not_implemented, where("ornik::Optimizer::momentum"),
         "momentum(): this optimizer does not have one.");
}

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
    for (std::size_t group = 0; group < group_count(); ++group) {
        const std::string prefix = "groups." + std::to_string(group) + ".";
        result.emplace_back(prefix + "lr", KTensor::scalar(Scalar(learning_rate(group))));
        if (has_momentum()) {
            result.emplace_back(prefix + "momentum", KTensor::scalar(Scalar(momentum(group))));
        }
    }
    return result;
}

namespace {

// The number that a name begins with, up to a point, and what follows; `limit` where it begins with none below that.
std::pair<std::size_t, std::string> numbered(const std::string& name, std::size_t limit) {
    const std::size_t point = name.find('.');
    const bool is_number = point != std::string::npos && point > 0 && point < 10 &&
                           std::all_of(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(point),
                                       [](char c) { return c >= '0' && c <= '9'; });
    const std::size_t number = is_number ? std::stoul(name.substr(0, point)) : limit;
    return number < limit && point + 1 < name.size() ? std::pair(number, name.substr(point + 1))
                                                     : std::pair(limit, std::string());
}

}  // namespace

void Optimizer::load_state(const NamedTensors& state) {
    struct Entry {
        std::size_t place;
        std::string name;
        const KTensor* value;
    };
    const std::string of_groups = "groups.";
    std::vector<Entry> entries;
    std::vector<Entry> numbers;
    std::string faults;
    for (const auto& [name, value] : state) {
        if (name.starts_with(of_groups)) {
            const auto [group, rest] = numbered(name.substr(of_groups.size()), group_count());
            if (group >= group_count() || (rest != "lr" && !(rest == "momentum" && has_momentum()))) {
                faults += " " + name + " belongs to no group;";
            } else if (!value.defined() || value.size() != 1) {
                faults += " " + name + " is " + describe(value) + " for a number;";
            } else {
                numbers.push_back({group, rest, &value});
            }
            continue;
        }
        const auto [slot, rest] = numbered(name, slots_.size());
        if (slot >= slots_.size()) {
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
        Slot& slot = slots_[entry.place];
        if (entry.name == "step") {
            slot.steps = astype(*entry.value, dtype::int64).item<std::int64_t>();
        } else {
            KTensor own = KTensor::empty_like(slot.parameter);
            slot.kept.emplace_back(entry.name, copy_(own, *entry.value));
        }
    }
    for (const Entry& entry : numbers) {
        const double number = astype(*entry.value, dtype::float64).item<double>();
        entry.name == "lr" ? set_learning_rate(entry.place, number) : set_momentum(entry.place, number);
    }
}

}  // namespace ornik
