// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/text.h"

#include "support/test.h"
#include "tools/cli/bands.h"

namespace {

struct Text_case {
  const char* legend;
  std::string text;
  std::string clean;
};

void PrintTo(const Text_case& c, std::ostream* out) {
  *out << c.legend;
}

class Clean_text : public testing::TestWithParam<Text_case> {};

TEST_P(Clean_text, is_fit_for_a_screen) {
  EXPECT_EQ(clean_text(GetParam().text), GetParam().clean) << GetParam().legend;
}

const Text_case CASES[] = {
    {"an escape sequence loses its escape", "\x1B[31mred\x1B]0;title\x07", "[31mred]0;title"},
    {"a C1 control sequence introducer goes",
     "a\xC2\x9B"
     "31mb",
     "a31mb"},
    {"a raw byte 0x9B is no UTF-8",
     "a\x9B"
     "31m",
     "a\xEF\xBF\xBD"
     "31m"},
    {"delete and backspace go",
     "a\x08\x7F"
     "b",
     "ab"},
    {"zero bytes go", std::string("a\0b", 3), "ab"},
    {"line breaks and tabs are blanks", "a\r\nb\tc", "a  b c"},
    {"DVB's line break in single-byte tables",
     "a\xC2\x8A"
     "b",
     "a b"},
    {"DVB's line break in UTF-8",
     "a\xEE\x82\x8A"
     "b",
     "a b"},
    {"DVB's emphasis marks go",
     "\xC2\x86"
     "a\xC2\x87\xEE\x82\x86"
     "b\xEE\x82\x87",
     "ab"},
    {"the selector of UTF-8 goes", "\x15Žluťoučký", "Žluťoučký"},
    {"the selector of a failed conversion goes", "\x05plain", "plain"},
    {"the long selector of a failed conversion goes", std::string("\x10\x00\x02plain", 8), "plain"},
    {"two bytes a character are converted", std::string("\x11\x03\xA8\x00\x41\x20\xAC", 7), "ΨA€"},
    {"half a surrogate pair is no character", std::string("\x11\xD8\x00\x00\x41", 5),
     "\xEF\xBF\xBD"
     "A"},
    {"an odd byte behind two-byte characters is left out", std::string("\x11\x00\x41\x03", 4), "A"},
    {"control characters in two bytes go, too", std::string("\x11\x00\x1B\x00\x41", 5), "A"},
    {"the direction of writing stays",
     "\xE2\x80\xAE"
     "abc\xE2\x81\xA6",
     "abc"},
    {"blanks around a text go", "  a b  ", "a b"},
    {"a text of blanks is empty", "   ", ""},
    {"an empty text stays empty", "", ""},
    {"a cut character", "a\xC3", "a\xEF\xBF\xBD"},
    {"an overlong slash", "\xC0\xAF", "\xEF\xBF\xBD\xEF\xBF\xBD"},
    {"a surrogate in UTF-8", "\xED\xA0\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
    {"beyond Unicode", "\xF4\x90\x80\x80", "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
    {"two-byte characters stored in pairs", "\xFB\xA4\xB0\x8E\xB1\xFC\x84\x84\x90\x90\x91", "ΓαББ"},
    {"five bytes for what needs one", "\xF8\x80\x80\x80\x81",
     "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
    {"four bytes a character", "\xF0\x9F\x93\xBA", "\xF0\x9F\x93\xBA"},
    {"every script stays", "Öökull Ψαρόνι Їжак", "Öökull Ψαρόνι Їжак"},
};

INSTANTIATE_TEST_SUITE_P(texts, Clean_text, testing::ValuesIn(CASES));

TEST(Mhz, shows_three_decimals) {
  EXPECT_EQ(mhz(506000000), "506.000 MHz");
  EXPECT_EQ(mhz(177500000), "177.500 MHz");
  EXPECT_EQ(mhz(650166666), "650.166 MHz");
  EXPECT_EQ(mhz(474001000), "474.001 MHz");
}

TEST(Bands, vhf_is_channels_5_to_12) {
  const std::vector<int> freqs = band_frequencies("vhf");
  ASSERT_EQ(freqs.size(), 8U);
  EXPECT_EQ(freqs.front(), 177500000);
  EXPECT_EQ(freqs[1], 184500000);
  EXPECT_EQ(freqs.back(), 226500000);
}

TEST(Bands, uhf_is_channels_21_to_69) {
  const std::vector<int> freqs = band_frequencies("uhf");
  ASSERT_EQ(freqs.size(), 49U);
  EXPECT_EQ(freqs.front(), 474000000);
  EXPECT_EQ(freqs[1], 482000000);
  EXPECT_EQ(freqs.back(), 858000000);
}

TEST(Bands, all_is_both_in_order) {
  const std::vector<int> freqs = band_frequencies("all");
  ASSERT_EQ(freqs.size(), 57U);
  EXPECT_EQ(freqs.front(), 177500000);
  EXPECT_EQ(freqs[8], 474000000);
  EXPECT_EQ(freqs.back(), 858000000);
}

}  // namespace
