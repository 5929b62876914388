// place.h: how the errors of this folder name a file and an entry. Internal.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "../utils/error.h"

namespace ornik::io {

/// The text in single quotes, cut after `longest` bytes; control characters and what is no UTF-8 as \xNN.
std::string in_quotes(std::string_view text, std::size_t longest = 100);

/// "(2, 3)", "(2,)", "()": as Python writes shapes, and NumPy's files.
std::string tuple_text(const Dims& shape);

/// Length of the valid UTF-8 sequence that `text` starts with; 0 when there is none.
std::size_t utf8_length(std::string_view text);
bool is_utf8(std::string_view text);

/// What is being done to which file, and by which public function:
///
///     fail(place.at(), place.text(), "the header has ", n, " bytes");
struct FilePlace {
    const char* function;
    const char* verb;   // "read" or "write"
    std::string file;   // as in the message: quoted, or "bytes in memory"
    std::string entry;  // empty: the file as a whole

    static FilePlace reading(const char* function, const std::filesystem::path& path);
    static FilePlace reading_memory(const char* function) { return {function, "read", "bytes in memory", {}}; }
    static FilePlace writing(const char* function, const std::filesystem::path& path);
    static FilePlace writing_memory(const char* function) { return {function, "write", "bytes in memory", {}}; }

    /// The line that calls this, under the public function's name.
    Where at(const char* source = __builtin_FILE(), int line = __builtin_LINE()) const {
        return where(function, source, line);
    }
    /// "Can not read 'net.npz', entry 'w': "
    std::string text() const;
    FilePlace in_entry(std::string_view name) const { return {function, verb, file, std::string(name)}; }
};

}  // namespace ornik::io
