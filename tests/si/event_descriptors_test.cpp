// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Descriptors of events.
#include <dvbsi++/content_descriptor.h>
#include <dvbsi++/extended_event_descriptor.h>
#include <dvbsi++/parental_rating_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>

#include "si/eit_lang.h"
#include "si/si_support.h"

using namespace si_support;

namespace {

class Event_descriptors : public Parser_test {
 protected:
  EIT_lang* language(const char* code) { return parser.find_create_epglang(code); }
  // What a language has: "name|text|long text|items", then whether it is started and complete.
  std::string kept(const char* code) {
    const EIT_lang& l = *language(code);
    return l.ev_name + "|" + l.ev_desc + "|" + l.ext_desc + "|" + l.ext_list + (l.started ? " started" : "") +
           (l.complete ? " complete" : "");
  }
  void parse_short(const std::string& code, const std::string& name, const std::string& words) {
    parse<ShortEventDescriptor>(short_event(code, name, words), 1);
  }
  std::string short_trace(const std::string& name, const std::string& words, int level = 4) {
    return trace_of<ShortEventDescriptor>(short_event("est", name, words), 1, level);
  }
};

Bytes extended_event(int number, int last, const std::vector<std::pair<std::string, std::string>>& items,
                     const std::string& text) {
  Bytes entries;
  for (const auto& [description, item] : items)
    entries = join({entries, sized(description), sized(item)});
  return descriptor(tag::EXTENDED_EVENT, join({{static_cast<uint8_t>(number << 4 | last)},
                                               bytes("est"),
                                               {static_cast<uint8_t>(entries.size())},
                                               entries,
                                               sized(text)}));
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

// --- Short events ----------------------------------------------------------------------------------------------------

TEST_F(Event_descriptors, a_short_event_is_kept_by_language) {
  EXPECT_EQ(without_conversion(short_trace("\5K\xE4tte", "Sisu")),
            parsing(tag::SHORT_EVENT, 1) + "IsoLangcode est, EventName K\xC3\xA4tte, Text Sisu\n");
  EXPECT_EQ(kept("est"), "K\xC3\xA4tte|Sisu||");
  EXPECT_EQ(short_trace("N", "T", 3), "");
}

TEST_F(Event_descriptors, an_empty_short_event_leaves_what_was_there) {
  parse_short("est", "Name", "Text");
  EXPECT_EQ(short_trace("", ""), parsing(tag::SHORT_EVENT, 1) +
                                     "IsoLangcode est, EventName , Text \n"
                                     "short event descriptor name is 0\nshort evet descriptor data is 0\n");
  EXPECT_EQ(kept("est"), "Name|Text||");
}

TEST_F(Event_descriptors, an_empty_part_of_a_short_event_leaves_what_was_there) {
  parse_short("est", "Name", "Text");
  parse_short("est", "Other", "");
  EXPECT_EQ(kept("est"), "Other|Text||");
  parse_short("est", "", "More");
  EXPECT_EQ(kept("est"), "Other|More||");
}

TEST_F(Event_descriptors, a_short_event_without_name_says_so) {
  EXPECT_THAT(short_trace("", "Text"),
              testing::EndsWith("IsoLangcode est, EventName , Text Text\nshort event descriptor name is 0\n"));
  EXPECT_THAT(short_trace("Name", ""), testing::EndsWith("IsoLangcode est, EventName Name, Text \n"));
}

TEST_F(Event_descriptors, outside_an_event_they_are_only_traced) {
  EXPECT_EQ(trace_of<ShortEventDescriptor>(short_event("est", "N", "T"), -1),
            parsing(tag::SHORT_EVENT, -1) + "Short Event descriptor 77 OID not found\n");
  EXPECT_EQ(trace_of<ExtendedEventDescriptor>(extended_event(0, 0, {}, "T"), -1),
            parsing(tag::EXTENDED_EVENT, -1) + "Extended Event descriptor 78 OID not found\n");
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(tag::CONTENT, {0x12, 0x34}), -1),
            parsing(tag::CONTENT, -1) + "Content descriptor 84 OID not found\n");
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(tag::CONTENT, {0x12, 0x34}), -1, 3), "");
  EXPECT_EQ(kept("est"), "|||");
}

// --- Extended events -------------------------------------------------------------------------------------------------

TEST_F(Event_descriptors, quirk_items_of_an_extended_event_repeat_their_description_and_end_in_a_comma) {
  const std::string all =
      trace_of<ExtendedEventDescriptor>(extended_event(0, 0, {{"Director", "Jane"}, {"Year", "1999"}}, "Long text"), 1);
  EXPECT_EQ(without_conversion(all), parsing(tag::EXTENDED_EVENT, 1) +
                                         "EXTDesc nr 0, last desc nr 0, Isolangcode est, Text Long text\n"
                                         "Inserting epg info for OID 1 Long text\n"
                                         "EXTlist: Description Director, item Jane\n"
                                         "EXTlist: Description Year, item 1999\n");
  EXPECT_EQ(kept("est"), "||Long text|DirectorDirector:Jane,YearYear:1999, started complete");
  for (const int number : {0, 1})
    EXPECT_EQ(trace_of<ExtendedEventDescriptor>(extended_event(number, 1, {{"A", "1"}}, "Text"), 1, 3), "");
}

TEST_F(Event_descriptors, an_extended_event_of_another_language_is_another_entry) {
  parse<ExtendedEventDescriptor>(extended_event(0, 1, {}, "Jutt"), 1);
  parse_short("rus", "Name", "");
  EXPECT_EQ(kept("est"), "||Jutt| started");
  EXPECT_EQ(kept("rus"), "Name|||");
}

TEST_F(Event_descriptors, only_the_number_of_the_last_completes_it) {
  for (const auto& [number, last] : std::vector<std::pair<int, int>>{{0, 1}, {2, 1}, {15, 14}, {0, 15}}) {
    parse<ExtendedEventDescriptor>(extended_event(number, last, {}, "T"), 1);
    EXPECT_TRUE(language("est")->started);
    EXPECT_FALSE(language("est")->complete) << number << " of " << last;
  }
}

TEST_F(Event_descriptors, the_last_descriptor_alone_completes_it) {
  parse<ExtendedEventDescriptor>(extended_event(2, 2, {}, "end"), 1);
  EXPECT_EQ(kept("est"), "||end| started complete");
}

TEST_F(Event_descriptors, texts_and_items_of_an_extended_event_become_utf8) {
  parse<ExtendedEventDescriptor>(extended_event(0, 0, {{"\x05\xC4", "\x05\xD6"}}, "\x05\xDC"), 1);
  EXPECT_EQ(kept("est"), "||\xC3\x9C|\xC3\x84\xC3\x84:\xC3\x96, started complete");
}

TEST_F(Event_descriptors, descriptors_0_and_1_of_1_are_joined_and_complete) {
  parse<ExtendedEventDescriptor>(extended_event(0, 1, {{"A", "1"}}, "first "), 1);
  EXPECT_EQ(kept("est"), "||first |AA:1, started") << "descriptor 0 alone is a fragment";
  EXPECT_THAT(trace_of<ExtendedEventDescriptor>(extended_event(1, 1, {{"B", "2"}}, "second"), 1),
              HasSubstr("Appending epg info for OID 1 nr 1, second\n"));
  EXPECT_EQ(kept("est"), "||first second|AA:1,BB:2, started complete");
}

TEST_F(Event_descriptors, an_extended_event_without_text_says_so_at_3) {
  EXPECT_EQ(trace_of<ExtendedEventDescriptor>(extended_event(0, 0, {}, ""), 1, 3),
            "Extended event descriptor length is 0\n");
  EXPECT_EQ(trace_of<ExtendedEventDescriptor>(extended_event(0, 0, {}, ""), 1, 2), "");
  EXPECT_TRUE(language("est")->complete);
}

TEST_F(Event_descriptors, an_extended_event_whose_items_do_not_add_up_is_skipped) {
  const Bytes broken = descriptor(tag::EXTENDED_EVENT, join({{0x00}, bytes("est"), {3}, {200, 'a', 'b'}, sized("T")}));
  const Bytes cut = descriptor(tag::EXTENDED_EVENT,
                               join({{0x00}, bytes("est"), {7}, sized("Y"), sized("1"), {1, 'X', 9}, sized("T")}));
  for (const Bytes& raw : {broken, cut})
    EXPECT_EQ(trace_of<ExtendedEventDescriptor>(raw, 1), parsing(tag::EXTENDED_EVENT, 1));
  EXPECT_EQ(kept("est"), "|||") << "the whole item before the broken one is skipped with it";
}

// --- Content and rating ----------------------------------------------------------------------------------------------
// What they leave behind is the next ones' trace: the fields are the parser's own.

TEST_F(Event_descriptors, content_is_traced) {
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(tag::CONTENT, {0x12, 0x34, 0xAB, 0xCD}), 1),
            parsing(tag::CONTENT, 1) + "CN1 1, CN2 2, UN1 3, UN2 4\nCN1 a, CN2 b, UN1 c, UN2 d\n");
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(tag::CONTENT, {0x12, 0x34}), 1, 3), "");
}

TEST_F(Event_descriptors, content_without_a_classification_says_so) {
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(tag::CONTENT, {}), 1, 3), "");
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(tag::CONTENT, {}), 1),
            parsing(tag::CONTENT, 1) + "content descriptor 0");
}

TEST_F(Event_descriptors, a_rating_replaces_the_one_before) {
  EXPECT_EQ(trace_of<ParentalRatingDescriptor>(descriptor(tag::PARENTAL_RATING, join({bytes("EST"), {0x0C}})), 1),
            parsing(tag::PARENTAL_RATING, 1) + "\tParentalrating: 0c@EST \n");
  EXPECT_EQ(trace_of<ParentalRatingDescriptor>(
                descriptor(tag::PARENTAL_RATING, join({bytes("FIN"), {3}, bytes("LVA"), {0xFF}})), 1),
            parsing(tag::PARENTAL_RATING, 1) + "\tParentalrating: 03@FIN ff@LVA \n");
  EXPECT_EQ(trace_of<ParentalRatingDescriptor>(descriptor(tag::PARENTAL_RATING, {}), 1),
            parsing(tag::PARENTAL_RATING, 1) + "\tParentalrating: 03@FIN ff@LVA \n")
      << "without an entry the old one stays";
  EXPECT_EQ(trace_of<ParentalRatingDescriptor>(descriptor(tag::PARENTAL_RATING, {}), 1, 3), "");
}

}  // namespace
