// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// DVB text to UTF-8.
#include "si/si_support.h"

using namespace si_support;
using namespace std::string_literals;

namespace {

class Text : public Parser_test {
 protected:
  // The text after conversion; what it prints at `level` goes to `printed`.
  std::string convert(const std::string& text, int level = -1) {
    std::string result = text;
    printed = messages_at(level, [&] { EXPECT_EQ(parser.dvb_text_to_utf8(&result), &result); });
    return result;
  }
  // The text stays as it is and prints this from `level` on.
  void expect_refused(const std::string& text, const std::string& message, int level = 0) {
    SCOPED_TRACE(message);
    EXPECT_EQ(convert(text, level), text);
    EXPECT_EQ(printed, message);
    EXPECT_EQ(convert(text, level - 1), text);
    EXPECT_EQ(printed, "");
  }
  std::string printed;
};

std::string error_line(int selector, const char* consumed, int result, const std::string& offending,
                       const char* reason = "Success") {
  return formatted("ERROR: Conversion error: dvb_string_type %d, converted %s,  ret code %d, offending char ", selector,
                   consumed, result) +
         offending + "\ndvb_text_to_utf8:: " + reason + "\n";
}

const std::string NUL(1, '\0');

// --- What is refused -------------------------------------------------------------------------------------------------

TEST_F(Text, of_2000_bytes_is_converted_and_of_2001_is_refused) {
  const std::string longest = "\x05" + std::string(1999, '\xE4');
  std::string expected;
  for (int i = 0; i < 1999; ++i)
    expected += "\xC3\xA4";
  EXPECT_EQ(convert(longest, 0), expected);
  EXPECT_EQ(printed, "");
  expect_refused(longest + "x", "ERROR: String legth too large 2001\n");
}

TEST_F(Text, empty_or_beginning_with_0_is_left_alone_with_a_warning) {
  for (const std::string& text : {std::string(), NUL, NUL + "abc"})
    expect_refused(text, "WARNING: String input size 0 in dvb_text_to_utf8\n", 1);
}

TEST_F(Text, reserved_selectors_leave_it_alone_with_an_error) {
  for (const char b0 : "\x0C\x0D\x0E\x0F\x16\x17\x18\x19\x1A\x1B\x1C\x1D\x1E"s)
    expect_refused(b0 + "ab"s, formatted("ERROR:  3 bytes to Unknown decoding %x\n", static_cast<unsigned>(b0)));
}

TEST_F(Text, unsupported_selectors_warn_and_end_in_the_conversion_error) {
  const std::pair<std::string, std::string> cases[] = {
      {"\x12zz", "WARNING: Korean charset not supported\n"},
      {"\x13zz", "WARNING: Simplified Chinese chipset not supported\n"},
      {"\x14zz", "WARNING: Traditional Chinese not supported\n"},
  };
  for (const auto& [text, warning] : cases) {
    const std::string error = error_line(text[0], "0", 0, text.substr(0, 1));
    expect_refused(text, error);
    EXPECT_EQ(convert(text, 1), text);
    EXPECT_EQ(printed, warning + error);
  }
}

TEST_F(Text, selector_1f_names_its_second_byte) {
  const std::string behind = " not supported\n" + error_line(0x1F, "0", 0, "\x1F");
  expect_refused("\x1F\xA9xy", "ERROR: 4 bytes to ETSI TR 101 162 specific encoding(type 0x1f) a9" + behind);
  expect_refused("\x1F", "ERROR: 1 bytes to ETSI TR 101 162 specific encoding(type 0x1f) 0" + behind);
}

TEST_F(Text, a_wrong_table_number_behind_10_is_an_error_and_leaves_it_unchanged) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"\x10" + NUL + NUL + "ab", "0.0", "a"},
      {"\x10" + NUL + "\x10" + "ab", "0.16", "a"},
      {"\x10\x07\xFFzb", "7.-1", "z"},   // the second byte is printed
      {"\x10" + NUL + NUL, "0.0", NUL},  // nothing behind it
      {"\x10" + NUL, "0.0", NUL},        // no number
      {"\x10", "0.0", NUL},              // nothing at all
  };
  for (const auto& [text, index, offending] : cases)
    expect_refused(
        text, "ERROR: Incorrect index in text long list conversion " + index + error_line(0x10, "0", 0, offending));
}

TEST_F(Text, quirk_utf8_stays_as_it_is_with_an_error) {
  expect_refused("\x15T\xC3\xB6", error_line(0x15, "0", 0, "T"));
  EXPECT_EQ(convert("\x15x", 4), "\x15x");
  EXPECT_EQ(printed, "converting 2 input UTF-8\n" + error_line(0x15, "0", 0, "x"));
}

TEST_F(Text, a_selector_alone_gives_the_empty_text) {
  for (const char b0 : "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x11\x15"s) {
    EXPECT_EQ(convert(std::string(1, b0), 4), "") << int{b0};
    EXPECT_THAT(printed, Not(HasSubstr("ERROR"))) << int{b0};
  }
  EXPECT_EQ(convert("\x10" + NUL + "\x02"), "");
}

TEST_F(Text, the_table_that_does_not_exist_and_an_accent_without_a_letter_are_failed_conversions) {
  expect_refused("\x08xyz", error_line(0x0B, "0", -1, "x", "Bad file descriptor"));
  expect_refused("\x10" + NUL + "\x0Cxyz", error_line(0x10, "0", -1, "x", "Bad file descriptor"));
  expect_refused("ab\xC8", error_line('a', "2", -1, "\xC8", "Invalid argument"));
}

TEST_F(Text, quirk_an_error_names_the_short_tables_less_one) {
  // 0xA1 (octal 241) is not defined in ISO-8859-6 (selector 2).
  expect_refused("\2ab\241c", error_line(5, "2", -1, "\xA1", "Invalid or incomplete multibyte or wide character"));
}

TEST_F(Text, quirk_behind_11_a_character_has_four_bytes) {
  EXPECT_EQ(convert("\x11" + NUL + NUL + NUL + "A" + NUL + NUL + "\x01\x02", 0), "A\xC4\x82");
  EXPECT_EQ(printed, "");
  // What broadcasters send: two bytes a character.
  expect_refused("\x11" + NUL + "A" + NUL + "B" + NUL + "C", error_line(0x11, "4", -1, NUL, "Invalid argument"));
}

TEST_F(Text, an_error_does_not_spoil_the_next_text) {
  convert("\x02\xA1");
  convert("ab\xC8");
  EXPECT_EQ(convert("\x02\xC7"), "\xD8\xA7");
  EXPECT_EQ(convert("\310a"), "\xC3\xA4");
}

// --- What is converted -----------------------------------------------------------------------------------------------

TEST_F(Text, each_short_selector_has_its_table) {
  const struct {
    int selector;
    const char* input;
    const char* utf8;
  } cases[] = {
      {0x01, "\xB0\xD0", "\xD0\x90\xD0\xB0"},  // 5, Cyrillic
      {0x02, "\xC7", "\xD8\xA7"},              // 6, Arabic
      {0x03, "\xC1\xE1", "\xCE\x91\xCE\xB1"},  // 7, Greek
      {0x04, "\xE0", "\xD7\x90"},              // 8, Hebrew
      {0x05, "\xD0\xFD", "\xC4\x9E\xC4\xB1"},  // 9, Turkish
      {0x06, "\xA1", "\xC4\x84"},              // 10, Nordic
      {0x07, "\xA1", "\xE0\xB8\x81"},          // 11, Thai
      {0x09, "\xA8", "\xC3\x98"},              // 13, Baltic
      {0x0A, "\xA1", "\xE1\xB8\x82"},          // 14, Celtic
      {0x0B, "\xA4", "\xE2\x82\xAC"},          // 15, with the euro sign
  };
  for (const auto& c : cases) {
    EXPECT_EQ(convert(std::string(1, static_cast<char>(c.selector)) + "A" + c.input, 4), std::string("A") + c.utf8);
    EXPECT_EQ(printed, "converting " + std::to_string(2 + std::string(c.input).size()) + " inputshort list iso8859-" +
                           std::to_string(c.selector + 4) + "\n");
  }
}

TEST_F(Text, each_number_behind_10_has_its_table) {
  const char* a1[] = {nullptr, "\xC2\xA1",     "\xC4\x84",     "\xC4\xA6", "\xC4\x84", "\xD0\x81",
                      nullptr, "\xE2\x80\x98", nullptr,        "\xC2\xA1", "\xC4\x84", "\xE0\xB8\x81",
                      nullptr, "\xE2\x80\x9D", "\xE1\xB8\x82", "\xC2\xA1"};
  for (int n = 1; n <= 15; ++n) {
    if (n == 12)
      continue;
    SCOPED_TRACE(n);
    // 0xA1 where the table has it, else 0xE0.
    const bool has_a1 = a1[n] != nullptr;
    const std::string other = n == 6 ? "\xD9\x80" : "\xD7\x90";
    const std::string text = "\x10" + NUL + std::string(1, static_cast<char>(n)) + (has_a1 ? "\xA1" : "\xE0");
    EXPECT_EQ(convert(text, 4), has_a1 ? a1[n] : other);
    EXPECT_EQ(printed, "converting 4 inputlong list iso8859-" + std::to_string(n) + "\n");
  }
  EXPECT_EQ(convert("\x10\x77\x02\xB1", 0), "\xC4\x85") << "the byte after 10 is not looked at";
}

TEST_F(Text, without_a_selector_it_is_iso_6937) {
  const struct {
    const char* what;
    std::string text;
    std::string utf8;
  } cases[] = {
      // The accent in octal, then its letter.
      {"plain letters", "ABC", "ABC"},       {"the last selector is 0x1F", " x", " x"},
      {"grave", "\301a", "\xC3\xA0"},        {"acute", "\302e", "\xC3\xA9"},
      {"circumflex", "\303o", "\xC3\xB4"},   {"tilde", "\304n", "\xC3\xB1"},
      {"macron", "\305a", "\xC4\x81"},       {"breve", "\306g", "\xC4\x9F"},
      {"dot", "\307z", "\xC5\xBC"},          {"diaeresis", "\310o", "\xC3\xB6"},
      {"ring", "\312a", "\xC3\xA5"},         {"cedilla", "\313c", "\xC3\xA7"},
      {"double acute", "\315o", "\xC5\x91"}, {"ogonek", "\316a", "\xC4\x85"},
      {"caron", "\317s", "\xC5\xA1"},        {"letters of their own", "\xE1\xF1", "\xC3\x86\xC3\xA6"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(convert(c.text, 4), c.utf8) << c.what;
    EXPECT_EQ(printed, "converting " + std::to_string(c.text.size()) + " input6937\n");
  }
  EXPECT_EQ(convert("\5ABC", 0), "ABC") << "as behind a selector";
}

TEST_F(Text, conversions_are_traced_at_4_only) {
  for (const std::string& text :
       {"ABC"s, "\x01"s + "A", "\x10" + NUL + "\x02" + "A", "\x11" + NUL + NUL + NUL + "A", "\x15"s}) {
    convert(text, 3);
    EXPECT_EQ(printed, "");
  }
  convert("\x11" + NUL + NUL + NUL + "A", 4);
  EXPECT_EQ(printed, "converting 5 inputiso10646-1\n");
}

// --- The test tables -------------------------------------------------------------------------------------------------

const std::string INSERT =
    "INSERT INTO epglist (channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, run_status, free_ca, ev_id, "
    "pat_prnr, ev_name, ext_desc) VALUES (%d, %x, %x, %d, %x, %d, %d, %d, %d, %d, %Q, %Q)";
const std::string ERASE = "DELETE from epglist where channel = %d;";
const std::string LOOKUP = "ERROR: sql_cache lookup failed for ";

TEST_F(Text, quirk_the_test_tables_store_nothing_because_their_statements_do_not_prepare) {
  const std::string all = messages_at(0, [&] { parser.generate_char_test_tables(7); });
  EXPECT_THAT(all, HasSubstr(LOOKUP + ERASE));
  EXPECT_THAT(all, HasSubstr(LOOKUP + INSERT));
  EXPECT_THAT(rows("SELECT * FROM epglist"), IsEmpty());
}

TEST_F(Text, the_statements_of_the_test_tables_end_in_two_errors_each) {
  const auto errors = [](const std::string& statement) {
    return "ERROR: query " + statement + " prepare failed: near \"%\": syntax error" + LOOKUP + statement;
  };
  const std::string raw(300, 'a');
  EXPECT_EQ(messages_at(0, [&] { parser.replace_epg_info(1, 2, 3, "name", raw.data()); }), errors(INSERT));
  EXPECT_EQ(messages_at(-1, [&] { parser.replace_epg_info(1, 2, 3, "name", raw.data()); }), "");
  EXPECT_THAT(messages_at(0, [&] { parser.generate_char_test_tables(7); }), StartsWith(errors(ERASE)));
  EXPECT_EQ(messages_at(-1, [&] { parser.generate_char_test_tables(7); }), "");
}

TEST_F(Text, the_test_tables_have_an_event_for_every_table_but_the_one_that_does_not_exist) {
  const std::string all = messages_at(4, [&] { parser.generate_char_test_tables(7); });
  const auto count = [&](const std::string& part) { return support::count_of(all, part); };
  EXPECT_EQ(count("sql_cache lookup failed for INSERT"), 1u + 10 + 4 + 14);
  EXPECT_EQ(count("WARNING: String input size 0"), 1u);
  for (int table : {5, 6, 7, 8, 9, 10, 11, 13, 14, 15})
    EXPECT_EQ(count("short list iso8859-" + std::to_string(table) + "\n"), 1u) << table;
  EXPECT_EQ(count("short list iso8859-12\n"), 0u);
  EXPECT_EQ(count(" bytes to Unknown decoding"), 4u);
  EXPECT_EQ(count("long list iso8859-"), 14u);
  EXPECT_EQ(count("long list iso8859-12\n"), 0u);
}

TEST_F(Text, replace_epg_info_converts_300_bytes) {
  char raw[300] = {};
  raw[0] = 0x05;
  EXPECT_THAT(messages_at(4, [&] { parser.replace_epg_info(1, 2, 3, "name", raw); }),
              StartsWith("converting 300 inputshort list iso8859-9\n"));
}

}  // namespace
