// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// DVB text to UTF-8, whatever is broadcast (EN 300 468, Annex A).
#include "si/standard_text.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <utility>

#include <dvbsi++/extended_event_descriptor.h>

#include "si/broken_letter.h"
#include "si/eit_lang.h"
#include "si/extended_texts.h"
#include "si/iso_6937.h"

namespace {

constexpr unsigned NO_TABLE = 12;  // there is no ISO 8859-12

unsigned byte_at(std::string_view bytes, size_t i) {
  return i < bytes.size() ? static_cast<uint8_t>(bytes[i]) : 0u;
}

// The bytes at the front of a text that announce its table.
std::string_view selector_of(std::string_view text) {
  const unsigned first = byte_at(text, 0);
  if (text.empty() || first == 0 || first >= 0x20)
    return {};
  return text.substr(0, first == 0x10 ? 3 : first == 0x1F ? 2 : 1);
}

// One character of UTF-8 at the front of a text, U+FFFD where there is none.
struct Utf8_character {
  enum class State { GOOD, WRONG, CUT };  // CUT: nothing is wrong but that bytes are missing at the end

  char32_t character;
  size_t size;  // in bytes
  State state = State::WRONG;
};

Utf8_character utf8_character(std::string_view bytes) {
  const unsigned first = byte_at(bytes, 0);
  if (first < 0x80)
    return {first, 1, Utf8_character::State::GOOD};
  const size_t size = first >= 0xC2 && first <= 0xDF   ? 2
                      : (first & 0xF0) == 0xE0         ? 3
                      : first >= 0xF0 && first <= 0xF4 ? 4
                                                       : 0;
  if (size == 0)
    return {BROKEN_LETTER, 1};
  char32_t character = first & (0x7Fu >> size);
  for (size_t i = 1; i < size; ++i) {
    if (i == bytes.size())
      return {BROKEN_LETTER, i, Utf8_character::State::CUT};
    const unsigned byte = byte_at(bytes, i);
    // The second byte's range keeps out forms that are too long, surrogates, and what lies beyond Unicode.
    const unsigned low = i != 1 ? 0x80 : first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned high = i != 1 ? 0xBF : first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (byte < low || byte > high)
      return {BROKEN_LETTER, i};
    character = character << 6 | (byte & 0x3F);
  }
  return {character, size, Utf8_character::State::GOOD};
}

void append_utf8(std::string_view bytes, std::u32string* out) {
  while (!bytes.empty()) {
    const Utf8_character next = utf8_character(bytes);
    const unsigned byte = byte_at(bytes, 0);
    if (next.state == Utf8_character::State::CUT)
      return;
    // Some broadcasters leave the control codes of one-byte tables in it.
    if (next.state == Utf8_character::State::WRONG && (byte == 0x86 || byte == 0x87 || byte == 0x8A))
      *out += char32_t{byte};
    else
      *out += next.character;
    bytes.remove_prefix(next.size);
  }
}

// UTF-8 that does not say so. In ISO 6937 bytes from 0xC1 to 0xCF stand before letters, so real texts of it are never
// taken for UTF-8; its signs from 0xD0 on can look like one character of two bytes, but hardly like several.
// The same goes for the one wrong "Ů" of append_iso_6937(), which would be a sign of phonetics.
bool is_silent_utf8(std::string_view bytes) {
  constexpr char32_t RING_AND_ARROW = 0x02AD;
  size_t certain = 0, doubtful = 0;
  while (!bytes.empty()) {
    const Utf8_character next = utf8_character(bytes);
    const unsigned byte = byte_at(bytes, 0);
    if (next.state == Utf8_character::State::WRONG || next.character == RING_AND_ARROW)
      return false;
    if (next.state == Utf8_character::State::CUT)
      break;
    if (next.size != 1)
      ++(byte >= 0xD0 && byte <= 0xDF ? doubtful : certain);
    bytes.remove_prefix(next.size);
  }
  return certain != 0 || doubtful > 1;
}

void append_utf16(std::string_view bytes, std::u32string* out) {
  const bool swapped = byte_at(bytes, 0) == 0xFF && byte_at(bytes, 1) == 0xFE;
  const auto unit = [&](size_t i) -> char32_t {
    return byte_at(bytes, i + (swapped ? 1 : 0)) << 8 | byte_at(bytes, i + (swapped ? 0 : 1));
  };
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const char32_t c = unit(i);
    if (c < 0xD800 || c > 0xDFFF) {
      *out += c;
      continue;
    }
    if (c <= 0xDBFF && i + 3 >= bytes.size())
      return;
    const char32_t low = c <= 0xDBFF ? unit(i + 2) : 0;
    if (low >= 0xDC00 && low <= 0xDFFF) {
      *out += static_cast<char32_t>(0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00));
      i += 2;
    } else {
      *out += BROKEN_LETTER;
    }
  }
}

// For tables that nobody knows: letters of ASCII are the same in most.
void append_unknown(std::string_view bytes, std::u32string* out) {
  for (const char c : bytes)
    *out += static_cast<uint8_t>(c) < 0xA0 ? static_cast<uint8_t>(c) : BROKEN_LETTER;
}

// Encodings of broadcasters' own (0x1F and a number). The registered ones are secret, and they compress: none of the
// bytes is a letter.
void append_unreadable(std::string_view selector, std::u32string* out) {
  char mark[16];
  (void)std::snprintf(mark, sizeof mark, "[1F %02X]", byte_at(selector, 1));
  *out += BROKEN_LETTER;
  for (const char* c = mark; *c != '\0'; ++c)
    *out += static_cast<char32_t>(*c);
}

void append_encoded(char32_t c, std::string* out) {
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

bool is_dropped(char32_t c) {
  constexpr char32_t SOFT_HYPHEN = 0xAD, BYTE_ORDER_MARK = 0xFEFF;
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || (c >= 0xE080 && c <= 0xE09F) || c == SOFT_HYPHEN ||
         c == BYTE_ORDER_MARK;
}

// Control codes (EN 300 468, A.1) stand at U+0080 to U+009F, or at U+E080 to U+E09F in the large tables.
std::string without_controls(const std::u32string& text, Text_converter::Lines lines) {
  const char line_break = lines == Text_converter::Lines::KEPT ? '\n' : ' ';
  std::string out;
  out.reserve(text.size() * 2);
  for (size_t i = 0; i < text.size(); ++i) {
    const char32_t c = text[i];
    if (c == '\r' && i + 1 < text.size() && text[i + 1] == '\n')
      continue;
    if (c == '\r' || c == '\n' || c == 0x8A || c == 0xE08A)
      out += line_break;
    else if (c == '\t')
      out += ' ';
    else if (!is_dropped(c))
      append_encoded(c, &out);
  }
  return out;
}

// "Director:" is followed by a colon in any case.
std::string without_colon(std::string name) {
  name.resize(name.find_last_not_of(" :") + 1);
  return name;
}

struct Item {
  std::string_view description;
  std::vector<std::string_view> parts;
};

}  // namespace

Standard_text::Standard_text(const std::string& charset) {
  if (charset.empty())
    return;
  charset_ = std::make_unique<Iconv_decoder>(charset);
  if (!charset_->valid())
    charset_.reset();
}

Standard_text::~Standard_text() = default;

void Standard_text::convert(std::string* text, Lines lines) {
  *text = joined({*text}, lines);
}

std::string Standard_text::add_extended(const ExtendedEventDescriptor& part, Extended_texts& so_far,
                                        EIT_lang& language) {
  const auto [kept, is_new] = so_far.parts.try_emplace(part.getDescriptorNumber());
  if (!is_new)
    return language.ext_desc;
  kept->second.text = part.getText();
  for (const ExtendedEvent* entry : *part.getItems())
    kept->second.items.emplace_back(entry->getItemDescription(), entry->getItem());

  std::vector<std::string_view> texts;
  std::vector<Item> items;
  for (const auto& [number, known] : so_far.parts) {
    texts.push_back(known.text);
    for (const auto& [description, item] : known.items) {
      if (!description.empty() || items.empty())
        items.push_back({description, {}});
      items.back().parts.push_back(item);
    }
  }
  language.ext_desc = joined(texts, Lines::KEPT);
  language.ext_list.clear();
  language.items.clear();
  for (const Item& item : items) {
    std::pair<std::string, std::string> pair(joined({item.description}, Lines::BLANKS),
                                             joined(item.parts, Lines::BLANKS));
    const bool empty = pair.first.empty() && pair.second.empty();
    if (empty || std::find(language.items.begin(), language.items.end(), pair) != language.items.end())
      continue;
    language.ext_list += without_colon(pair.first) + ":" + pair.second + "\n";
    language.items.push_back(std::move(pair));
  }
  return language.ext_desc;
}

// Each part has its own announcement. As long as that stays the same, characters may go on in the next part.
std::string Standard_text::joined(const std::vector<std::string_view>& parts, Lines lines) {
  std::u32string characters;
  std::string_view selector;
  std::string bytes;
  for (const std::string_view part : parts) {
    if (part.empty())
      continue;
    const std::string_view own = selector_of(part);
    if (own != selector) {
      append(selector, bytes, &characters);
      selector = own;
      bytes.clear();
    }
    bytes += part.substr(own.size());
  }
  append(selector, bytes, &characters);
  return without_controls(characters, lines);
}

void Standard_text::append(std::string_view selector, std::string_view bytes, std::u32string* out) {
  if (bytes.empty())
    return;
  const unsigned first = byte_at(selector, 0);
  switch (first) {
    case 0:
      return append_unannounced(bytes, out);
    case 0x10: {
      const unsigned table = byte_at(selector, 1) << 8 | byte_at(selector, 2);
      return append_iso_8859(table <= 15 ? table : 0, bytes, out);
    }
    case 0x11:
    case 0x14:
      return append_utf16(bytes, out);
    case 0x12:
      return append_pairs(korean_, "EUC-KR", 0xA1, bytes, out);
    case 0x13:
      return append_pairs(chinese_, "GBK", 0x81, bytes, out);
    case 0x15:
      return append_utf8(bytes, out);
    case 0x1F:
      return append_unreadable(selector, out);
    default:
      return append_iso_8859(first <= 0x0B ? first + 4 : 0, bytes, out);
  }
}

void Standard_text::append_unannounced(std::string_view bytes, std::u32string* out) {
  if (charset_ != nullptr)
    charset_->append(bytes, out);
  else if (is_silent_utf8(bytes))
    append_utf8(bytes, out);
  else
    append_iso_6937(bytes, out);
}

// 0 and 12 are no tables.
void Standard_text::append_iso_8859(unsigned table, std::string_view bytes, std::u32string* out) {
  if (table == 0 || table == NO_TABLE)
    return append_unknown(bytes, out);
  std::unique_ptr<Upper_half>& upper = iso8859_[table];
  if (upper == nullptr) {
    upper = std::make_unique<Upper_half>();
    Iconv_decoder decoder("ISO-8859-" + std::to_string(table));
    for (unsigned i = 0; i < upper->size(); ++i) {
      const char byte = static_cast<char>(0x80 | i);
      std::u32string character;
      decoder.append({&byte, 1}, &character);
      (*upper)[i] = character.size() == 1 ? character[0] : BROKEN_LETTER;
    }
    // Control codes are DVB's own, whatever the table says.
    for (unsigned i = 0; i < 0x20; ++i)
      (*upper)[i] = 0x80 | i;
  }
  for (const char c : bytes)
    *out += static_cast<uint8_t>(c) < 0x80 ? static_cast<uint8_t>(c) : (*upper)[static_cast<uint8_t>(c) & 0x7F];
}

// Tables of two bytes a character, the first one from `first` on, with ASCII between them.
void Standard_text::append_pairs(std::unique_ptr<Iconv_decoder>& decoder, const char* table, unsigned first,
                                 std::string_view bytes, std::u32string* out) {
  if (decoder == nullptr)
    decoder = std::make_unique<Iconv_decoder>(table);
  const unsigned first_trail = first == 0x81 ? 0x40 : first;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const unsigned lead = byte_at(bytes, i);
    const unsigned trail = byte_at(bytes, i + 1);
    if (lead == 0xE0 && (trail == 0x86 || trail == 0x87 || trail == 0x8A)) {
      *out += char32_t{trail};
      ++i;
    } else if (lead >= first && lead != 0xFF && trail >= first_trail && trail != 0x7F && trail != 0xFF) {
      const size_t known = out->size();
      decoder->append(bytes.substr(i, 2), out);
      if (out->size() != known + 1) {
        out->resize(known);
        *out += BROKEN_LETTER;
      }
      ++i;
    } else if (lead < 0xA0) {
      *out += char32_t{lead};
    } else if (i + 1 < bytes.size()) {
      *out += BROKEN_LETTER;
    }
  }
}
