// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using support::messages_at;
using support::prints_only_from;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr char HOSTILE[] = "it's 100% \"odd\"; DROP TABLE kanalid; -- \xff\xc3";

class Scan : public db_support::Database_test {
 protected:
  Scan() {
    sdbl().create_temp_tables(0);
    sdbl().create_temp_tables(3);
  }

  int pat(int program, int dvbnr = 0, int freq = FREQ, int conn = CONN, int ts_id = 5) {
    return sdbl().pat_for_network(dvbnr, TYPE, conn, freq, program, ts_id, 100 + program);
  }
  int sdt(int program, int type = TYPE, int conn = CONN, int freq = FREQ) {
    return sdbl().sdt_for_service(0, type, conn, freq, program, 4, 1);
  }
  int pmt(int program, int pcr_pid, SCAN_STATE state = SCAN_PAT) {
    return sdbl().pmt_channel_number(0, TYPE, CONN, FREQ, program, pcr_pid, state);
  }
  int nit(const char* column, int value, int freq = FREQ) {
    return sdbl().nit_for_network(0, TYPE, CONN, freq, column, value);
  }
  int lcn() { return sdbl().nit_lcn(0, TYPE, CONN, 5, 20, 10, 3); }
  int network_name(const char* lang, const char* name, int net_id = 20) {
    return sdbl().nit_multilingual_network_name(0, TYPE, CONN, FREQ, net_id, lang, name);
  }
  int stream(int channel, std::list<PMT_subtxt_lang*>* subtxt, const char* languages = "eng") {
    return sdbl().pmt_for_service(0, channel, 513, 6, 77, "TXT", languages, "codes", 0x500, 0x1F0, subtxt);
  }
  // The same with entries of subtitles or teletext, which the call takes.
  int stream_with(const std::vector<PMT_subtxt_lang>& entries, int channel = 9) {
    std::list<PMT_subtxt_lang*> subtxt;
    for (const PMT_subtxt_lang& entry : entries)
      subtxt.push_back(new PMT_subtxt_lang(entry));
    const int result = stream(channel, &subtxt);
    EXPECT_TRUE(subtxt.empty());
    return result;
  }

  std::list<PMT_subtxt_lang*> none_;
};

using Rows_of_tables = Scan;
using Channel_list = Scan;

}  // namespace

TEST_F(Scan, pat_writes_a_row_for_each_program_and_returns_its_number) {
  EXPECT_EQ(pat(10), 1);
  EXPECT_EQ(pat(11), 2);
  EXPECT_THAT(messages_at(0, [&] { pat(1, 0, 0); }), HasSubstr("error CHECK constraint failed: freq  > 0\n"));
  EXPECT_EQ(rows("SELECT channel, dvb_type, hf_conn, freq, pat_prnr, tstream_id, pmt_pid, lcn, row_status FROM "
                 "kanalid_scan_0"),
            (Texts{"1|1|2|506000000|10|5|110|65535|0", "2|1|2|506000000|11|5|111|65535|0"}));
  EXPECT_EQ(number("SELECT count(*) FROM kanalid_scan_3"), 0);
}

TEST_F(Scan, pat_row_numbers_of_instances_are_their_own_and_a_program_may_be_listed_twice) {
  EXPECT_EQ(pat(10, 0), 1);
  EXPECT_EQ(pat(10, 3), 1);
  EXPECT_EQ(pat(11, 3), 2);
  EXPECT_EQ(pat(10, 0), 2);
}

TEST_F(Scan, every_writer_names_itself_when_its_table_is_missing) {
  const auto expect = [](const std::string& name, int result, const std::function<int()>& write) {
    // What is printed about the statement itself comes first, without a newline at its end.
    EXPECT_THAT([&] { EXPECT_EQ(write(), result); },
                prints_only_from(0, MatchesRegex(".*prepare failed: no such table: kanalid_scan_1"
                                                 "ERROR: sql_cache lookup failed for .*"
                                                 "ERROR: SQLite RUN rc 1 at " +
                                                 name + ", [0-9]+\n")));
  };
  expect("pat_for_network", 0, [&] { return sdbl().pat_for_network(1, TYPE, CONN, FREQ, 1, 2, 3); });
  expect("sdt_for_service", 0, [&] { return sdbl().sdt_for_service(1, TYPE, CONN, FREQ, 1, 4, 1); });
  expect("pmt_channel_number", 0, [&] { return sdbl().pmt_channel_number(1, TYPE, CONN, FREQ, 1, 300, SCAN_PAT); });
  expect("nit_network_name", 1, [&] { return sdbl().nit_network_name(1, TYPE, CONN, FREQ, 1, "Name"); });
  expect("nit_lcn", 1, [&] { return sdbl().nit_lcn(1, TYPE, CONN, 1, 2, 3, 4); });
}

TEST_F(Scan, streams_that_are_refused_print_step_and_reset) {
  run("CREATE UNIQUE INDEX u ON estreams_scan_0 (es_pid)");
  stream(9, &none_);
  const std::string error =
      "(ERROR: SQLite RUN rc 2067 at pmt_for_service, [0-9]+\n"
      "ERROR: SQLite reset rc 2067 at pmt_for_service, [0-9]+\n)";
  const std::vector<PMT_subtxt_lang> entries = {{"est", 5, 6, 7}, {"eng", 5, 6, 7}};
  EXPECT_THAT([&] { EXPECT_EQ(stream(9, &none_), 1); }, prints_only_from(0, MatchesRegex(error)));
  EXPECT_THAT([&] { EXPECT_EQ(stream_with(entries), 1); }, prints_only_from(0, MatchesRegex(error + "{2}")));
  EXPECT_EQ(number("SELECT count(*) FROM estreams_scan_0"), 1);
}

TEST_F(Scan, sdt_stores_status_and_mode_of_a_service_that_is_in_the_pat) {
  pat(10);
  pat(11);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(sdt(99), 0); }), "");
  EXPECT_EQ(sdt(10, TYPE, CONN, FREQ + 1), 0);
  EXPECT_EQ(sdt(10, TYPE + 1), 0);
  EXPECT_EQ(sdt(10, TYPE, CONN + 1), 0);
  EXPECT_EQ(sdt(11), 2);
  EXPECT_EQ(rows("SELECT pat_prnr, run_status, free_ca FROM kanalid_scan_0"), (Texts{"10|0|0", "11|4|1"}));
}

TEST_F(Scan, pmt_number_in_a_full_scan_is_the_scan_row_and_stores_the_pcr_pid) {
  run("INSERT INTO kanalid (channel, dvb_type, hf_conn, freq, pat_prnr) VALUES (77, 1, 2, 506000000, 10)");
  pat(10);
  EXPECT_EQ(pmt(10, 300), 1);
  EXPECT_EQ(pmt(99, 301), 0);
  EXPECT_EQ(rows("SELECT a.pcr_pid, b.pcr_pid FROM kanalid_scan_0 a, kanalid b"), (Texts{"300|0"}));
  EXPECT_THAT([&] { EXPECT_EQ(pmt(10, 0), 1); }, prints_only_from(1, "WARNING: pmt_for_service:  pcr_pid = 0\n"));
  EXPECT_EQ(rows("SELECT pcr_pid FROM kanalid_scan_0"), (Texts{"0"}));
}

TEST_F(Scan, pmt_number_in_other_states_is_the_channel_and_writes_nothing) {
  run("INSERT INTO kanalid (channel, dvb_type, hf_conn, freq, pat_prnr) VALUES (77, 1, 2, 506000000, 10)");
  pat(10);
  for (const SCAN_STATE state : {SCAN_NONE, SCAN_PMT, SCAN_EIT})
    EXPECT_EQ(messages_at(1,
                          [&] {
                            EXPECT_EQ(pmt(10, 300, state), 77);
                            EXPECT_EQ(pmt(10, 0, state), 77);
                            EXPECT_EQ(pmt(11, 300, state), 0);
                          }),
              "");
  EXPECT_EQ(rows("SELECT a.pcr_pid, b.pcr_pid FROM kanalid_scan_0 a, kanalid b"), (Texts{"0|0"}));
}

TEST_F(Scan, a_stream_is_one_row_or_one_for_each_entry_that_differs_in_four_columns) {
  EXPECT_EQ(stream_with({{"est", static_cast<int32_t>(0x80003002u), 0x100, 1},
                         {"r", static_cast<int32_t>(0x80003005u), 0x888, 0},
                         {HOSTILE, -1, -2147483647 - 1, 2147483647}}),
            1);
  EXPECT_EQ(stream(9, &none_), 1) << "nothing of the entries reaches the next stream";
  const std::string same = "9|2.5|513|6|";
  EXPECT_EQ(table("estreams_scan_0"), (Texts{same + "-2147471358|TXT|est|codes|256|1|1280|496|0",
                                             same + "-2147471355|TXT|r|codes|2184|0|1280|496|0",
                                             same + "-1|TXT|" + HOSTILE + "|codes|-2147483648|2147483647|1280|496|0",
                                             same + "77|TXT|eng|codes|0|0|1280|496|0"}));
}

TEST_F(Scan, quirk_short_language_of_a_stream_is_empty_but_not_that_of_an_entry) {
  stream(9, &none_, "en");
  std::list<PMT_subtxt_lang*> subtxt = {new PMT_subtxt_lang{"en", 5, 6, 7}};
  stream(9, &subtxt);
  EXPECT_EQ(rows("SELECT languages FROM estreams_scan_0 ORDER BY oid"), (Texts{"", "en"}));
}

TEST_F(Scan, streams_are_traced_by_kind_and_their_list_is_emptied_even_when_the_table_is_missing) {
  const std::vector<PMT_subtxt_lang> entries = {{"est", 5, 6, 7}, {"eng", 5, 6, 7}};
  EXPECT_THAT([&] { stream(9, &none_); }, prints_only_from(4, HasSubstr("Inserting AV entry \n")));
  EXPECT_THAT([&] { stream_with(entries); }, prints_only_from(4, HasSubstr("Inserting SUB/TXT entry \n")));
  run("DROP TABLE estreams_scan_0");
  (void)messages_at(-1, [&] { EXPECT_EQ(stream_with(entries), 1); });
}

TEST_F(Scan, every_writer_runs_its_statements) {
  pat(10);
  std::vector<CA_pid*> pids;
  const std::string trace = messages_at(4, [&] {
    pat(11);
    sdt(99);
    pmt(10, 300, SCAN_PAT);
    pmt(10, 300, SCAN_PMT);
    stream(1, &none_);
    nit("network_id", 20);
    lcn();
    sdbl().nit_network_name(0, TYPE, CONN, FREQ, 20, "Name");
    run("DELETE FROM kanalid_scan_0 WHERE channel = 2");
    network_name("eng", "Name");
    network_name("eng", "Name");
    sdbl().append_table_oid(7, "kanalid", "serv_name", "it's");
    sdbl().modify_table_oid(7, "kanalid", "serv_name", "it's");
    sdbl().modify_table_oid(7, "kanalid", "serv_type", 25);
    sdbl().modify_lang_table_oid(7, "kanalid_lang", "eng", "serv_name", "it's");
    sdbl().modify_lang_table_oid(7, "kanalid_lang", "eng", "serv_name", "it's");
    sdbl().append_lang_table_oid(7, "kanalid_lang", "eng", "serv_name", "it's");
    sdbl().get_freq(7);
    sdbl().get_pat_prnr(7, FREQ);
    delete sdbl().get_serv_name(TYPE, CONN, FREQ, 10);
    sdbl().fill_pids_for_channel(7, &pids);
  });
  const std::string rows_of_network =
      "SELECT oid from kanalid_scan_DVBNR where  hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq AND "
      "network_id = $net_id;";
  const std::string row_of_language =
      "SELECT oid from kanalid_lang_scan_DVBNR WHERE source_oid = $oid and lang = @lang;";
  const std::string row_of_kanalid_lang = "SELECT oid from kanalid_lang WHERE source_oid = 7 AND lang = 'eng';";
  Texts statements;
  const std::regex mark("(cache run for command |sql_exec: |sql_get_int: |sql_get_txt: )([^\n]*)");
  for (std::sregex_iterator found(trace.begin(), trace.end(), mark), end; found != end; ++found)
    statements.push_back((*found)[2]);
  EXPECT_THAT(
      statements,
      testing::ElementsAre(
          "INSERT INTO kanalid_scan_DVBNR (channel, dvb_type, hf_conn, freq, pat_prnr, tstream_id, pmt_pid ) VALUES "
          "(NULL, $dvb_type, $conn, $freq,$pat_prnr,$ts_id, $pmt_id);",
          "SELECT channel FROM kanalid_scan_DVBNR WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq "
          "AND pat_prnr = $pat_prnr;",
          "UPDATE kanalid_scan_DVBNR SET run_status = $run_status, free_ca = $free_ca WHERE channel = $oid;",
          "SELECT channel FROM kanalid_scan_DVBNR WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq "
          "AND pat_prnr = $pat_prnr",
          "UPDATE kanalid_scan_DVBNR SET pcr_pid = $pcr_pid WHERE channel = $channel;",
          "SELECT channel FROM kanalid WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND freq = $freq AND "
          "pat_prnr = $pat_prnr",
          "INSERT INTO estreams_scan_DVBNR (channel, es_pid, es_type, es_subtype, codec, languages, lang_codes, p1, "
          "p2, ca_sysid, ca_pid)VALUES ($channel,$es_pid, $es_type, $es_subtype, @codec, @languages, @lang_codes, $p1, "
          "$p2, $ca_sysid, $ca_pid)",
          "UPDATE kanalid_scan_0 SET network_id = 20 WHERE hf_conn = 2 AND dvb_type = 1 AND freq = 506000000;",
          "SELECT channel FROM kanalid_scan_0 WHERE hf_conn = 2 AND dvb_type = 1 AND freq = 506000000 AND network_id = "
          "20;",
          "UPDATE kanalid_scan_DVBNR SET lcn = $lcn WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND "
          "orig_network_id = $onet_id AND pat_prnr = $serv_id AND tstream_id = $ts_id;",
          "UPDATE kanalid_scan_DVBNR SET network_name = @netname WHERE hf_conn = $hf_conn AND dvb_type = $dvb_type AND "
          "freq = $freq AND network_id = $netid",
          rows_of_network, row_of_language,
          "INSERT INTO kanalid_lang_scan_DVBNR (source_oid, lang, network_name) VALUES ( $koid, @lang_code, "
          "@net_name);",
          rows_of_network, row_of_language,
          "UPDATE kanalid_lang_scan_DVBNR SET network_name = @net_name WHERE oid = $oid;",
          "UPDATE kanalid SET serv_name =  serv_name || 'it''s' WHERE OID = 7;",
          "UPDATE kanalid SET serv_name = 'it''s' WHERE OID = 7;", "UPDATE kanalid SET serv_type = 25 WHERE OID = 7;",
          row_of_kanalid_lang, "INSERT into kanalid_lang (source_oid, lang, serv_name) VALUES (7, 'eng', 'it''s')",
          row_of_kanalid_lang, "UPDATE kanalid_lang SET serv_name = 'it''s' where oid = 1", row_of_kanalid_lang,
          "UPDATE kanalid_lang SET serv_name = serv_name || 'it''s' where oid = 1",
          "SELECT freq FROM kanalid WHERE channel = 7;",
          "SELECT pat_prnr FROM kanalid WHERE channel = 7 AND freq = 506000000;",
          "SELECT serv_name FROM kanalid WHERE dvb_type = 1 AND hf_conn = 2 AND freq = 506000000 AND pat_prnr = 10;",
          "SELECT es_pid, ca_sysid, ca_pid from estreams where  channel = $channel AND ca_sysid != 0 AND ca_pid != "
          "0;"));
}

TEST_F(Scan, nit_sets_a_column_of_the_whole_multiplex) {
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(nit("network_id", 4321), 0); }), "") << "without services";
  pat(10);
  pat(11);
  pat(12, 0, FREQ + 1);
  EXPECT_EQ(nit("network_id", 4321), 1);
  EXPECT_EQ(rows("SELECT pat_prnr, network_id FROM kanalid_scan_0"), (Texts{"10|4321", "11|4321", "12|0"}));
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(nit("missing", 1), 0); }),
              MatchesRegex("ERROR: SQL_exec: 1 @ nit_for_network line [0-9]+\n"
                           "SQL_get_int/compile error 1: no such column: missing "
                           "ERROR: SQL_get_int: 1 @ nit_for_network line [0-9]+\n"));
}

TEST_F(Scan, lcn_belongs_to_the_service_whatever_its_frequency) {
  for (const int freq : {FREQ, FREQ + 8000000}) {
    pat(10, 0, freq);
    nit("orig_network_id", 20, freq);
  }
  pat(11);
  pat(10, 0, FREQ, CONN + 1);
  pat(10, 0, FREQ, CONN, 6);
  EXPECT_EQ(lcn(), 0);
  EXPECT_EQ(rows("SELECT lcn FROM kanalid_scan_0"), (Texts{"3", "3", "65535", "65535", "65535"}));
}

TEST_F(Scan, lcn_and_network_names_are_traced) {
  EXPECT_THAT([&] { lcn(); },
              prints_only_from(4, testing::StartsWith("Set LCN = 3 at dvb_nr 0, type 1, conn 2, net_id 20, serv_id 10, "
                                                      "ts_id 5\n")));
  pat(10);
  pat(11);
  nit("network_id", 20);
  EXPECT_THAT([&] { network_name("eng", "Network"); },
              prints_only_from(4, HasSubstr("OIDs for freq 506000000 lang eng network Network are: 1 2 \n")));
}

TEST_F(Scan, network_name_is_set_where_frequency_and_network_match) {
  pat(10);
  pat(11, 0, FREQ + 1);
  nit("network_id", 20);
  EXPECT_EQ(sdbl().nit_network_name(0, TYPE, CONN, FREQ, 20, HOSTILE), 0);
  EXPECT_EQ(sdbl().nit_network_name(0, TYPE, CONN, FREQ, 21, "other"), 0);
  EXPECT_EQ(rows("SELECT network_name FROM kanalid_scan_0"), (Texts{HOSTILE, ""}));
}

TEST_F(Scan, network_names_in_languages_are_inserted_then_updated_beside_the_names_of_the_service) {
  pat(10);
  pat(11);
  nit("network_id", 20);
  sdbl().modify_lang_table_oid(1, "kanalid_lang_scan_0", "eng", "serv_name", "Service");
  EXPECT_EQ(network_name("eng", "Network"), 0);
  EXPECT_EQ(network_name("est", "Võrk"), 0);
  EXPECT_EQ(network_name("eng", "Changed"), 0);
  EXPECT_EQ(network_name("eng", "Other", 99), 0);
  EXPECT_EQ(rows("SELECT source_oid, lang, serv_name, network_name FROM kanalid_lang_scan_0 ORDER BY 1, 2"),
            (Texts{"1|eng|Service|Changed", "1|est||Võrk", "2|eng||Changed", "2|est||Võrk"}));
  run("DROP TABLE kanalid_scan_0");
  (void)messages_at(-1, [&] { EXPECT_EQ(network_name("eng", "Network"), 1); });
}

TEST_F(Rows_of_tables, texts_and_numbers_are_replaced_and_texts_appended_as_they_are) {
  pat(10);
  const auto row = [&] { return text("SELECT serv_name, serv_type, lcn FROM kanalid_scan_0"); };
  EXPECT_EQ(sdbl().modify_table_oid(1, "kanalid_scan_0", "serv_name", HOSTILE), 101);
  EXPECT_EQ(row(), std::string(HOSTILE) + "|0|65535");
  EXPECT_EQ(sdbl().modify_table_oid(1, "kanalid_scan_0", "serv_name", "ab"), 101);
  EXPECT_EQ(sdbl().append_table_oid(1, "kanalid_scan_0", "serv_name", "'c"), 101);
  EXPECT_EQ(sdbl().modify_table_oid(1, "kanalid_scan_0", "serv_type", 25), 101);
  EXPECT_EQ(sdbl().modify_table_oid(1, "kanalid_scan_0", "lcn", -7), 101);
  EXPECT_EQ(row(), "ab'c|25|-7");
}

TEST_F(Rows_of_tables, a_missing_row_is_no_error_and_a_missing_table_names_the_operation) {
  const auto write = [&](const char* table, int result) {
    return messages_at(0, [&] {
      EXPECT_EQ(sdbl().modify_table_oid(5, table, "serv_name", "abc"), result);
      EXPECT_EQ(sdbl().modify_table_oid(5, table, "serv_type", 5), result);
      EXPECT_EQ(sdbl().append_table_oid(5, table, "serv_name", "abc"), result);
    });
  };
  EXPECT_EQ(write("kanalid_scan_0", 101), "");
  EXPECT_EQ(number("SELECT count(*) FROM kanalid_scan_0"), 0);
  EXPECT_THAT(write("nowhere", 1), MatchesRegex("(ERROR: SQL_exec: 1 @ modify_table_oid line [0-9]+\n){2}"
                                                "ERROR: SQL_exec: 1 @ append_table_oid line [0-9]+\n"));
}

TEST_F(Rows_of_tables, modifying_a_missing_language_row_inserts_it_and_appending_extends_one) {
  EXPECT_EQ(sdbl().modify_lang_table_oid(4, "kanalid_lang", "eng", "serv_name", HOSTILE), 101);
  EXPECT_EQ(sdbl().modify_lang_table_oid(4, "kanalid_lang", "eng", "prov_name", "Prov"), 101);
  EXPECT_EQ(sdbl().modify_lang_table_oid(4, "kanalid_lang", "es'", "prov_name", "x"), 101);
  EXPECT_EQ(sdbl().modify_lang_table_oid(5, "kanalid_lang", "eng", "serv_name", "Five"), 101);
  EXPECT_EQ(sdbl().append_lang_table_oid(5, "kanalid_lang", "eng", "serv_name", HOSTILE), 101);
  EXPECT_EQ(rows("SELECT source_oid, lang, serv_name, prov_name FROM kanalid_lang ORDER BY oid"),
            (Texts{std::string("4|eng|") + HOSTILE + "|Prov", "4|es'||x", std::string("5|eng|Five") + HOSTILE + "|"}));
}

TEST_F(Rows_of_tables, appending_to_a_missing_language_row_writes_nothing_and_a_missing_table_is_tried_twice) {
  EXPECT_THAT([&] { EXPECT_EQ(sdbl().append_lang_table_oid(4, "kanalid_lang", "eng", "serv_name", "abc"), 101); },
              prints_only_from(3, "Attempting append on non-existing entry"));
  EXPECT_EQ(number("SELECT count(*) FROM kanalid_lang"), 0);
  EXPECT_THAT(
      messages_at(0, [&] { EXPECT_EQ(sdbl().modify_lang_table_oid(4, "nowhere", "eng", "serv_name", "a"), 1); }),
      MatchesRegex("SQL_get_int/compile error 1: no such table: nowhere "
                   "ERROR: SQL_get_int: 1 @ modify_lang_table_oid line [0-9]+\n"
                   "ERROR: SQL_exec: 1 @ modify_lang_table_oid line [0-9]+\n"));
}

TEST_F(Channel_list, frequency_and_program_number_of_a_channel) {
  run("INSERT INTO kanalid (channel, freq, pat_prnr) VALUES (7, 506000000, 1234)");
  EXPECT_EQ(sdbl().get_freq(7), FREQ);
  EXPECT_EQ(messages_at(0, [&] { EXPECT_EQ(sdbl().get_freq(8), -1); }), "");
  EXPECT_EQ(sdbl().get_pat_prnr(7, FREQ), 1234);
  EXPECT_THAT([&] { EXPECT_EQ(sdbl().get_pat_prnr(7, FREQ + 1), -1); },
              prints_only_from(0, "ERROR: No freq 506000001 channel 7 entry in kanalid"));
  EXPECT_EQ(messages_at(-1, [&] { EXPECT_EQ(sdbl().get_pat_prnr(8, FREQ), -1); }), "");
  run("DROP TABLE kanalid");
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(sdbl().get_pat_prnr(7, FREQ), -1); }),
              MatchesRegex("SQL_get_int/compile error 1: no such table: kanalid "
                           "ERROR: SQL_get_int: 1 @ get_pat_prnr line [0-9]+\n"
                           "ERROR: No freq 506000000 channel 7 entry in kanalid"));
}

TEST_F(Channel_list, name_of_a_service) {
  run("INSERT INTO kanalid (dvb_type, hf_conn, freq, pat_prnr, serv_name) VALUES (1, 2, 506000000, 10, 'One')");
  const auto name = [&](int program) {
    return *std::unique_ptr<std::string>(sdbl().get_serv_name(TYPE, CONN, FREQ, program));
  };
  EXPECT_EQ(name(11), "");
  EXPECT_THAT([&] { EXPECT_EQ(name(10), "One"); }, prints_only_from(4, HasSubstr("Serv name is One\n")));
  run("DROP TABLE kanalid");
  EXPECT_THAT(messages_at(0, [&] { EXPECT_EQ(name(10), ""); }),
              MatchesRegex("SQL_get_txt/compile error 1: no such table: kanalid "
                           "ERROR: SQL_get_txt: 1 @ get_serv_name, [0-9]+\n"));
}

TEST_F(Channel_list, scrambled_streams_of_a_channel_are_appended) {
  run("INSERT INTO estreams (channel, es_pid, ca_sysid, ca_pid) VALUES (1, 513, 1280, 496), (1, 514, 0, 496), "
      "(1, 515, 1280, 0), (2, 516, 1281, 497), (1, 517, 1281, 498)");
  std::vector<CA_pid*> pids = {new CA_pid{1, 2, 3, 4}};
  EXPECT_EQ(sdbl().fill_pids_for_channel(1, &pids), 0);
  EXPECT_EQ(sdbl().fill_pids_for_channel(9, &pids), 0);
  const auto is = [](int es_pid, int ca_pid, int ca_sysid, int user) {
    return testing::Pointee(
        testing::AllOf(testing::Field(&CA_pid::es_pid, es_pid), testing::Field(&CA_pid::ca_pid, ca_pid),
                       testing::Field(&CA_pid::ca_sysid, ca_sysid), testing::Field(&CA_pid::user, user)));
  };
  EXPECT_THAT(pids, testing::ElementsAre(is(1, 2, 3, 4), is(513, 496, 1280, 0), is(517, 498, 1281, 0)));
  for (CA_pid* pid : pids)
    delete pid;
}
