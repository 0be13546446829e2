// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <tuple>

// How long a scan waits for one kind of table of other networks or multiplexes: NIT other or SDT other (EN 300 468,
// 5.2.1 and 5.2.3); not installed. Nobody says how many of them are sent, so the end is told by repetition, or by time.
// Times are milliseconds of any clock that goes forward. One thread at a time.
class Other_tables {
 public:
  // A filter has been opened for them.
  void open(int64_t now_ms);
  bool is_open() const { return open_; }
  void close() { *this = {}; }

  // Notes one whole section of the long form; true when it is new, or of another version than before. Sections above
  // MOST are never new.
  bool arrived(std::span<const uint8_t> section);

  // True when nothing more is waited for: every section that came has come again, or WAIT_MS are over.
  bool is_over(int64_t now_ms) const;

  // They are sent every 10 s at least (ETSI TS 101 211, 4.4).
  static constexpr int64_t WAIT_MS = 12000;
  static constexpr size_t MOST = 4096;

 private:
  struct Seen {
    int version;
    bool again;
  };
  using Key = std::tuple<int, int, int>;  // table_id_extension, original_network_id of an SDT, section_number

  bool open_ = false;
  int64_t opened_ms_ = 0;
  std::map<Key, Seen> seen_;
  size_t once_ = 0;  // of these, not come again
};
