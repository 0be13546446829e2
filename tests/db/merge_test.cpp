#include <time.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/messages.h"
#include "db_support.h"
#include "support/messages.h"
#include "support/support.h"

using db_support::number;
using db_support::rows;
using db_support::run;
using support::messages_at;
using support::stderr_of;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr int FREQ = 506000000;
constexpr int TYPE = 1;
constexpr int CONN = 2;

constexpr int CHANNELS_LOST = 1;
constexpr int CHANNELS_ADDED = 2;
constexpr int STREAMS_DELETED = 16;
constexpr int STREAMS_ADDED = 32;

// What a scan saw of one service.
struct Service {
  int program;
  int pcr_pid = 1000;
  bool pmt = true;
  std::string sound = "eng";
};

class Merge : public testing::Test {
 protected:
  Merge() : sdbl_(dir_.file("a.db").c_str()) {
    sdbl_.create_temp_tables(0);
    sdbl_.create_temp_tables(1);
  }
  ~Merge() override { verbosity_kelvo = 0; }

  // Fills the scan tables as the parsers do.
  void scan(const std::vector<Service>& services, int net_id = 10, int dvbnr = 0, int conn = CONN, int freq = FREQ) {
    sdbl_.clear_temp_tables(dvbnr);
    for (const Service& service : services) {
      const int row = sdbl_.pat_for_network(dvbnr, TYPE, conn, freq, service.program, 5, 100 + service.program);
      if (!service.pmt)
        continue;
      sdbl_.pmt_channel_number(dvbnr, TYPE, conn, freq, service.program, service.pcr_pid, SCAN_PAT);
      sdbl_.pmt_for_service(dvbnr, row, 1000 + service.program, 27, 0, "H264", "", "", 0, 0, &none_);
      sdbl_.pmt_for_service(dvbnr, row, 2000 + service.program, 3, 0, "MPEG1", service.sound.c_str(), "", 0, 0, &none_);
    }
    sdbl_.nit_for_network(dvbnr, TYPE, conn, freq, "network_id", net_id);
    sdbl_.nit_for_network(dvbnr, TYPE, conn, freq, "orig_network_id", net_id);
  }
  int merge(SCAN_STATE state = SCAN_PAT, int dvbnr = 0, int conn = CONN, int freq = FREQ) {
    return sdbl_.update_master_scan_data(dvbnr, TYPE, conn, freq, state);
  }
  Texts channels() {
    return rows(sdbl_, "SELECT channel, pat_prnr, scan_state, row_status FROM kanalid ORDER BY channel");
  }
  Texts streams() { return rows(sdbl_, "SELECT channel, es_pid, languages FROM estreams ORDER BY channel, es_pid"); }

  support::Temp_dir dir_;
  Sdbl sdbl_;
  std::list<PMT_subtxt_lang*> none_;
};

}  // namespace

TEST_F(Merge, other_states_are_refused) {
  scan({{1}});
  int result = -1;
  for (const SCAN_STATE state : std::vector<SCAN_STATE>{SCAN_NONE, SCAN_EIT, 4, -1}) {
    EXPECT_EQ(stderr_of([&] { result = merge(state); }),
              "ERROR: Incorrect scan state entered: " + std::to_string(state) + "\n");
    EXPECT_EQ(result, 0);
  }
  EXPECT_EQ(messages_at(-1, [&] { result = merge(SCAN_EIT); }), "");
  verbosity_kelvo = 3;
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(merge(SCAN_EIT), 0); }),
            "ERROR: Incorrect scan state entered: 3\n"
            "Scan from 3 for freq 506000000, ch_add 0, ch_delete 0, estrm_add 0, estrm_delete 0\n");
  EXPECT_EQ(channels(), Texts{});
  EXPECT_EQ(streams(), Texts{});
}

TEST_F(Merge, an_empty_scan_writes_nothing) {
  scan({{1}, {2}});
  merge();
  const Texts before = rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel");
  scan({});
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merge(), 0); }), "");
  EXPECT_EQ(messages_at(1, [&] { EXPECT_EQ(merge(), 0); }),
            "WARNING: PAT scan timed out for freq 506000000, no entries in scan table\n");
  verbosity_kelvo = 3;
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(merge(), 0); }),
            "Master update PAT\nWARNING: PAT scan timed out for freq 506000000, no entries in scan table\n");
  EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel"), before);
}

TEST_F(Merge, a_missing_scan_table_also_prints_the_code) {
  EXPECT_THAT(messages_at(1, [&] { EXPECT_EQ(merge(SCAN_PAT, 3), 0); }),
              testing::EndsWith("WARNING: PAT scan timed out for freq 506000000, no entries in scan table\n"
                                "Error code 1, no such table: kanalid_scan_3"));
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(merge(SCAN_PAT, 3), 0); }), testing::Not(HasSubstr("Error code")));
}

TEST_F(Merge, new_services_are_added_with_their_streams) {
  const int before = static_cast<int>(time(nullptr));
  scan({{1}, {2}});
  EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(
      rows(sdbl_,
           "SELECT channel, pat_prnr, pmt_pid, pcr_pid, network_id, orig_network_id, tstream_id, lcn, "
           "hf_conn, dvb_type, freq, revision, scan_state, row_status FROM kanalid ORDER BY channel"),
      (Texts{"1|1|101|1000|10|10|5|65535|2|1|506000000|2.5|1|0", "2|2|102|1000|10|10|5|65535|2|1|506000000|2.5|1|0"}));
  EXPECT_GE(number(sdbl_, "SELECT min(modified) FROM kanalid ORDER BY channel"), before);
  EXPECT_LE(number(sdbl_, "SELECT max(modified) FROM kanalid ORDER BY channel"), static_cast<int>(time(nullptr)));
  EXPECT_EQ(rows(sdbl_, "SELECT channel, revision, es_pid, es_type, codec, languages FROM estreams ORDER BY oid"),
            (Texts{"1|2.5|1001|27|H264|", "1|2.5|2001|3|MPEG1|eng", "2|2.5|1002|27|H264|", "2|2.5|2002|3|MPEG1|eng"}));
}

TEST_F(Merge, a_new_service_has_every_column_of_the_scan) {
  constexpr char COLUMNS[] =
      "pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, pcr_pid, serv_name, serv_type, prov_name, "
      "network_name, run_status, free_ca, hf_conn, dvb_type, freq";
  scan({{1}});
  run(sdbl_,
      "UPDATE kanalid_scan_0 SET pmt_pid = 31, network_id = 32, orig_network_id = 33, tstream_id = 34, lcn = 35, "
      "pcr_pid = 36, serv_name = 'Service', serv_type = 37, prov_name = 'Provider', network_name = 'Network', "
      "run_status = 4, free_ca = 1, modified = 5");
  sdbl_.modify_lang_table_oid(number(sdbl_, "SELECT channel FROM kanalid_scan_0"), "kanalid_lang_scan_0", "eng",
                              "serv_name", "English service");
  run(sdbl_, "UPDATE kanalid_lang_scan_0 SET prov_name = 'English provider', network_name = 'English network'");
  merge();
  const std::string columns = COLUMNS;
  EXPECT_EQ(rows(sdbl_, "SELECT " + columns + " FROM kanalid"),
            (Texts{"1|31|32|33|34|35|36|Service|37|Provider|Network|4|1|2|1|506000000"}));
  EXPECT_GT(number(sdbl_, "SELECT modified FROM kanalid"), 5);
  EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid_lang"),
            (Texts{"1|eng|English service|English provider|English network"}));
}

TEST_F(Merge, the_scan_tables_stay_as_they_are_but_for_numbers_and_marks) {
  scan({{1}, {2}});
  const Texts services = rows(sdbl_, "SELECT channel, pat_prnr, serv_name, modified FROM kanalid_scan_0");
  const Texts scanned = rows(sdbl_, "SELECT oid, es_pid, languages FROM estreams_scan_0");
  merge();
  EXPECT_EQ(rows(sdbl_, "SELECT channel, pat_prnr, serv_name, modified FROM kanalid_scan_0"), services);
  EXPECT_EQ(rows(sdbl_, "SELECT oid, es_pid, languages FROM estreams_scan_0"), scanned);
}

// A channel of the same frequency that another transport stream had is not this scan's business.
TEST_F(Merge, the_first_row_of_the_scan_says_which_multiplex_it_is) {
  for (const std::string column : {"network_id", "orig_network_id", "tstream_id"}) {
    run(sdbl_, "DELETE FROM kanalid");
    run(sdbl_, "DELETE FROM estreams");
    scan({{1}, {2}});
    merge();
    run(sdbl_, "UPDATE kanalid SET " + column + " = 99 WHERE pat_prnr = 2");
    scan({{1}, {4}});
    run(sdbl_, "UPDATE kanalid_scan_0 SET " + column + " = 99 WHERE pat_prnr = 4");
    EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED) << column;
    EXPECT_EQ(rows(sdbl_, "SELECT pat_prnr, scan_state, row_status FROM kanalid ORDER BY pat_prnr"),
              (Texts{"1|1|0", "2|1|0", "4|0|0"}))
        << column;
  }
}

TEST_F(Merge, names_in_languages_come_with_a_new_service_only) {
  scan({{1}, {2}});
  for (const int row : {1, 2}) {
    sdbl_.modify_table_oid(row, "kanalid_scan_0", "serv_name", "it's 100%");
    sdbl_.modify_lang_table_oid(row, "kanalid_lang_scan_0", "eng", "serv_name", "'English'");
    sdbl_.modify_lang_table_oid(row, "kanalid_lang_scan_0", "est", "prov_name", "Eesti");
  }
  sdbl_.modify_lang_table_oid(0, "kanalid_lang_scan_0", "eng", "serv_name", "of no service");
  merge();
  EXPECT_EQ(rows(sdbl_, "SELECT serv_name FROM kanalid ORDER BY channel"), (Texts{"it's 100%", "it's 100%"}));
  EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid_lang ORDER BY oid"),
            (Texts{"1|eng|'English'||", "1|est||Eesti|", "2|eng|'English'||", "2|est||Eesti|"}));
}

TEST_F(Merge, quirk_a_known_service_is_never_refreshed) {
  scan({{1}});
  sdbl_.modify_table_oid(1, "kanalid_scan_0", "serv_name", "First");
  merge();
  const Texts before = rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel");
  scan({{1, 1234}});
  run(sdbl_, "UPDATE kanalid_scan_0 SET serv_name = 'Second', lcn = 7, free_ca = 1, pmt_pid = 99");
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel"), before);
}

TEST_F(Merge, a_rescan_that_finds_the_same_changes_nothing) {
  scan({{1}, {2}});
  merge();
  run(sdbl_, "UPDATE kanalid SET modified = 77");
  const Texts before = rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel");
  const Texts streams_before = rows(sdbl_, "SELECT oid, channel, es_pid, languages FROM estreams");
  for (int round = 0; round < 3; ++round) {
    scan({{2}, {1}});
    EXPECT_EQ(merge(), 0);
    EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel"), before);
    EXPECT_EQ(rows(sdbl_, "SELECT oid, channel, es_pid, languages FROM estreams"), streams_before);
  }
}

TEST_F(Merge, a_lost_service_keeps_row_number_and_streams) {
  scan({{1}, {2}});
  merge();
  run(sdbl_, "UPDATE kanalid SET modified = 77");
  const Texts streams_before = streams();
  scan({{2}});
  EXPECT_EQ(merge(), CHANNELS_LOST);
  EXPECT_EQ(channels(), (Texts{"1|1|0|1", "2|2|1|0"}));
  EXPECT_EQ(rows(sdbl_, "SELECT modified > 77 FROM kanalid ORDER BY channel"), (Texts{"1", "0"}));
  EXPECT_EQ(streams(), streams_before);
}

TEST_F(Merge, quirk_a_service_that_stays_lost_is_counted_at_every_full_scan) {
  scan({{1}, {2}});
  merge();
  for (int round = 0; round < 3; ++round) {
    scan({{2}});
    EXPECT_EQ(merge(), CHANNELS_LOST);
  }
}

TEST_F(Merge, a_service_that_is_back_counts_as_added_and_keeps_its_number) {
  scan({{1}, {2}});
  merge();
  scan({{2}});
  merge();
  run(sdbl_, "UPDATE kanalid SET modified = 77");
  scan({{1}, {2}});
  EXPECT_EQ(merge(), CHANNELS_ADDED);
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|0"}));
  EXPECT_EQ(rows(sdbl_, "SELECT modified > 77 FROM kanalid ORDER BY channel"), (Texts{"1", "0"}));
  scan({{1}, {2}});
  EXPECT_EQ(merge(), 0);
}

TEST_F(Merge, new_lost_and_changed_at_once_set_all_bits) {
  scan({{1}, {2}});
  merge();
  scan({{2, 1000, true, "fra"}, {3}});
  EXPECT_EQ(merge(), CHANNELS_ADDED | CHANNELS_LOST | STREAMS_ADDED | STREAMS_DELETED);
  EXPECT_EQ(channels(), (Texts{"1|1|0|1", "2|2|1|0", "3|3|1|0"}));
  EXPECT_EQ(streams(), (Texts{"1|1001|", "1|2001|eng", "2|1002|", "2|2002|fra", "3|1003|", "3|2003|eng"}));
}

TEST_F(Merge, a_service_whose_pmt_was_not_received_keeps_its_streams) {
  scan({{1}, {2}});
  merge();
  const Texts before = streams();
  scan({{1, 1000, false}, {2}});
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(streams(), before);
}

TEST_F(Merge, a_change_in_any_column_of_a_stream_is_one_added_and_one_deleted) {
  const std::vector<std::pair<std::string, std::string>> changes = {
      {"es_pid", "77"},        {"es_type", "4"}, {"es_subtype", "-5"}, {"codec", "'AAC'"},   {"languages", "'fra'"},
      {"lang_codes", "'abc'"}, {"p1", "7"},      {"p2", "8"},          {"ca_sysid", "1280"}, {"ca_pid", "496"}};
  scan({{1}});
  merge();
  for (const auto& [column, value] : changes) {
    scan({{1}});
    merge();
    scan({{1}});
    run(sdbl_, "UPDATE estreams_scan_0 SET " + column + " = " + value + " WHERE es_pid = 2001");
    verbosity_kelvo = 2;
    int result = 0;
    EXPECT_EQ(stderr_of([&] { result = merge(); }),
              "Added 1 estream entries for channel 1\nDeleted 1 estream entries for channel 1\n"
              "estreams modified, reindexing")
        << column;
    verbosity_kelvo = 0;
    EXPECT_EQ(result, STREAMS_ADDED | STREAMS_DELETED) << column;
    EXPECT_EQ(rows(sdbl_, "SELECT count(*) FROM estreams WHERE " + column + " = " + value), (Texts{"1"})) << column;
    EXPECT_EQ(number(sdbl_, "SELECT count(*) FROM estreams"), 2);
  }
}

TEST_F(Merge, an_added_stream_and_a_deleted_stream_have_their_own_bits) {
  scan({{1}});
  merge();
  scan({{1}});
  run(sdbl_, "INSERT INTO estreams_scan_0 (channel, es_pid) SELECT channel, 99 FROM kanalid_scan_0");
  const auto told = [this](int expected) {
    const std::string text = messages_at(2, [&] { EXPECT_EQ(merge(), expected); });
    verbosity_kelvo = 0;
    return text;
  };
  EXPECT_EQ(told(STREAMS_ADDED), "Added 1 estream entries for channel 1\nestreams modified, reindexing");
  scan({{1}});
  EXPECT_EQ(told(STREAMS_DELETED), "Deleted 1 estream entries for channel 1\nestreams modified, reindexing");
  EXPECT_EQ(streams(), (Texts{"1|1001|", "1|2001|eng"}));
  scan({{1}});
  EXPECT_EQ(told(0), "");
}

TEST_F(Merge, a_new_service_without_a_pcr_pid_stays_new) {
  scan({{1, 0}, {2}});
  EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(channels(), (Texts{"1|1|0|2", "2|2|1|0"}));
}

TEST_F(Merge, quirk_a_service_without_a_pcr_pid_counts_as_added_twice) {
  scan({{1, 0}, {2}});
  merge();
  scan({{1, 0}, {2}});
  EXPECT_EQ(merge(), CHANNELS_ADDED);
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|0"}));
  scan({{1, 0}, {2}});
  EXPECT_EQ(merge(), 0);
}

TEST_F(Merge, a_program_that_is_listed_twice_is_one_channel) {
  scan({{1}, {1}, {2}});
  EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(rows(sdbl_, "SELECT channel, pat_prnr FROM kanalid ORDER BY channel"), (Texts{"1|1", "2|2"}));
  EXPECT_EQ(number(sdbl_, "SELECT count(*) FROM estreams WHERE channel = 2"), 2);
}

TEST_F(Merge, a_service_under_other_network_ids_is_refused_by_the_index) {
  scan({{1}});
  merge();
  const Texts before = rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel");
  const Texts streams_before = streams();
  scan({{1}}, 11);
  sdbl_.modify_lang_table_oid(number(sdbl_, "SELECT channel FROM kanalid_scan_0"), "kanalid_lang_scan_0", "eng",
                              "serv_name", "Moved");
  int result = -1;
  EXPECT_THAT(stderr_of([&] { result = merge(); }),
              MatchesRegex("ERROR: Sqlite_step failed for INSERT INTO kanalid .* , error UNIQUE constraint failed: "
                           "kanalid.hf_conn, kanalid.dvb_type, kanalid.freq, kanalid.pat_prnr\n"));
  EXPECT_EQ(result, 0);
  EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel"), before);
  EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid_lang"), Texts{});
  EXPECT_EQ(streams(), streams_before);
  EXPECT_EQ(rows(sdbl_, "SELECT DISTINCT channel FROM estreams_scan_0"), (Texts{"0"}));
}

TEST_F(Merge, a_refused_service_does_not_get_the_streams_of_the_next) {
  scan({{1}});
  merge();
  scan({{1}, {2}}, 11);
  (void)stderr_of([&] { EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED); });
  EXPECT_EQ(rows(sdbl_, "SELECT pat_prnr, network_id FROM kanalid ORDER BY channel"), (Texts{"1|10", "2|11"}));
  EXPECT_EQ(rows(sdbl_, "SELECT c.pat_prnr, e.es_pid FROM estreams e JOIN kanalid c USING (channel) ORDER BY e.oid"),
            (Texts{"1|1001", "1|2001", "2|1002", "2|2002"}));
}

// Scan rows and channels are both numbered from 1. Here row 1 is channel 2 and row 2 is channel 1.
TEST_F(Merge, streams_stay_with_their_service_when_numbers_cross) {
  scan({{20}, {10}});
  merge();
  const Texts before = streams();
  sdbl_.create_temp_tables(0);
  scan({{10}, {20}});
  EXPECT_EQ(rows(sdbl_, "SELECT channel, pat_prnr FROM kanalid_scan_0"), (Texts{"1|10", "2|20"}));
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(streams(), before);
}

TEST_F(Merge, streams_stay_with_their_service_when_numbers_chain) {
  scan({{1}, {2}, {3}, {4}, {5}});
  merge();
  const Texts before = streams();
  sdbl_.create_temp_tables(0);
  scan({{5}, {1}, {2}, {3}, {4}});
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(streams(), before);
}

TEST_F(Merge, a_pmt_scan_compares_streams_only) {
  scan({{1}, {2}});
  merge();
  run(sdbl_, "UPDATE kanalid SET modified = 77");
  const Texts before = rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel");
  sdbl_.clear_temp_tables(0);
  // With a channel, streams are written under its number, and there are no scanned services.
  sdbl_.pmt_for_service(0, 2, 1002, 27, 0, "H264", "", "", 0, 0, &none_);
  sdbl_.pmt_for_service(0, 2, 3002, 3, 0, "MPEG1", "fra", "", 0, 0, &none_);
  EXPECT_EQ(merge(SCAN_PMT), STREAMS_ADDED | STREAMS_DELETED);
  EXPECT_EQ(rows(sdbl_, "SELECT * FROM kanalid ORDER BY channel"), before);
  EXPECT_EQ(streams(), (Texts{"1|1001|", "1|2001|eng", "2|1002|", "2|3002|fra"}));
}

TEST_F(Merge, a_pmt_scan_leaves_lost_and_unconfirmed_services_alone) {
  scan({{1, 0}, {2}});
  merge();
  scan({{1, 0}});
  merge();
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|0|1"}));
  run(sdbl_, "UPDATE kanalid SET row_status = 2, scan_state = 0 WHERE channel = 1");
  sdbl_.clear_temp_tables(0);
  sdbl_.pmt_for_service(0, 2, 4000, 27, 0, "H264", "", "", 0, 0, &none_);
  EXPECT_EQ(merge(SCAN_PMT), 0);
  EXPECT_EQ(channels(), (Texts{"1|1|0|2", "2|2|0|1"}));
}

TEST_F(Merge, another_frequency_is_left_alone) {
  constexpr int OTHER = FREQ + 8000000;
  scan({{1}, {2}}, 10, 0, CONN, OTHER);
  merge(SCAN_PAT, 0, CONN, OTHER);
  scan({{1}});
  EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED);
  scan({{7}});
  EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED | CHANNELS_LOST);
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|0", "3|1|0|1", "4|7|1|0"}));
}

TEST_F(Merge, streams_of_channels_elsewhere_are_left_alone) {
  for (const std::string other : {"hf_conn = 3", "dvb_type = 2", "freq = 514000000"}) {
    run(sdbl_, "DELETE FROM kanalid");
    run(sdbl_, "DELETE FROM estreams");
    scan({{1}, {2}});
    merge();
    const Texts before = streams();
    sdbl_.clear_temp_tables(0);
    const int channel = number(sdbl_, "SELECT channel FROM kanalid WHERE pat_prnr = 2");
    sdbl_.pmt_for_service(0, channel, 4000, 27, 0, "H264", "", "", 0, 0, &none_);
    run(sdbl_, "UPDATE kanalid SET " + other + " WHERE pat_prnr = 2");
    EXPECT_EQ(merge(SCAN_PMT), 0) << other;
    EXPECT_EQ(streams(), before) << other;
    run(sdbl_, "UPDATE kanalid SET hf_conn = 2, dvb_type = 1, freq = 506000000 WHERE pat_prnr = 2");
    EXPECT_EQ(merge(SCAN_PMT), STREAMS_ADDED | STREAMS_DELETED) << other;
  }
}

TEST_F(Merge, only_services_of_this_input_and_frequency_are_lost_or_confirmed) {
  scan({{1}, {2}});
  merge();
  // Not seen again, and the same multiplex for another delivery type.
  run(sdbl_, "UPDATE kanalid SET dvb_type = 2, modified = 77 WHERE channel = 2");
  for (const char* other : {"3, 1, 506000000", "2, 2, 506000000", "2, 1, 514000000"})
    run(sdbl_, std::string("INSERT INTO kanalid (hf_conn, dvb_type, freq, pat_prnr, pcr_pid, row_status) VALUES (") +
                   other + ", 9, 1000, 2)");
  scan({{1}});
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|1", "3|9|0|2", "4|9|0|2", "5|9|0|2"}));
  EXPECT_EQ(number(sdbl_, "SELECT modified FROM kanalid WHERE channel = 2"), 77);
}

TEST_F(Merge, two_instances_merge_from_their_own_tables) {
  constexpr int OTHER = FREQ + 8000000;
  scan({{1}}, 10, 0);
  scan({{1}, {2}}, 10, 1, CONN, OTHER);
  EXPECT_EQ(merge(SCAN_PAT, 1, CONN, OTHER), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(merge(SCAN_PAT, 0), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(rows(sdbl_, "SELECT channel, freq, pat_prnr FROM kanalid ORDER BY channel"),
            (Texts{"1|514000000|1", "2|514000000|2", "3|506000000|1"}));
  EXPECT_EQ(number(sdbl_, "SELECT count(*) FROM estreams WHERE channel = 3"), 2);
}

TEST_F(Merge, quirk_the_same_multiplex_on_another_input_confirms_the_first_inputs_channels) {
  scan({{1}, {2}});
  merge();
  scan({{1}, {3}}, 10, 1, CONN + 1);
  EXPECT_EQ(merge(SCAN_PAT, 1, CONN + 1), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(rows(sdbl_, "SELECT channel, hf_conn, pat_prnr, scan_state, row_status FROM kanalid ORDER BY channel"),
            (Texts{"1|2|1|1|0", "2|2|2|1|1", "3|3|3|1|0"}));
}

TEST_F(Merge, a_timed_out_multiplex_is_marked_and_found_again_without_being_counted) {
  scan({{1}, {2}});
  merge();
  for (const char* other : {"506000000, 3, 1", "506000000, 2, 2", "514000000, 2, 1"})
    run(sdbl_, std::string("INSERT INTO kanalid (freq, hf_conn, dvb_type, pat_prnr) VALUES (") + other + ", 9)");
  const Texts others = {"3|9|0|0", "4|9|0|0", "5|9|0|0"};
  const auto with_others = [&others](Texts all) {
    all.insert(all.end(), others.begin(), others.end());
    return all;
  };
  run(sdbl_, "UPDATE kanalid SET modified = 77");
  EXPECT_EQ(sdbl_.set_master_scan_timeout(TYPE, CONN, FREQ), 0);
  EXPECT_EQ(channels(), with_others({"1|1|2|0", "2|2|2|0"}));
  scan({{1}, {2}});
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(channels(), with_others({"1|1|1|0", "2|2|1|0"}));
  EXPECT_EQ(rows(sdbl_, "SELECT DISTINCT modified FROM kanalid"), (Texts{"77"}));
}

TEST_F(Merge, a_timeout_that_cannot_be_stored_is_an_error) {
  run(sdbl_, "DROP TABLE kanalid");
  int result = 0;
  EXPECT_THAT(stderr_of([&] { result = sdbl_.set_master_scan_timeout(TYPE, CONN, FREQ); }),
              MatchesRegex("ERROR: query UPDATE kanalid .* prepare failed: no such table: kanalid"
                           "ERROR: sql_cache lookup failed for UPDATE kanalid .*;"
                           "ERROR: SQLite RUN rc 1 at set_master_scan_timeout, [0-9]+\n"));
  EXPECT_EQ(result, 1);
}

TEST_F(Merge, timeout_is_announced_at_level_1) {
  EXPECT_EQ(stderr_of([&] { sdbl_.set_master_scan_timeout(TYPE, CONN, FREQ); }), "");
  EXPECT_EQ(messages_at(1, [&] { sdbl_.set_master_scan_timeout(TYPE, CONN, FREQ); }),
            "WARNING: Setting timeout for mux 506000000\n");
}

TEST_F(Merge, progress_of_a_full_scan_is_traced) {
  scan({{1}});
  EXPECT_EQ(messages_at(1, [&] { merge(); }), "");
  verbosity_kelvo = 0;
  scan({{1, 1000, true, "fra"}, {2}});
  const int first = number(sdbl_, "SELECT min(channel) FROM kanalid_scan_0");
  const int stream = number(sdbl_, "SELECT min(oid) FROM estreams_scan_0");
  const std::string row_1 = std::to_string(first);
  const std::string row_2 = std::to_string(first + 1);
  verbosity_kelvo = 3;
  const std::string text = stderr_of([&] { merge(); });
  EXPECT_EQ(text,
            "Master update PAT\n"
            "update_master_scan_data: instance 0 dvb_type 1 hf_conn 2 Freq 506000000 net_id 10, onet_id 10, tstream_id "
            "5\n"
            "Pat scan table: oid_scan " +
                row_1 +
                " net_id 10 onet_id 10 ts_id 5 service 1"
                "Updating ROW status for ch oid 1\n"
                "Pat scan table: oid_scan " +
                row_2 +
                " net_id 10 onet_id 10 ts_id 5 service 2"
                "inserted row " +
                row_2 +
                "@kanalid_scan -> 2@kanalid\n"
                "Master update PMT\n"
                "Streams for ch 1 (Scan = Main): " +
                std::to_string(stream) +
                " = 1 \n"
                "Added 1 estream entries for channel 1\n"
                "Deleted 1 estream entries for channel 1\n"
                "Streams for ch 2 (Scan = Main): \n"
                "Added 2 estream entries for channel 2\n"
                "estreams modified, reindexing"
                "Scan from 2 for freq 506000000, ch_add 1, ch_delete 0, estrm_add 3, estrm_delete 1\n"
                "1 Channels added\n"
                "3 Estreams added\n"
                "1 Estreams deleted\n");
}

TEST_F(Merge, levels_1_and_2_show_the_streams_only) {
  scan({{1}, {2}});
  merge();
  scan({{2, 1000, true, "fra"}, {3}});
  verbosity_kelvo = 1;
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(merge(), CHANNELS_ADDED | CHANNELS_LOST | STREAMS_ADDED | STREAMS_DELETED); }),
            "");
  scan({{1, 1000, true, "fra"}, {2}, {4}});
  EXPECT_EQ(
      messages_at(2, [&] { EXPECT_EQ(merge(), CHANNELS_ADDED | CHANNELS_LOST | STREAMS_ADDED | STREAMS_DELETED); }),
      "Added 1 estream entries for channel 1\n"
      "Deleted 1 estream entries for channel 1\n"
      "Added 1 estream entries for channel 2\n"
      "Deleted 1 estream entries for channel 2\n"
      "Added 2 estream entries for channel 4\n"
      "estreams modified, reindexing");
}

TEST_F(Merge, statements_of_a_full_scan_are_these_in_this_order) {
  scan({{1}, {2}});
  merge();
  run(sdbl_, "UPDATE kanalid SET scan_state = 0 WHERE channel = 1");
  scan({{1, 1000, true, "fra"}, {3}});
  const std::string row_1 = rows(sdbl_, "SELECT min(channel) FROM kanalid_scan_0")[0];
  const std::string row_2 = rows(sdbl_, "SELECT max(channel) FROM kanalid_scan_0")[0];
  const std::string stream = rows(sdbl_, "SELECT oid FROM estreams_scan_0 WHERE es_pid = 1001")[0];
  const std::string trace = messages_at(4, [&] { merge(); });
  verbosity_kelvo = 0;
  const std::string now = rows(sdbl_, "SELECT modified FROM kanalid WHERE channel = 1")[0];
  const std::string look_up =
      "SELECT channel FROM kanalid WHERE network_id = $netid AND orig_network_id = $onid AND tstream_id = $tsid AND "
      "pat_prnr = $prnr AND freq = $freq;  <- 10 10 5 ";
  const std::string renumber = "UPDATE estreams_scan_DVBNR SET channel = $oid_db where channel = $oid_scan; <- ";
  const std::string old_streams = "UPDATE estreams  SET row_status = $row_status where channel = $channel; <- ";
  const std::string equal_streams =
      "SELECT s.oid, e.oid FROM  estreams e, estreams_scan_DVBNR s WHERE e.es_pid = s.es_pid AND e.es_type = s.es_type "
      "AND e.es_subtype = s.es_subtype AND e.codec = s.codec AND e.languages = s.languages AND e.lang_codes = "
      "s.lang_codes AND e.p1 = s.p1 AND e.p2 = s.p2 AND e.ca_sysid = s.ca_sysid AND e.ca_pid = s.ca_pid AND e.channel "
      "= $oid1 and s.channel = $oid2 <- ";
  const std::string add_streams =
      "INSERT INTO estreams SELECT * from estreams_scan_DVBNR where row_status = $row_status and channel = $channel <- ";
  const std::string delete_streams = "DELETE FROM estreams WHERE  row_status = $row_status AND channel = $channel <- ";
  EXPECT_EQ(
      db_support::statements(trace),
      (Texts{
          "SELECT network_id, orig_network_id, tstream_id FROM kanalid_scan_DVBNR WHERE freq = $freq; <- 506000000",
          "UPDATE kanalid SET row_status = $row_stat  WHERE network_id = $net_id AND orig_network_id = $onet_id AND "
          "tstream_id = $ts_id AND freq = $freq <- 1 10 10 5 506000000",
          "UPDATE kanalid_scan_DVBNR SET row_status = $rstat  WHERE network_id = $nid AND orig_network_id = $onid AND "
          "tstream_id = $tsid; <- 2 10 10 5",
          "SELECT channel, network_id, orig_network_id, tstream_id, pat_prnr FROM kanalid_scan_DVBNR WHERE freq = "
          "$freq; <- 506000000",
          renumber + "-" + row_1 + " " + row_1,
          renumber + "-" + row_2 + " " + row_2,
          look_up + "1 506000000",
          "UPDATE kanalid SET row_status = $rstat WHERE channel = $ch; <- 0 1",
          "SELECT network_id FROM kanalid WHERE channel = $ch AND scan_state = $state; <- 1 0",
          "UPDATE kanalid SET modified = $timestamp WHERE channel = $ch; <- " + now + " 1",
          "UPDATE kanalid SET scan_state = $state WHERE channel = $ch; <- 1 1",
          renumber + "1 -" + row_1,
          look_up + "3 506000000",
          "INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, "
          "lcn, pcr_pid, serv_name, serv_type, prov_name, network_name, run_status, free_ca, scan_state, row_status) "
          "SELECT dvb_type, hf_conn, freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, pcr_pid, "
          "serv_name, serv_type, prov_name, network_name, run_status, free_ca, scan_state, row_status  FROM "
          "kanalid_scan_DVBNR WHERE oid = $oid_scan; <- " +
              row_2,
          "UPDATE kanalid set modified = $timestamp where oid = $oid <- " + now + " 3",
          "INSERT INTO kanalid_lang (source_oid, lang, serv_name, prov_name, network_name) SELECT  $oid_db, lang, "
          "serv_name, prov_name, network_name FROM kanalid_lang_scan_DVBNR WHERE source_oid = $oid_scan; <- 3 " +
              row_2,
          renumber + "3 -" + row_2,
          "UPDATE kanalid SET scan_state = $state , modified = $timestamp  WHERE freq = $freq AND dvb_type = $dvb_type "
          "AND hf_conn = $hf_conn AND row_status = $rstat; <- 0 " +
              now + " 506000000 1 2 1",
          "SELECT channel FROM kanalid WHERE hf_conn = $hfc AND dvb_type = $dvbt AND freq = $freq AND row_status != "
          "$rowstat; <- 2 1 506000000 1",
          "UPDATE estreams_scan_DVBNR SET row_status = $row_status <- 2",
          old_streams + "1 1",
          equal_streams + "1 1",
          "UPDATE estreams_scan_DVBNR SET row_status = $row_status where OID = $oid <- 0 " + stream,
          "UPDATE estreams SET row_status = $row_status where OID = $oid <- 0 1",
          add_streams + "2 1",
          delete_streams + "1 1",
          old_streams + "1 3",
          equal_streams + "3 3",
          add_streams + "2 3",
          delete_streams + "1 3",
          "REINDEX estreams <-",
          "UPDATE kanalid SET scan_state = $scan_state , row_status = $row_status WHERE freq = $freq AND dvb_type = "
          "$dvb_type AND pcr_pid != 0 AND hf_conn = $hf_conn AND row_status = $row_status_new <- 1 0 506000000 1 2 2",
      }));
}

TEST_F(Merge, lost_and_back_are_traced) {
  scan({{1}, {2}});
  merge();
  scan({{1}});
  EXPECT_THAT(messages_at(3, [&] { merge(); }),
              testing::EndsWith("Scan from 2 for freq 506000000, ch_add 0, ch_delete 1, estrm_add 0, estrm_delete 0\n"
                                "1 Channels deleted\n"));
  verbosity_kelvo = 0;
  scan({{1}, {2}});
  EXPECT_THAT(messages_at(3, [&] { merge(); }),
              HasSubstr("Updating ROW status for ch oid 2\nflag from 0->1, increment ch found flag\n"));
}

// A view stands for the table; the row of program 2 cannot be computed.
TEST_F(Merge, quirk_streams_of_a_failed_look_up_go_to_the_previous_channel) {
  scan({{1}, {2}});
  merge();
  run(sdbl_, "ALTER TABLE kanalid RENAME TO base");
  ASSERT_EQ(run(sdbl_,
                "CREATE VIEW kanalid AS SELECT CASE pat_prnr WHEN 2 THEN abs(-9223372036854775808) ELSE 77 END "
                "AS channel, network_id, orig_network_id, tstream_id, pat_prnr, freq, hf_conn, dvb_type, "
                "scan_state, row_status FROM base"),
            SQLITE_DONE);
  scan({{1}, {2}});
  EXPECT_THAT(stderr_of([&] { merge(); }), HasSubstr("ERROR: Select into main table returned 1, integer overflow\n"));
  EXPECT_EQ(rows(sdbl_, "SELECT channel, count(*) FROM estreams_scan_0 GROUP BY channel"), (Texts{"77|4"}));
}

TEST_F(Merge, a_failing_look_up_is_an_error_and_the_merge_goes_on) {
  scan({{1}, {2}});
  run(sdbl_, "DROP TABLE kanalid");
  int result = -1;
  const std::string text = stderr_of([&] { result = merge(); });
  EXPECT_EQ(result, 0);
  size_t count = 0;
  for (size_t at = 0;
       (at = text.find("ERROR: Select into main table returned 1, no such table: kanalid\n", at)) != std::string::npos;
       ++at)
    ++count;
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(rows(sdbl_, "SELECT DISTINCT channel FROM estreams_scan_0"), (Texts{"0"}));
  EXPECT_EQ(messages_at(-1, [&] { EXPECT_EQ(merge(), 0); }), "");
}

TEST_F(Merge, extreme_ids_and_hostile_texts_are_stored_as_they_are) {
  const char* hostile = "it's %d \"x\"; DROP TABLE kanalid; -- \xff";
  const int row = sdbl_.pat_for_network(0, TYPE, CONN, FREQ, 65535, -1, 2147483647);
  sdbl_.pmt_channel_number(0, TYPE, CONN, FREQ, 65535, 8191, SCAN_PAT);
  sdbl_.modify_table_oid(row, "kanalid_scan_0", "serv_name", hostile);
  sdbl_.pmt_for_service(0, row, -5, 255, -2147483647 - 1, hostile, hostile, hostile, 65535, 8191, &none_);
  EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(rows(sdbl_, "SELECT pat_prnr, tstream_id, pmt_pid, serv_name FROM kanalid ORDER BY channel"),
            (Texts{std::string("65535|-1|2147483647|") + hostile}));
  EXPECT_EQ(rows(sdbl_, "SELECT es_pid, es_subtype, codec, languages FROM estreams"),
            (Texts{std::string("-5|-2147483648|") + hostile + "|" + hostile}));
}
