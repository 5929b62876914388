// error.h: how every check of the library reports a refused argument.
//
//     if (rank != 2) {
//         fail(where("ornik::dot"), "Only 2D tensors");
//     }
//
// `where` captures the reporting line; `fail` joins the pieces (texts, whole numbers, shapes) and
// throws through ErrorMsg. Pieces are turned into text only when the check has failed.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "../export.h"

namespace ornik {

/// Extents, strides or indices of a tensor, outermost first, counted in elements.
using Dims = std::vector<std::int64_t>;

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

/// Throws through ErrorMsg with the location of `at`.
[[noreturn]] ORNIK_API void throw_error(const Where& at, const std::string& message);

}  // namespace detail

/// Throws std::runtime_error with the joined pieces and the location of `at`.
template <typename... Pieces>
[[noreturn]] void fail(const Where& at, const Pieces&... pieces) {
    std::string message;
    (detail::append_piece(message, pieces), ...);
    detail::throw_error(at, message);
}

}  // namespace ornik
