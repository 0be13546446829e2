// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using support::messages_at;
using support::stderr_of;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr int FREQ = 506000000;
constexpr int TYPE = 1;
constexpr int CONN = 2;
constexpr char HOSTILE[] = "it's 100% \"odd\"; DROP TABLE kanalid; -- \xff\xc3";

class Scan : public db_support::Database_test {
 protected:
  Scan() {
    sdbl().create_temp_tables(0);
    sdbl().create_temp_tables(3);
  }

  int pat(int program, int dvbnr = 0) {
    return sdbl().pat_for_network(dvbnr, TYPE, CONN, FREQ, program, 5, 100 + program);
  }
  int stream(int channel, std::list<PMT_subtxt_lang*>* subtxt, const char* languages = "eng") {
    return sdbl().pmt_for_service(0, channel, 513, 6, 77, "TXT", languages, "codes", 0x500, 0x1F0, subtxt);
  }

  std::list<PMT_subtxt_lang*> none_;
};

using Rows_of_tables = Scan;
using Channel_list = Scan;

}  // namespace

TEST_F(Scan, pat_writes_a_row_for_each_program_and_returns_its_number) {
  EXPECT_EQ(pat(10), 1);
  EXPECT_EQ(pat(11), 2);
  EXPECT_EQ(rows("SELECT channel, dvb_type, hf_conn, freq, pat_prnr, tstream_id, pmt_pid, lcn, row_status FROM "
                 "kanalid_scan_0"),
            (Texts{"1|1|2|506000000|10|5|110|65535|0", "2|1|2|506000000|11|5|111|65535|0"}));
  EXPECT_EQ(number("SELECT count(*) FROM kanalid_scan_3"), 0);
}

TEST_F(Scan, pat_row_numbers_of_instances_are_their_own) {
  EXPECT_EQ(pat(10, 0), 1);
  EXPECT_EQ(pat(10, 3), 1);
  EXPECT_EQ(pat(11, 3), 2);
  EXPECT_EQ(pat(11, 0), 2);
}

TEST_F(Scan, a_program_may_be_listed_twice) {
  EXPECT_EQ(pat(10), 1);
  EXPECT_EQ(pat(10), 2);
}

TEST_F(Scan, pat_without_a_frequency_stores_nothing_and_prints_an_error) {
  EXPECT_THAT(stderr_of([&] { sdbl().pat_for_network(0, TYPE, CONN, 0, 1, 2, 3); }),
              HasSubstr("error CHECK constraint failed: freq  > 0\n"));
  EXPECT_EQ(number("SELECT count(*) FROM kanalid_scan_0"), 0);
}

TEST_F(Scan, every_writer_names_itself_when_its_table_is_missing) {
  // The messages about the statement itself come first, without a newline at their end.
  const auto last_error = [](const std::function<void()>& action) {
    const std::string text = stderr_of(action);
    const size_t at = text.rfind("ERROR: SQLite RUN");
    return at == std::string::npos ? text : text.substr(at);
  };
  EXPECT_THAT(last_error([&] { sdbl().pat_for_network(1, TYPE, CONN, FREQ, 1, 2, 3); }),
              MatchesRegex("ERROR: SQLite RUN rc 1 at pat_for_network, [0-9]+\n"));
  EXPECT_THAT(last_error([&] { EXPECT_EQ(sdbl().sdt_for_service(1, TYPE, CONN, FREQ, 1, 4, 1), 0); }),
              MatchesRegex("ERROR: SQLite RUN rc 1 at sdt_for_service, [0-9]+\n"));
  EXPECT_THAT(last_error([&] { EXPECT_EQ(sdbl().pmt_channel_number(1, TYPE, CONN, FREQ, 1, 300, SCAN_PAT), 0); }),
              MatchesRegex("ERROR: SQLite RUN rc 1 at pmt_channel_number, [0-9]+\n"));
  EXPECT_THAT(last_error([&] { EXPECT_EQ(sdbl().nit_network_name(1, TYPE, CONN, FREQ, 1, "Name"), 1); }),
              MatchesRegex("ERROR: SQLite RUN rc 1 at nit_network_name, [0-9]+\n"));
  EXPECT_EQ(messages_at(-1,
                        [&] {
                          sdbl().pat_for_network(1, TYPE, CONN, FREQ, 1, 2, 3);
                          sdbl().sdt_for_service(1, TYPE, CONN, FREQ, 1, 4, 1);
                          sdbl().pmt_channel_number(1, TYPE, CONN, FREQ, 1, 300, SCAN_PAT);
                          sdbl().nit_network_name(1, TYPE, CONN, FREQ, 1, "Name");
                        }),
            "");
}

TEST_F(Scan, streams_that_are_refused_print_step_and_reset) {
  run("CREATE UNIQUE INDEX u ON estreams_scan_0 (es_pid)");
  stream(9, &none_);
  EXPECT_THAT(stderr_of([&] { EXPECT_EQ(stream(9, &none_), 1); }),
              MatchesRegex("ERROR: SQLite RUN rc 2067 at pmt_for_service, [0-9]+\n"
                           "ERROR: SQLite reset rc 2067 at pmt_for_service, [0-9]+\n"));
  std::list<PMT_subtxt_lang*> subtxt = {new PMT_subtxt_lang{"est", 5, 6, 7}, new PMT_subtxt_lang{"eng", 5, 6, 7}};
  EXPECT_THAT(stderr_of([&] { EXPECT_EQ(stream(9, &subtxt), 1); }),
              MatchesRegex("(ERROR: SQLite RUN rc 2067 at pmt_for_service, [0-9]+\n"
                           "ERROR: SQLite reset rc 2067 at pmt_for_service, [0-9]+\n){2}"));
  EXPECT_TRUE(subtxt.empty());
  EXPECT_EQ(messages_at(-1, [&] { stream(9, &none_); }), "");
  EXPECT_EQ(number("SELECT count(*) FROM estreams_scan_0"), 1);
}

TEST_F(Scan, writers_without_their_table_print_errors_and_return_1) {
  int rc = 0;
  const std::string text = stderr_of([&] { rc = sdbl().nit_lcn(1, TYPE, CONN, 1, 2, 3, 4); });
  EXPECT_EQ(rc, 1);
  EXPECT_THAT(text, HasSubstr("prepare failed: no such table: kanalid_scan_1ERROR: sql_cache lookup failed for "));
  EXPECT_THAT(text, MatchesRegex(".*ERROR: SQLite RUN rc 1 at nit_lcn, [0-9]+\n"));
  EXPECT_EQ(messages_at(-1, [&] { rc = sdbl().nit_lcn(1, TYPE, CONN, 1, 2, 3, 4); }), "");
}

TEST_F(Scan, sdt_stores_status_and_mode_of_a_known_service) {
  pat(10);
  pat(11);
  EXPECT_EQ(sdbl().sdt_for_service(0, TYPE, CONN, FREQ, 11, 4, 1), 2);
  EXPECT_EQ(rows("SELECT pat_prnr, run_status, free_ca FROM kanalid_scan_0"), (Texts{"10|0|0", "11|4|1"}));
}

TEST_F(Scan, sdt_of_a_program_that_is_not_in_the_pat_updates_nothing_and_returns_0) {
  pat(10);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl().sdt_for_service(0, TYPE, CONN, FREQ, 99, 4, 1), 0); }), "");
  EXPECT_EQ(sdbl().sdt_for_service(0, TYPE, CONN, FREQ + 1, 10, 4, 1), 0);
  EXPECT_EQ(sdbl().sdt_for_service(0, TYPE + 1, CONN, FREQ, 10, 4, 1), 0);
  EXPECT_EQ(sdbl().sdt_for_service(0, TYPE, CONN + 1, FREQ, 10, 4, 1), 0);
  EXPECT_EQ(rows("SELECT run_status, free_ca FROM kanalid_scan_0"), (Texts{"0|0"}));
}

TEST_F(Scan, pmt_number_in_a_full_scan_is_the_scan_row_and_stores_the_pcr_pid) {
  run("INSERT INTO kanalid (channel, dvb_type, hf_conn, freq, pat_prnr) VALUES (77, 1, 2, 506000000, 10)");
  pat(10);
  EXPECT_EQ(sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 300, SCAN_PAT), 1);
  EXPECT_EQ(rows("SELECT pcr_pid FROM kanalid_scan_0"), (Texts{"300"}));
  EXPECT_EQ(rows("SELECT pcr_pid FROM kanalid"), (Texts{"0"}));
  EXPECT_EQ(sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 99, 301, SCAN_PAT), 0);
  EXPECT_EQ(rows("SELECT pcr_pid FROM kanalid_scan_0"), (Texts{"300"}));
}

TEST_F(Scan, pmt_number_in_other_states_is_the_channel_and_writes_nothing) {
  run("INSERT INTO kanalid (channel, dvb_type, hf_conn, freq, pat_prnr) VALUES (77, 1, 2, 506000000, 10)");
  pat(10);
  EXPECT_EQ(messages_at(1,
                        [&] {
                          for (const SCAN_STATE state : {SCAN_NONE, SCAN_PMT, SCAN_EIT}) {
                            EXPECT_EQ(sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 300, state), 77);
                            EXPECT_EQ(sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 0, state), 77);
                            EXPECT_EQ(sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 11, 300, state), 0);
                          }
                        }),
            "");
  EXPECT_EQ(rows("SELECT pcr_pid FROM kanalid_scan_0"), (Texts{"0"}));
  EXPECT_EQ(rows("SELECT pcr_pid FROM kanalid"), (Texts{"0"}));
}

TEST_F(Scan, pmt_without_a_pcr_pid_warns_and_stores_0) {
  pat(10);
  sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 300, SCAN_PAT);
  EXPECT_EQ(stderr_of([&] { sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 0, SCAN_PAT); }), "");
  EXPECT_EQ(rows("SELECT pcr_pid FROM kanalid_scan_0"), (Texts{"0"}));
  EXPECT_EQ(messages_at(1, [&] { EXPECT_EQ(sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 0, SCAN_PAT), 1); }),
            "WARNING: pmt_for_service:  pcr_pid = 0\n");
}

TEST_F(Scan, a_stream_without_list_entries_is_one_row) {
  EXPECT_EQ(stream(9, &none_), 1);
  EXPECT_EQ(rows("SELECT * FROM estreams_scan_0"), (Texts{"9|2.5|513|6|77|TXT|eng|codes|0|0|1280|496|0"}));
}

TEST_F(Scan, three_list_entries_are_three_rows_that_differ_in_four_columns) {
  std::list<PMT_subtxt_lang*> subtxt = {
      new PMT_subtxt_lang{"est", static_cast<int32_t>(0x80003002u), 0x100, 1},
      new PMT_subtxt_lang{"r", static_cast<int32_t>(0x80003005u), 0x888, 0},
      new PMT_subtxt_lang{HOSTILE, -1, -2147483647 - 1, 2147483647},
  };
  EXPECT_EQ(stream(9, &subtxt), 1);
  EXPECT_TRUE(subtxt.empty());
  const std::string same = "9|2.5|513|6|";
  EXPECT_EQ(
      rows("SELECT * FROM estreams_scan_0 ORDER BY oid"),
      (Texts{same + "-2147471358|TXT|est|codes|256|1|1280|496|0", same + "-2147471355|TXT|r|codes|2184|0|1280|496|0",
             same + "-1|TXT|" + HOSTILE + "|codes|-2147483648|2147483647|1280|496|0"}));
}

TEST_F(Scan, values_of_a_list_do_not_reach_the_next_stream) {
  std::list<PMT_subtxt_lang*> subtxt = {new PMT_subtxt_lang{"est", 5, 6, 7}};
  stream(9, &subtxt);
  stream(9, &none_);
  EXPECT_EQ(rows("SELECT es_subtype, languages, p1, p2 FROM estreams_scan_0 ORDER BY oid"),
            (Texts{"5|est|6|7", "77|eng|0|0"}));
}

TEST_F(Scan, quirk_short_language_of_a_stream_is_empty_but_not_that_of_an_entry) {
  stream(9, &none_, "en");
  std::list<PMT_subtxt_lang*> subtxt = {new PMT_subtxt_lang{"en", 5, 6, 7}};
  stream(9, &subtxt);
  EXPECT_EQ(rows("SELECT languages FROM estreams_scan_0 ORDER BY oid"), (Texts{"", "en"}));
}

TEST_F(Scan, the_list_is_emptied_even_when_the_table_is_missing) {
  std::list<PMT_subtxt_lang*> subtxt = {new PMT_subtxt_lang{"est", 5, 6, 7}, new PMT_subtxt_lang{"eng", 5, 6, 7}};
  verbosity_kelvo = -1;
  EXPECT_EQ(sdbl().pmt_for_service(1, 1, 513, 6, 77, "TXT", "", "", 0, 0, &subtxt), 1);
  EXPECT_TRUE(subtxt.empty());
}

TEST_F(Scan, streams_are_traced_by_kind) {
  std::list<PMT_subtxt_lang*> subtxt = {new PMT_subtxt_lang{"est", 5, 6, 7}};
  EXPECT_THAT(messages_at(4, [&] { stream(9, &none_); }), HasSubstr("Inserting AV entry \n"));
  EXPECT_THAT(messages_at(4, [&] { stream(9, &subtxt); }), HasSubstr("Inserting SUB/TXT entry \n"));
  verbosity_kelvo = 3;
  subtxt = {new PMT_subtxt_lang{"est", 5, 6, 7}};
  EXPECT_EQ(stderr_of([&] { stream(9, &none_); }), "");
  EXPECT_EQ(stderr_of([&] { stream(9, &subtxt); }), "");
}

TEST_F(Scan, every_writer_runs_its_statements) {
  pat(10);
  // The statements that are traced while `action` runs, in their order.
  const auto statements = [](const std::function<void()>& action) {
    const std::string text = messages_at(4, action);
    Texts found;
    for (const char* start : {"cache run for command ", "sql_exec: ", "sql_get_int: ", "sql_get_txt: "})
      for (const std::string& statement : db_support::after(start, text))
        found.push_back(statement);
    return found;
  };
  EXPECT_EQ(statements([&] { pat(11); }),
            (Texts{"INSERT INTO kanalid_scan_DVBNR (channel, dvb_type, hf_conn, freq, pat_prnr, tstream_id, pmt_pid ) "
                   "VALUES (NULL, $dvb_type, $conn, $freq,$pat_prnr,$ts_id, $pmt_id);"}));
  EXPECT_EQ(
      statements([&] { sdbl().sdt_for_service(0, TYPE, CONN, FREQ, 99, 4, 1); }),
      (Texts{
          "SELECT channel FROM kanalid_scan_DVBNR WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq "
          "AND pat_prnr = $pat_prnr;",
          "UPDATE kanalid_scan_DVBNR SET run_status = $run_status, free_ca = $free_ca WHERE channel = $oid;"}));
  EXPECT_EQ(
      statements([&] { sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 300, SCAN_PAT); }),
      (Texts{"SELECT channel FROM kanalid_scan_DVBNR WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = "
             "$freq AND pat_prnr = $pat_prnr",
             "UPDATE kanalid_scan_DVBNR SET pcr_pid = $pcr_pid WHERE channel = $channel;"}));
  EXPECT_EQ(statements([&] { sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, 10, 300, SCAN_PMT); }),
            (Texts{"SELECT channel FROM kanalid WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq AND "
                   "pat_prnr = $pat_prnr"}));
  EXPECT_EQ(statements([&] { stream(1, &none_); }),
            (Texts{"INSERT INTO estreams_scan_DVBNR (channel, es_pid, es_type, es_subtype, codec, languages, "
                   "lang_codes, p1, p2, ca_sysid, ca_pid)VALUES ($channel,$es_pid, $es_type, $es_subtype, @codec, "
                   "@languages, @lang_codes, $p1, $p2, $ca_sysid, $ca_pid)"}));
  EXPECT_EQ(statements([&] { sdbl().nit_for_network(0, TYPE, CONN, FREQ, "network_id", 20); }),
            (Texts{"UPDATE kanalid_scan_0 SET network_id = 20 WHERE hf_conn = 2 AND dvb_type = 1 AND freq = 506000000;",
                   "SELECT channel FROM kanalid_scan_0 WHERE hf_conn = 2 AND dvb_type = 1 AND freq = 506000000 AND "
                   "network_id = 20;"}));
  EXPECT_EQ(statements([&] { sdbl().nit_lcn(0, TYPE, CONN, 5, 20, 10, 3); }),
            (Texts{"UPDATE kanalid_scan_DVBNR SET lcn = $lcn WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND "
                   "orig_network_id = $onet_id AND pat_prnr = $serv_id AND tstream_id = $ts_id;"}));
  EXPECT_EQ(statements([&] { sdbl().nit_network_name(0, TYPE, CONN, FREQ, 20, "Name"); }),
            (Texts{"UPDATE kanalid_scan_DVBNR SET network_name = @netname WHERE hf_conn = $hf_conn AND dvb_type = "
                   "$dvb_type AND freq = $freq AND network_id = $netid"}));
  run("DELETE FROM kanalid_scan_0 WHERE channel = 2");
  const std::string rows_of_network =
      "SELECT oid from kanalid_scan_DVBNR where  hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq AND "
      "network_id = $net_id;";
  const std::string row_of_language =
      "SELECT oid from kanalid_lang_scan_DVBNR WHERE source_oid = $oid and lang = @lang;";
  EXPECT_EQ(statements([&] { sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 20, "eng", "Name"); }),
            (Texts{rows_of_network, row_of_language,
                   "INSERT INTO kanalid_lang_scan_DVBNR (source_oid, lang, network_name) VALUES ( $koid, @lang_code, "
                   "@net_name);"}));
  EXPECT_EQ(statements([&] { sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 20, "eng", "Name"); }),
            (Texts{rows_of_network, row_of_language,
                   "UPDATE kanalid_lang_scan_DVBNR SET network_name = @net_name WHERE oid = $oid;"}));
  EXPECT_EQ(statements([&] { sdbl().append_table_oid(7, "kanalid", "serv_name", "it's"); }),
            (Texts{"UPDATE kanalid SET serv_name =  serv_name || 'it''s' WHERE OID = 7;"}));
  EXPECT_EQ(statements([&] { sdbl().modify_table_oid(7, "kanalid", "serv_name", "it's"); }),
            (Texts{"UPDATE kanalid SET serv_name = 'it''s' WHERE OID = 7;"}));
  EXPECT_EQ(statements([&] { sdbl().modify_table_oid(7, "kanalid", "serv_type", 25); }),
            (Texts{"UPDATE kanalid SET serv_type = 25 WHERE OID = 7;"}));
  EXPECT_EQ(statements([&] { sdbl().modify_lang_table_oid(7, "kanalid_lang", "eng", "serv_name", "it's"); }),
            (Texts{"INSERT into kanalid_lang (source_oid, lang, serv_name) VALUES (7, 'eng', 'it''s')",
                   "SELECT oid from kanalid_lang WHERE source_oid = 7 AND lang = 'eng';"}));
  EXPECT_EQ(statements([&] { sdbl().modify_lang_table_oid(7, "kanalid_lang", "eng", "serv_name", "it's"); }),
            (Texts{"UPDATE kanalid_lang SET serv_name = 'it''s' where oid = 1",
                   "SELECT oid from kanalid_lang WHERE source_oid = 7 AND lang = 'eng';"}));
  EXPECT_EQ(statements([&] { sdbl().append_lang_table_oid(7, "kanalid_lang", "eng", "serv_name", "it's"); }),
            (Texts{"UPDATE kanalid_lang SET serv_name = serv_name || 'it''s' where oid = 1",
                   "SELECT oid from kanalid_lang WHERE source_oid = 7 AND lang = 'eng';"}));
  EXPECT_EQ(statements([&] { sdbl().get_freq(7); }), (Texts{"SELECT freq FROM kanalid WHERE channel = 7;"}));
  EXPECT_EQ(statements([&] { sdbl().get_pat_prnr(7, FREQ); }),
            (Texts{"SELECT pat_prnr FROM kanalid WHERE channel = 7 AND freq = 506000000;"}));
  EXPECT_EQ(
      statements([&] { delete sdbl().get_serv_name(TYPE, CONN, FREQ, 10); }),
      (Texts{"SELECT serv_name FROM kanalid WHERE dvb_type = 1 AND hf_conn = 2 AND freq = 506000000 AND pat_prnr = "
             "10;"}));
  std::vector<CA_pid*> pids;
  EXPECT_EQ(statements([&] { sdbl().fill_pids_for_channel(7, &pids); }),
            (Texts{"SELECT es_pid, ca_sysid, ca_pid from estreams where  channel = $channel AND ca_sysid != 0 AND "
                   "ca_pid != 0;"}));
}

TEST_F(Scan, nit_sets_a_column_of_the_whole_multiplex) {
  pat(10);
  pat(11);
  sdbl().pat_for_network(0, TYPE, CONN, FREQ + 1, 12, 5, 1);
  EXPECT_EQ(sdbl().nit_for_network(0, TYPE, CONN, FREQ, "network_id", 4321), 1);
  EXPECT_EQ(rows("SELECT pat_prnr, network_id FROM kanalid_scan_0"), (Texts{"10|4321", "11|4321", "12|0"}));
}

TEST_F(Scan, nit_of_a_multiplex_without_services_returns_0) {
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl().nit_for_network(0, TYPE, CONN, FREQ, "network_id", 4321), 0); }), "");
}

TEST_F(Scan, nit_of_an_unknown_column_prints_both_errors) {
  pat(10);
  EXPECT_THAT(stderr_of([&] { EXPECT_EQ(sdbl().nit_for_network(0, TYPE, CONN, FREQ, "missing", 1), 0); }),
              MatchesRegex("ERROR: SQL_exec: 1 @ nit_for_network line [0-9]+\n"
                           "SQL_get_int/compile error 1: no such column: missing "
                           "ERROR: SQL_get_int: 1 @ nit_for_network line [0-9]+\n"));
}

TEST_F(Scan, lcn_belongs_to_the_service_whatever_its_frequency) {
  for (const int freq : {FREQ, FREQ + 8000000}) {
    sdbl().pat_for_network(0, TYPE, CONN, freq, 10, 5, 1);
    sdbl().nit_for_network(0, TYPE, CONN, freq, "orig_network_id", 20);
  }
  pat(11);
  sdbl().pat_for_network(0, TYPE, CONN + 1, FREQ, 10, 5, 1);
  sdbl().pat_for_network(0, TYPE, CONN, FREQ, 10, 6, 1);
  EXPECT_EQ(sdbl().nit_lcn(0, TYPE, CONN, 5, 20, 10, 3), 0);
  EXPECT_EQ(rows("SELECT lcn FROM kanalid_scan_0"), (Texts{"3", "3", "65535", "65535", "65535"}));
}

TEST_F(Scan, lcn_is_traced) {
  EXPECT_THAT(messages_at(4, [&] { sdbl().nit_lcn(0, 1, 2, 5, 20, 10, 3); }),
              testing::StartsWith("Set LCN = 3 at dvb_nr 0, type 1, conn 2, net_id 20, serv_id 10, ts_id 5\n"));
  EXPECT_EQ(messages_at(3, [&] { sdbl().nit_lcn(0, 1, 2, 5, 20, 10, 3); }), "");
}

TEST_F(Scan, network_name_is_set_where_frequency_and_network_match) {
  pat(10);
  sdbl().pat_for_network(0, TYPE, CONN, FREQ + 1, 11, 5, 1);
  sdbl().nit_for_network(0, TYPE, CONN, FREQ, "network_id", 20);
  EXPECT_EQ(sdbl().nit_network_name(0, TYPE, CONN, FREQ, 20, HOSTILE), 0);
  EXPECT_EQ(sdbl().nit_network_name(0, TYPE, CONN, FREQ, 21, "other"), 0);
  EXPECT_EQ(rows("SELECT network_name FROM kanalid_scan_0"), (Texts{HOSTILE, ""}));
}

TEST_F(Scan, network_names_in_languages_are_inserted_then_updated) {
  pat(10);
  pat(11);
  sdbl().nit_for_network(0, TYPE, CONN, FREQ, "network_id", 20);
  EXPECT_EQ(sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 20, "eng", "Network"), 0);
  EXPECT_EQ(sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 20, "est", "Võrk"), 0);
  EXPECT_EQ(sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 20, "eng", "Changed"), 0);
  EXPECT_EQ(sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 99, "eng", "Other"), 0);
  EXPECT_EQ(rows("SELECT source_oid, lang, network_name FROM kanalid_lang_scan_0 ORDER BY 1, 2"),
            (Texts{"1|eng|Changed", "1|est|Võrk", "2|eng|Changed", "2|est|Võrk"}));
}

TEST_F(Scan, network_names_keep_the_names_of_the_service) {
  pat(10);
  sdbl().nit_for_network(0, TYPE, CONN, FREQ, "network_id", 20);
  sdbl().modify_lang_table_oid(1, "kanalid_lang_scan_0", "eng", "serv_name", "Service");
  sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 20, "eng", "Network");
  EXPECT_EQ(rows("SELECT source_oid, lang, serv_name, network_name FROM kanalid_lang_scan_0"),
            (Texts{"1|eng|Service|Network"}));
}

TEST_F(Scan, network_names_trace_their_rows) {
  pat(10);
  pat(11);
  sdbl().nit_for_network(0, TYPE, CONN, FREQ, "network_id", 20);
  EXPECT_THAT(messages_at(4, [&] { sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 20, "eng", "Network"); }),
              HasSubstr("OIDs for freq 506000000 lang eng network Network are: 1 2 \n"));
  EXPECT_EQ(messages_at(3, [&] { sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, 20, "eng", "Network"); }),
            "");
}

TEST_F(Scan, network_names_without_their_table_return_1) {
  verbosity_kelvo = -1;
  EXPECT_EQ(sdbl().nit_multilingual_network_name(1, TYPE, CONN, FREQ, 20, "eng", "Network"), 1);
}

TEST_F(Rows_of_tables, texts_are_replaced_and_appended_as_they_are) {
  pat(10);
  EXPECT_EQ(sdbl().modify_table_oid(1, "kanalid_scan_0", "serv_name", HOSTILE), 101);
  EXPECT_EQ(rows("SELECT serv_name FROM kanalid_scan_0"), (Texts{HOSTILE}));
  EXPECT_EQ(sdbl().modify_table_oid(1, "kanalid_scan_0", "serv_name", "ab"), 101);
  EXPECT_EQ(sdbl().append_table_oid(1, "kanalid_scan_0", "serv_name", "'c"), 101);
  EXPECT_EQ(rows("SELECT serv_name FROM kanalid_scan_0"), (Texts{"ab'c"}));
}

TEST_F(Rows_of_tables, numbers_are_set) {
  pat(10);
  EXPECT_EQ(sdbl().modify_table_oid(1, "kanalid_scan_0", "serv_type", 25), 101);
  EXPECT_EQ(sdbl().modify_table_oid(1, "kanalid_scan_0", "lcn", -7), 101);
  EXPECT_EQ(rows("SELECT serv_type, lcn FROM kanalid_scan_0"), (Texts{"25|-7"}));
}

TEST_F(Rows_of_tables, a_missing_row_is_no_error) {
  EXPECT_EQ(stderr_of([&] {
              EXPECT_EQ(sdbl().modify_table_oid(5, "kanalid_scan_0", "serv_name", "abc"), 101);
              EXPECT_EQ(sdbl().append_table_oid(5, "kanalid_scan_0", "serv_name", "abc"), 101);
              EXPECT_EQ(sdbl().modify_table_oid(5, "kanalid_scan_0", "serv_type", 1), 101);
            }),
            "");
  EXPECT_EQ(number("SELECT count(*) FROM kanalid_scan_0"), 0);
}

TEST_F(Rows_of_tables, errors_name_the_operation) {
  const std::string text = stderr_of([&] {
    EXPECT_EQ(sdbl().modify_table_oid(5, "nowhere", "serv_name", "abc"), 1);
    EXPECT_EQ(sdbl().modify_table_oid(5, "nowhere", "serv_name", 5), 1);
    EXPECT_EQ(sdbl().append_table_oid(5, "nowhere", "serv_name", "abc"), 1);
  });
  EXPECT_THAT(text, MatchesRegex("ERROR: SQL_exec: 1 @ modify_table_oid line [0-9]+\n"
                                 "ERROR: SQL_exec: 1 @ modify_table_oid line [0-9]+\n"
                                 "ERROR: SQL_exec: 1 @ append_table_oid line [0-9]+\n"));
}

TEST_F(Rows_of_tables, modifying_a_missing_language_row_inserts_it) {
  EXPECT_EQ(sdbl().modify_lang_table_oid(4, "kanalid_lang", "eng", "serv_name", HOSTILE), 101);
  EXPECT_EQ(sdbl().modify_lang_table_oid(4, "kanalid_lang", "eng", "prov_name", "Prov"), 101);
  EXPECT_EQ(sdbl().modify_lang_table_oid(4, "kanalid_lang", "es'", "prov_name", "x"), 101);
  EXPECT_EQ(sdbl().modify_lang_table_oid(5, "kanalid_lang", "eng", "serv_name", "Five"), 101);
  EXPECT_EQ(rows("SELECT source_oid, lang, serv_name, prov_name FROM kanalid_lang ORDER BY oid"),
            (Texts{std::string("4|eng|") + HOSTILE + "|Prov", "4|es'||x", "5|eng|Five|"}));
}

TEST_F(Rows_of_tables, appending_to_a_missing_language_row_writes_nothing) {
  EXPECT_EQ(messages_at(
                2, [&] { EXPECT_EQ(sdbl().append_lang_table_oid(4, "kanalid_lang", "eng", "serv_name", "abc"), 101); }),
            "");
  EXPECT_EQ(messages_at(
                3, [&] { EXPECT_EQ(sdbl().append_lang_table_oid(4, "kanalid_lang", "eng", "serv_name", "abc"), 101); }),
            "Attempting append on non-existing entry");
  EXPECT_EQ(number("SELECT count(*) FROM kanalid_lang"), 0);
}

TEST_F(Rows_of_tables, appending_to_a_language_row_extends_its_text) {
  sdbl().modify_lang_table_oid(4, "kanalid_lang", "eng", "serv_name", "abc");
  EXPECT_EQ(sdbl().append_lang_table_oid(4, "kanalid_lang", "eng", "serv_name", HOSTILE), 101);
  EXPECT_EQ(rows("SELECT serv_name FROM kanalid_lang"), (Texts{std::string("abc") + HOSTILE}));
}

TEST_F(Rows_of_tables, modifying_a_language_row_of_a_missing_table_tries_both) {
  EXPECT_THAT(stderr_of([&] { EXPECT_EQ(sdbl().modify_lang_table_oid(4, "nowhere", "eng", "serv_name", "abc"), 1); }),
              MatchesRegex("SQL_get_int/compile error 1: no such table: nowhere "
                           "ERROR: SQL_get_int: 1 @ modify_lang_table_oid line [0-9]+\n"
                           "ERROR: SQL_exec: 1 @ modify_lang_table_oid line [0-9]+\n"));
}

TEST_F(Channel_list, program_number_of_a_channel) {
  run("INSERT INTO kanalid (channel, freq, pat_prnr) VALUES (7, 506000000, 1234)");
  EXPECT_EQ(sdbl().get_pat_prnr(7, FREQ), 1234);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl().get_pat_prnr(7, FREQ + 1), -1); }),
            "ERROR: No freq 506000001 channel 7 entry in kanalid");
  EXPECT_EQ(messages_at(-1, [&] { EXPECT_EQ(sdbl().get_pat_prnr(8, FREQ), -1); }), "");
}

TEST_F(Channel_list, program_number_without_its_table_reports_the_code_first) {
  run("DROP TABLE kanalid");
  EXPECT_THAT(stderr_of([&] { EXPECT_EQ(sdbl().get_pat_prnr(7, FREQ), -1); }),
              MatchesRegex("SQL_get_int/compile error 1: no such table: kanalid "
                           "ERROR: SQL_get_int: 1 @ get_pat_prnr line [0-9]+\n"
                           "ERROR: No freq 506000000 channel 7 entry in kanalid"));
}

TEST_F(Channel_list, frequency_of_a_channel) {
  run("INSERT INTO kanalid (channel, freq) VALUES (7, 506000000)");
  EXPECT_EQ(sdbl().get_freq(7), FREQ);
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(sdbl().get_freq(8), -1); }), "");
}

TEST_F(Channel_list, name_of_a_service) {
  run("INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, serv_name) VALUES (1, 2, 506000000, 10, 'One')");
  std::unique_ptr<std::string> name(sdbl().get_serv_name(TYPE, CONN, FREQ, 10));
  EXPECT_EQ(*name, "One");
  name.reset(sdbl().get_serv_name(TYPE, CONN, FREQ, 11));
  EXPECT_EQ(*name, "");
  EXPECT_THAT(messages_at(4, [&] { name.reset(sdbl().get_serv_name(TYPE, CONN, FREQ, 10)); }),
              HasSubstr("Serv name is One\n"));
  EXPECT_EQ(messages_at(3, [&] { name.reset(sdbl().get_serv_name(TYPE, CONN, FREQ, 10)); }), "");
  run("DROP TABLE kanalid");
  EXPECT_THAT(stderr_of([&] { name.reset(sdbl().get_serv_name(TYPE, CONN, FREQ, 10)); }),
              MatchesRegex("SQL_get_txt/compile error 1: no such table: kanalid "
                           "ERROR: SQL_get_txt: 1 @ get_serv_name, [0-9]+\n"));
  EXPECT_EQ(*name, "");
}

TEST_F(Channel_list, scrambled_streams_of_a_channel_are_appended) {
  run("INSERT INTO estreams (channel, es_pid, ca_sysid, ca_pid) VALUES (1, 513, 1280, 496), (1, 514, 0, 496), "
      "(1, 515, 1280, 0), (2, 516, 1281, 497), (1, 517, 1281, 498)");
  std::vector<CA_pid*> pids = {new CA_pid{1, 2, 3, 4}};
  EXPECT_EQ(sdbl().fill_pids_for_channel(1, &pids), 0);
  ASSERT_EQ(pids.size(), 3u);
  EXPECT_EQ(pids[0]->user, 4);
  EXPECT_EQ(pids[1]->es_pid, 513);
  EXPECT_EQ(pids[1]->ca_pid, 496);
  EXPECT_EQ(pids[1]->ca_sysid, 1280);
  EXPECT_EQ(pids[1]->user, 0);
  EXPECT_EQ(pids[2]->es_pid, 517);
  EXPECT_EQ(sdbl().fill_pids_for_channel(9, &pids), 0);
  EXPECT_EQ(pids.size(), 3u);
  for (CA_pid* pid : pids)
    delete pid;
}
