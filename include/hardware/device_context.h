// device_context.h: raw memory of a device. Internal.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ornik::device {

/// What the memory pool asks of a device. Neither operation throws.
class DeviceContext {
  public:
    virtual ~DeviceContext() = default;
    /// `bytes` bytes aligned for every element type and every vector instruction, or null.
    virtual void* Allocate(std::size_t bytes) = 0;
    /// Gives back what Allocate returned for the same size; false when the device refuses.
    virtual bool Free(void* address, std::size_t bytes) = 0;
    /// Bytes that the device can still give.
    virtual std::uint64_t FreeMemory() const = 0;
};

/// Memory of the machine, through cpu::CPUMemoryAllocator.
class CPUDeviceContext : public DeviceContext {
  public:
    void* Allocate(std::size_t bytes) override;
    bool Free(void* address, std::size_t bytes) override;
    std::uint64_t FreeMemory() const override;
};

}  // namespace ornik::device
