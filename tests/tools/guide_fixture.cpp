// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/guide_fixture.h"

#include <sqlite3.h>

#include "tools/prepared_db.h"

namespace {

struct Network {
  Guide_streams streams;
  std::string first = streams.make("506", 1,
                                   Guide_streams::service(101, 1, "Kuldnokk", Guide_streams::DAY_OF_EVENTS) + "," +
                                       Guide_streams::service(102, 2, "Öökull", Guide_streams::DAY_OF_EVENTS));
  std::string second =
      streams.make("514", 2,
                   Guide_streams::service(201, 11, "Шпак",
                                          Guide_streams::DAY_OF_EVENTS + std::string(R"(, "charset": "iso8859-5")")));
};

const Network& made_network() {
  static const Network made;
  return made;
}

}  // namespace

Guide_fixture::Words Guide_fixture::joined(Words a, const Words& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Guide_fixture::Words Guide_fixture::network(const std::string& speed) {
  return {"--time", speed,
          "--now",  Guide_streams::NOW_EPOCH,
          "--mux",  "506000000=" + made_network().first,
          "--mux",  "514000000=" + made_network().second};
}

Guide_fixture::Words Guide_fixture::kelvo(const Words& options, const Words& command) const {
  return joined(joined(joined({SOFTDVB_COMMAND}, options), {"--", KELVO_COMMAND}), joined(command, {"--db", db_}));
}

Guide_fixture::Words Guide_fixture::controlled(const Words& options, const Words& command) const {
  const std::string file = dir_.file("control");
  return joined(joined(joined({SOFTDVB_COMMAND}, options), {"--", "sh", "-c",
                                                            "printf %s \"$SOFTDVB_CONTROL\" >" + file + ".new; mv " +
                                                                file + ".new " + file + "; exec \"$@\"",
                                                            "sh", KELVO_COMMAND}),
                joined(command, {"--db", db_}));
}

void Guide_fixture::control(const std::string& line) const {
  std::ofstream(support::read_file(dir_.file("control")), std::ios::app) << line << std::endl;
}

void Guide_fixture::scan(const Words& options, const Words& freqs) const {
  Words command{"scan"};
  for (const std::string& freq : freqs) {
    command = joined(command, {"--freq", freq});
  }
  const support::Command_result result = support::run_command(kelvo(options, command));
  ASSERT_EQ(result.exit_code, 0) << result.err;
}

std::string Guide_fixture::value(const std::string& file, const std::string& sql) {
  sqlite3* connection = nullptr;
  sqlite3_stmt* statement = nullptr;
  EXPECT_EQ(sqlite3_open_v2(file.c_str(), &connection, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK) << file;
  EXPECT_EQ(sqlite3_prepare_v2(connection, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
  EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW) << sqlite3_errmsg(connection);
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
  const std::string out = text != nullptr ? text : "NULL";
  sqlite3_finalize(statement);
  sqlite3_close(connection);
  return out;
}

std::string Guide_fixture::integrity() const {
  const std::string channels = value(db_, "PRAGMA integrity_check;");
  const std::string guide = value(guide_, "PRAGMA integrity_check;");
  return channels == "ok" ? guide : channels;
}

void Guide_fixture::expect_failure(const Words& command, const Failing_case& c) const {
  make_prepared_db(db_);
  const std::string before = support::read_file(db_) + support::read_file(guide_);
  const support::Command_result result =
      support::run_command(kelvo(joined(network(), c.options), joined(command, c.arguments)));
  EXPECT_EQ(result.exit_code, c.exit_code);
  EXPECT_EQ(result.out, "");
  std::string err = std::regex_replace(c.err, std::regex("GUIDE"), guide_);
  err = std::regex_replace(err, std::regex("DB"), db_);
  EXPECT_EQ(result.err, "kelvo: " + err + "\n");
  EXPECT_EQ(support::read_file(db_) + support::read_file(guide_), before);
}

void PrintTo(const Failing_case& c, std::ostream* out) {
  *out << c.legend;
}
