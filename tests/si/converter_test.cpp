// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Character tables that the C library does not have. Under the launcher, which lets their opening fail.
#include "si/si_support.h"
#include "support/softdvb.h"

using namespace si_support;

namespace {

class Converters : public Parser_test {
 protected:
  void SetUp() override { ASSERT_TRUE(support::under_softdvb()); }
  void TearDown() override { support::softdvb_control("clear faults"); }

  std::string construction(int level) {
    return messages_at(level, [&] { another = std::make_unique<Siparse>(&filter, 1, CONN, TYPE, &db); });
  }
  // The text after conversion by the parser constructed last, and behind it what that printed.
  std::string converted(std::string text) {
    const std::string all = messages_at(0, [&] { another->dvb_text_to_utf8(&text); });
    return text + "|" + all;
  }
  std::unique_ptr<Siparse> another;
};

const char* const REASON = "Invalid argument";

TEST_F(Converters, are_all_there) {
  EXPECT_EQ(construction(0), "");
}

TEST_F(Converters, one_that_is_missing_is_an_error_and_its_texts_stay_as_they_are) {
  support::softdvb_control("fault iconv_open(ISO-8859-9)=EINVAL");
  EXPECT_EQ(construction(0), std::string("ERROR: Cannot set conversion ISO-8859-9 to UTF-8, ") + REASON + "\n");
  EXPECT_EQ(converted("\5abc"),
            "\5abc|ERROR: Conversion error: dvb_string_type 8, converted 0,  ret code -1, offending char a\n"
            "dvb_text_to_utf8:: Bad file descriptor\n");
  EXPECT_EQ(converted("\x04\xE0"), "\xD7\x90|");
  EXPECT_EQ(converted("abc"), "abc|");
  EXPECT_EQ(construction(-1), "");
}

TEST_F(Converters, quirk_those_of_iso_6937_and_10646_are_reported_in_other_words) {
  support::softdvb_control("fault iconv_open(ISO6937)=EINVAL");
  EXPECT_EQ(construction(0), std::string("ERROR: Cannot set conversion from ISO6937 to UTF-8, ") + REASON + "\n");
  EXPECT_EQ(converted("abc"),
            "abc|ERROR: Conversion error: dvb_string_type 97, converted 0,  ret code -1, offending char a\n"
            "dvb_text_to_utf8:: Bad file descriptor\n");
  EXPECT_EQ(construction(-1), "");
  support::softdvb_control("clear faults");
  support::softdvb_control("fault iconv_open(10646-1:1993)=EMFILE");
  EXPECT_EQ(construction(0), "ERROR: Cannot set conversion from 10646-1:1993 to UTF-8, Too many open files\n");
  EXPECT_EQ(construction(-1), "");
}

// The twelfth is never tried.
TEST_F(Converters, are_opened_in_their_order) {
  support::softdvb_control("fault iconv_open=EINVAL");
  std::string expected;
  for (const int n : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 14, 15, 16})
    expected += "ERROR: Cannot set conversion ISO-8859-" + std::to_string(n) + " to UTF-8, " + REASON + "\n";
  for (const char* name : {"ISO6937", "10646-1:1993"})
    expected += std::string("ERROR: Cannot set conversion from ") + name + " to UTF-8, " + REASON + "\n";
  EXPECT_EQ(construction(0), expected);
  for (const char* text : {"abc", "\x01xyz", "\x0Bxyz"})
    EXPECT_THAT(converted(text), StartsWith(std::string(text) + "|ERROR: Conversion error: "));
  another.reset();
}

}  // namespace
