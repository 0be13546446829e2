// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/table.h"

#include <clocale>

#include "support/support.h"
#include "support/test.h"
#include "tools/cli/text_columns.h"

namespace {

using Words = std::vector<std::string>;
using Widths = std::vector<int>;
using enum Table::Align;
using enum Table::Fit;

class Columns_of_a_screen : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
  void TearDown() override { (void)setlocale(LC_CTYPE, "C"); }
};

constexpr const char* COMBINED = "Z\u030Clut\u030Cou";  // two marks of their own
constexpr const char* WIDE = "東京テレビ";

TEST_F(Columns_of_a_screen, count_wide_characters_twice_and_marks_not_at_all) {
  const std::pair<const char*, int> cases[] = {{"", 0},       {"abc", 3}, {"Öökull", 6},
                                               {COMBINED, 6}, {WIDE, 10}, {"Шпак ТВ", 7}};
  for (const auto& [text, columns] : cases)
    EXPECT_EQ(columns_of(text), columns) << text;
}

TEST_F(Columns_of_a_screen, fitting_texts_end_between_characters) {
  const struct {
    const char* text;
    int columns;
    const char* fitting;
    const char* shortened;
  } cases[] = {
      {"Öökull", 6, "Öökull", "Öökull"},
      {"Öökull", 5, "Öökul", "Ööku…"},
      {"Öö kull", 4, "Öö k", "Öö…"},
      {COMBINED, 1, "Z\u030C", "…"},
      {COMBINED, 5, "Z\u030Clut\u030Co", "Z\u030Clut\u030C…"},
      {WIDE, 5, "東京", "東京…"},
      {WIDE, 1, "", "…"},
      {"abc", 0, "", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(fitting(c.text, c.columns), c.fitting) << c.text << " " << c.columns;
    EXPECT_EQ(shortened(c.text, c.columns), c.shortened) << c.text << " " << c.columns;
  }
}

TEST_F(Columns_of_a_screen, wrapped_texts_break_at_blanks) {
  const struct {
    const char* text;
    int columns;
    Words lines;
  } cases[] = {
      {"", 10, {""}},
      {"one two", 10, {"one two"}},
      {"one two three", 7, {"one two", "three"}},
      {"one two three", 6, {"one", "two", "three"}},
      {"one  two", 4, {"one", "two"}},
      {"одно два", 5, {"одно", "два"}},
      {"unbreakable", 4, {"unbr", "eaka", "ble"}},
      {"a unbreakable", 4, {"a", "unbr", "eaka", "ble"}},
      {WIDE, 5, {"東京", "テレ", "ビ"}},
      {WIDE, 1, {"東", "京", "テ", "レ", "ビ"}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(wrapped(c.text, c.columns), c.lines) << c.text << " " << c.columns;
}

TEST_F(Columns_of_a_screen, tables_leave_out_what_is_needed_least_and_then_break_and_shorten) {
  Table table({{"NO", RIGHT},
               {"NAME"},
               {"KIND", LEFT, WHOLE, 1},
               {"FAR", LEFT, WHOLE, 2},
               {"TEXT", LEFT, WORDS, 3},
               {"MORE", LEFT, SHORT}});
  table.add({"1", std::string(10, 'n'), "kindly", std::string(12, 'f'), std::string(30, 't'), std::string(40, 'm')});
  const struct {
    const char* legend;
    int screen;
    Widths widths;
  } cases[] = {
      {"everything in full", 110, {2, 10, 6, 12, 30, 40}},
      {"both are narrowed alike", 100, {2, 10, 6, 12, 30, 30}},
      {"as narrow as they may be", 80, {2, 10, 6, 12, 20, 20}},
      {"the first one goes, others get its room", 79, {2, 10, 6, 12, 0, 40}},
      {"the second one, too", 57, {2, 10, 6, 0, 0, 33}},
      {"all that can", 40, {2, 10, 0, 0, 0, 24}},
      {"no more can go", 10, {2, 10, 0, 0, 0, 20}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(table.widths(c.screen), c.widths) << c.legend;
}

TEST_F(Columns_of_a_screen, a_column_comes_back_where_a_wider_one_had_to_go) {
  Table table({{"NAME"}, {"SMALL", LEFT, WHOLE, 2}, {"LARGE", LEFT, WHOLE, 1}});
  table.add({std::string(20, 'n'), "s", std::string(30, 'l')});
  EXPECT_EQ(table.widths(59), (Widths{20, 5, 30}));
  EXPECT_EQ(table.widths(58), (Widths{20, 0, 30}));
  EXPECT_EQ(table.widths(50), (Widths{20, 5, 0}));
  EXPECT_EQ(table.widths(26), (Widths{20, 0, 0}));
}

}  // namespace
