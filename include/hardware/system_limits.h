// system_limits.h: what the machine, and the container this process runs in, can give. Internal.
#pragma once

#include <cstdint>

namespace ornik {

/// Processors the container's quota allows, rounded up; a very large number where there is no quota.
int container_processor_limit();

/// Bytes of memory the system can still give this process: what is available on the machine, capped
/// by the room below the container's limit.
std::uint64_t available_memory();

}  // namespace ornik
