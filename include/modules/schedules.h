// schedules.h: learning rates over time.
//
//     WarmupSchedule schedule(optimizer, 0.1, 1, 500);
//     for (...) {
//         optimizer.step();
//         schedule.step();
//     }
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "optimizer.h"

namespace ornik {

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

/// Up to `max_lr` and down again along cosines (Smith and Topin, 2018): the rates of `total` training steps, with a
/// step() after each. A further step() is an error.
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

/// base factor(t), for any other formula.
class ORNIK_API LambdaSchedule : public Schedule {
  public:
    LambdaSchedule(Optimizer& optimizer, std::function<double(std::int64_t)> factor);

  protected:
    double rate(double base, std::int64_t steps) const override;

  private:
    std::function<double(std::int64_t)> factor_;
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
    /// "best", "bad" and "cooling", for a checkpoint; and back, all three.
    [[nodiscard]] NamedTensors state() const;
    void load_state(const NamedTensors& state);

  private:
    Optimizer& optimizer_;
    PlateauOptions options_;
    double best_;
    std::int64_t bad_ = 0;
    std::int64_t cooling_ = 0;
};

}  // namespace ornik
