// A machine of little memory: hostile numbers ask for terabytes, and must not get them where they could.
#include <cerrno>
#include <cstddef>

#if defined(__linux__)
#include <sys/mman.h>

extern "C" {

void* __real_mmap(void* address, std::size_t bytes, int protection, int flags, int file, off_t offset);

// In place of mmap by the linker's --wrap, for the calls of the library and its tests alone.
void* __wrap_mmap(void* address, std::size_t bytes, int protection, int flags, int file, off_t offset) {
    if (bytes > (std::size_t{256} << 20)) {
        errno = ENOMEM;
        return MAP_FAILED;
    }
    return __real_mmap(address, bytes, protection, flags, file, offset);
}

}  // extern "C"
#endif
