#include "hardware/cpu_memory_allocator.h"

#include <cstdint>
#include <new>

#include "hardware/processor_check.h"

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace ornik::device::cpu {

// Whoever has tensors has the check of the processor, also with a static library.
[[maybe_unused, gnu::used]] static const bool* const check = &detail::processor_is_checked;

#if defined(__linux__)

namespace {

constexpr std::size_t huge_page = std::size_t{2} << 20;
constexpr std::size_t page = 4096;

std::size_t whole_pages(std::size_t bytes) { return (bytes + page - 1) / page * page; }

}  // namespace

void* CPUMemoryAllocator::allocate(std::size_t bytes) {
    const std::size_t size = whole_pages(bytes);
    if (bytes == 0 || size < bytes || size > SIZE_MAX - huge_page) {
        return nullptr;
    }
    // One huge page more than needed; what lies before the aligned start and behind the end goes back.
    void* mapped = mmap(nullptr, size + huge_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
        return nullptr;
    }
    char* begin = static_cast<char*>(mapped);
    const std::size_t misaligned = reinterpret_cast<std::uintptr_t>(begin) % huge_page;
    const std::size_t before = misaligned == 0 ? 0 : huge_page - misaligned;
    if (before > 0) {
        munmap(begin, before);
    }
    if (huge_page - before > 0) {
        munmap(begin + before + size, huge_page - before);
    }
    madvise(begin + before, size, MADV_HUGEPAGE);  // Advice: nothing is lost where it is not taken.
    return begin + before;
}

bool CPUMemoryAllocator::free(void* address, std::size_t bytes) { return munmap(address, whole_pages(bytes)) == 0; }

#else

namespace {

constexpr std::align_val_t chunk_alignment{4096};

}  // namespace

void* CPUMemoryAllocator::allocate(std::size_t bytes) { return ::operator new(bytes, chunk_alignment, std::nothrow); }

bool CPUMemoryAllocator::free(void* address, std::size_t /*bytes*/) {
    ::operator delete(address, chunk_alignment);
    return true;
}

#endif

}  // namespace ornik::device::cpu
