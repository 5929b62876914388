// arguments.h: checks and texts of constructors' arguments. Internal.
#pragma once

#include <array>
#include <cstdint>
#include <initializer_list>
#include <sstream>
#include <string>
#include <string_view>

#include "utils/error.h"

namespace ornik {

// ---- Text: Arguments().add("in", 3).add_unless("bias", bias, true).text() is "in=3" ----

class Arguments {
  public:
    template <typename T>
    Arguments& add(const char* name, const T& value) {
        text_ << (text_.view().empty() ? "" : ", ") << name << '=';
        show(value);
        return *this;
    }
    template <typename T>
    Arguments& add_unless(const char* name, const T& value, const T& usual) {
        return value == usual ? *this : add(name, value);
    }
    std::string text() const { return text_.str(); }

  private:
    template <typename T>
    void show(const T& value) {
        text_ << std::boolalpha << value;
    }
    void show(const Dims& list) {
        text_ << '[';
        for (std::size_t i = 0; i < list.size(); ++i) {
            text_ << (i == 0 ? "" : ", ") << list[i];
        }
        text_ << ']';
    }
    void show(const std::array<std::int64_t, 2>& pair) { show(Dims{pair[0], pair[1]}); }

    std::ostringstream text_;
};

// ---- Checks: each refuses by the name of the module ----

inline void check_at_least(const char* name, std::int64_t least, std::initializer_list<std::int64_t> numbers) {
    for (const std::int64_t number : numbers) {
        if (number < least) {
            fail(where("ornik::Module"), name, "(): sizes are ", least, " and above, not ", number, ".");
        }
    }
}

inline void check_positive(const char* name, std::initializer_list<std::int64_t> numbers) {
    check_at_least(name, 1, numbers);
}

inline void check_groups(const char* name, std::int64_t in, std::int64_t out, std::int64_t groups) {
    check_positive(name, {in, out, groups});
    if (in % groups != 0 || out % groups != 0) {
        fail(where("ornik::Module"), name, "(): ", in, " and ", out, " channels do not fall into ", groups, " groups.");
    }
}

inline void check_probability(const char* name, double p) {
    if (!(p >= 0 && p <= 1)) {
        fail(where("ornik::Module"), name, "(): a probability is in [0, 1], not ", std::to_string(p), ".");
    }
}

}  // namespace ornik
