// expect_error.h: compares a whole error text, location included; only the line number is left open.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "utils/error.h"

namespace ornik::test {

/// A call by reference: what follows is compiled once for all of them.
class Call {
  public:
    template <typename Function>
    Call(const Function& function)
        : function_(&function), run_([](const void* f) { (*static_cast<const Function*>(f))(); }) {}
    void operator()() const { run_(function_); }

  private:
    const void* function_;
    void (*run_)(const void*);
};

/// what() of the runtime error that `call` throws, with the digits behind "LINE: " replaced by "#".
std::string error_text(const Call& call);

/// The message alone, without its location.
std::string message_of(const Call& call);

std::pair<ErrorKind, std::string> kind_and_message_of(const Call& call);

/// The expression is refused with this message, and as an error of this kind.
#define EXPECT_REFUSAL_AS(kind, expression, message) \
    EXPECT_EQ(ornik::test::kind_and_message_of([&] { expression; }), std::pair(kind, std::string(message)))

/// The expression is refused with this message.
#define EXPECT_REFUSAL(expression, message) \
    EXPECT_EQ(ornik::test::message_of([&] { expression; }), std::string(message))

/// The text of `message` reported by `function` in `file`.
std::string located(const std::string& message, const std::string& function, const std::string& file);

void expect_error(const Call& call, const std::string& message, const std::string& function, const std::string& file);

/// A call of a function and the whole message it should answer with.
struct Refusal {
    std::string function;
    std::function<void()> call;
    std::string message;
};

/// The functions' names and the file follow `scope` and are those of the place that reports.
void expect_refusals(std::span<const Refusal> rows, const std::string& scope, const std::string& file);

}  // namespace ornik::test
