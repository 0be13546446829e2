// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db_support.h"

using support::Texts;

namespace {

constexpr int SERVICES = 6;
constexpr int ROUNDS = 12;

int freq_of(int dvbnr) {
  return 506000000 + 8000000 * dvbnr;
}

class Concurrency : public db_support::Database_test {
 protected:
  Concurrency() {
    for (int n = 0; n < 4; ++n)
      sdbl().create_temp_tables(n);
  }
  int store_events(const std::list<SQL_cache*>& services, int round);
  void scan_and_merge(int dvbnr);
  void read_and_export();

  std::atomic<bool> running_{true};
  std::atomic<int> wrong_{0};
};

// One event more for each service in each round; returns how many came out wrong.
int Concurrency::store_events(const std::list<SQL_cache*>& services, int round) {
  int wrong = 0;
  for (SQL_cache* service : services) {
    bool changed = false;
    bool overlap = false;
    for (int event = 0; event <= round; ++event) {
      const int start = 2000000000 + 60 * event;
      const int known = sdbl().lookup_epg_cache(&service->epg, event, start, 60, &changed, &overlap);
      wrong += known != (event < round ? 1 : 0) || changed || overlap;
      if (known == 1)
        continue;
      const int entry = db_support::store_event(sdbl(), service->channel, start, event);
      int channel = 0;
      sdbl().sql_get_int(&channel, 0, "SELECT channel FROM epglist WHERE entry = %d", entry);
      wrong += channel != service->channel;
      sdbl().insert_epglist_lang(entry, "eng", "Name", "Description", "", "");
    }
    sdbl().eit_info_available(service->channel);
  }
  return wrong;
}

// What one adapter's worker does; the results of the merges are checked, so that no thread saw another's rows.
void Concurrency::scan_and_merge(int dvbnr) {
  const int freq = freq_of(dvbnr);
  const std::string kanalid = "kanalid_scan_" + std::to_string(dvbnr);
  const std::string kanalid_lang = "kanalid_lang_scan_" + std::to_string(dvbnr);
  std::list<PMT_subtxt_lang*> none;
  std::list<SQL_cache*> eit;
  for (int round = 0; round < ROUNDS; ++round) {
    if (round % 4 == 3)
      sdbl().create_temp_tables(dvbnr);  // as a host does that takes an adapter away and back
    else
      sdbl().clear_temp_tables(dvbnr);
    int before = 0;
    for (int program = 1; program <= SERVICES; ++program) {
      const int row = sdbl().pat_for_network(dvbnr, TYPE, CONN, freq, program, dvbnr, 100 + program);
      wrong_ += row != before + 1 && before != 0;
      before = row;
      wrong_ += sdbl().sdt_for_service(dvbnr, TYPE, CONN, freq, program, 4, 0) != row;
      wrong_ += sdbl().pmt_channel_number(dvbnr, TYPE, CONN, freq, program, 300, SCAN_PAT) != row;
      sdbl().modify_table_oid(row, kanalid.c_str(), "serv_type", 1);
      sdbl().modify_lang_table_oid(row, kanalid_lang.c_str(), "eng", "serv_name", "Name");
      sdbl().pmt_for_service(dvbnr, row, 1000 * dvbnr + program, 27, 0, "H264", "eng", "", 0x500, 0x1F0, &none);
      std::list<PMT_subtxt_lang*> subtxt = {new PMT_subtxt_lang{"eng", 1, 2, 3}, new PMT_subtxt_lang{"est", 4, 5, 6}};
      sdbl().pmt_for_service(dvbnr, row, 2000 * dvbnr + program, 6, 0, "TXT", "", "", 0, 0, &subtxt);
    }
    sdbl().nit_for_network(dvbnr, TYPE, CONN, freq, "network_id", 10);
    sdbl().nit_network_name(dvbnr, TYPE, CONN, freq, 10, "Network");
    sdbl().nit_multilingual_network_name(dvbnr, TYPE, CONN, freq, 10, "eng", "Network");
    wrong_ += sdbl().update_master_scan_data(dvbnr, TYPE, CONN, freq, SCAN_PAT) != (round == 0 ? 2 | 32 : 0);
    sdbl().get_eit_scan_list(dvbnr, TYPE, CONN, freq, &eit, SCAN_EIT);
    wrong_ += eit.size() != SERVICES;
    wrong_ += store_events(eit, round);
    sdbl().clear_eit_scan_list(&eit);
    sdbl().set_master_scan_timeout(TYPE, CONN, freq);
    sdbl().terrestrial_tuner_info(1, 1, freq, 0, 2, 0, 2, 2, 0, 1);  // stored again, only equal ones succeed
  }
}

// What a host does meanwhile.
void Concurrency::read_and_export() {
  const std::string copy = folder().file("copy.db");
  std::vector<CA_pid*> pids;
  while (running_) {
    sdbl().set_preferred_provider("somebody");
    sdbl().set_backup_file_name(copy.c_str());
    for (int channel = 1; channel <= 4; ++channel) {
      sdbl().get_freq(channel);
      sdbl().fill_pids_for_channel(channel, &pids);
      delete sdbl().get_serv_name(TYPE, CONN, freq_of(channel - 1), 1);
    }
    sdbl().sql_row_exists("SELECT * FROM kanalid WHERE channel = %d", 1);
    sdbl().remove_old_entries(0, true);
    sdbl().flush();
    sdbl().backup_channel_database(copy.c_str());
  }
  for (CA_pid* pid : pids)
    delete pid;
}

}  // namespace

TEST_F(Concurrency, four_adapters_and_a_host_share_one_database) {
  const std::string text = support::messages_at(0, [&] {
    std::thread host([this] { read_and_export(); });
    std::vector<std::thread> workers;
    for (int n = 0; n < 4; ++n)
      workers.emplace_back([this, n] { scan_and_merge(n); });
    for (std::thread& worker : workers)
      worker.join();
    running_ = false;
    host.join();
  });
  EXPECT_EQ(text, "");
  EXPECT_EQ(wrong_, 0);
  const std::pair<const char*, int> counts[] = {
      {"kanalid", 4 * SERVICES},
      {"estreams", 4 * SERVICES * 3},
      {"kanalid_lang", 4 * SERVICES},
      {"estreams e JOIN kanalid c USING (channel) WHERE es_type = 27 AND es_pid = 1000 * tstream_id + pat_prnr",
       4 * SERVICES},
      {"tuner_table", 4},
      {"epglist", 4 * SERVICES * ROUNDS},
      {"epglist JOIN epglist_lang ON entry = source_oid", 4 * SERVICES * ROUNDS},
  };
  for (const auto& [from, count] : counts)
    EXPECT_EQ(number(std::string("SELECT count(*) FROM ") + from), count) << from;
  EXPECT_EQ(rows("PRAGMA integrity_check"), (Texts{"ok"}));
}

// Instances share the entries of the cache; each of these texts is first seen by whichever thread is first.
TEST_F(Concurrency, instances_compile_the_same_texts_at_once) {
  std::vector<std::thread> threads;
  for (int n = 0; n < 4; ++n)
    threads.emplace_back([&, n] {
      for (int i = 0; i < 200; ++i) {
        const std::string sql = "SELECT $a, 'DVBNR', " + std::to_string(i);
        sqlite3_stmt* stmt = sdbl().sql_cache(false, n, sql.c_str(), 7 * n);
        wrong_ += stmt == nullptr || sqlite3_step(stmt) != SQLITE_ROW || sqlite3_column_int(stmt, 0) != 7 * n ||
                  sqlite3_column_int(stmt, 1) != n || sqlite3_column_int(stmt, 2) != i;
        sqlite3_reset(stmt);
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong_, 0);
  sdbl().free_prepared_queries();
}

// Those of the library are in use by then, and compiled again.
TEST_F(Concurrency, statements_are_freed_and_reset_while_others_use_the_cache) {
  run("INSERT INTO estreams (channel, es_pid, ca_sysid, ca_pid) VALUES (1, 7, 8, 9)");
  std::vector<std::thread> threads;
  std::atomic<int> working{3};
  for (int n = 0; n < 3; ++n)
    threads.emplace_back([&, n] {
      for (int i = 0; i < 600; ++i) {
        std::vector<CA_pid*> pids;
        sdbl().fill_pids_for_channel(1, &pids);
        wrong_ += pids.size() != 1;
        for (CA_pid* pid : pids)
          delete pid;
        wrong_ += sdbl().pat_for_network(n, TYPE, CONN, freq_of(n), i, 5, 100) != i + 1;
        // A new text, which is being compiled when its entry is freed.
        const std::string sql = "UPDATE estreams SET p1 = $p1 WHERE es_pid = " + std::to_string(i);
        wrong_ += sdbl().sql_cache(true, n, sql.c_str(), i) == nullptr;
      }
      --working;
    });
  while (working != 0) {
    sdbl().check_cached_queries();
    for (int i = 0; i < 16; ++i)
      sdbl().free_prepared_queries();
  }
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(wrong_, 0);
  for (int n = 0; n < 3; ++n)
    EXPECT_EQ(number("SELECT count(*) FROM kanalid_scan_" + std::to_string(n)), 600);
  sdbl().free_prepared_queries();
  EXPECT_EQ(support::messages_at(1, [&] { sdbl().close_db(); }), "") << "a statement without an entry is never freed";
  (void)support::messages_at(-1, [&] { close(); });
}
