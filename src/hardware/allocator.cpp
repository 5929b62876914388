#include "hardware/allocator.h"

#include <exception>
#include <limits>

#include "hardware/device_context.h"
#include "tensor/dtype.h"
#include "utils/error.h"
#include "utils/logging.h"
#include "utils/utils.h"

namespace ornik::device {

namespace {

// The pool over the machine's own memory.
class CPUMemPool : public DynamicMemPool {
  protected:
    void* AllocDeviceMem(std::uint64_t bytes) override { return context_.Allocate(bytes); }
    bool FreeDeviceMem(void* address, std::uint64_t bytes) override { return context_.Free(address, bytes); }
    std::uint64_t FreeDeviceMemSize() const override { return context_.FreeMemory(); }

  private:
    CPUDeviceContext context_;
};

}  // namespace

AllocatorConfig& AllocatorConfig::Get() {
    static auto* config = new AllocatorConfig;
    return *config;
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

void* AllocTensorBuffer(std::int64_t device, std::int64_t count, std::int64_t dtype) {
    const Where at = where("ornik::device::AllocTensorBuffer");
    if (is_gpu_device(device)) {
        fail(ErrorKind::device, at, "GPU not compile yet.");
    }
    AllocatorConfig& config = AllocatorConfig::Get();
    if (!config.IfUseDynamicCPUMem()) {
        fail(ErrorKind::state, at, " SetUseDynamicCPUMem(True) is need.");
    }
    const std::int64_t item_size = dtype_item_size(dtype);
    if (item_size == 0) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    if (count < 0 || count > std::numeric_limits<std::int64_t>::max() / item_size) {
        fail(at, "Too many elements for a buffer: ", count, ".");
    }
    config.Init_allocator(device);
    return config.cpu_pool()->AllocTensorMem(static_cast<std::uint64_t>(count * item_size));
}

void FreeTensorBuffer(std::int64_t device, void* address) noexcept {
    DynamicMemPool* pool = AllocatorConfig::Get().cpu_pool();
    if (address == nullptr || is_gpu_device(device) || pool == nullptr) {
        return;
    }
    try {
        pool->FreeTensorMem(address);
    } catch (const std::exception& error) {
        WarningMsg(error.what(), "");  // Destructors end here: nothing may escape.
    }
}

}  // namespace ornik::device
