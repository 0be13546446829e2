// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// A section's events are one transaction: the rows are those of statements by themselves, and nobody sees half of them.
#include <sqlite3.h>

#include "si/si_support.h"

using namespace si_support;

namespace {

constexpr int MIDNIGHT = (60000 - 40587) * 86400;  // of MJD 60000
constexpr int NOW = table::EIT_PRESENT_FOLLOWING;
constexpr int EVENTS = 5;  // of a section, where it is not said

unsigned bcd(int seconds) {
  const auto two = [](int n) { return static_cast<unsigned>(n / 10 * 16 + n % 10); };
  return two(seconds / 3600) << 16 | two(seconds / 60 % 60) << 8 | two(seconds % 60);
}

std::string title(int id) {
  return "Title of " + std::to_string(id);
}

struct Made_event {
  int id;
  int start;  // seconds since MIDNIGHT, within the day
  int duration;
};

Bytes section_of(int service, const std::vector<Made_event>& events) {
  std::vector<Programme_event> all;
  for (const Made_event& e : events)
    all.push_back({e.id, bcd(e.start), bcd(e.duration), short_event("eng", title(e.id), "What it is about")});
  return eit(service, NOW, all, 0, 1);  // the last section never comes, so the table goes on
}

// Five events behind each other; the first section is number 0.
Bytes full_section(int service, int number) {
  std::vector<Made_event> events;
  for (int i = 0; i < EVENTS; ++i) {
    const int n = number * EVENTS + i;
    events.push_back({n + 1, n * 60, 60});
  }
  return section_of(service, events);
}

class Bench : public Parser_bench {
 public:
  Bench() {
    insert(1, 256, 257, "First");
    insert(2, 256, 257, "Second");
  }
  void begin(Siparse& with) {
    with.init_cache_list(FREQ, SCAN_EIT);
    with.start_eit_scan(FREQ, SCAN_EIT);
  }
  void begin() { begin(parser); }
  std::string arrive(const Bytes& section, int level = -1) { return scan_at(level, section, pid::EIT, SCAN_EIT); }
  void set_journal(const std::string& mode) {
    for (const char* schema : {"main", "epg_db"})
      EXPECT_EQ(rows("PRAGMA " + std::string(schema) + ".journal_mode = " + mode), Texts{mode});
  }
  std::string journals() {
    return rows("PRAGMA main.journal_mode").front() + " " + rows("PRAGMA epg_db.journal_mode").front();
  }
  std::vector<Texts> guide() { return {table("epglist"), table("epglist_lang"), table("epg_db.sqlite_sequence")}; }
};

// Statement by statement, as a host stores events.
class By_statement {
 public:
  ~By_statement() { forget(); }

  void store(int channel, const std::vector<Made_event>& events) {
    SQL_cache& service = services_[channel];
    service.channel = channel;
    for (const Made_event& e : events) {
      bool changed = false, overlap = false;
      const int start = MIDNIGHT + e.start;
      if (db_->lookup_epg_cache(&service.epg, e.id, start, e.duration, &changed, &overlap) != 0 || changed || overlap)
        continue;
      std::string content = "0.0.0.0", rating = "0@est";
      const int row = db_->eit_for_service(TYPE, CONN, FREQ, channel, &service, 0x20230225,
                                           static_cast<int>(bcd(e.start)), static_cast<int>(bcd(e.duration)), start,
                                           e.duration, 0, 0, e.id, &content, &rating, false, false);
      refused += row <= 0;
      if (row > 0)
        db_->insert_epglist_lang(row, "eng", title(e.id).c_str(), "What it is about", "", "");
    }
  }
  // As a request does.
  void load() {
    forget();
    for (int channel : {1, 2})
      for (const std::string& row : db_.rows("SELECT start_epoch, ev_id, dur_sec FROM epglist WHERE channel = " +
                                             std::to_string(channel) + " ORDER BY 1")) {
        auto* event = new EPG_cache{};
        EXPECT_EQ(std::sscanf(row.c_str(), "%d|%d|%d", &event->start_epoch, &event->ev_id, &event->dur_sec), 3);
        services_[channel].epg.push_back(event);
      }
  }
  std::vector<Texts> guide() {
    return {db_.table("epglist"), db_.table("epglist_lang"), db_.table("epg_db.sqlite_sequence")};
  }

  int refused = 0;

 private:
  void forget() {
    for (auto& [channel, service] : services_)
      for (const EPG_cache* event : service.epg)
        delete event;
    services_.clear();
  }

  support::Database db_;
  std::map<int, SQL_cache> services_;
};

}  // namespace

// Known ones, ones that overlap others, that an index refuses or that have no duration among them.
TEST(Guide_sections, rows_are_those_of_statements_by_themselves) {
  int refused = 0;
  for (const char* journal : {"off", "delete", "wal"})
    for (unsigned seed = 1; seed <= 4; ++seed) {
      SCOPED_TRACE(journal + std::string(" ") + std::to_string(seed));
      Bench bench;
      bench.set_journal(journal);
      bench.begin();
      By_statement model;
      std::mt19937 random(seed);
      const auto any = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
      for (int section = 0; section < 25; ++section) {
        std::vector<Made_event> events;
        for (int i = any(8); i >= 0; --i)
          events.push_back({1 + any(30), any(60) * 600, any(3) * 600});
        const int service = 1 + any(2);
        bench.arrive(section_of(service, events));
        model.store(service, events);
        if (any(8) == 0) {
          bench.begin();
          model.load();
        }
      }
      EXPECT_EQ(bench.guide(), model.guide());
      EXPECT_EQ(bench.journals(), journal + std::string(" ") + (journal == std::string("off") ? "memory" : journal));
      EXPECT_EQ(bench.rows("PRAGMA epg_db.integrity_check"), Texts{"ok"});
      refused += model.refused;
    }
  EXPECT_GT(refused, 10);
}

TEST(Guide_sections, another_program_sees_all_events_of_a_section_or_none) {
  for (const char* journal : {"off", "delete", "wal"}) {
    SCOPED_TRACE(journal);
    Bench bench;
    bench.set_journal(journal);
    bench.begin();
    std::atomic<bool> running{true};
    std::atomic<int> looks{0}, torn{0};
    std::thread reader([&] {
      const support::Other_connection other(bench.guide_file());
      sqlite3_busy_timeout(other.get(), 20000);
      while (running) {
        const Texts counted = other.rows(
            "SELECT (SELECT count(*) FROM epglist) || ' ' || (SELECT count(*) FROM epglist, epglist_lang WHERE entry "
            "= source_oid)");
        int events = -1, texts = -1;
        if (std::sscanf(counted.front().c_str(), "%d %d", &events, &texts) != 2 || events % EVENTS != 0 ||
            texts != events)
          ++torn;
        ++looks;
        usleep(500);
      }
    });
    while (looks == 0)
      usleep(100);
    for (int number = 0; number < 40; ++number) {
      EXPECT_EQ(bench.arrive(full_section(1, number), 0), "");
      const int seen = looks;
      while (looks == seen)
        usleep(100);
    }
    running = false;
    reader.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(bench.number("SELECT count(*) FROM epglist"), 40 * EVENTS);
    EXPECT_EQ(bench.parser.get_eit_stored(), 40 * EVENTS);
  }
}

// On one database, while a host exports it and reads the channels; a copy has whole sections only.
TEST(Guide_sections, two_adapters_and_exports_do_not_disturb_each_other) {
  Bench bench;
  Section_filter second_filter{"/nonexistent/demux1"};
  Siparse second{&second_filter, 1, CONN, TYPE, &bench.db};
  bench.begin();
  bench.begin(second);
  std::atomic<int> working{2};
  const auto collect = [&](Siparse& parser, int service) {
    for (int number = 0; number < 40; ++number)
      scan_with(parser, full_section(service, number), pid::EIT, SCAN_EIT);
    --working;
  };
  const std::string copy = bench.folder().file("copy.db");
  const std::string guide = bench.folder().file("copy_epg.db");
  std::thread one(collect, std::ref(bench.parser), 1), two(collect, std::ref(second), 2);
  int copies = 0;
  do {
    const support::Other_connection to(guide);
    sqlite3_backup* backup = sqlite3_backup_init(to.get(), "main", bench.conn(), "epg_db");
    ASSERT_NE(backup, nullptr);
    EXPECT_EQ(sqlite3_backup_step(backup, -1), SQLITE_DONE);
    EXPECT_EQ(sqlite3_backup_finish(backup), SQLITE_OK);
    EXPECT_EQ(to.rows("SELECT count(*) % 5 FROM epglist"), Texts{"0"});
    EXPECT_EQ(to.rows("SELECT count(*) % 5 FROM epglist_lang"), Texts{"0"});
    bench.db.backup_channel_database(copy.c_str());
    EXPECT_EQ(support::Other_connection(copy).rows("SELECT count(*) FROM kanalid"), Texts{"2"});
    ++copies;
  } while (working != 0);
  one.join();
  two.join();
  EXPECT_GT(copies, 0);
  EXPECT_EQ(bench.rows("SELECT channel, count(*) FROM epglist GROUP BY 1"), (Texts{"1|200", "2|200"}));
  EXPECT_EQ(bench.number("SELECT count(*) FROM epglist, epglist_lang WHERE entry = source_oid"), 400);
  EXPECT_EQ(bench.rows("PRAGMA epg_db.integrity_check"), Texts{"ok"});
}

// But for the guide's journal, which every section needs again: it stays in memory until the connection is closed.
TEST(Guide_sections, a_section_leaves_the_connection_as_it_was) {
  Bench bench;
  bench.begin();
  EXPECT_EQ(bench.journals(), "off off");
  bench.arrive(full_section(1, 0));
  EXPECT_EQ(bench.journals(), "off memory");
  EXPECT_EQ(bench.number("PRAGMA busy_timeout"), 2000);
  EXPECT_EQ(sqlite3_get_autocommit(bench.conn()), 1);
  EXPECT_EQ(support::Other_connection(bench.guide_file()).run("DELETE FROM epglist"), SQLITE_DONE);
  EXPECT_EQ(support::Other_connection(bench.file()).run("DELETE FROM kanalid"), SQLITE_DONE);
}

// A host's own transaction on the connection takes the section in, and decides about it.
TEST(Guide_sections, a_host_s_transaction_holds_the_section) {
  Bench bench;
  bench.begin();
  bench.run("PRAGMA epg_db.journal_mode = MEMORY");
  EXPECT_EQ(bench.run("BEGIN"), SQLITE_DONE);
  EXPECT_EQ(bench.arrive(full_section(1, 0), 0), "");
  EXPECT_EQ(bench.number("SELECT count(*) FROM epglist"), EVENTS);
  EXPECT_EQ(bench.run("ROLLBACK"), SQLITE_DONE);
  EXPECT_EQ(bench.number("SELECT count(*) FROM epglist"), 0);
}

// Few statements for many events; one for each where progress is printed, whose messages stand between the events.
TEST(Guide_sections, several_events_go_by_one_statement) {
  for (const int events : {1, 2, 5, 8, 14}) {
    Bench quiet, talking;
    std::vector<Made_event> made;
    for (int i = 0; i < events; ++i)
      made.push_back({i + 1, i * 60, 60});
    const auto inserts = [&](Bench& bench, int level) {
      int count = 0;
      bench.begin();
      sqlite3_trace_v2(
          bench.conn(), SQLITE_TRACE_STMT,
          [](unsigned, void* counted, void*, void* sql) {
            *static_cast<int*>(counted) += std::string(static_cast<const char*>(sql)).starts_with("INSERT");
            return 0;
          },
          &count);
      bench.arrive(section_of(1, made), level);
      sqlite3_trace_v2(bench.conn(), 0, nullptr, nullptr);
      return count;
    };
    const int at_once = events == 14 ? 3 : 1;  // 8, 5 and 1
    EXPECT_EQ(inserts(quiet, 2), 2 * at_once) << events;
    EXPECT_EQ(inserts(talking, 3), 2 * events);
    EXPECT_EQ(quiet.guide(), talking.guide());
    EXPECT_EQ(quiet.number("SELECT count(*) FROM epglist, epglist_lang WHERE entry = source_oid"), events);
  }
}

TEST(Guide_sections, a_section_whose_events_are_known_begins_no_transaction) {
  Bench bench;
  bench.begin();
  bench.arrive(full_section(1, 0));
  int statements = 0;
  sqlite3_trace_v2(
      bench.conn(), SQLITE_TRACE_STMT,
      [](unsigned, void* count, void*, void*) { return ++*static_cast<int*>(count), 0; }, &statements);
  bench.arrive(full_section(1, 0));
  EXPECT_EQ(statements, 0);
  sqlite3_trace_v2(bench.conn(), 0, nullptr, nullptr);
}
