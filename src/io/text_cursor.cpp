#include "io/text_cursor.h"

#include <limits>

namespace ornik::io {

void TextCursor::skip_spaces() {
    while (next_is_one_of(spaces_)) {
        ++at_;
    }
}

bool TextCursor::accept(char wanted) {
    skip_spaces();
    if (!next_is_one_of({&wanted, 1})) {
        return false;
    }
    ++at_;
    return true;
}

void TextCursor::expect(char wanted) {
    if (!accept(wanted)) {
        refuse("wanted ", in_quotes({&wanted, 1}), ", found ", found(), ".");
    }
}

std::int64_t TextCursor::digits(std::string_view what) {
    skip_spaces();
    if (!next_is_one_of("0123456789")) {
        refuse("wanted ", what, ", found ", found(), ".");
    }
    std::int64_t value = 0;
    for (; next_is_one_of("0123456789"); ++at_) {
        const int digit = text_[at_] - '0';
        if (value > (std::numeric_limits<std::int64_t>::max() - digit) / 10) {
            refuse("a number beyond 64 bits.");
        }
        value = 10 * value + digit;
    }
    return value;
}

void TextCursor::finish() {
    if (skip_spaces(); !at_end()) {
        refuse("wanted the end, found ", found(), ".");
    }
}

std::string TextCursor::found() const { return at_end() ? "the end" : in_quotes(text_.substr(at_, 1)); }

}  // namespace ornik::io
