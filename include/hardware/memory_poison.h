// memory_poison.h: tells AddressSanitizer which bytes of the pool's blocks are not handed out. Internal.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#define ORNIK_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORNIK_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(ORNIK_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
#endif

namespace ornik::device {

inline void poison_memory([[maybe_unused]] void* address, [[maybe_unused]] std::size_t bytes) {
#if defined(ORNIK_ADDRESS_SANITIZER)
    ASAN_POISON_MEMORY_REGION(address, bytes);
#endif
}

inline void unpoison_memory([[maybe_unused]] void* address, [[maybe_unused]] std::size_t bytes) {
#if defined(ORNIK_ADDRESS_SANITIZER)
    ASAN_UNPOISON_MEMORY_REGION(address, bytes);
#endif
}

}  // namespace ornik::device
