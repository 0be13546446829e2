// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "base/messages.h"
#include "db_support.h"
#include "support/support.h"

using db_support::number;
using db_support::rows;
using support::stderr_of;

namespace {

constexpr int TYPE = 1;
constexpr int CONN = 1;
constexpr int SERVICES = 6;
constexpr int ROUNDS = 12;

int freq_of(int dvbnr) {
  return 506000000 + 8000000 * dvbnr;
}

// One event more for each service in each round; returns how many came out wrong.
int store_events(Sdbl* sdbl, int freq, const std::list<SQL_cache*>& services, int round) {
  int wrong = 0;
  std::string content = "0.0.0.0";
  std::string rating = "0@est";
  for (SQL_cache* service : services) {
    bool changed = false;
    bool overlap = false;
    for (int event = 0; event <= round; ++event) {
      const int start = 2000000000 + 60 * event;
      const int known = sdbl->lookup_epg_cache(&service->epg, event, start, 60, &changed, &overlap);
      wrong += known == (event < round ? 1 : 0) && !changed && !overlap ? 0 : 1;
      if (known == 1)
        continue;
      const int entry = sdbl->eit_for_service(TYPE, CONN, freq, service->pat_prnr, service, 0x20330518, 0x033320,
                                              0x000100, start, 60, 0, 0, event, &content, &rating, false, false);
      int channel = 0;
      sdbl->sql_get_int(&channel, 0, "SELECT channel FROM epglist WHERE entry = %d", entry);
      wrong += channel == service->channel ? 0 : 1;
      sdbl->insert_epglist_lang(entry, "eng", "Name", "Description", "", "");
    }
    sdbl->eit_info_available(service->channel);
  }
  return wrong;
}

// What one adapter's worker does; the results of the merges are checked, so that no thread saw another's rows.
void scan_and_merge(Sdbl* sdbl, int dvbnr, std::atomic<int>* wrong) {
  const int freq = freq_of(dvbnr);
  const std::string kanalid = "kanalid_scan_" + std::to_string(dvbnr);
  const std::string kanalid_lang = "kanalid_lang_scan_" + std::to_string(dvbnr);
  std::list<PMT_subtxt_lang*> none;
  std::list<SQL_cache*> eit;
  for (int round = 0; round < ROUNDS; ++round) {
    if (round % 4 == 3)
      sdbl->create_temp_tables(dvbnr);  // as a host does that takes an adapter away and back
    else
      sdbl->clear_temp_tables(dvbnr);
    int before = 0;
    for (int program = 1; program <= SERVICES; ++program) {
      const int row = sdbl->pat_for_network(dvbnr, TYPE, CONN, freq, program, dvbnr, 100 + program);
      *wrong += row == before + 1 || before == 0 ? 0 : 1;
      before = row;
      *wrong += sdbl->sdt_for_service(dvbnr, TYPE, CONN, freq, program, 4, 0) == row ? 0 : 1;
      *wrong += sdbl->pmt_channel_number(dvbnr, TYPE, CONN, freq, program, 300, SCAN_PAT) == row ? 0 : 1;
      sdbl->modify_table_oid(row, kanalid.c_str(), "serv_type", 1);
      sdbl->modify_lang_table_oid(row, kanalid_lang.c_str(), "eng", "serv_name", "Name");
      sdbl->pmt_for_service(dvbnr, row, 1000 * dvbnr + program, 27, 0, "H264", "eng", "", 0x500, 0x1F0, &none);
      std::list<PMT_subtxt_lang*> subtxt = {new PMT_subtxt_lang{"eng", 1, 2, 3}, new PMT_subtxt_lang{"est", 4, 5, 6}};
      sdbl->pmt_for_service(dvbnr, row, 2000 * dvbnr + program, 6, 0, "TXT", "", "", 0, 0, &subtxt);
    }
    sdbl->nit_for_network(dvbnr, TYPE, CONN, freq, "network_id", 10);
    sdbl->nit_network_name(dvbnr, TYPE, CONN, freq, 10, "Network");
    sdbl->nit_multilingual_network_name(dvbnr, TYPE, CONN, freq, 10, "eng", "Network");
    const int result = sdbl->update_master_scan_data(dvbnr, TYPE, CONN, freq, SCAN_PAT);
    *wrong += result == (round == 0 ? 2 | 32 : 0) ? 0 : 1;
    sdbl->get_eit_scan_list(dvbnr, TYPE, CONN, freq, &eit, SCAN_EIT);
    *wrong += eit.size() == SERVICES ? 0 : 1;
    *wrong += store_events(sdbl, freq, eit, round);
    sdbl->clear_eit_scan_list(&eit);
    sdbl->set_master_scan_timeout(TYPE, CONN, freq);
    sdbl->terrestrial_tuner_info(TYPE, CONN, freq, 0, 2, 0, 2, 2, 0, 1);
  }
}

// What a host does meanwhile.
void read_and_export(Sdbl* sdbl, const std::string& copy, const std::atomic<bool>* running) {
  std::vector<CA_pid*> pids;
  while (*running) {
    sdbl->set_preferred_provider("somebody");
    sdbl->set_backup_file_name(copy.c_str());
    for (int channel = 1; channel <= 4; ++channel) {
      sdbl->get_freq(channel);
      sdbl->fill_pids_for_channel(channel, &pids);
      std::unique_ptr<std::string> name(sdbl->get_serv_name(TYPE, CONN, freq_of(channel - 1), 1));
    }
    sdbl->sql_row_exists("SELECT * FROM kanalid WHERE channel = %d", 1);
    sdbl->remove_old_entries(0, true);
    sdbl->flush();
    sdbl->backup_channel_database(copy.c_str());
  }
  for (CA_pid* pid : pids)
    delete pid;
}

}  // namespace

TEST(Concurrency, four_adapters_and_a_host_share_one_database) {
  support::Temp_dir dir;
  Sdbl sdbl(dir.file("a.db").c_str());
  for (int n = 0; n < 4; ++n)
    sdbl.create_temp_tables(n);
  std::atomic<int> wrong{0};
  std::atomic<bool> running{true};
  const std::string text = stderr_of([&] {
    std::thread host(read_and_export, &sdbl, dir.file("copy.db"), &running);
    std::vector<std::thread> workers;
    for (int n = 0; n < 4; ++n)
      workers.emplace_back(scan_and_merge, &sdbl, n, &wrong);
    for (std::thread& worker : workers)
      worker.join();
    running = false;
    host.join();
  });
  EXPECT_EQ(text, "");
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(number(sdbl, "SELECT count(*) FROM kanalid"), 4 * SERVICES);
  EXPECT_EQ(number(sdbl, "SELECT count(*) FROM estreams"), 4 * SERVICES * 3);
  EXPECT_EQ(number(sdbl, "SELECT count(*) FROM kanalid_lang"), 4 * SERVICES);
  EXPECT_EQ(number(sdbl,
                   "SELECT count(*) FROM estreams e JOIN kanalid c USING (channel) WHERE es_type = 27 AND "
                   "es_pid = 1000 * tstream_id + pat_prnr"),
            4 * SERVICES);
  EXPECT_EQ(number(sdbl, "SELECT count(*) FROM tuner_table"), 4);
  EXPECT_EQ(number(sdbl, "SELECT count(*) FROM epglist"), 4 * SERVICES * ROUNDS);
  EXPECT_EQ(number(sdbl, "SELECT count(*) FROM epglist JOIN epglist_lang ON entry = source_oid"),
            4 * SERVICES * ROUNDS);
  EXPECT_EQ(rows(sdbl, "PRAGMA integrity_check"), (std::vector<std::string>{"ok"}));
}

// Instances share the entries of the cache; each of these texts is first seen by whichever thread is first.
TEST(Concurrency, instances_compile_the_same_texts_at_once) {
  support::Temp_dir dir;
  Sdbl sdbl(dir.file("a.db").c_str());
  for (int n = 0; n < 4; ++n)
    sdbl.create_temp_tables(n);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int n = 0; n < 4; ++n)
    threads.emplace_back([&, n] {
      for (int i = 0; i < 200; ++i) {
        const std::string sql = "SELECT $a, 'DVBNR', " + std::to_string(i);
        sqlite3_stmt* stmt = sdbl.sql_cache(false, n, sql.c_str(), 7 * n);
        const bool right = stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW &&
                           sqlite3_column_int(stmt, 0) == 7 * n && sqlite3_column_int(stmt, 1) == n &&
                           sqlite3_column_int(stmt, 2) == i;
        sqlite3_reset(stmt);
        wrong += right ? 0 : 1;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
  sdbl.free_prepared_queries();
}
