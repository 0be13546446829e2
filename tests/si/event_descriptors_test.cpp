// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors of events.
#include "si/eit_lang.h"
#include "si/si_support.h"

using namespace si_support;
using namespace std::string_literals;
using namespace tag;

namespace {

struct Event_bench : Parser_bench {
  EIT_lang* language(const char* code) { return parser.find_create_epglang(code); }
  // What a language has: "name|text|long text|items", then whether it is started and complete.
  std::string kept(const char* code) {
    const EIT_lang& l = *language(code);
    return l.ev_name + "|" + l.ev_desc + "|" + l.ext_desc + "|" + l.ext_list + (l.started ? " started" : "") +
           (l.complete ? " complete" : "");
  }
};
class Event_descriptors : public testing::Test, protected Event_bench {};

Bytes extended_event(int number, int last, const std::vector<std::pair<std::string, std::string>>& items,
                     const std::string& text) {
  const Bytes entries = each(items, [](const auto& item) { return join({sized(item.first), sized(item.second)}); });
  return descriptor(EXTENDED_EVENT,
                    join({u8(number << 4 | last), bytes("est"), u8(entries.size()), entries, sized(text)}));
}

// The trace without what the text conversion says.
std::string without_conversion(std::string text) {
  for (size_t at; (at = text.find("converting ")) != std::string::npos;)
    text.erase(at, text.find('\n', at) + 1 - at);
  return text;
}

TEST_F(Event_descriptors, find_create_epglang_makes_an_empty_entry) {
  const EIT_lang* entry = language("est");
  EXPECT_EQ(entry->lang, "est");
  EXPECT_EQ(kept("est"), "|||");
  EXPECT_EQ(language("est"), entry);
  EXPECT_NE(language("rus"), entry);
}

TEST(Event_texts, are_traced_at_4_and_kept_by_language) {
  const Bytes name_and_text = short_event("est", "Name", "Text");
  const Bytes first = extended_event(0, 1, {{"A", "1"}}, "first ");
  const struct {
    const char* legend;
    std::vector<Bytes> before;
    Bytes raw;
    const char* trace;
    const char* kept;
  } cases[] = {
      {"short event",
       {},
       short_event("est", "\5K\xE4tte", "Sisu"),
       "IsoLangcode est, EventName K\xC3\xA4tte, Text Sisu\n",
       "K\xC3\xA4tte|Sisu||"},
      {"an empty short event leaves what was there",
       {name_and_text},
       short_event("est", "", ""),
       "IsoLangcode est, EventName , Text \nshort event descriptor name is 0\nshort evet descriptor data is 0\n",
       "Name|Text||"},
      {"an empty text leaves the one that was there",
       {name_and_text},
       short_event("est", "Other", ""),
       "IsoLangcode est, EventName Other, Text \n",
       "Other|Text||"},
      {"an empty name leaves the one that was there",
       {name_and_text},
       short_event("est", "", "More"),
       "IsoLangcode est, EventName , Text More\nshort event descriptor name is 0\n",
       "Name|More||"},
      {"another language is another entry",
       {extended_event(0, 1, {}, "Jutt")},
       short_event("rus", "Name", ""),
       "IsoLangcode rus, EventName Name, Text \n",
       "||Jutt| started"},
      {"descriptor 0 alone is a fragment",
       {},
       first,
       "EXTDesc nr 0, last desc nr 1, Isolangcode est, Text first \nInserting epg info for OID 1 first \n"
       "EXTlist: Description A, item 1\n",
       "||first |AA:1, started"},
      {"0 and 1 of 1 are joined and complete",
       {first},
       extended_event(1, 1, {{"B", "2"}}, "second"),
       "EXTDesc nr 1, last desc nr 1, Isolangcode est, Text second\n"
       "Appending epg info for OID 1 nr 1, second\n"
       "EXTlist: Description B, item 2\n",
       "||first second|AA:1,BB:2, started complete"},
      {"texts and items become UTF-8",
       {},
       extended_event(0, 0, {{"\x05\xC4", "\x05\xD6"}}, "\x05\xDC"),
       "EXTDesc nr 0, last desc nr 0, Isolangcode est, Text \xC3\x9C\nInserting epg info for OID 1 \xC3\x9C\n"
       "EXTlist: Description \xC3\x84, item \xC3\x96\n",
       "||\xC3\x9C|\xC3\x84\xC3\x84:\xC3\x96, started complete"},
      {"items that do not add up are skipped",
       {},
       descriptor(EXTENDED_EVENT, join({{0}, bytes("est"), {3}, {200, 'a', 'b'}, sized("T")})),
       "",
       "|||"},
      {"with the whole one before them",
       {},
       descriptor(EXTENDED_EVENT, join({{0}, bytes("est"), {7}, sized("Y"), sized("1"), {1, 'X', 9}, sized("T")})),
       "",
       "|||"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    Event_bench fresh;
    for (const Bytes& raw : c.before)
      fresh.parse(raw, 1);
    EXPECT_EQ(without_conversion(fresh.trace_of(c.raw, 1)), parsing(c.raw[0], 1) + c.trace);
    EXPECT_EQ(fresh.kept("est"), c.kept);
    EXPECT_EQ(fresh.trace_of(c.raw, 1, 3), "");
  }
}

TEST_F(Event_descriptors, items_are_kept_as_pairs_as_well) {
  parse(extended_event(0, 1, {{"A", "1"}, {"B", "2"}}, ""), 1);
  parse(extended_event(1, 1, {{"\x05\xC4", "3"}}, ""), 1);
  EXPECT_THAT(language("est")->items,
              ElementsAre(std::pair("A"s, "1"s), std::pair("B"s, "2"s), std::pair("\xC3\x84"s, "3"s)));
}

TEST(Event_texts, of_extended_events_are_complete_with_the_number_of_the_last_only) {
  for (const auto& [number, last] : {std::pair{0, 1}, {2, 1}, {15, 14}, {0, 15}, {2, 2}}) {
    Event_bench fresh;
    fresh.parse(extended_event(number, last, {}, "T"), 1);
    EXPECT_EQ(fresh.kept("est"), number == last ? "||T| started complete" : "||T| started") << number << " of " << last;
  }
}

TEST_F(Event_descriptors, outside_an_event_they_are_only_traced) {
  const std::pair<Bytes, const char*> cases[] = {
      {short_event("est", "N", "T"), "Short Event descriptor 77 OID not found\n"},
      {extended_event(0, 0, {}, "T"), "Extended Event descriptor 78 OID not found\n"},
      {descriptor(CONTENT, {0x12, 0x34}), "Content descriptor 84 OID not found\n"},
  };
  for (const auto& [raw, trace] : cases) {
    EXPECT_EQ(trace_of(raw, -1), parsing(raw[0], -1) + trace);
    EXPECT_EQ(trace_of(raw, -1, 3), "");
  }
  EXPECT_EQ(kept("est"), "|||");
}

TEST_F(Event_descriptors, quirk_items_of_an_extended_event_repeat_their_description_and_end_in_a_comma) {
  const std::string all = trace_of(extended_event(0, 0, {{"Director", "Jane"}, {"Year", "1999"}}, "Long text"), 1);
  EXPECT_EQ(without_conversion(all), parsing(tag::EXTENDED_EVENT, 1) +
                                         "EXTDesc nr 0, last desc nr 0, Isolangcode est, Text Long text\n"
                                         "Inserting epg info for OID 1 Long text\n"
                                         "EXTlist: Description Director, item Jane\n"
                                         "EXTlist: Description Year, item 1999\n");
  EXPECT_EQ(kept("est"), "||Long text|DirectorDirector:Jane,YearYear:1999, started complete");
  for (const int number : {0, 1})
    EXPECT_EQ(trace_of(extended_event(number, 1, {{"A", "1"}}, "Text"), 1, 3), "");
}

TEST_F(Event_descriptors, an_extended_event_without_text_says_so_at_3) {
  EXPECT_THAT([&] { parse(extended_event(0, 0, {}, ""), 1); },
              prints_only_from(3, "Extended event descriptor length is 0\n"));
  EXPECT_TRUE(language("est")->complete);
}

// The fields of content and rating are the parser's own: what one leaves behind is the next one's trace.
TEST_F(Event_descriptors, content_and_a_rating_that_replaces_the_one_before_are_traced_at_4) {
  const std::pair<Bytes, const char*> cases[] = {
      {descriptor(CONTENT, {0x12, 0x34, 0xAB, 0xCD}), "CN1 1, CN2 2, UN1 3, UN2 4\nCN1 a, CN2 b, UN1 c, UN2 d\n"},
      {descriptor(CONTENT, {}), "content descriptor 0"},
      {descriptor(PARENTAL_RATING, join({bytes("EST"), {0x0C}})), "\tParentalrating: 0c@EST \n"},
      {descriptor(PARENTAL_RATING, join({bytes("FIN"), {3}, bytes("LVA"), {0xFF}})),
       "\tParentalrating: 03@FIN ff@LVA \n"},
      {descriptor(PARENTAL_RATING, {}), "\tParentalrating: 03@FIN ff@LVA \n"},  // without an entry the old one stays
  };
  for (const auto& [raw, trace] : cases) {
    EXPECT_EQ(trace_of(raw, 1), parsing(raw[0], 1) + trace);
    EXPECT_EQ(trace_of(raw, 1, 3), "");
  }
}

}  // namespace
