// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/stored_text.h"

#include <locale.h>

#include <cstdint>
#include <cwchar>
#include <cwctype>
#include <string_view>

namespace {

constexpr char UTF8_SELECTOR = 0x15;  // EN 300 468, A.2
constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";

void append_encoded(unsigned c, std::string* out) {
  const auto add = [out](unsigned byte) { *out += static_cast<char>(byte); };
  if (c < 0x80) {
    add(c);
  } else if (c < 0x800) {
    add(0xC0 | c >> 6);
    add(0x80 | (c & 0x3F));
  } else {
    add(0xE0 | c >> 12);
    add(0x80 | (c >> 6 & 0x3F));
    add(0x80 | (c & 0x3F));
  }
}

// Takes apart characters beyond Unicode, in the forms of four to six bytes that UTF-8 once had: each is two characters
// of two bytes that were read as one of four.
std::string unjoined(std::string_view text) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[at + i]); };
    const size_t size = byte(0) < 0xF4 ? 1 : byte(0) < 0xF8 ? 4 : byte(0) < 0xFC ? 5 : byte(0) < 0xFE ? 6 : 1;
    bool joined = size > 1 && at + size <= text.size();
    unsigned value = byte(0) & (0x7Fu >> size);
    for (size_t i = 1; joined && i < size; ++i) {
      joined = (byte(i) & 0xC0) == 0x80;
      value = value << 6 | (byte(i) & 0x3Fu);
    }
    if (joined && value > 0x10FFFF) {
      append_encoded(value >> 16, &out);
      append_encoded(value & 0xFFFF, &out);
      at += size;
    } else {
      out += text[at++];
    }
  }
  return out;
}

// Null where the system lacks it. Made once, for all threads: making one reads files, and a search among channels
// compares hundreds of names.
locale_t unicode_locale() {
  static const locale_t made = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  return made;
}

}  // namespace

std::string Stored_text::converted(std::string text, Lines lines) {
  standard_.convert(&text, lines);
  return text;
}

std::string Stored_text::shown(const std::string& stored, Lines lines) {
  const std::string text = unjoined(stored);
  // A line feed at the front of a description is one, unless what follows is no UTF-8: then it is a selector.
  const bool selected = !text.empty() && static_cast<uint8_t>(text.front()) < 0x20 && text.front() != '\n';
  if (text.empty() || selected)
    return converted(text, lines);
  std::string as_utf8 = converted(UTF8_SELECTOR + text, lines);
  const bool broken = as_utf8.find(REPLACEMENT) != std::string::npos && text.find(REPLACEMENT) == std::string::npos;
  return broken ? converted(text, lines) : as_utf8;
}

void Stored_text::show(Programme* event) {
  event->language = shown(event->language);
  event->title = shown(event->title);
  event->description = shown(event->description, Lines::KEPT);
  event->extended = shown(event->extended, Lines::KEPT);
}

std::string Stored_text::lower_case(const std::string& text) {
  const locale_t unicode = unicode_locale();
  const locale_t before = unicode != nullptr ? uselocale(unicode) : nullptr;
  std::string out;
  std::mbstate_t in_state{};
  std::mbstate_t out_state{};
  for (size_t at = 0; at < text.size();) {
    wchar_t c = 0;
    const size_t size = unicode != nullptr ? std::mbrtowc(&c, text.data() + at, text.size() - at, &in_state) : 0;
    if (size == 0 || size > text.size()) {  // Bytes that are no character stay as they are.
      const char byte = text[at++];
      out += byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
      in_state = {};
      continue;
    }
    char bytes[16];  // MB_LEN_MAX
    const size_t written = std::wcrtomb(bytes, static_cast<wchar_t>(std::towlower(static_cast<wint_t>(c))), &out_state);
    out.append(bytes, written <= sizeof bytes ? written : 0);
    at += size;
  }
  if (unicode != nullptr)
    (void)uselocale(before);
  return out;
}
