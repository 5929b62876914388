// progress.h: one line per epoch, redrawn in place on a terminal.
#pragma once

#include <chrono>
#include <cstdint>

class Progress {
  public:
    Progress(int epochs, std::int64_t images_per_epoch);
    void start_epoch(int epoch);
    /// After each step: the images of its batch, and their mean loss.
    void update(std::int64_t images, double loss);
    void finish_epoch();

  private:
    using Clock = std::chrono::steady_clock;

    double mean_loss() const { return loss_sum_ / static_cast<double>(images_); }

    int epochs_;
    std::int64_t images_per_epoch_;
    bool terminal_;
    int epoch_ = 0;
    std::int64_t images_ = 0;  // done in this epoch
    double loss_sum_ = 0;      // of all of them
    Clock::time_point start_;
    Clock::time_point epoch_start_;
    Clock::time_point last_drawn_;
};
