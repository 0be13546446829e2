// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Statements whose reset fails: SQLite's own function is replaced for the whole program.
#include <dlfcn.h>
#include <linux/dvb/frontend.h>

#include "db_support.h"

using support::messages_at;
using testing::MatchesRegex;

namespace {

std::string failing_statement;  // how it begins; empty for none

}  // namespace

// The library's calls end here, too. The statement is reset all the same.
extern "C" int sqlite3_reset(sqlite3_stmt* stmt) {
  static const auto real = reinterpret_cast<int (*)(sqlite3_stmt*)>(dlsym(RTLD_NEXT, "sqlite3_reset"));
  const char* sql = stmt != nullptr ? sqlite3_sql(stmt) : nullptr;
  const bool fails =
      sql != nullptr && !failing_statement.empty() && std::string_view(sql).starts_with(failing_statement);
  const int rc = real(stmt);
  return fails ? SQLITE_BUSY : rc;
}

namespace {

class Reset_failure : public db_support::Database_test {
 protected:
  Reset_failure() { sdbl().create_temp_tables(0); }
  ~Reset_failure() override { failing_statement.clear(); }

  // What `action` prints while the reset of this statement fails.
  template <typename Action>
  static std::string printed(const std::string& statement, const Action& action, int level = 0) {
    failing_statement = statement;
    std::string text = messages_at(level, action);
    failing_statement.clear();
    return text;
  }
  void scan() {
    sdbl().clear_temp_tables(0);
    std::list<PMT_subtxt_lang*> none;
    const int row = sdbl().pat_for_network(0, 1, 1, FREQ, 10, 5, 110);
    sdbl().pmt_channel_number(0, 1, 1, FREQ, 10, 300, SCAN_PAT);
    sdbl().pmt_for_service(0, row, 301, 27, 0, "H264", "", "", 0, 0, &none);
  }
};

}  // namespace

TEST_F(Reset_failure, of_tuning_parameters_is_printed_with_the_fixed_line_numbers) {
  constexpr char SELECT[] = "SELECT tuner_params from tuner_table";
  dvb_frontend_parameters out{};
  const auto fill = [&](int expected) {
    return [this, &out, expected] { EXPECT_EQ(sdbl().fill_frontend_control(1, 1, FREQ, &out), expected); };
  };
  const auto store = [&](int bandwidth) {
    return [this, bandwidth] { sdbl().terrestrial_tuner_info(1, 1, FREQ, bandwidth, 2, 0, 2, 2, 0, 1); };
  };
  const std::string error = "ERROR: SQLite reset rc 5 at ";
  EXPECT_EQ(printed(SELECT, fill(0)), error + "fill_frontend_control, 1979\n");
  EXPECT_EQ(printed(SELECT, store(0)), error + "terrestrial_tuner_info, 1954\n");
  EXPECT_EQ(printed(SELECT, fill(1)), error + "fill_frontend_control, 1993\n");
  EXPECT_EQ(out.frequency, 506000000u);
  EXPECT_EQ(printed(SELECT, store(1)), error + "terrestrial_tuner_info, 1962\n") << "after the update";
  EXPECT_EQ(printed(SELECT, store(0)), error + "terrestrial_tuner_info, 1962\n") << "the same parameters";
  EXPECT_EQ(printed(SELECT, fill(1), -1) + printed(SELECT, store(1), -1) + printed(SELECT, store(0), -1), "");
}

TEST_F(Reset_failure, of_the_merge_is_printed_with_its_name_and_the_merge_goes_on) {
  const auto merge = [&] { return sdbl().update_master_scan_data(0, 1, 1, FREQ, SCAN_PAT); };
  scan();
  EXPECT_EQ(merge(), 2 | 32);
  for (const char* statement :
       {"SELECT network_id, orig_network_id, tstream_id FROM kanalid_scan_0",
        "SELECT channel, network_id, orig_network_id, tstream_id, pat_prnr FROM kanalid_scan_0",
        "SELECT channel FROM kanalid WHERE network_id", "SELECT network_id FROM kanalid WHERE channel",
        "SELECT channel FROM kanalid WHERE hf_conn", "SELECT s.oid, e.oid FROM  estreams e, estreams_scan_0 s"}) {
    SCOPED_TRACE(statement);
    run("UPDATE kanalid SET scan_state = 0");
    scan();
    run("UPDATE estreams_scan_0 SET p1 = p1 + 1 + (SELECT max(p1) FROM estreams)");
    EXPECT_THAT(printed(statement, [&] { EXPECT_EQ(merge(), 2 | 32 | 16); }),
                MatchesRegex("ERROR: SQLite reset rc 5 at update_master_scan_data, [0-9]+\n"));
  }
  scan();
  EXPECT_EQ(printed(
                "SELECT", [&] { (void)merge(); }, -1),
            "");
}

TEST_F(Reset_failure, of_the_guide_list_is_printed_and_the_list_is_built) {
  run("INSERT INTO kanalid (channel, freq, hf_conn, dvb_type, serv_type) VALUES (7, 506000000, 1, 1, 1)");
  run("INSERT INTO epglist (channel, ev_id, start_epoch, dur_sec) VALUES (7, 3, 1000, 60)");
  for (const char* statement : {"SELECT pat_prnr, pmt_pid, channel, pcr_pid", "SELECT ev_id, start_epoch, dur_sec"}) {
    SCOPED_TRACE(statement);
    std::list<SQL_cache*> list;
    const auto get = [&] { sdbl().get_eit_scan_list(0, 1, 1, FREQ, &list, SCAN_EIT); };
    EXPECT_THAT(printed(statement, get), MatchesRegex("ERROR: SQLite reset rc 5 at get_eit_scan_list, [0-9]+\n"));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list.front()->epg.size(), 1u);
    EXPECT_EQ(printed(statement, get, -1), "");
    sdbl().clear_eit_scan_list(&list);
  }
}
