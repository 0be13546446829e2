// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using support::messages_at;
using support::prints_only_from;
using support::Texts;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class Eit_list : public db_support::Database_test {
 protected:
  ~Eit_list() override { clear(); }

  void service(int channel, int program, int pcr_pid = 300, int serv_type = 1, int freq = FREQ) {
    sdbl().sql_cache(true, 0,
                     "INSERT INTO kanalid (channel, hf_conn, dvb_type, freq, pat_prnr, pmt_pid, pcr_pid, serv_type) "
                     "VALUES ($a, $b, $c, $d, $e, $f, $g, $h)",
                     channel, CONN, TYPE, freq, program, 100 + program, pcr_pid, serv_type);
  }
  void get(SCAN_STATE state = SCAN_EIT) {
    EXPECT_EQ(sdbl().get_eit_scan_list(0, TYPE, CONN, FREQ, &list_, state), &list_);
  }
  void clear() { sdbl().clear_eit_scan_list(&list_); }
  // channel|program|PMT PID|mark|active|done|count and the events of every entry
  Texts shown() {
    Texts all;
    for (const SQL_cache* entry : list_) {
      std::ostringstream out;
      out << entry->channel << "|" << entry->pat_prnr << "|" << entry->pmt_pid << "|" << entry->scan_mark << "|"
          << entry->active << "|" << entry->done << "|" << entry->count;
      for (const std::string& event : db_support::events_in(entry->epg))
        out << " " << event;
      all.push_back(out.str());
    }
    return all;
  }
  std::vector<int> channels() {
    std::vector<int> all;
    for (const SQL_cache* entry : list_)
      all.push_back(entry->channel);
    return all;
  }
  void expect_ten_seconds() {
    itimerspec value{};
    EXPECT_EQ(timer_gettime(list_.front()->timer, &value), 0);
    EXPECT_EQ(value.it_interval.tv_sec, 10);
    EXPECT_EQ(value.it_interval.tv_nsec, 0);
    EXPECT_GE(value.it_value.tv_sec, 8);
    EXPECT_LE(value.it_value.tv_sec, 10);
  }

  std::list<SQL_cache*> list_;
};

}  // namespace

TEST_F(Eit_list, television_of_the_input_and_frequency_is_listed) {
  get();
  EXPECT_EQ(shown(), Texts{});
  service(1, 10, 300, 2);
  service(2, 11, 300, 25);
  service(3, 12, 300, 1, FREQ + 1);
  service(4, 13);
  service(5, 14);
  run("UPDATE kanalid SET hf_conn = 1, dvb_type = 2 WHERE channel = 4");
  run("UPDATE kanalid SET dvb_type = 2 WHERE channel = 5");
  get();
  EXPECT_EQ(shown(), Texts{});
  service(7, 15);
  get();
  EXPECT_EQ(shown(), (Texts{"7|15|115|-1|1|0|0"}));
}

TEST_F(Eit_list, entries_have_their_initial_values_and_events_sorted_by_start_not_by_id) {
  service(5, 10);
  service(6, 11, 0);  // without a PCR PID there is no PMT PID
  service(7, 12);
  run("UPDATE kanalid SET scan_state = 0, row_status = 1 WHERE channel = 7");  // lost
  run("INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (5, 1, 3000, 30), (5, 2, 1000, 10), "
      "(5, 3, 2000, 20), (6, 4, 500, 5)");
  get();
  EXPECT_EQ(shown(),
            (Texts{"5|10|110|-1|1|0|0 1000+10:2 2000+20:3 3000+30:1", "6|11|0|-1|1|0|0 500+5:4", "7|12|112|-1|1|0|0"}));
  expect_ten_seconds();
}

TEST_F(Eit_list, another_state_prints_one_error_and_builds_the_list) {
  service(5, 10);
  for (const SCAN_STATE state : {SCAN_NONE, SCAN_PMT, SCAN_PAT}) {
    clear();
    EXPECT_THAT(
        [&] { get(state); },
        prints_only_from(
            0,
            "ERROR: get_eit_scan_list:  master channel table must be syncronized, epglist tabel is indexed using "
            "this table\n"));
    EXPECT_THAT(channels(), ElementsAre(5, 5)) << "once at each level";
  }
}

TEST_F(Eit_list, entries_are_appended) {
  service(5, 10);
  get();
  const SQL_cache* first = list_.front();
  service(6, 11);
  get();
  EXPECT_THAT(channels(), ElementsAre(5, 5, 6));
  EXPECT_EQ(list_.front(), first);
}

TEST_F(Eit_list, resetting_starts_a_new_round_and_keeps_the_events) {
  service(5, 10);
  run("INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (5, 1, 3000, 30)");
  get();
  const Texts before = shown();
  SQL_cache* entry = list_.front();
  entry->active = false;
  entry->done = true;
  entry->count = 7;
  entry->scan_mark = 9;
  itimerspec off{};
  timer_settime(entry->timer, 0, &off, nullptr);
  sdbl().reset_eit_scan_list(&list_);
  EXPECT_EQ(shown(), before);
  EXPECT_EQ(before, (Texts{"5|10|110|-1|1|0|0 3000+30:1"}));
  expect_ten_seconds();
}

TEST_F(Eit_list, clearing_deletes_timers_and_empties_the_list) {
  service(5, 10);
  get();
  const timer_t timer = list_.front()->timer;
  clear();
  EXPECT_EQ(shown(), Texts{});
  itimerspec value{};
  EXPECT_EQ(timer_gettime(timer, &value), -1);
  clear();
}

TEST_F(Eit_list, timers_are_of_the_wall_clock_and_never_signal) {
  if (!std::ifstream("/proc/self/timers"))
    GTEST_SKIP() << "this kernel does not list timers";
  service(5, 10);
  get();
  const std::string text = support::read_file("/proc/self/timers");
  EXPECT_THAT(text, testing::ContainsRegex("notify: none/"));
  EXPECT_THAT(text, HasSubstr("ClockID: " + std::to_string(CLOCK_REALTIME) + "\n"));
  EXPECT_THAT(text, testing::Not(testing::ContainsRegex("notify: (signal|thread)")));
}

TEST_F(Eit_list, a_failing_database_is_printed_and_leaves_the_list_as_it_is) {
  run("DROP TABLE kanalid");
  const std::string statement =
      "SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid where  hf_conn = $hf_conn AND dvb_type = $dvb_type AND "
      "freq = $freq AND serv_type = 1;";
  EXPECT_THAT([this] { get(); },
              prints_only_from(0, "ERROR: query " + statement + " prepare failed: no such table: kanalid" +
                                      "ERROR: sql_cache lookup failed for " + statement));
  EXPECT_EQ(shown(), Texts{});
}

TEST_F(Eit_list, a_failing_guide_leaves_the_caches_empty) {
  service(5, 10);
  service(6, 11);
  run("DROP TABLE epg_db.epglist");
  EXPECT_THAT(messages_at(0, [this] { get(); }), HasSubstr("prepare failed: no such table: epglist"));
  EXPECT_EQ(shown(), (Texts{"5|10|110|-1|1|0|0", "6|11|111|-1|1|0|0"}));
}

// --- Which services --------------------------------------------------------------------------------------------------

namespace {

class Service_types : public Eit_list {
 protected:
  Service_types() {
    for (const int type : {1, 2, 10, 17, 22, 25, 31, 255})
      service(type, 100 + type, 300, type);
  }
  std::vector<int> listed(const std::vector<int>& types) {
    sdbl().set_eit_service_types(types.data(), static_cast<int>(types.size()));
    return listed();
  }
  std::vector<int> listed() {
    clear();
    get();
    return channels();
  }
  Texts statements() {
    return support::statements_in(messages_at(4, [this] { get(); }));
  }
};

}  // namespace

TEST_F(Service_types, statements_are_these_with_their_numbers) {
  const std::string select =
      "SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid where  hf_conn = $hf_conn AND dvb_type = $dvb_type AND "
      "freq = $freq AND serv_type ";
  EXPECT_EQ(statements(),
            (Texts{select + "= 1; <- 2 1 506000000",
                   "SELECT ev_id, start_epoch, dur_sec from epglist WHERE channel = $channel ORDER BY 1; <- 1"}));
  const int types[] = {25, 1, 22, 25};
  sdbl().set_eit_service_types(types, 4);
  EXPECT_EQ(statements().at(0), select + "IN (1, 22, 25); <- 2 1 506000000") << "each type once, in order";
}

TEST_F(Service_types, are_television_only_or_what_the_host_names) {
  EXPECT_THAT(listed(), ElementsAre(1));
  EXPECT_THAT(listed({25, 1, 2, 25}), testing::UnorderedElementsAre(1, 2, 25));
  EXPECT_THAT(listed({22}), ElementsAre(22));
  EXPECT_THAT(listed({1}), ElementsAre(1));
  EXPECT_THAT(listed({-1, 2, 256, 255}), testing::UnorderedElementsAre(2, 255)) << "others are no bytes";
}

TEST_F(Service_types, nothing_that_names_a_service_restores_the_default) {
  for (const std::vector<int>& types : {std::vector<int>{}, {-1, 256}}) {
    EXPECT_THAT(listed({2}), ElementsAre(2));
    EXPECT_THAT(listed(types), ElementsAre(1));
  }
  EXPECT_THAT(listed({2, 10}), ElementsAre(2, 10));
  sdbl().set_eit_service_types(nullptr, 3);
  EXPECT_THAT(channels(), ElementsAre(2, 10)) << "a list that exists stays";
  EXPECT_THAT(listed(), ElementsAre(1));
}
