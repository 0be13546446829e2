// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

// Whatever sections come, in whatever order, lost or repeated: the database shows what the newest of them say.
#include <optional>
#include <random>
#include <set>

#include "si/whole_guide_support.h"

using namespace whole_guide_support;

namespace {

struct Sent {
  Part part;
  std::vector<Show> shows;
};

// What was received, and what follows from it: slowly, by looking at everything again after each section.
class Model {
 public:
  struct Shown {
    int id, minute, minutes;
    std::string title;
  };

  void receive(const Sent& sent) {
    const Part& p = sent.part;
    const auto of_table = [&](const Received& r) {
      return r.sent.part.service == p.service && r.sent.part.table == p.table;
    };
    const auto repeated = std::find_if(all_.begin(), all_.end(), [&](const Received& r) {
      return of_table(r) && r.sent.part.number == p.number && r.sent.part.version == p.version;
    });
    if (repeated != all_.end()) {
      ++repeated->count;
      came_again_.insert(p.table);
    } else {
      const bool schedule = p.table != NOW_TABLE;
      std::erase_if(all_, [&](const Received& r) {
        const Part& old = r.sent.part;
        if (old.service != p.service)
          return false;
        if (schedule && old.table > p.last_table)
          return true;
        return of_table(r) && (old.number == p.number || old.number > p.last ||
                               (schedule && old.number / 8 == p.number / 8 && old.number > p.segment_last));
      });
      versions_[{p.service, p.table}] = p.version;
      all_.push_back({sent, 1});
    }
    // What came may tell of other tables, too, that nothing more of them is sent.
    for (const int service : {1, 2}) {
      for (const int table : {NOW_TABLE, SCHEDULE, SCHEDULE + 1})
        forget_what_is_not_repeated(service, table);
      show(service);
    }
  }

  Texts guide() const {
    Texts lines;
    for (const auto& [service, shown] : shown_)
      for (const Shown& s : shown)
        lines.push_back(std::to_string(service) + " " + std::to_string(s.id) + " " + std::to_string(s.minute) + "+" +
                        std::to_string(s.minutes) + (s.title.empty() ? "" : " " + s.title));
    return lines;
  }

 private:
  struct Received {
    Sent sent;
    int count;
  };
  struct Candidate {
    Show show;
    int table, number, place;
    bool outdated;
    bool hidden = false;
  };

  bool outdated(const Received& r) const {
    return versions_.at({r.sent.part.service, r.sent.part.table}) != r.sent.part.version;
  }

  // The latest start of present/following, or the end of the only event there.
  std::optional<int> now_until(int service) const {
    std::vector<Show> shows;
    for (const Received& r : all_)
      if (r.sent.part.service == service && r.sent.part.table == NOW_TABLE && !outdated(r))
        shows.insert(shows.end(), r.sent.shows.begin(), r.sent.shows.end());
    if (shows.size() == 1)
      return shows[0].minute + shows[0].minutes;
    std::optional<int> latest;
    for (const Show& s : shows)
      latest = std::max(latest.value_or(s.minute), s.minute);
    return latest;
  }

  // Sections of an older version go when the rest of the table is known to be all: every number is here, or all have
  // come three times, or twice where only segments before the first one are missing. So they do when only segments of
  // the past are missing and some service's table has come again.
  void forget_what_is_not_repeated(int service, int table) {
    std::map<int, const Received*> here;
    int least = 1000;
    const Received* newest = nullptr;
    for (const Received& r : all_)
      if (r.sent.part.service == service && r.sent.part.table == table && !outdated(r)) {
        here[r.sent.part.number] = &r;
        least = std::min(least, r.count);
        newest = &r;
      }
    if (here.empty())
      return;
    bool whole = true;
    bool only_first = table == SCHEDULE;
    bool begun = false;
    int now_segment = -1;
    for (const auto& [number, r] : here)
      for (const Show& s : r->sent.shows)
        if (s.minute <= now_until(service).value_or(-1))
          now_segment = number / 8;
    bool only_past = table == SCHEDULE && came_again_.contains(table);
    const int last = newest->sent.part.last;
    if (table == NOW_TABLE) {
      for (int number = 0; number <= last; ++number)
        whole = whole && here.contains(number);
    } else {
      for (int segment = 0; segment <= last / 8; ++segment) {
        std::optional<int> segment_last;
        for (const auto& [number, r] : here)
          if (number / 8 == segment)
            segment_last = r->sent.part.segment_last;
        bool full = segment_last.has_value();
        for (int number = segment * 8; segment_last && number <= *segment_last; ++number)
          full = full && here.contains(number);
        whole = whole && full;
        begun = begun || segment_last.has_value();
        only_first = only_first && (full || !begun);
        only_past = only_past && (full || segment < now_segment);
      }
    }
    if (whole || least >= 3 || (only_first && least >= 2) || only_past)
      std::erase_if(all_, [&](const Received& r) {
        return r.sent.part.service == service && r.sent.part.table == table && outdated(r);
      });
  }

  static bool overlap(const Show& a, const Show& b) {
    return a.minute == b.minute || (a.minute < b.minute + b.minutes && b.minute < a.minute + a.minutes);
  }

  void show(int service) {
    std::vector<Candidate> candidates;
    for (const Received& r : all_) {
      if (r.sent.part.service != service)
        continue;
      int place = 0;
      for (const Show& s : r.sent.shows)
        candidates.push_back({s, r.sent.part.table, r.sent.part.number, place++, outdated(r)});
    }
    const auto first = [](const Candidate& a, const Candidate& b) {
      return std::tie(a.outdated, a.table, a.number, a.place) < std::tie(b.outdated, b.table, b.number, b.place);
    };
    std::sort(candidates.begin(), candidates.end(), first);
    for (Candidate& old : candidates)
      for (const Candidate& newer : candidates)
        if (old.outdated && !newer.outdated && old.table == newer.table &&
            (old.show.id == newer.show.id || overlap(old.show, newer.show)))
          old.hidden = true;
    // Present and following: each id once; then everything that they do not hide.
    std::vector<Candidate> kept;
    for (const Candidate& c : candidates)
      if (c.table == NOW_TABLE && !c.hidden &&
          std::none_of(kept.begin(), kept.end(), [&](const Candidate& k) { return k.show.id == c.show.id; }))
        kept.push_back(c);
    const size_t now_and_next = kept.size();
    for (const Candidate& c : candidates) {
      if (c.table == NOW_TABLE || c.hidden)
        continue;
      bool hidden = false;
      for (size_t i = 0; i < now_and_next; ++i) {
        if (kept[i].show.id == c.show.id && kept[i].show.title.empty())
          kept[i].show.title = c.show.title;
        hidden = hidden || kept[i].show.id == c.show.id || overlap(kept[i].show, c.show);
      }
      if (!hidden)
        kept.push_back(c);
    }
    std::map<int, Shown> by_start;
    for (const Candidate& k : kept)
      by_start.emplace(k.show.minute, Shown{k.show.id, k.show.minute, k.show.minutes, k.show.title});
    std::vector<Shown> shown;
    for (const auto& [start, s] : by_start) {
      shown.push_back(s);
      if (s.title.empty())
        shown.back().title = last_title(service, s);
    }
    shown_[service] = shown;
  }

  // Of an event that is said without a text: the one that it had.
  std::string last_title(int service, const Shown& s) {
    std::vector<const Shown*> same;
    for (const Shown& old : shown_[service]) {
      if (old.id == s.id && old.minute == s.minute)
        return old.title;
      if (old.id == s.id)
        same.push_back(&old);
    }
    return same.size() == 1 ? same.front()->title : "";
  }

  std::vector<Received> all_;
  std::set<int> came_again_;  // tables, of any service
  std::map<std::pair<int, int>, int> versions_;
  std::map<int, std::vector<Shown>> shown_;
};

// A broadcaster who changes his mind: versions go forward, events are moved, replaced, shortened and cancelled, and
// tables shrink and grow.
class Broadcaster {
 public:
  explicit Broadcaster(unsigned seed) : random_(seed) {
    for (int service = 1; service <= 2; ++service)
      for (int table : {NOW_TABLE, SCHEDULE, SCHEDULE + 1})
        renew(service, table);
  }

  Sent next() {
    const int service = number(1, 2);
    const int kind = number(0, 9);
    const int table = kind < 3 ? NOW_TABLE : kind < 7 ? SCHEDULE : SCHEDULE + 1;
    if (number(0, 14) == 0)
      renew(service, table);
    auto& sections = tables_[{service, table}];
    if (sections.empty())
      return next();
    auto at = sections.begin();
    std::advance(at, number(0, static_cast<int>(sections.size()) - 1));
    return at->second;
  }

 private:
  int number(int least, int most) {
    return least + static_cast<int>(random_() % static_cast<unsigned>(most - least + 1));
  }

  Show show(int service, int minute, bool text) {
    const int minutes = 10 * number(1, 9);
    const int id = number(0, 4) == 0 ? number(1, 12) : next_id_++;
    return {id, minute, minutes,
            text ? "S" + std::to_string(service) + " " + std::to_string(id) + " " + std::to_string(number(0, 1)) : "",
            static_cast<unsigned>(number(0, 4))};
  }

  void renew(int service, int table) {
    const int version = versions_[{service, table}]++ % 32;
    auto& sections = tables_[{service, table}];
    sections.clear();
    if (table == SCHEDULE) {
      last_table_[service] = number(0, 3) == 0 ? SCHEDULE : SCHEDULE + 1;
      // last_table_id stands in all sections of a version.
      if (last_table_[service] == SCHEDULE)
        tables_[{service, SCHEDULE + 1}].clear();
    }
    if (table == SCHEDULE + 1 && last_table_[service] == SCHEDULE)
      return;
    if (table == NOW_TABLE) {
      const int minute = 10 * number(0, 60);
      for (int i = 0; i < 2; ++i)
        sections[i] = {{service, table, version, i, 1, 1, table}, {show(service, minute + 50 * i, number(0, 1) == 0)}};
      return;
    }
    const int segments = number(1, 3);
    int minute = 720 * (table - SCHEDULE);
    std::map<int, int> lasts;
    int last = 0;
    for (int segment = 0; segment < segments; ++segment)
      last = lasts[segment] = segment * 8 + number(0, 2);
    for (const auto& [segment, segment_last] : lasts)
      for (int i = segment * 8; i <= segment_last; ++i) {
        Sent sent{{service, table, version, i, last, segment_last, last_table_[service]}, {}};
        for (int events = number(0, 3); events > 0; --events) {
          sent.shows.push_back(show(service, minute, true));
          minute += number(0, 5) == 0 ? 10 : sent.shows.back().minutes;
        }
        sections[i] = sent;
      }
  }

  std::mt19937 random_;
  std::map<std::pair<int, int>, std::map<int, Sent>> tables_;
  std::map<std::pair<int, int>, int> versions_;
  std::map<int, int> last_table_;
  int next_id_ = 20;
};

class Whole_guide_property : public testing::TestWithParam<unsigned>, protected Whole_guide_bench {};

TEST_P(Whole_guide_property, the_database_shows_what_the_newest_sections_say) {
  Broadcaster broadcaster(GetParam());
  Model model;
  insert(1, 256, 257, "First");
  insert(2, 256, 257, "Second", 25);
  begin();
  // What a host makes of the changes that it is told.
  std::map<int, std::pair<int, int>> mirror;
  for (int i = 0; i < 150; ++i) {
    const Sent sent = broadcaster.next();
    arrive(sent.part, sent.shows);
    model.receive(sent);
    for (const Guide_change& change : std::exchange(changes_, {}))
      if (change.kind == GUIDE_REMOVED)
        mirror.erase(change.entry);
      else
        mirror[change.entry] = {change.event_id, change.start};
    ASSERT_EQ(guide(), model.guide()) << "after section " << i << ": service " << sent.part.service << ", table "
                                      << sent.part.table << ", version " << sent.part.version << ", number "
                                      << sent.part.number;
  }
  Texts told;
  for (const auto& [entry, event] : mirror)
    told.push_back(std::to_string(entry) + "|" + std::to_string(event.first) + "|" + std::to_string(event.second));
  EXPECT_EQ(told, rows("SELECT entry, ev_id, start_epoch FROM epglist ORDER BY entry"));
  EXPECT_EQ(rows("SELECT count(*) FROM epglist_lang WHERE source_oid NOT IN (SELECT entry FROM epglist)"), Texts{"0"});
  EXPECT_EQ(rows("SELECT count(*) FROM epglist WHERE entry NOT IN (SELECT entry FROM event_detail)"), Texts{"0"});
  EXPECT_EQ(rows("SELECT count(*) FROM event_detail WHERE entry NOT IN (SELECT entry FROM epglist)"), Texts{"0"});
}

INSTANTIATE_TEST_SUITE_P(Seeds, Whole_guide_property, testing::Range(1U, 21U));

}  // namespace
