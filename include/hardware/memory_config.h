// memory_config.h: the memory switches of the library, and the GPU entry points.
//
// This build has the CPU alone: every GPU function fails with "GPU not compile yet.", or tells that there is
// no GPU.
#pragma once

#include <cstddef>
#include <cstdint>

#include "../export.h"

namespace ornik {

/// Whether CPU tensors may take buffers from the caching pool; on in a fresh process. While it is off, no
/// CPU tensor can be made; existing ones stay valid.
ORNIK_API void ConfigSetUseDynamicCPUMem(bool on);
ORNIK_API bool ConfigIfUseDynamicCPUMem();
/// Writes the CPU pool's totals to standard output; nothing before the first allocation.
ORNIK_API void ConfigDumpCpuMemInfo();
/// Bytes that the tensors of the process hold now, as the pool hands them out: in multiples of 512.
ORNIK_API std::uint64_t cpu_memory_used();
/// The most there have been at once since the start, or since the latest reset.
ORNIK_API std::uint64_t cpu_memory_peak();
ORNIK_API void reset_cpu_memory_peak();

ORNIK_API void ConfigSetUseDynamicGPUMem(bool on);
ORNIK_API bool ConfigIfUseDynamicGPUMem();
ORNIK_API void ConfigDumpGpuMemInfo(std::int64_t device);
ORNIK_API int GetGPUDeviceCount();
ORNIK_API std::uint64_t GetGPUFreeMemSize(std::int64_t device);

/// False in this build.
ORNIK_API bool if_gpu_compiled();
ORNIK_API bool if_mpi_compiled();
ORNIK_API bool if_nccl_compiled();
/// Does nothing and returns false.
ORNIK_API bool maybe_set_cuda_lazy_init();
/// Does nothing in this build.
ORNIK_API void COPY_CPU_to_GPU(void* dst, const void* src, std::size_t bytes, std::int64_t device);

}  // namespace ornik
