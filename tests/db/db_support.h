// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "support/database.h"
#include "support/messages.h"
#include "support/support.h"

// What the tests of this folder have in common; support/database.h has the rest.
namespace db_support {

using support::Other_connection;

// What stands behind each `start` in a trace, up to the end of its line.
inline support::Texts after(const std::string& start, const std::string& trace) {
  support::Texts all;
  for (size_t at = 0; (at = trace.find(start, at)) != std::string::npos; ++at)
    all.push_back(trace.substr(at + start.size(), trace.find('\n', at) - at - start.size()));
  return all;
}

// start+duration:id of every event that is remembered
inline support::Texts events_in(const std::vector<EPG_cache*>& cache) {
  support::Texts all;
  for (const EPG_cache* event : cache)
    all.push_back(std::to_string(event->start_epoch) + "+" + std::to_string(event->dur_sec) + ":" +
                  std::to_string(event->ev_id));
  return all;
}

// An event of a minute, as a broadcast of this channel; what storing it returns.
inline int store_event(Sdbl& sdbl, int channel, int64_t start, int ev_id = 1, std::string content = "0.0.0.0") {
  SQL_cache service{};
  service.channel = channel;
  std::string rating = "0@est";
  return sdbl.eit_for_service(1, 2, 506000000, 10, &service, 0x20100101, 0x000000, 0x000100, static_cast<long>(start),
                              60, 4, 0, ev_id, &content, &rating, false, false);
}

// A new folder on another file system than this one; empty where there is none. The caller removes it.
inline std::string folder_elsewhere(const std::string& here) {
  struct stat this_one, other;
  std::string folder = "/dev/shm/kelvo-test-XXXXXX";
  const bool found = stat(here.c_str(), &this_one) == 0 && stat("/dev/shm", &other) == 0 &&
                     this_one.st_dev != other.st_dev && mkdtemp(folder.data()) != nullptr;
  return found ? folder : "";
}

// A test that is a database: sdbl(), rows(), run(), number(), text() and table() are its own.
class Database_test : public testing::Test, protected support::Database {
 protected:
  // The multiplex of most tests: type and connector differ, so that none passes for the other.
  static constexpr int FREQ = 506000000;
  static constexpr int TYPE = 1;
  static constexpr int CONN = 2;
};

}  // namespace db_support
