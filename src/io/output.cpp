#include "io/output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <string>
#include <system_error>
#include <utility>

#if defined(_WIN32)
#include <io.h>
#else
#include <fcntl.h>
#include <unistd.h>
#endif

namespace ornik::io {

namespace {

namespace fs = std::filesystem;

#if defined(_WIN32)
std::FILE* open_new(const fs::path& path) { return ::_wfopen(path.c_str(), L"wbx"); }
bool seek(std::FILE* file, std::uint64_t position, int origin) {
    return ::_fseeki64(file, static_cast<std::int64_t>(position), origin) == 0;
}
bool sync_file(std::FILE* file) { return ::_commit(::_fileno(file)) == 0; }
void sync_folder(const fs::path& /*folder*/) {}
#else
std::FILE* open_new(const fs::path& path) { return std::fopen(path.c_str(), "wbxe"); }
bool seek(std::FILE* file, std::uint64_t position, int origin) {
    return ::fseeko(file, static_cast<off_t>(position), origin) == 0;
}
bool sync_file(std::FILE* file) { return ::fsync(::fileno(file)) == 0; }
// The new name is an entry of the folder. Where folders can not be synchronised, nothing more can be done.
void sync_folder(const fs::path& folder) {
    const int number = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (number >= 0) {
        static_cast<void>(::fsync(number));
        ::close(number);
    }
}
#endif

// A short name of its own: the file's may already be as long as a name can be.
std::string temporary_name() {
    std::random_device random;
    return ".ornik-" + std::to_string(random()) + std::to_string(random()) + ".tmp";
}

}  // namespace

void MemorySink::write(ByteSpan bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }

void MemorySink::overwrite(std::uint64_t position, ByteSpan bytes) {
    std::copy(bytes.begin(), bytes.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(position));
}

OutputFile::OutputFile(FilePlace place, const fs::path& path) : place_(std::move(place)), path_(path) {
    std::error_code error;
    // Through a link, the file that it leads to is replaced and the link stays.
    if (const fs::path target = fs::canonical(path, error); !error) {
        path_ = target;
    }
    const fs::file_status old = fs::status(path_, error);
    if (fs::exists(old) && !fs::is_regular_file(old)) {
        fail(place_.at(), place_.text(), "it is not a regular file.");
    }
    const fs::path folder = path_.parent_path();
    for (int attempt = 0; file_ == nullptr; ++attempt) {
        temporary_ = folder / temporary_name();
        file_ = open_new(temporary_);
        if (file_ == nullptr && (errno != EEXIST || attempt == 100)) {
            fail_with(errno);
        }
    }
    if (fs::exists(old)) {
        fs::permissions(temporary_, old.permissions(), error);
    }
}

OutputFile::~OutputFile() {
    if (file_ != nullptr) {
        std::fclose(file_);
    }
    if (!temporary_.empty()) {
        std::error_code ignored;
        fs::remove(temporary_, ignored);
    }
}

void OutputFile::fail_with(int error) const { fail_with(std::error_code(error, std::generic_category())); }

void OutputFile::fail_with(const std::error_code& error) const {
    fail(ErrorKind::state, place_.at(), place_.text(), error.default_error_condition().message(), ".");
}

void OutputFile::write(ByteSpan bytes) {
    if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) {
        fail_with(errno);
    }
}

void OutputFile::overwrite(std::uint64_t position, ByteSpan bytes) {
    if (!seek(file_, position, SEEK_SET)) {
        fail_with(errno);
    }
    write(bytes);
    if (!seek(file_, 0, SEEK_END)) {
        fail_with(errno);
    }
}

void OutputFile::commit(bool sync) {
    if (std::fflush(file_) != 0 || (sync && !sync_file(file_))) {
        fail_with(errno);
    }
    if (std::fclose(std::exchange(file_, nullptr)) != 0) {
        fail_with(errno);
    }
    std::error_code error;
    fs::rename(temporary_, path_, error);
    if (error) {
        fail_with(error);
    }
    temporary_.clear();
    if (sync) {
        sync_folder(path_.has_parent_path() ? path_.parent_path() : ".");
    }
}

void refuse_compression(const FilePlace& place, const SaveOptions& options) {
    if (options.compress) {
        fail(place.at(), place.text(), "the format has no compression.");
    }
}

}  // namespace ornik::io
