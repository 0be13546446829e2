// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The guide collected whole: what is stored, changed, removed and told, and when it is complete.
#include "si/whole_guide.h"

#include "si/visible_events.h"
#include "si/whole_guide_support.h"

using namespace whole_guide_support;

// Called once, at the next wait for a lock.
static std::function<void()> at_wait;

extern "C" int usleep(useconds_t us) {
  if (at_wait)
    std::exchange(at_wait, nullptr)();
  const timespec pause{static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
  return nanosleep(&pause, nullptr);
}

namespace {

constexpr int NOW_OTHER = table::EIT_PRESENT_FOLLOWING_OTHER;

class Whole_guide_test : public testing::Test, protected Whole_guide_bench {
 protected:
  explicit Whole_guide_test(bool others = false) : Whole_guide_bench(others) {
    insert(1, 256, 257, "First");
    begin();
  }
  // A day of three events, in version 0.
  void three_events() {
    arrive({}, {{1, 600, 60, "News"}, {2, 660, 90, "Film"}, {3, 750, 30, "Talk"}});
    told();
  }
  Texts texts() { return rows("SELECT ev_name FROM epglist_lang ORDER BY source_oid"); }
  int entry(int id) { return number("SELECT entry FROM epglist WHERE ev_id = " + std::to_string(id)); }
};

// --- Events that change ----------------------------------------------------------------------------------------------

TEST_F(Whole_guide_test, one_filter_is_open_from_the_request_on) {
  filter.remove_all();
  parser.init_cache_list(FREQ, SCAN_EIT);
  EXPECT_EQ(filters(), (std::vector<Filter>{{pid::EIT, 0x40}})) << "beside the scan";
  EXPECT_EQ((*filter.flist()).front()->mask[0], 0xC0);
  scan_ended();
  parser.start_eit_scan(FREQ, SCAN_EIT);
  EXPECT_EQ(filters().size(), 1U);
}

TEST_F(Whole_guide_test, a_new_version_replaces_what_was_said) {
  const struct {
    const char* legend;
    std::vector<Show> now;
    Texts guide;
    Texts told;
    std::vector<int> same_rows;  // ids that keep their row
  } cases[] = {
      {"nothing but the version",
       {{1, 600, 60, "News"}, {2, 660, 90, "Film"}, {3, 750, 30, "Talk"}},
       {"1 1 600+60 News", "1 2 660+90 Film", "1 3 750+30 Talk"},
       {},
       {1, 2, 3}},
      {"moved",
       {{1, 600, 60, "News"}, {3, 660, 30, "Talk"}, {2, 700, 90, "Film"}},
       {"1 1 600+60 News", "1 3 660+30 Talk", "1 2 700+90 Film"},
       {"moved 3@660", "moved 2@700"},
       {1, 2, 3}},
      {"exchanged",
       {{1, 600, 60, "News"}, {3, 660, 90, "Talk"}, {2, 750, 30, "Film"}},
       {"1 1 600+60 News", "1 3 660+90 Talk", "1 2 750+30 Film"},
       {"moved 3@660", "moved 2@750"},
       {1, 2, 3}},
      {"shortened",
       {{1, 600, 30, "News"}, {2, 660, 90, "Film"}, {3, 750, 30, "Talk"}},
       {"1 1 600+30 News", "1 2 660+90 Film", "1 3 750+30 Talk"},
       {"changed 1@600"},
       {1, 2, 3}},
      {"replaced under another id",
       {{1, 600, 60, "News"}, {9, 660, 90, "Opera"}, {3, 750, 30, "Talk"}},
       {"1 1 600+60 News", "1 9 660+90 Opera", "1 3 750+30 Talk"},
       {"changed 9@660"},
       {1, 3}},
      {"replaced by one without a text",
       {{1, 600, 60, "News"}, {9, 660, 90}, {3, 750, 30, "Talk"}},
       {"1 1 600+60 News", "1 9 660+90", "1 3 750+30 Talk"},
       {"changed 9@660"},
       {1, 3}},
      {"the same without a text keeps the one it had",
       {{1, 600, 60, "News"}, {2, 660, 90}, {3, 750, 30, "Talk"}},
       {"1 1 600+60 News", "1 2 660+90 Film", "1 3 750+30 Talk"},
       {"changed 2@660"},
       {1, 2, 3}},
      {"a longer one takes the place of two",
       {{1, 600, 60, "News"}, {9, 650, 120, "Match"}},
       {"1 1 600+60 News", "1 9 650+120 Match"},
       {"removed 2@660", "removed 3@750", "added 9@650"},
       {1}},
      {"cancelled",
       {{1, 600, 60, "News"}, {3, 750, 30, "Talk"}},
       {"1 1 600+60 News", "1 3 750+30 Talk"},
       {"removed 2@660"},
       {1, 3}},
      {"all gone: an empty section", {}, {}, {"removed 1@600", "removed 2@660", "removed 3@750"}, {}},
  };
  int version = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    run("DELETE FROM epglist");
    run("DELETE FROM epglist_lang");
    begin();
    three_events();
    std::map<int, int> before;
    for (const int id : c.same_rows)
      before[id] = entry(id);
    arrive({.version = ++version}, c.now);
    EXPECT_EQ(guide(), c.guide);
    EXPECT_EQ(told(), c.told);
    for (const int id : c.same_rows)
      EXPECT_EQ(entry(id), before[id]) << id;
    EXPECT_EQ(rows("SELECT source_oid FROM epglist_lang WHERE source_oid NOT IN (SELECT entry FROM epglist)"), Texts{});
  }
}

TEST_F(Whole_guide_test, a_repeated_section_writes_nothing) {
  three_events();
  run("UPDATE epglist SET rating = 'mine' WHERE ev_id = 2");
  for (int i = 0; i < 3; ++i)
    three_events();
  EXPECT_EQ(rows("SELECT rating FROM epglist WHERE ev_id = 2"), Texts{"mine"});
}

TEST_F(Whole_guide_test, present_and_following_show_the_real_times_and_who_runs) {
  three_events();
  arrive({.table = NOW_TABLE, .last = 1}, {{1, 605, 70, "", 4}});
  EXPECT_EQ(guide(), (Texts{"1 1 605+70 News", "1 3 750+30 Talk"})) << "what it overlaps is hidden until it is said";
  arrive({.table = NOW_TABLE, .number = 1, .last = 1}, {{2, 675, 90, "Film"}});
  EXPECT_EQ(guide(), (Texts{"1 1 605+70 News", "1 2 675+90 Film"}));
  EXPECT_EQ(rows("SELECT ev_id, run_status FROM epglist ORDER BY 1"), (Texts{"1|4", "2|0"}));
  EXPECT_EQ(rows("SELECT running_since > 0 FROM event_detail ORDER BY entry").front(), "1");
  told();
  // The first is over, the next runs.
  arrive({.table = NOW_TABLE, .version = 1, .last = 1}, {{2, 675, 60, "Film", 4}});
  arrive({.table = NOW_TABLE, .version = 1, .number = 1, .last = 1}, {{3, 750, 30, "Talk"}});
  EXPECT_EQ(guide(), (Texts{"1 1 600+60 News", "1 2 675+60 Film", "1 3 750+30 Talk"}));
}

TEST_F(Whole_guide_test, a_section_of_an_older_version_that_comes_again_counts_again) {
  arrive({.last = 1}, {{1, 600, 60, "A"}});
  arrive({.number = 1, .last = 1}, {{2, 660, 60, "B"}});
  arrive({.version = 1, .last = 1}, {{1, 600, 90, "A"}});
  EXPECT_EQ(guide(), Texts{"1 1 600+90 A"});
  arrive({.number = 1, .last = 1}, {{2, 660, 60, "B"}});
  EXPECT_EQ(guide(), (Texts{"1 1 600+90 A", "1 2 660+60 B"}));
}

TEST_F(Whole_guide_test, an_event_runs_since_it_was_first_said_to) {
  const auto since = [&] { return number("SELECT running_since FROM event_detail"); };
  arrive({.table = NOW_TABLE}, {{1, 600, 60, "News", 1}});
  EXPECT_EQ(since(), 0);
  arrive({.table = NOW_TABLE, .version = 1}, {{1, 600, 60, "News", 4}});
  EXPECT_GT(since(), 0);
  run("UPDATE event_detail SET running_since = 5");
  begin();
  arrive({.table = NOW_TABLE, .version = 2}, {{1, 600, 70, "News", 4}});
  EXPECT_EQ(since(), 5);
  arrive({.table = NOW_TABLE, .version = 3}, {{2, 600, 70, "Film", 4}});
  EXPECT_GT(since(), 5) << "another event in its row";
}

TEST_F(Whole_guide_test, tables_shrink_by_each_of_their_last_numbers) {
  const auto fill = [&](int version) {
    begin();
    arrive({.version = version, .number = 0, .last = 9, .segment_last = 1, .last_table = SCHEDULE + 1},
           {{1, 0, 30, "A"}});
    arrive({.version = version, .number = 1, .last = 9, .segment_last = 1, .last_table = SCHEDULE + 1},
           {{2, 60, 30, "B"}});
    arrive({.version = version, .number = 8, .last = 9, .segment_last = 9, .last_table = SCHEDULE + 1},
           {{3, 180, 30, "C"}});
    arrive({.version = version, .number = 9, .last = 9, .segment_last = 9, .last_table = SCHEDULE + 1},
           {{4, 240, 30, "D"}});
    arrive({.table = SCHEDULE + 1, .version = version}, {{5, 900, 30, "E"}});
  };
  const struct {
    const char* legend;
    Part part;
    std::vector<Show> shows;
    Texts ids;
  } cases[] = {
      {"none",
       {.version = 1, .number = 0, .last = 9, .segment_last = 1, .last_table = SCHEDULE + 1},
       {{1, 0, 30, "A"}},
       {"1", "2", "3", "4", "5"}},
      {"segment",
       {.version = 1, .number = 0, .last = 9, .segment_last = 0, .last_table = SCHEDULE + 1},
       {{1, 0, 30, "A"}},
       {"1", "3", "4", "5"}},
      {"table",
       {.version = 1, .number = 0, .last = 1, .segment_last = 1, .last_table = SCHEDULE + 1},
       {{1, 0, 30, "A"}},
       {"1", "2", "5"}},
      {"tables",
       {.version = 1, .number = 0, .last = 9, .segment_last = 1, .last_table = SCHEDULE},
       {{1, 0, 30, "A"}},
       {"1", "2", "3", "4"}},
      {"a last table below its own is none",
       {.version = 1, .number = 0, .last = 9, .segment_last = 1, .last_table = 0x4E},
       {{1, 0, 30, "A"}},
       {"1", "2", "3", "4", "5"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.legend);
    run("DELETE FROM epglist");
    fill(0);
    arrive(c.part, c.shows);
    EXPECT_EQ(rows("SELECT ev_id FROM epglist ORDER BY 1"), c.ids);
  }
}

// --- What was stored before ------------------------------------------------------------------------------------------

TEST_F(Whole_guide_test, rows_of_an_earlier_run_are_taken_over_or_go) {
  const auto store = [&](int id, int minute, int minutes, const char* title) {
    run("INSERT INTO epglist (channel, start_epoch, dur_sec, ev_id, pat_prnr) VALUES (1, " +
        std::to_string(MIDNIGHT + minute * 60) + ", " + std::to_string(minutes * 60) + ", " + std::to_string(id) +
        ", 1)");
    run("INSERT INTO epglist_lang (source_oid, lang, ev_name) VALUES (last_insert_rowid(), 'eng', '" +
        std::string(title) + "')");
  };
  store(1, 600, 60, "Old news");
  store(2, 690, 60, "Overlaps");
  store(77, 900, 60, "Nobody says it");
  run("INSERT INTO epglist (channel, start_epoch, dur_sec, ev_id, pat_prnr) VALUES (1, 1000000, 60, 78, 1)");
  begin();
  arrive({.last = 1}, {{1, 600, 60, "News"}, {9, 660, 60, "Film"}});
  EXPECT_EQ(rows("SELECT entry, ev_id FROM epglist ORDER BY 1"), (Texts{"1|1", "3|77", "4|78", "5|9"}));
  EXPECT_EQ(told(), (Texts{"removed 2@690", "changed 1@600", "added 9@660"}));
  arrive({.number = 1, .last = 1}, {});
  EXPECT_EQ(rows("SELECT ev_id FROM epglist ORDER BY entry"), (Texts{"1", "77", "78", "9"}))
      << "now and next is missing";
  arrive({.table = NOW_TABLE}, {});
  EXPECT_EQ(rows("SELECT ev_id FROM epglist ORDER BY entry"), (Texts{"1", "78", "9"})) << "what is over stays";
}

TEST_F(Whole_guide_test, an_unchanged_guide_is_not_written_again_after_the_next_request) {
  three_events();
  run("UPDATE epglist SET rating = 'mine'");
  begin();
  arrive({}, {{1, 600, 60, "News"}, {2, 660, 90, "Film"}, {3, 750, 30, "Talk again"}});
  EXPECT_EQ(told(), Texts{"changed 3@750"});
  EXPECT_EQ(rows("SELECT rating FROM epglist ORDER BY ev_id"), (Texts{"mine", "mine", "0@est"}));
}

TEST_F(Whole_guide_test, rows_of_another_writer_are_taken_over) {
  run("CREATE TRIGGER epg_db.other AFTER DELETE ON epglist WHEN OLD.ev_id = 2 BEGIN INSERT INTO epglist (channel, "
      "start_epoch, dur_sec, ev_id) VALUES (1, " +
      std::to_string(MIDNIGHT + 800 * 60) + ", 60, 44); END;");
  three_events();
  arrive({.version = 1}, {{1, 600, 60, "News"}, {3, 750, 30, "Talk"}, {4, 800, 30, "Late"}});
  EXPECT_EQ(guide(), (Texts{"1 1 600+60 News", "1 3 750+30 Talk", "1 4 800+30 Late"}));
}

TEST_F(Whole_guide_test, an_event_that_was_purged_meanwhile_is_stored_again_when_it_changes) {
  three_events();
  run("DELETE FROM epglist_lang WHERE source_oid = " + std::to_string(entry(2)));
  run("DELETE FROM epglist WHERE ev_id = 2");
  arrive({.version = 1}, {{1, 600, 60, "News"}, {2, 660, 80, "Film"}, {3, 750, 30, "Talk"}});
  EXPECT_EQ(guide(), (Texts{"1 1 600+60 News", "1 2 660+80 Film", "1 3 750+30 Talk"}));
  EXPECT_EQ(rows("SELECT count(*) FROM epglist_lang WHERE source_oid NOT IN (SELECT entry FROM epglist)"), Texts{"0"});
}

TEST_F(Whole_guide_test, a_locked_file_is_tried_again_and_complained_about_once) {
  three_events();
  {
    support::Other_connection other(guide_file());
    ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), 101);
    EXPECT_EQ(messages_at(0,
                          [&] {
                            arrive({.version = 1}, {{4, 600, 60, "New"}});
                          }),
              "ERROR: The guide of channel 1 is not stored: database is locked\n");
    EXPECT_EQ(other.run("COMMIT"), 101);
  }
  EXPECT_EQ(guide().size(), 3U);
  usleep(1100 * 1000);
  EXPECT_EQ(messages_at(0, [&] { arrive({.version = 1}, {{4, 600, 60, "New"}}); }), "");
  EXPECT_EQ(guide(), Texts{"1 4 600+60 New"});
}

// What stands there cannot be read either, so nothing is compared with it; another wait a second later costs nothing.
TEST_F(Whole_guide_test, a_locked_file_is_read_again_before_anything_is_compared) {
  three_events();
  const Texts before = guide();
  begin();  // as after a restart
  {
    support::Other_connection other(guide_file());
    ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), 101);
    EXPECT_EQ(messages_at(1,
                          [&] {
                            arrive({.version = 1}, {{4, 600, 60, "New"}});
                          }),
              "ERROR: The guide of channel 1 is not stored: database is locked\n");
    usleep(1100 * 1000);
    EXPECT_EQ(messages_at(1, [&] { arrive({.version = 1}, {{4, 600, 60, "New"}}); }), "");
    EXPECT_EQ(told(), Texts{});
    EXPECT_EQ(other.run("COMMIT"), 101);
  }
  EXPECT_EQ(guide(), before);
  usleep(1100 * 1000);
  EXPECT_EQ(messages_at(1, [&] { arrive({.version = 1}, {{4, 600, 60, "New"}}); }), "");
  EXPECT_EQ(guide(), (Texts{"1 4 600+60 New", "1 2 660+90 Film", "1 3 750+30 Talk"}));
}

TEST_F(Whole_guide_test, a_lock_that_ends_during_the_wait_is_no_failure) {
  three_events();
  begin();  // as after a restart
  support::Other_connection other(guide_file());
  ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), 101);
  at_wait = [&] { EXPECT_EQ(other.run("COMMIT"), 101); };
  EXPECT_EQ(messages_at(1, [&] { arrive({.version = 1}, {{4, 600, 60, "New"}}); }), "");
  EXPECT_FALSE(at_wait) << "nothing was waited for";
  Database_error error;
  EXPECT_FALSE(db.first_error(&error)) << error.operation << " " << error.code;
  EXPECT_EQ(guide(), (Texts{"1 4 600+60 New", "1 2 660+90 Film", "1 3 750+30 Talk"}));
}

// --- Services --------------------------------------------------------------------------------------------------------

TEST_F(Whole_guide_test, services_of_every_type_have_their_guide) {
  for (const int type : {2, 10, 25, 31, 0})
    insert(100 + type, 256, 257, "Another", type);
  begin();
  Texts expected;
  for (const int type : {2, 10, 25, 31, 0}) {
    arrive({.service = 100 + type}, {{1, 600, 60, "Show"}});
    expected.push_back(std::to_string(100 + type) + " 1 600+60 Show");
  }
  EXPECT_EQ(guide(), expected);
}

TEST_F(Whole_guide_test, sections_wait_for_the_services_that_a_scan_finds) {
  run("DELETE FROM kanalid");
  begin();
  arrive({.service = 5}, {{1, 600, 60, "Show"}});
  EXPECT_EQ(guide(), Texts{});
  EXPECT_EQ(progress().size(), 0U);
  insert(5, 256, 257, "Found", 2);
  parser.parts().guide_reader().scan_ended(FREQ, true);
  EXPECT_EQ(progress().size(), 1U);
  EXPECT_FALSE(progress()[0].done);
  EXPECT_EQ(guide(), Texts{}) << "who waits for the scan's end does not wait for this";
  parser.parts().guide_reader().catch_up();
  EXPECT_EQ(guide(), Texts{"5 1 600+60 Show"});
  EXPECT_EQ(told(), Texts{"added 1@600"});
}

TEST_F(Whole_guide_test, the_guide_of_other_multiplexes_is_left_alone) {
  run("UPDATE kanalid SET freq = 1, orig_network_id = 32, tstream_id = 7");
  begin();
  EXPECT_EQ(messages_at(1, [&] { arrive({.table = NOW_OTHER, .ts_id = 7}, {{1, 600, 60, "Show"}}); }), "");
  EXPECT_EQ(guide(), Texts{});
}

class Other_guides_test : public Whole_guide_test {
 protected:
  Other_guides_test() : Whole_guide_test(true) {}
};

TEST_F(Other_guides_test, are_stored_where_they_are_asked_for_and_the_actual_one_wins) {
  run("UPDATE kanalid SET orig_network_id = 32, tstream_id = " + std::to_string(TS_ID));
  run("INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, orig_network_id, tstream_id) VALUES (1, 3, 7, 1, 32, 7)");
  begin();
  arrive({.table = NOW_OTHER, .ts_id = 7}, {{1, 600, 60, "There"}});
  arrive({.table = table::EIT_SCHEDULE_OTHER_FIRST, .ts_id = 7}, {{2, 700, 60, "There, too"}});
  arrive({.table = NOW_OTHER, .ts_id = 8}, {{3, 600, 60, "Nowhere"}});
  arrive({.table = NOW_OTHER, .ts_id = TS_ID}, {{4, 600, 60, "Wrong"}});
  arrive({}, {{5, 600, 60, "Here"}});
  EXPECT_EQ(rows("SELECT channel, ev_id FROM epglist ORDER BY 1, 2"), (Texts{"1|5", "2|1", "2|2"}));
}

TEST_F(Other_guides_test, leave_alone_what_the_multiplex_itself_said_another_day) {
  run("UPDATE kanalid SET orig_network_id = 32, tstream_id = " + std::to_string(TS_ID));
  run("INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, orig_network_id, tstream_id) VALUES (1, 3, 7, 1, 32, 7)");
  begin();
  arrive({}, {{9, 600, 60, "makes the tables"}});
  const auto stored = [&](int id, int minute, int table) {
    run("INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (2, " + std::to_string(id) + ", " +
        std::to_string(MIDNIGHT + 60 * minute) + ", 1800)");
    if (table != 0)
      run("INSERT INTO event_detail (entry, table_id, digest) VALUES (last_insert_rowid(), " + std::to_string(table) +
          ", 5)");
  };
  stored(1, 600, 0);  // by a reader that looks at no other multiplex
  stored(2, 660, NOW_TABLE);
  stored(3, 720, SCHEDULE);
  stored(4, 780, NOW_OTHER);
  stored(5, 840, table::EIT_SCHEDULE_OTHER_FIRST);
  const int other = table::EIT_SCHEDULE_OTHER_FIRST;
  arrive(
      {.table = other, .ts_id = 7},
      {{21, 600, 30, ""}, {22, 650, 11, ""}, {23, 689, 40, ""}, {3, 730, 5, ""}, {24, 750, 40, ""}, {25, 790, 30, ""}});
  arrive({.table = NOW_OTHER, .ts_id = 7}, {});
  EXPECT_EQ(rows("SELECT ev_id, (start_epoch - " + std::to_string(MIDNIGHT) +
                 ") / 60 FROM epglist WHERE channel = 2 ORDER BY start_epoch"),
            (Texts{"1|600", "2|660", "3|720", "24|750", "25|790"}))
      << "between its events there is room, and what another multiplex said gives way";
}

// --- What cannot be --------------------------------------------------------------------------------------------------

TEST_F(Whole_guide_test, events_without_a_time_and_broken_sections_are_left_out) {
  const auto event_at = [](unsigned mjd, unsigned hms, unsigned duration) {
    return join({u16(9), u16(mjd), u24(hms), u24(duration), status_loop(0, 0, {})});
  };
  const auto section_of = [](int version, const Bytes& events) {
    return section(SCHEDULE, 1, join({u16(TS_ID), u16(NETWORK), {0, SCHEDULE}, events}), 0, 0,
                   static_cast<uint8_t>(version));
  };
  const struct {
    const char* legend;
    Bytes events;
    Texts expected;
  } cases[] = {
      {"a reference event", event_at(0xFFFF, 0xFFFFFF, 0x003000), {}},
      {"digits that are none", event_at(DAY, 0x1A0000, 0x003000), {}},
      {"hour 24", event_at(DAY, 0x240000, 0x003000), {}},
      {"before 1970", event_at(40586, 0x100000, 0x003000), {}},
      {"behind 32 bits", event_at(0xFFFE, 0x100000, 0x003000), {}},
      {"longer than a day", event_at(DAY, 0x100000, 0x300000), {"1 9 600+1800"}},
      {"no duration", event_at(DAY, 0x100000, 0xFFFFFF), {"1 9 600+0"}},
      {"the last one cut", join({event_at(DAY, 0x100000, 0x003000), {1, 2, 3}}), {"1 9 600+30"}},
      {"two at one time", join({event_at(DAY, 0x100000, 0x003000), event_at(DAY, 0x100000, 0x010000)}), {"1 9 600+30"}},
  };
  int version = 0;
  for (const auto& c : cases) {
    arrive(section_of(++version, c.events));
    EXPECT_EQ(guide(), c.expected) << c.legend;
  }
  const Bytes good = guide_section({.version = 30}, {{1, 600, 60, "News"}});
  for (size_t size = 0; size < 18; ++size) {
    Bytes cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
    cut.resize(std::max<size_t>(size, 3));
    cut[1] = 0xF0;
    cut[2] = static_cast<uint8_t>(cut.size() - 3);
    arrive(cut);
  }
  arrive(next_of(good));
  EXPECT_EQ(guide(), Texts{"1 9 600+30"}) << "cut, or only valid later";
}

// What is left of it is stored by the same rules, and nothing outside a section is read.
TEST_F(Whole_guide_test, sections_with_wrong_bytes_do_no_harm) {
  const Bytes more = join({descriptor(tag::COMPONENT, join({{0xF1, 0x03, 0x11}, bytes("eng"), bytes("wide")})),
                           descriptor(tag::CONTENT_IDENTIFIER, join({{0x04}, sized("/E1"), {0x08}, sized("/S1")})),
                           descriptor(tag::PARENTAL_RATING, join({bytes("EST"), {9}}))});
  unsigned seed = 1;
  const auto random = [&](size_t below) {
    seed = seed * 1103515245 + 12345;
    return (seed >> 16) % below;
  };
  for (int i = 0; i < 300; ++i) {
    Bytes section = guide_section({.table = random(2) == 0 ? NOW_TABLE : SCHEDULE, .version = i % 32},
                                  {{1, 600, 60, "News", 0, more}, {2, 660, 60, "Film", 0, more}});
    for (size_t wrong = 1 + random(4); wrong > 0; --wrong)
      section[3 + random(section.size() - 7)] = static_cast<uint8_t>(random(256));
    section.resize(section.size() - 4);
    arrive(support::with_crc(section));
  }
  EXPECT_EQ(rows("PRAGMA epg_db.integrity_check"), Texts{"ok"});
  EXPECT_EQ(rows("SELECT channel, start_epoch FROM epglist GROUP BY 1, 2 HAVING count(*) > 1"), Texts{});
  EXPECT_EQ(rows("SELECT count(*) FROM event_component WHERE entry NOT IN (SELECT entry FROM epglist)"), Texts{"0"});
}

// --- The added tables ------------------------------------------------------------------------------------------------

TEST_F(Whole_guide_test, details_stand_in_tables_of_their_own) {
  const auto extended = [](const std::string& name, const std::string& value) {
    const Bytes items = join({sized(name), sized(value)});
    return descriptor(tag::EXTENDED_EVENT,
                      join({{0x00}, bytes("eng"), sized(std::string(items.begin(), items.end())), {0}}));
  };
  const Bytes all = join({
      descriptor(tag::COMPONENT, join({{0xF1, 0x03, 0x11}, bytes("eng"), bytes("wide")})),
      descriptor(tag::COMPONENT, join({{0x02, 0x03, 0x12}, bytes("qaa")})),
      descriptor(tag::COMPONENT, {0x01}),
      descriptor(tag::CONTENT, {0x14, 0x00, 0x20, 0x5A}),
      descriptor(tag::PARENTAL_RATING, join({bytes("EST"), {9}, bytes("FIN"), {0x10}, bytes("cu")})),
      descriptor(tag::CONTENT_IDENTIFIER,
                 join({{0x01 << 2}, sized("/E1"), {0x02 << 2}, sized("/S1"), {0x31 << 2}, sized("/E2")})),
      extended("Director", "Somebody"),
  });
  arrive({.version = 5}, {{1, 600, 60, "A", 0, all}});
  EXPECT_EQ(rows("SELECT table_id, version, original_network_id, tstream_id, series_crid, programme_crid, "
                 "running_status, running_since FROM event_detail"),
            Texts{"80|5|32|" + std::to_string(TS_ID) + "|/S1|/E1|0|0"});
  EXPECT_EQ(rows("SELECT tag, stream_content, stream_content_ext, component_type, lang, text FROM event_component"),
            (Texts{"17|1|15|3|eng|wide", "18|2|0|3|qaa|"}));
  EXPECT_EQ(rows("SELECT country, rating FROM event_rating"), (Texts{"EST|9", "FIN|16"}));
  EXPECT_EQ(rows("SELECT level1, level2, user FROM event_genre"), (Texts{"1|4|0", "2|0|90"}));
  EXPECT_EQ(rows("SELECT lang, position, name, value FROM event_item"), Texts{"eng|0|Director|Somebody"});
  EXPECT_EQ(texts(), Texts{"A"}) << "short titles count";
  // A later version says less: nothing of the older one stays.
  const Bytes less = join({descriptor(tag::PARENTAL_RATING, join({bytes("LVA"), {4}})), extended("Cast", "Others")});
  arrive({.version = 6}, {{1, 600, 60, "B", 0, less}});
  EXPECT_EQ(rows("SELECT version, series_crid, programme_crid FROM event_detail"), Texts{"6||"});
  EXPECT_EQ(rows("SELECT country, rating FROM event_rating"), Texts{"LVA|4"});
  EXPECT_EQ(rows("SELECT position, name, value FROM event_item"), Texts{"0|Cast|Others"});
  EXPECT_EQ(rows("SELECT (SELECT count(*) FROM event_component), (SELECT count(*) FROM event_genre)"), Texts{"0|0"});
  arrive({.version = 7}, {{1, 600, 60, "C"}});
  EXPECT_EQ(rows("SELECT (SELECT count(*) FROM event_item), (SELECT count(*) FROM event_rating)"), Texts{"0|0"});
  arrive({.version = 8}, {{1, 600, 60, "D", 0, all}});
  EXPECT_EQ(rows("SELECT (SELECT count(*) FROM event_item), (SELECT count(*) FROM event_component), (SELECT count(*) "
                 "FROM event_rating), (SELECT count(*) FROM event_genre)"),
            Texts{"1|2|2|2"});
  run("DELETE FROM epglist");
  for (const char* name : {"event_detail", "event_item", "event_component", "event_rating", "event_genre"})
    EXPECT_EQ(number("SELECT count(*) FROM " + std::string(name)), 0) << name;
}

TEST_F(Whole_guide_test, a_purge_takes_the_details_along_and_leaves_those_of_others) {
  const auto details = [](const std::string& crid, const char* country) {
    return join({descriptor(tag::COMPONENT, join({{0xF1, 0x03, 0x11}, bytes("eng"), bytes("wide")})),
                 descriptor(tag::CONTENT, {0x14, 0x00}), descriptor(tag::PARENTAL_RATING, join({bytes(country), {9}})),
                 descriptor(tag::CONTENT_IDENTIFIER, join({{0x01 << 2}, sized(crid)})),
                 descriptor(tag::EXTENDED_EVENT, join({{0x00}, bytes("eng"), {5, 1, 'D', 2, 'M', 'e', 0}}))});
  };
  arrive({}, {{1, 600, 60, "Old", 0, details("/1", "EST")}, {2, 660, 60, "New", 0, details("/2", "FIN")}});
  const auto left = [&] {
    Texts all;
    for (const char* query :
         {"SELECT entry FROM epglist", "SELECT source_oid FROM epglist_lang", "SELECT entry FROM event_detail",
          "SELECT entry FROM event_item", "SELECT entry FROM event_component", "SELECT entry FROM event_rating",
          "SELECT entry FROM event_genre"}) {
      std::string line;
      for (const std::string& row : rows(query))
        line += row + " ";
      all.push_back(line);
    }
    return all;
  };
  EXPECT_EQ(left(), Texts(7, "1 2 "));
  run("UPDATE epglist SET start_epoch = 1000000 WHERE ev_id = 1");
  EXPECT_EQ(db.remove_old_entries(86400, false), 2) << "the event and its text";
  EXPECT_EQ(left(), Texts(7, "2 "));
  EXPECT_EQ(rows("SELECT programme_crid, (SELECT country FROM event_rating) FROM event_detail"), Texts{"/2|FIN"});
  // It is stored once more when its section says something new, with everything.
  begin();
  arrive({.version = 1}, {{1, 600, 60, "Old", 0, details("/1", "EST")}, {2, 660, 60, "New", 0, details("/2", "FIN")}});
  EXPECT_EQ(rows("SELECT ev_id FROM epglist JOIN event_detail USING (entry) JOIN event_item USING (entry) JOIN "
                 "event_component USING (entry) JOIN event_rating USING (entry) JOIN event_genre USING (entry) ORDER "
                 "BY ev_id"),
            (Texts{"1", "2"}));
}

TEST_F(Parser_test, table_by_table_makes_no_added_tables) {
  insert(1, 256, 257);
  parser.init_cache_list(FREQ, SCAN_EIT);
  parser.start_eit_scan(FREQ, SCAN_EIT);
  scan(eit(1, NOW_TABLE, {{1, 0x120000}}));
  scan(eit(1, NOW_TABLE, {{1, 0x120000}}));
  EXPECT_EQ(rows("SELECT count(*) FROM epglist"), Texts{"1"});
  EXPECT_EQ(rows("SELECT name FROM epg_db.sqlite_master WHERE name LIKE 'event%'"), Texts{});
}

// --- What is complete ------------------------------------------------------------------------------------------------

class Guide_state_test : public testing::Test {
 protected:
  Guide_state_test() { guide_.started(0); }
  Whole_guide::Take take(int ms, const Part& part, const std::vector<Show>& shows = {{1, 600, 60, "Show"}}) {
    const Bytes bytes = guide_section(part, shows);
    return guide_.take(bytes.data(), bytes.size(), ms, &key_);
  }
  // "3/4 complete"
  std::string state() const {
    const Whole_guide::Progress p = guide_.progress(key_);
    return std::to_string(p.sections) + "/" + std::to_string(p.sections_of) + (p.complete ? " complete" : "") +
           (p.given_up ? " with gaps" : "") + (p.absent ? " absent" : "");
  }
  Whole_guide guide_;
  Guide_key key_{false, 0, 0, 1};
};

TEST_F(Guide_state_test, is_complete_with_the_last_section_of_each_segment_and_table) {
  guide_.expect(1, true, true);
  EXPECT_EQ(state(), "0/0 absent");
  take(100, {.table = NOW_TABLE, .last = 1});
  EXPECT_EQ(state(), "1/2 absent");
  take(200, {.table = NOW_TABLE, .number = 1, .last = 1});
  EXPECT_EQ(state(), "2/2 absent");
  take(300, {.number = 0, .last = 16, .segment_last = 1, .last_table = SCHEDULE + 1}, {});
  EXPECT_EQ(state(), "3/7 absent") << "two segments and a table have not begun";
  take(400, {.number = 1, .last = 16, .segment_last = 1, .last_table = SCHEDULE + 1}, {});
  take(500, {.number = 16, .last = 16, .segment_last = 16, .last_table = SCHEDULE + 1}, {});
  take(600, {.number = 8, .last = 16, .segment_last = 8, .last_table = SCHEDULE + 1}, {});
  EXPECT_EQ(state(), "6/7 absent");
  EXPECT_EQ(guide_.absent_from_ms(), 300 + Whole_guide::ABSENT_MS) << "since the second table was announced";
  take(700, {.table = SCHEDULE + 1}, {});
  EXPECT_EQ(state(), "7/7 complete");
  EXPECT_EQ(guide_.progress(key_).complete_ms, 700);
  take(30700, {.table = SCHEDULE + 1}, {});
  take(31000, {.table = NOW_TABLE, .last = 1});
  EXPECT_EQ(guide_.progress(key_).carousel_ms, 30900);
  EXPECT_EQ(guide_.progress(key_).slowest_table, NOW_TABLE);
  take(40000, {.version = 1, .number = 0, .last = 16, .segment_last = 1, .last_table = SCHEDULE + 1}, {});
  EXPECT_EQ(state(), "4/7") << "what was of the older version is waited for";
  take(41000, {.number = 8, .last = 16, .segment_last = 8, .last_table = SCHEDULE + 1}, {});
  EXPECT_EQ(state(), "5/7") << "or has to come again";
}

TEST_F(Guide_state_test, what_is_past_by_present_and_following_is_waited_for_until_something_comes_again) {
  const auto schedule = [&](int ms, int number, int minute) {
    take(ms, {.number = number, .last = 24, .segment_last = number / 8 * 8}, {{number, minute, 30}});
  };
  schedule(0, 16, 400);
  schedule(100, 24, 600);
  take(200, {.table = NOW_TABLE, .number = 0, .last = 1}, {{16, 400, 30}});
  take(200, {.table = NOW_TABLE, .number = 1, .last = 1}, {{17, 430, 30}});
  EXPECT_EQ(state(), "4/6");
  Guide_key other;
  const Bytes section = guide_section({.service = 2}, {});
  for (const int ms : {300, 5000})
    guide_.take(section.data(), section.size(), ms, &other);
  EXPECT_EQ(state(), "4/6 complete") << "another service's table has come round";
  EXPECT_EQ(guide_.progress(key_).complete_ms, 5000);
  std::vector<Guide_key> shrunk;
  EXPECT_TRUE(guide_.take_news(&shrunk));
  EXPECT_EQ(shrunk, std::vector<Guide_key>{key_}) << "what is stored beside it may go";
}

TEST_F(Guide_state_test, present_and_following_tell_what_is_past_whenever_they_come) {
  const struct {
    const char* legend;
    std::vector<Show> now;
    const char* expected;
  } cases[] = {
      {"the second segment has what follows", {{1, 380, 20}, {16, 400, 30}}, "3/4 complete"},
      {"the end of the present one is known", {{1, 380, 20}}, "3/4 complete"},
      {"what follows comes before the second segment", {{1, 300, 50}, {2, 350, 50}}, "3/4"},
      {"nothing is on", {}, "3/4"},
      {"the third segment has begun", {{1, 600, 20}, {2, 700, 20}}, "3/4 complete"},
  };
  for (const auto& c : cases) {
    guide_.clear();
    guide_.started(0);
    for (const int ms : {0, 1000})
      take(ms, {.number = 16, .last = 16, .segment_last = 16}, {{17, 600, 30}});
    take(1200, {.number = 8, .last = 16, .segment_last = 8}, {{16, 400, 30}});
    take(1300, {.table = NOW_TABLE}, c.now);
    EXPECT_EQ(state(), c.expected) << c.legend;
  }
  // A section that is missing behind what is on now.
  guide_.clear();
  guide_.started(0);
  take(0, {.table = NOW_TABLE}, {{1, 380, 20}, {16, 400, 30}});
  for (const int ms : {0, 1000})
    take(ms, {.number = 8, .last = 16, .segment_last = 8}, {{16, 400, 30}});
  EXPECT_EQ(state(), "2/4");
}

TEST_F(Guide_state_test, the_past_is_waited_for_once_round_and_gaps_twice) {
  const auto round = [&](int ms) {
    for (const int number : {16, 17, 24})
      take(ms, {.number = number, .last = 24, .segment_last = number | 1});
  };
  round(0);
  EXPECT_EQ(state(), "3/6 absent");
  take(0, {.table = NOW_TABLE}, {});
  EXPECT_EQ(state(), "4/7") << "two segments of the past, and section 25";
  round(1000);
  round(2000);
  EXPECT_EQ(state(), "4/7 complete with gaps");
  take(3000, {.number = 25, .last = 25, .segment_last = 25});
  EXPECT_EQ(state(), "5/7");
  round(3500);
  take(4000, {.number = 25, .last = 25, .segment_last = 25});
  EXPECT_EQ(state(), "5/7 complete") << "all but the past";
}

TEST_F(Guide_state_test, a_service_that_sends_nothing_is_complete_when_it_says_so) {
  guide_.expect(1, false, false);
  EXPECT_EQ(state(), "0/0 complete");
  guide_.expect(1, true, false);
  EXPECT_EQ(state(), "0/0 absent");
  take(0, {.table = NOW_TABLE});
  EXPECT_EQ(state(), "1/1 complete");
}

TEST_F(Guide_state_test, takes_new_versions_and_repetitions_apart) {
  EXPECT_EQ(take(0, {}), Whole_guide::Take::NEW);
  EXPECT_EQ(take(1, {}), Whole_guide::Take::REPEATED);
  EXPECT_EQ(take(2, {}, {}), Whole_guide::Take::NEW) << "another CRC";
  EXPECT_EQ(take(3, {.version = 1}, {}), Whole_guide::Take::NEW);
  EXPECT_EQ(take(4, {.number = 2, .last = 1}), Whole_guide::Take::IGNORED);
  EXPECT_EQ(take(5, {.table = table::TDT}), Whole_guide::Take::IGNORED);
}

TEST(Guide_memory, beyond_its_bound_only_times_are_held_and_then_nothing) {
  Whole_guide guide(3000);
  guide.started(0);
  Guide_key key;
  int held = 0;
  int taken = 0;
  for (int number = 0; number < 30; ++number) {
    const Bytes bytes = guide_section({.number = number, .last = 40}, {{number, number * 10, 10, "A title"}});
    taken += guide.take(bytes.data(), bytes.size(), 0, &key) == Whole_guide::Take::NEW ? 1 : 0;
    held += guide.section(key, SCHEDULE, number).empty() ? 0 : 1;
  }
  EXPECT_GT(held, 0);
  EXPECT_GT(taken, held);
  EXPECT_LT(taken, 30);
  EXPECT_EQ(guide.events(key).size(), static_cast<size_t>(taken));
}

// --- What is visible -------------------------------------------------------------------------------------------------

TEST(Visible_events, follow_the_order_of_tables_and_not_that_of_arrival) {
  const auto now = [](int section, int id, int start, int duration) {
    return Event_heard{true, false, NOW_TABLE, section, 0, id, start, duration, 0};
  };
  const auto later = [](int table, int section, int id, int start, int duration, bool outdated = false) {
    return Event_heard{false, outdated, table, section, 0, id, start, duration, 0};
  };
  const struct {
    const char* legend;
    std::vector<Event_heard> heard;
    std::vector<int> shown;  // ids
  } cases[] = {
      {"nothing", {}, {}},
      {"in the order of starts", {later(0x50, 1, 2, 20, 5), later(0x50, 0, 1, 30, 5)}, {2, 1}},
      {"the lower table counts", {later(0x51, 0, 2, 10, 5), later(0x50, 3, 1, 10, 5)}, {1}},
      {"the lower section counts", {later(0x50, 4, 2, 10, 5), later(0x50, 3, 1, 10, 9)}, {1}},
      {"what is not outdated counts before lower tables",
       {later(0x50, 0, 1, 10, 5, true), later(0x51, 0, 2, 10, 5)},
       {2}},
      {"those that overlap are both on air", {later(0x50, 0, 1, 10, 10), later(0x50, 0, 2, 15, 10)}, {1, 2}},
      {"now hides its own and what it overlaps",
       {now(0, 1, 12, 10), later(0x50, 0, 1, 10, 10), later(0x50, 0, 2, 20, 10), later(0x50, 0, 3, 22, 5)},
       {1, 3}},
      {"now without a duration hides what begins with it", {now(0, 1, 12, 0), later(0x50, 0, 2, 12, 10)}, {1}},
      {"and what runs then", {now(0, 1, 12, 0), later(0x50, 0, 2, 10, 10), later(0x50, 0, 3, 2, 10)}, {3, 1}},
      {"the present one comes before the following", {now(1, 2, 10, 5), now(0, 1, 10, 5)}, {1}},
      {"each id once", {now(0, 1, 10, 5), now(1, 1, 20, 5)}, {1}},
      {"what is outdated gives way within its table",
       {later(0x50, 0, 1, 10, 10, true), later(0x50, 1, 2, 15, 10), later(0x50, 2, 3, 30, 5, true),
        later(0x50, 3, 3, 50, 5), later(0x51, 0, 4, 70, 5, true), later(0x50, 4, 4, 90, 5)},
       {2, 3, 4, 4}},
  };
  for (const auto& c : cases) {
    std::vector<Event_heard> heard = c.heard;
    for (int turn = 0; turn < 3; ++turn) {
      std::vector<int> shown;
      const std::vector<Event_shown> events = visible_events(heard);
      for (const Event_shown& event : events)
        shown.push_back(event.event->event_id);
      EXPECT_EQ(shown, c.shown) << c.legend;
      std::rotate(heard.begin(), heard.begin() + (heard.empty() ? 0 : 1), heard.end());
    }
  }
}

}  // namespace
