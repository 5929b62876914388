// dynamic_mem_pool.cpp: taking and giving back buffers. The dump is in dynamic_mem_pool_dump.cpp.
#include "hardware/dynamic_mem_pool.h"

#include <algorithm>

#include "hardware/memory_poison.h"
#include "utils/error.h"
#include "utils/logging.h"

namespace ornik::device {

namespace {

constexpr std::uint64_t granularity = 512;
constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;
constexpr std::uint64_t largest_small_request = mebibyte;
constexpr std::uint64_t small_block = 2 * mebibyte;
constexpr std::uint64_t shared_large_block = 20 * mebibyte;
constexpr std::uint64_t own_block_request = 10 * mebibyte;
constexpr std::uint64_t own_block_unit = 2 * mebibyte;

std::uint64_t round_up(std::uint64_t bytes, std::uint64_t unit) { return (bytes + unit - 1) / unit * unit; }

std::uint64_t block_size_for(std::uint64_t size) {
    if (size <= largest_small_request) {
        return small_block;
    }
    return size < own_block_request ? shared_large_block : round_up(size, own_block_unit);
}

void check_not_null(const void* pointer, const Where& at, const char* text) {
    if (pointer == nullptr) {
        fail(ErrorKind::memory, at, text);
    }
}

}  // namespace

std::uint64_t DynamicMemPool::AlignMemorySize(std::uint64_t bytes) const {
    return std::max(granularity, round_up(bytes, granularity));
}

void* DynamicMemPool::AllocTensorMem(std::uint64_t bytes) {
    const Where at = where("AllocTensorMem");
    constexpr std::uint64_t largest_request = std::uint64_t{1} << 62;
    if (bytes > largest_request) {
        fail(ErrorKind::memory, at, "Memory not enough: alloc size[0]MB is smaller than required size[", bytes >> 20,
             "]MB.");
    }
    const std::uint64_t size = AlignMemorySize(bytes);
    const PoolKind kind = size <= largest_small_request ? PoolKind::small : PoolKind::large;
    const std::lock_guard<std::mutex> lock(mutex_);
    DynamicMemBufPtr buf = FindIdleMemBuf(kind, size);
    if (!buf) {
        buf = AddMemBlockAndMemBuf(kind, block_size_for(size), size);
    }
    // No room for a whole block. The idle map can not have changed, but it is asked before the device is
    // once more.
    if (!buf) {
        buf = FindIdleMemBuf(kind, size);
    }
    if (!buf) {
        buf = AddMemBlockAndMemBuf(kind, size, size);
    }
    if (!buf) {
        ReleaseIdleBlocks();
        buf = AddMemBlockAndMemBuf(kind, size, size);
    }
    if (!buf) {
        DumpUnlocked();
        fail(ErrorKind::memory, at, "Memory not enough: alloc size[0]MB is smaller than required size[", size >> 20,
             "]MB.");
    }
    unpoison_memory(buf->device_addr, bytes);
    return buf->device_addr;
}

// A buf of `size` bytes from the idle map, marked used; null when none is large enough.
DynamicMemBufPtr DynamicMemPool::FindIdleMemBuf(PoolKind kind, std::uint64_t size) {
    const Where at = where("FindIdleMemBuf");
    Pool& pool = pool_of(kind);
    const auto found = pool.idle_bufs.lower_bound({size, nullptr});
    if (found == pool.idle_bufs.end()) {
        return nullptr;
    }
    const DynamicMemBufPtr buf = found->second;
    check_not_null(buf.get(), at, "mem_buf == nullptr\n");
    if (buf->status != BufStatus::idle) {
        fail(ErrorKind::memory, at, "Find the mem_buf is not idle, alloc_size[", size, "] mem_buf_size[", buf->size,
             "].");
    }
    if (buf->size > size) {
        SplitMemBuf(buf, size);
    } else {
        pool.idle_bufs.erase(found);
    }
    buf->status = BufStatus::used;
    pool.used += size;
    pool.idle -= size;
    return buf;
}

// Cuts an idle buf in two: `buf` keeps the first `size` bytes and leaves the idle map, the rest takes its
// entry there. All that can fail comes before the first change.
void DynamicMemPool::SplitMemBuf(const DynamicMemBufPtr& buf, std::uint64_t size) {
    const Where at = where("SplitMemBuf");
    check_not_null(buf.get(), at, "mem_buf == nullptr\n");
    Pool& pool = pool_of(buf->kind);
    const DynamicMemBlockPtr block = FindMemBlock(buf->device_addr);
    check_not_null(block.get(), at, "mem_block == nullptr\n");
    const auto rest = std::make_shared<DynamicMemBuf>(
        DynamicMemBuf{buf->device_addr + size, BufStatus::idle, buf->kind, buf->size - size});
    block->bufs.emplace(rest->device_addr, rest);
    MoveIdleEntry(pool, buf, rest, rest->size);
    buf->size = size;
}

// The idle entry of `from` becomes that of `to`, which has, or is about to have, `size` bytes. Allocates
// nothing.
void DynamicMemPool::MoveIdleEntry(Pool& pool, const DynamicMemBufPtr& from, const DynamicMemBufPtr& to,
                                   std::uint64_t size) {
    auto entry = pool.idle_bufs.extract({from->size, from->device_addr});
    if (entry.empty()) {
        fail(ErrorKind::memory, where("EraseIdleMemBuf"), "Can't find the size[", from->size,
             "] pointer in the idle mem_buf.");
    }
    entry.key() = {size, to->device_addr};
    entry.mapped() = to;
    pool.idle_bufs.insert(std::move(entry));
}

// A new block with one idle buf, of which `size` bytes are handed out; null when the device refuses.
DynamicMemBufPtr DynamicMemPool::AddMemBlockAndMemBuf(PoolKind kind, std::uint64_t block_size, std::uint64_t size) {
    const Where at = where("_AddMemBlockAndMemBuf()");
    if (!CheckAllocSize(block_size)) {
        return nullptr;
    }
    const auto block = std::make_shared<DynamicMemBlock>(DynamicMemBlock{nullptr, block_size, kind, {}});
    const auto buf = std::make_shared<DynamicMemBuf>(DynamicMemBuf{nullptr, BufStatus::idle, kind, block_size});
    char* address = static_cast<char*>(AllocDeviceMem(block_size));
    if (address == nullptr) {
        return nullptr;
    }
    block->device_addr = address;
    buf->device_addr = address;
    Pool& pool = pool_of(kind);
    block->bufs.emplace(address, buf);
    if (!pool.blocks.emplace(address, block).second) {
        fail(ErrorKind::memory, at, "diter.first->second == nullptr\n");
    }
    pool.idle_bufs.emplace(IdleKey{block_size, address}, buf);
    pool.total += block_size;
    pool.idle += block_size;
    poison_memory(address, block_size);
    return FindIdleMemBuf(kind, size);
}

bool DynamicMemPool::CheckAllocSize(std::uint64_t bytes) const {
    const std::uint64_t available = FreeDeviceMemSize();
    if (available >= bytes) {
        return true;
    }
    WarningMsg("Memory not enough: current free memory size[" + std::to_string(available >> 20) +
                   "] MB is smaller than required size[" + std::to_string(bytes >> 20) + "]MB.",
               location_text(where("CheckAllocSize")));
    return false;
}

void DynamicMemPool::FreeTensorMem(void* address) {
    const Where at = where("FreeTensorMem");
    check_not_null(address, at, "device_addr == nullptr\n");
    char* const device_addr = static_cast<char*>(address);
    const std::lock_guard<std::mutex> lock(mutex_);
    const DynamicMemBlockPtr block = FindMemBlock(device_addr);
    check_not_null(block.get(), at, "Can't find the device address .");
    const auto found = block->bufs.find(device_addr);
    if (found == block->bufs.end()) {
        fail(ErrorKind::memory, at, "Can't find the device address .");
    }
    const DynamicMemBufPtr buf = found->second;
    if (buf->status != BufStatus::used) {
        fail(ErrorKind::memory, at, "Find the mem_buf is not used.");
    }
    Pool& pool = pool_of(buf->kind);
    const std::uint64_t size = buf->size;
    CombineMemBuf(block, buf);
    pool.used -= size;
    pool.idle += size;
    poison_memory(address, size);
}

// The block that contains the address; null when there is none.
DynamicMemBlockPtr DynamicMemPool::FindMemBlock(char* address) {
    check_not_null(address, where("FindMemBlock"), "address is nullptr.");
    for (const Pool* pool : {&small_, &large_}) {
        auto next = pool->blocks.upper_bound(address);
        if (next == pool->blocks.begin()) {
            continue;
        }
        const DynamicMemBlockPtr& block = std::prev(next)->second;
        if (address < block->device_addr + block->size) {
            return block;
        }
    }
    return nullptr;
}

// Marks a used buf idle and merges it with its idle neighbours, whose entry in the idle map it takes over.
void DynamicMemPool::CombineMemBuf(const DynamicMemBlockPtr& block, const DynamicMemBufPtr& buf) {
    const Where at = where("CombineMemBuf");
    check_not_null(block.get(), at, "mem_block == nullptr\n");
    check_not_null(buf.get(), at, "mem_buf == nullptr\n");
    Pool& pool = pool_of(buf->kind);
    const auto self = block->bufs.find(buf->device_addr);
    const auto next = std::next(self);
    const bool joins_next = next != block->bufs.end() && next->second->status == BufStatus::idle;
    const bool joins_previous = self != block->bufs.begin() && std::prev(self)->second->status == BufStatus::idle;
    const std::uint64_t size = buf->size + (joins_next ? next->second->size : 0);
    if (joins_previous) {
        const DynamicMemBufPtr previous = std::prev(self)->second;
        check_not_null(previous.get(), at, "prev_mem_buf == nullptr\n");
        if (joins_next) {
            EraseIdleMemBuf(next->second);
            block->bufs.erase(next);
        }
        MoveIdleEntry(pool, previous, previous, previous->size + size);
        previous->size += size;
        block->bufs.erase(self);
        return;
    }
    if (joins_next) {
        check_not_null(next->second.get(), at, "next_mem_buf == nullptr\n");
        MoveIdleEntry(pool, next->second, buf, size);
        block->bufs.erase(next);
    } else {
        pool.idle_bufs.emplace(IdleKey{size, buf->device_addr}, buf);
    }
    buf->status = BufStatus::idle;
    buf->size = size;
}

void DynamicMemPool::EraseIdleMemBuf(const DynamicMemBufPtr& buf) {
    const Where at = where("EraseIdleMemBuf");
    check_not_null(buf.get(), at, "mem_buf == nullptr\n");
    if (pool_of(buf->kind).idle_bufs.erase({buf->size, buf->device_addr}) == 0) {
        fail(ErrorKind::memory, at, "Can't find the size[", buf->size, "] pointer in the idle mem_buf.");
    }
}

void DynamicMemPool::ReleaseDeviceRes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ReleaseIdleBlocks();
}

void DynamicMemPool::ReleaseIdleBlocks() {
    const Where at = where("ReleaseDeviceRes");
    for (Pool* pool : {&large_, &small_}) {
        for (auto entry = pool->blocks.begin(); entry != pool->blocks.end();) {
            const DynamicMemBlockPtr block = entry->second;
            check_not_null(block.get(), at, "mem_block == nullptr\n");
            const DynamicMemBufPtr first = block->bufs.begin()->second;
            if (first->status != BufStatus::idle || first->size != block->size) {
                ++entry;
                continue;
            }
            unpoison_memory(block->device_addr, block->size);
            if (!FreeDeviceMem(block->device_addr, block->size)) {
                poison_memory(block->device_addr, block->size);
                fail(ErrorKind::memory, at, "Free device memory error.");
            }
            EraseIdleMemBuf(first);
            pool->total -= block->size;
            pool->idle -= block->size;
            entry = pool->blocks.erase(entry);
        }
    }
}

}  // namespace ornik::device
