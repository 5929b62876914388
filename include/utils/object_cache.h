// object_cache.h: memory for the small objects that come and go with every tensor. Internal.
//
// Each thread keeps what it gives back, up to a limit, for its next objects of that size. Under AddressSanitizer all
// goes to the heap, which watches it.
#pragma once

#include <cstddef>

#include "../export.h"

/// Marks the library's own thread_local variables that every small operation reads: found by an offset that the loader
/// fixes, not by a call.
#if defined(__linux__) && defined(__GNUC__)
#define ORNIK_NEAR_TLS [[gnu::tls_model("initial-exec")]]
#else
#define ORNIK_NEAR_TLS
#endif

namespace ornik::detail {

/// `bytes` bytes as from operator new.
ORNIK_API void* take_object_memory(std::size_t bytes);
ORNIK_API void give_object_memory(void* memory, std::size_t bytes) noexcept;

/// For std::allocate_shared: object and counters in one piece.
template <typename T>
struct ObjectAllocator {
    using value_type = T;

    ObjectAllocator() = default;
    template <typename Other>
    ObjectAllocator(const ObjectAllocator<Other>& /*other*/) {}

    T* allocate(std::size_t count) { return static_cast<T*>(take_object_memory(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t count) noexcept { give_object_memory(memory, count * sizeof(T)); }

    friend bool operator==(const ObjectAllocator& /*a*/, const ObjectAllocator& /*b*/) { return true; }
};

}  // namespace ornik::detail
