#include "utils/error.h"

namespace ornik {

namespace {

constexpr std::string_view before_location = " (";

}  // namespace

std::string detail::composed_text(const std::string& message, const std::string& location) {
    return location.empty() ? message : message + std::string(before_location) + location + ")";
}

Error::Error(ErrorKind kind, const std::string& message, const std::string& location)
    : std::runtime_error(detail::composed_text(message, location)),
      kind_(kind),
      message_size_(message.size()),
      location_size_(location.size()) {}

Error::~Error() = default;

// Parts of what(): copies of an exception must not need memory.
std::string_view Error::message() const noexcept { return {what(), message_size_}; }

std::string_view Error::location() const noexcept {
    return location_size_ == 0 ? std::string_view{}
                               : std::string_view{what() + message_size_ + before_location.size(), location_size_};
}

std::string location_text(const Where& at) {
    return std::string(" FILE: ") + at.file + "  LINE: " + std::to_string(at.line) + "  FUNC: " + at.function + "\n";
}

std::string shape_text(const Dims& shape) {
    if (shape.empty()) {
        return "empty vector\n";
    }
    std::string text = "( ";
    for (std::size_t i = 0; i < shape.size(); ++i) {
        if (i > 0) {
            text += ", ";
        }
        text += std::to_string(shape[i]);
    }
    return text + " ) ";
}

void detail::throw_error(ErrorKind kind, const Where& at, const std::string& message) {
    throw Error(kind, message, location_text(at));
}

}  // namespace ornik
