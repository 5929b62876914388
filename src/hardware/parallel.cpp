#include "hardware/parallel.h"

#include <omp.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "hardware/fork.h"
#include "hardware/system_limits.h"
#include "hardware/thread_config.h"
#include "hardware/workers.h"
#include "utils/error.h"

namespace ornik {

namespace {

std::atomic<int> configured_team_size{4};

// True in a child whose parent had workers. The runtime would wait for them for ever.
std::atomic<bool> workers_are_lost{false};

// Pieces of one worker's share.
constexpr std::int64_t most_pieces = 8;
constexpr std::size_t cache_line = 64;

// Pieces taken so far, by whomever. Each on a cache line of its own.
struct alignas(cache_line) Share {
    std::atomic<std::int64_t> taken{0};
};

// The error of the lowest range.
class FirstError {
  public:
    void keep(std::int64_t begin, std::exception_ptr error) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!error_ || begin < begin_) {
            begin_ = begin;
            error_ = std::move(error);
        }
    }
    void rethrow() const {
        if (error_) {
            std::rethrow_exception(error_);
        }
    }

  private:
    std::mutex mutex_;
    std::int64_t begin_ = 0;
    std::exception_ptr error_;
};

// What a region's workers share: small, since it comes from the caller's processor to theirs before they can begin.
struct Cut {
    detail::RangeFunction run;
    void* context;
    std::int64_t n;
    std::int64_t unit;
    std::int64_t units;
    std::int64_t blocks;
    std::int64_t pieces;  // of a worker's share
    int workers;
    FirstError* error;

    std::int64_t unit_begin(int worker) const { return worker * blocks / workers * units / blocks; }

    void run_piece(int worker, std::int64_t piece) const {
        const std::int64_t first = unit_begin(worker);
        const std::int64_t count = unit_begin(worker + 1) - first;
        const std::int64_t begin = (first + piece * count / pieces) * unit;
        const std::int64_t last = first + (piece + 1) * count / pieces;
        const std::int64_t end = last == units ? n : last * unit;
        if (begin == end) {
            return;
        }
        try {
            run(context, begin, end);
        } catch (...) {
            error->keep(begin, std::current_exception());
        }
    }
};

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

int parallel_workers() {
    const bool are_there = omp_in_parallel() == 0 && !workers_are_lost.load(std::memory_order_relaxed);
    return are_there ? std::min(omp_get_max_threads(), usable_processors()) : 1;
}

void detail::parallel_ranges(std::int64_t n, std::int64_t unit, std::int64_t grain, RangeFunction run, void* context) {
    if (n <= 0) {
        return;
    }
    const std::int64_t units = n / unit;  // A part of a unit at the end belongs to the last block.
    const auto workers =
        static_cast<int>(n < grain || n <= unit ? 1 : std::min<std::int64_t>(units, parallel_workers()));
    if (workers <= 1) {
        run(context, 0, n);
        return;
    }
    // A cap keeps block * units below within 64 bits; no machine has more threads.
    const std::int64_t blocks = std::min(omp_get_max_threads(), 1 << 16);
    [[maybe_unused]] static const bool told = [] {
        call_in_forked_children([] { workers_are_lost.store(true, std::memory_order_relaxed); });
        return true;
    }();
    FirstError error;
    const std::int64_t pieces = std::clamp<std::int64_t>(n / workers / std::max(grain / 2, unit), 1, most_pieces);
    const Cut cut{run, context, n, unit, units, blocks, pieces, workers, &error};
    // Room for few on the stack: a region may be shorter than the way to memory for it.
    std::array<Share, 8> few;
    std::vector<Share> many(static_cast<std::size_t>(workers) > few.size() ? static_cast<std::size_t>(workers) : 0);
    Share* const shares = many.empty() ? few.data() : many.data();
#pragma omp parallel num_threads(workers) default(none) firstprivate(cut, shares)
    {
        const int own = omp_get_thread_num();
        if (cut.pieces == 1 && omp_get_num_threads() == cut.workers) {
            cut.run_piece(own, 0);  // There is nothing that another could take.
        } else {
            // A worker's own share first. The runtime may grant fewer threads than asked for: their shares are what the
            // others find.
            for (int turn = 0; turn < cut.workers; ++turn) {
                const int worker = (own + turn) % cut.workers;
                Share& share = shares[worker];
                for (std::int64_t piece = share.taken++; piece < cut.pieces; piece = share.taken++) {
                    cut.run_piece(worker, piece);
                }
            }
        }
    }
    error.rethrow();
}

}  // namespace ornik
