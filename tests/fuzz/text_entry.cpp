// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A text as broadcast behind a byte: its lowest bits choose the converter, the others what is done with it. What
// Receiver_profile::Texts::STANDARD promises is looked at for each.
#include <cstdlib>
#include <string>
#include <vector>

#include <dvbsi++/extended_event_descriptor.h>

#include "base/messages.h"
#include "base/receiver_profile.h"
#include "fuzz/entries.h"
#include "si/dvb_text.h"
#include "si/eit_lang.h"
#include "si/extended_texts.h"

namespace {

struct Converters {
  Dvb_text box, any, latin_2;

  Converters() {
    verbosity_kelvo = -1;
    Receiver_profile profile = Receiver_profile::any_linux();
    any.read_as(profile);
    profile.charset = "ISO-8859-2";
    latin_2.read_as(profile);
  }
};

void demand(bool holds) {
  if (!holds)
    std::abort();
}

// Valid UTF-8 without control codes, of either range and in the private area.
void demand_clean(const std::string& text, bool lines) {
  for (size_t i = 0; i < text.size();) {
    const auto byte = [&](size_t at) { return static_cast<uint8_t>(text[at]); };
    const size_t size = byte(i) < 0x80 ? 1 : byte(i) < 0xE0 ? 2 : byte(i) < 0xF0 ? 3 : 4;
    char32_t c = size == 1 ? byte(i) : byte(i) & (0x7Fu >> size);
    demand(byte(i) < 0xF8 && (byte(i) & 0xC0) != 0x80 && i + size <= text.size());
    for (size_t at = i + 1; at < i + size; ++at) {
      demand((byte(at) & 0xC0) == 0x80);
      c = c << 6 | (byte(at) & 0x3F);
    }
    constexpr char32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    demand(c >= SMALLEST[size] && c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF));
    demand(c >= 0x20 || (lines && c == '\n'));
    demand((c < 0x7F || c > 0x9F) && (c < 0xE080 || c > 0xE09F));
    i += size;
  }
}

// Extended event descriptors one behind the other, each behind its length.
void convert_extended(Dvb_text& text, const uint8_t* data, size_t size, bool clean) {
  Extended_texts so_far;
  EIT_lang language;
  while (size > 0) {
    const size_t length = std::min<size_t>(data[0], size - 1);
    std::vector<uint8_t> bytes{0x4E, static_cast<uint8_t>(length)};
    bytes.insert(bytes.end(), data + 1, data + 1 + length);
    bytes.resize(bytes.size() + 512);  // a system's classes trust lengths
    const ExtendedEventDescriptor part(bytes.data());
    (void)text.add_extended(part, so_far, language);
    data += 1 + length;
    size -= 1 + length;
  }
  if (!clean)
    return;
  demand_clean(language.ext_desc, true);
  demand_clean(language.ext_list, true);
  for (const auto& [name, value] : language.items) {
    demand_clean(name, false);
    demand_clean(value, false);
  }
}

}  // namespace

int fuzz::text(const uint8_t* data, size_t size) {
  static Converters converters;
  if (size == 0)
    return 0;
  const unsigned how = data[0];
  ++data;
  --size;
  Dvb_text* all[] = {&converters.box, &converters.any, &converters.latin_2, &converters.any};
  Dvb_text& text = *all[how & 3];
  const bool clean = (how & 3) != 0;
  if ((how & 4) != 0) {
    convert_extended(text, data, size, clean);
    return 0;
  }
  const bool kept = (how & 8) != 0;
  const std::string before(reinterpret_cast<const char*>(data), size);
  const std::string after = text.utf8(before, kept ? Dvb_text::Lines::KEPT : Dvb_text::Lines::BLANKS);
  // A byte becomes three of U+FFFD at most; what cannot be read at all has its number in letters besides.
  demand(after.size() <= 4 * before.size() + 16);
  if (clean)
    demand_clean(after, kept);
  return 0;
}
