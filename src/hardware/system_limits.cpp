#include "hardware/system_limits.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#if defined(_WIN32)
#if !defined(NOMINMAX)
#define NOMINMAX
#endif
#include <windows.h>
#endif

namespace ornik {

#if defined(_WIN32)

int container_processor_limit() { return std::numeric_limits<int>::max(); }

std::uint64_t available_memory() {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof(status);
    if (GlobalMemoryStatusEx(&status) == 0) {
        return std::numeric_limits<std::uint64_t>::max();  // The allocation itself decides.
    }
    return status.ullAvailPhys;
}

#else

namespace {

constexpr std::uint64_t unlimited = std::numeric_limits<std::uint64_t>::max();

std::optional<std::string> first_word(const std::string& path) {
    std::ifstream file(path);
    std::string word;
    if (file >> word) {
        return word;
    }
    return std::nullopt;
}

std::optional<std::uint64_t> read_number(const std::string& path) {
    const std::optional<std::string> word = first_word(path);
    if (!word || word->empty() || word->find_first_not_of("0123456789") != std::string::npos || word->size() > 19) {
        return std::nullopt;  // "max", "-1" and what is no number at all: no limit.
    }
    return std::stoull(*word);
}

// The value behind `key` in a file of lines "key value ...".
std::uint64_t read_entry(const std::string& path, const std::string& key) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string name;
        std::uint64_t value = 0;
        if (words >> name >> value && name == key) {
            return value;
        }
    }
    return 0;
}

// The control groups this process is in, for a controller of the first version ("cpu", "memory") or for the
// one hierarchy of the second (""): its folder and all folders above.
std::vector<std::string> group_folders(const std::string& controller) {
    std::ifstream file("/proc/self/cgroup");
    std::string line;
    while (std::getline(file, line)) {
        const std::size_t first = line.find(':');
        const std::size_t second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) {
            continue;
        }
        std::string names(1, ',');
        names.append(line, first + 1, second - first - 1).append(1, ',');
        const bool matches =
            controller.empty() ? names == ",," : names.find("," + controller + ",") != std::string::npos;
        if (!matches) {
            continue;
        }
        std::string root = "/sys/fs/cgroup";
        if (!controller.empty()) {
            root.append("/").append(controller);
        }
        std::string path = line.substr(second + 1);
        std::vector<std::string> folders;
        while (path.size() > 1) {
            folders.push_back(root + path);
            path.resize(path.find_last_of('/'));
        }
        folders.push_back(root);
        return folders;
    }
    return {};
}

std::uint64_t room_below_limit(const std::string& folder, const char* limit_file, const char* usage_file,
                               const char* cache_entry) {
    const std::optional<std::uint64_t> limit = read_number(folder + limit_file);
    const std::optional<std::uint64_t> usage = read_number(folder + usage_file);
    if (!limit || !usage) {
        return unlimited;
    }
    // Cached file contents count as used, but make room when memory is asked for.
    const std::uint64_t cache = std::min(*usage, read_entry(folder + "/memory.stat", cache_entry));
    const std::uint64_t used = *usage - cache;
    return *limit > used ? *limit - used : 0;
}

}  // namespace

int container_processor_limit() {
    double limit = std::numeric_limits<int>::max();
    const auto apply = [&](double quota, double period) {
        if (quota > 0 && period > 0) {
            limit = std::min(limit, quota / period);
        }
    };
    for (const std::string& folder : group_folders("")) {
        std::ifstream file(folder + "/cpu.max");
        double quota = 0;
        double period = 0;
        if (file >> quota >> period) {
            apply(quota, period);
        }
    }
    for (const std::string& folder : group_folders("cpu")) {
        const std::optional<std::uint64_t> quota = read_number(folder + "/cpu.cfs_quota_us");
        const std::optional<std::uint64_t> period = read_number(folder + "/cpu.cfs_period_us");
        if (quota && period) {
            apply(static_cast<double>(*quota), static_cast<double>(*period));
        }
    }
    const int whole = static_cast<int>(limit);
    return limit > whole ? whole + 1 : whole;
}

std::uint64_t available_memory() {
    std::uint64_t available = read_entry("/proc/meminfo", "MemAvailable:") * 1024;
    if (available == 0) {
        available = unlimited;  // A system that does not tell: the allocation itself decides.
    }
    for (const std::string& folder : group_folders("")) {
        available = std::min(available, room_below_limit(folder, "/memory.max", "/memory.current", "inactive_file"));
    }
    for (const std::string& folder : group_folders("memory")) {
        available = std::min(available, room_below_limit(folder, "/memory.limit_in_bytes", "/memory.usage_in_bytes",
                                                         "total_inactive_file"));
    }
    return available;
}

#endif

}  // namespace ornik
