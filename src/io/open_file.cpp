// open_file.cpp: a file's contents as memory.
#include <cerrno>
#include <fstream>
#include <system_error>

#include "io/elements.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace ornik::io {

namespace {

// In the words that all systems share.
[[noreturn]] void fail_with(const FilePlace& place, const std::error_code& error) {
    fail(ErrorKind::state, place.at(), place.text(), error.default_error_condition().message(), ".");
}

[[noreturn]] void refuse_special(const FilePlace& place) {
    fail(place.at(), place.text(), "it is not a regular file.");
}

[[maybe_unused]] FileBytes read_whole(const FilePlace& place, const std::filesystem::path& path, LoadMode mode) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(path, error);
    if (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)) {
        refuse_special(place);
    }
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error) {
        fail_with(place, error);
    }
    const Buffer buffer = make_buffer(static_cast<std::size_t>(size));
    std::ifstream file(path, std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(buffer.data), static_cast<std::streamsize>(size))) {
        fail(ErrorKind::state, place.at(), place.text(), "reading its ", size, " bytes failed.");
    }
    return {{buffer.data, static_cast<std::size_t>(size)}, buffer.owner, mode};
}

#if !defined(_WIN32)
class Descriptor {
  public:
    // Without waiting for the other end, should this be a pipe.
    explicit Descriptor(const char* path) : number_(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    ~Descriptor() {
        if (number_ >= 0) {
            ::close(number_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int number() const { return number_; }

  private:
    int number_;
};
#endif

}  // namespace

#if defined(_WIN32)

FileBytes open_file(const FilePlace& place, const std::filesystem::path& path, LoadMode mode) {
    return read_whole(place, path, mode);
}

#else

FileBytes open_file(const FilePlace& place, const std::filesystem::path& path, LoadMode mode) {
    const Descriptor file(path.c_str());
    struct stat status {};
    if (file.number() < 0 || ::fstat(file.number(), &status) != 0) {
        fail_with(place, {errno, std::generic_category()});
    }
    if (!S_ISREG(status.st_mode)) {
        refuse_special(place);
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    if (size == 0) {
        return {{}, nullptr, mode};
    }
    const bool writable = mode == LoadMode::copy_on_write;
    void* address = ::mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_PRIVATE, file.number(), 0);
    if (address == MAP_FAILED) {
        return read_whole(place, path, mode);  // There are file systems without maps.
    }
    const std::shared_ptr<const void> owner(address, [size](void* map) { ::munmap(map, size); });
    return {{static_cast<const std::byte*>(address), size}, owner, mode};
}

#endif

}  // namespace ornik::io
