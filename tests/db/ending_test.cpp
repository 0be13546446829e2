// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Programs that are killed, and machines whose power fails, in the middle of their work. A few of each by default;
// `make kill` (KELVO_KILLS=300) does each as often as it says.

#include <signal.h>
#include <sys/wait.h>

#include "db_support.h"
#include "disk_log.h"
#include "support/softdvb.h"

using db_support::Other_connection;
using support::messages_at;

namespace {

constexpr int TYPE = 1, CONN = 2;
constexpr int SERVICES = 12;  // of a multiplex
constexpr int64_t NOW_PAST = 1000000000, TO_COME = 2000000000;

int wanted(int usual) {
  const char* kills = getenv("KELVO_KILLS");
  return kills != nullptr ? std::max(1, atoi(kills)) : usual;
}

unsigned seed() {
  const char* given = getenv("KELVO_SEED");
  return given != nullptr ? static_cast<unsigned>(atoi(given)) : 20261122;
}

int first_number(const std::string& file, const std::string& sql) {
  const Other_connection other(file);
  return atoi(other.rows(sql).front().c_str());
}

bool is_sound(const std::string& file) {
  return !std::filesystem::exists(file) ||
         Other_connection(file).rows("PRAGMA integrity_check") == support::Texts{"ok"};
}

// Work that goes on until it is ended. `done` hears what stands in the files for certain, by a number of the kind's
// own.
using Done = std::function<void(int64_t)>;

struct Work {
  const char* name;
  void (*prepare)(Sdbl& database);
  void (*run)(Sdbl& database, const std::string& folder, int rounds, const Done& done);
  // What is missing of what had been done, in the files of a folder; empty for nothing.
  std::string (*missing)(const std::string& folder, int64_t done);
  bool in_dvbfiles = false;  // exports of the guide use that folder, which only the software adapter gives to everybody
};

void scan(Sdbl& database, int multiplex) {
  const int freq = 474000000 + 8000000 * multiplex;
  database.clear_temp_tables(0);
  for (int program = 1; program <= SERVICES; ++program) {
    const int row = database.pat_for_network(0, TYPE, CONN, freq, program, 5, 100 + program);
    database.pmt_channel_number(0, TYPE, CONN, freq, program, 1000, SCAN_PAT);
    std::list<PMT_subtxt_lang*> none;
    database.pmt_for_service(0, row, 1000 + program, 27, 0, "H264", "", "", 0, 0, &none);
    database.pmt_for_service(0, row, 2000 + program, 3, 0, "MPEG1", "eng ", "0 0 ", 0, 0, &none);
  }
  database.nit_for_network(0, TYPE, CONN, freq, "network_id", 10);
}

void merge(Sdbl& database, const std::string& /*folder*/, int rounds, const Done& done) {
  database.create_temp_tables(0);
  // One that a kill has cut off is merged again.
  int known = 0;
  database.sql_get_int(&known, 0, "SELECT count(*) FROM (SELECT 1 FROM kanalid GROUP BY freq HAVING count(*) = %d)",
                       SERVICES);
  for (int multiplex = known; multiplex < known + rounds; ++multiplex) {
    scan(database, multiplex);
    database.update_master_scan_data(0, TYPE, CONN, 474000000 + 8000000 * multiplex, SCAN_PAT);
    done(multiplex + 1);
  }
}

std::string missing_channels(const std::string& folder, int64_t done) {
  const int found = first_number(folder + "/dvb.db", "SELECT count(*) FROM kanalid");
  return found >= done * SERVICES ? "" : std::to_string(found) + " of " + std::to_string(done * SERVICES) + " channels";
}

void events(Sdbl& database, const std::string& /*folder*/, int rounds, const Done& done) {
  int known = 0;
  database.sql_get_int(&known, 0, "SELECT count(*) FROM epglist");
  SQL_cache service{};
  service.channel = 1;
  std::string content = "4.1.0.0 ", rating = "0@est";
  for (int event = known; event < known + rounds; ++event) {
    const int64_t start = TO_COME + 60 * event;
    const int entry =
        database.eit_for_service(TYPE, CONN, 474000000, 1, &service, 0x20330518, 0x033320, 0x000100,
                                 static_cast<long>(start), 60, 4, 0, event % 60000, &content, &rating, false, false);
    if (entry > 0)
      done(event + 1);
  }
}

std::string missing_events(const std::string& folder, int64_t done) {
  const int found = first_number(folder + "/dvb_epg.db", "SELECT count(*) FROM epglist");
  return found >= done ? "" : std::to_string(found) + " of " + std::to_string(done) + " events";
}

void add_events(Sdbl& database, int64_t from, int count) {
  (void)database.sql_exec(support::conn_of(database),
                          "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < %d) INSERT OR "
                          "IGNORE INTO epglist (channel, start_epoch, dur_sec) SELECT 1, %d + 60 * i, 60 FROM n",
                          count - 1, static_cast<int>(from));
}

void purge(Sdbl& database, const std::string& /*folder*/, int rounds, const Done& done) {
  for (int round = 0; round < rounds; ++round) {
    add_events(database, NOW_PAST, 60);
    database.remove_old_entries(86400, false);
    done(round);
  }
}

std::string missing_after_purge(const std::string& folder, int64_t) {
  const int found = first_number(folder + "/dvb_epg.db",
                                 "SELECT count(*) FROM epglist WHERE start_epoch >= " + std::to_string(TO_COME));
  return found == 200 ? "" : std::to_string(found) + " of 200 events to come";
}

// Beside each export a little is written, so that each copy differs.
void copies(Sdbl& database, const std::string& folder, int rounds, const Done& done) {
  database.create_temp_tables(0);
  for (int round = 0; round < rounds; ++round) {
    scan(database, round % 40);
    database.update_master_scan_data(0, TYPE, CONN, 474000000 + 8000000 * (round % 40), SCAN_PAT);
    database.backup_channel_database((folder + "/copy.db").c_str());
    done(round);
  }
}

std::string missing_copy(const std::string& folder, int64_t done) {
  const std::string copy = folder + "/copy.db";
  if (done >= 0 && !std::filesystem::exists(copy))
    return "the copy";
  if (!std::filesystem::exists(copy))
    return "";
  if (!is_sound(copy) || first_number(copy, "SELECT count(*) FROM kanalid") < SERVICES)
    return "half of the copy";
  return std::filesystem::exists(copy + "-wal") ? "the copy is not one file" : "";
}

constexpr int EVENTS_A_COPY = 20;

// Each copy has more events than the one before, and loses old ones.
void guide_copies(Sdbl& database, const std::string& folder, int rounds, const Done& done) {
  int known = 0;
  database.sql_get_int(&known, 0, "SELECT count(*) FROM epglist WHERE start_epoch >= %d", static_cast<int>(TO_COME));
  database.set_backup_file_name((folder + "/copy.db").c_str());
  for (int round = known / EVENTS_A_COPY; rounds > 0; ++round, --rounds) {
    add_events(database, TO_COME + 60LL * EVENTS_A_COPY * round, EVENTS_A_COPY);
    add_events(database, NOW_PAST, 60);
    database.backup_database(true);
    done(round + 1);
  }
}

std::string missing_guide_copy(const std::string& folder, int64_t done) {
  const std::string copy = folder + "/copy_epg.db";
  if (!std::filesystem::exists(copy))
    return done > 0 ? "the copy" : "";
  if (!is_sound(copy))
    return "half of the copy";
  const int found = first_number(copy, "SELECT count(*) FROM epglist");
  if (found < done * EVENTS_A_COPY || found % EVENTS_A_COPY != 0 ||
      first_number(copy, "SELECT count(*) FROM epglist WHERE start_epoch < " + std::to_string(TO_COME)) != 0)
    return "a copy of " + std::to_string(found) + " of " + std::to_string(done * EVENTS_A_COPY) + " events";
  return std::filesystem::exists(copy + "-wal") ? "the copy is not one file" : "";
}

const Work WORKS[] = {
    {"merge", [](Sdbl&) {}, merge, missing_channels},
    {"events", [](Sdbl&) {}, events, missing_events},
    {"purge", [](Sdbl& database) { add_events(database, TO_COME, 200); }, purge, missing_after_purge},
    {"export", [](Sdbl&) {}, copies, missing_copy},
    {"guide_export", [](Sdbl&) {}, guide_copies, missing_guide_copy, true},
};

// An empty folder for a work.
class Folder {
 public:
  explicit Folder(const Work& work) : path_(work.in_dvbfiles ? "/dvbfiles" : temporary_.path()) {
    if (work.in_dvbfiles)
      for (const auto& entry : std::filesystem::directory_iterator(path_))
        std::filesystem::remove_all(path_ + "/" + entry.path().filename().string());
  }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  const support::Temp_dir temporary_;
  const std::string path_;
};

// A program of its own that works on the files of a folder, and what it has said of it.
class Worker {
 public:
  Worker(const Work& work, const std::string& folder, Durability durability) {
    EXPECT_EQ(pipe(words_), 0);
    process_ = fork();
    if (process_ != 0)
      return;
    verbosity_kelvo = -1;
    {
      Sdbl database((folder + "/dvb.db").c_str(), durability);
      const auto say = [&](int64_t number) { (void)!write(words_[1], &number, sizeof number); };
      say(-1);
      work.run(database, folder, std::numeric_limits<int>::max() / 2, say);
    }
    _exit(0);
  }
  ~Worker() {
    kill();
    close(words_[0]);
  }

  // The last number that it said before its end; -2 when it had not opened the files.
  int64_t kill() {
    if (process_ > 0) {
      ::kill(process_, SIGKILL);
      waitpid(process_, nullptr, 0);
      process_ = 0;
      close(words_[1]);
      for (int64_t number; read(words_[0], &number, sizeof number) == sizeof number;)
        last_ = number;
    }
    return last_;
  }
  void wait_until_open() {
    int64_t number;
    if (read(words_[0], &number, sizeof number) == sizeof number)
      last_ = number;
  }

 private:
  int words_[2];
  pid_t process_ = 0;
  int64_t last_ = -2;
};

class Endings : public testing::TestWithParam<Work> {
 protected:
  Endings() : random_(seed()) {}
  void SetUp() override {
    if (GetParam().in_dvbfiles && !support::under_softdvb())
      GTEST_SKIP() << "only under softdvb is there a folder /dvbfiles";
  }

  void make(const std::string& folder, Durability durability) {
    (void)messages_at(-1, [&] {
      Sdbl database((folder + "/dvb.db").c_str(), durability);
      GetParam().prepare(database);
    });
  }
  // What is wrong with the files of a folder behind an ending; empty for nothing.
  std::string wrong(const std::string& folder, int64_t done) {
    const std::string printed = messages_at(0, [&] { Sdbl database((folder + "/dvb.db").c_str(), Durability::FULL); });
    if (!printed.empty())
      return printed;
    for (const char* file : {"/dvb.db", "/dvb_epg.db"}) {
      if (!is_sound(folder + file))
        return std::string(file) + " is damaged";
      if (std::filesystem::exists(folder + file + "-wal"))
        return std::string(file) + " has a log still";
    }
    return GetParam().missing(folder, done);
  }
  void print(const std::string& line) const { std::cout << GetParam().name << ": " << line << "\n"; }

  std::mt19937 random_;
};

INSTANTIATE_TEST_SUITE_P(, Endings, testing::ValuesIn(WORKS), [](const auto& work) { return work.param.name; });

}  // namespace

TEST_P(Endings, durable_files_lose_nothing_when_the_program_is_killed) {
  const int kills = wanted(6);
  std::unique_ptr<Folder> folder;
  int wrong_ones = 0;
  for (int round = 0; round < kills; ++round) {
    if (round % 10 == 0) {  // else what the last one has left is gone on with
      folder = std::make_unique<Folder>(GetParam());
      make(folder->path(), Durability::FULL);
    }
    Worker worker(GetParam(), folder->path(), Durability::FULL);
    if (random_() % 8 != 0)
      worker.wait_until_open();
    usleep(static_cast<useconds_t>(random_() % 60000));
    const std::string what = wrong(folder->path(), worker.kill());
    EXPECT_EQ(what, "") << "round " << round;
    wrong_ones += what.empty() ? 0 : 1;
  }
  print("killed " + std::to_string(kills) + " times, " + std::to_string(wrong_ones) + " with damage or loss");
}

// What is damaged then is found by the next opening, which names the file.
TEST_P(Endings, files_without_a_journal_that_a_kill_damages_are_recognised) {
  const int kills = wanted(6);
  int damaged = 0;
  for (int round = 0; round < kills; ++round) {
    const Folder folder(GetParam());
    make(folder.path(), Durability::NONE);
    Worker worker(GetParam(), folder.path(), Durability::NONE);
    if (random_() % 8 != 0)
      worker.wait_until_open();
    usleep(static_cast<useconds_t>(random_() % 60000));
    worker.kill();
    const bool channels = is_sound(folder.file("dvb.db")), guide = is_sound(folder.file("dvb_epg.db"));
    damaged += channels && guide ? 0 : 1;
    const std::string printed = messages_at(0, [&] { Sdbl database(folder.file("dvb.db").c_str()); });
    EXPECT_EQ(printed.find("dvb.db is damaged: ") == std::string::npos, channels) << printed;
    EXPECT_EQ(printed.find("dvb_epg.db is damaged: ") == std::string::npos, guide) << printed;
  }
  print("without a journal: killed " + std::to_string(kills) + " times, " + std::to_string(damaged) +
        " damaged, all recognised");
}

TEST_P(Endings, durable_files_lose_nothing_that_waited_for_the_disk_when_the_power_fails) {
  const int cuts = wanted(20);
  const Folder folder(GetParam());
  make(folder.path(), Durability::FULL);
  disk_log::record(folder.path());
  (void)messages_at(-1, [&] {
    for (int opening = 0; opening < 3; ++opening) {
      Sdbl database(folder.file("dvb.db").c_str(), Durability::FULL);
      GetParam().run(database, folder.path(), 8, [](int64_t number) { disk_log::mark(number); });
    }
  });
  disk_log::stop();
  // Of the guide only its soundness is promised.
  const bool counts = GetParam().missing != missing_events;
  int wrong_ones = 0;
  for (int round = 0; round < cuts; ++round) {
    const support::Temp_dir rest;
    const size_t calls = random_() % (disk_log::size() + 1);
    disk_log::cut(calls, random_, rest.path());
    const std::string what = wrong(rest.path(), counts ? disk_log::last_mark(calls) : -1);
    EXPECT_EQ(what, "") << "round " << round << ", after " << calls << " calls of " << disk_log::size();
    wrong_ones += what.empty() ? 0 : 1;
  }
  print("power cut " + std::to_string(cuts) + " times, " + std::to_string(wrong_ones) + " with damage or loss (" +
        std::to_string(disk_log::syncs()) + " syncs, " + std::to_string(disk_log::bytes() / 1024) + " KiB recorded)");
}

// The model's disk does lose and tear what was not synced: without a journal that is seen.
TEST_P(Endings, files_without_a_journal_that_a_power_cut_damages_are_recognised) {
  const int cuts = wanted(20);
  const Folder folder(GetParam());
  make(folder.path(), Durability::NONE);
  disk_log::record(folder.path());
  (void)messages_at(-1, [&] {
    Sdbl database(folder.file("dvb.db").c_str());
    GetParam().run(database, folder.path(), 8, [](int64_t number) { disk_log::mark(number); });
  });
  disk_log::stop();
  int damaged = 0;
  for (int round = 0; round < cuts; ++round) {
    const support::Temp_dir rest;
    disk_log::cut(random_() % (disk_log::size() + 1), random_, rest.path());
    if (!std::filesystem::exists(rest.file("dvb.db")))
      continue;
    const bool sound = is_sound(rest.file("dvb.db")) && is_sound(rest.file("dvb_epg.db"));
    damaged += sound ? 0 : 1;
    const std::string printed = messages_at(0, [&] { Sdbl database(rest.file("dvb.db").c_str()); });
    EXPECT_EQ(printed.find(" is damaged: ") == std::string::npos, sound) << printed;
  }
  EXPECT_TRUE(damaged > 0 || cuts < 10) << "the model cuts no power";
  print("without a journal: power cut " + std::to_string(cuts) + " times, " + std::to_string(damaged) +
        " damaged, all recognised");
}
