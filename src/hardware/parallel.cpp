#include "hardware/parallel.h"

#include <omp.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <vector>

#include "hardware/system_limits.h"
#include "hardware/thread_config.h"
#include "utils/error.h"

namespace ornik {

namespace {

std::atomic<int> configured_team_size{4};

}  // namespace

void ConfigSetNumThreads(int count) {
    if (count < 1) {
        fail(where("ornik::ConfigSetNumThreads"), "Number of threads should be >= 1, however it equals ", count);
    }
    configured_team_size.store(count, std::memory_order_relaxed);
    apply_team_size();
}

int ConfigGetNumThreads() { return configured_team_size.load(std::memory_order_relaxed); }

void apply_team_size() { omp_set_num_threads(ConfigGetNumThreads()); }

int usable_processors() {
    static const int count = std::max(1, std::min(omp_get_num_procs(), container_processor_limit()));
    return count;
}

void detail::parallel_ranges(std::int64_t n, std::int64_t unit, std::int64_t grain, RangeFunction run, void* context) {
    if (n <= 0) {
        return;
    }
    if (n < grain || n <= unit || omp_in_parallel() != 0) {
        run(context, 0, n);
        return;
    }
    // A cap keeps block * units below within 64 bits; no machine has more threads.
    const std::int64_t blocks = std::min(omp_get_max_threads(), 1 << 16);
    const std::int64_t units = n / unit;  // A part of a unit at the end belongs to the last block.
    const int workers = static_cast<int>(std::min<std::int64_t>({blocks, units, usable_processors()}));
    if (workers <= 1) {
        run(context, 0, n);
        return;
    }
    const auto block_begin = [&](std::int64_t block) { return block == blocks ? n : block * units / blocks * unit; };
    const auto worker_begin = [&](std::int64_t worker) { return block_begin(worker * blocks / workers); };

    std::vector<std::exception_ptr> errors(static_cast<std::size_t>(workers));
    const auto run_worker = [&](int worker) {
        const std::int64_t begin = worker_begin(worker);
        const std::int64_t end = worker_begin(worker + 1);
        if (begin == end) {
            return;
        }
        try {
            run(context, begin, end);
        } catch (...) {
            errors[static_cast<std::size_t>(worker)] = std::current_exception();
        }
    };
#pragma omp parallel num_threads(workers)
    {
        // The runtime may grant fewer threads than asked for: each then serves several shares.
        for (int worker = omp_get_thread_num(); worker < workers; worker += omp_get_num_threads()) {
            run_worker(worker);
        }
    }
    for (const std::exception_ptr& error : errors) {
        if (error) {
            std::rethrow_exception(error);
        }
    }
}

}  // namespace ornik
