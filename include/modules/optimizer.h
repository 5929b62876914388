// optimizer.h: what all optimizers share: groups of parameters, steps, state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "../ktensor/ktensor.h"
#include "module.h"

namespace ornik {

/// Parameters with options of their own.
template <typename Options>
struct ParameterGroup {
    std::vector<KTensor> parameters;
    Options options;
};

class ORNIK_API Optimizer {
  public:
    virtual ~Optimizer();
    Optimizer(const Optimizer&) = delete;
    Optimizer& operator=(const Optimizer&) = delete;

    /// One step for every parameter that has a gradient.
    void step();
    /// Drops all gradients.
    void zero_grad();

    [[nodiscard]] std::size_t group_count() const { return group_sizes_.size(); }
    [[nodiscard]] virtual double learning_rate(std::size_t group = 0) const = 0;
    virtual void set_learning_rate(std::size_t group, double lr) = 0;
    /// The momentum, or Adam's beta1; refused by optimizers without one.
    [[nodiscard]] virtual double momentum(std::size_t group = 0) const = 0;
    virtual void set_momentum(std::size_t group, double momentum) = 0;
    [[nodiscard]] virtual bool has_momentum() const = 0;

    /// What the steps have kept, by the number of the parameter over all groups: "3.exp_avg", "3.step"; and what
    /// schedules change, by the group: "groups.0.lr", "groups.0.momentum".
    [[nodiscard]] NamedTensors state() const;
    /// The same back, copied; entries of groups may be missing. Names of no parameter and shapes that do not fit are
    /// listed in one error.
    void load_state(const NamedTensors& state);

  protected:
    /// The kept tensors of one parameter, by name, and how often it was stepped.
    struct Slot {
        KTensor parameter;
        std::size_t group = 0;
        std::int64_t steps = 0;
        NamedTensors kept;
    };

    Optimizer() = default;
    void add_group(const std::vector<KTensor>& parameters, double lr, double weight_decay);
    void check_group(std::size_t group) const;
    [[noreturn]] static void refuse_momentum();
    /// steps counts from 1.
    virtual void update(Slot& slot, const KTensor& gradient) = 0;
    /// The slot's tensor of that name, made of zeros like the parameter on first use.
    static Tensor* kept(Slot& slot, const char* name);

  private:
    std::vector<Slot> slots_;
    std::vector<std::size_t> group_sizes_;
};

namespace detail {

/// What all optimizers do with their groups' options.
template <typename Options>
class GroupedOptimizer : public Optimizer {
  public:
    explicit GroupedOptimizer(const std::vector<KTensor>& parameters, const Options& options = {})
        : GroupedOptimizer(std::vector<ParameterGroup<Options>>{{parameters, options}}) {}
    explicit GroupedOptimizer(const std::vector<ParameterGroup<Options>>& groups) {
        for (const ParameterGroup<Options>& group : groups) {
            add_group(group.parameters, group.options.lr, group.options.weight_decay);
            options_.push_back(group.options);
        }
    }

    [[nodiscard]] const Options& options(std::size_t group = 0) const {
        check_group(group);
        return options_[group];
    }
    double learning_rate(std::size_t group = 0) const override { return options(group).lr; }
    void set_learning_rate(std::size_t group, double lr) override {
        check_group(group);
        options_[group].lr = lr;
    }
    bool has_momentum() const override {
        return requires(Options o) { o.momentum; }
        || requires(Options o) { o.beta1; };
    }
    double momentum(std::size_t group = 0) const override { return momentum_of(options(group)); }
    void set_momentum(std::size_t group, double momentum) override {
        check_group(group);
        momentum_of(options_[group]) = momentum;
    }

  protected:
    std::vector<Options> options_;

  private:
    template <typename O>
    static auto& momentum_of(O& options) {
        if constexpr (requires { options.momentum; }) {
            return options.momentum;
        } else if constexpr (requires { options.beta1; }) {
            return options.beta1;
        } else {
            refuse_momentum();
            return options.lr;
        }
    }
};

}  // namespace detail

}  // namespace ornik
