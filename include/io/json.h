// json.h: JSON read strictly, value by value as the caller expects them. Internal.
//
//     JsonReader json(place, text);
//     json.object([&](const std::string& key) { numbers[key] = json.unsigned_integer(); });
//     json.finish();
//
// Read are objects, arrays, texts and whole numbers that are not negative; everything else is an error that tells the
// position. Nesting goes as deep as the caller's calls, whatever the text holds. Grammar: RFC 8259.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "text_cursor.h"

namespace ornik::io {

class JsonReader : public TextCursor {
  public:
    JsonReader(const FilePlace& place, std::string_view text) : TextCursor(place, text, " \t\n\r") {}

    /// Calls member(key) for each member, in order; it reads the value. Keys that come twice are its business.
    template <typename Member>
    void object(Member&& member) {
        items('{', '}', [&] {
            const std::string key = string();
            expect(':');
            member(key);
        });
    }
    /// Calls element() for each element; it reads the value.
    template <typename Element>
    void array(Element&& element) {
        items('[', ']', element);
    }
    /// UTF-8; escapes are resolved, lone surrogates refused.
    std::string string();
    /// At most 2^63 - 1.
    std::int64_t unsigned_integer();

  private:
    template <typename Item>
    void items(char open, char close, Item&& item) {
        expect(open);
        if (accept(close)) {
            return;
        }
        do {
            item();
        } while (accept(','));
        expect(close);
    }
    std::uint32_t four_digits();
    void append_escape(std::string& value);
};

/// The text in double quotes, with the escapes it needs. It is UTF-8.
std::string json_text(std::string_view text);

}  // namespace ornik::io
