#include "utils/error.h"

#include "utils/logging.h"

namespace ornik {

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

void detail::throw_error(const Where& at, const std::string& message) { ErrorMsg(message, location_text(at), true); }

}  // namespace ornik
