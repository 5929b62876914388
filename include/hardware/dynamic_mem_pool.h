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
#include <memory>
#include <mutex>
#include <utility>

namespace ornik::device {

enum class BufStatus : std::int32_t { idle, used };
enum class PoolKind : std::int32_t { large, small };

/// A range of a block.
struct DynamicMemBuf {
    char* device_addr;
    BufStatus status;
    PoolKind kind;
    std::uint64_t size;  // bytes
};
using DynamicMemBufPtr = std::shared_ptr<DynamicMemBuf>;

/// One chunk of device memory, covered by its bufs without gaps.
struct DynamicMemBlock {
    char* device_addr;
    std::uint64_t size;  // bytes
    PoolKind kind;
    std::map<char*, DynamicMemBufPtr> bufs;
};
using DynamicMemBlockPtr = std::shared_ptr<DynamicMemBlock>;

class DynamicMemPool {
  public:
    virtual ~DynamicMemPool() = default;

    /// A buffer of at least `bytes` bytes. Fails with "Memory not enough: ..." when the device can not give
    /// it even after all idle blocks went back.
    void* AllocTensorMem(std::uint64_t bytes);
    /// Takes back what AllocTensorMem returned.
    void FreeTensorMem(void* address);
    /// Gives wholly idle blocks of both pools back to the device.
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

  protected:
    /// The device. AllocDeviceMem returns null when the device refuses.
    virtual void* AllocDeviceMem(std::uint64_t bytes) = 0;
    virtual bool FreeDeviceMem(void* address, std::uint64_t bytes) = 0;
    virtual std::uint64_t FreeDeviceMemSize() const = 0;
    /// Rounds a request up to the pool's granularity of 512 bytes, 512 at least.
    virtual std::uint64_t AlignMemorySize(std::uint64_t bytes) const;

  private:
    // Idle bufs by size, equal sizes by address.
    using IdleKey = std::pair<std::uint64_t, char*>;
    struct Pool {
        std::map<char*, DynamicMemBlockPtr> blocks;
        std::map<IdleKey, DynamicMemBufPtr> idle_bufs;
        std::uint64_t total = 0;
        std::uint64_t used = 0;
        std::uint64_t idle = 0;
    };

    Pool& pool_of(PoolKind kind) { return kind == PoolKind::large ? large_ : small_; }
    const Pool& pool_of(PoolKind kind) const { return kind == PoolKind::large ? large_ : small_; }
    Totals totals_unlocked(PoolKind kind) const;
    DynamicMemBufPtr FindIdleMemBuf(PoolKind kind, std::uint64_t size);
    DynamicMemBufPtr AddMemBlockAndMemBuf(PoolKind kind, std::uint64_t block_size, std::uint64_t size);
    static void MoveIdleEntry(Pool& pool, const DynamicMemBufPtr& from, const DynamicMemBufPtr& to, std::uint64_t size);
    void SplitMemBuf(const DynamicMemBufPtr& buf, std::uint64_t size);
    DynamicMemBlockPtr FindMemBlock(char* address);
    void CombineMemBuf(const DynamicMemBlockPtr& block, const DynamicMemBufPtr& buf);
    void EraseIdleMemBuf(const DynamicMemBufPtr& buf);
    bool CheckAllocSize(std::uint64_t bytes) const;
    void ReleaseIdleBlocks();
    void DumpUnlocked() const;

    mutable std::mutex mutex_;
    Pool large_;
    Pool small_;
};

}  // namespace ornik::device
