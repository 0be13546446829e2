// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using db_support::Other_connection;
using support::messages_at;
using support::prints_only_from;
using support::Texts;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

struct Table {
  const char* schema;
  const char* name;
  const char* create;
  std::string columns;  // name|type|default|primary key of each; SQLite has its own spelling of well-known types
  Texts indexes;
};

// In the order in which a new database gets them.
const Table KANALID = {
    "main", "kanalid", "CREATE TABLE 'kanalid' (channel integer primary key autoincrement)",
    "channel|integer|-|1 revision|float|2.50|0 hf_conn|int|0|0 dvb_type|int|0|0 freq|int|0|0 pat_prnr|int|0|0 "
    "pmt_pid|int|0|0 network_id|int|0|0 orig_network_id|int|0|0 tstream_id|int|0|0 lcn|int|65535|0 pcr_pid|int|0|0 "
    "serv_name|text|''|0 serv_type|int|0|0 prov_name|text|''|0 network_name|text|''|0 run_status|int|0|0 "
    "free_ca|int|0|0 scan_state|int|0|0 row_status|int|0|0 modified|int|0|0",
    Texts{"CREATE UNIQUE INDEX kanalid_otsi_idx   ON kanalid (hf_conn, dvb_type, freq, pat_prnr)"}};
const Table KANALID_LANG = {
    "main", "kanalid_lang", "CREATE TABLE 'kanalid_lang' (source_oid int)",
    "source_oid|int|-|0 lang|text|''|0 serv_name|text|''|0 prov_name|text|''|0 network_name|text|''|0",
    Texts{"CREATE UNIQUE INDEX kanalid_lang_soid_lang_idx ON kanalid_lang (source_oid, lang)",
          "CREATE INDEX kanalid_lang_soid_idx ON kanalid_lang (source_oid)"}};
const Table ESTREAMS = {
    "main", "estreams", "CREATE TABLE 'estreams' (channel int)",
    "channel|int|-|0 revision|float|2.50|0 es_pid|int|0|0 es_type|int|0|0 es_subtype|int|0|0 codec|text|''|0 "
    "languages|text|''|0 lang_codes|text|''|0 p1|int|0|0 p2|int|0|0 ca_sysid|int|0|0 ca_pid|int|0|0 row_status|int|0|0",
    Texts{"CREATE INDEX estreams_channel_idx   ON estreams (channel)",
          "CREATE INDEX estreams_estype_idx    ON estreams (es_type)",
          "CREATE INDEX estreams_essubtype_idx ON estreams (es_subtype)",
          "CREATE INDEX estreams_languages_idx ON estreams (languages)"}};
const Table TUNER_TABLE = {"main", "tuner_table", "CREATE TABLE tuner_table (freq int)",
                           "freq|int|-|0 hf_conn|int|0|0 dvb_type|int|0|0 tuner_params|text|''|0",
                           Texts{"CREATE UNIQUE INDEX tuner_table_freq_idx ON tuner_table (freq ,hf_conn, dvb_type)"}};
const Table EPGLIST = {
    "epg_db", "epglist", "CREATE TABLE epglist ( entry integer primary key autoincrement )",
    "entry|integer|-|1 channel|int|0|0 revision|float|2.50|0 ymd_bcd|int|0|0 hms_bcd|int|0|0 start_epoch|int|0|0 "
    "dur_bcd|int|0|0 dur_sec|int|0|0 content_id|text|'0.0.0.0'|0 rating|text|'0@est'|0 run_status|int|0|0 "
    "free_ca|int|0|0 ev_id|int|0|0 pat_prnr|int|0|0",
    Texts{"CREATE INDEX epg_start_idx ON epglist (start_epoch)", "CREATE INDEX epg_ch_idx ON epglist (channel)",
          "CREATE UNIQUE INDEX epg_ch_start_idx ON epglist (channel, start_epoch)",
          "CREATE UNIQUE INDEX epg_scanner_verify_idx ON epglist (channel, start_epoch, dur_sec)"}};
const Table EPGLIST_LANG = {
    "epg_db", "epglist_lang", "CREATE TABLE epglist_lang (source_oid int)",
    "source_oid|int|-|0 lang|text|''|0 ev_name|text|''|0 ev_desc|text|''|0 ext_desc|text|''|0 ext_list|text|''|0",
    Texts{"CREATE UNIQUE INDEX epg_lang_soid_lang_idx ON epglist_lang (source_oid, lang)",
          "CREATE INDEX epg_lang_soid_idx ON epglist_lang (source_oid)"}};

const Texts PRAGMAS = {"PRAGMA max_page_count=8000;", "PRAGMA temp_store = MEMORY;", "PRAGMA journal_mode = OFF;",
                       "PRAGMA default_cache_size=64;", "PRAGMA synchronous = OFF;"};

class Schema : public db_support::Database_test {
 protected:
  std::string columns(const std::string& table) {
    return text(
        "SELECT group_concat(name || '|' || lower(type) || '|' || ifnull(dflt_value, '-') || '|' || pk, ' ') FROM "
        "pragma_table_info('" +
        table + "')");
  }
};

// Files as they are before the library opens them: not there, unless a test makes them.
class Schema_of_files : public Schema {
 protected:
  Schema_of_files() { remove_files(); }
  void remove_files() {
    close();
    std::filesystem::remove(file());
    std::filesystem::remove(guide_file());
  }
  void make_file(const Texts& statements) {
    const Other_connection other(file());
    for (const std::string& statement : statements)
      EXPECT_EQ(other.run(statement), SQLITE_DONE) << statement;
  }
  // What `sql_exec` is traced to run while the files are opened; of added columns only the name. As many as are
  // expected: connecting and closing follow.
  Texts statements_of_opening(size_t count) {
    Texts all = db_support::after("sql_exec: ", messages_at(4, [&] { open(); }));
    for (std::string& statement : all) {
      const size_t name = statement.find(" ADD COLUMN ");
      if (name != std::string::npos)
        statement = "+ " + statement.substr(name + 12, statement.find(' ', name + 12) - name - 12);
    }
    EXPECT_GT(all.size(), count);
    all.resize(count);
    return all;
  }
};

using Schema_of_existing_files = Schema_of_files;
using Schema_of_new_files = Schema_of_files;
using Schema_messages = Schema_of_files;

// The probe of a table that is not there, and how it is made, as statements_of_opening gives them.
void add_creation(Texts* statements, const Table& table) {
  statements->insert(statements->end(),
                     {std::string("SELECT * FROM ") + table.name + ";", "BEGIN;", std::string(table.create) + ";"});
  std::istringstream columns(table.columns.substr(table.columns.find(' ')));
  for (std::string column; columns >> column;)
    statements->push_back("+ " + column.substr(0, column.find('|')));
  for (const std::string& index : table.indexes)
    statements->push_back(index + ";");
  statements->push_back("COMMIT;");
}

}  // namespace

// The statement texts end in sqlite_master without their semicolon.
TEST_F(Schema, every_table_has_its_columns_and_indexes_in_order) {
  for (const Table& table : {KANALID, KANALID_LANG, ESTREAMS, TUNER_TABLE, EPGLIST, EPGLIST_LANG}) {
    EXPECT_EQ(columns(table.name), table.columns) << table.name;
    EXPECT_EQ(rows(std::string("SELECT sql FROM ") + table.schema +
                   ".sqlite_master WHERE type = 'index' AND tbl_name = '" + table.name + "' ORDER BY rowid"),
              table.indexes)
        << table.name;
  }
}

TEST_F(Schema, tables_are_spread_over_the_two_files) {
  const std::string tables =
      "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' ORDER BY rowid";
  EXPECT_EQ(Other_connection(file()).rows(tables), (Texts{"kanalid", "kanalid_lang", "estreams", "tuner_table"}));
  EXPECT_EQ(Other_connection(guide_file()).rows(tables), (Texts{"epglist", "epglist_lang"}));
  for (const std::string table : {"epglist", "epg_db.epglist", "epg_db.epglist_lang"})
    EXPECT_EQ(rows("SELECT count(*) FROM " + table), (Texts{"0"})) << table << " on the library's own connection";
}

TEST_F(Schema, check_texts_are_exact) {
  const std::pair<const char*, Texts> tables[] = {
      {"main.sqlite_master WHERE name = 'kanalid'",
       {"hf_conn         int   DEFAULT 0 CHECK(hf_conn  >= 0 &  hf_conn < 32)", "CHECK(dvb_type >= 0 &  dvb_type < 3)",
        "CHECK(freq  > 0)", "CHECK(pat_prnr  >= 0 &  pat_prnr < 65535)", "CHECK(pmt_pid   >= 0 &  pmt_pid  < 65535)",
        "CHECK(network_id  >= 0 &  network_id < 65535)", "CHECK(orig_network_id  >= 0 &  orig_network_id <= 65535)",
        "CHECK(tstream_id  >= 0 &  tstream_id <= 65535)",
        "lcn             int   DEFAULT 65535 CHECK(lcn  >= 0 &  lcn <= 65535)",
        "CHECK(pcr_pid   >= 0 &  pcr_pid  <= 65535)", "CHECK(serv_type >= 0 &  serv_type <= 255)",
        "CHECK(run_status >= 0 &  run_status <= 255)", "CHECK(free_ca >= 0    &  free_ca < 2)",
        "CHECK(scan_state >= 0 &  scan_state < 256)", "CHECK(row_status >= 0 &  row_status < 256)",
        "CHECK(modified >= 0)"}},
      {"main.sqlite_master WHERE name = 'estreams'",
       {"CHECK(es_pid  >= 0 &  es_pid <= 65535)", "CHECK(row_status >= 0 &  row_status < 256)"}},
      {"main.sqlite_master WHERE name = 'tuner_table'",
       {"CHECK(hf_conn  >= 0 &  hf_conn < 32)", "CHECK(dvb_type >= 0 &  dvb_type < 3)"}},
      {"epg_db.sqlite_master WHERE name = 'epglist'",
       {"CHECK(ymd_bcd >= 0 )", "CHECK(hms_bcd >= 0 )", "CHECK(start_epoch >= 0 )", "CHECK(dur_bcd >= 0 )",
        "CHECK(dur_sec >= 0 )", "CHECK(run_status >= 0 &  run_status <= 255)", "CHECK(free_ca >= 0    &  free_ca < 2)",
        "CHECK(ev_id   >= 0    &  ev_id <= 65535)", "CHECK(pat_prnr   >= 0    &  pat_prnr < 65535)"}},
  };
  for (const auto& [table, checks] : tables)
    for (const std::string& check : checks)
      EXPECT_THAT(text(std::string("SELECT sql FROM ") + table), HasSubstr(check));
  EXPECT_THAT(rows("SELECT sql FROM sqlite_master WHERE name = 'kanalid_lang' UNION ALL SELECT sql FROM "
                   "epg_db.sqlite_master WHERE name = 'epglist_lang'"),
              testing::AllOf(testing::SizeIs(2), testing::Each(testing::Not(HasSubstr("CHECK")))));
}

TEST_F(Schema, rows_without_a_frequency_negative_values_and_second_rows_of_one_key_are_rejected) {
  constexpr int CHECK = SQLITE_CONSTRAINT_CHECK, UNIQUE = SQLITE_CONSTRAINT_UNIQUE, DONE = SQLITE_DONE;
  const std::pair<std::string, int> inserts[] = {
      {"kanalid (pat_prnr) VALUES (1)", CHECK},
      {"kanalid (freq) VALUES (0)", CHECK},
      {"kanalid (freq) VALUES (-1)", CHECK},
      {"kanalid (freq) VALUES (1)", DONE},
      {"kanalid (freq, modified) VALUES (1, -1)", CHECK},
      {"kanalid (hf_conn, dvb_type, freq, pat_prnr, network_id) VALUES (1, 1, 5, 9, 1)", DONE},
      {"kanalid (hf_conn, dvb_type, freq, pat_prnr, network_id) VALUES (1, 1, 5, 9, 2)", UNIQUE},
      {"kanalid (hf_conn, dvb_type, freq, pat_prnr, network_id) VALUES (2, 1, 5, 9, 1)", DONE},
      {"kanalid (hf_conn, dvb_type, freq, pat_prnr, network_id) VALUES (1, 2, 5, 9, 1)", DONE},
      {"kanalid (hf_conn, dvb_type, freq, pat_prnr, network_id) VALUES (1, 1, 6, 9, 1)", DONE},
      {"epglist (channel, start_epoch, dur_sec) VALUES (1, 1000, 60)", DONE},
      {"epglist (channel, start_epoch, dur_sec) VALUES (1, 1000, 90)", UNIQUE},
      {"epglist (channel, start_epoch, dur_sec) VALUES (2, 1000, 60)", DONE},
  };
  for (const auto& [insert, code] : inserts)
    EXPECT_EQ(run("INSERT INTO " + insert), code) << insert;
  for (const std::string column : {"ymd_bcd", "hms_bcd", "start_epoch", "dur_bcd", "dur_sec"}) {
    EXPECT_EQ(run("INSERT INTO epglist (" + column + ") VALUES (-1)"), CHECK) << column;
    EXPECT_EQ(run("INSERT INTO epglist (channel, " + column + ") VALUES (random(), 7)"), DONE) << column;
  }
}

TEST_F(Schema, quirk_two_sided_checks_accept_everything) {
  const Texts columns = {"hf_conn",         "dvb_type",   "pat_prnr",   "pmt_pid",   "network_id",
                         "orig_network_id", "tstream_id", "lcn",        "pcr_pid",   "serv_type",
                         "run_status",      "free_ca",    "scan_state", "row_status"};
  int freq = 1;
  for (const std::string& column : columns)
    for (const char* value : {"-1", "65535", "65536", "-2147483648", "2147483647"})
      EXPECT_EQ(
          run("INSERT INTO kanalid (freq, " + column + ") VALUES (" + std::to_string(freq++) + ", " + value + ")"),
          SQLITE_DONE)
          << column << " " << value;
  for (const char* column : {"es_pid", "row_status"})
    for (const char* value : {"-1", "65536"})
      EXPECT_EQ(run(std::string("INSERT INTO estreams (") + column + ") VALUES (" + value + ")"), SQLITE_DONE);
  for (const char* column : {"run_status", "free_ca", "ev_id", "pat_prnr"})
    for (const char* value : {"-1", "65536"})
      EXPECT_EQ(run("INSERT INTO epglist (start_epoch, " + std::string(column) + ") VALUES (" + std::to_string(freq++) +
                    ", " + value + ")"),
                SQLITE_DONE);
  for (const char* column : {"hf_conn", "dvb_type"})
    EXPECT_EQ(run("INSERT INTO tuner_table (freq, " + std::string(column) + ") VALUES (1, 99)"), SQLITE_DONE);
}

TEST_F(Schema, quirk_program_number_65535_is_accepted) {
  EXPECT_EQ(run("INSERT INTO kanalid (freq, pat_prnr, tstream_id) VALUES (1, 65535, 65535)"), SQLITE_DONE);
}

TEST_F(Schema, fresh_rows_have_their_defaults_and_channel_numbers_are_never_used_again) {
  run("INSERT INTO epglist (channel) VALUES (1)");
  EXPECT_EQ(rows("SELECT content_id, rating, revision, entry FROM epglist"), (Texts{"0.0.0.0|0@est|2.5|1"}));
  run("INSERT INTO kanalid (freq) VALUES (1)");
  EXPECT_EQ(rows("SELECT lcn, revision, serv_name, scan_state, channel FROM kanalid"), (Texts{"65535|2.5||0|1"}));
  run("INSERT INTO kanalid (freq, pat_prnr) VALUES (1, 2)");
  run("DELETE FROM kanalid WHERE channel = 2");
  run("INSERT INTO kanalid (freq, pat_prnr) VALUES (1, 3)");
  EXPECT_EQ(rows("SELECT channel FROM kanalid"), (Texts{"1", "3"}));
}

TEST_F(Schema, scan_tables_of_instances_coexist_and_are_private_to_the_connection) {
  for (const char* n : {"0", "1"})
    sdbl().create_temp_tables(n[0] - '0');
  for (const std::string n : {"0", "1"})
    for (const Table& table : {KANALID, KANALID_LANG, ESTREAMS})
      EXPECT_EQ(columns(table.name + ("_scan_" + n)), table.columns);
  EXPECT_EQ(rows("SELECT count(*) FROM sqlite_temp_master WHERE type = 'index'"), (Texts{"0"}));
  EXPECT_EQ(run("INSERT INTO kanalid_scan_1 (pat_prnr) VALUES (1)"), SQLITE_CONSTRAINT_CHECK);
  EXPECT_EQ(run("INSERT INTO kanalid_scan_1 (freq) VALUES (1)"), SQLITE_DONE);
  EXPECT_EQ(rows("SELECT count(*) FROM kanalid_scan_0"), (Texts{"0"}));
  EXPECT_EQ(Other_connection(file()).rows("SELECT count(*) FROM kanalid_scan_0"),
            (Texts{"error: no such table: kanalid_scan_0"}));
}

TEST_F(Schema, table_names_are_quoted) {
  sdbl().create_table_estreams("it's; odd", false);
  EXPECT_EQ(rows("SELECT name FROM sqlite_master WHERE name LIKE 'it%'"), (Texts{"it's; odd"}));
}

TEST_F(Schema_of_existing_files, only_the_missing_table_is_created) {
  const std::string everything = "SELECT type, name, sql FROM sqlite_master ORDER BY name";
  open();
  const Texts before = rows(everything);
  close();
  make_file({"INSERT INTO kanalid (freq) VALUES (506000000)", "DROP TABLE estreams"});
  Texts expected = PRAGMAS;
  expected.insert(expected.end(), {"SELECT * FROM kanalid;", "SELECT * FROM kanalid_lang;"});
  add_creation(&expected, ESTREAMS);
  expected.emplace_back("SELECT * FROM tuner_table;");
  EXPECT_EQ(statements_of_opening(expected.size()), expected);
  EXPECT_EQ(rows("SELECT freq FROM kanalid"), (Texts{"506000000"}));
  EXPECT_EQ(rows(everything), before);
}

TEST_F(Schema_of_existing_files, a_statement_that_fails_is_skipped_and_the_rest_is_kept) {
  make_file({"CREATE TABLE other (a int)", "CREATE INDEX estreams_estype_idx ON other (a)"});
  EXPECT_THAT(messages_at(0, [&] { open(); }), MatchesRegex("ERROR: SQL_exec: 1 @ Sdbl line [0-9]+\n"));
  EXPECT_EQ(rows("SELECT name FROM sqlite_master WHERE type = 'index' AND tbl_name = 'estreams' ORDER BY rowid"),
            (Texts{"estreams_channel_idx", "estreams_essubtype_idx", "estreams_languages_idx"}));
  EXPECT_EQ(rows("SELECT count(*) FROM tuner_table"), (Texts{"0"}));
}

TEST_F(Schema_of_existing_files, an_older_table_is_used_as_it_is) {
  make_file({"CREATE TABLE kanalid (channel integer primary key, freq int)", "INSERT INTO kanalid (freq) VALUES (7)"});
  (void)messages_at(-1, [&] { open(); });
  EXPECT_EQ(rows("SELECT sql FROM sqlite_master WHERE name LIKE 'kanalid%' AND name NOT LIKE '%lang%'"),
            (Texts{"CREATE TABLE kanalid (channel integer primary key, freq int)"}));
  EXPECT_EQ(sdbl().get_freq(1), 7);
}

TEST_F(Schema_of_new_files, every_statement_runs_in_its_order) {
  Texts expected = PRAGMAS;
  for (const Table& table : {KANALID, KANALID_LANG, ESTREAMS, TUNER_TABLE})
    add_creation(&expected, table);
  expected.insert(expected.end(), PRAGMAS.begin(), PRAGMAS.end());
  for (const Table& table : {EPGLIST, EPGLIST_LANG})
    add_creation(&expected, table);
  expected.push_back("ATTACH DATABASE '" + guide_file() + "' as epg_db;");
  EXPECT_EQ(statements_of_opening(expected.size()), expected);
}

TEST_F(Schema_of_new_files, columns_are_added_with_these_statements) {
  const std::string text = messages_at(4, [&] {
    open();
    sdbl().create_temp_tables(2);
  });
  for (const std::string table : {"kanalid", "kanalid_scan_2"})
    for (const char* column :
         {"revision        float DEFAULT 2.50", "lcn             int   DEFAULT 65535 CHECK(lcn  >= 0 &  lcn <= 65535)",
          "serv_name       text  DEFAULT ''"})
      EXPECT_THAT(text, HasSubstr("sql_exec: ALTER TABLE  '" + table + "' ADD COLUMN " + column + ";\n"));
}

TEST_F(Schema_messages, a_new_file_prints_its_failed_probes_as_warnings_and_is_silent_at_level_0) {
  EXPECT_EQ(messages_at(0, [&] { open(); }), "");
  remove_files();
  EXPECT_EQ(messages_at(1, [&] { open(); }),
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM kanalid;, no such table: kanalid\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM kanalid_lang;, no such table: kanalid_lang\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM estreams;, no such table: estreams\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM tuner_table;, no such table: tuner_table\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM epglist;, not an error\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM epglist_lang;, not an error\n");
}

// The tables and all their columns but the first are there already.
TEST_F(Schema, failing_statements_name_their_operation_and_the_rest_runs) {
  EXPECT_THAT([&] { sdbl().create_table_kanalid_lang("kanalid_lang", false); },
              prints_only_from(0, MatchesRegex("(ERROR: SQL_exec: 1 @ create_table_kanalid_lang line [0-9]+\n){5}")));
  EXPECT_THAT([&] { sdbl().create_table_kanalid("kanalid", false); },
              prints_only_from(0, MatchesRegex("(ERROR: SQL_exec: 1 @ create_table_kanalid line [0-9]+\n){21}")));
  EXPECT_THAT([&] { sdbl().create_table_estreams("estreams", false); },
              prints_only_from(0, MatchesRegex("(ERROR: SQL_exec: 1 @ create_table_estreams line [0-9]+\n){13}")));
}
