#include "expect_error.h"

#include <cctype>

namespace ornik::test {

std::string error_text(const Call& call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        std::string text = error.what();
        const std::string label = "  LINE: ";
        const std::size_t begin = text.rfind(label);
        if (begin == std::string::npos) {
            return text;
        }
        std::size_t end = begin + label.size();
        while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])) != 0) {
            ++end;
        }
        return text.replace(begin + label.size(), end - begin - label.size(), "#");
    }
    return "(no error)";
}

std::string message_of(const Call& call) {
    const std::string text = error_text(call);
    return text.substr(0, text.rfind(" ( FILE: "));
}

std::pair<ErrorKind, std::string> kind_and_message_of(const Call& call) {
    try {
        call();
    } catch (const Error& error) {
        return {error.kind(), std::string(error.message())};
    }
    return {ErrorKind{}, "(no error)"};
}

std::string located(const std::string& message, const std::string& function, const std::string& file) {
    return message + " ( FILE: " + file + "  LINE: #  FUNC: " + function + "\n)";
}

void expect_error(const Call& call, const std::string& message, const std::string& function, const std::string& file) {
    EXPECT_EQ(error_text(call), located(message, function, file));
}

void expect_refusals(std::span<const Refusal> rows, const std::string& scope, const std::string& file) {
    for (const Refusal& row : rows) {
        expect_error(row.call, row.message, scope + row.function, file);
    }
}

}  // namespace ornik::test
