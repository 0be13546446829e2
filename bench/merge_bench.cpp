// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <stdlib.h>

#include <filesystem>
#include <list>
#include <string>

#include <benchmark/benchmark.h>

#include "db/sdbl.h"

// What a scan costs in the database: every row that PAT, PMTs, SDT and NIT of one multiplex write, and the merge. Five
// streams a service, names in three languages. CPU time is the worker's.

namespace {

constexpr int FREQ = 506000000;
constexpr int TYPE = 1;
constexpr int CONN = 1;
constexpr int STREAMS = 5;
constexpr const char* LANGUAGES[] = {"eng", "fra", "est"};

class Database {
 public:
  Database() {
    std::string name = (std::filesystem::temp_directory_path() / "kelvo-bench-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr)
      abort();
    folder_ = name;
    sdbl_ = new Sdbl((name + "/dvb.db").c_str());
    sdbl_->create_temp_tables(0);
  }
  ~Database() {
    delete sdbl_;
    std::filesystem::remove_all(folder_);
  }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void scan(int services, const char* language_of_sound) {
    sdbl_->clear_temp_tables(0);
    std::list<PMT_subtxt_lang*> none;
    for (int program = 1; program <= services; ++program)
      sdbl_->pat_for_network(0, TYPE, CONN, FREQ, program, 7, 0x100 + program);
    for (int program = 1; program <= services; ++program) {
      const int row = sdbl_->pmt_channel_number(0, TYPE, CONN, FREQ, program, 0x1000 + program, SCAN_PAT);
      for (int stream = 0; stream < STREAMS; ++stream)
        sdbl_->pmt_for_service(0, row, 0x1000 + program * 8 + stream, stream == 0 ? 27 : 3, 0,
                               stream == 0 ? "H264" : "MPEG1", stream == 0 ? "" : language_of_sound, "", 0, 0, &none);
    }
    for (int program = 1; program <= services; ++program) {
      const int row = sdbl_->sdt_for_service(0, TYPE, CONN, FREQ, program, 4, 0);
      sdbl_->modify_table_oid(row, "kanalid_scan_0", "serv_name", "A service");
      sdbl_->modify_table_oid(row, "kanalid_scan_0", "prov_name", "A provider");
      sdbl_->modify_table_oid(row, "kanalid_scan_0", "serv_type", 1);
      for (const char* language : LANGUAGES)
        sdbl_->modify_lang_table_oid(row, "kanalid_lang_scan_0", language, "serv_name", "A service");
    }
    sdbl_->nit_for_network(0, TYPE, CONN, FREQ, "network_id", 3);
    sdbl_->nit_for_network(0, TYPE, CONN, FREQ, "orig_network_id", 3);
    sdbl_->nit_network_name(0, TYPE, CONN, FREQ, 3, "A network");
    for (int program = 1; program <= services; ++program)
      sdbl_->nit_lcn(0, TYPE, CONN, 7, 3, program, program);
  }

  int merge() { return sdbl_->update_master_scan_data(0, TYPE, CONN, FREQ, SCAN_PAT); }

  void forget() {
    for (const char* table : {"kanalid", "kanalid_lang", "estreams"})
      (void)sdbl_->sql_cache(true, 0, (std::string("DELETE FROM ") + table).c_str());
  }

 private:
  std::string folder_;
  Sdbl* sdbl_;
};

void scan_writes(benchmark::State& state) {
  Database database;
  for (auto _ : state)
    database.scan(static_cast<int>(state.range(0)), "eng");
}
BENCHMARK(scan_writes)->Arg(30)->Unit(benchmark::kMillisecond);

void merge_new(benchmark::State& state) {
  Database database;
  for (auto _ : state) {
    state.PauseTiming();
    database.forget();
    database.scan(static_cast<int>(state.range(0)), "eng");
    state.ResumeTiming();
    if (database.merge() != (2 | 32))
      state.SkipWithError("not everything was new");
  }
}
BENCHMARK(merge_new)->Arg(30)->Unit(benchmark::kMillisecond);

void merge_same(benchmark::State& state) {
  Database database;
  database.scan(static_cast<int>(state.range(0)), "eng");
  database.merge();
  for (auto _ : state) {
    state.PauseTiming();
    database.scan(static_cast<int>(state.range(0)), "eng");
    state.ResumeTiming();
    if (database.merge() != 0)
      state.SkipWithError("something changed");
  }
}
BENCHMARK(merge_same)->Arg(30)->Unit(benchmark::kMillisecond);

void merge_languages_changed(benchmark::State& state) {
  Database database;
  database.scan(static_cast<int>(state.range(0)), "eng");
  database.merge();
  const char* language = "eng";
  for (auto _ : state) {
    state.PauseTiming();
    language = language[0] == 'e' ? "fra" : "eng";
    database.scan(static_cast<int>(state.range(0)), language);
    state.ResumeTiming();
    if (database.merge() != (16 | 32))
      state.SkipWithError("not all streams changed");
  }
}
BENCHMARK(merge_languages_changed)->Arg(30)->Unit(benchmark::kMillisecond);

// The whole of it on a fresh scan: what a frequency scan of a new multiplex costs.
void scan_and_merge_new(benchmark::State& state) {
  Database database;
  for (auto _ : state) {
    state.PauseTiming();
    database.forget();
    state.ResumeTiming();
    database.scan(static_cast<int>(state.range(0)), "eng");
    benchmark::DoNotOptimize(database.merge());
  }
}
BENCHMARK(scan_and_merge_new)->Arg(30)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
