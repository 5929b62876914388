// progress.h: one line per epoch, redrawn in place on a terminal.
#pragma once

#include <chrono>
#include <cstdint>

class Progress {
  public:
    Progress(int epochs, std::int64_t images_per_epoch);

    void start_epoch(int epoch);
    /// After each step: images done in this epoch, and the mean loss over them.
    void update(std::int64_t images, double mean_loss);
    void finish_epoch(double mean_loss);

  private:
    using Clock = std::chrono::steady_clock;

    int epochs_;
    std::int64_t images_per_epoch_;
    bool terminal_;
    int epoch_ = 0;
    Clock::time_point start_;
    Clock::time_point epoch_start_;
    Clock::time_point last_drawn_;
};
