// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using support::messages_at;
using support::stderr_of;

namespace {

constexpr int FREQ = 506000000;
constexpr int TYPE = 1;
constexpr int CONN = 2;

class Eit_list : public db_support::Database_test {
 protected:
  ~Eit_list() override { sdbl().clear_eit_scan_list(&list_); }

  void service(int channel, int program, int pcr_pid = 300, int serv_type = 1, int freq = FREQ) {
    sdbl().sql_cache(true, 0,
                     "INSERT INTO kanalid (channel, hf_conn, dvb_type, freq, pat_prnr, pmt_pid, pcr_pid, serv_type) "
                     "VALUES ($a, $b, $c, $d, $e, $f, $g, $h)",
                     channel, CONN, TYPE, freq, program, 100 + program, pcr_pid, serv_type);
  }
  void event(int channel, int ev_id, int start, int duration) {
    sdbl().sql_cache(true, 0, "INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES ($a, $b, $c, $d)",
                     channel, ev_id, start, duration);
  }
  void get(SCAN_STATE state = SCAN_EIT) {
    EXPECT_EQ(sdbl().get_eit_scan_list(0, TYPE, CONN, FREQ, &list_, state), &list_);
  }
  static itimerspec timer_of(const SQL_cache* entry) {
    itimerspec value{};
    EXPECT_EQ(timer_gettime(entry->timer, &value), 0);
    return value;
  }

  std::list<SQL_cache*> list_;
};

}  // namespace

TEST(Epg_cache_order, is_by_start_signed) {
  const EPG_cache early{-5, 9, 9};
  const EPG_cache late{5, 1, 1};
  EXPECT_TRUE(cmp_epg_cache(&early, &late));
  EXPECT_FALSE(cmp_epg_cache(&late, &early));
  EXPECT_FALSE(cmp_epg_cache(&late, &late));
}

TEST_F(Eit_list, a_multiplex_without_television_leaves_the_list_as_it_is) {
  get();
  EXPECT_TRUE(list_.empty());
  service(1, 10, 300, 2);
  service(2, 11, 300, 25);
  service(3, 12, 300, 1, FREQ + 1);
  get();
  EXPECT_TRUE(list_.empty());
}

TEST_F(Eit_list, services_of_another_input_are_not_listed) {
  service(5, 10);
  service(6, 11);
  service(7, 12);
  run("UPDATE kanalid SET hf_conn = 1, dvb_type = 2 WHERE channel = 5");
  run("UPDATE kanalid SET dvb_type = 2 WHERE channel = 6");
  get();
  ASSERT_EQ(list_.size(), 1u);
  EXPECT_EQ(list_.front()->channel, 7);
}

TEST_F(Eit_list, entries_have_their_initial_values) {
  service(5, 10);
  service(7, 11);
  get();
  ASSERT_EQ(list_.size(), 2u);
  const SQL_cache* entry = list_.front();
  EXPECT_EQ(entry->pat_prnr, 10);
  EXPECT_EQ(entry->pmt_pid, 110);
  EXPECT_EQ(entry->scan_mark, -1);
  EXPECT_EQ(entry->channel, 5);
  EXPECT_TRUE(entry->active);
  EXPECT_FALSE(entry->done);
  EXPECT_EQ(entry->count, 0);
  EXPECT_TRUE(entry->epg.empty());
  EXPECT_EQ(list_.back()->channel, 7);
}

TEST_F(Eit_list, a_service_without_a_pcr_pid_has_no_pmt_pid) {
  service(5, 10, 0);
  get();
  ASSERT_EQ(list_.size(), 1u);
  EXPECT_EQ(list_.front()->pmt_pid, 0);
}

TEST_F(Eit_list, lost_services_are_listed_too) {
  service(5, 10);
  run("UPDATE kanalid SET scan_state = 0, row_status = 1");
  get();
  EXPECT_EQ(list_.size(), 1u);
}

TEST_F(Eit_list, timers_run_for_ten_seconds) {
  service(5, 10);
  get();
  const itimerspec value = timer_of(list_.front());
  EXPECT_EQ(value.it_interval.tv_sec, 10);
  EXPECT_EQ(value.it_interval.tv_nsec, 0);
  EXPECT_GE(value.it_value.tv_sec, 8);
  EXPECT_LE(value.it_value.tv_sec, 10);
}

TEST_F(Eit_list, stored_events_are_sorted_by_start_not_by_id) {
  service(5, 10);
  service(6, 11);
  event(5, 1, 3000, 30);
  event(5, 2, 1000, 10);
  event(5, 3, 2000, 20);
  event(6, 4, 500, 5);
  get();
  ASSERT_EQ(list_.size(), 2u);
  const std::vector<EPG_cache*>& epg = list_.front()->epg;
  ASSERT_EQ(epg.size(), 3u);
  EXPECT_EQ(epg[0]->start_epoch, 1000);
  EXPECT_EQ(epg[0]->ev_id, 2);
  EXPECT_EQ(epg[0]->dur_sec, 10);
  EXPECT_EQ(epg[1]->start_epoch, 2000);
  EXPECT_EQ(epg[2]->start_epoch, 3000);
  ASSERT_EQ(list_.back()->epg.size(), 1u);
  EXPECT_EQ(list_.back()->epg[0]->ev_id, 4);
}

TEST_F(Eit_list, another_state_prints_one_error_and_builds_the_list) {
  service(5, 10);
  for (const SCAN_STATE state : {SCAN_NONE, SCAN_PMT, SCAN_PAT}) {
    sdbl().clear_eit_scan_list(&list_);
    EXPECT_EQ(stderr_of([&] { get(state); }),
              "ERROR: get_eit_scan_list:  master channel table must be syncronized, epglist tabel is indexed using "
              "this table\n");
    EXPECT_EQ(list_.size(), 1u);
  }
  EXPECT_EQ(messages_at(-1, [&] { get(SCAN_PAT); }), "");
}

TEST_F(Eit_list, entries_are_appended) {
  service(5, 10);
  get();
  SQL_cache* first = list_.front();
  service(6, 11);
  get();
  ASSERT_EQ(list_.size(), 3u);
  EXPECT_EQ(list_.front(), first);
  EXPECT_EQ(list_.back()->channel, 6);
}

TEST_F(Eit_list, resetting_starts_a_new_round_and_keeps_the_events) {
  service(5, 10);
  event(5, 1, 3000, 30);
  get();
  SQL_cache* entry = list_.front();
  entry->active = false;
  entry->done = true;
  entry->count = 7;
  entry->scan_mark = 9;
  itimerspec off{};
  timer_settime(entry->timer, 0, &off, nullptr);
  sdbl().reset_eit_scan_list(&list_);
  EXPECT_TRUE(entry->active);
  EXPECT_FALSE(entry->done);
  EXPECT_EQ(entry->count, 0);
  EXPECT_EQ(entry->scan_mark, -1);
  EXPECT_EQ(entry->channel, 5);
  EXPECT_EQ(entry->epg.size(), 1u);
  EXPECT_GE(timer_of(entry).it_value.tv_sec, 8);
  EXPECT_EQ(timer_of(entry).it_interval.tv_sec, 10);
}

TEST_F(Eit_list, clearing_deletes_timers_and_empties_the_list) {
  service(5, 10);
  get();
  const timer_t timer = list_.front()->timer;
  sdbl().clear_eit_scan_list(&list_);
  EXPECT_TRUE(list_.empty());
  itimerspec value{};
  EXPECT_EQ(timer_gettime(timer, &value), -1);
  sdbl().clear_eit_scan_list(&list_);
}

TEST_F(Eit_list, timers_are_of_the_wall_clock_and_never_signal) {
  if (!std::ifstream("/proc/self/timers"))
    GTEST_SKIP() << "this kernel does not list timers";
  service(5, 10);
  get();
  std::string text;
  std::ifstream timers("/proc/self/timers");
  for (std::string line; std::getline(timers, line);)
    text += line + "\n";
  EXPECT_THAT(text, testing::ContainsRegex("notify: none/"));
  EXPECT_THAT(text, testing::HasSubstr("ClockID: " + std::to_string(CLOCK_REALTIME) + "\n"));
  EXPECT_THAT(text, testing::Not(testing::ContainsRegex("notify: (signal|thread)")));
}

TEST_F(Eit_list, a_failing_database_is_printed_and_leaves_the_list_as_it_is) {
  run("DROP TABLE kanalid");
  EXPECT_EQ(
      stderr_of([this] { get(); }),
      "ERROR: query SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid where  hf_conn = $hf_conn AND dvb_type "
      "= $dvb_type AND freq = $freq AND serv_type = 1; prepare failed: no such table: kanalid"
      "ERROR: sql_cache lookup failed for SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid where  hf_conn "
      "= $hf_conn AND dvb_type = $dvb_type AND freq = $freq AND serv_type = 1;");
  EXPECT_TRUE(list_.empty());
  EXPECT_EQ(messages_at(-1, [this] { get(); }), "");
  EXPECT_TRUE(list_.empty());
}

TEST_F(Eit_list, a_failing_guide_leaves_the_caches_empty) {
  service(5, 10);
  service(6, 11);
  run("DROP TABLE epg_db.epglist");
  EXPECT_THAT(stderr_of([this] { get(); }), testing::HasSubstr("prepare failed: no such table: epglist"));
  ASSERT_EQ(list_.size(), 2u);
  EXPECT_TRUE(list_.front()->epg.empty());
  EXPECT_TRUE(list_.back()->epg.empty());
  EXPECT_EQ(list_.back()->channel, 6);
}

TEST_F(Eit_list, statements_are_these_with_their_numbers) {
  service(5, 10);
  const std::string trace = messages_at(4, [this] { get(); });
  EXPECT_THAT(db_support::statements(trace),
              testing::ElementsAre(
                  "SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid where  hf_conn = $hf_conn AND "
                  "dvb_type = $dvb_type AND freq = $freq AND serv_type = 1; <- 2 1 506000000",
                  "SELECT ev_id, start_epoch, dur_sec from epglist WHERE channel = $channel ORDER BY 1; <- 5"));
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
    sdbl().clear_eit_scan_list(&list_);
    get();
    std::vector<int> channels;
    for (const SQL_cache* entry : list_)
      channels.push_back(entry->channel);
    return channels;
  }
};

}  // namespace

TEST_F(Service_types, the_statement_names_several_types_in_their_order_once) {
  const int types[] = {25, 1, 22, 25};
  sdbl().set_eit_service_types(types, 4);
  const std::string trace = support::messages_at(4, [this] { get(); });
  EXPECT_EQ(support::statements_in(trace).front(),
            "SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid where  hf_conn = $hf_conn AND "
            "dvb_type = $dvb_type AND freq = $freq AND serv_type IN (1, 22, 25); <- 2 1 506000000");
}

TEST_F(Service_types, television_only_by_default) {
  EXPECT_THAT(listed(), testing::ElementsAre(1));
}

TEST_F(Service_types, several_are_listed) {
  EXPECT_THAT(listed({25, 1, 2, 25}), testing::UnorderedElementsAre(1, 2, 25));
  EXPECT_THAT(listed({22}), testing::ElementsAre(22));
  EXPECT_THAT(listed({1}), testing::ElementsAre(1));
}

TEST_F(Service_types, nothing_that_names_a_service_restores_the_default) {
  for (const std::vector<int>& types : {std::vector<int>{}, {-1, 256}}) {
    EXPECT_THAT(listed({2}), testing::ElementsAre(2));
    EXPECT_THAT(listed(types), testing::ElementsAre(1));
  }
  EXPECT_THAT(listed({2}), testing::ElementsAre(2));
  sdbl().set_eit_service_types(nullptr, 3);
  EXPECT_THAT(listed(), testing::ElementsAre(1));
}

TEST_F(Service_types, values_outside_a_byte_are_left_out) {
  EXPECT_THAT(listed({-1, 2, 256, 255}), testing::UnorderedElementsAre(2, 255));
}

TEST_F(Service_types, the_default_keeps_its_statement) {
  const std::string trace = messages_at(4, [this] { get(); });
  EXPECT_THAT(trace, testing::HasSubstr("cache run for command SELECT pat_prnr, pmt_pid, channel, pcr_pid from kanalid "
                                        "where  hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq AND "
                                        "serv_type = 1;\n"));
}

TEST_F(Service_types, an_existing_list_stays) {
  EXPECT_THAT(listed({2, 10}), testing::SizeIs(2));
  sdbl().set_eit_service_types(nullptr, 0);
  EXPECT_THAT(list_, testing::SizeIs(2));
}
