// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// The round of the guide by itself: who is waited for, in which table, and what hosts see of it.
#include "si/guide_round.h"

#include "si/recorded_clock.h"
#include "si/si_support.h"

using namespace si_support;

namespace {

constexpr int PRESENT_FOLLOWING = table::EIT_PRESENT_FOLLOWING, TABLE = table::EIT_SCHEDULE_FIRST;
constexpr char NOTHING[] = "";

class Guide_round_test : public testing::Test {
 protected:
  Guide_round_test() {
    db.run(
        "INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, pmt_pid, pcr_pid, serv_type, serv_name) VALUES "
        "(1, 3, 506000000, 1, 256, 257, 1, 'First'), (1, 3, 506000000, 2, 512, 513, 1, 'Second'), "
        "(3, 1, 506000000, 7, 512, 513, 1, 'Of another input'), (1, 3, 514000000, 8, 512, 513, 1, 'Elsewhere')");
    round.load(FREQ, SCAN_EIT);
    round.start();
    round.enter(TABLE);
  }
  ~Guide_round_test() override { recorded_clock = {}; }

  // What an event prints at `level`, and whether it finished the table.
  std::string event(int service, bool last_section, int level = -1, int table = TABLE) {
    return messages_at(level, [&] { entry = round.event_arrived(service, table, FREQ, last_section, &all_done); });
  }
  // The last section, as often as it takes.
  void finish(int service) {
    for (int i = 0; i < 3; ++i)
      event(service, true);
  }
  // How the service met last stands: "active/done count scan_mark".
  std::string state() const {
    return formatted("%d/%d %d %d", entry->active, entry->done, entry->count, entry->scan_mark);
  }
  Texts shown() const {
    std::vector<EIT_progress> progress;
    round.progress(&progress);
    return si_support::shown(progress);
  }

  const support::Verbosity quiet{-1};
  support::Database db;
  Guide_round round{*db, 0, Input{Connector{3}, Delivery{1}}};
  SQL_cache* entry = nullptr;
  bool all_done = false;
};

TEST_F(Guide_round_test, lists_the_services_of_this_input_and_frequency) {
  ASSERT_EQ(round.services().size(), 2u);
  const SQL_cache& second = round.services()[1];
  EXPECT_EQ(formatted("%d %d %d", second.pat_prnr, second.pmt_pid, second.scan_mark), "2 512 -1");
  EXPECT_EQ(round.service(2), &second);
  EXPECT_EQ(round.service(7), nullptr);
}

TEST_F(Guide_round_test, names_services_of_this_input) {
  db.run("INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, serv_name) VALUES (3, 1, 506000000, 1, 'Wrong')");
  EXPECT_EQ(event(1, false, 1), "****+ Started table 50 scan 1 First\n");
}

TEST_F(Guide_round_test, a_database_that_fails_leaves_an_empty_list) {
  db.run("ALTER TABLE kanalid RENAME TO gone");
  round.load(FREQ, SCAN_EIT);
  EXPECT_TRUE(round.services().empty());
  EXPECT_EQ(shown(), Texts{});
}

TEST_F(Guide_round_test, an_empty_list_is_done_at_the_first_event) {
  round.load(FREQ + 8000000 * 3, SCAN_EIT);
  EXPECT_EQ(event(1, false, 3), NOTHING);
  EXPECT_EQ(entry, nullptr);
  EXPECT_TRUE(all_done);
  EXPECT_FALSE(round.seen_once()) << "that is the table's end only";
}

TEST_F(Guide_round_test, counts_neither_the_section_that_starts_a_service_nor_one_of_a_service_that_is_done) {
  for (const char* stands : {"0/0 0 -1", "0/0 1 -1", "0/1 2 -1", "0/1 2 -1"}) {
    event(1, true);
    EXPECT_EQ(state(), stands);
  }
}

TEST_F(Guide_round_test, the_last_sections_of_schedules_are_flushed_those_of_present_and_following_are_not) {
  event(1, true);
  EXPECT_EQ(event(1, false, 3), NOTHING);
  EXPECT_EQ(event(1, true, 3), "Flushing\n");
  round.enter(PRESENT_FOLLOWING);
  EXPECT_EQ(event(1, true, 3, PRESENT_FOLLOWING), "****-  Finished table 4e scan 1 First\n");
}

TEST_F(Guide_round_test, the_guide_is_seen_when_all_are_done_and_until_the_next_start) {
  finish(1);
  finish(2);
  EXPECT_FALSE(all_done) << "it is looked at before the section is counted";
  EXPECT_FALSE(round.seen_once());
  event(2, false);
  EXPECT_TRUE(all_done);
  EXPECT_TRUE(round.seen_once());
  round.start();
  EXPECT_FALSE(round.seen_once());
  EXPECT_EQ(round.table(), PRESENT_FOLLOWING);
}

TEST_F(Guide_round_test, closing_present_and_following_is_seeing_the_guide) {
  round.close_table();
  EXPECT_FALSE(round.seen_once());
  round.enter(PRESENT_FOLLOWING);
  round.close_table();
  EXPECT_TRUE(round.seen_once());
}

// --- Giving up -------------------------------------------------------------------------------------------------------

TEST_F(Guide_round_test, those_given_up_are_flushed_done_and_no_longer_active) {
  recorded_clock.timers_expired = true;
  EXPECT_EQ(event(1, false, 3), "Flushing\nFlushing\n");
  EXPECT_TRUE(all_done);
  round.publish_changes();
  EXPECT_EQ(shown(), (Texts{"1/1 50/0 0/1 0", "2/2 50/0 0/1 0"}));
  recorded_clock.timers_expired = false;
  EXPECT_EQ(event(2, false, 3), NOTHING) << "it has not been started by this section";
  EXPECT_EQ(state(), "0/1 0 -1");
}

// Timers are read when the first one is due, not for each event.
TEST_F(Guide_round_test, gives_up_in_the_last_second_of_the_wait) {
  event(1, false);
  recorded_clock.ahead = 6;
  EXPECT_EQ(event(1, false, 1), NOTHING);
  recorded_clock.ahead = 9;
  EXPECT_EQ(event(1, false, 1),
            "Kill scan for service 1 , First table 50, ttl 180\nKill scan for service 2 , First table 50, ttl 180\n");
}

TEST_F(Guide_round_test, who_is_done_is_not_given_up) {
  finish(1);
  recorded_clock.timers_expired = true;
  EXPECT_EQ(event(1, false, 1), "Kill scan for service 2 , First table 50, ttl 180\n");
}

TEST_F(Guide_round_test, without_a_timer_a_service_is_given_up_at_once) {
  recorded_clock.timers_refused = true;
  EXPECT_EQ(messages_at(0, [&] { round.load(FREQ, SCAN_EIT); }),
            "ERROR: timer_create: Resource temporarily unavailable\n"
            "ERROR: timer_create: Resource temporarily unavailable\n");
  recorded_clock.timers_refused = false;
  event(1, false);
  EXPECT_TRUE(all_done);
}

// Of a list, a table and a new round: how long each service is waited for, in seconds.
TEST_F(Guide_round_test, waits_ten_seconds_at_first_and_180_in_later_tables) {
  recorded_clock.take_armed();
  round.load(FREQ, SCAN_EIT);
  EXPECT_EQ(recorded_clock.take_armed(), (std::vector<Seconds>{{10, 10}, {10, 10}}));
  round.close_table();
  EXPECT_EQ(recorded_clock.take_armed(), (std::vector<Seconds>{{180, 180}, {180, 180}}));
  round.begin_again();
  EXPECT_EQ(recorded_clock.take_armed(), (std::vector<Seconds>{{10, 10}, {10, 10}}));
  round.start();
  event(1, true);
  EXPECT_EQ(recorded_clock.take_armed(), std::vector<Seconds>{});
}

// --- Lost sections ---------------------------------------------------------------------------------------------------

TEST_F(Guide_round_test, after_a_loss_nobody_is_done_until_the_last_section_has_come_twice_again) {
  finish(1);
  event(2, true);
  event(2, true);
  EXPECT_EQ(state(), "0/0 1 -1");
  round.sections_lost();
  round.publish_changes();
  EXPECT_EQ(shown(), (Texts{"1/1 50/0 0/0 0", "2/2 50/0 0/0 0"}));
  event(1, true);
  EXPECT_EQ(state(), "0/0 1 -1") << "it has been started before";
  event(2, true);
  event(2, true);
  EXPECT_EQ(state(), "0/1 2 -1");
  EXPECT_FALSE(all_done);
  EXPECT_EQ(event(1, true, 1), "****-  Finished table 50 scan 1 First\n");
  event(1, false);
  EXPECT_TRUE(all_done);
}

TEST_F(Guide_round_test, who_has_not_been_heard_of_before_a_loss_still_has_to_begin) {
  round.sections_lost();
  for (const char* stands : {"0/0 0 -1", "0/0 1 -1", "0/1 2 -1"}) {
    event(1, true);
    EXPECT_EQ(state(), stands);
  }
}

TEST_F(Guide_round_test, who_was_given_up_before_a_loss_stays_so) {
  finish(1);
  recorded_clock.timers_expired = true;
  event(1, false);
  recorded_clock.timers_expired = false;
  EXPECT_TRUE(all_done);
  round.sections_lost();
  event(2, true);
  EXPECT_EQ(state(), "0/1 0 -1");
  EXPECT_FALSE(all_done);
  finish(1);
  event(1, false);
  EXPECT_TRUE(all_done);
}

TEST_F(Guide_round_test, a_loss_is_waited_for_as_long_as_the_table_was_and_three_times_in_each) {
  recorded_clock.take_armed();
  const auto armed_by_loss = [this] {
    round.sections_lost();
    return recorded_clock.take_armed();
  };
  const std::vector<Seconds> long_wait{{180, 180}, {180, 180}};
  for (const int table : {TABLE, TABLE + 1}) {
    round.enter(table);
    for (int i = 0; i < 3; ++i)
      EXPECT_EQ(armed_by_loss(), long_wait);
    EXPECT_EQ(armed_by_loss(), std::vector<Seconds>{});
  }
  round.start();
  EXPECT_EQ(armed_by_loss(), (std::vector<Seconds>{{10, 10}, {10, 10}}));
}

TEST_F(Guide_round_test, losses_without_end_are_ended_by_the_timers) {
  for (int i = 0; i < 10; ++i) {
    event(1, true);
    event(2, true);
    round.sections_lost();
  }
  recorded_clock.ahead = 179;
  event(1, true);
  EXPECT_TRUE(all_done);
}

// --- Beginning again -------------------------------------------------------------------------------------------------

TEST_F(Guide_round_test, closing_a_table_waits_for_everybody_again_and_beginning_again_forgets_the_pmt_versions_too) {
  round.service(1)->scan_mark = 7;
  finish(1);
  round.close_table();
  EXPECT_EQ(state(), "1/0 0 7");
  finish(1);
  round.begin_again();
  EXPECT_EQ(state(), "1/0 0 -1");
  EXPECT_EQ(round.table(), TABLE);
}

// --- Progress --------------------------------------------------------------------------------------------------------

TEST_F(Guide_round_test, progress_is_shown_when_it_is_published) {
  event(1, true);
  round.note_last_table(2, TABLE + 1);
  round.count_stored(1);
  EXPECT_EQ(shown(), (Texts{"1/1 50/0 1/0 0", "2/2 50/0 1/0 0"}));
  round.publish_changes();
  EXPECT_EQ(shown(), (Texts{"1/1 50/0 0/0 1", "2/2 50/51 1/0 0"}));
  for (const int last : {TABLE + 2, TABLE + 1, table::EIT_SCHEDULE_OTHER_FIRST, 0xFF})
    round.note_last_table(1, last);
  round.publish_changes();
  EXPECT_EQ(shown()[0], "1/1 50/52 0/0 1") << "the last table only grows and stays a schedule";
}

TEST_F(Guide_round_test, behind_the_last_table_everybody_is_done_until_a_new_start) {
  round.enter(table::EIT_SCHEDULE_LAST);
  round.close_table();
  round.enter(0);
  EXPECT_EQ(round.table(), table::EIT_SCHEDULE_LAST);
  EXPECT_EQ(shown(), (Texts{"1/1 5f/0 0/1 0", "2/2 5f/0 0/1 0"}));
  round.start();
  EXPECT_EQ(shown(), (Texts{"1/1 4e/0 1/0 0", "2/2 4e/0 1/0 0"}));
}

}  // namespace
