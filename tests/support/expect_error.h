// expect_error.h: compares a whole error text, location included; only the line number is left open.
#pragma once

#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "utils/error.h"

namespace ornik::test {

/// what() of the runtime error that `call` throws, with the digits behind "LINE: " replaced by "#".
template <typename Call>
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

/// The message alone, without its location.
template <typename Call>
std::string message_of(const Call& call) {
    const std::string text = error_text(call);
    return text.substr(0, text.rfind(" ( FILE: "));
}

template <typename Call>
std::pair<ErrorKind, std::string> kind_and_message_of(const Call& call) {
    try {
        call();
    } catch (const Error& error) {
        return {error.kind(), std::string(error.message())};
    }
    return {ErrorKind{}, "(no error)"};
}

/// The expression is refused with this message, and as an error of this kind.
#define EXPECT_REFUSAL_AS(kind, expression, message) \
    EXPECT_EQ(ornik::test::kind_and_message_of([&] { expression; }), std::pair(kind, std::string(message)))

/// The expression is refused with this message.
#define EXPECT_REFUSAL(expression, message) EXPECT_EQ(ornik::test::message_of([&] { expression; }), message)

/// The text of `message` reported by `function` in `file`.
inline std::string located(const std::string& message, const std::string& function, const std::string& file) {
    return message + " ( FILE: " + file + "  LINE: #  FUNC: " + function + "\n)";
}

template <typename Call>
void expect_error(const Call& call, const std::string& message, const std::string& function, const std::string& file) {
    EXPECT_EQ(error_text(call), located(message, function, file));
}

/// A call of a function and the whole message it should answer with.
struct Refusal {
    std::string function;
    std::function<void()> call;
    std::string message;
};

/// The functions' names and the file follow `scope` and are those of the place that reports.
inline void expect_refusals(std::span<const Refusal> rows, const std::string& scope, const std::string& file) {
    for (const Refusal& row : rows) {
        expect_error(row.call, row.message, scope + row.function, file);
    }
}

}  // namespace ornik::test
