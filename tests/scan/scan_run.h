// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <nlohmann/json.hpp>

#include "support/db_dump.h"
#include "support/support.h"
#include "support/test.h"
#include "support/text.h"

// One event that scan_host printed.
struct Host_event {
  double at;  // seconds of the host's own clock since it began
  std::string what;
};

// What a run of scan_host under the software adapter left behind.
struct Scan_run {
  std::vector<Host_event> events;
  std::string err;
  std::string log;     // the adapter's
  double starved = 0;  // seconds of the machine's time that the host's threads, all together, waited for a processor

  // "done 0 0\nchange 0 2\n": the events whose first word is one of `words` (all without), without times.
  std::string lines(const std::vector<std::string>& words = {}) const;
  // When the first such event came, or the next ones; -1 for never.
  double at(const std::string& what, size_t number = 0) const;
  size_t count_err(const std::string& text) const { return support::count_of(err, text); }
  // Expects each regular expression to be found in standard error, `times` if not 0, when `level` is its level or
  // above, and not to be found below.
  void expect_levels(int level, const std::vector<std::pair<const char*, int>>& texts, size_t times = 0) const;

  // The lines of the adapter's log that hold every one of `parts`, as seconds since its start.
  std::vector<double> logged(const std::vector<std::string>& parts) const;
  // When the only such line was logged. The test fails, and this is not a number, where there are none or more.
  double logged_once(const std::vector<std::string>& parts) const;
  // How often the worker armed its timers of 300 s (everything is read), 3 s (PMTs) and 40 s (time-out), and what is
  // logged of it.
  std::vector<size_t> timers() const;
  static std::string timer_of(int seconds);
  // From when to when a section filter of a PID ("0x11") was running on an adapter, in the log's time.
  struct Span {
    double from;
    double to;
    double length() const { return to - from; }
  };
  std::vector<Span> filtered(const std::string& pid) const;
  Span filtered_once(const std::string& pid) const;  // as logged_once()
};

// The lines of a text that begin with one of `beginnings`.
std::string lines_with(const std::string& text, const std::vector<std::string>& beginnings);

// Patches that change nothing, and that leave null packets alone.
inline const nlohmann::json BASE = nlohmann::json::array();
inline const nlohmann::json NO_STREAM = nullptr;

// One run of scan_host and what it leaves behind: a row of a table, and a test by its legend's name.
struct Scan_case {
  std::string legend;
  nlohmann::json patch = BASE;            // of the stream, or NO_STREAM
  std::vector<std::string> options = {};  // of softdvb
  bool known = false;                     // the services were found before
  std::string script;
  int speed = 20;
  const char* said = nullptr;                  // all lines of the host: "freq -1; done 0 0"
  double seconds = -1;                         // from the first of them to the last
  std::map<std::string, size_t> printed = {};  // how often a text stands in its messages
  std::map<std::string, size_t> logged = {};   // how many lines of the adapter's log hold a text
  const char* reference = nullptr;             // to the database, in tests/data/scan
};

void PrintTo(const Scan_case& c, std::ostream* out);

// The one run that most tests need.
inline const std::string SCAN_ONCE = "kelvo 0 tuner; freq 0 506000000; wait_done 0 100; ";

// A database in a fresh folder, streams made from tests/data/scan/base.json, and runs of scan_host on them. The host
// sees 2026-03-01 18:00 UTC, the time of the streams, and its time runs faster than the machine's.
class Scan_test : public testing::Test {
 protected:
  using Json = nlohmann::json;

  static constexpr int FREQ = 506000000;

  // base.json after JSON patches (RFC 6902), as a transport stream in a file, whose name is returned.
  std::string stream(const Json& patch = BASE);
  // Patches: service 101 has so many events of half an hour, from the one that is running; faults; a table is missing.
  static Json with_events(int count);
  static Json faults(const std::string& list);
  static Json missing(const std::string& table) {
    return faults(R"([{"fault": "missing", "table": ")" + table + R"("}])");
  }
  // 188-byte null packets for some seconds.
  std::string empty_stream();

  // Options of softdvb; a stream on FREQ.
  static std::vector<std::string> on_freq(const std::string& file, const std::vector<std::string>& more = {});

  // Runs scan_host with a script, `open` and nothing else before it; its commands may stand on one line, with "; "
  // between them. Fails the test when it does not end well.
  Scan_run run(std::vector<std::string> options, const std::string& script, int speed = 20);
  Scan_run scan_of(const Json& patch, const std::string& script, int speed = 20) {
    return run(on_freq(stream(patch)), script, speed);
  }
  // Fills the channel list: 101 is channel 1, 102 is 2, 103 is 3.
  void scan_first(const Json& patch = BASE);
  void expect(const Scan_case& row);

  // Expects `seconds` of the host's time in the last run to be `at_least` and not a second more, but for what a busy
  // machine makes of it: 0.05 s of its own time less, where the first of two of the host's lines was late, 0.25 s more,
  // and either way all that its threads have waited for a processor.
  void expect_seconds(double at_least, double seconds, int speed = 20) const {
    EXPECT_GE(seconds, at_least - (0.05 + starved_) * speed) << "starved for " << starved_ << " s";
    EXPECT_LE(seconds, at_least + 1 + (0.25 + starved_) * speed) << "starved for " << starved_ << " s";
  }

  std::string database() const { return folder_.file("dvb.db"); }
  std::string sandbox() const { return folder_.file("root"); }
  std::string dump(const support::Dump_options& options = {.guide = false}) const {
    return support::dump_database(database(), options);
  }
  // All rows of a query of the database, values joined by '|', a line a row.
  std::string sql(const std::string& query) const { return support::query_database(database(), query); }

  support::Temp_dir folder_;

 private:
  int streams_ = 0;
  double starved_ = 0;  // in the last run
};

// INSTANTIATE_TEST_SUITE_P(, Scan_table, testing::Values(Scan_case{...}, ...), Scan_table::name);
class Scan_table : public Scan_test, public testing::WithParamInterface<Scan_case> {
 public:
  static std::string name(const testing::TestParamInfo<Scan_case>& row);
  using Scan_test::faults;
  using Scan_test::missing;
  using Scan_test::with_events;
};
