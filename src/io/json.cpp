#include "io/json.h"

#include <limits>

namespace ornik::io {

namespace {

// The escapes of one letter, and what they stand for.
constexpr std::string_view escape_letters = "\"\\/bfnrt";
constexpr std::string_view escaped = "\"\\/\b\f\n\r\t";

void append_utf8(std::string& text, std::uint32_t code) {
    if (code < 0x80) {
        text += static_cast<char>(code);
        return;
    }
    const int following = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    const std::uint32_t lead = following == 1 ? 0xC0 : following == 2 ? 0xE0 : 0xF0;
    text += static_cast<char>(lead | code >> (6 * following));
    for (int i = following; i-- > 0;) {
        text += static_cast<char>(0x80U | (code >> (6 * i) & 0x3FU));
    }
}

}  // namespace

void JsonReader::skip_spaces() {
    while (at_ < text_.size() && std::string_view(" \t\n\r").find(text_[at_]) != std::string_view::npos) {
        ++at_;
    }
}

bool JsonReader::accept(char wanted) {
    skip_spaces();
    if (at_ == text_.size() || text_[at_] != wanted) {
        return false;
    }
    ++at_;
    return true;
}

void JsonReader::expect(char wanted) {
    if (!accept(wanted)) {
        refuse("wanted ", in_quotes({&wanted, 1}), ", found ", found(), ".");
    }
}

std::string JsonReader::found() const { return at_ < text_.size() ? in_quotes(text_.substr(at_, 1)) : "the end"; }

void JsonReader::finish() {
    if (skip_spaces(); at_ != text_.size()) {
        refuse("wanted the end, found ", found(), ".");
    }
}

std::int64_t JsonReader::unsigned_integer() {
    skip_spaces();
    const std::size_t begin = at_;
    std::int64_t value = 0;
    for (; at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9'; ++at_) {
        const int digit = text_[at_] - '0';
        if (value > (std::numeric_limits<std::int64_t>::max() - digit) / 10) {
            refuse("a number beyond 64 bits.");
        }
        value = 10 * value + digit;
    }
    const bool goes_on = at_ < text_.size() && std::string_view(".eE").find(text_[at_]) != std::string_view::npos;
    if (at_ == begin || goes_on) {
        refuse("wanted a whole number that is not negative, found ", found(), ".");
    }
    if (text_[begin] == '0' && at_ - begin > 1) {
        refuse("a number with a leading zero.");
    }
    return value;
}

std::uint32_t JsonReader::four_digits() {
    std::uint32_t value = 0;
    for (int i = 0; i < 4; ++i, ++at_) {
        const char digit = at_ < text_.size() ? text_[at_] : '\0';
        const std::size_t position = std::string_view("0123456789abcdefABCDEF").find(digit);
        if (position == std::string_view::npos) {
            refuse("wanted four hexadecimal digits, found ", found(), ".");
        }
        value = value << 4U | static_cast<std::uint32_t>(position < 16 ? position : position - 6);
    }
    return value;
}

// Behind a backslash.
void JsonReader::append_escape(std::string& value) {
    const char letter = at_ < text_.size() ? text_[at_] : '\0';
    if (const std::size_t row = escape_letters.find(letter); row != std::string_view::npos) {
        ++at_;
        value += escaped[row];
        return;
    }
    if (letter != 'u') {
        refuse("no escape: ", found(), ".");
    }
    ++at_;
    std::uint32_t code = four_digits();
    if (code >= 0xD800 && code < 0xDC00 && text_.substr(at_, 2) == "\\u") {
        at_ += 2;
        const std::uint32_t low = four_digits();
        code = low >= 0xDC00 && low < 0xE000 ? 0x10000 + ((code - 0xD800) << 10U) + (low - 0xDC00) : code;
    }
    if (code >= 0xD800 && code < 0xE000) {
        refuse("half of a surrogate pair.");
    }
    append_utf8(value, code);
}

std::string JsonReader::string() {
    expect('"');
    std::string value;
    while (at_ < text_.size() && text_[at_] != '"') {
        if (text_[at_] == '\\') {
            ++at_;
            append_escape(value);
            continue;
        }
        const std::size_t length = utf8_length(text_.substr(at_));
        if (length == 0 || static_cast<unsigned char>(text_[at_]) < 0x20) {
            refuse("a text holds ", found(), ", which is ", length == 0 ? "no UTF-8." : "a control character.");
        }
        value += text_.substr(at_, length);
        at_ += length;
    }
    if (at_ == text_.size()) {
        refuse("a text has no end.");
    }
    ++at_;
    return value;
}

std::string json_text(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string result = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const std::size_t row = c == '/' ? std::string_view::npos : escaped.find(c);
        if (row != std::string_view::npos) {
            result += {'\\', escape_letters[row]};
        } else if (byte < 0x20) {
            result += "\\u00";
            result += {digits[byte >> 4U], digits[byte & 15U]};
        } else {
            result += c;
        }
    }
    return result + "\"";
}

}  // namespace ornik::io
