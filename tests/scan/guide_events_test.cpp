// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// What the events of a broadcast become: rows and texts, compared whole.

#include "scan/guide_run.h"

namespace {

// Collects the guide of a stream until everything that it announces is there.
class Guide_events_test : public Guide_test {
 protected:
  Scan_run collect(const Json& patch, const std::string& before = "") {
    const Scan_run scan = scan_of(patch, before + COLLECT + "wait_guide 0 100; verbosity 0", 10);
    EXPECT_EQ(scan.lines({"done", "no", "guide"}), "done 0 0\ndone 0 0\nguide complete\n");
    return scan;
  }
  // Two services are listed; the second one always has the same two events.
  Scan_run collect_101(const std::string& events, const std::string& fault_list = "[]",
                       const std::string& before = "") {
    return collect({events_of(INDEX_OF_101, events), events_of(INDEX_OF_102, SECOND_SERVICE), faults(fault_list)},
                   before);
  }
  std::string events_of_101() const { return lines_with(events(), {"101|"}); }
  std::string texts_of_101() const { return lines_with(texts(), {"101|"}); }

  static constexpr char SECOND_SERVICE[] =
      R"([{ "start": "now-30m", "duration": "1h", "name": "Seade" }, { "start": "now+30m", "duration": "1h", "name": "Seejärel" }])";
};

}  // namespace

TEST_F(Guide_events_test, wrong_bcd_is_computed_digit_by_digit_and_kept_as_sent) {
  // Bytes 18 to 20 of a section with one event are the time, 21 to 23 the duration. The first of the three is also the
  // following event.
  collect_101(R"([{ "start": "now-30m", "duration": "1h" },
                  { "start": "2026-03-02T12:00:00Z", "duration": "1h" },
                  { "start": "2026-03-02T15:00:00Z", "duration": "1h" },
                  { "start": "2026-03-02T18:00:00Z", "duration": "1h" }])",
              R"([{ "fault": "wrong_bytes", "table": "eit_pf_actual", "service_id": 101, "section": 1,
                    "offset": 18, "hex": "1a2b3c 000a0f" },
                  { "fault": "wrong_bytes", "table": "eit_schedule_actual", "service_id": 101, "section": 96,
                    "offset": 18, "hex": "1a2b3c 000a0f" },
                  { "fault": "wrong_bytes", "table": "eit_schedule_actual", "service_id": 101, "section": 104,
                    "offset": 18, "hex": "ffffff ffffff" },
                  { "fault": "wrong_bytes", "table": "eit_schedule_actual", "service_id": 101, "section": 112,
                    "offset": 18, "hex": "246000 000060" }])");
  EXPECT_EQ(events_of_101(),
            "101|1|20260301|173000|-1800|010000|3600|0.0.0.0|0@est|4|0\n"
            "101|2|20260302|1a2b3c|95502|000a0f|615|0.0.0.0|0@est|1|0\n"      // 20:31:42, ten minutes and fifteen
            "101|4|20260302|246000|111600|000060|60|0.0.0.0|0@est|0|0\n"      // 25:00:00
            "101|3|20260302|ffffff|625665|ffffff|604065|0.0.0.0|0@est|0|0\n"  // 165 of each
  );
}

TEST_F(Guide_events_test, undefined_start_is_refused_once_and_the_others_are_stored) {
  const Scan_run scan = collect_101(R"([{ "start": "undefined", "duration": "30m", "name": "Nähtamatu" },
                                        { "start": "now-30m", "duration": "1h", "name": "Uudised" },
                                        { "start": "now+30m", "duration": "1h", "name": "Film" }])");
  EXPECT_EQ(events_of_101(),
            "101|2|20260301|173000|-1800|010000|3600|0.0.0.0|0@est|4|0\n"
            "101|3|20260301|183000|1800|010000|3600|0.0.0.0|0@est|1|0\n");
  EXPECT_EQ(texts_of_101(), "101|2|est|Uudised|||\n101|3|est|Film|||\n");
  EXPECT_EQ(sql("SELECT count(*) FROM epglist_lang WHERE source_oid NOT IN (SELECT entry FROM epglist)"), "0\n");
  EXPECT_GE(scan.count_err("ERROR: Cannot convert time Y:138, mon 3, mday 22, hour 165, min 165, sec 165 to epoch\n"),
            1U);
  EXPECT_EQ(scan.count_err("ERROR: eit_for_service: rc is 275\n"), 1U);
}

TEST_F(Guide_events_test, last_second_of_32_bits_is_stored_and_the_next_one_refused) {
  const Scan_run scan = collect({{{"op", "replace"}, {"path", "/now"}, {"value", "2038-01-18T18:00:00Z"}},
                                 {{"op", "replace"}, {"path", "/time"}, {"value", {{"tdt", false}, {"tot", false}}}},
                                 events_of(INDEX_OF_101, R"([{ "start": "now-30m", "duration": "1h" },
                                           { "start": "2038-01-19T03:14:07Z", "duration": "1h", "name": "Viimane" },
                                           { "start": "2038-01-19T04:14:07Z", "duration": "30m", "name": "Hilja" }])"),
                                 events_of(INDEX_OF_102, SECOND_SERVICE)});
  EXPECT_EQ(sql("SELECT pat_prnr, ev_id, start_epoch, dur_sec FROM epglist WHERE pat_prnr = 101 ORDER BY 3"),
            "101|1|2147448600|3600\n101|2|2147483647|3600\n");
  EXPECT_EQ(texts_of_101(), "101|2|est|Viimane|||\n");
  EXPECT_GE(scan.count_err("ERROR: Cannot convert time Y:138, mon 0, mday 19, hour 4, min 14, sec 7 to epoch\n"), 1U);
  EXPECT_EQ(scan.count_err("hour 3, min 14"), 0U);
  EXPECT_EQ(scan.count_err("ERROR: eit_for_service: rc is 275\n"), 1U);
}

// The fourth event is remembered although it is not stored, so the fifth one begins within an event, too.
TEST_F(Guide_events_test, quirk_event_within_one_that_is_not_stored_is_left_out_too) {
  collect_101(R"([{ "event_id": 1, "start": "now-30m", "duration": "1h" },
                  { "event_id": 2, "start": "now+30m", "duration": "1h" },
                  { "event_id": 3, "start": "now+30m", "duration": "1h" },
                  { "event_id": 4, "start": "now+60m", "duration": "1h" },
                  { "event_id": 5, "start": "now+90m", "duration": "30m" },
                  { "event_id": 6, "start": "now+2h", "duration": "1h" }])");
  EXPECT_EQ(events_of_101(),
            "101|1|20260301|173000|-1800|010000|3600|0.0.0.0|0@est|4|0\n"
            "101|2|20260301|183000|1800|010000|3600|0.0.0.0|0@est|1|0\n"
            "101|6|20260301|200000|7200|010000|3600|0.0.0.0|0@est|0|0\n");
}

TEST_F(Guide_events_test, events_over_midnight_over_a_day_and_with_seconds) {
  collect_101(R"([{ "start": "now-30m", "duration": "1h" },
                  { "start": "2026-03-01T23:30:00Z", "duration": "01:00:00", "name": "Öö" },
                  { "start": "2026-03-02T00:30:00Z", "duration": "25:00:00", "name": "Maraton" },
                  { "start": "2026-03-04T00:00:00Z", "duration": "23:59:59", "name": "Kogu päev" },
                  { "start": "2026-03-04T23:59:59Z", "duration": "00:00:02", "name": "Viiv" }])");
  EXPECT_EQ(events_of_101(),
            "101|1|20260301|173000|-1800|010000|3600|0.0.0.0|0@est|4|0\n"
            "101|2|20260301|233000|19800|010000|3600|0.0.0.0|0@est|1|0\n"
            "101|3|20260302|003000|23400|250000|90000|0.0.0.0|0@est|0|0\n"
            "101|4|20260304|000000|194400|235959|86399|0.0.0.0|0@est|0|0\n"
            "101|5|20260304|235959|280799|000002|2|0.0.0.0|0@est|0|0\n");
  EXPECT_EQ(texts_of_101(), "101|2|est|Öö|||\n101|3|est|Maraton|||\n101|4|est|Kogu päev|||\n101|5|est|Viiv|||\n");
}

TEST_F(Guide_events_test, two_languages_genres_ratings_and_scrambling) {
  collect_101(R"([{ "start": "now-30m", "duration": "1h", "name": "Õhtune film", "text": "Žürii ees.", "free_ca": true,
                    "texts": [{ "language": "rus", "name": "Вечерний фильм", "text": "Перед жюри.",
                                "charset": "iso8859-5" }],
                    "extended": [{ "language": "rus", "text": "Длинный текст.", "charset": "iso8859-5" },
                                 { "language": "est", "text": "Pikk lugu." }],
                    "content": ["0x10", { "type": "0x25", "user": "0xAB" }],
                    "rating": [{ "country": "EST", "age": 12 }, { "country": "LVA", "value": 0 }] },
                  { "start": "now+30m", "duration": "1h", "name": "Ainult eesti keeles" }])");
  EXPECT_EQ(events_of_101(),
            "101|1|20260301|173000|-1800|010000|3600|1.0.0.0 2.5.a.b |09@EST 00@LVA |4|1\n"
            "101|2|20260301|183000|1800|010000|3600|0.0.0.0|0@est|1|0\n");
  EXPECT_EQ(texts_of_101(),
            "101|1|est|Õhtune film|Žürii ees.|Pikk lugu.|\n"
            "101|1|rus|Вечерний фильм|Перед жюри.|Длинный текст.|\n"
            "101|2|est|Ainult eesti keeles|||\n");
}

TEST_F(Guide_events_test, extended_event_in_several_parts_is_joined) {
  std::string text;
  for (int i = 1; i <= 100; ++i)
    text += "Lõik " + std::to_string(i) + ". ";
  text += "Lõpp";
  collect_101(R"([{ "start": "now-30m", "duration": "1h", "name": "Film", "extended": {
                      "items": [{ "name": "Režissöör", "text": "Liis Kask" }, { "name": "Aasta", "text": "1999" }],
                      "text": ")" +
              text + R"(" } }, { "start": "now+30m", "duration": "1h", "name": "Uudised" }])");
  EXPECT_EQ(texts_of_101(), "101|1|est|Film||" + text +
                                "|RežissöörRežissöör:Liis Kask,AastaAasta:1999,\n"
                                "101|2|est|Uudised|||\n");
}

TEST_F(Guide_events_test, fragment_of_an_extended_event_is_stored_and_told_at_3) {
  // The first of two parts; the second one never comes.
  const std::string events = R"([{ "start": "now-30m", "duration": "1h", "name": "Film",
                                   "descriptors": ["4e0a 01 657374 00 04 486f6f6c"] },
                                 { "start": "now+30m", "duration": "1h", "name": "Uudised",
                                   "extended": { "text": "Terve" } }])";
  const Scan_run scan = collect_101(events, "[]", "verbosity 3\n");
  EXPECT_EQ(texts_of_101(), "101|1|est|Film||Hool|\n101|2|est|Uudised||Terve|\n");
  const std::string entry = sql("SELECT entry FROM epglist WHERE pat_prnr = 101 AND ev_id = 1");
  EXPECT_EQ(lines_with(scan.err, {"Fragmented"}), "Fragmented extended event for source_oid " + entry);
}

TEST_F(Guide_events_test, more_than_256_events_in_one_table) {
  Json list = Json::array();
  std::string expected;
  for (int i = 0; i < 300; ++i) {
    list.push_back({{"event_id", i + 1}, {"start", "now+" + std::to_string(5 * i) + "m"}, {"duration", "5m"}});
    if (i > 0)
      list.back()["name"] = "Saade " + std::to_string(i + 1);
    expected += std::to_string(i + 1) + "|" + std::to_string(300 * i) + "|300\n";
  }
  collect_101(list.dump());
  EXPECT_EQ(sql(std::string("SELECT ev_id, start_epoch - ") + NOW +
                ", dur_sec FROM epglist WHERE pat_prnr = 101 ORDER BY start_epoch"),
            expected);
  EXPECT_EQ(sql("SELECT count(*), min(CASE ev_id WHEN 2 THEN ev_name END), max(CASE ev_id WHEN 300 THEN ev_name END) "
                "FROM epglist e, epglist_lang l WHERE l.source_oid = e.entry AND pat_prnr = 101"),
            "299|Saade 2|Saade 300\n");
}
