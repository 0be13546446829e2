// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <tuple>
#include <vector>

#include "base/ids.h"
#include "si/visible_events.h"

// Whether a table of the guide is sent for another multiplex.
inline bool is_other(int table_id) {
  return table_id == table::EIT_PRESENT_FOLLOWING_OTHER || table_id >= table::EIT_SCHEDULE_OTHER_FIRST;
}

// A service whose guide came. In the tables of the actual multiplex the service id alone tells it, because
// multiplexers that are wrong about the other two ids are not rare; these are 0 here.
struct Guide_key {
  bool other = false;  // from the tables of other multiplexes
  int orig_network_id = 0;
  int ts_id = 0;
  int service_id = 0;
  bool operator==(const Guide_key&) const = default;
  bool operator<(const Guide_key& key) const {
    return std::tie(other, orig_network_id, ts_id, service_id) <
           std::tie(key.other, key.orig_network_id, key.ts_id, key.service_id);
  }
};

// The sections of the whole guide that have come since it began, and what of it is missing (EN 300 468, 5.2.4). It
// knows nothing of databases and filters.
//
// A section stands for its table id and number until another one with that number comes. When the version of a table
// changes, its other sections are outdated until they come again or are replaced; they go when a newer section shows,
// by last_section_number, segment_last_section_number or last_table_id, that they are no more, or when everything else
// has come again twice and they have not. The newest is what came last.
//
// Complete is a table of which all sections are here, up to the last of each segment; empty ones count. In the first
// table of a schedule the segments of the past may be left out, and many leave them out. Present/following tells which
// those are: all before the last one in which something begins no later than the following event. They are waited for
// until a section of that table id, of whatever service, has come again, so that the carousel has gone round once.
// Where that does not tell it, the segments before the first one that is sent are waited for until all others have come
// again. Other gaps are given up when all the others have come again twice.
//
// It holds at most HELD_BYTES of sections. Of what comes when that is full, the times of the events are kept, and the
// bytes are not; when it is one and a half times that, nothing more is taken.
//
// Times are given in milliseconds of any clock that goes forward. Not locked.
class Whole_guide {
 public:
  static constexpr size_t HELD_BYTES = 16 * 1024 * 1024;
  explicit Whole_guide(size_t held_bytes = HELD_BYTES) : most_bytes_(held_bytes) {}

  enum class Take {
    IGNORED,   // not of a guide, not current, or broken
    REPEATED,  // has come before, and is the newest of its number
    NEW,       // replaces what there was
  };

  // Forgets everything. The guide begins with started(), whose time all others are compared with.
  void clear();
  void started(int64_t now_ms);
  bool is_started() const { return begun_; }

  // Takes one whole section with a right CRC. `*key` is its service, unless it is ignored: events without a time that
  // can be are left out, as are those that do not fit.
  Take take(const uint8_t* bytes, size_t size, int64_t now_ms, Guide_key* key);

  // Of a service of the actual multiplex: an SDT says what is sent for it.
  void expect(int service_id, bool present_following, bool schedule);

  // True, once, when a table has become complete, outdated sections have gone, or more is known of repetition since
  // the last call, although nothing new came. Of which services sections went stands in `shrunk`.
  bool take_news(std::vector<Guide_key>* shrunk);

  // What is heard of a service.
  std::vector<Event_heard> events(const Guide_key& key) const;
  // The bytes of a section that is here; empty when they are not held.
  std::span<const uint8_t> section(const Guide_key& key, int table_id, int number) const;
  // The next arrival of this section counts as new.
  void read_again(const Guide_key& key, int table_id, int number);

  // Version, network and multiplex of a table as it is on air.
  struct Table_ids {
    int version = 0;
    int orig_network_id = 0;
    int ts_id = 0;
  };
  Table_ids table_ids(const Guide_key& key, int table_id) const;

  std::vector<Guide_key> keys() const;

  // How far a service has come. `absent` are parts that were announced and of which nothing came: only time tells
  // that they do not. A service of which nothing is known is absent.
  struct Progress {
    bool heard = false;
    bool complete = false;  // nothing is missing, or waited for
    bool given_up = false;  // something was
    bool absent = false;
    bool announced = false;  // an SDT, or a last_table_id, says that it is sent
    int sections = 0;
    int sections_of = 0;
    int table = 0;
    int last_table = 0;
    int64_t complete_ms = 0;  // since started()
    int64_t carousel_ms = 0;
    int slowest_table = 0;
  };
  Progress progress(const Guide_key& key) const;

  // When what is absent counts as not sent: when everything else is complete, but not before ABSENT_MS, or one and a
  // half times the slowest repetition, have gone since the last of it was announced. 0 while something else is missing.
  static constexpr int64_t ABSENT_MS = 35000;
  int64_t absent_from_ms() const;

 private:
  struct Section {
    int version = 0;
    bool outdated = false;
    bool read = true;  // false: the next arrival is new, whatever its CRC
    uint32_t crc = 0;
    int64_t last_ms = 0;
    int arrivals = 1;
    std::vector<uint8_t> bytes;
    std::vector<Event_heard> events;
  };
  struct Table {
    Table_ids ids{-1, 0, 0};
    int last_section = 0;
    std::array<uint8_t, 32> segment_last{};
    std::map<int, Section> sections;
    bool complete = false;
    bool given_up = false;
    int seen = 0;
    int of = 0;
  };
  struct Service {
    std::map<int, Table> tables;
    int last_table = 0;
    bool announced = false;  // an SDT said so:
    bool present_following = false;
    bool schedule = false;
    int64_t complete_ms = 0;
    int64_t carousel_ms = 0;
    int slowest_table = 0;
  };

  void repeat(Service& service, Table& table, int table_id, Section& section, const Guide_key& key, int64_t now_ms);
  void drop(Table& table, std::map<int, Section>::iterator section);
  void drop_what_is_no_more(Service& service, int table_id, int number, int segment_last, int last_table);
  static int64_t past_until(const Service& service, bool other);
  void judge(const Service& service, Table& table, int table_id, const Guide_key& key);
  void judge_again(int table_id, const Guide_key* only, int64_t now_ms);
  void note_complete(Service& service, const Guide_key& key, int64_t now_ms);
  bool has_absent(const Service& service, bool other, bool* is_announced) const;
  static size_t cost(const Section& section);

  const size_t most_bytes_;
  size_t used_ = 0;
  bool begun_ = false;
  int64_t begun_ms_ = 0;
  int64_t announced_ms_ = 0;      // when the last part was announced, or it began
  bool announces_ = false;        // since the last section
  int64_t rest_complete_ms_ = 0;  // when everything that came was complete; -1 while it is not
  int64_t slowest_ms_ = 0;
  bool news_ = false;
  int incomplete_ = 0;         // tables that came and are not complete
  std::bitset<256> repeated_;  // table ids of which something came again
  std::vector<Guide_key> shrunk_;
  std::map<Guide_key, Service> services_;
};
