// schedules.cpp: learning rates over time.
#include "modules/schedules.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "hardware/cpu/elements/called_functions.h"
#include "utils/error.h"

namespace ornik {

namespace {

void check_total(const char* name, std::int64_t total) {
    if (total < 1) {
        fail(where("ornik::Schedule"), name, "(): takes 1 step and more, not ", total, ".");
    }
}

// From a to b along half a cosine.
double along_cosine(double a, double b, double part) {
    return b + (a - b) / 2 * (1 + elementary::called::cos(std::numbers::pi * part));
}

}  // namespace

Schedule::Schedule(Optimizer& optimizer) : optimizer_(optimizer) {
    for (std::size_t group = 0; group < optimizer.group_count(); ++group) {
        base_.push_back(optimizer.learning_rate(group));
    }
}

Schedule::~Schedule() = default;

void Schedule::step() { set_steps(steps_ + 1); }

void Schedule::set_steps(std::int64_t steps) {
    steps_ = steps;
    apply();
}

void Schedule::apply() {
    for (std::size_t group = 0; group < base_.size(); ++group) {
        optimizer_.set_learning_rate(group, rate(base_[group], steps_));
    }
}

StepSchedule::StepSchedule(Optimizer& optimizer, std::int64_t size, double gamma)
    : Schedule(optimizer), size_(size), gamma_(gamma) {
    check_total("StepSchedule", size);
    StepSchedule::apply();
}

double StepSchedule::rate(double base, std::int64_t steps) const {
    return base * elementary::called::pow(gamma_, static_cast<double>(steps / size_));
}

CosineSchedule::CosineSchedule(Optimizer& optimizer, std::int64_t total, double min)
    : Schedule(optimizer), total_(total), min_(min) {
    check_total("CosineSchedule", total);
    CosineSchedule::apply();
}

double CosineSchedule::rate(double base, std::int64_t steps) const {
    return along_cosine(base, min_, static_cast<double>(steps) / static_cast<double>(total_));
}

WarmupSchedule::WarmupSchedule(Optimizer& optimizer, double start, double end, std::int64_t total)
    : Schedule(optimizer), start_(start), end_(end), total_(total) {
    check_total("WarmupSchedule", total);
    WarmupSchedule::apply();
}

double WarmupSchedule::rate(double base, std::int64_t steps) const {
    return base *
           (start_ + (end_ - start_) * static_cast<double>(std::min(steps, total_)) / static_cast<double>(total_));
}

OneCycleSchedule::OneCycleSchedule(Optimizer& optimizer, double max_lr, std::int64_t total,
                                   const OneCycleOptions& options)
    : Schedule(optimizer), max_lr_(max_lr), total_(total), options_(options) {
    check_total("OneCycleSchedule", total);
    OneCycleSchedule::apply();
}

namespace {

// Between `low` at the start, `high` at the peak and `last` at the end.
double one_cycle(double low, double high, double last, double rising, std::int64_t total, std::int64_t steps) {
    const double peak = rising * static_cast<double>(total) - 1;
    const auto t = static_cast<double>(std::min(steps, total - 1));
    return t <= peak ? along_cosine(low, high, peak > 0 ? t / peak : 1)
                     : along_cosine(high, last, (t - peak) / (static_cast<double>(total) - 1 - peak));
}

}  // namespace

double OneCycleSchedule::rate(double /*base*/, std::int64_t steps) const {
    const double first = max_lr_ / options_.initial_division;
    return one_cycle(first, max_lr_, first / options_.final_division, options_.rising, total_, steps);
}

void OneCycleSchedule::apply() {
    if (steps_ > total_) {
        fail(ErrorKind::state, where("ornik::OneCycleSchedule"), "step(): the cycle ends after ", total_, " steps.");
    }
    Schedule::apply();
    if (options_.cycle_momentum) {
        for (std::size_t group = 0; group < base_.size(); ++group) {
            optimizer_.set_momentum(group, one_cycle(options_.max_momentum, options_.base_momentum,
                                                     options_.max_momentum, options_.rising, total_, steps_));
        }
    }
}

LambdaSchedule::LambdaSchedule(Optimizer& optimizer, std::function<double(std::int64_t)> factor)
    : Schedule(optimizer), factor_(std::move(factor)) {
    LambdaSchedule::apply();
}

double LambdaSchedule::rate(double base, std::int64_t steps) const { return base * factor_(steps); }

PlateauSchedule::PlateauSchedule(Optimizer& optimizer, const PlateauOptions& options)
    : optimizer_(optimizer),
      options_(options),
      best_(options.maximize ? -std::numeric_limits<double>::infinity() : std::numeric_limits<double>::infinity()) {}

void PlateauSchedule::step(double measure) {
    const double margin = options_.threshold * (options_.maximize ? 1 : -1);
    const bool better = options_.maximize ? measure > best_ * (1 + margin) : measure < best_ * (1 + margin);
    if (better || std::isinf(best_)) {
        best_ = measure;
        bad_ = 0;
    } else {
        ++bad_;
    }
    if (cooling_ > 0) {
        --cooling_;
        bad_ = 0;
    }
    if (bad_ <= options_.patience) {
        return;
    }
    for (std::size_t group = 0; group < optimizer_.group_count(); ++group) {
        const double old = optimizer_.learning_rate(group);
        const double lower = std::max(old * options_.factor, options_.min_lr);
        if (old - lower > 1e-8) {
            optimizer_.set_learning_rate(group, lower);
        }
    }
    cooling_ = options_.cooldown;
    bad_ = 0;
}

NamedTensors PlateauSchedule::state() const {
    return {{"best", KTensor::scalar(Scalar(best_))},
            {"bad", KTensor::scalar(Scalar(bad_))},
            {"cooling", KTensor::scalar(Scalar(cooling_))}};
}

void PlateauSchedule::load_state(const NamedTensors& state) {
    const auto number = [&](const std::string& name) {
        const auto place =
            std::find_if(state.begin(), state.end(), [&](const auto& entry) { return entry.first == name; });
        if (place == state.end() || !place->second.defined() || place->second.size() != 1) {
            fail(where("ornik::PlateauSchedule"), "load_state(): ", name, " is not there as a number.");
        }
        return place->second;
    };
    const double best = number("best").item<double>();
    const auto bad = number("bad").item<std::int64_t>();
    cooling_ = number("cooling").item<std::int64_t>();
    best_ = best;
    bad_ = bad;
}

}  // namespace ornik
