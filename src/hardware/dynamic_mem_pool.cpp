// dynamic_mem_pool.cpp: taking and giving back buffers. The dump is in dynamic_mem_pool_dump.cpp.
#include "hardware/dynamic_mem_pool.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>
#include <utility>

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

// The largest multiple stands for what lies beyond it: no device has that much.
std::uint64_t round_up(std::uint64_t bytes, std::uint64_t unit) {
    constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
    return (bytes > most - unit ? most : bytes + unit - 1) / unit * unit;
}

std::uint64_t block_size_for(std::uint64_t size) {
    if (size <= largest_small_request) {
        return small_block;
    }
    return size < own_block_request ? shared_large_block : round_up(size, own_block_unit);
}

bool fits_before(std::uint64_t size_a, const char* address_a, std::uint64_t size_b, const char* address_b) {
    return size_a != size_b ? size_a < size_b : address_a < address_b;
}

void check_not_null(const void* pointer, const Where& at, const char* text) {
    if (pointer == nullptr) {
        fail(ErrorKind::memory, at, text);
    }
}

}  // namespace

bool FitOrder::operator()(const DynamicMemBuf* a, const DynamicMemBuf* b) const noexcept {
    return fits_before(a->size, a->device_addr, b->size, b->device_addr);
}

bool FitOrder::operator()(const DynamicMemBuf* buf, std::uint64_t size) const noexcept { return buf->size < size; }

// ---- Records ----

DynamicMemPool::~DynamicMemPool() {
    for (Pool* pool : {&large_, &small_}) {
        for (auto& [address, block] : pool->blocks) {
            while (DynamicMemBuf* const buf = block.first) {
                block.first = buf->next;
                delete buf;
            }
        }
    }
    while (DynamicMemBuf* const record = spare_records_) {
        spare_records_ = record->next;
        delete record;
    }
}

// Makes sure that TakeRecord succeeds `count` times.
void DynamicMemPool::ReserveRecords(int count) {
    while (spare_count_ < count) {
        auto record = std::make_unique<DynamicMemBuf>();
        IdleBufs made;
        made.insert(record.get());
        record->entry = made.extract(made.begin());
        DropRecord(record.release());
    }
}

DynamicMemBuf* DynamicMemPool::TakeRecord() noexcept {
    DynamicMemBuf* const record = spare_records_;
    spare_records_ = record->next;
    --spare_count_;
    return record;
}

void DynamicMemPool::DropRecord(DynamicMemBuf* buf) noexcept {
    buf->device_addr = nullptr;
    buf->next = spare_records_;
    spare_records_ = buf;
    ++spare_count_;
}

// ---- Taking ----

std::uint64_t DynamicMemPool::AlignMemorySize(std::uint64_t bytes) const {
    return std::max(granularity, round_up(bytes, granularity));
}

void* DynamicMemPool::AllocTensorMem(std::uint64_t bytes) { return TakeBuf(bytes)->device_addr; }

DynamicMemBuf* DynamicMemPool::TakeBuf(std::uint64_t bytes) {
    const std::uint64_t size = AlignMemorySize(bytes);
    const PoolKind kind = size <= largest_small_request ? PoolKind::small : PoolKind::large;
    const std::lock_guard<std::mutex> lock(mutex_);
    DynamicMemBuf* buf = FindIdleMemBuf(kind, size);
    if (buf == nullptr) {
        buf = AddMemBlockAndMemBuf(kind, block_size_for(size), size);
    }
    // No room for a whole block. The idle bufs can not have changed, but they are asked before the device is
    // once more.
    if (buf == nullptr) {
        buf = FindIdleMemBuf(kind, size);
    }
    if (buf == nullptr) {
        buf = AddMemBlockAndMemBuf(kind, size, size);
    }
    if (buf == nullptr) {
        ReleaseIdleBlocks();  // What the device does not take back may still leave room for the request.
        buf = AddMemBlockAndMemBuf(kind, size, size);
    }
    if (buf == nullptr) {
        DumpUnlocked();
        fail(ErrorKind::memory, where("AllocTensorMem"),
             "Memory not enough: alloc size[0]MB is smaller than required size[", size >> 20, "]MB.");
    }
    unpoison_memory(buf->device_addr, bytes);
    return buf;
}

// A buf of `size` bytes from the idle ones, marked used; null when none is large enough.
DynamicMemBuf* DynamicMemPool::FindIdleMemBuf(PoolKind kind, std::uint64_t size) {
    const Where at = where("FindIdleMemBuf");
    Pool& pool = pool_of(kind);
    const auto found = pool.idle_bufs.lower_bound(size);
    if (found == pool.idle_bufs.end()) {
        return nullptr;
    }
    DynamicMemBuf* buf = *found;
    check_not_null(buf, at, "mem_buf == nullptr\n");
    if (buf->status != BufStatus::idle) {
        fail(ErrorKind::memory, at, "Find the mem_buf is not idle, alloc_size[", size, "] mem_buf_size[", buf->size,
             "].");
    }
    if (buf->size > size) {
        buf = SplitMemBuf(buf, size);
    } else {
        EraseIdleMemBuf(buf);
    }
    buf->status = BufStatus::used;
    pool.used += size;
    pool.idle -= size;
    peak_ = std::max(peak_, large_.used + small_.used);
    return buf;
}

// Cuts an idle buf in two and returns the first `size` bytes; the rest stays idle. All that can fail comes before
// the first change.
DynamicMemBuf* DynamicMemPool::SplitMemBuf(DynamicMemBuf* buf, std::uint64_t size) {
    const Where at = where("SplitMemBuf");
    check_not_null(buf, at, "mem_buf == nullptr\n");
    DynamicMemBlock* const block = buf->block;
    check_not_null(block, at, "mem_block == nullptr\n");
    ReserveRecords(1);
    DynamicMemBuf* const front = TakeRecord();
    front->device_addr = buf->device_addr;
    front->kind = buf->kind;
    front->size = size;
    front->block = block;
    front->previous = buf->previous;
    front->next = buf;
    (front->previous != nullptr ? front->previous->next : block->first) = front;
    buf->previous = front;
    MoveIdleMemBuf(pool_of(buf->kind), buf, buf->device_addr + size, buf->size - size);
    return front;
}

// Gives an idle buf other bounds. It often keeps its place between its neighbours in the order: no search then.
void DynamicMemPool::MoveIdleMemBuf(Pool& pool, DynamicMemBuf* buf, char* address, std::uint64_t size) noexcept {
    const auto place = buf->place;
    const auto is_behind = [&](const DynamicMemBuf* other) {
        return fits_before(other->size, other->device_addr, size, address);
    };
    const bool stays = (place == pool.idle_bufs.begin() || is_behind(*std::prev(place))) &&
                       (std::next(place) == pool.idle_bufs.end() || !is_behind(*std::next(place)));
    if (!stays) {
        buf->entry = pool.idle_bufs.extract(place);
    }
    buf->device_addr = address;
    buf->size = size;
    if (!stays) {
        buf->place = pool.idle_bufs.insert(std::move(buf->entry)).position;
    }
}

// A new block with one idle buf, of which `size` bytes are handed out; null when the device refuses. All that can
// fail comes before the device's memory is taken.
DynamicMemBuf* DynamicMemPool::AddMemBlockAndMemBuf(PoolKind kind, std::uint64_t block_size, std::uint64_t size) {
    const Where at = where("_AddMemBlockAndMemBuf()");
    if (!CheckAllocSize(block_size)) {
        return nullptr;
    }
    Pool& pool = pool_of(kind);
    ReserveRecords(2);  // The block's buf, and what is split off from it.
    std::map<char*, DynamicMemBlock> made;
    made.emplace(nullptr, DynamicMemBlock{nullptr, block_size, kind, nullptr});
    char* const address = static_cast<char*>(AllocDeviceMem(block_size));
    if (address == nullptr) {
        return nullptr;
    }
    auto node = made.extract(made.begin());
    node.key() = address;
    auto inserted = pool.blocks.insert(std::move(node));
    if (!inserted.inserted) {
        fail(ErrorKind::memory, at, "diter.first->second == nullptr\n");
    }
    DynamicMemBlock& block = inserted.position->second;
    DynamicMemBuf* const buf = TakeRecord();
    buf->device_addr = address;
    buf->status = BufStatus::idle;
    buf->kind = kind;
    buf->size = block_size;
    buf->block = &block;
    buf->previous = nullptr;
    buf->next = nullptr;
    buf->place = pool.idle_bufs.insert(std::move(buf->entry)).position;
    block.device_addr = address;
    block.first = buf;
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

// ---- Giving back ----

void DynamicMemPool::FreeTensorMem(void* address) {
    const Where at = where("FreeTensorMem");
    check_not_null(address, at, "device_addr == nullptr\n");
    const std::lock_guard<std::mutex> lock(mutex_);
    DynamicMemBuf* const buf = FindMemBuf(static_cast<char*>(address));
    check_not_null(buf, at, "Can't find the device address .");
    if (buf->status != BufStatus::used) {
        fail(ErrorKind::memory, at, "Find the mem_buf is not used.");
    }
    TakeBack(buf);
}

void DynamicMemPool::GiveBack(void* address, DynamicMemBuf* hint) noexcept {
    if (address == nullptr) {
        return;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    DynamicMemBuf* const buf =
        hint != nullptr && hint->device_addr == address ? hint : FindMemBuf(static_cast<char*>(address));
    try {
        if (buf != nullptr && buf->status == BufStatus::used) {
            TakeBack(buf);
        }
    } catch (const Error&) {  // A check of the pool over itself. Destructors end here: nothing may escape.
    }
}

void DynamicMemPool::TakeBack(DynamicMemBuf* buf) {
    Pool& pool = pool_of(buf->kind);
    char* const address = buf->device_addr;
    const std::uint64_t size = buf->size;
    CombineMemBuf(buf);
    pool.used -= size;
    pool.idle += size;
    poison_memory(address, size);
}

// The block that contains the address; null when there is none.
DynamicMemBlock* DynamicMemPool::FindMemBlock(char* address) {
    check_not_null(address, where("FindMemBlock"), "address is nullptr.");
    for (Pool* pool : {&small_, &large_}) {
        auto next = pool->blocks.upper_bound(address);
        if (next == pool->blocks.begin()) {
            continue;
        }
        DynamicMemBlock& block = std::prev(next)->second;
        if (address < block.device_addr + block.size) {
            return &block;
        }
    }
    return nullptr;
}

// The buf that starts at the address; null when there is none. Tensors know their records: this is the long way
// for bare addresses.
DynamicMemBuf* DynamicMemPool::FindMemBuf(char* address) {
    DynamicMemBlock* const block = FindMemBlock(address);
    DynamicMemBuf* buf = block == nullptr ? nullptr : block->first;
    while (buf != nullptr && buf->device_addr < address) {
        buf = buf->next;
    }
    return buf != nullptr && buf->device_addr == address ? buf : nullptr;
}

// Marks a used buf idle and joins it with its idle neighbours. All that can fail comes before the first change.
void DynamicMemPool::CombineMemBuf(DynamicMemBuf* buf) {
    const Where at = where("CombineMemBuf");
    check_not_null(buf, at, "mem_buf == nullptr\n");
    DynamicMemBlock* const block = buf->block;
    check_not_null(block, at, "mem_block == nullptr\n");
    DynamicMemBuf* previous = buf->previous;
    DynamicMemBuf* next = buf->next;
    if (buf->device_addr != block->device_addr) {
        check_not_null(previous, at, "prev_mem_buf == nullptr\n");
    }
    if (buf->device_addr + buf->size != block->device_addr + block->size) {
        check_not_null(next, at, "next_mem_buf == nullptr\n");
    }
    const bool joins_previous = previous != nullptr && previous->status == BufStatus::idle;
    const bool joins_next = next != nullptr && next->status == BufStatus::idle;
    Pool& pool = pool_of(buf->kind);
    if (!joins_previous && !joins_next) {
        buf->status = BufStatus::idle;
        buf->place = pool.idle_bufs.insert(std::move(buf->entry)).position;
        return;
    }
    if (joins_previous && joins_next) {
        EraseIdleMemBuf(next);
        buf->size += next->size;
        DynamicMemBuf* const joined = next;
        next = joined->next;
        DropRecord(joined);
    }
    (previous != nullptr ? previous->next : block->first) = next;
    if (next != nullptr) {
        next->previous = previous;
    }
    if (joins_previous) {
        MoveIdleMemBuf(pool, previous, previous->device_addr, previous->size + buf->size);
    } else {
        MoveIdleMemBuf(pool, next, buf->device_addr, next->size + buf->size);
    }
    DropRecord(buf);
}

void DynamicMemPool::EraseIdleMemBuf(DynamicMemBuf* buf) {
    const Where at = where("EraseIdleMemBuf");
    check_not_null(buf, at, "mem_buf == nullptr\n");
    if (!buf->entry.empty()) {
        fail(ErrorKind::memory, at, "Can't find the size[", buf->size, "] pointer in the idle mem_buf.");
    }
    buf->entry = pool_of(buf->kind).idle_bufs.extract(buf->place);
}

void DynamicMemPool::ReleaseDeviceRes() {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!ReleaseIdleBlocks()) {
        fail(ErrorKind::memory, where("ReleaseDeviceRes"), "Free device memory error.");
    }
}

// Blocks that the device does not take back stay; false when there are any.
bool DynamicMemPool::ReleaseIdleBlocks() {
    const Where at = where("ReleaseDeviceRes");
    bool all_taken = true;
    for (Pool* pool : {&large_, &small_}) {
        for (auto entry = pool->blocks.begin(); entry != pool->blocks.end();) {
            const DynamicMemBlock& block = entry->second;
            DynamicMemBuf* const first = block.first;
            check_not_null(first, at, "mem_buf == nullptr\n");
            if (first->status != BufStatus::idle || first->size != block.size) {
                ++entry;
                continue;
            }
            unpoison_memory(block.device_addr, block.size);
            if (!FreeDeviceMem(block.device_addr, block.size)) {
                poison_memory(block.device_addr, block.size);
                all_taken = false;
                ++entry;
                continue;
            }
            EraseIdleMemBuf(first);
            DropRecord(first);
            pool->total -= block.size;
            pool->idle -= block.size;
            entry = pool->blocks.erase(entry);
        }
    }
    return all_taken;
}

}  // namespace ornik::device
