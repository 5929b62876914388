// dynamic_mem_pool_dump.cpp: the pool's totals as text, and the checks over them.
#include <algorithm>
#include <string>

#include "hardware/dynamic_mem_pool.h"
#include "utils/error.h"
#include "utils/logging.h"

namespace ornik::device {

namespace {

constexpr const char* separator = "\n\n##########################################\n\n";

std::string in_mebibytes(std::uint64_t bytes) { return std::to_string(bytes >> 20); }

void print(const std::string& line) { InfoMsg(line, ""); }

// The lines of one pool. Both pools print their idle bufs under the same label.
void print_pool(const std::string& name, const DynamicMemPool::Totals& totals) {
    print("\n\n" + name + " pool total_used_mem memory " + in_mebibytes(totals.used) + "MB.");
    print(name + " pool total_idle_mem memory " + in_mebibytes(totals.idle) + "MB.");
    print(name + " pool block counts " + std::to_string(totals.blocks));
    print(name + " pool idle block counts " + std::to_string(totals.idle_blocks));
    print("large pool idle membuf counts " + std::to_string(totals.idle_bufs));
}

}  // namespace

DynamicMemPool::Totals DynamicMemPool::totals_unlocked(PoolKind kind) const {
    const Pool& pool = pool_of(kind);
    Totals totals{pool.used, pool.idle, pool.blocks.size(), 0, pool.idle_bufs.size()};
    for (const auto& [address, block] : pool.blocks) {
        totals.idle_blocks += block.first->status == BufStatus::idle && block.first->size == block.size ? 1 : 0;
    }
    return totals;
}

DynamicMemPool::Totals DynamicMemPool::totals(PoolKind kind) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return totals_unlocked(kind);
}

std::uint64_t DynamicMemPool::used() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return large_.used + small_.used;
}

std::uint64_t DynamicMemPool::peak() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return peak_;
}

void DynamicMemPool::reset_peak() {
    const std::lock_guard<std::mutex> lock(mutex_);
    peak_ = large_.used + small_.used;
}

void DynamicMemPool::DumpDynamicMemPoolInfo() {
    const std::lock_guard<std::mutex> lock(mutex_);
    DumpUnlocked();
}

void DynamicMemPool::DumpUnlocked() const {
    const Where at = where("DumpDynamicMemPoolInfo");
    print(separator);
    print_pool("large", totals_unlocked(PoolKind::large));
    print_pool("small", totals_unlocked(PoolKind::small));
    print("device_free_mem_size[" + in_mebibytes(FreeDeviceMemSize()) + "]MB.");
    std::uint64_t total = 0;
    std::uint64_t used = 0;
    std::uint64_t idle = 0;
    std::uint64_t idle_in_blocks = 0;
    for (const Pool* pool : {&large_, &small_}) {
        total += pool->total;
        used += pool->used;
        idle += pool->idle;
        for (const auto& [address, block] : pool->blocks) {
            for (const DynamicMemBuf* buf = block.first; buf != nullptr; buf = buf->next) {
                idle_in_blocks += buf->status == BufStatus::idle ? buf->size : 0;
            }
        }
    }
    print("Total allocated memory[" + in_mebibytes(total) + "]MB , used memory[" + in_mebibytes(used) +
          "]MB , idle memory[" + in_mebibytes(idle) + "]MB .");
    if (idle_in_blocks != idle) {
        fail(ErrorKind::memory, at,
             "Check error: the idle memory in the mem_block is not equal the global idle memory.");
    }
    if (total != used + idle) {
        fail(ErrorKind::memory, at,
             "Check error: the the total memory is not equal the sum of used memory and idle memory.");
    }
    print(separator);
}

}  // namespace ornik::device
