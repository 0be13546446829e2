// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "si/si_support.h"
#include "si/siparse_parts.h"

// Sections of the whole guide, and the parser that collects it.
namespace whole_guide_support {

using namespace si_support;

inline constexpr int DAY = 64500;  // 2035-06-26, which is to come
inline constexpr int MIDNIGHT = (DAY - 40587) * 86400;
inline constexpr int NOW_TABLE = table::EIT_PRESENT_FOLLOWING;
inline constexpr int SCHEDULE = table::EIT_SCHEDULE_FIRST;
inline constexpr int NETWORK = 0x20;

// An event by its title; without one it has no text.
struct Show {
  int id;
  int minute;  // since midnight of DAY
  int minutes;
  std::string title = "";
  unsigned running = 0;
  Bytes more = {};
};

struct Part {
  int service = 1;
  int table = SCHEDULE;
  int version = 0;
  int number = 0;
  int last = 0;
  int segment_last = -1;  // -1: `last`, or the segment's end
  int last_table = -1;    // -1: `table`
  int ts_id = TS_ID;
  int network = NETWORK;
};

inline unsigned bcd(int minutes) {
  const auto two = [](int n) { return static_cast<unsigned>(n / 10 * 16 + n % 10); };
  return two(minutes / 60) << 16 | two(minutes % 60) << 8;
}

inline Bytes guide_section(const Part& p, const std::vector<Show>& shows) {
  const auto entry = [](const Show& s) {
    const Bytes text = s.title.empty() ? Bytes{} : short_event("eng", s.title, "");
    return join({u16(s.id), u16(DAY + s.minute / 1440), u24(bcd(s.minute % 1440)), u24(bcd(s.minutes)),
                 status_loop(s.running, 0, join({text, s.more}))});
  };
  const int segment_last = p.segment_last >= 0 ? p.segment_last : std::min(p.last, p.number | 7);
  const int last_table = p.last_table >= 0 ? p.last_table : p.table;
  return section(p.table, p.service,
                 join({u16(p.ts_id),
                       u16(p.network),
                       {static_cast<uint8_t>(segment_last), static_cast<uint8_t>(last_table)},
                       each(shows, entry)}),
                 static_cast<uint8_t>(p.number), static_cast<uint8_t>(p.last), static_cast<uint8_t>(p.version));
}

class Whole_guide_bench : public Parser_bench {
 protected:
  explicit Whole_guide_bench(bool others = false) {
    Receiver_profile profile;
    profile.guide = Receiver_profile::Guide::WHOLE;
    profile.other_guides = others;
    parser.parts().read_as(profile);
    parser.parts().set_guide_listener(
        [](void* self, const std::vector<Guide_change>& changes) {
          auto& bench = *static_cast<Whole_guide_bench*>(self);
          for (const Guide_change& change : changes)
            bench.changes_.push_back(change);
        },
        this);
  }

  // The services in the database, as at a request and the end of its scan.
  void begin() {
    parser.init_cache_list(FREQ, SCAN_EIT);
    scan_ended();
  }
  void scan_ended() {
    parser.parts().guide_reader().scan_ended(FREQ, true);
    parser.parts().guide_reader().catch_up();
  }
  void arrive(const Part& part, const std::vector<Show>& shows) { arrive(guide_section(part, shows)); }
  void arrive(const Bytes& section) {
    scan_with(parser, section, pid::EIT, SCAN_EIT);
    parser.parts().guide_reader().catch_up();
  }

  // Every event as "service id minute+minutes title", in the order of services and starts.
  Texts guide() {
    return rows(
        "SELECT e.pat_prnr || ' ' || ev_id || ' ' || ((start_epoch - " + std::to_string(MIDNIGHT) +
        ") / 60) || '+' || (dur_sec / 60) || ifnull(' ' || ev_name, '') FROM epglist e LEFT JOIN epglist_lang ON "
        "source_oid = entry ORDER BY e.channel, start_epoch");
  }
  // What was told since the last time: "added 1@60".
  Texts told() {
    const char* const kinds[] = {"added", "changed", "moved", "removed"};
    Texts all;
    for (const Guide_change& c : changes_)
      all.push_back(std::string(kinds[c.kind]) + " " + std::to_string(c.event_id) + "@" +
                    std::to_string((c.start - MIDNIGHT) / 60));
    changes_.clear();
    return all;
  }
  std::vector<EIT_progress> progress() {
    std::vector<EIT_progress> all;
    parser.get_eit_progress(&all);
    return all;
  }

  std::vector<Guide_change> changes_;
};

}  // namespace whole_guide_support
