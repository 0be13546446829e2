// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/command_fixture.h"

#include <kelvo/kelvo.h>

#include "support/database.h"

Words joined(std::initializer_list<Words> parts) {
  Words all;
  for (const Words& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

Command_result prints(const std::string& out, const std::string& err) {
  return {0, out, err};
}

Command_result run_for_nobody(const Words& command) {
  const std::string script =
      "import os, subprocess, sys\n"
      "reader, writer = os.pipe()\n"
      "os.close(reader)\n"
      "print(subprocess.run(sys.argv[1:], stdout=writer).returncode)\n";
  return run_command(joined({{"python3", "-c", script}, command}));
}

Command_result fails(const std::string& line, int exit_code) {
  return {exit_code, "", "kelvo: " + line + "\n"};
}

testing::Matcher<const Command_result&> ends(int exit_code, const testing::Matcher<std::string>& out,
                                             const testing::Matcher<std::string>& err) {
  return testing::AllOf(testing::Field("exit_code", &Command_result::exit_code, exit_code),
                        testing::Field("out", &Command_result::out, out),
                        testing::Field("err", &Command_result::err, err));
}

Words timed_lines_of(const std::string& text) {
  Words lines = support::lines_of(text);
  for (std::string& line : lines) {
    EXPECT_TRUE(std::regex_search(line, std::regex("^" + TIME_OF_DAY))) << line;
    line.erase(0, 9);
  }
  EXPECT_FALSE(lines.empty()) << "nothing was printed";
  return lines.empty() ? Words{""} : lines;
}

void run_sql(const std::string& file, const std::string& sql) {
  char* error = nullptr;
  EXPECT_EQ(sqlite3_exec(support::Other_connection(file).get(), sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
      << file << ": " << (error != nullptr ? error : "");
  sqlite3_free(error);
}

std::string value(const std::string& file, const std::string& sql) {
  const Words rows = support::Other_connection(file).rows(sql);
  return rows.empty() ? "no row" : rows[0];
}

void make_prepared_db(const std::string& file) {
  (void)support::stderr_of([&file] { const Sdbl made(file.c_str()); });
  run_sql(file, R"(
    INSERT INTO kanalid (channel, freq, pat_prnr, pmt_pid, pcr_pid, network_id, orig_network_id, tstream_id, lcn,
                         serv_name, serv_type, prov_name, network_name, free_ca, scan_state, row_status)
    VALUES (1, 506000000, 1001, 100, 101, 8, 9, 7, 12, 'Kuldnokk', 1, 'Meedia', 'Võrk', 0, 1, 0),
           (2, 506000000, 1002, 110, 111, 8, 9, 7, 65535, 'Raadio', 2, 'Meedia', 'Võrk', 0, 1, 0),
           (3, 506000000, 1003, 120, 121, 8, 9, 7, 3, char(21) || 'Žluťoučký', 25, '', '', 1, 0, 0),
           (4, 650166666, 1, 130, 131, 8, 9, 6, 12, 'a' || char(27) || '[2J' || char(10) || 'b', 17,
            CAST(x'FF41' AS TEXT), 'Võrk', 1, 2, 0),
           (5, 650166666, 2, 0, 0, 8, 9, 6, 65535, '', 12, 'Meedia', 'Võrk', 0, 0, 2);
    INSERT INTO kanalid_lang (source_oid, lang, serv_name) VALUES (1, 'eng', 'Starling'), (1, 'est', '');
    INSERT INTO estreams (channel, es_pid, es_type, es_subtype, codec, languages, p1, p2, ca_sysid, ca_pid)
    VALUES (1, 257, 27, 0, '', '', 0, 0, 0, 0),
           (1, 258, 4, 0, '', 'est eng ', 0, 0, 0, 0),
           (1, 259, 6, -2147483647, 'AC3', 'est ', 0, 0, 0, 0),
           (1, 260, 6, -2147471358, '', 'est', 1, 0, 0, 0),
           (1, 261, 6, -2147467248, '', 'est', 0, 0, 0, 0),
           (1, 261, 6, -2147467248, '', 'rus', 0, 0, 0, 0),
           (2, 300, 3, 0, '', '', 0, 0, 0, 0),
           (3, 400, 2, 0, '', '', 0, 0, 2816, 1200),
           (3, 401, 15, 0, '', 'ces ', 0, 0, 2816, 1200),
           (3, 402, 5, 0, '', '', 0, 0, 256, 1201),
           (99, 500, 2, 0, '', '', 0, 0, 0, 0);
  )");
}

void add_event_tables(const std::string& guide) {
  run_sql(guide, R"(
    CREATE TABLE event_detail (entry integer primary key, table_id int, version int, original_network_id int,
      tstream_id int, series_crid text, programme_crid text, running_status int, running_since int, digest int);
    CREATE TABLE event_item (entry int, lang text, position int, name text, value text);
    CREATE TABLE event_component (entry int, position int, tag int, stream_content int, stream_content_ext int,
      component_type int, lang text, text text);
)");
}

void add_rich_events(const std::string& guide) {
  run_sql(guide, R"(
      INSERT INTO epglist (entry, channel, ev_id, start_epoch, dur_sec, content_id, rating, free_ca)
      VALUES (1, 1, 11, 2058388200, 5400, '1.4.0.0 11.1.0.0 b.1.0.0 ', '09@EST ', 1),
             (2, 1, 12, 2058393600, 3600, '0.0.0.0', '02@EST 05@FIN ', 0);
      INSERT INTO epglist_lang (source_oid, lang, ev_name, ev_desc, ext_desc, ext_list)
      VALUES (1, 'est', 'Üle keskööfilm', 'Komöödia, mis; ei lõpe.', 'Komöödia, mis; ei lõpe. Ega alga.',
              'wrong:from the list' || char(10)),
             (1, 'eng', 'Over midnight', 'Short. S2 Ep3/6', '', ''),
             (2, 'rus', '=1+1', '"Да"', '', '');
      INSERT INTO event_detail VALUES (1, 80, 1, 9, 7, 'crid://meedia.ee/s', 'crid://meedia.ee/p', 4, 0, 0);
      INSERT INTO event_item VALUES (1, 'est', 0, 'Režissöör:', 'Liis Kask'), (1, 'est', 1, 'Osades', 'Ann (Mari), Jüri'),
        (1, 'est', 2, 'Muusika: heli', 'a: b'), (1, 'est', 3, 'Aasta', '1994'), (1, 'eng', 0, 'Episode title', 'The bag'),
        (1, 'eng', 1, 'Country', 'Estonia');
      INSERT INTO event_component VALUES (1, 0, 1, 5, 15, 11, 'est', ''), (1, 1, 2, 4, 15, 0x45, 'est', 'Dolby'),
        (1, 2, 3, 2, 15, 0x40, 'est', ''), (1, 3, 4, 3, 15, 0x10, 'rus', ''), (1, 4, 5, 3, 15, 0x20, 'EST', ''),
        (2, 0, 1, 1, 15, 1, '', ''), (2, 1, 2, 2, 15, 3, 'qaa', '');
    )");
}

void fill_up(const std::string& file) {
  run_sql(file, "CREATE TABLE filler (bytes); INSERT INTO filler VALUES (zeroblob(7950 * 4096));");
  ASSERT_EQ(value(file, "PRAGMA page_size;"), "4096");
}

Words Command_fixture::kelvo(const Words& options, const Words& command, const std::string& script) const {
  return joined({{"env", "SOFTDVB_DEVICE=" + device_, SOFTDVB_COMMAND},
                 options,
                 {"--"},
                 script.empty() ? Words{} : Words{"sh", "-c", script, "sh"},
                 {KELVO_COMMAND},
                 command,
                 {"--db", db_}});
}

Command_result Command_fixture::run(const Words& options, const Words& command, const std::string& script) const {
  return run_command(kelvo(options, command, script));
}

Command_result Command_fixture::ended_by(int signal, support::Running_command& running) {
  EXPECT_EQ(kill(running.pid(), signal), 0);
  return running.wait();
}

void Command_fixture::add_lost_service(int pmt_pid) const {
  run_sql(
      db_,
      "INSERT INTO kanalid (freq, pat_prnr, pmt_pid, network_id, orig_network_id, tstream_id, lcn, serv_name, "
      "serv_type, prov_name, scan_state, pcr_pid) SELECT freq, 9999, " +
          std::to_string(pmt_pid) +
          ", network_id, orig_network_id, tstream_id, 77, 'Kadunud', 1, 'Keegi', 1, 99 FROM kanalid WHERE lcn = 1;");
}

std::string Command_fixture::integrity() const {
  const std::string channels = value(db_, "PRAGMA integrity_check;");
  return channels == "ok" ? value(guide_, "PRAGMA integrity_check;") : channels;
}
