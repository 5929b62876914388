#include "io/place.h"

#include <array>

namespace ornik::io {

namespace {

std::string path_text(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return in_quotes({reinterpret_cast<const char*>(text.data()), text.size()}, text.size());
}

}  // namespace

std::size_t utf8_length(std::string_view text) {
    const auto byte = [text](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
    const unsigned lead = byte(0);
    if (text.empty() || lead < 0x80) {
        return text.empty() ? 0 : 1;
    }
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    // The first two bytes rule out overlong forms, surrogates and what lies beyond U+10FFFF.
    const unsigned pair = lead << 8 | byte(1);
    const bool starts = (pair >= 0xC280 && pair <= 0xDFBF) || (pair >= 0xE0A0 && pair <= 0xED9F) ||
                        (pair >= 0xEE80 && pair <= 0xEFBF) || (pair >= 0xF090 && pair <= 0xF48F);
    for (std::size_t i = 1; i < length; ++i) {
        if (!starts || (byte(i) & 0xC0U) != 0x80) {
            return 0;
        }
    }
    return length;
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string in_quotes(std::string_view text, std::size_t longest) {
    constexpr std::array digits{'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'};
    std::string result = "'";
    for (std::size_t i = 0; i < text.size();) {
        if (i >= longest) {
            return result + "...'";
        }
        const auto byte = static_cast<unsigned char>(text[i]);
        const std::size_t length = byte < 0x20 || byte == 0x7F ? 0 : utf8_length(text.substr(i));
        if (length == 0) {
            result += {'\\', 'x', digits[byte >> 4U], digits[byte & 15U]};
            ++i;
        } else {
            result += text.substr(i, length);
            i += length;
        }
    }
    return result + "'";
}

std::string tuple_text(const Dims& shape) {
    std::string text = "(";
    for (std::size_t i = 0; i < shape.size(); ++i) {
        text += (i > 0 ? ", " : "") + std::to_string(shape[i]);
    }
    return text + (shape.size() == 1 ? ",)" : ")");
}

FilePlace FilePlace::reading(const char* function, const std::filesystem::path& path) {
    return {function, "read", path_text(path), {}};
}

FilePlace FilePlace::writing(const char* function, const std::filesystem::path& path) {
    return {function, "write", path_text(path), {}};
}

std::string FilePlace::text() const {
    return std::string("Can not ") + verb + " " + file + (entry.empty() ? "" : ", entry " + in_quotes(entry)) + ": ";
}

}  // namespace ornik::io
