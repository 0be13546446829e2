// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "softdvb/mux/text.h"
#include "softdvb/mux_support.h"
#include "support/test.h"

namespace {

using mux_support::hex;
using softdvb_mux::encode_text;

std::string encoded(const std::string& text, const std::string& charset) {
  std::string problem;
  const std::string result = hex(encode_text(text, charset, &problem));
  return problem.empty() ? result : problem;
}

TEST(MuxText, names_the_first_character_that_a_table_does_not_have) {
  EXPECT_EQ(encoded("Öö Ж", "iso6937"), "the character \"Ж\" is not in the table \"iso6937\"");
  EXPECT_EQ(encoded("Ελλάδα", "iso8859-5"), "the character \"Ε\" is not in the table \"iso8859-5\"");
  EXPECT_EQ(encoded("a\xF0\x9F\x98\x80", "ucs2"), "the character \"\xF0\x9F\x98\x80\" is not in the table \"ucs2\"");
}

TEST(MuxText, refuses_bytes_that_are_not_utf8) {
  EXPECT_EQ(encoded("a\xFF", "iso6937"), "the character \"?\" is not in the table \"iso6937\"");
  EXPECT_EQ(encoded("a\xC3", "utf-8"), "the character \"?\" is not in the table \"utf-8\"");
}

TEST(MuxText, refuses_an_unknown_table) {
  EXPECT_EQ(encoded("a", "iso8859-12"), "the character table \"iso8859-12\" is unknown");
}

TEST(MuxText, empty_text_has_no_selector) {
  EXPECT_EQ(encoded("", "iso8859-5"), "");
}

struct Table_case {
  const char* legend;
  const char* charset;
  const char* text;
  const char* bytes;
};

void PrintTo(const Table_case& table, std::ostream* out) {
  *out << table.legend;
}

class Mux_text_table : public testing::TestWithParam<Table_case> {};

TEST_P(Mux_text_table, encodes) {
  EXPECT_EQ(encoded(GetParam().text, GetParam().charset), GetParam().bytes) << GetParam().legend;
}

// Bytes from the code charts of EN 300 468, annex A, and ISO/IEC 8859.
INSTANTIATE_TEST_SUITE_P(
    Tables, Mux_text_table,
    testing::Values(Table_case{"default table, accent before the letter", "iso6937", "Õhtu", "c44f687475"},
                    Table_case{"default table, caron and cedilla", "iso6937", "šç", "cf73cb63"},
                    Table_case{"default table, euro and dollar", "iso6937", "€$", "a424"},
                    Table_case{"Cyrillic", "iso8859-5", "Жу", "01b6e3"}, Table_case{"Arabic", "iso8859-6", "ا", "02c7"},
                    Table_case{"Greek", "iso8859-7", "Αά", "03c1dc"}, Table_case{"Hebrew", "iso8859-8", "א", "04e0"},
                    Table_case{"Turkish", "iso8859-9", "ğ", "05f0"}, Table_case{"Nordic", "iso8859-10", "ŋ", "06bf"},
                    Table_case{"Thai", "iso8859-11", "ก", "07a1"}, Table_case{"Baltic", "iso8859-13", "õš", "09f5f0"},
                    Table_case{"Celtic", "iso8859-14", "ŵ", "0af0"},
                    Table_case{"Latin 9", "iso8859-15", "€õ", "0ba4f5"},
                    Table_case{"three-byte selector, Latin 2", "0x10/2", "ř", "100002f8"},
                    Table_case{"three-byte selector, Cyrillic", "0x10/5", "Ж", "100005b6"},
                    Table_case{"three-byte selector, Latin 9", "0x10/15", "ž", "10000fb8"},
                    Table_case{"UCS-2", "ucs2", "aЖ", "1100610416"}, Table_case{"Korean", "ksx1001", "가", "12b0a1"},
                    Table_case{"Chinese, simplified", "gb2312", "中", "13d6d0"},
                    Table_case{"Chinese, traditional", "big5", "中", "14a4a4"},
                    Table_case{"UTF-8", "utf-8", "ř", "15c599"},
                    Table_case{"line feed, one byte", "iso8859-5", "Ж\na", "01b68a61"},
                    Table_case{"line feed, UCS-2", "ucs2", "a\nb", "110061e08a0062"},
                    Table_case{"line feed, UTF-8", "utf-8", "a\nb", "1561ee828a62"},
                    Table_case{"emphasis, one byte", "iso6937", "\u0086a\u0087", "866187"},
                    Table_case{"emphasis, UTF-8", "utf-8", "\u0086a", "15ee828661"}));

}  // namespace
