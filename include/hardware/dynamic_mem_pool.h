// dynamic_mem_pool.h: the caching pool behind every tensor buffer. Internal.
//
// The pool takes large blocks from its device and carves them into bufs:
//
//     block  |  used 512  |  used 1024  |  idle ......................  |
//
// Requests up to 1 MiB share 2 MiB blocks of the small pool; larger ones come from the large pool, in blocks
// of 20 MiB or, from 10 MiB on, of their own size. A request takes the smallest idle buf that is large
// enough, the lowest address among equals; the rest of the buf stays idle. A released buf merges with its
// idle neighbours. Blocks stay with the pool until memory runs short.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <set>

namespace ornik::device {

enum class BufStatus : std::int32_t { idle, used };
enum class PoolKind : std::int32_t { large, small };

struct DynamicMemBlock;
struct DynamicMemBuf;

/// Best fit first: by size, equal sizes by address.
struct FitOrder {
    using is_transparent = void;
    bool operator()(const DynamicMemBuf* a, const DynamicMemBuf* b) const noexcept;
    bool operator()(const DynamicMemBuf* buf, std::uint64_t size) const noexcept;
};
using IdleBufs = std::set<DynamicMemBuf*, FitOrder>;

/// A range of a block. Records are made when buffers are taken and kept for later ones; each brings its own entry
/// of the idle set along, so that giving a buffer back needs no memory.
struct DynamicMemBuf {
    char* device_addr = nullptr;  // null in a record that is not in use
    BufStatus status = BufStatus::idle;
    PoolKind kind = PoolKind::small;
    std::uint64_t size = 0;  // bytes
    DynamicMemBlock* block = nullptr;
    DynamicMemBuf* previous = nullptr;  // neighbours in the block
    DynamicMemBuf* next = nullptr;
    IdleBufs::iterator place;   // in the idle set, while idle
    IdleBufs::node_type entry;  // while not
};

/// One chunk of device memory, covered by its bufs without gaps.
struct DynamicMemBlock {
    char* device_addr;
    std::uint64_t size;  // bytes
    PoolKind kind;
    DynamicMemBuf* first;
};

class DynamicMemPool {
  public:
    DynamicMemPool() = default;
    virtual ~DynamicMemPool();
    DynamicMemPool(const DynamicMemPool&) = delete;
    DynamicMemPool& operator=(const DynamicMemPool&) = delete;

    /// A buffer of at least `bytes` bytes. Fails with "Memory not enough: ..." when the device can not give
    /// it even after all idle blocks went back. A failure of whatever kind changes nothing but that.
    void* AllocTensorMem(std::uint64_t bytes);
    /// Takes back what AllocTensorMem returned.
    void FreeTensorMem(void* address);

    /// The same by the buffer's record, which says where the buffer is and saves the search for it.
    DynamicMemBuf* TakeBuf(std::uint64_t bytes);
    /// Takes back the buffer at `address`, which is that of `hint` unless the caller has been given another one;
    /// an address that the pool has not handed out is left alone. `hint` may be null. Needs no memory.
    void GiveBack(void* address, DynamicMemBuf* hint) noexcept;

    /// Gives wholly idle blocks of both pools back to the device. Fails when the device refuses one of them.
    void ReleaseDeviceRes();
    /// Writes the pool's totals to standard output and checks them.
    virtual void DumpDynamicMemPoolInfo();

    /// What one of the two pools holds, in bytes and counts.
    struct Totals {
        std::uint64_t used = 0;
        std::uint64_t idle = 0;
        std::size_t blocks = 0;
        std::size_t idle_blocks = 0;
        std::size_t idle_bufs = 0;
    };
    Totals totals(PoolKind kind) const;
    /// Bytes in use in both pools, and the most there have been at once since the latest reset.
    std::uint64_t used() const;
    std::uint64_t peak() const;
    void reset_peak();

    /// Held over a fork, so that a child finds the pool whole.
    void lock() const { mutex_.lock(); }
    void unlock() const { mutex_.unlock(); }

  protected:
    /// The device. AllocDeviceMem returns null when the device refuses.
    virtual void* AllocDeviceMem(std::uint64_t bytes) = 0;
    virtual bool FreeDeviceMem(void* address, std::uint64_t bytes) = 0;
    virtual std::uint64_t FreeDeviceMemSize() const = 0;
    /// Rounds a request up to the pool's granularity of 512 bytes, 512 at least.
    virtual std::uint64_t AlignMemorySize(std::uint64_t bytes) const;

  private:
    struct Pool {
        std::map<char*, DynamicMemBlock> blocks;
        IdleBufs idle_bufs;
        std::uint64_t total = 0;
        std::uint64_t used = 0;
        std::uint64_t idle = 0;
    };

    Pool& pool_of(PoolKind kind) { return kind == PoolKind::large ? large_ : small_; }
    const Pool& pool_of(PoolKind kind) const { return kind == PoolKind::large ? large_ : small_; }
    Totals totals_unlocked(PoolKind kind) const;
    DynamicMemBuf* FindIdleMemBuf(PoolKind kind, std::uint64_t size);
    DynamicMemBuf* AddMemBlockAndMemBuf(PoolKind kind, std::uint64_t block_size, std::uint64_t size);
    DynamicMemBuf* SplitMemBuf(DynamicMemBuf* buf, std::uint64_t size);
    static void MoveIdleMemBuf(Pool& pool, DynamicMemBuf* buf, char* address, std::uint64_t size) noexcept;
    DynamicMemBlock* FindMemBlock(char* address);
    DynamicMemBuf* FindMemBuf(char* address);
    void TakeBack(DynamicMemBuf* buf);
    void CombineMemBuf(DynamicMemBuf* buf);
    void EraseIdleMemBuf(DynamicMemBuf* buf);
    bool CheckAllocSize(std::uint64_t bytes) const;
    bool ReleaseIdleBlocks();
    void DumpUnlocked() const;

    void ReserveRecords(int count);
    DynamicMemBuf* TakeRecord() noexcept;
    void DropRecord(DynamicMemBuf* buf) noexcept;

    mutable std::mutex mutex_;
    Pool large_;
    Pool small_;
    std::uint64_t peak_ = 0;
    DynamicMemBuf* spare_records_ = nullptr;  // joined by `next`
    int spare_count_ = 0;
};

}  // namespace ornik::device
