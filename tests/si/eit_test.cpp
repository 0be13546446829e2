// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The programme guide: one table after the other, service by service.
#include <sqlite3.h>

#include "si/recorded_clock.h"
#include "si/si_support.h"

using namespace si_support;

namespace {

constexpr int MIDNIGHT = (60000 - 40587) * 86400;  // of MJD 60000

constexpr int NOW = table::EIT_PRESENT_FOLLOWING, FIRST = table::EIT_SCHEDULE_FIRST, LAST = table::EIT_SCHEDULE_LAST;

using Tables = std::vector<int>;

class Eit : public Parser_test {
 protected:
  Eit() {
    insert(1, 256, 257, "First");
    insert(2, 256, 257, "Second");
  }
  ~Eit() override { recorded_clock = {}; }

  // The guide of the services in the database, from its first table on.
  void start() {
    parser.init_cache_list(FREQ, SCAN_EIT);
    parser.start_eit_scan(FREQ, SCAN_EIT);
  }
  // With the first service only.
  void start_one() {
    run("DELETE FROM kanalid WHERE pat_prnr = 2");
    start();
  }
  std::string arrive(int service, int table, const std::vector<Programme_event>& events, int level = -1,
                     uint8_t number = 0, uint8_t last = 0) {
    return scan_at(level, eit(service, table, events, number, last), pid::EIT, SCAN_EIT);
  }
  void repeat(int times, int service, int table) {
    for (int i = 0; i < times; ++i)
      arrive(service, table, {{1, 0x120000}});
  }
  // The guide of service 1, up to the end of its last table.
  void all_tables() {
    repeat(4, 1, NOW);
    for (int table = FIRST; table <= LAST; ++table)
      repeat(4, 1, table);
  }
  // Of the filters, all of which are on the guide's PID.
  Tables open_tables() {
    Tables all;
    for (const auto& [pid, table] : filters())
      all.push_back(pid == pid::EIT ? table : -pid);
    return all;
  }
  bool info_available() { return parser.get_eit_info_available(); }
  Texts starts() { return rows("SELECT start_epoch FROM epglist ORDER BY 1"); }
};

const std::vector<Programme_event> NOON = {{1, 0x120000}};

// --- Starting --------------------------------------------------------------------------------------------------------

TEST_F(Eit, starts_with_the_present_following_table) {
  for (int table : {NOW, FIRST, LAST, table::EIT_SCHEDULE_OTHER_FIRST})
    filter.addfilter(pid::EIT, table, FREQ);
  open(TOT);
  EXPECT_EQ(parser.start_eit_scan(FREQ, SCAN_EIT), 0);
  EXPECT_THAT(filters(), UnorderedElementsAre(PRESENT, Filter(pid::EIT, table::EIT_SCHEDULE_OTHER_FIRST), TOT));
  EXPECT_FALSE(info_available());
}

TEST_F(Eit, a_section_of_another_table_is_dropped_with_a_counted_error) {
  start();
  const auto line = [](int count) {
    return "ERROR: \n ##### EIT table current nr is 4e, scanned table 50 cnt " + std::to_string(count) + "#####\n";
  };
  EXPECT_EQ(arrive(1, FIRST, NOON, 0), line(0));
  EXPECT_EQ(arrive(1, FIRST, NOON, 0), line(1));
  EXPECT_EQ(arrive(1, FIRST, NOON, -1), "");
  EXPECT_EQ(arrive(1, FIRST, NOON, 0), line(3));
  EXPECT_EQ(table("epglist"), Texts{});
}

TEST_F(Eit, before_the_start_every_table_is_another) {
  EXPECT_EQ(arrive(1, NOW, NOON, 0), "ERROR: \n ##### EIT table current nr is 0, scanned table 4e cnt 0#####\n");
}

TEST_F(Eit, a_section_without_events_is_only_traced) {
  start();
  EXPECT_THAT(arrive(1, NOW, {}, 4, 3, 5),
              HasSubstr("Scanning EIT, section number 3\n"
                        "TableNr: 4e, TSid 1001, ONetID 20, lastsecNr 5, LastTableId 5f, service ID 1\n"
                        "parse_section_eit: event list equal, exiting scan\n"
                        "TSid 1001, ONetID 20, SecNr 3, lastsecNr 5, LastTableId 5f, service ID 1\n"));
  EXPECT_EQ(arrive(1, NOW, {}, 3), "");
}

TEST_F(Eit, sections_that_are_not_current_are_dropped) {
  start();
  scan(next_of(eit(1, NOW, NOON)), pid::EIT, SCAN_EIT);
  EXPECT_EQ(starts(), Texts{});
}

// --- Storing ---------------------------------------------------------------------------------------------------------

TEST_F(Eit, an_event_is_stored_with_its_defaults) {
  start();
  arrive(1, NOW, {{0x1234, 0x123456, 0x013059, {}, 4, 1}});
  EXPECT_THAT(rows("SELECT channel, ymd_bcd, hms_bcd, start_epoch, dur_bcd, dur_sec, content_id, rating, run_status, "
                   "free_ca, ev_id, pat_prnr FROM epglist"),
              ElementsAre("1|" + std::to_string(0x20230225) + "|" + std::to_string(0x123456) + "|" +
                          std::to_string(MIDNIGHT + 12 * 3600 + 34 * 60 + 56) + "|" + std::to_string(0x013059) +
                          "|5459|0.0.0.0|0@est|4|1|4660|1"));
  EXPECT_EQ(parser.get_eit_stored(), 1);
}

TEST_F(Eit, texts_in_two_languages_become_two_rows) {
  start();
  const Bytes texts =
      join({short_event("est", "Uudised", "Sisu"), short_event("rus", "\x01\xBD\xDE\xD2", "Text"),
            descriptor(tag::EXTENDED_EVENT,
                       join({{0x00}, bytes("est"), {10}, sized("Year"), sized("1999"), sized("Pikk")}))});
  arrive(1, NOW, {{1, 0x120000, 0x003000, texts}});
  EXPECT_THAT(rows("SELECT source_oid, lang, ev_name, ev_desc, ext_desc, ext_list FROM epglist_lang ORDER BY lang"),
              ElementsAre("1|est|Uudised|Sisu|Pikk|YearYear:1999,", "1|rus|\xD0\x9D\xD0\xBE\xD0\xB2|Text||"));
}

TEST_F(Eit, what_arrives_is_stored_once_and_counted) {
  const auto content = [](const Bytes& body) { return descriptor(tag::CONTENT, body); };
  const auto rating = [](const Bytes& body) { return descriptor(tag::PARENTAL_RATING, body); };
  const Bytes estonian = rating(join({bytes("EST"), {0x0C}}));
  const struct {
    const char* legend;
    std::vector<std::vector<Programme_event>> sections;
    Texts rows;
  } cases[] = {
      {"content and rating of one event only",
       {{{1, 0x120000, 0x003000, join({content({0x12, 0x34, 0xAB, 0xCD}), estonian})}, {2, 0x123000}}},
       {"1|1.2.3.4 a.b.c.d |0c@EST ", "2|0.0.0.0|0@est"}},
      {"a second content or rating replaces the first",
       {{{1, 0x120000, 0x003000,
          join({content({0x12, 0x34}), content({0x56, 0x78}), estonian, rating(join({bytes("FIN"), {3}}))})}}},
       {"1|5.6.7.8 |03@FIN "}},
      {"content and rating without entries leave the defaults",
       {{{1, 0x120000, 0x003000, join({content({}), rating({})})}}},
       {"1|0.0.0.0|0@est"}},
      {"an event already stored", {NOON, NOON}, {"1|0.0.0.0|0@est"}},
      {"an event of the same time under a new id", {NOON, {{2, 0x120000}}}, {"1|0.0.0.0|0@est"}},
      {"an event that begins within another", {NOON, {{2, 0x121500}}}, {"1|0.0.0.0|0@est"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    run("DELETE FROM epglist");
    start();
    const int before = parser.get_eit_stored();
    for (const auto& events : c.sections)
      arrive(1, NOW, events, -1, 0, 1);
    EXPECT_EQ(rows("SELECT ev_id, content_id, rating FROM epglist ORDER BY start_epoch"), c.rows);
    EXPECT_EQ(parser.get_eit_stored() - before, static_cast<int>(c.rows.size()));
  }
}

// Most of what the guide's filters bring has been seen before, so this is what the box does all day.
TEST_F(Eit, sections_whose_events_are_all_stored_cost_no_query) {
  start();
  const std::vector<Programme_event> evening = {{1, 0x190000}, {2, 0x193000}, {3, 0x200000}};
  arrive(1, NOW, evening, -1, 0, 1);
  ASSERT_EQ(parser.get_eit_stored(), 3);
  int queries = 0;
  const auto count = [](unsigned, void* counter, void*, void*) {
    ++*static_cast<int*>(counter);
    return 0;
  };
  sqlite3_trace_v2(conn(), SQLITE_TRACE_STMT, count, &queries);
  for (int i = 0; i < 5; ++i)
    arrive(1, NOW, evening, -1, 0, 1);
  EXPECT_EQ(queries, 0);
  arrive(1, NOW, {{4, 0x203000}}, -1, 0, 1);
  EXPECT_GE(queries, 1) << "counting works";
  sqlite3_trace_v2(conn(), 0, nullptr, nullptr);
}

TEST_F(Eit, events_of_a_service_that_is_not_listed_or_no_television_are_skipped) {
  insert(3, 256, 257, "Radio", 2);
  start();
  for (const int service : {3, 9}) {
    EXPECT_THAT(arrive(service, NOW, NOON, 4),
                HasSubstr(formatted("Failed to locate service %d in eit scan cache, current cache is\n", service) +
                          " 1  2 SC = NULL\n"));
    EXPECT_THAT(arrive(service, NOW, NOON, 3), Not(HasSubstr("Failed")));
  }
  EXPECT_EQ(starts(), Texts{});
}

TEST_F(Eit, an_event_that_cannot_be_stored_counts_and_its_texts_are_dropped) {
  start();
  const Bytes text = short_event("est", "Name", "Text");
  Programme_event undefined{1, 0xFFFFFF, 0x003000, text};
  undefined.mjd = 0xFFFF;
  EXPECT_THAT(arrive(1, NOW, {undefined}, 0), HasSubstr("ERROR: Cannot convert time "));
  EXPECT_EQ(parser.get_eit_stored(), 1);
  EXPECT_EQ(table("epglist_lang"), Texts{});
  arrive(1, NOW, NOON, -1, 0, 1);
  EXPECT_EQ(table("epglist_lang"), Texts{}) << "nor do they reach the next event";
}

TEST_F(Eit, a_fragment_of_an_extended_event_is_reported_at_3) {
  start();
  const Bytes fragment = descriptor(tag::EXTENDED_EVENT, join({{0x01}, bytes("est"), {0}, sized("Half")}));
  EXPECT_THAT(arrive(1, NOW, {{1, 0x120000, 0x003000, fragment}}, 3, 0, 1),
              HasSubstr("Fragmented extended event for source_oid 1\n"));
  EXPECT_THAT(arrive(1, NOW, {{2, 0x130000, 0x003000, fragment}}, 2, 0, 1), Not(HasSubstr("Fragmented")));
  EXPECT_THAT(rows("SELECT ext_desc FROM epglist_lang"), ElementsAre("Half", "Half")) << "stored all the same";
}

TEST_F(Eit, quirk_the_count_is_printed_at_1_and_101) {
  start();
  for (int i = 0; i < 102; ++i) {
    const unsigned hour = static_cast<unsigned>(i / 60);
    const unsigned minute = static_cast<unsigned>(i % 60);
    const unsigned hms = Siparse::bin_to_bcd(hour * 10000 + minute * 100);
    const std::string all = arrive(1, NOW, {{i, hms, 0x000100}}, 3, 0, 1);
    if (i == 0 || i == 100)
      EXPECT_THAT(all, HasSubstr("Stored " + std::to_string(i + 1) + " EPG entries\n")) << i;
    else
      EXPECT_THAT(all, Not(HasSubstr("Stored"))) << i;
  }
  EXPECT_EQ(parser.get_eit_stored(), 102);
}

// --- Service by service ----------------------------------------------------------------------------------------------

TEST_F(Eit, the_last_section_must_arrive_twice_after_the_first_section_of_a_service) {
  start_one();
  EXPECT_EQ(arrive(1, NOW, NOON, 1), "****+ Started table 4e scan 1 First\n");
  EXPECT_EQ(arrive(1, NOW, NOON, 1), "");
  EXPECT_FALSE(info_available());
  EXPECT_EQ(arrive(1, NOW, NOON, 1), "****-  Finished table 4e scan 1 First\n");
  EXPECT_EQ(open_tables(), Tables{NOW}) << "closed by the next section with events";
  EXPECT_EQ(arrive(1, NOW, NOON, 1), "Pres-Following table 4E completed, next table 0x50\n");
  EXPECT_TRUE(info_available());
  EXPECT_EQ(open_tables(), Tables{FIRST});
}

TEST_F(Eit, starting_and_finishing_are_silent_at_0) {
  start_one();
  for (int i = 0; i < 4; ++i)
    EXPECT_EQ(arrive(1, NOW, NOON, 0), "");
}

TEST_F(Eit, a_section_counts_once_however_many_events_it_has_and_the_table_closes_at_the_next_of_them) {
  start_one();
  const std::vector<Programme_event> three = {{1, 0x120000}, {2, 0x123000}, {3, 0x130000}};
  arrive(1, NOW, three);
  arrive(1, NOW, three);
  EXPECT_EQ(open_tables(), Tables{NOW});
  EXPECT_EQ(arrive(1, NOW, three, 1),
            "****-  Finished table 4e scan 1 First\nPres-Following table 4E completed, next table 0x50\n");
}

TEST_F(Eit, only_last_sections_count) {
  start_one();
  for (int i = 0; i < 5; ++i)
    arrive(1, NOW, NOON, -1, 0, 1);
  EXPECT_EQ(arrive(1, NOW, NOON, 1, 1, 1), "");
  EXPECT_EQ(arrive(1, NOW, NOON, 1, 1, 1), "****-  Finished table 4e scan 1 First\n");
}

TEST_F(Eit, the_table_waits_for_every_service) {
  start();
  repeat(5, 1, NOW);
  EXPECT_EQ(open_tables(), Tables{NOW});
  repeat(3, 2, NOW);
  EXPECT_THAT(arrive(1, NOW, NOON, 4), HasSubstr("Loop for all services\n"));
  EXPECT_EQ(open_tables(), Tables{FIRST});
}

TEST_F(Eit, events_of_a_finished_service_are_not_looked_at) {
  start();
  repeat(3, 1, NOW);
  EXPECT_THAT(arrive(1, NOW, {{7, 0x200000}}, 4), HasSubstr("Loop is done\n"));
  EXPECT_EQ(starts().size(), 1u);
}

TEST_F(Eit, events_of_the_section_that_finishes_a_service_are_not_stored) {
  start();
  repeat(2, 1, NOW);
  const std::string all = arrive(1, NOW, {{7, 0x200000}, {8, 0x210000}}, 4);
  EXPECT_EQ(starts().size(), 1u);
  EXPECT_NE(all.find("Loop is done\n"), all.rfind("Loop is done\n")) << "both are looked at";
}

TEST_F(Eit, events_that_come_behind_the_last_table_are_stored_and_open_nothing) {
  start_one();
  all_tables();
  arrive(1, LAST, {{7, 0x200000}});
  EXPECT_EQ(starts().size(), 2u);
  EXPECT_THAT(filters(), IsEmpty());
}

TEST_F(Eit, reset_cache_list_starts_a_new_round) {
  start_one();
  repeat(3, 1, NOW);
  parser.reset_cache_list();
  parser.start_eit_scan(FREQ, SCAN_EIT);
  EXPECT_EQ(arrive(1, NOW, NOON, 1), "****+ Started table 4e scan 1 First\n");
  EXPECT_EQ(parser.get_eit_stored(), 1) << "what is stored is remembered";
}

// --- Table by table --------------------------------------------------------------------------------------------------

TEST_F(Eit, every_schedule_table_opens_the_next_and_the_last_one_none) {
  start_one();
  repeat(4, 1, NOW);
  for (int table = FIRST; table < LAST; ++table) {
    repeat(3, 1, table);
    EXPECT_EQ(arrive(1, table, NOON, 1),
              formatted("**** EIT loop completed, next table %x\n", static_cast<unsigned>(table + 1)));
    EXPECT_EQ(open_tables(), Tables{table + 1});
  }
  repeat(3, 1, LAST);
  EXPECT_EQ(arrive(1, LAST, NOON, 1), "");
  EXPECT_THAT(filters(), IsEmpty());
  EXPECT_TRUE(all_filters_have_freq());
}

TEST_F(Eit, with_an_empty_list_the_first_section_with_events_closes_each_table) {
  parser.init_cache_list(FREQ + 8000000, SCAN_EIT);
  parser.start_eit_scan(FREQ, SCAN_EIT);
  arrive(1, NOW, {});
  EXPECT_EQ(open_tables(), Tables{NOW}) << "one without events does not";
  EXPECT_THAT(arrive(1, NOW, NOON, 4), HasSubstr("Failed to locate service 1 in eit scan cache, current cache is\n"));
  EXPECT_EQ(open_tables(), Tables{FIRST});
  arrive(1, FIRST, NOON);
  EXPECT_EQ(open_tables(), Tables{FIRST + 1});
  EXPECT_EQ(parser.get_eit_stored(), 0);
  EXPECT_TRUE(info_available());
}

TEST_F(Eit, the_end_of_a_table_is_flushed_behind_the_filter) {
  start_one();
  for (int i = 0; i < 3; ++i)
    EXPECT_THAT(arrive(1, NOW, NOON, 3), Not(HasSubstr("Flushing")));
  EXPECT_THAT(
      arrive(1, NOW, NOON, 4),
      testing::ContainsRegex("Removing filter [^\n]*\n[^\n]*Flushing\nFldone\nPres-Following table 4E completed"));
}

// --- Silent services -------------------------------------------------------------------------------------------------

TEST_F(Eit, quirk_a_service_that_sends_nothing_is_given_up_and_that_is_printed_below_2_only) {
  start();
  repeat(3, 1, NOW);
  recorded_clock.timers_expired = true;
  EXPECT_EQ(arrive(1, NOW, NOON, 0), "Kill scan for service 2 , First table 4e, ttl 10\n")
      << "with the name of the section's service";
  EXPECT_EQ(open_tables(), Tables{0x50});
  EXPECT_EQ(arrive(1, FIRST, NOON, -1),
            "Kill scan for service 1 , First table 50, ttl 180\nKill scan for service 2 , First table 50, ttl 180\n");
  EXPECT_EQ(open_tables(), Tables{0x51});
  EXPECT_THAT(arrive(1, 0x51, NOON, 2), Not(HasSubstr("Kill")));
  EXPECT_EQ(open_tables(), Tables{0x52});
}

TEST_F(Eit, a_service_is_given_up_only_when_its_timer_has_run_out) {
  start();
  for (int i = 0; i < 5; ++i)
    EXPECT_THAT(arrive(1, NOW, NOON, 1), Not(HasSubstr("Kill")));
  EXPECT_EQ(open_tables(), Tables{NOW});
}

TEST_F(Eit, get_eit_info_available_prints_the_flag_at_4) {
  EXPECT_EQ(messages_at(4, [&] { info_available(); }), "0 ");
  EXPECT_EQ(messages_at(3, [&] { info_available(); }), "");
}

// --- Progress for hosts ----------------------------------------------------------------------------------------------

class Eit_progress : public Eit {
 protected:
  Texts shown() const {
    std::vector<EIT_progress> progress{EIT_progress{}};  // what was there before goes
    parser.get_eit_progress(&progress);
    return si_support::shown(progress);
  }
};

TEST_F(Eit_progress, is_empty_without_a_list) {
  EXPECT_THAT(shown(), IsEmpty());
  run("DELETE FROM kanalid");
  start();
  EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(Eit_progress, follows_every_service_through_its_tables) {
  parser.init_cache_list(FREQ, SCAN_EIT);
  EXPECT_THAT(shown(), ElementsAre("1/1 0/0 1/0 0", "2/2 0/0 1/0 0"));
  parser.start_eit_scan(FREQ, SCAN_EIT);
  EXPECT_THAT(shown(), ElementsAre("1/1 4e/0 1/0 0", "2/2 4e/0 1/0 0"));
  arrive(1, NOW, {{1, 0x120000}, {2, 0x123000}});
  EXPECT_THAT(shown(), ElementsAre("1/1 4e/0 0/0 2", "2/2 4e/0 1/0 0"));
  repeat(2, 1, NOW);
  EXPECT_THAT(shown(), ElementsAre("1/1 4e/0 0/1 2", "2/2 4e/0 1/0 0"));
  repeat(3, 2, NOW);
  EXPECT_THAT(shown(), ElementsAre("1/1 4e/0 0/1 2", "2/2 4e/0 0/1 1"));
  arrive(1, NOW, NOON);
  EXPECT_THAT(shown(), ElementsAre("1/1 50/0 1/0 2", "2/2 50/0 1/0 1"));
  arrive(2, FIRST, {});
  EXPECT_THAT(shown(), ElementsAre("1/1 50/0 1/0 2", "2/2 50/5f 1/0 1")) << "a section without events tells, too";
}

TEST_F(Eit_progress, counts_what_the_database_held_and_nothing_twice) {
  run("INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (1, 1, " +
      std::to_string(MIDNIGHT + 12 * 3600) + ", 1800)");
  start();
  EXPECT_EQ(shown()[0], "1/1 4e/0 1/0 1");
  arrive(1, NOW, {{1, 0x120000}, {2, 0x121000}, {3, 0x124000}});
  EXPECT_EQ(shown()[0], "1/1 4e/0 0/0 2") << "the second one overlaps and is not stored";
}

TEST_F(Eit_progress, of_a_silent_service_says_done) {
  start();
  recorded_clock.timers_expired = true;
  arrive(1, NOW, NOON);
  EXPECT_THAT(shown(), ElementsAre("1/1 50/0 1/0 0", "2/2 50/0 1/0 0"));
}

TEST_F(Eit_progress, after_the_last_table_stays_done_until_a_new_round) {
  start_one();
  all_tables();
  EXPECT_THAT(shown(), ElementsAre("1/1 5f/5f 0/1 1"));
  parser.reset_cache_list();
  parser.start_eit_scan(FREQ, SCAN_EIT);
  EXPECT_THAT(shown(), ElementsAre("1/1 4e/5f 1/0 1"));
}

TEST_F(Eit_progress, ignores_last_tables_that_are_no_schedule) {
  start_one();
  repeat(4, 1, NOW);
  scan(with_byte(eit(1, FIRST, NOON), 13, 0xFF), pid::EIT, SCAN_EIT);
  EXPECT_THAT(shown(), ElementsAre("1/1 50/0 0/0 1"));
}

}  // namespace
