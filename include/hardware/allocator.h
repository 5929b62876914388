// allocator.h: the one allocator configuration of the process, and the buffers of tensors. Internal.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "device_context.h"
#include "dynamic_mem_pool.h"

namespace ornik::device {

/// Which pools there are. Built on first use and never destroyed: tensors with static storage duration give
/// their buffers back after main has returned.
class AllocatorConfig {
  public:
    static AllocatorConfig& Get();

    void SetUseDynamicCPUMem(bool on) { use_dynamic_cpu_mem_.store(on, std::memory_order_relaxed); }
    bool IfUseDynamicCPUMem() const { return use_dynamic_cpu_mem_.load(std::memory_order_relaxed); }

    /// Makes sure that the CPU has its pool. Does nothing, and returns true, while the flag is off.
    bool Init_allocator(std::int64_t device);
    /// Where the CPU's pool takes its blocks from now on, and gives back those it has; null stands for the machine.
    /// The device stays the caller's.
    void SetCPUDevice(DeviceContext* device) { cpu_device_.store(device, std::memory_order_release); }
    DeviceContext& cpu_device() const;

    /// Null before the first allocation.
    DynamicMemPool* cpu_pool() const { return cpu_pool_.load(std::memory_order_acquire); }

  private:
    AllocatorConfig();

    std::atomic<bool> use_dynamic_cpu_mem_{true};
    std::atomic<DeviceContext*> cpu_device_{nullptr};
    std::atomic<DynamicMemPool*> cpu_pool_{nullptr};
    std::mutex init_mutex_;
};

/// A buffer of count x item_size bytes, which starts at the record's device_addr; an item size of 0 is that of no
/// dtype. Fails for GPU devices, while the dynamic-memory flag is off, for a size beyond 63 bits, and when memory runs
/// out.
DynamicMemBuf* AllocTensorBuffer(std::int64_t device, std::int64_t count, std::int64_t item_size);

/// Gives a buffer back to the pool it came from, whatever the flag is by now. `buf` is what AllocTensorBuffer
/// returned, or null when only the address is known. Null addresses and GPU devices are skipped; an address
/// that the pool does not know is left alone.
void FreeTensorBuffer(std::int64_t device, void* address, DynamicMemBuf* buf = nullptr) noexcept;

}  // namespace ornik::device
