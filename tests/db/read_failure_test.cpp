// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <linux/dvb/frontend.h>

#include "db_support.h"

using support::messages_at;
using support::prints_only_from;
using testing::MatchesRegex;

// SELECTs that fail while they are stepped: the tables are replaced by views whose rows cannot be computed.

namespace {

class Read_failure : public db_support::Database_test {
 protected:
  Read_failure() { sdbl().create_temp_tables(0); }

  // `columns` are names of columns that are readable, behind the one that is not.
  void break_table(const std::string& table, const std::string& broken, const std::string& columns) {
    ASSERT_EQ(run("DROP TABLE " + table), SQLITE_DONE);
    ASSERT_EQ(run("CREATE VIEW " + table + " AS SELECT abs(-9223372036854775808) AS " + broken + ", " + columns),
              SQLITE_DONE);
  }
  static std::string reset_error(const std::string& operation) {
    return "ERROR: SQLite reset rc 1 at " + operation + ", [0-9]+\n";
  }
  // The call returns this, prints the failed reset under its name, and nothing below level 0.
  static void expect_failure(const std::string& operation, int result, const std::function<int()>& call) {
    EXPECT_THAT([&] { EXPECT_EQ(call(), result); }, prints_only_from(0, MatchesRegex(reset_error(operation))));
  }
  // How many events each service of the guide's list has, from a list whose reading fails.
  std::vector<size_t> failing_list() {
    std::list<SQL_cache*> list;
    std::vector<size_t> events;
    EXPECT_THAT(messages_at(0, [&] { sdbl().get_eit_scan_list(0, TYPE, CONN, FREQ, &list, SCAN_EIT); }),
                MatchesRegex(reset_error("get_eit_scan_list")));
    for (const SQL_cache* service : list)
      events.push_back(service->epg.size());
    sdbl().clear_eit_scan_list(&list);
    return events;
  }

  static constexpr char INPUT[] = "2 AS hf_conn, 1 AS dvb_type, 506000000 AS freq";
};

}  // namespace

TEST_F(Read_failure, of_scrambled_streams_is_returned) {
  break_table("main.estreams", "es_pid", "1 AS channel, 1 AS ca_sysid, 1 AS ca_pid");
  std::vector<CA_pid*> pids;
  expect_failure("fill_pids_for_channel", 1, [&] { return sdbl().fill_pids_for_channel(1, &pids); });
  EXPECT_TRUE(pids.empty());
}

TEST_F(Read_failure, of_old_events_removes_nothing) {
  break_table("epg_db.epglist", "entry", "0 AS start_epoch");
  expect_failure("remove_old_entries", 0, [&] { return sdbl().remove_old_entries(0, false); });
}

TEST_F(Read_failure, of_events_in_a_range_deletes_nothing) {
  break_table("epg_db.epglist", "oid",
              "1 AS channel, 1 AS ymd_bcd, 1 AS hms_bcd, 1 AS dur_bcd, 5 AS start_epoch, 6 AS dur_sec");
  SQL_cache sc{};
  expect_failure("delete_epglist_range", 1, [&] { return sdbl().delete_epglist_range(1, 0, 100, false, &sc); });
}

TEST_F(Read_failure, of_the_services_leaves_the_guide_list_as_it_is) {
  break_table("main.kanalid", "pat_prnr",
              std::string(INPUT) + ", 1 AS serv_type, 1 AS pmt_pid, 1 AS channel, 1 AS pcr_pid");
  EXPECT_EQ(failing_list(), std::vector<size_t>{});
}

TEST_F(Read_failure, of_the_events_of_a_service_leaves_its_cache_empty) {
  run("INSERT INTO kanalid (freq, hf_conn, dvb_type, serv_type) VALUES (506000000, 2, 1, 1)");
  break_table("epg_db.epglist", "ev_id", "1 AS channel, 5 AS start_epoch, 6 AS dur_sec");
  EXPECT_EQ(failing_list(), std::vector<size_t>{0});
}

TEST_F(Read_failure, of_scan_rows_is_returned) {
  break_table("temp.kanalid_scan_0", "oid", std::string(INPUT) + ", 1 AS network_id");
  expect_failure("nit_multilingual_network_name", 1,
                 [&] { return sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 1, "eng", "Network"); });
}

TEST_F(Read_failure, of_the_scan_ends_the_merge) {
  break_table("temp.kanalid_scan_0", "network_id", "506000000 AS freq, 1 AS orig_network_id, 1 AS tstream_id");
  EXPECT_THAT(messages_at(1, [&] { EXPECT_EQ(sdbl().update_master_scan_data(0, TYPE, CONN, FREQ, SCAN_PAT), 0); }),
              MatchesRegex("WARNING: PAT scan timed out for freq 506000000, no entries in scan table\n"
                           "Error code 1, integer overflow" +
                           reset_error("update_master_scan_data")));
}

TEST_F(Read_failure, of_the_program_number_is_0) {
  break_table("main.kanalid", "channel", std::string(INPUT) + ", 10 AS pat_prnr");
  expect_failure("pmt_channel_number", 0,
                 [&] { return sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 300, SCAN_PMT); });
}

TEST_F(Read_failure, of_the_network_leaves_the_zone) {
  break_table("main.kanalid", "network_name", INPUT);
  const auto update = [&] { sdbl().update_system_timezone(180, "EST", 0, TYPE, CONN, FREQ); };
  EXPECT_THAT(messages_at(1, update), MatchesRegex(reset_error("update_system_timezone")));
  EXPECT_EQ(messages_at(-1, update), "");
}

TEST_F(Read_failure, of_tuning_parameters_warns) {
  break_table("main.tuner_table", "tuner_params", "1 AS hf_conn, 1 AS dvb_type, 506000000 AS freq");
  dvb_frontend_parameters out{};
  const auto fill = [&] { EXPECT_NE(sdbl().fill_frontend_control(1, 1, FREQ, &out), 0); };
  EXPECT_EQ(messages_at(1, fill), "WARNING: Failed to get tuner data\n");
  EXPECT_THAT(messages_at(1, [&] { sdbl().terrestrial_tuner_info(1, 1, FREQ, 0, 2, 0, 2, 2, 0, 1); }),
              testing::HasSubstr("WARNING: failed to access tuner_table\n"));
  // The next use ends what is left of the failed one.
  EXPECT_EQ(
      messages_at(1, fill),
      "WARNING: Sqlite_reset for SELECT tuner_params from tuner_table where freq = $freq AND dvb_type = $type AND "
      "hf_conn = $hf_con rc is 1\nWARNING: Failed to get tuner data\n");
}
