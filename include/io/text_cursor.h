// text_cursor.h: what the readers of textual headers share: a position, and errors that tell it. Internal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "place.h"

namespace ornik::io {

class TextCursor {
  public:
    /// Errors are those of `place`, as it is when they occur; it outlives the cursor, and so do the texts.
    TextCursor(const FilePlace& place, std::string_view text, std::string_view spaces)
        : place_(place), text_(text), spaces_(spaces) {}

    bool at_end() const { return at_ == text_.size(); }
    bool next_is_one_of(std::string_view letters) const {
        return !at_end() && letters.find(text_[at_]) != std::string_view::npos;
    }
    std::string_view rest() const { return text_.substr(at_); }
    void skip(std::size_t bytes) { at_ += bytes; }
    void skip_spaces();
    /// Behind spaces: goes past the letter, or says that another one is there.
    bool accept(char wanted);
    void expect(char wanted);
    /// Behind spaces: digits as a number; "wanted WHAT, found ..." when there are none.
    std::int64_t digits(std::string_view what);
    /// Accepts nothing but spaces up to the end.
    void finish();
    /// The next letter in quotes, or "the end".
    std::string found() const;

    template <typename... Pieces>
    [[noreturn]] void refuse(const Pieces&... pieces) const {
        fail(place_.at(), place_.text(), "header, byte ", at_, ": ", pieces...);
    }

  private:
    const FilePlace& place_;
    std::string_view text_;
    std::string_view spaces_;
    std::size_t at_ = 0;
};

}  // namespace ornik::io
