#include "hardware/device_context.h"

#include "hardware/cpu_memory_allocator.h"
#include "hardware/system_limits.h"

namespace ornik::device {

void* CPUDeviceContext::Allocate(std::size_t bytes) { return cpu::CPUMemoryAllocator().allocate(bytes); }

bool CPUDeviceContext::Free(void* address, std::size_t bytes) { return cpu::CPUMemoryAllocator().free(address, bytes); }

std::uint64_t CPUDeviceContext::FreeMemory() const { return available_memory(); }

}  // namespace ornik::device
