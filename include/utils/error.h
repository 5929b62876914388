// error.h: how every check of the library reports a refused argument.
//
//     if (rank != 2) {
//         fail(where("ornik::dot"), "Only 2D tensors");
//     }
//
// `where` captures the reporting line; `fail` joins the pieces (texts, whole numbers, shapes) and
// throws an Error. Pieces are turned into text only when the check has failed.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "../export.h"

namespace ornik {

/// Extents, strides or indices of a tensor, outermost first, counted in elements.
using Dims = std::vector<std::int64_t>;

/// What a refused call is about. Bindings to other languages raise their own exceptions by it.
enum class ErrorKind : std::uint8_t {
    argument,         // a value, shape or layout that the operation does not take
    index,            // a position or axis outside its range
    dtype,            // an element type that the operation does not take
    device,           // a device that is unknown, absent, or not that of the other operands
    memory,           // memory ran out, or was given back wrongly
    state,            // an object is not in the state that the call needs
    not_implemented,  // a case that this build does not serve
};

/// The exception of every refused call. what() is "message (location)", or the message alone when there is no
/// location.
class ORNIK_API Error : public std::runtime_error {
  public:
    Error(ErrorKind kind, const std::string& message, const std::string& location);
    ~Error() override;

    ErrorKind kind() const noexcept { return kind_; }
    /// Both live as long as the exception.
    std::string_view message() const noexcept;
    std::string_view location() const noexcept;

  private:
    ErrorKind kind_;
    std::size_t message_size_;
    std::size_t location_size_;
};

/// The place a message comes from: qualified function name, source path from the root of the
/// source tree, line.
struct Where {
    const char* function;
    const char* file;
    int line;
};

/// The place of the caller, reported under the name `function`.
constexpr Where where(const char* function, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    return {function, file, line};
}

/// " FILE: path  LINE: number  FUNC: name\n", the location text of every message.
ORNIK_API std::string location_text(const Where& at);

/// "( 2, 3 ) " for [2, 3]; "empty vector\n" for an empty list.
ORNIK_API std::string shape_text(const Dims& shape);

namespace detail {

inline void append_piece(std::string& text, std::string_view piece) { text += piece; }
inline void append_piece(std::string& text, const Dims& shape) { text += shape_text(shape); }
inline void append_piece(std::string& text, std::integral auto number) { text += std::to_string(number); }

/// The message alone without a location, else "message (location)".
std::string composed_text(const std::string& message, const std::string& location);

[[noreturn]] ORNIK_API void throw_error(ErrorKind kind, const Where& at, const std::string& message);

}  // namespace detail

/// Throws an Error with the joined pieces and the location of `at`.
template <typename... Pieces>
[[noreturn]] void fail(ErrorKind kind, const Where& at, const Pieces&... pieces) {
    std::string message;
    (detail::append_piece(message, pieces), ...);
    detail::throw_error(kind, at, message);
}

/// The same for ErrorKind::argument.
template <typename... Pieces>
[[noreturn]] void fail(const Where& at, const Pieces&... pieces) {
    fail(ErrorKind::argument, at, pieces...);
}

}  // namespace ornik
