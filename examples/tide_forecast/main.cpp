// Trains an LSTM on the water level of a harbour, hour by hour, and draws its forecast beside what came.
//
// The level is made up: the five largest constituents of a tide, with their true periods, and weather that wanders. The
// same seed gives the same picture on every run, whatever the number of threads or processors.
#include <ornik.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <numbers>

#include "chart.h"

namespace {

using ornik::KTensor;
using ornik::Slice;

constexpr std::int64_t hours = 2 * 365 * 24;  // of the record; the last tenth is not trained on
constexpr std::int64_t seen = 72;             // hours of a window

struct Options {
    int steps = 400;
    int batch = 32;
    int hidden = 48;
    int horizon = 24;
    float learning_rate = 0.01F;
    std::uint32_t seed = 1;
};

// In metres, [hours].
KTensor water_level() {
    struct Constituent {
        double period, height, phase;
    };
    const KTensor time = KTensor::arange(0, hours, 1, ornik::dtype::float64);
    KTensor level = KTensor::zeros({hours}, ornik::dtype::float64);
    for (const Constituent c : {Constituent{12.4206, 1.2, 0.3},
                                {12.0, 0.4, 1.1},
                                {12.6583, 0.25, 2.0},
                                {23.9345, 0.15, 0.7},
                                {25.8193, 0.1, 1.9}}) {
        level += c.height * cos(time * (2 * std::numbers::pi / c.period) + c.phase);
    }
    // Each hour keeps most of the last one's surge.
    const std::vector<double> gusts = KTensor::randn({hours}, ornik::dtype::float64, 0, 0.03).to_vector<double>();
    const std::span<double> elements = level.mutable_span<double>();
    double surge = 0;
    for (std::size_t hour = 0; hour < elements.size(); ++hour) {
        surge = 0.98 * surge + gusts[hour];
        elements[hour] += surge;
    }
    return astype(level, ornik::dtype::float32);
}

// From levels [N, hours] to the levels of the next hours, [N, horizon], as what they differ from the last one.
struct Forecaster : ornik::Module {
    Forecaster(std::int64_t width, std::int64_t horizon)
        : lstm(add("lstm", ornik::LSTM(1, width, {.batch_first = true}))),
          next(add("next", ornik::Linear(width, horizon))) {}

    KTensor forward(const KTensor& levels) override {
        const KTensor states = lstm(unsqueeze(levels, -1));
        return slice(levels, 1, Slice(-1)) + next(select(states, 1, -1));
    }

    ornik::Part<ornik::LSTM> lstm;
    ornik::Part<ornik::Linear> next;
};

// Windows of the record from each start on: what is seen, and what comes behind it.
struct Windows {
    KTensor seen;
    KTensor next;
};

Windows windows(const KTensor& level, const KTensor& starts, std::int64_t horizon) {
    const KTensor all = take(level, unsqueeze(starts, 1) + KTensor::arange(seen + horizon));
    return {slice(all, 1, Slice(0, seen)), slice(all, 1, Slice(seen))};
}

void train(ornik::Module& model, const KTensor& level, const Options& options) {
    ornik::Adam optimizer(model.parameters());
    ornik::OneCycleSchedule schedule(optimizer, options.learning_rate, options.steps);
    const std::int64_t last = level.size() - seen - options.horizon;
    for (int step = 1; step <= options.steps; ++step) {
        const auto [levels, next] = windows(level, KTensor::randint(0, last, {options.batch}), options.horizon);
        optimizer.zero_grad();
        const KTensor loss = mse_loss(model(levels), next);
        loss.backward();
        clip_grad_norm(model.parameters(), 1);
        optimizer.step();
        schedule.step();
        if (step % 50 == 0 || step == options.steps || step == 1) {
            std::printf("step %4d   error %.3f m\n", step, sqrt(loss).item<double>());
            std::fflush(stdout);
        }
    }
}

void report(ornik::Module& model, const KTensor& level, const Options& options) {
    const ornik::NoGrad values_alone;
    const KTensor starts = KTensor::arange(0, static_cast<double>(level.size() - seen - options.horizon), 24);
    const auto [levels, next] = windows(level, starts, options.horizon);
    const KTensor forecast = model(levels);
    std::printf(
        "\nOn %lld days that it has not seen, the forecast is off by %.3f m; the level of a day ago by %.3f m.\n",
        static_cast<long long>(starts.size()), sqrt(mse_loss(forecast, next)).item<double>(),
        sqrt(mse_loss(slice(levels, 1, Slice(-options.horizon)), next)).item<double>());
    std::printf(
        "\nThe level in metres: '.' as it came, 'o' as forecast at the beginning of the o's\n\n%s\n",
        chart(ornik::concat({levels[0], next[0]}, 0).to_vector<float>(), '.', forecast[0].to_vector<float>(), 'o', 15)
            .c_str());
}

void run(const Options& options) {
    ornik::set_random_seed(options.seed);
    const KTensor level = water_level();
    Forecaster model(options.hidden, options.horizon);
    std::printf("%lld hours of water level; %lld weights; %d steps of %d windows of %lld hours\n",
                static_cast<long long>(hours), static_cast<long long>(model.parameter_count()), options.steps,
                options.batch, static_cast<long long>(seen));
    const std::int64_t known = hours * 9 / 10;
    train(model, slice(level, 0, Slice(0, known)), options);
    report(model, slice(level, 0, Slice(known)), options);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app("Trains an LSTM on the water level of a harbour and draws its forecast.");
    app.add_option("--steps", options.steps, "Training steps")->check(CLI::Range(1, 1000000))->capture_default_str();
    app.add_option("--batch", options.batch, "Windows per step")->check(CLI::Range(1, 4096))->capture_default_str();
    app.add_option("--hidden", options.hidden, "Width of the LSTM")->check(CLI::Range(1, 4096))->capture_default_str();
    app.add_option("--horizon", options.horizon, "Hours to forecast")
        ->check(CLI::Range(1, static_cast<int>(seen)))
        ->capture_default_str();
    app.add_option("--lr", options.learning_rate, "Highest learning rate")
        ->check(CLI::Range(0.0F, 1.0F))
        ->capture_default_str();
    app.add_option("--seed", options.seed, "Seed of weather, weights and windows")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tide_forecast: %s\n", error.what());
        return 1;
    }
    return 0;
}
