// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/text.h"

#include "support/test.h"
#include "tools/cli/bands.h"
#include "tools/database/guide_db.h"

namespace {

using Items = std::vector<std::pair<std::string, std::string>>;

TEST(Split_items, reads_both_ways_in_which_they_are_stored) {
  const struct {
    const char* legend;
    std::string list;
    Items items;
  } cases[] = {
      {"none", "", {}},
      {"a line for each", "Director:A, B: C\n:D\nCast:\n", {{"Director", "A, B: C"}, {"", "D"}, {"Cast", ""}}},
      {"a line without a colon", "Director\n", {{"Director", ""}}},
      {"doubled", "DirectorDirector:A, B: C,CastCast:D,", {{"Director", "A, B: C"}, {"Cast", "D"}}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(split_items(c.list), c.items) << c.legend;
}

// U+FFFD stands for bytes that are no character.
TEST(Clean_text, is_fit_for_a_screen) {
  const struct {
    const char* legend;
    std::string text;
    std::string clean;
  } cases[] = {
      {"an escape sequence loses its escape", "\x1B[31mred\x1B]0;title\x07", "[31mred]0;title"},
      {"a C1 control sequence introducer goes", "a\u009B31mb", "a31mb"},
      {"a raw byte 0x9B is no UTF-8", "a\23331m", "a\uFFFD31m"},
      {"delete and backspace go", "a\x08\177b", "ab"},
      {"zero bytes go", std::string("a\0b", 3), "ab"},
      {"line breaks and tabs are blanks", "a\r\nb\tc", "a  b c"},
      {"DVB's line break in single-byte tables", "a\u008Ab", "a b"},
      {"DVB's line break in UTF-8", "a\uE08Ab", "a b"},
      {"DVB's emphasis marks go", "\u0086a\u0087\uE086b\uE087", "ab"},
      {"the selector of UTF-8 goes", "\x15Žluťoučký", "Žluťoučký"},
      {"the selector of a failed conversion goes", "\x05plain", "plain"},
      {"the long selector of a failed conversion goes", std::string("\x10\x00\x02plain", 8), "plain"},
      {"two bytes a character are converted", std::string("\x11\x03\xA8\x00\x41\x20\xAC", 7), "ΨA€"},
      {"half a surrogate pair is no character", std::string("\x11\xD8\x00\x00\x41", 5), "\uFFFDA"},
      {"an odd byte behind two-byte characters is left out", std::string("\x11\x00\x41\x03", 4), "A"},
      {"control characters in two bytes go, too", std::string("\x11\x00\x1B\x00\x41", 5), "A"},
      {"the direction of writing stays", "\u202Eabc\u2066\u061Cd\u206Ae", "abcde"},
      {"blanks around a text go", "  a b  ", "a b"},
      {"a text of blanks is empty", "   ", ""},
      {"an empty text stays empty", "", ""},
      {"a cut character", "a\xC3", "a\uFFFD"},
      {"an overlong slash", "\xC0\xAF", "\uFFFD\uFFFD"},
      {"a surrogate in UTF-8", "\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
      {"beyond Unicode", "\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"two-byte characters stored in pairs", "\xFB\xA4\xB0\x8E\xB1\xFC\x84\x84\x90\x90\x91", "ΓαББ"},
      {"five bytes for what needs one", "\xF8\x80\x80\x80\x81", "\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"four bytes a character", "\xF0\x9F\x93\xBA", "\xF0\x9F\x93\xBA"},
      {"every script stays", "Öökull Ψαρόνι Їжак", "Öökull Ψαρόνι Їжак"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(clean_text(c.text), c.clean) << c.legend;
}

TEST(Clean_lines, keep_what_parts_lines_and_words) {
  EXPECT_EQ(clean_lines("\tName: \x1B[2Ja\u009Bb\x9B\u202Ec\r\x07 \n\nNext"), "\tName: [2Jab\uFFFDc  \n\nNext");
  EXPECT_EQ(clean_lines("\x11"
                        "ab"),
            "ab");
  EXPECT_EQ(clean_lines(""), "");
}

TEST(Mhz, shows_three_decimals) {
  EXPECT_EQ(mhz(506000000), "506.000 MHz");
  EXPECT_EQ(mhz(177500000), "177.500 MHz");
  EXPECT_EQ(mhz(650166666), "650.166 MHz");
  EXPECT_EQ(mhz(474001000), "474.001 MHz");
}

TEST(Bands, are_channels_5_to_12_and_21_to_69) {
  std::vector<int> vhf;
  for (int freq = 177500000; freq <= 226500000; freq += 7000000)
    vhf.push_back(freq);
  std::vector<int> uhf;
  for (int freq = 474000000; freq <= 858000000; freq += 8000000)
    uhf.push_back(freq);
  EXPECT_EQ(vhf.size(), 8U);
  EXPECT_EQ(uhf.size(), 49U);
  EXPECT_EQ(band_frequencies("vhf"), vhf);
  EXPECT_EQ(band_frequencies("uhf"), uhf);
  vhf.insert(vhf.end(), uhf.begin(), uhf.end());
  EXPECT_EQ(band_frequencies("all"), vhf) << "both in order";
}

}  // namespace
