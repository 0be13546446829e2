// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/text.h"

#include <cstddef>
#include <cstdint>

#include <fmt/format.h>

namespace {

constexpr char32_t INVALID = 0xFFFFFFFF;

bool is_surrogate(char32_t c) {
  return c >= 0xD800 && c <= 0xDFFF;
}

// Takes one character off the front of `text`; INVALID, and one byte less, when there is none. The forms of five and
// six bytes that UTF-8 once had are read, too.
char32_t take_character(std::string_view* text) {
  const auto byte = [text](size_t i) { return static_cast<uint8_t>((*text)[i]); };
  const uint8_t first = byte(0);
  size_t size = 1;
  char32_t value = first;
  char32_t smallest = 0;
  if (first >= 0x80) {
    if ((first & 0xE0) == 0xC0) {
      size = 2, value = first & 0x1F, smallest = 0x80;
    } else if ((first & 0xF0) == 0xE0) {
      size = 3, value = first & 0x0F, smallest = 0x800;
    } else if ((first & 0xF8) == 0xF0) {
      size = 4, value = first & 0x07, smallest = 0x10000;
    } else if ((first & 0xFC) == 0xF8) {
      size = 5, value = first & 0x03, smallest = 0x200000;
    } else if ((first & 0xFE) == 0xFC) {
      size = 6, value = first & 0x01, smallest = 0x4000000;
    } else {
      size = 0;
    }
    bool good = size != 0 && size <= text->size();
    for (size_t i = 1; good && i < size; ++i) {
      good = (byte(i) & 0xC0) == 0x80;
      value = value << 6 | (byte(i) & 0x3F);
    }
    // Too long a form of a character, half a surrogate pair and what lies beyond Unicode are no characters either:
    // terminals and parsers disagree about them. One byte is dropped and not the whole form, so that a good character
    // right behind a broken one survives.
    if (!good || value < smallest || (size == 4 && value > 0x10FFFF) || is_surrogate(value)) {
      text->remove_prefix(1);
      return INVALID;
    }
  }
  text->remove_prefix(size);
  return value;
}

// DVB's own control codes stand at U+0080 to U+009F in the single-byte tables and at U+E080 to U+E09F in the others
// (EN 300 468, A.1).
bool is_line_break(char32_t c) {
  return c == '\t' || c == '\n' || c == '\r' || c == 0x8A || c == 0xE08A || c == 0x2028 || c == 0x2029;
}

// Besides control characters those that are invisible or turn the direction of writing: a name with them could pass for
// another one, or turn the rest of a line around.
bool is_dropped(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0xE080 && c <= 0xE09F) || c == 0xFEFF || c == 0x061C ||
         c == 0x180E || (c >= 0x200B && c <= 0x200F) || (c >= 0x202A && c <= 0x202E) || (c >= 0x2060 && c <= 0x206F) ||
         (c >= 0xFFF9 && c <= 0xFFFB) || (c >= 0xE0000 && c <= 0xE007F);
}

void append_encoded(std::string* out, char32_t c) {
  const auto add = [out](char32_t byte) { *out += static_cast<char>(byte); };
  if (c < 0x80) {
    add(c);
  } else if (c < 0x800) {
    add(0xC0 | c >> 6);
    add(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    add(0xE0 | c >> 12);
    add(0x80 | (c >> 6 & 0x3F));
    add(0x80 | (c & 0x3F));
  } else {
    add(0xF0 | c >> 18);
    add(0x80 | (c >> 12 & 0x3F));
    add(0x80 | (c >> 6 & 0x3F));
    add(0x80 | (c & 0x3F));
  }
}

void append_clean(std::string* out, char32_t c) {
  if (c == INVALID || is_surrogate(c)) {
    append_encoded(out, 0xFFFD);
  } else if (is_line_break(c)) {
    *out += ' ';
  } else if (!is_dropped(c)) {
    append_encoded(out, c);
  }
}

std::string trimmed(const std::string& text) {
  const size_t begin = text.find_first_not_of(' ');
  return begin == std::string::npos ? std::string() : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

constexpr char TWO_BYTE_SELECTOR = 0x11;  // EN 300 468, A.2

}  // namespace

std::string clean_text(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  // Such texts can stand in the database as they were sent. The other selectors are control characters and go with
  // those.
  if (!text.empty() && text.front() == TWO_BYTE_SELECTOR) {
    for (text.remove_prefix(1); text.size() >= 2; text.remove_prefix(2)) {
      append_clean(&out, static_cast<char32_t>(static_cast<uint8_t>(text[0])) << 8 | static_cast<uint8_t>(text[1]));
    }
    return trimmed(out);
  }
  while (!text.empty()) {
    const char32_t c = take_character(&text);
    if (c > 0x10FFFF && c != INVALID) {
      // Two-byte characters that were taken for half as many four-byte ones on their way into the database.
      append_clean(&out, c >> 16);
      append_clean(&out, c & 0xFFFF);
    } else {
      append_clean(&out, c);
    }
  }
  return trimmed(out);
}

std::string clean_lines(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    if (text.front() == '\n' || text.front() == '\t') {
      out += text.front();
      text.remove_prefix(1);
    } else {
      const char32_t c = take_character(&text);
      append_clean(&out, c > 0x10FFFF ? INVALID : c);
    }
  }
  return out;
}

std::string or_dash(const std::string& text) {
  return text.empty() ? "-" : text;
}

std::string mhz(int freq_hz) {
  return fmt::format("{}.{:03} MHz", freq_hz / 1000000, freq_hz / 1000 % 1000);
}

std::string counted(uint64_t number, const char* one) {
  return fmt::format("{} {}{}", number, one, number == 1 ? "" : "s");
}
