#include "hardware/memory_config.h"

#include "hardware/allocator.h"
#include "utils/error.h"
#include "utils/logging.h"

namespace ornik {

namespace {

[[noreturn]] void refuse_gpu(const Where& at) { fail(ErrorKind::device, at, "GPU not compile yet."); }

}  // namespace

void ConfigSetUseDynamicCPUMem(bool on) { device::AllocatorConfig::Get().SetUseDynamicCPUMem(on); }

bool ConfigIfUseDynamicCPUMem() { return device::AllocatorConfig::Get().IfUseDynamicCPUMem(); }

void ConfigDumpCpuMemInfo() {
    device::DynamicMemPool* pool = device::AllocatorConfig::Get().cpu_pool();
    if (!ConfigIfUseDynamicCPUMem() || pool == nullptr) {
        DebugMsg("Init_allocator() first", "DumpDynamicMemPoolInfo");
        return;
    }
    pool->DumpDynamicMemPoolInfo();
}

std::uint64_t cpu_memory_used() {
    const device::DynamicMemPool* pool = device::AllocatorConfig::Get().cpu_pool();
    return pool == nullptr ? 0 : pool->used();
}

std::uint64_t cpu_memory_peak() {
    const device::DynamicMemPool* pool = device::AllocatorConfig::Get().cpu_pool();
    return pool == nullptr ? 0 : pool->peak();
}

void reset_cpu_memory_peak() {
    if (device::DynamicMemPool* pool = device::AllocatorConfig::Get().cpu_pool()) {
        pool->reset_peak();
    }
}

void ConfigSetUseDynamicGPUMem(bool /*on*/) { refuse_gpu(where("ornik::ConfigSetUseDynamicGPUMem")); }
bool ConfigIfUseDynamicGPUMem() { refuse_gpu(where("ornik::ConfigIfUseDynamicGPUMem")); }
void ConfigDumpGpuMemInfo(std::int64_t /*device*/) { refuse_gpu(where("ornik::ConfigDumpGpuMemInfo")); }
int GetGPUDeviceCount() { refuse_gpu(where("ornik::GetGPUDeviceCount")); }
std::uint64_t GetGPUFreeMemSize(std::int64_t /*device*/) { refuse_gpu(where("ornik::GetGPUFreeMemSize")); }

bool if_gpu_compiled() { return false; }
bool if_mpi_compiled() { return false; }
bool if_nccl_compiled() { return false; }
bool maybe_set_cuda_lazy_init() { return false; }

void COPY_CPU_to_GPU(void* /*dst*/, const void* /*src*/, std::size_t /*bytes*/, std::int64_t /*device*/) {}

}  // namespace ornik
