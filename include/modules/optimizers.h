// optimizers.h: optimizers over lists of parameters, clipping, and schedules of the learning rate.
//
//     Adam optimizer(network.parameters(), {.lr = 1e-3});
//     for (...) {
//         optimizer.zero_grad();
//         loss.backward();
//         clip_grad_norm(network.parameters(), 1.0);
//         optimizer.step();
//     }
//
// A parameter without a gradient is left alone, and its own step count does not move. Formulas, and names of the state,
// are those of the large frameworks (optimizers/steps.h); hyper-parameters are single-precision numbers to the steps.
#pragma once

#include <cstdint>
#include <limits>
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
    [[nodiscard]] virtual double momentum(std::size_t group = 0) const;
    virtual void set_momentum(std::size_t group, double momentum);

    /// What the steps have kept, by the number of the parameter over all groups: "3.exp_avg", "3.step".
    [[nodiscard]] NamedTensors state() const;
    /// The same back, copied. Names of no parameter and shapes that do not fit are listed in one error.
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
    void add_group(const std::vector<KTensor>& parameters);
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
            add_group(group.parameters);
            options_.push_back(group.options);
        }
    }

    double learning_rate(std::size_t group = 0) const override { return options_.at(group).lr; }
    void set_learning_rate(std::size_t group, double lr) override { options_.at(group).lr = lr; }
    [[nodiscard]] const Options& options(std::size_t group = 0) const { return options_.at(group); }

  protected:
    std::vector<Options> options_;
};

}  // namespace detail

struct SgdOptions {
    double lr = 1e-3;
    double momentum = 0;
    double dampening = 0;
    double weight_decay = 0;
    bool nesterov = false;
};

class ORNIK_API SGD : public detail::GroupedOptimizer<SgdOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;
    double momentum(std::size_t group = 0) const override { return options_.at(group).momentum; }
    void set_momentum(std::size_t group, double momentum) override { options_.at(group).momentum = momentum; }

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct AdamOptions {
    double lr = 1e-3;
    double beta1 = 0.9;
    double beta2 = 0.999;
    double eps = 1e-8;
    double weight_decay = 0;  ///< added to the gradient; of AdamW taken from the parameter
    bool amsgrad = false;
};

class ORNIK_API Adam : public detail::GroupedOptimizer<AdamOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;
    double momentum(std::size_t group = 0) const override { return options_.at(group).beta1; }
    void set_momentum(std::size_t group, double beta1) override { options_.at(group).beta1 = beta1; }

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

/// Weight decay apart from the gradient; 1e-2 is the usual one.
class ORNIK_API AdamW : public Adam {
  public:
    using Adam::Adam;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct AdamaxOptions {
    double lr = 2e-3;
    double beta1 = 0.9;
    double beta2 = 0.999;
    double eps = 1e-8;
    double weight_decay = 0;
};

class ORNIK_API Adamax : public detail::GroupedOptimizer<AdamaxOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct AdagradOptions {
    double lr = 1e-2;
    double lr_decay = 0;
    double eps = 1e-10;
    double weight_decay = 0;
};

class ORNIK_API Adagrad : public detail::GroupedOptimizer<AdagradOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct AdadeltaOptions {
    double lr = 1;
    double rho = 0.9;
    double eps = 1e-6;
    double weight_decay = 0;
};

class ORNIK_API Adadelta : public detail::GroupedOptimizer<AdadeltaOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

struct RmspropOptions {
    double lr = 1e-2;
    double alpha = 0.99;
    double eps = 1e-8;
    double momentum = 0;
    double weight_decay = 0;
    bool centered = false;
};

class ORNIK_API RMSprop : public detail::GroupedOptimizer<RmspropOptions> {
  public:
    using GroupedOptimizer::GroupedOptimizer;
    double momentum(std::size_t group = 0) const override { return options_.at(group).momentum; }
    void set_momentum(std::size_t group, double momentum) override { options_.at(group).momentum = momentum; }

  protected:
    void update(Slot& slot, const KTensor& gradient) override;
};

// ---- Clipping ----

/// Scales all gradients by max_norm / (norm + 1e-6) where their common norm is above max_norm; gives the norm before.
/// The 2-norm, or with `infinity` the largest magnitude. Parameters without a gradient do not count.
ORNIK_API double clip_grad_norm(const std::vector<KTensor>& parameters, double max_norm, bool infinity = false);
/// Clamps every element to [-bound, bound]. Real dtypes.
ORNIK_API void clip_grad_value(const std::vector<KTensor>& parameters, double bound);

// ---- Schedules ----

/// Sets the learning rates of an optimizer, which has to outlive it, by the number of steps taken. Construction sets
/// those of step 0.
class ORNIK_API Schedule {
  public:
    virtual ~Schedule();
    Schedule(const Schedule&) = delete;
    Schedule& operator=(const Schedule&) = delete;

    void step();
    [[nodiscard]] std::int64_t steps() const { return steps_; }
    /// Goes on from another number of steps, as after loading a checkpoint.
    void set_steps(std::int64_t steps);

  protected:
    explicit Schedule(Optimizer& optimizer);
    /// The learning rate of a group whose first one was `base`.
    [[nodiscard]] virtual double rate(double base, std::int64_t steps) const = 0;
    virtual void apply();

    Optimizer& optimizer_;
    std::int64_t steps_ = 0;
    std::vector<double> base_;
};

/// base gamma^floor(t / size)
class ORNIK_API StepSchedule : public Schedule {
  public:
    StepSchedule(Optimizer& optimizer, std::int64_t size, double gamma = 0.1);

  protected:
    double rate(double base, std::int64_t steps) const override;

  private:
    std::int64_t size_;
    double gamma_;
};

/// min + (base - min) (1 + cos(pi t / total)) / 2
class ORNIK_API CosineSchedule : public Schedule {
  public:
    CosineSchedule(Optimizer& optimizer, std::int64_t total, double min = 0);

  protected:
    double rate(double base, std::int64_t steps) const override;

  private:
    std::int64_t total_;
    double min_;
};

/// base (start + (end - start) min(t, total) / total)
class ORNIK_API WarmupSchedule : public Schedule {
  public:
    explicit WarmupSchedule(Optimizer& optimizer, double start = 1.0 / 3, double end = 1, std::int64_t total = 5);

  protected:
    double rate(double base, std::int64_t steps) const override;

  private:
    double start_;
    double end_;
    std::int64_t total_;
};

struct OneCycleOptions {
    double rising = 0.3;           ///< part of the steps
    double initial_division = 25;  ///< the first rate is max over this
    double final_division = 1e4;   ///< the last rate is the first over this
    bool cycle_momentum = true;    ///< the momentum runs the other way
    double base_momentum = 0.85;
    double max_momentum = 0.95;
};

/// Up to `max_lr` and down again along cosines (Smith and Topin, 2018). More than `total` steps are an error.
class ORNIK_API OneCycleSchedule : public Schedule {
  public:
    OneCycleSchedule(Optimizer& optimizer, double max_lr, std::int64_t total, const OneCycleOptions& options = {});

  protected:
    double rate(double base, std::int64_t steps) const override;
    void apply() override;

  private:
    double max_lr_;
    std::int64_t total_;
    OneCycleOptions options_;
};

struct PlateauOptions {
    double factor = 0.1;
    std::int64_t patience = 10;
    double threshold = 1e-4;  ///< relative
    std::int64_t cooldown = 0;
    double min_lr = 0;
    bool maximize = false;
};

/// Cuts the rates when a measure has not got better for more than `patience` calls.
class ORNIK_API PlateauSchedule {
  public:
    explicit PlateauSchedule(Optimizer& optimizer, const PlateauOptions& options = {});
    void step(double measure);

  private:
    Optimizer& optimizer_;
    PlateauOptions options_;
    double best_;
    std::int64_t bad_ = 0;
    std::int64_t cooling_ = 0;
};

}  // namespace ornik
