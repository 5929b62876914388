#include "io/json.h"

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

std::int64_t JsonReader::unsigned_integer() {
    constexpr std::string_view what = "a whole number that is not negative";
    skip_spaces();
    const bool is_zero = next_is_one_of("0");
    const std::size_t before = rest().size();
    const std::int64_t value = digits(what);
    if (next_is_one_of(".eE")) {
        refuse("wanted ", what, ", found ", found(), ".");
    }
    if (is_zero && before - rest().size() > 1) {
        refuse("a number with a leading zero.");
    }
    return value;
}

std::uint32_t JsonReader::four_digits() {
    std::uint32_t value = 0;
    constexpr std::string_view hexadecimal = "0123456789abcdefABCDEF";
    for (int i = 0; i < 4; ++i, skip(1)) {
        if (!next_is_one_of(hexadecimal)) {
            refuse("wanted four hexadecimal digits, found ", found(), ".");
        }
        const std::size_t position = hexadecimal.find(rest()[0]);
        value = value << 4U | static_cast<std::uint32_t>(position < 16 ? position : position - 6);
    }
    return value;
}

// Behind a backslash.
void JsonReader::append_escape(std::string& value) {
    if (next_is_one_of(escape_letters)) {
        value += escaped[escape_letters.find(rest()[0])];
        skip(1);
        return;
    }
    if (!next_is_one_of("u")) {
        refuse("no escape: ", found(), ".");
    }
    skip(1);
    std::uint32_t code = four_digits();
    if (code >= 0xD800 && code < 0xDC00 && rest().starts_with("\\u")) {
        skip(2);
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
    while (!at_end() && !next_is_one_of("\"")) {
        if (next_is_one_of("\\")) {
            skip(1);
            append_escape(value);
            continue;
        }
        const std::size_t length = utf8_length(rest());
        if (length == 0 || static_cast<unsigned char>(rest()[0]) < 0x20) {
            refuse("a text holds ", found(), ", which is ", length == 0 ? "no UTF-8." : "a control character.");
        }
        value += rest().substr(0, length);
        skip(length);
    }
    if (at_end()) {
        refuse("a text has no end.");
    }
    skip(1);
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
