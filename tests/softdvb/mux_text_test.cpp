// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/text.h"
#include "softdvb/mux_support.h"
#include "support/test.h"

struct Text_case {
  const char* legend;
  const char* charset;
  const char* text;
  const char* outcome;  // bytes, or what is wrong
};

// Bytes from the code charts of EN 300 468, annex A, and ISO/IEC 8859.
static const Text_case CASES[] = {
    {"the first character that a table does not have", "iso6937", "Öö Ж",
     "the character \"Ж\" is not in the table \"iso6937\""},
    {"a Greek one", "iso8859-5", "Ελλάδα", "the character \"Ε\" is not in the table \"iso8859-5\""},
    {"one of four bytes", "ucs2", "a\xF0\x9F\x98\x80",
     "the character \"\xF0\x9F\x98\x80\" is not in the table \"ucs2\""},
    {"no UTF-8", "iso6937", "a\xFF", "the character \"?\" is not in the table \"iso6937\""},
    {"no UTF-8 at the end", "utf-8", "a\xC3", "the character \"?\" is not in the table \"utf-8\""},
    {"an unknown table", "iso8859-12", "a", "the character table \"iso8859-12\" is unknown"},
    {"empty text has no selector", "iso8859-5", "", ""},
    {"default table, accent before the letter", "iso6937", "Õhtu", "c44f687475"},
    {"default table, caron and cedilla", "iso6937", "šç", "cf73cb63"},
    {"default table, euro and dollar", "iso6937", "€$", "a424"},
    {"Cyrillic", "iso8859-5", "Жу", "01b6e3"},
    {"Arabic", "iso8859-6", "ا", "02c7"},
    {"Greek", "iso8859-7", "Αά", "03c1dc"},
    {"Hebrew", "iso8859-8", "א", "04e0"},
    {"Turkish", "iso8859-9", "ğ", "05f0"},
    {"Nordic", "iso8859-10", "ŋ", "06bf"},
    {"Thai", "iso8859-11", "ก", "07a1"},
    {"Baltic", "iso8859-13", "õš", "09f5f0"},
    {"Celtic", "iso8859-14", "ŵ", "0af0"},
    {"Latin 9", "iso8859-15", "€õ", "0ba4f5"},
    {"three-byte selector, Latin 2", "0x10/2", "ř", "100002f8"},
    {"three-byte selector, Cyrillic", "0x10/5", "Ж", "100005b6"},
    {"three-byte selector, Latin 9", "0x10/15", "ž", "10000fb8"},
    {"UCS-2", "ucs2", "aЖ", "1100610416"},
    {"Korean", "ksx1001", "가", "12b0a1"},
    {"Chinese, simplified", "gb2312", "中", "13d6d0"},
    {"Chinese, traditional", "big5", "中", "14a4a4"},
    {"UTF-16", "utf-16", "aЖ😀", "1100610416d83dde00"},
    {"GBK", "gbk", "中丂", "13d6d08140"},
    {"Chinese, traditional, as in ISO 10646", "0x14/utf-16", "中a", "144e2d0061"},
    {"UTF-8", "utf-8", "ř", "15c599"},
    {"no selector, Latin 1", "silent/iso8859-1", "é", "e9"},
    {"no selector, Latin 2", "silent/iso8859-2", "ř", "f8"},
    {"no selector, Cyrillic", "silent/iso8859-5", "Ж", "b6"},
    {"no selector, Greek", "silent/iso8859-7", "Α", "c1"},
    {"no selector, Turkish", "silent/iso8859-9", "ğ", "f0"},
    {"no selector, Latin 9, whose euro sign is the same", "silent/iso8859-15", "š€", "a8a4"},
    {"no selector, UTF-8", "silent/utf-8", "ř€", "c599e282ac"},
    {"line feed, one byte", "iso8859-5", "Ж\na", "01b68a61"},
    {"line feed, UCS-2", "ucs2", "a\nb", "110061e08a0062"},
    {"line feed, pairs", "gb2312", "中\na", "13d6d0e08a61"},
    {"line feed, UTF-8", "utf-8", "a\nb", "1561ee828a62"},
    {"emphasis, one byte", "iso6937", "\u0086a\u0087", "866187"},
    {"emphasis, UTF-8", "utf-8", "\u0086a", "15ee828661"},
};

TEST(Mux_text, is_encoded_or_refused) {
  for (const Text_case& c : CASES) {
    std::string problem;
    const std::string bytes = mux_support::hex(softdvb_mux::encode_text(c.text, c.charset, &problem));
    EXPECT_EQ(problem.empty() ? bytes : problem, c.outcome) << c.legend;
  }
}
