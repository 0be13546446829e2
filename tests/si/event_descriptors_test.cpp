// Descriptors of events.
#include <dvbsi++/content_descriptor.h>
#include <dvbsi++/extended_event_descriptor.h>
#include <dvbsi++/parental_rating_descriptor.h>
#include <dvbsi++/short_event_descriptor.h>

#include "si/eit_lang.h"
#include "si/si_support.h"

using namespace si_support;
using testing::HasSubstr;

namespace {

class Event_descriptors : public Parser_test {
 protected:
  EIT_lang* language(const char* code) { return parser.find_create_epglang(code); }
};

Bytes short_event(const std::string& language, const std::string& name, const std::string& text) {
  return descriptor(0x4D, join({bytes(language), sized(name), sized(text)}));
}

Bytes extended_event(int number, int last, const std::vector<std::pair<std::string, std::string>>& items,
                     const std::string& text) {
  Bytes entries;
  for (const auto& [description, item] : items)
    entries = join({entries, sized(description), sized(item)});
  return descriptor(0x4E, join({{static_cast<uint8_t>(number << 4 | last)},
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
  EXPECT_EQ(entry->ev_name + entry->ev_desc + entry->ext_desc + entry->ext_list, "");
  EXPECT_FALSE(entry->complete);
  EXPECT_FALSE(entry->started);
  EXPECT_EQ(language("est"), entry);
  EXPECT_NE(language("rus"), entry);
}

// --- Short events ----------------------------------------------------------------------------------------------------

TEST_F(Event_descriptors, a_short_event_is_kept_by_language) {
  const std::string all = trace_of<ShortEventDescriptor>(short_event("est",
                                                                     "\x05"
                                                                     "K\xE4tte",
                                                                     "Sisu"),
                                                         1);
  EXPECT_EQ(without_conversion(all), parsing(0x4D, 1) + "IsoLangcode est, EventName K\xC3\xA4tte, Text Sisu\n");
  EXPECT_EQ(language("est")->ev_name, "K\xC3\xA4tte");
  EXPECT_EQ(language("est")->ev_desc, "Sisu");
  EXPECT_EQ(trace_of<ShortEventDescriptor>(short_event("est", "N", "T"), 1, 3), "");
}

TEST_F(Event_descriptors, an_empty_short_event_leaves_what_was_there) {
  parse<ShortEventDescriptor>(short_event("est", "Name", "Text"), 1);
  EXPECT_EQ(
      trace_of<ShortEventDescriptor>(short_event("est", "", ""), 1),
      parsing(0x4D, 1) +
          "IsoLangcode est, EventName , Text \nshort event descriptor name is 0\nshort evet descriptor data is 0\n");
  EXPECT_EQ(language("est")->ev_name, "Name");
  EXPECT_EQ(language("est")->ev_desc, "Text");
}

TEST_F(Event_descriptors, an_empty_part_of_a_short_event_leaves_what_was_there) {
  parse<ShortEventDescriptor>(short_event("est", "Name", "Text"), 1);
  parse<ShortEventDescriptor>(short_event("est", "Other", ""), 1);
  EXPECT_EQ(language("est")->ev_name, "Other");
  EXPECT_EQ(language("est")->ev_desc, "Text");
  parse<ShortEventDescriptor>(short_event("est", "", "More"), 1);
  EXPECT_EQ(language("est")->ev_name, "Other");
  EXPECT_EQ(language("est")->ev_desc, "More");
}

TEST_F(Event_descriptors, a_short_event_without_name_says_so) {
  EXPECT_THAT(trace_of<ShortEventDescriptor>(short_event("est", "", "Text"), 1),
              testing::EndsWith("IsoLangcode est, EventName , Text Text\nshort event descriptor name is 0\n"));
  EXPECT_THAT(trace_of<ShortEventDescriptor>(short_event("est", "Name", ""), 1),
              testing::EndsWith("IsoLangcode est, EventName Name, Text \n"));
}

TEST_F(Event_descriptors, outside_an_event_they_are_only_traced) {
  EXPECT_EQ(trace_of<ShortEventDescriptor>(short_event("est", "N", "T"), -1),
            parsing(0x4D, -1) + "Short Event descriptor 77 OID not found\n");
  EXPECT_EQ(trace_of<ExtendedEventDescriptor>(extended_event(0, 0, {}, "T"), -1),
            parsing(0x4E, -1) + "Extended Event descriptor 78 OID not found\n");
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(0x54, {0x12, 0x34}), -1),
            parsing(0x54, -1) + "Content descriptor 84 OID not found\n");
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(0x54, {0x12, 0x34}), -1, 3), "");
  EXPECT_EQ(language("est")->ev_name, "");
  EXPECT_FALSE(language("est")->started);
}

// --- Extended events -------------------------------------------------------------------------------------------------

TEST_F(Event_descriptors, quirk_items_of_an_extended_event_repeat_their_description_and_end_in_a_comma) {
  const std::string all =
      trace_of<ExtendedEventDescriptor>(extended_event(0, 0, {{"Director", "Jane"}, {"Year", "1999"}}, "Long text"), 1);
  EXPECT_EQ(without_conversion(all), parsing(0x4E, 1) +
                                         "EXTDesc nr 0, last desc nr 0, Isolangcode est, Text Long text\n"
                                         "Inserting epg info for OID 1 Long text\n"
                                         "EXTlist: Description Director, item Jane\n"
                                         "EXTlist: Description Year, item 1999\n");
  EXPECT_EQ(language("est")->ext_list, "DirectorDirector:Jane,YearYear:1999,");
  EXPECT_EQ(language("est")->ext_desc, "Long text");
  for (const int number : {0, 1})
    EXPECT_EQ(trace_of<ExtendedEventDescriptor>(extended_event(number, 1, {{"A", "1"}}, "Text"), 1, 3), "");
}

TEST_F(Event_descriptors, an_extended_event_of_another_language_is_another_entry) {
  parse<ExtendedEventDescriptor>(extended_event(0, 1, {}, "Jutt"), 1);
  parse<ShortEventDescriptor>(short_event("rus", "Name", ""), 1);
  EXPECT_EQ(language("est")->ext_desc, "Jutt");
  EXPECT_EQ(language("est")->ev_name, "");
  EXPECT_EQ(language("rus")->ev_name, "Name");
  EXPECT_FALSE(language("rus")->started);
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
  EXPECT_TRUE(language("est")->started);
  EXPECT_TRUE(language("est")->complete);
}

TEST_F(Event_descriptors, texts_and_items_of_an_extended_event_become_utf8) {
  parse<ExtendedEventDescriptor>(extended_event(0, 0, {{"\x05\xC4", "\x05\xD6"}}, "\x05\xDC"), 1);
  EXPECT_EQ(language("est")->ext_list, "\xC3\x84\xC3\x84:\xC3\x96,");
  EXPECT_EQ(language("est")->ext_desc, "\xC3\x9C");
}

TEST_F(Event_descriptors, descriptors_0_and_1_of_1_are_joined_and_complete) {
  parse<ExtendedEventDescriptor>(extended_event(0, 1, {{"A", "1"}}, "first "), 1);
  EXPECT_TRUE(language("est")->started);
  EXPECT_FALSE(language("est")->complete) << "descriptor 0 alone is a fragment";
  EXPECT_THAT(trace_of<ExtendedEventDescriptor>(extended_event(1, 1, {{"B", "2"}}, "second"), 1),
              HasSubstr("Appending epg info for OID 1 nr 1, second\n"));
  EXPECT_TRUE(language("est")->started);
  EXPECT_TRUE(language("est")->complete);
  EXPECT_EQ(language("est")->ext_desc, "first second");
  EXPECT_EQ(language("est")->ext_list, "AA:1,BB:2,");
}

TEST_F(Event_descriptors, an_extended_event_without_text_says_so_at_3) {
  EXPECT_EQ(trace_of<ExtendedEventDescriptor>(extended_event(0, 0, {}, ""), 1, 3),
            "Extended event descriptor length is 0\n");
  EXPECT_EQ(trace_of<ExtendedEventDescriptor>(extended_event(0, 0, {}, ""), 1, 2), "");
  EXPECT_TRUE(language("est")->complete);
}

TEST_F(Event_descriptors, an_extended_event_whose_items_do_not_add_up_is_skipped) {
  const Bytes broken = descriptor(0x4E, join({{0x00}, bytes("est"), {3}, {200, 'a', 'b'}, sized("T")}));
  const Bytes cut =
      descriptor(0x4E, join({{0x00}, bytes("est"), {7}, sized("Y"), sized("1"), {1, 'X', 9}, sized("T")}));
  for (const Bytes& raw : {broken, cut})
    EXPECT_EQ(trace_of<ExtendedEventDescriptor>(raw, 1), parsing(0x4E, 1));
  EXPECT_FALSE(language("est")->started);
  EXPECT_EQ(language("est")->ext_list, "") << "the whole item before the broken one is skipped with it";
}

// --- Content and rating ----------------------------------------------------------------------------------------------
// What they leave behind is the next ones' trace: the fields are the parser's own.

TEST_F(Event_descriptors, content_is_traced) {
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(0x54, {0x12, 0x34, 0xAB, 0xCD}), 1),
            parsing(0x54, 1) + "CN1 1, CN2 2, UN1 3, UN2 4\nCN1 a, CN2 b, UN1 c, UN2 d\n");
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(0x54, {0x12, 0x34}), 1, 3), "");
}

TEST_F(Event_descriptors, content_without_a_classification_says_so) {
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(0x54, {}), 1, 3), "");
  EXPECT_EQ(trace_of<ContentDescriptor>(descriptor(0x54, {}), 1), parsing(0x54, 1) + "content descriptor 0");
}

TEST_F(Event_descriptors, a_rating_replaces_the_one_before) {
  EXPECT_EQ(trace_of<ParentalRatingDescriptor>(descriptor(0x55, join({bytes("EST"), {0x0C}})), 1),
            parsing(0x55, 1) + "\tParentalrating: 0c@EST \n");
  EXPECT_EQ(trace_of<ParentalRatingDescriptor>(descriptor(0x55, join({bytes("FIN"), {3}, bytes("LVA"), {0xFF}})), 1),
            parsing(0x55, 1) + "\tParentalrating: 03@FIN ff@LVA \n");
  EXPECT_EQ(trace_of<ParentalRatingDescriptor>(descriptor(0x55, {}), 1),
            parsing(0x55, 1) + "\tParentalrating: 03@FIN ff@LVA \n")
      << "without an entry the old one stays";
  EXPECT_EQ(trace_of<ParentalRatingDescriptor>(descriptor(0x55, {}), 1, 3), "");
}

}  // namespace
