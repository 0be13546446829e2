// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using support::messages_at;
using support::prints_only_from;
using support::stderr_of;
using support::Texts;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

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
using Services = std::vector<Service>;

class Merge : public db_support::Database_test {
 protected:
  static constexpr int OTHER_FREQ = FREQ + 8000000;

  Merge() {
    sdbl().create_temp_tables(0);
    sdbl().create_temp_tables(1);
  }

  void stream(int dvbnr, int row, int pid, int type, const char* codec, const std::string& languages) {
    std::list<PMT_subtxt_lang*> none;
    sdbl().pmt_for_service(dvbnr, row, pid, type, 0, codec, languages.c_str(), "", 0, 0, &none);
  }
  // Fills the scan tables as the parsers do.
  void scan(const Services& services, int net_id = 10, int dvbnr = 0, int conn = CONN, int freq = FREQ) {
    sdbl().clear_temp_tables(dvbnr);
    for (const Service& service : services) {
      const int row = sdbl().pat_for_network(dvbnr, TYPE, conn, freq, service.program, 5, 100 + service.program);
      if (!service.pmt)
        continue;
      sdbl().pmt_channel_number(dvbnr, TYPE, conn, freq, service.program, service.pcr_pid, SCAN_PAT);
      stream(dvbnr, row, 1000 + service.program, 27, "H264", "");
      stream(dvbnr, row, 2000 + service.program, 3, "MPEG1", service.sound);
    }
    sdbl().nit_for_network(dvbnr, TYPE, conn, freq, "network_id", net_id);
    sdbl().nit_for_network(dvbnr, TYPE, conn, freq, "orig_network_id", net_id);
  }
  int merge(SCAN_STATE state = SCAN_PAT, int dvbnr = 0, int conn = CONN, int freq = FREQ) {
    return sdbl().update_master_scan_data(dvbnr, TYPE, conn, freq, state);
  }
  int merged(const Services& services, int net_id = 10) {
    scan(services, net_id);
    return merge();
  }
  // As with a channel: its PMT alone, with another video stream.
  void receive_pmt_of_channel(int channel) {
    sdbl().clear_temp_tables(0);
    stream(0, channel, 4000, 27, "H264", "");
  }
  void forget_channels() {
    for (const char* table : {"kanalid", "kanalid_lang", "estreams", "main.sqlite_sequence"})
      run(std::string("DELETE FROM ") + table);
  }
  Texts channels() { return rows("SELECT channel, pat_prnr, scan_state, row_status FROM kanalid ORDER BY channel"); }
  Texts all_of_channels() { return rows("SELECT * FROM kanalid ORDER BY channel"); }
  Texts streams() { return rows("SELECT channel, es_pid, languages FROM estreams ORDER BY channel, es_pid"); }
};

}  // namespace

TEST_F(Merge, other_states_are_refused) {
  scan({{1}});
  for (const SCAN_STATE state : std::vector<SCAN_STATE>{SCAN_NONE, SCAN_EIT, 4, -1})
    EXPECT_THAT([&] { EXPECT_EQ(merge(state), 0); },
                prints_only_from(0, "ERROR: Incorrect scan state entered: " + std::to_string(state) + "\n"));
  EXPECT_EQ(messages_at(3, [&] { EXPECT_EQ(merge(SCAN_EIT), 0); }),
            "ERROR: Incorrect scan state entered: 3\n"
            "Scan from 3 for freq 506000000, ch_add 0, ch_delete 0, estrm_add 0, estrm_delete 0\n");
  EXPECT_EQ(channels(), Texts{});
  EXPECT_EQ(streams(), Texts{});
}

TEST_F(Merge, an_empty_scan_writes_nothing_and_a_missing_scan_table_also_prints_the_code) {
  merged({{1}, {2}});
  const Texts before = all_of_channels();
  scan({});
  const auto merge_nothing = [&] { EXPECT_EQ(merge(), 0); };
  const std::string warning = "WARNING: PAT scan timed out for freq 506000000, no entries in scan table\n";
  EXPECT_THAT(merge_nothing, prints_only_from(1, warning));
  EXPECT_EQ(messages_at(3, merge_nothing), "Master update PAT\n" + warning);
  const auto merge_without = [&] { EXPECT_EQ(merge(SCAN_PAT, 3), 0); };
  EXPECT_THAT(messages_at(1, merge_without), EndsWith(warning + "Error code 1, no such table: kanalid_scan_3"));
  EXPECT_THAT(messages_at(0, merge_without), testing::Not(HasSubstr("Error code")));
  EXPECT_EQ(all_of_channels(), before);
}

TEST_F(Merge, new_services_are_added_with_their_streams) {
  const int before = static_cast<int>(time(nullptr));
  EXPECT_EQ(merged({{1}, {2}}), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(
      rows("SELECT channel, pat_prnr, pmt_pid, pcr_pid, network_id, orig_network_id, tstream_id, lcn, "
           "hf_conn, dvb_type, freq, revision, scan_state, row_status FROM kanalid ORDER BY channel"),
      (Texts{"1|1|101|1000|10|10|5|65535|2|1|506000000|2.5|1|0", "2|2|102|1000|10|10|5|65535|2|1|506000000|2.5|1|0"}));
  EXPECT_GE(number("SELECT min(modified) FROM kanalid ORDER BY channel"), before);
  EXPECT_LE(number("SELECT max(modified) FROM kanalid ORDER BY channel"), static_cast<int>(time(nullptr)));
  EXPECT_EQ(rows("SELECT channel, revision, es_pid, es_type, codec, languages FROM estreams ORDER BY oid"),
            (Texts{"1|2.5|1001|27|H264|", "1|2.5|2001|3|MPEG1|eng", "2|2.5|1002|27|H264|", "2|2.5|2002|3|MPEG1|eng"}));
}

TEST_F(Merge, a_new_service_has_every_column_of_the_scan) {
  scan({{1}});
  run("UPDATE kanalid_scan_0 SET pmt_pid = 31, network_id = 32, orig_network_id = 33, tstream_id = 34, lcn = 35, "
      "pcr_pid = 36, serv_name = 'Service', serv_type = 37, prov_name = 'Provider', network_name = 'Network', "
      "run_status = 4, free_ca = 1, modified = 5");
  sdbl().modify_lang_table_oid(number("SELECT channel FROM kanalid_scan_0"), "kanalid_lang_scan_0", "eng", "serv_name",
                               "English service");
  run("UPDATE kanalid_lang_scan_0 SET prov_name = 'English provider', network_name = 'English network'");
  merge();
  EXPECT_EQ(rows("SELECT pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, pcr_pid, serv_name, "
                 "serv_type, prov_name, network_name, run_status, free_ca, hf_conn, dvb_type, freq FROM kanalid"),
            (Texts{"1|31|32|33|34|35|36|Service|37|Provider|Network|4|1|2|1|506000000"}));
  EXPECT_GT(number("SELECT modified FROM kanalid"), 5);
  EXPECT_EQ(rows("SELECT * FROM kanalid_lang"), (Texts{"1|eng|English service|English provider|English network"}));
}

TEST_F(Merge, the_scan_tables_stay_as_they_are_but_for_numbers_and_marks) {
  scan({{1}, {2}});
  const auto scanned = [&] {
    return rows(
        "SELECT s.channel, pat_prnr, serv_name, modified, e.oid, es_pid, languages FROM kanalid_scan_0 s, "
        "estreams_scan_0 e");
  };
  const Texts before = scanned();
  merge();
  EXPECT_EQ(scanned(), before);
}

// A channel of the same frequency that another transport stream had is not this scan's business.
TEST_F(Merge, the_first_row_of_the_scan_says_which_multiplex_it_is) {
  for (const std::string column : {"network_id", "orig_network_id", "tstream_id"}) {
    SCOPED_TRACE(column);
    forget_channels();
    merged({{1}, {2}});
    run("UPDATE kanalid SET " + column + " = 99 WHERE pat_prnr = 2");
    scan({{1}, {4}});
    run("UPDATE kanalid_scan_0 SET " + column + " = 99 WHERE pat_prnr = 4");
    EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED);
    EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|0", "3|4|0|0"}));
  }
}

TEST_F(Merge, names_in_languages_come_with_a_new_service_only) {
  scan({{1}, {2}});
  for (const int row : {1, 2}) {
    sdbl().modify_table_oid(row, "kanalid_scan_0", "serv_name", "it's 100%");
    sdbl().modify_lang_table_oid(row, "kanalid_lang_scan_0", "eng", "serv_name", "'English'");
    sdbl().modify_lang_table_oid(row, "kanalid_lang_scan_0", "est", "prov_name", "Eesti");
  }
  sdbl().modify_lang_table_oid(0, "kanalid_lang_scan_0", "eng", "serv_name", "of no service");
  merge();
  EXPECT_EQ(rows("SELECT serv_name FROM kanalid ORDER BY channel"), (Texts{"it's 100%", "it's 100%"}));
  EXPECT_EQ(rows("SELECT * FROM kanalid_lang ORDER BY oid"),
            (Texts{"1|eng|'English'||", "1|est||Eesti|", "2|eng|'English'||", "2|est||Eesti|"}));
}

TEST_F(Merge, quirk_a_known_service_is_never_refreshed) {
  scan({{1}});
  sdbl().modify_table_oid(1, "kanalid_scan_0", "serv_name", "First");
  merge();
  const Texts before = rows("SELECT * FROM kanalid ORDER BY channel");
  scan({{1, 1234}});
  run("UPDATE kanalid_scan_0 SET serv_name = 'Second', lcn = 7, free_ca = 1, pmt_pid = 99");
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(rows("SELECT * FROM kanalid ORDER BY channel"), before);
}

TEST_F(Merge, a_rescan_that_finds_the_same_changes_nothing) {
  merged({{1}, {2}});
  run("UPDATE kanalid SET modified = 77");
  const auto stored = [&] {
    return rows("SELECT c.*, e.oid, e.channel, es_pid, languages FROM kanalid c, estreams e ORDER BY c.channel, e.oid");
  };
  const Texts before = stored();
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(merged({{2}, {1}}), 0);
    EXPECT_EQ(stored(), before);
  }
}

TEST_F(Merge, services_come_go_and_come_back_under_their_numbers) {
  // Channels as channels() has them, and whether `modified` was set.
  const auto expect = [&](const char* legend, const std::vector<Services>& before, const Services& last, int result,
                          const Texts& channels, const Texts& streams) {
    SCOPED_TRACE(legend);
    forget_channels();
    for (const Services& services : before)
      merged(services);
    run("UPDATE kanalid SET modified = 77");
    EXPECT_EQ(merged(last), result);
    EXPECT_EQ(rows("SELECT channel, pat_prnr, scan_state, row_status, modified > 77 FROM kanalid ORDER BY channel"),
              channels);
    EXPECT_EQ(this->streams(), streams);
  };
  const Services both = {{1}, {2}};
  const Texts same = {"1|1001|", "1|2001|eng", "2|1002|", "2|2002|eng"};
  expect("a lost one keeps its row", {both}, {{2}}, CHANNELS_LOST, {"1|1|0|1|1", "2|2|1|0|0"}, same);
  expect("one that is back counts", {both, {{2}}}, both, CHANNELS_ADDED, {"1|1|1|0|1", "2|2|1|0|0"}, same);
  expect("and not again", {both, {{2}}, both}, both, 0, {"1|1|1|0|0", "2|2|1|0|0"}, same);
  expect("without its PMT", {both}, {{1, 1000, false}, {2}}, 0, {"1|1|1|0|0", "2|2|1|0|0"}, same);
  expect("new, lost and changed at once", {both}, {{2, 1000, true, "fra"}, {3}},
         CHANNELS_ADDED | CHANNELS_LOST | STREAMS_ADDED | STREAMS_DELETED, {"1|1|0|1|1", "2|2|1|0|0", "3|3|1|0|1"},
         {"1|1001|", "1|2001|eng", "2|1002|", "2|2002|fra", "3|1003|", "3|2003|eng"});
  expect("new without a PCR PID: stays new", {}, {{1, 0}, {2}}, CHANNELS_ADDED | STREAMS_ADDED,
         {"1|1|0|2|1", "2|2|1|0|1"}, same);
  expect("listed twice: one channel, both rows' streams", {}, {{1}, {1}, {2}}, CHANNELS_ADDED | STREAMS_ADDED,
         {"1|1|1|0|1", "2|2|1|0|1"}, {"1|1001|", "1|1001|", "1|2001|eng", "1|2001|eng", "2|1002|", "2|2002|eng"});
}

TEST_F(Merge, quirk_a_service_that_stays_lost_is_counted_at_every_full_scan) {
  merged({{1}, {2}});
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(merged({{2}}), CHANNELS_LOST);
  }
}

TEST_F(Merge, a_change_in_any_column_of_a_stream_is_one_added_and_one_deleted) {
  merged({{1}});
  for (const std::string change :
       {"es_pid = 77", "es_type = 4", "es_subtype = -5", "codec = 'AAC'", "languages = 'fra'", "lang_codes = 'abc'",
        "p1 = 7", "p2 = 8", "ca_sysid = 1280", "ca_pid = 496"}) {
    SCOPED_TRACE(change);
    merged({{1}});
    scan({{1}});
    run("UPDATE estreams_scan_0 SET " + change + " WHERE es_pid = 2001");
    EXPECT_EQ(messages_at(2, [&] { EXPECT_EQ(merge(), STREAMS_ADDED | STREAMS_DELETED); }),
              "Added 1 estream entries for channel 1\nDeleted 1 estream entries for channel 1\n"
              "estreams modified, reindexing");
    EXPECT_EQ(number("SELECT count(*) FROM estreams WHERE " + change), 1);
    EXPECT_EQ(number("SELECT count(*) FROM estreams"), 2);
  }
}

TEST_F(Merge, an_added_stream_and_a_deleted_stream_have_their_own_bits) {
  merged({{1}});
  scan({{1}});
  run("INSERT INTO estreams_scan_0 (channel, es_pid) SELECT channel, 99 FROM kanalid_scan_0");
  const auto told = [this](int expected) { return messages_at(2, [&] { EXPECT_EQ(merge(), expected); }); };
  EXPECT_EQ(told(STREAMS_ADDED), "Added 1 estream entries for channel 1\nestreams modified, reindexing");
  scan({{1}});
  EXPECT_EQ(told(STREAMS_DELETED), "Deleted 1 estream entries for channel 1\nestreams modified, reindexing");
  EXPECT_EQ(streams(), (Texts{"1|1001|", "1|2001|eng"}));
  scan({{1}});
  EXPECT_EQ(told(0), "");
}

TEST_F(Merge, quirk_a_service_without_a_pcr_pid_counts_as_added_twice) {
  merged({{1, 0}, {2}});
  EXPECT_EQ(merged({{1, 0}, {2}}), CHANNELS_ADDED);
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|0"}));
  EXPECT_EQ(merged({{1, 0}, {2}}), 0);
}

TEST_F(Merge, a_service_under_other_network_ids_is_refused_by_the_index) {
  merged({{1}});
  const Texts before = all_of_channels();
  const Texts streams_before = streams();
  scan({{1}}, 11);
  sdbl().modify_lang_table_oid(number("SELECT channel FROM kanalid_scan_0"), "kanalid_lang_scan_0", "eng", "serv_name",
                               "Moved");
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(merge(), 0); }),
              MatchesRegex("ERROR: Sqlite_step failed for INSERT INTO kanalid .* , error UNIQUE constraint failed: "
                           "kanalid.hf_conn, kanalid.dvb_type, kanalid.freq, kanalid.pat_prnr\n"));
  EXPECT_EQ(all_of_channels(), before);
  EXPECT_EQ(rows("SELECT * FROM kanalid_lang"), Texts{});
  EXPECT_EQ(streams(), streams_before);
  EXPECT_EQ(rows("SELECT DISTINCT channel FROM estreams_scan_0"), (Texts{"0"}));
}

TEST_F(Merge, a_refused_service_does_not_get_the_streams_of_the_next) {
  merged({{1}});
  scan({{1}, {2}}, 11);
  (void)stderr_of([&] { EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED); });
  EXPECT_EQ(rows("SELECT pat_prnr, network_id FROM kanalid ORDER BY channel"), (Texts{"1|10", "2|11"}));
  EXPECT_EQ(rows("SELECT c.pat_prnr, e.es_pid FROM estreams e JOIN kanalid c USING (channel) ORDER BY e.oid"),
            (Texts{"1|1001", "1|2001", "2|1002", "2|2002"}));
}

// Scan rows and channels are both numbered from 1. Here rows 1 and 2 are channels 2 and 1, or row 1 is channel 5 and
// each other row the channel before.
TEST_F(Merge, streams_stay_with_their_service_when_numbers_cross_or_chain) {
  for (const auto& [first, second] : std::vector<std::pair<Services, Services>>{
           {{{20}, {10}}, {{10}, {20}}}, {{{1}, {2}, {3}, {4}, {5}}, {{5}, {1}, {2}, {3}, {4}}}}) {
    SCOPED_TRACE(first.size());
    forget_channels();
    merged(first);
    const Texts before = streams();
    sdbl().create_temp_tables(0);
    scan(second);
    for (size_t row = 1; row <= second.size(); ++row)
      EXPECT_EQ(number("SELECT pat_prnr FROM kanalid_scan_0 WHERE channel = " + std::to_string(row)),
                second[row - 1].program);
    EXPECT_EQ(merge(), 0);
    EXPECT_EQ(streams(), before);
  }
}

TEST_F(Merge, a_pmt_scan_compares_streams_only) {
  merged({{1}, {2}});
  run("UPDATE kanalid SET modified = 77");
  const Texts before = all_of_channels();
  sdbl().clear_temp_tables(0);
  // With a channel, streams are written under its number, and there are no scanned services.
  stream(0, 2, 1002, 27, "H264", "");
  stream(0, 2, 3002, 3, "MPEG1", "fra");
  EXPECT_EQ(merge(SCAN_PMT), STREAMS_ADDED | STREAMS_DELETED);
  EXPECT_EQ(all_of_channels(), before);
  EXPECT_EQ(streams(), (Texts{"1|1001|", "1|2001|eng", "2|1002|", "2|3002|fra"}));
}

TEST_F(Merge, a_pmt_scan_leaves_lost_and_unconfirmed_services_alone) {
  merged({{1, 0}, {2}});
  merged({{1, 0}});
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|0|1"}));
  run("UPDATE kanalid SET row_status = 2, scan_state = 0 WHERE channel = 1");
  receive_pmt_of_channel(2);
  EXPECT_EQ(merge(SCAN_PMT), 0);
  EXPECT_EQ(channels(), (Texts{"1|1|0|2", "2|2|0|1"}));
}

TEST_F(Merge, another_frequency_is_left_alone) {
  scan({{1}, {2}}, 10, 0, CONN, OTHER_FREQ);
  merge(SCAN_PAT, 0, CONN, OTHER_FREQ);
  EXPECT_EQ(merged({{1}}), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(merged({{7}}), CHANNELS_ADDED | STREAMS_ADDED | CHANNELS_LOST);
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|0", "3|1|0|1", "4|7|1|0"}));
}

TEST_F(Merge, streams_of_channels_elsewhere_are_left_alone) {
  for (const std::string other : {"hf_conn = 3", "dvb_type = 2", "freq = 514000000"}) {
    SCOPED_TRACE(other);
    forget_channels();
    merged({{1}, {2}});
    const Texts before = streams();
    receive_pmt_of_channel(2);
    run("UPDATE kanalid SET " + other + " WHERE pat_prnr = 2");
    EXPECT_EQ(merge(SCAN_PMT), 0);
    EXPECT_EQ(streams(), before);
    run("UPDATE kanalid SET hf_conn = 2, dvb_type = 1, freq = 506000000 WHERE pat_prnr = 2");
    EXPECT_EQ(merge(SCAN_PMT), STREAMS_ADDED | STREAMS_DELETED);
  }
}

TEST_F(Merge, only_services_of_this_input_and_frequency_are_lost_or_confirmed) {
  merged({{1}, {2}});
  // Not seen again, and the same multiplex for another delivery type.
  run("UPDATE kanalid SET dvb_type = 2, modified = 77 WHERE channel = 2");
  run("INSERT INTO kanalid (hf_conn, dvb_type, freq, pat_prnr, pcr_pid, row_status) VALUES "
      "(3, 1, 506000000, 9, 1000, 2), (2, 2, 506000000, 9, 1000, 2), (2, 1, 514000000, 9, 1000, 2)");
  EXPECT_EQ(merged({{1}}), 0);
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|1", "3|9|0|2", "4|9|0|2", "5|9|0|2"}));
  EXPECT_EQ(number("SELECT modified FROM kanalid WHERE channel = 2"), 77);
}

TEST_F(Merge, two_instances_merge_from_their_own_tables) {
  scan({{1}}, 10, 0);
  scan({{1}, {2}}, 10, 1, CONN, OTHER_FREQ);
  EXPECT_EQ(merge(SCAN_PAT, 1, CONN, OTHER_FREQ), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(merge(SCAN_PAT, 0), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(rows("SELECT channel, freq, pat_prnr FROM kanalid ORDER BY channel"),
            (Texts{"1|514000000|1", "2|514000000|2", "3|506000000|1"}));
  EXPECT_EQ(number("SELECT count(*) FROM estreams WHERE channel = 3"), 2);
}

TEST_F(Merge, quirk_the_same_multiplex_on_another_input_confirms_the_first_inputs_channels) {
  merged({{1}, {2}});
  scan({{1}, {3}}, 10, 1, CONN + 1);
  EXPECT_EQ(merge(SCAN_PAT, 1, CONN + 1), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(rows("SELECT channel, hf_conn, pat_prnr, scan_state, row_status FROM kanalid ORDER BY channel"),
            (Texts{"1|2|1|1|0", "2|2|2|1|1", "3|3|3|1|0"}));
}

TEST_F(Merge, a_timed_out_multiplex_is_marked_and_found_again_without_being_counted) {
  merged({{1}, {2}});
  run("INSERT INTO kanalid (freq, hf_conn, dvb_type, pat_prnr) VALUES "
      "(506000000, 3, 1, 9), (506000000, 2, 2, 9), (514000000, 2, 1, 9)");
  run("UPDATE kanalid SET modified = 77");
  EXPECT_EQ(sdbl().set_master_scan_timeout(TYPE, CONN, FREQ), 0);
  EXPECT_EQ(channels(), (Texts{"1|1|2|0", "2|2|2|0", "3|9|0|0", "4|9|0|0", "5|9|0|0"}));
  EXPECT_EQ(merged({{1}, {2}}), 0);
  EXPECT_EQ(channels(), (Texts{"1|1|1|0", "2|2|1|0", "3|9|0|0", "4|9|0|0", "5|9|0|0"}));
  EXPECT_EQ(rows("SELECT DISTINCT modified FROM kanalid"), (Texts{"77"}));
}

TEST_F(Merge, a_timeout_is_announced_at_level_1) {
  EXPECT_THAT([&] { sdbl().set_master_scan_timeout(TYPE, CONN, FREQ); },
              prints_only_from(1, "WARNING: Setting timeout for mux 506000000\n"));
}

TEST_F(Merge, a_timeout_that_cannot_be_stored_is_an_error) {
  run("DROP TABLE kanalid");
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(sdbl().set_master_scan_timeout(TYPE, CONN, FREQ), 1); }),
              MatchesRegex("ERROR: query UPDATE kanalid .* prepare failed: no such table: kanalid"
                           "ERROR: sql_cache lookup failed for UPDATE kanalid .*;"
                           "ERROR: SQLite RUN rc 1 at set_master_scan_timeout, [0-9]+\n"));
}

TEST_F(Merge, progress_of_a_full_scan_is_traced) {
  scan({{1}});
  EXPECT_EQ(messages_at(1, [&] { merge(); }), "");
  scan({{1, 1000, true, "fra"}, {2}});
  const std::string row_1 = text("SELECT min(channel) FROM kanalid_scan_0");
  const std::string row_2 = text("SELECT max(channel) FROM kanalid_scan_0");
  const std::string stream = text("SELECT min(oid) FROM estreams_scan_0");
  EXPECT_EQ(messages_at(3, [&] { merge(); }),
            "Master update PAT\n"
            "update_master_scan_data: instance 0 dvb_type 1 hf_conn 2 Freq 506000000 net_id 10, onet_id 10, tstream_id "
            "5\n"
            "Pat scan table: oid_scan " +
                row_1 + " net_id 10 onet_id 10 ts_id 5 service 1Updating ROW status for ch oid 1\n" +
                "Pat scan table: oid_scan " + row_2 + " net_id 10 onet_id 10 ts_id 5 service 2inserted row " + row_2 +
                "@kanalid_scan -> 2@kanalid\nMaster update PMT\nStreams for ch 1 (Scan = Main): " + stream +
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

TEST_F(Merge, lost_and_back_are_traced) {
  merged({{1}, {2}});
  scan({{1}});
  EXPECT_THAT(messages_at(3, [&] { merge(); }),
              EndsWith("Scan from 2 for freq 506000000, ch_add 0, ch_delete 1, estrm_add 0, estrm_delete 0\n"
                       "1 Channels deleted\n"));
  scan({{1}, {2}});
  EXPECT_THAT(messages_at(3, [&] { merge(); }),
              HasSubstr("Updating ROW status for ch oid 2\nflag from 0->1, increment ch found flag\n"));
}

TEST_F(Merge, levels_1_and_2_show_the_streams_only) {
  const auto merge_all = [&] { EXPECT_EQ(merge(), CHANNELS_ADDED | CHANNELS_LOST | STREAMS_ADDED | STREAMS_DELETED); };
  merged({{1}, {2}});
  scan({{2, 1000, true, "fra"}, {3}});
  EXPECT_EQ(messages_at(1, merge_all), "");
  scan({{1, 1000, true, "fra"}, {2}, {4}});
  EXPECT_EQ(messages_at(2, merge_all),
            "Added 1 estream entries for channel 1\n"
            "Deleted 1 estream entries for channel 1\n"
            "Added 1 estream entries for channel 2\n"
            "Deleted 1 estream entries for channel 2\n"
            "Added 2 estream entries for channel 4\n"
            "estreams modified, reindexing");
}

TEST_F(Merge, statements_of_a_full_scan_are_these_in_this_order) {
  merged({{1}, {2}});
  run("UPDATE kanalid SET scan_state = 0 WHERE channel = 1");
  scan({{1, 1000, true, "fra"}, {3}});
  const std::string row_1 = text("SELECT min(channel) FROM kanalid_scan_0");
  const std::string row_2 = text("SELECT max(channel) FROM kanalid_scan_0");
  const std::string stream = text("SELECT oid FROM estreams_scan_0 WHERE es_pid = 1001");
  const std::string trace = messages_at(4, [&] { merge(); });
  const std::string now = text("SELECT modified FROM kanalid WHERE channel = 1");
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
      support::statements_in(trace),
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

// A view stands for the table; the row of program 2 cannot be computed.
TEST_F(Merge, quirk_streams_of_a_failed_look_up_go_to_the_previous_channel) {
  merged({{1}, {2}});
  run("ALTER TABLE kanalid RENAME TO base");
  ASSERT_EQ(run("CREATE VIEW kanalid AS SELECT CASE pat_prnr WHEN 2 THEN abs(-9223372036854775808) ELSE 77 END "
                "AS channel, network_id, orig_network_id, tstream_id, pat_prnr, freq, hf_conn, dvb_type, "
                "scan_state, row_status FROM base"),
            SQLITE_DONE);
  scan({{1}, {2}});
  EXPECT_THAT(stderr_of([&] { merge(); }), HasSubstr("ERROR: Select into main table returned 1, integer overflow\n"));
  EXPECT_EQ(rows("SELECT channel, count(*) FROM estreams_scan_0 GROUP BY channel"), (Texts{"77|4"}));
}

TEST_F(Merge, a_failing_look_up_is_an_error_and_the_merge_goes_on) {
  scan({{1}, {2}});
  run("DROP TABLE kanalid");
  const auto merge_failing = [&] { EXPECT_EQ(merge(), 0); };
  EXPECT_EQ(support::count_of(messages_at(0, merge_failing),
                              "ERROR: Select into main table returned 1, no such table: kanalid\n"),
            2u);
  EXPECT_EQ(rows("SELECT DISTINCT channel FROM estreams_scan_0"), (Texts{"0"}));
  EXPECT_EQ(messages_at(-1, merge_failing), "");
}

TEST_F(Merge, extreme_ids_and_hostile_texts_are_stored_as_they_are) {
  const std::string hostile = "it's %d \"x\"; DROP TABLE kanalid; -- \xff";
  const char* text = hostile.c_str();
  const int row = sdbl().pat_for_network(0, TYPE, CONN, FREQ, 65535, -1, 2147483647);
  sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 65535, 8191, SCAN_PAT);
  sdbl().modify_table_oid(row, "kanalid_scan_0", "serv_name", text);
  std::list<PMT_subtxt_lang*> none;
  sdbl().pmt_for_service(0, row, -5, 255, -2147483647 - 1, text, text, text, 65535, 8191, &none);
  EXPECT_EQ(merge(), CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_EQ(rows("SELECT pat_prnr, tstream_id, pmt_pid, serv_name FROM kanalid"),
            (Texts{"65535|-1|2147483647|" + hostile}));
  EXPECT_EQ(rows("SELECT es_pid, es_subtype, codec, languages FROM estreams"),
            (Texts{"-5|-2147483648|" + hostile + "|" + hostile}));
}

// --- Without room
// ------------------------------------------------------------------------------------------------------

namespace {

class Merge_room : public Merge {
 protected:
  static constexpr char REFUSED[] = "ERROR: No room for the channels of 506000000 Hz: nothing is stored, rc = 13\n";

  // The channel file may grow by this many pages.
  void limit(int pages) {
    const int count = number("PRAGMA main.page_count") - number("PRAGMA main.freelist_count") + pages;
    ASSERT_EQ(number("PRAGMA main.max_page_count=" + std::to_string(count)), count);
  }
  static Services services(int count) {
    Services all;
    for (int program = 1; program <= count; ++program)
      all.push_back({program});
    return all;
  }
  Texts everything() {
    Texts all = all_of_channels();
    for (const char* table : {"kanalid_lang", "estreams", "main.sqlite_sequence"})
      for (const std::string& row : Database_test::table(table))
        all.push_back(row);
    return all;
  }
};

}  // namespace

// The file would be damaged: what an insert has written until it finds no page cannot be undone.
TEST_F(Merge_room, what_does_not_fit_for_certain_is_refused_whole_and_stored_by_a_later_scan) {
  EXPECT_EQ(merged(services(20)), CHANNELS_ADDED | STREAMS_ADDED);
  const Texts before = everything();
  scan(services(50));
  int pages = 0;
  int result = 0;
  for (; result == 0 && pages < 200; ++pages) {
    limit(pages);
    const std::string text = messages_at(0, [&] { result = merge(); });
    EXPECT_EQ(text, result == 0 ? REFUSED : "") << pages;
    EXPECT_EQ(everything() == before, result == 0) << pages;
    ASSERT_EQ(rows("PRAGMA main.integrity_check"), (Texts{"ok"})) << pages;
  }
  EXPECT_EQ(result, CHANNELS_ADDED | STREAMS_ADDED);
  EXPECT_GT(pages, 32);
  EXPECT_LT(pages, 100) << "no more is asked for than what was found may need";
  EXPECT_EQ(number("SELECT count(*) FROM kanalid"), 50);
  EXPECT_EQ(number("SELECT count(*) FROM estreams"), 100);
}

TEST_F(Merge_room, what_is_known_needs_none) {
  merged(services(20));
  merged(services(20));  // which clears the marks of new rows
  const Texts before = everything();
  limit(0);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merged(services(20)), 0); }), "");
  EXPECT_EQ(everything(), before);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merged(services(18)), CHANNELS_LOST); }), "");
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merged(services(20)), CHANNELS_ADDED); }), "");
  EXPECT_EQ(rows("PRAGMA main.integrity_check"), (Texts{"ok"}));
}

TEST_F(Merge_room, another_stream_of_a_channel_needs_room) {
  merged({{1}});
  receive_pmt_of_channel(1);
  limit(0);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(merge(SCAN_PMT), 0); }), REFUSED);
  EXPECT_EQ(streams(), (Texts{"1|1001|", "1|2001|eng"}));
  Database_error error;
  EXPECT_TRUE(sdbl().first_error(&error));
  EXPECT_EQ(error.code, SQLITE_FULL);
  EXPECT_STREQ(error.operation, "update_master_scan_data");
  limit(100);
  EXPECT_EQ(merge(SCAN_PMT), STREAMS_ADDED | STREAMS_DELETED);
  EXPECT_EQ(streams(), (Texts{"1|4000|"}));
}
