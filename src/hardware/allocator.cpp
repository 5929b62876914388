#include "hardware/allocator.h"

#include <limits>

#include "hardware/fork.h"
#include "utils/error.h"
#include "utils/logging.h"
#include "utils/utils.h"

namespace ornik::device {

namespace {

// The pool over the configured device.
class CPUMemPool : public DynamicMemPool {
  protected:
    void* AllocDeviceMem(std::uint64_t bytes) override { return device().Allocate(bytes); }
    bool FreeDeviceMem(void* address, std::uint64_t bytes) override { return device().Free(address, bytes); }
    std::uint64_t FreeDeviceMemSize() const override { return device().FreeMemory(); }

  private:
    static DeviceContext& device() { return AllocatorConfig::Get().cpu_device(); }
};

}  // namespace

AllocatorConfig& AllocatorConfig::Get() {
    static auto* config = new AllocatorConfig;
    return *config;
}

AllocatorConfig::AllocatorConfig() {
    hold_over_fork(
        ForkLock::memory,
        [] {
            Get().init_mutex_.lock();
            if (const DynamicMemPool* pool = Get().cpu_pool()) {
                pool->lock();
            }
        },
        [] {
            if (const DynamicMemPool* pool = Get().cpu_pool()) {
                pool->unlock();
            }
            Get().init_mutex_.unlock();
        });
}

DeviceContext& AllocatorConfig::cpu_device() const {
    static CPUDeviceContext machine;
    DeviceContext* const device = cpu_device_.load(std::memory_order_acquire);
    return device == nullptr ? machine : *device;
}

bool AllocatorConfig::Init_allocator(std::int64_t /*device*/) {
    if (!IfUseDynamicCPUMem()) {
        DebugMsg("Please compile for GPU and SetUseDynamicCPUMem() first", "Init_allocator");
        return true;
    }
    if (cpu_pool() != nullptr) {
        return true;
    }
    const std::lock_guard<std::mutex> lock(init_mutex_);
    if (cpu_pool() == nullptr) {
        cpu_pool_.store(new CPUMemPool, std::memory_order_release);
    }
    return true;
}

DynamicMemBuf* AllocTensorBuffer(std::int64_t device, std::int64_t count, std::int64_t item_size) {
    const Where at = where("ornik::device::AllocTensorBuffer");
    if (is_gpu_device(device)) {
        fail(ErrorKind::device, at, "GPU not compile yet.");
    }
    AllocatorConfig& config = AllocatorConfig::Get();
    if (!config.IfUseDynamicCPUMem()) {
        fail(ErrorKind::state, at, " SetUseDynamicCPUMem(True) is need.");
    }
    if (item_size < 1) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    if (count < 0 || count > std::numeric_limits<std::int64_t>::max() / item_size) {
        fail(at, "Too many elements for a buffer: ", count, ".");
    }
    config.Init_allocator(device);
    return config.cpu_pool()->TakeBuf(static_cast<std::uint64_t>(count * item_size));
}

void FreeTensorBuffer(std::int64_t device, void* address, DynamicMemBuf* buf) noexcept {
    DynamicMemPool* pool = AllocatorConfig::Get().cpu_pool();
    if (pool != nullptr && !is_gpu_device(device)) {
        pool->GiveBack(address, buf);
    }
}

}  // namespace ornik::device
