// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/iso_6937.h"

#include <cstddef>
#include <cstdint>

#include "si/broken_letter.h"

namespace {

constexpr unsigned FIRST_ACCENT = 0xC1;
constexpr unsigned LAST_ACCENT = 0xCF;

// From 0xA0 on; '?' where nothing is defined, as for the accents, which are not characters of their own.
constexpr std::u32string_view UPPER =
    U"\u00A0¡¢£€¥?§¤‘“«←↑→↓"
    U"°±²³×µ¶·÷’”»¼½¾¿"
    U"????????????????"
    U"—¹®©™♪¬¦????⅛⅜⅝⅞"
    U"ΩÆĐªĦ?ĲĿŁØŒºÞŦŊŉ"
    U"ĸæđðħıĳŀłøœßþŧŋ\u00AD";
static_assert(UPPER.size() == 0x60);

constexpr std::u32string_view LETTERS = U"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyzÆØæø";

struct Accent {
  char32_t combining;
  char32_t alone;
  std::u32string_view composed;  // with each of LETTERS; '.' where Unicode has no such character
};

constexpr Accent ACCENTS[] = {
    {0x0300, U'`', U"À...È...Ì....ǸÒ.....Ù.Ẁ.Ỳ.à...è...ì....ǹò.....ù.ẁ.ỳ....."},
    {0x0301, U'´', U"Á.Ć.É.Ǵ.Í.ḰĹḾŃÓṔ.ŔŚ.Ú.Ẃ.ÝŹá.ć.é.ǵ.í.ḱĺḿńóṕ.ŕś.ú.ẃ.ýźǼǾǽǿ"},
    {0x0302, U'^', U"Â.Ĉ.Ê.ĜĤÎĴ....Ô...Ŝ.Û.Ŵ.ŶẐâ.ĉ.ê.ĝĥîĵ....ô...ŝ.û.ŵ.ŷẑ...."},
    {0x0303, U'~', U"Ã...Ẽ...Ĩ....ÑÕ.....ŨṼ..Ỹ.ã...ẽ...ĩ....ñõ.....ũṽ..ỹ....."},
    {0x0304, U'¯', U"Ā...Ē.Ḡ.Ī.....Ō.....Ū...Ȳ.ā...ē.ḡ.ī.....ō.....ū...ȳ.Ǣ.ǣ."},
    {0x0306, U'˘', U"Ă...Ĕ.Ğ.Ĭ.....Ŏ.....Ŭ.....ă...ĕ.ğ.ĭ.....ŏ.....ŭ........."},
    {0x0307, U'˙', U"ȦḂĊḊĖḞĠḢİ...ṀṄȮṖ.ṘṠṪ..ẆẊẎŻȧḃċḋėḟġḣ....ṁṅȯṗ.ṙṡṫ..ẇẋẏż...."},
    {0x0308, U'¨', U"Ä...Ë..ḦÏ.....Ö.....Ü.ẄẌŸ.ä...ë..ḧï.....ö....ẗü.ẅẍÿ....."},
    {},
    {0x030A, U'˚', U"Å...................Ů.....å...................ů.ẘ.ẙ....."},
    {0x0327, U'¸', U"..ÇḐȨ.ĢḨ..ĶĻ.Ņ...ŖŞŢ........çḑȩ.ģḩ..ķļ.ņ...ŗşţ.........."},
    {},
    {0x030B, U'˝', U"..............Ő.....Ű...................ő.....ű........."},
    {0x0328, U'˛', U"Ą...Ę...Į.....Ǫ.....Ų.....ą...ę...į.....ǫ.....ų........."},
    {0x030C, U'ˇ', U"Ǎ.ČĎĚ.ǦȞǏ.ǨĽ.ŇǑ..ŘŠŤǓ....Žǎ.čďě.ǧȟǐǰǩľ.ňǒ..řšťǔ....ž...."},
};
static_assert(std::size(ACCENTS) == LAST_ACCENT - FIRST_ACCENT + 1);

char32_t character(unsigned byte) {
  if (byte < 0xA0)
    return byte;
  const char32_t c = UPPER[byte - 0xA0];
  return c == U'?' ? BROKEN_LETTER : c;
}

bool is_letter(unsigned byte) {
  return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
         (byte > 0xE0 && byte < 0xFF && byte != 0xE3 && byte != 0xE5 && byte != 0xEB);
}

// Appends the character that an accent makes with the byte behind it; false when it makes none.
bool append_accented(unsigned accent_byte, unsigned base, std::u32string* out) {
  const Accent& accent = ACCENTS[accent_byte - FIRST_ACCENT];
  if (accent.combining == 0)
    return false;
  if (base == ' ') {
    *out += accent.alone;
    return true;
  }
  // Czech broadcasts have "\xCA\xAD" where "Ů" is meant, a ring over what is an arrow by itself.
  if (accent_byte == 0xCA && base == 0xAD) {
    *out += U'Ů';
    return true;
  }
  if (!is_letter(base))
    return false;
  const char32_t letter = character(base) == U'ı' ? U'i' : character(base);
  const size_t at = LETTERS.find(letter);
  if (at != std::u32string_view::npos && accent.composed[at] != U'.') {
    *out += accent.composed[at];
  } else {
    *out += letter;
    *out += accent.combining;
  }
  return true;
}

}  // namespace

void append_iso_6937(std::string_view bytes, std::u32string* out) {
  for (size_t i = 0; i < bytes.size(); ++i) {
    const auto byte = static_cast<uint8_t>(bytes[i]);
    if (byte < FIRST_ACCENT || byte > LAST_ACCENT)
      *out += character(byte);
    else if (i + 1 == bytes.size())
      return;
    else if (append_accented(byte, static_cast<uint8_t>(bytes[i + 1]), out))
      ++i;
    else
      *out += BROKEN_LETTER;
  }
}
