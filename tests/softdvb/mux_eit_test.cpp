// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/ids.h"
#include "softdvb/mux_support.h"
#include "support/test.h"

namespace {

using namespace mux_support;
using namespace testing;
using Lines = std::vector<std::string>;

std::string with_event(const std::string& keys) {
  return one_service(R"(, "eit_schedule": false, "events": [{"start": "now", "duration": "01:30:00")" + keys + "}]");
}

// The descriptor loop of the present event.
std::string event_loop(const std::string& keys) {
  const auto lines = lines_with(tables_by_libdvbpsi(stream_of(with_event(keys))), "EIT 0x4e 101");
  return lines.empty() ? "none" : lines[0].substr(lines[0].find('{'));
}

TEST(Mux_eit, descriptors_of_events) {
  const struct {
    const char* legend;
    const char* keys;
    const char* loop;
  } CASES[] = {{"short events in several languages",
                R"(, "language": "est", "name": "Öö", "text": "T",
            "texts": [{"language": "rus", "charset": "iso8859-5", "name": "Ж"}, {"text": "t"}])",
                "{4d[65737404c84fc86f0154] 4d[7275730201b600] 4d[657374000174]}"},
               {"content, rating, components and raw descriptors",
                R"(, "components": [{"stream_content": 5, "component_type": 11, "component_tag": 2, "language": "est",
                            "text": "HD"}],
            "content": ["0x20", {"type": "0x31", "user": 9}],
            "rating": [{"country": "EST", "age": 12}, {"country": "CZE", "value": "0x85"}],
            "descriptors": ["8001ff"])",
                "{50[f50b026573744844] 54[20003109] 55[45535409435a4585] 80[ff]}"},
               {"an extended event with items that fits one part",
                R"(, "extended": {"language": "est", "items": [{"name": "A", "text": "Õ"}, {"name": "", "text": "B"}],
                         "text": "T"})",
                "{4e[0065737408014102c44f0001420154]}"}};
  for (const auto& c : CASES)
    EXPECT_EQ(event_loop(c.keys), c.loop) << c.legend;
}

// The parts of an extended event: number, last number, text.
struct Part {
  unsigned number;
  unsigned last;
  Bytes text;
};

std::vector<Part> extended_parts(const std::string& keys) {
  std::vector<Part> parts;
  const std::string loop = event_loop(keys);
  for (size_t at = loop.find("4e["); at != std::string::npos; at = loop.find("4e[", at + 1)) {
    const Bytes body = unhex(loop.substr(at + 3, loop.find(']', at) - at - 3));
    const size_t items = body.at(4);
    EXPECT_EQ(body.at(5 + items) + 6 + items, body.size());
    parts.push_back({static_cast<unsigned>(body[0] >> 4), body[0] & 15u,
                     Bytes(body.begin() + static_cast<std::ptrdiff_t>(6 + items), body.end())});
  }
  return parts;
}

std::string repeated(const std::string& text, int times) {
  return times == 0 ? "" : text + repeated(text, times - 1);
}

// Parts of a text in a character table.
std::vector<Part> text_parts(const std::string& text, int times, const char* charset = "iso6937") {
  return extended_parts(R"(, "charset": ")" + std::string(charset) + R"(", "extended": {"text": ")" +
                        repeated(text, times) + "\"}");
}

TEST(Mux_eit, a_long_text_is_split_into_numbered_parts) {
  const auto parts = text_parts("abcdefghij", 60);
  ASSERT_EQ(parts.size(), 3u);
  std::string joined;
  for (size_t i = 0; i < parts.size(); ++i) {
    EXPECT_EQ(parts[i].number, i);
    EXPECT_EQ(parts[i].last, 2u);
    joined.append(parts[i].text.begin(), parts[i].text.end());
  }
  EXPECT_EQ(parts[0].text.size(), 249u);
  EXPECT_EQ(joined, repeated("abcdefghij", 60));
}

TEST(Mux_eit, every_part_repeats_the_selector) {
  for (const Part& part : text_parts("žluť ", 100, "0x10/2"))
    EXPECT_EQ(hex(Bytes(part.text.begin(), part.text.begin() + 3)), "100002");
}

TEST(Mux_eit, no_part_ends_inside_a_character) {
  for (const Part& part : text_parts("Õõ", 200))
    EXPECT_NE(part.text.back(), 0xC4) << "an accent without its letter";
  for (const Part& part : text_parts("Жж", 200, "ucs2"))
    EXPECT_EQ(part.text.size() % 2, 1u) << "selector and whole characters";
  std::string joined;
  const auto parts = text_parts("aЖ", 200, "utf-8");
  for (const Part& part : parts) {
    EXPECT_EQ(part.text.at(0), 0x15);
    joined.append(part.text.begin() + 1, part.text.end());
    EXPECT_NE(part.text.at(1) & 0xC0, 0x80) << "begins in the middle of a character";
  }
  EXPECT_EQ(joined, repeated("aЖ", 200));
  EXPECT_EQ(parts.size(), 3u);
}

TEST(Mux_eit, items_that_do_not_fit_go_to_the_next_part) {
  const std::string item = R"({"name": "N", "text": ")" + repeated("t", 100) + "\"}";
  const auto parts =
      extended_parts(R"(, "extended": {"items": [)" + item + "," + item + "," + item + R"(], "text": "end"})");
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_EQ(parts[0].text.size(), 0u);
  EXPECT_EQ(hex(parts[1].text), "656e64");
}

TEST(Mux_eit, torn_parts_end_where_the_room_ends) {
  const std::pair<const char*, const char*> cases[] = {
      {R"("room": 16, "torn": true, "text": "abcdefghijklmnoř")",
       "{4e[016573740010"
       "6162636465666768696a6b6c6d6e6fcf] 4e[11657374000172]}"},
      {R"("room": 16, "charset": "utf-16", "torn": true, "text": "abcdefgh")",
       "{4e[016573740010"
       "11006100620063006400650066006700] 4e[1165737400021168]}"},
      {R"("room": 16, "charset": "iso8859-9", "torn": true,
          "items": [{"name": "N", "text": "abcdefghijklmnop"}], "text": "T")",
       "{4e[01657374"
       "10"
       "02054e"
       "0c056162636465666768696a6b"
       "00"
       "] 4e[11657374"
       "08"
       "00"
       "06056c6d6e6f70"
       "020554]}"},
  };
  for (const auto& [keys, loop] : cases)
    EXPECT_EQ(event_loop(R"(, "language": "est", "extended": {)" + std::string(keys) + "}"), loop);
}

TEST(Mux_eit, present_and_following_change_with_the_time) {
  const Bytes stream = stream_of(one_service(
      R"(, "events": [{"start": "now-1h", "duration": "01:00:02", "event_id": 7, "free_ca": true},
                      {"start": "now+2s", "duration": "1h", "event_id": 3, "running_status": 2},
                      {"start": "now+2h", "duration": "1h"}])",
      R"(, "duration": 4, "intervals": {"eit_pf_actual": 0.5})"));
  std::set<std::string> seen;
  Lines order;
  for (const auto& section : sections_of(stream, pid::EIT, table::EIT_PRESENT_FOLLOWING)) {
    EXPECT_TRUE(section.crc_right());
    std::ostringstream text;
    text << "v" << section.version() << " " << section.number() << "/" << int{section.bytes[7]} << "/"
         << int{section.bytes[12]} << " " << section.hex(13, section.bytes.size() - 17);
    if (seen.insert(text.str()).second)
      order.push_back(text.str());
  }
  EXPECT_EQ(order, (Lines{"v0 0/1/1 4e0007eeac1700000100029000", "v0 1/1/1 4e0003eeac1800020100004000",
                          "v1 0/1/1 4e0003eeac1800020100004000", "v1 1/1/1 4e0001eeac2000000100002000"}));
}

TEST(Mux_eit, present_is_empty_where_nothing_runs) {
  const auto sections =
      sections_of(stream_of(one_service(R"(, "events": [{"start": "now+1h", "duration": "1h", "name": "E"}])")),
                  pid::EIT, table::EIT_PRESENT_FOLLOWING);
  ASSERT_GE(sections.size(), 2u);
  const Section_seen& present = sections[0].number() == 0 ? sections[0] : sections[1];
  EXPECT_EQ(present.hex(0, 14), "4ef00f0065c1000100010005014e");
  EXPECT_EQ(present.bytes.size(), 18u);
}

TEST(Mux_eit, schedule_uses_segments_of_three_hours_from_midnight) {
  // Midnight is 18 hours ago: 20:59 is segment 6, 21:00 segment 7, the day after next at 03:00 segment 17.
  const Bytes stream = stream_of(one_service(
      R"(, "eit_pf": false, "events": [{"start": "today+20h", "duration": "59m", "name": "A"},
             {"start": "today+21h", "duration": "1h", "name": "B"}, {"start": "now+57h", "duration": "1h", "name": "C"}])",
      R"(, "intervals": {"eit_schedule_actual": 1})"));
  std::map<unsigned, std::string> events;  // what stands in the sections that are not empty
  std::set<unsigned> numbers;
  for (const auto& section : sections_of(stream, pid::EIT, table::EIT_SCHEDULE_FIRST)) {
    EXPECT_TRUE(section.crc_right());
    EXPECT_EQ(section.bytes[7], 8 * 25) << "last_section_number";
    EXPECT_EQ(section.bytes[12], section.number()) << "segment_last_section_number";
    EXPECT_EQ(section.bytes[13], table::EIT_SCHEDULE_FIRST) << "last_table_id";
    EXPECT_EQ(section.number() % 8, 0u);
    numbers.insert(section.number());
    if (section.bytes.size() != 18)
      events[section.number()] = section.hex(14, 12);
  }
  EXPECT_EQ(numbers.size(), 26u);
  EXPECT_EQ(events, (std::map<unsigned, std::string>{{48, "0001eeac2000000059000008"},
                                                     {56, "0002eeac2100000100000008"},
                                                     {200, "0003eeaf0300000100000008"}}));
  EXPECT_EQ(sections_of(stream, pid::EIT, table::EIT_PRESENT_FOLLOWING).size(), 0u);
}

TEST(Mux_eit, more_than_four_days_take_further_table_ids) {
  const Bytes stream =
      stream_of(one_service(R"(, "schedule": {"days": 9, "programmes": [{"duration": "3h", "name": "A"}]})"));
  std::map<unsigned, std::set<unsigned>> numbers;
  std::set<std::string> events;
  for (const auto& section : sections_of(stream)) {
    if (section.pid != pid::EIT || section.table_id() == table::EIT_PRESENT_FOLLOWING)
      continue;
    EXPECT_EQ(section.bytes[13], 0x52);
    numbers[section.table_id()].insert(section.number());
    events.insert(section.hex(14, 7));
  }
  EXPECT_THAT(numbers,
              ElementsAre(Pair(table::EIT_SCHEDULE_FIRST, SizeIs(32)), Pair(0x51, SizeIs(32)), Pair(0x52, SizeIs(8))));
  EXPECT_EQ(events.size(), 72u);
}

TEST(Mux_eit, a_full_segment_takes_several_sections) {
  const std::string text = repeated("t", 3000);
  const Bytes stream = stream_of(
      one_service(R"(, "schedule": {"days": 1, "programmes": [{"duration": "1h", "name": "A", "extended": {"text": ")" +
                      text + "\"}}]}",
                  R"(, "duration": 10)"));
  std::map<unsigned, size_t> size;
  for (const auto& section : sections_of(stream, pid::EIT, table::EIT_SCHEDULE_FIRST)) {
    EXPECT_TRUE(section.crc_right());
    EXPECT_EQ(section.bytes[12], (section.number() & ~7u) + 2) << "segment_last_section_number";
    EXPECT_EQ(section.bytes[7], 58);
    size[section.number()] = section.bytes.size();
  }
  EXPECT_EQ(size.size(), 24u);
  EXPECT_EQ(size[2], size[58]);
  EXPECT_GT(size[0], 3000u);
}

TEST(Mux_eit, schedule_repeats_its_programmes_and_counts_ids_around_fixed_ones) {
  const auto lines = lines_with(tables_by_libdvbpsi(stream_of(one_service(
                                    R"(, "events": [{"start": "now+5d", "duration": "1h", "event_id": 1}],
             "schedule": {"from": "now", "days": 1, "programmes": [{"duration": "9h", "name": "A"}, {"duration": "8h", "name": "B"}]})"))),
                                "EIT 0x4e");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0],
            "EIT 0x4e 101 ts 1 net 5 v0: 2 eeac180000 090000 running 4 ca 0 {4d[656e67014100]} 3 eead030000 080000 "
            "running 1 ca 0 {4d[656e67014200]}");
}

TEST(Mux_eit, other_streams_use_their_own_table_ids) {
  const Bytes stream = stream_of(one_service("", R"(, "other_transport_streams": [{"transport_stream_id": 2,
      "original_network_id": 6, "services": [{"service_id": 201, "events": [{"start": "now", "duration": "1h"}]}]}])"));
  std::set<std::string> heads;
  for (const auto& section : sections_of(stream))
    if (section.pid == pid::EIT)
      heads.insert(section.hex(0, 1) + " " + section.hex(3, 2) + " " + section.hex(8, 6));
  EXPECT_TRUE(heads.count("4f 00c9 00020006014f"));
  EXPECT_TRUE(heads.count("60 00c9 000200063060"));
  EXPECT_THAT(heads, Each(Not(StartsWith("4e"))));
}

TEST(Mux_eit, an_undefined_start_is_all_ones) {
  const auto sections = sections_of(stream_of(one_service(R"(, "events": [{"start": "undefined", "duration": "1h"}])")),
                                    pid::EIT, table::EIT_SCHEDULE_FIRST);
  ASSERT_FALSE(sections.empty());
  EXPECT_EQ(sections[0].hex(14, 12), "0001ffffffffff0100000000");
}

TEST(Mux_eit, free_ca_and_running_status_are_carried) {
  const auto lines =
      lines_with(tables_by_libdvbpsi(stream_of(with_event(R"(, "free_ca": true, "running_status": 5)"))), "EIT");
  EXPECT_EQ(lines, (Lines{"EIT 0x4e 101 ts 1 net 5 v0: 1 eeac180000 013000 running 5 ca 1 {}"}));
}

}  // namespace
