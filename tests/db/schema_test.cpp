// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using db_support::Other_connection;
using db_support::rows;
using support::messages_at;
using support::stderr_of;
using support::Texts;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

class Schema : public db_support::Database_test {
 protected:
  // name|type|default|primary key of every column, in order; SQLite has its own spelling of well-known types
  Texts columns(const std::string& table) {
    return rows(
        "SELECT name || '|' || lower(type) || '|' || ifnull(dflt_value, '-') || '|' || pk FROM "
        "pragma_table_info('" +
        table + "')");
  }
  std::string sql_of(const std::string& schema, const std::string& name) {
    const Texts found = rows("SELECT sql FROM " + schema + ".sqlite_master WHERE name = '" + name + "'");
    return found.size() == 1 ? found[0] : "found " + std::to_string(found.size());
  }
  Texts indexes(const std::string& schema, const std::string& table) {
    return rows("SELECT sql FROM " + schema + ".sqlite_master WHERE type = 'index' AND tbl_name = '" + table +
                "' ORDER BY rowid");
  }
};

// What `sql_exec` is traced to run while `file` is opened, a statement an entry; of added columns only the name.
Texts statements_of_opening(const std::string& file) {
  std::unique_ptr<Sdbl> sdbl;
  const std::string text = messages_at(4, [&] { sdbl = std::make_unique<Sdbl>(file.c_str()); });
  verbosity_kelvo = -1;
  Texts statements;
  for (size_t at = 0; (at = text.find("sql_exec: ", at)) != std::string::npos; ++at) {
    std::string statement = text.substr(at + 10, text.find('\n', at) - at - 10);
    const size_t name = statement.find(" ADD COLUMN ");
    if (name != std::string::npos)
      statement = "+ " + statement.substr(name + 12, statement.find(' ', name + 12) - name - 12);
    statements.push_back(statement);
  }
  return statements;
}

// A table's columns after the first, as statements_of_opening gives them.
void add_columns(Texts* statements, const Texts& columns) {
  for (size_t i = 1; i < columns.size(); ++i)
    statements->push_back("+ " + columns[i].substr(0, columns[i].find('|')));
}

const Texts PRAGMAS = {"PRAGMA max_page_count=8000;", "PRAGMA temp_store = MEMORY;", "PRAGMA journal_mode = OFF;",
                       "PRAGMA default_cache_size=64;", "PRAGMA synchronous = OFF;"};

const Texts KANALID = {"channel|integer|-|1",    "revision|float|2.50|0", "hf_conn|int|0|0",
                       "dvb_type|int|0|0",       "freq|int|0|0",          "pat_prnr|int|0|0",
                       "pmt_pid|int|0|0",        "network_id|int|0|0",    "orig_network_id|int|0|0",
                       "tstream_id|int|0|0",     "lcn|int|65535|0",       "pcr_pid|int|0|0",
                       "serv_name|text|''|0",    "serv_type|int|0|0",     "prov_name|text|''|0",
                       "network_name|text|''|0", "run_status|int|0|0",    "free_ca|int|0|0",
                       "scan_state|int|0|0",     "row_status|int|0|0",    "modified|int|0|0"};

const Texts KANALID_LANG = {"source_oid|int|-|0", "lang|text|''|0", "serv_name|text|''|0", "prov_name|text|''|0",
                            "network_name|text|''|0"};

const Texts ESTREAMS = {
    "channel|int|-|0",  "revision|float|2.50|0", "es_pid|int|0|0",       "es_type|int|0|0", "es_subtype|int|0|0",
    "codec|text|''|0",  "languages|text|''|0",   "lang_codes|text|''|0", "p1|int|0|0",      "p2|int|0|0",
    "ca_sysid|int|0|0", "ca_pid|int|0|0",        "row_status|int|0|0"};

}  // namespace

TEST_F(Schema, every_table_has_its_columns_in_order) {
  EXPECT_EQ(columns("kanalid"), KANALID);
  EXPECT_EQ(columns("kanalid_lang"), KANALID_LANG);
  EXPECT_EQ(columns("estreams"), ESTREAMS);
  EXPECT_EQ(columns("tuner_table"),
            (Texts{"freq|int|-|0", "hf_conn|int|0|0", "dvb_type|int|0|0", "tuner_params|text|''|0"}));
  EXPECT_EQ(columns("epglist"), (Texts{"entry|integer|-|1", "channel|int|0|0", "revision|float|2.50|0",
                                       "ymd_bcd|int|0|0", "hms_bcd|int|0|0", "start_epoch|int|0|0", "dur_bcd|int|0|0",
                                       "dur_sec|int|0|0", "content_id|text|'0.0.0.0'|0", "rating|text|'0@est'|0",
                                       "run_status|int|0|0", "free_ca|int|0|0", "ev_id|int|0|0", "pat_prnr|int|0|0"}));
  EXPECT_EQ(columns("epglist_lang"), (Texts{"source_oid|int|-|0", "lang|text|''|0", "ev_name|text|''|0",
                                            "ev_desc|text|''|0", "ext_desc|text|''|0", "ext_list|text|''|0"}));
}

TEST_F(Schema, tables_are_spread_over_the_two_files) {
  const std::string tables =
      "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' "
      "ORDER BY rowid";
  Other_connection main(file());
  Other_connection epg(guide_file());
  EXPECT_EQ(main.rows(tables), (Texts{"kanalid", "kanalid_lang", "estreams", "tuner_table"}));
  EXPECT_EQ(epg.rows(tables), (Texts{"epglist", "epglist_lang"}));
}

// The statement texts end in sqlite_master without their semicolon.
TEST_F(Schema, every_table_has_its_indexes_in_order) {
  EXPECT_EQ(indexes("main", "kanalid"),
            (Texts{"CREATE UNIQUE INDEX kanalid_otsi_idx   ON kanalid (hf_conn, dvb_type, freq, pat_prnr)"}));
  EXPECT_EQ(indexes("main", "kanalid_lang"),
            (Texts{"CREATE UNIQUE INDEX kanalid_lang_soid_lang_idx ON kanalid_lang (source_oid, lang)",
                   "CREATE INDEX kanalid_lang_soid_idx ON kanalid_lang (source_oid)"}));
  EXPECT_EQ(indexes("main", "estreams"), (Texts{"CREATE INDEX estreams_channel_idx   ON estreams (channel)",
                                                "CREATE INDEX estreams_estype_idx    ON estreams (es_type)",
                                                "CREATE INDEX estreams_essubtype_idx ON estreams (es_subtype)",
                                                "CREATE INDEX estreams_languages_idx ON estreams (languages)"}));
  EXPECT_EQ(indexes("main", "tuner_table"),
            (Texts{"CREATE UNIQUE INDEX tuner_table_freq_idx ON tuner_table (freq ,hf_conn, dvb_type)"}));
  EXPECT_EQ(
      indexes("epg_db", "epglist"),
      (Texts{"CREATE INDEX epg_start_idx ON epglist (start_epoch)", "CREATE INDEX epg_ch_idx ON epglist (channel)",
             "CREATE UNIQUE INDEX epg_ch_start_idx ON epglist (channel, start_epoch)",
             "CREATE UNIQUE INDEX epg_scanner_verify_idx ON epglist (channel, start_epoch, dur_sec)"}));
  EXPECT_EQ(indexes("epg_db", "epglist_lang"),
            (Texts{"CREATE UNIQUE INDEX epg_lang_soid_lang_idx ON epglist_lang (source_oid, lang)",
                   "CREATE INDEX epg_lang_soid_idx ON epglist_lang (source_oid)"}));
}

TEST_F(Schema, guide_tables_are_reachable_with_and_without_schema_name) {
  EXPECT_EQ(rows("SELECT count(*) FROM epglist"), (Texts{"0"}));
  EXPECT_EQ(rows("SELECT count(*) FROM epg_db.epglist"), (Texts{"0"}));
  EXPECT_EQ(rows("SELECT count(*) FROM epg_db.epglist_lang"), (Texts{"0"}));
}

TEST_F(Schema, check_texts_are_exact) {
  const std::string kanalid = sql_of("main", "kanalid");
  for (const char* check :
       {"hf_conn         int   DEFAULT 0 CHECK(hf_conn  >= 0 &  hf_conn < 32)", "CHECK(dvb_type >= 0 &  dvb_type < 3)",
        "CHECK(freq  > 0)", "CHECK(pat_prnr  >= 0 &  pat_prnr < 65535)", "CHECK(pmt_pid   >= 0 &  pmt_pid  < 65535)",
        "CHECK(network_id  >= 0 &  network_id < 65535)", "CHECK(orig_network_id  >= 0 &  orig_network_id <= 65535)",
        "CHECK(tstream_id  >= 0 &  tstream_id <= 65535)",
        "lcn             int   DEFAULT 65535 CHECK(lcn  >= 0 &  lcn <= 65535)",
        "CHECK(pcr_pid   >= 0 &  pcr_pid  <= 65535)", "CHECK(serv_type >= 0 &  serv_type <= 255)",
        "CHECK(run_status >= 0 &  run_status <= 255)", "CHECK(free_ca >= 0    &  free_ca < 2)",
        "CHECK(scan_state >= 0 &  scan_state < 256)", "CHECK(row_status >= 0 &  row_status < 256)",
        "CHECK(modified >= 0)"})
    EXPECT_THAT(kanalid, HasSubstr(check));
  EXPECT_THAT(sql_of("main", "estreams"), HasSubstr("CHECK(es_pid  >= 0 &  es_pid <= 65535)"));
  EXPECT_THAT(sql_of("main", "estreams"), HasSubstr("CHECK(row_status >= 0 &  row_status < 256)"));
  EXPECT_THAT(sql_of("main", "tuner_table"), HasSubstr("CHECK(hf_conn  >= 0 &  hf_conn < 32)"));
  EXPECT_THAT(sql_of("main", "tuner_table"), HasSubstr("CHECK(dvb_type >= 0 &  dvb_type < 3)"));
  const std::string epglist = sql_of("epg_db", "epglist");
  for (const char* check :
       {"CHECK(ymd_bcd >= 0 )", "CHECK(hms_bcd >= 0 )", "CHECK(start_epoch >= 0 )", "CHECK(dur_bcd >= 0 )",
        "CHECK(dur_sec >= 0 )", "CHECK(run_status >= 0 &  run_status <= 255)", "CHECK(free_ca >= 0    &  free_ca < 2)",
        "CHECK(ev_id   >= 0    &  ev_id <= 65535)", "CHECK(pat_prnr   >= 0    &  pat_prnr < 65535)"})
    EXPECT_THAT(epglist, HasSubstr(check));
  EXPECT_THAT(sql_of("main", "kanalid_lang"), Not(HasSubstr("CHECK")));
  EXPECT_THAT(sql_of("epg_db", "epglist_lang"), Not(HasSubstr("CHECK")));
}

TEST_F(Schema, kanalid_without_a_frequency_is_rejected) {
  EXPECT_EQ(run("INSERT INTO kanalid (pat_prnr) VALUES (1)"), SQLITE_CONSTRAINT_CHECK);
  EXPECT_EQ(run("INSERT INTO kanalid (freq) VALUES (0)"), SQLITE_CONSTRAINT_CHECK);
  EXPECT_EQ(run("INSERT INTO kanalid (freq) VALUES (-1)"), SQLITE_CONSTRAINT_CHECK);
  EXPECT_EQ(run("INSERT INTO kanalid (freq) VALUES (1)"), SQLITE_DONE);
}

TEST_F(Schema, one_sided_checks_reject_negative_values) {
  EXPECT_EQ(run("INSERT INTO kanalid (freq, modified) VALUES (1, -1)"), SQLITE_CONSTRAINT_CHECK);
  for (const char* column : {"ymd_bcd", "hms_bcd", "start_epoch", "dur_bcd", "dur_sec"}) {
    EXPECT_EQ(run(std::string("INSERT INTO epglist (") + column + ") VALUES (-1)"), SQLITE_CONSTRAINT_CHECK) << column;
    EXPECT_EQ(run(std::string("INSERT INTO epglist (channel, ") + column + ") VALUES (random(), 7)"), SQLITE_DONE)
        << column;
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

TEST_F(Schema, fresh_rows_have_their_defaults) {
  run("INSERT INTO epglist (channel) VALUES (1)");
  EXPECT_EQ(rows("SELECT content_id, rating, revision, entry FROM epglist"), (Texts{"0.0.0.0|0@est|2.5|1"}));
  run("INSERT INTO kanalid (freq) VALUES (1)");
  EXPECT_EQ(rows("SELECT lcn, revision, serv_name, scan_state, channel FROM kanalid"), (Texts{"65535|2.5||0|1"}));
}

TEST_F(Schema, a_channel_has_one_event_for_each_start) {
  EXPECT_EQ(run("INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (1, 1000, 60)"), SQLITE_DONE);
  EXPECT_EQ(run("INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (1, 1000, 90)"), SQLITE_CONSTRAINT_UNIQUE);
  EXPECT_EQ(run("INSERT INTO epglist (channel, start_epoch, dur_sec) VALUES (2, 1000, 60)"), SQLITE_DONE);
}

TEST_F(Schema, an_input_has_one_row_for_each_program_of_a_frequency) {
  const std::string insert = "INSERT INTO kanalid (hf_conn, dvb_type, freq, pat_prnr, network_id) VALUES ";
  EXPECT_EQ(run(insert + "(1, 1, 5, 9, 1)"), SQLITE_DONE);
  EXPECT_EQ(run(insert + "(1, 1, 5, 9, 2)"), SQLITE_CONSTRAINT_UNIQUE);
  EXPECT_EQ(run(insert + "(2, 1, 5, 9, 1)"), SQLITE_DONE);
  EXPECT_EQ(run(insert + "(1, 2, 5, 9, 1)"), SQLITE_DONE);
  EXPECT_EQ(run(insert + "(1, 1, 6, 9, 1)"), SQLITE_DONE);
}

TEST_F(Schema, channel_numbers_are_never_used_again) {
  run("INSERT INTO kanalid (freq) VALUES (1)");
  run("INSERT INTO kanalid (freq, pat_prnr) VALUES (1, 2)");
  run("DELETE FROM kanalid WHERE channel = 2");
  run("INSERT INTO kanalid (freq, pat_prnr) VALUES (1, 3)");
  EXPECT_EQ(rows("SELECT channel FROM kanalid"), (Texts{"1", "3"}));
}

TEST_F(Schema, scan_tables_of_instances_coexist) {
  sdbl().create_temp_tables(0);
  sdbl().create_temp_tables(1);
  for (const char* n : {"0", "1"}) {
    EXPECT_EQ(columns(std::string("kanalid_scan_") + n), KANALID);
    EXPECT_EQ(columns(std::string("kanalid_lang_scan_") + n), KANALID_LANG);
    EXPECT_EQ(columns(std::string("estreams_scan_") + n), ESTREAMS);
  }
  EXPECT_EQ(rows("SELECT count(*) FROM sqlite_temp_master WHERE type = 'index'"), (Texts{"0"}));
  EXPECT_EQ(run("INSERT INTO kanalid_scan_1 (pat_prnr) VALUES (1)"), SQLITE_CONSTRAINT_CHECK);
  EXPECT_EQ(run("INSERT INTO kanalid_scan_1 (freq) VALUES (1)"), SQLITE_DONE);
  EXPECT_EQ(rows("SELECT count(*) FROM kanalid_scan_0"), (Texts{"0"}));
}

TEST_F(Schema, scan_tables_are_private_to_the_connection) {
  sdbl().create_temp_tables(0);
  Other_connection other(file());
  EXPECT_EQ(other.rows("SELECT count(*) FROM kanalid_scan_0"), (Texts{"error: no such table: kanalid_scan_0"}));
}

TEST_F(Schema, table_names_are_quoted) {
  sdbl().create_table_estreams("it's; odd", false);
  EXPECT_EQ(rows("SELECT name FROM sqlite_master WHERE name LIKE 'it%'"), (Texts{"it's; odd"}));
}

TEST(Schema_of_existing_files, only_the_missing_table_is_created) {
  support::Temp_dir dir;
  verbosity_kelvo = -1;
  { Sdbl first(dir.file("a.db").c_str()); }
  const std::string everything = "SELECT type, name, sql FROM sqlite_master ORDER BY name";
  Texts before;
  {
    Other_connection other(dir.file("a.db"));
    before = other.rows(everything);
    other.run("INSERT INTO kanalid (freq) VALUES (506000000)");
    other.run("DROP TABLE estreams");
  }
  Texts expected = PRAGMAS;
  expected.insert(expected.end(), {"SELECT * FROM kanalid;", "SELECT * FROM kanalid_lang;", "SELECT * FROM estreams;",
                                   "BEGIN;", "CREATE TABLE 'estreams' (channel int);"});
  add_columns(&expected, ESTREAMS);
  expected.insert(expected.end(), {"CREATE INDEX estreams_channel_idx   ON estreams (channel);",
                                   "CREATE INDEX estreams_estype_idx    ON estreams (es_type);",
                                   "CREATE INDEX estreams_essubtype_idx ON estreams (es_subtype);",
                                   "CREATE INDEX estreams_languages_idx ON estreams (languages);", "COMMIT;",
                                   "SELECT * FROM tuner_table;"});
  Texts statements = statements_of_opening(dir.file("a.db"));
  ASSERT_GT(statements.size(), expected.size());
  statements.resize(expected.size());
  EXPECT_EQ(statements, expected);

  Sdbl second(dir.file("a.db").c_str());
  verbosity_kelvo = 0;
  EXPECT_EQ(rows(second, "SELECT freq FROM kanalid"), (Texts{"506000000"}));
  EXPECT_EQ(rows(second, everything), before);
}

TEST(Schema_of_existing_files, a_statement_that_fails_is_skipped_and_the_rest_is_kept) {
  support::Temp_dir dir;
  {
    Other_connection other(dir.file("a.db"));
    other.run("CREATE TABLE other (a int)");
    other.run("CREATE INDEX estreams_estype_idx ON other (a)");
  }
  std::unique_ptr<Sdbl> sdbl;
  EXPECT_THAT(stderr_of([&] { sdbl = std::make_unique<Sdbl>(dir.file("a.db").c_str()); }),
              testing::MatchesRegex("ERROR: SQL_exec: 1 @ Sdbl line [0-9]+\n"));
  EXPECT_EQ(rows(*sdbl, "SELECT name FROM sqlite_master WHERE type = 'index' AND tbl_name = 'estreams' ORDER BY rowid"),
            (Texts{"estreams_channel_idx", "estreams_essubtype_idx", "estreams_languages_idx"}));
  EXPECT_EQ(rows(*sdbl, "SELECT count(*) FROM tuner_table"), (Texts{"0"}));
}

TEST(Schema_of_new_files, every_statement_runs_in_its_order) {
  support::Temp_dir dir;
  const Texts tuner = {"freq", "hf_conn", "dvb_type", "tuner_params"};
  const Texts epglist = {"entry",   "channel",    "revision", "ymd_bcd",    "hms_bcd", "start_epoch", "dur_bcd",
                         "dur_sec", "content_id", "rating",   "run_status", "free_ca", "ev_id",       "pat_prnr"};
  const Texts epglist_lang = {"source_oid", "lang", "ev_name", "ev_desc", "ext_desc", "ext_list"};
  const auto table = [](Texts* all, const std::string& name, const std::string& create, const Texts& columns,
                        const Texts& indexes) {
    all->insert(all->end(), {"SELECT * FROM " + name + ";", "BEGIN;", create});
    add_columns(all, columns);
    all->insert(all->end(), indexes.begin(), indexes.end());
    all->emplace_back("COMMIT;");
  };
  Texts expected = PRAGMAS;
  table(&expected, "kanalid", "CREATE TABLE 'kanalid' (channel integer primary key autoincrement);", KANALID,
        {"CREATE UNIQUE INDEX kanalid_otsi_idx   ON kanalid (hf_conn, dvb_type, freq, pat_prnr);"});
  table(&expected, "kanalid_lang", "CREATE TABLE 'kanalid_lang' (source_oid int);", KANALID_LANG,
        {"CREATE UNIQUE INDEX kanalid_lang_soid_lang_idx ON kanalid_lang (source_oid, lang);",
         "CREATE INDEX kanalid_lang_soid_idx ON kanalid_lang (source_oid);"});
  table(&expected, "estreams", "CREATE TABLE 'estreams' (channel int);", ESTREAMS,
        {"CREATE INDEX estreams_channel_idx   ON estreams (channel);",
         "CREATE INDEX estreams_estype_idx    ON estreams (es_type);",
         "CREATE INDEX estreams_essubtype_idx ON estreams (es_subtype);",
         "CREATE INDEX estreams_languages_idx ON estreams (languages);"});
  table(&expected, "tuner_table", "CREATE TABLE tuner_table (freq int);", tuner,
        {"CREATE UNIQUE INDEX tuner_table_freq_idx ON tuner_table (freq ,hf_conn, dvb_type);"});
  expected.insert(expected.end(), PRAGMAS.begin(), PRAGMAS.end());
  table(&expected, "epglist", "CREATE TABLE epglist ( entry integer primary key autoincrement );", epglist,
        {"CREATE INDEX epg_start_idx ON epglist (start_epoch);", "CREATE INDEX epg_ch_idx ON epglist (channel);",
         "CREATE UNIQUE INDEX epg_ch_start_idx ON epglist (channel, start_epoch);",
         "CREATE UNIQUE INDEX epg_scanner_verify_idx ON epglist (channel, start_epoch, dur_sec);"});
  table(&expected, "epglist_lang", "CREATE TABLE epglist_lang (source_oid int);", epglist_lang,
        {"CREATE UNIQUE INDEX epg_lang_soid_lang_idx ON epglist_lang (source_oid, lang);",
         "CREATE INDEX epg_lang_soid_idx ON epglist_lang (source_oid);"});
  expected.push_back("ATTACH DATABASE '" + dir.file("a_epg.db") + "' as epg_db;");
  Texts statements = statements_of_opening(dir.file("a.db"));
  ASSERT_GT(statements.size(), expected.size());
  statements.resize(expected.size());
  EXPECT_EQ(statements, expected);
}

TEST(Schema_of_new_files, columns_are_added_with_these_statements) {
  support::Temp_dir dir;
  verbosity_kelvo = 4;
  std::unique_ptr<Sdbl> sdbl;
  const std::string text = stderr_of([&] {
    sdbl = std::make_unique<Sdbl>(dir.file("a.db").c_str());
    sdbl->create_temp_tables(2);
  });
  verbosity_kelvo = 0;
  for (const char* table : {"kanalid", "kanalid_scan_2"}) {
    const std::string start = std::string("sql_exec: ALTER TABLE  '") + table + "' ADD COLUMN ";
    EXPECT_THAT(text, HasSubstr(start + "revision        float DEFAULT 2.50;\n"));
    EXPECT_THAT(text, HasSubstr(start + "lcn             int   DEFAULT 65535 CHECK(lcn  >= 0 &  lcn <= 65535);\n"));
    EXPECT_THAT(text, HasSubstr(start + "serv_name       text  DEFAULT '';\n"));
  }
}

TEST(Schema_of_existing_files, an_older_table_is_used_as_it_is) {
  support::Temp_dir dir;
  {
    Other_connection other(dir.file("a.db"));
    other.run("CREATE TABLE kanalid (channel integer primary key, freq int)");
    other.run("INSERT INTO kanalid (freq) VALUES (7)");
  }
  verbosity_kelvo = -1;
  Sdbl sdbl(dir.file("a.db").c_str());
  verbosity_kelvo = 0;
  EXPECT_EQ(rows(sdbl, "SELECT sql FROM sqlite_master WHERE name LIKE 'kanalid%' AND name NOT LIKE '%lang%'"),
            (Texts{"CREATE TABLE kanalid (channel integer primary key, freq int)"}));
  EXPECT_EQ(sdbl.get_freq(1), 7);
}

TEST(Schema_messages, a_new_file_prints_its_failed_probes_as_warnings) {
  support::Temp_dir dir;
  verbosity_kelvo = 1;
  std::unique_ptr<Sdbl> sdbl;
  const std::string text = stderr_of([&] { sdbl = std::make_unique<Sdbl>(dir.file("a.db").c_str()); });
  verbosity_kelvo = 0;
  EXPECT_EQ(text,
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM kanalid;, no such table: kanalid\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM kanalid_lang;, no such table: kanalid_lang\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM estreams;, no such table: estreams\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM tuner_table;, no such table: tuner_table\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM epglist;, not an error\n"
            "WARNING: SQL_execute/compile error RC=1, SELECT * FROM epglist_lang;, not an error\n");
}

TEST(Schema_messages, a_new_file_is_silent_at_level_0) {
  support::Temp_dir dir;
  std::unique_ptr<Sdbl> sdbl;
  EXPECT_EQ(stderr_of([&] { sdbl = std::make_unique<Sdbl>(dir.file("a.db").c_str()); }), "");
}

TEST(Schema_messages, failing_statements_name_their_operation_and_the_rest_runs) {
  support::Temp_dir dir;
  Sdbl sdbl(dir.file("a.db").c_str());
  const std::string text = stderr_of([&] { sdbl.create_table_kanalid_lang("kanalid_lang", false); });
  // The table and its four columns are there already.
  EXPECT_THAT(text, testing::MatchesRegex("(ERROR: SQL_exec: 1 @ create_table_kanalid_lang line [0-9]+\n){5}"));
  EXPECT_THAT(stderr_of([&] { sdbl.create_table_kanalid("kanalid", false); }),
              testing::MatchesRegex("(ERROR: SQL_exec: 1 @ create_table_kanalid line [0-9]+\n){21}"));
  EXPECT_THAT(stderr_of([&] { sdbl.create_table_estreams("estreams", false); }),
              testing::MatchesRegex("(ERROR: SQL_exec: 1 @ create_table_estreams line [0-9]+\n){13}"));
  EXPECT_EQ(messages_at(-1, [&] { sdbl.create_table_kanalid_lang("kanalid_lang", false); }), "");
}
