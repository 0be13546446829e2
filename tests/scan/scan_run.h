// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <nlohmann/json.hpp>

#include "support/db_dump.h"
#include "support/support.h"
#include "support/test.h"

// One event that scan_host printed.
struct Host_event {
  double at;  // seconds of the host's own clock since it began
  std::string what;
};

// What a run of scan_host under the software adapter left behind.
struct Scan_run {
  std::vector<Host_event> events;
  std::string err;
  std::string log;  // the adapter's

  // "done 0 0\nchange 0 2\n": the events whose first word is one of `words` (all without), without times.
  std::string lines(const std::vector<std::string>& words = {}) const;
  // When the first such event came, -1 for never.
  double at(const std::string& what) const;
  // When each of them came.
  std::vector<double> times(const std::string& what) const;
  size_t count_err(const std::string& text) const;
  // The lines of the adapter's log that hold every one of `parts`, as seconds since its start.
  std::vector<double> logged(const std::vector<std::string>& parts) const;
  // From when to when a section filter of a PID ("0x11") was running on an adapter, in the log's time.
  struct Span {
    double from;
    double to;
  };
  std::vector<Span> filtered(const std::string& pid) const;
};

// A database in a fresh folder, streams made from tests/data/scan/base.json, and runs of scan_host on them. The host
// sees 2026-03-01 18:00 UTC, the time of the streams, and its time runs faster than the machine's.
class Scan_test : public testing::Test {
 protected:
  using Json = nlohmann::json;

  static constexpr int FREQ = 506000000;

  // base.json after JSON patches (RFC 6902), as a transport stream in a file, whose name is returned.
  std::string stream(const Json& patch = Json::array());
  // A patch that gives service 101 so many events of half an hour, from the one that is running.
  static Json with_events(int count);
  // 188-byte null packets for some seconds.
  std::string empty_stream();

  // Options of softdvb; a stream on FREQ.
  static std::vector<std::string> on_freq(const std::string& file);

  // Runs scan_host with a script, `open` and nothing else before it; its commands may stand on one line, with "; "
  // between them. Fails the test when it does not end well.
  Scan_run run(std::vector<std::string> options, const std::string& script, int speed = 20);

  // Expects `seconds` of the host's time to be `at_least` and not a second more, but for what a busy machine makes of
  // it: up to 0.25 s of its own time late, 0.05 s early between two of the host's lines.
  static void expect_seconds(double at_least, double seconds, int speed = 20) {
    EXPECT_GE(seconds, at_least - 0.05 * speed);
    EXPECT_LE(seconds, at_least + 1 + 0.25 * speed);
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
};
