// cpu_memory_allocator.h: large chunks of memory from the operating system. Internal.
#pragma once

#include <cstddef>

namespace ornik::device::cpu {

/// Chunks start at a multiple of 2 MiB where the system maps memory, so that it can back them with huge
/// pages: a chunk of 64 MiB then costs 32 page faults on first use instead of 16384.
class CPUMemoryAllocator {
  public:
    virtual ~CPUMemoryAllocator() = default;
    /// Null when the system refuses.
    virtual void* allocate(std::size_t bytes);
    /// `bytes` as given to allocate.
    virtual bool free(void* address, std::size_t bytes);
};

}  // namespace ornik::device::cpu
