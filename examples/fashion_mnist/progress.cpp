#include "progress.h"

#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

constexpr int bar_width = 24;

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

Progress::Progress(int epochs, std::int64_t images_per_epoch)
    : epochs_(epochs),
      images_per_epoch_(images_per_epoch),
      terminal_(isatty(STDOUT_FILENO) != 0),
      start_(Clock::now()) {}

void Progress::start_epoch(int epoch) {
    epoch_ = epoch;
    images_ = 0;
    loss_sum_ = 0;
    epoch_start_ = Clock::now();
    last_drawn_ = {};
}

void Progress::update(std::int64_t images, double loss) {
    images_ += images;
    loss_sum_ += static_cast<double>(images) * loss;
    if (!terminal_ || Clock::now() - last_drawn_ < std::chrono::milliseconds(100)) {
        return;
    }
    last_drawn_ = Clock::now();
    const double done = static_cast<double>((epoch_ - 1) * images_per_epoch_ + images_);
    const double rate = done / seconds_since(start_);
    const double left = (static_cast<double>(epochs_ * images_per_epoch_) - done) / rate;
    const auto filled = static_cast<std::size_t>(bar_width * images_ / images_per_epoch_);
    const std::string bar = std::string(filled, '#') + std::string(bar_width - filled, '.');
    std::printf("\repoch %d/%d [%s] loss %.4f  %.0f images/s  %.0f s left ", epoch_, epochs_, bar.c_str(), mean_loss(),
                rate, left);
    std::fflush(stdout);
}

void Progress::finish_epoch() {
    const double rate = static_cast<double>(images_per_epoch_) / seconds_since(epoch_start_);
    const double left = seconds_since(start_) / epoch_ * (epochs_ - epoch_);
    std::printf("%sepoch %d/%d [%s] loss %.4f  %.0f images/s  %.0f s left \n", terminal_ ? "\r" : "", epoch_, epochs_,
                std::string(bar_width, '#').c_str(), mean_loss(), rate, left);
    std::fflush(stdout);
}
