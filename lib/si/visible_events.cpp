// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/visible_events.h"

#include <algorithm>
#include <limits>
#include <map>
#include <tuple>

namespace {

int64_t end_of(const Event_heard& event) {
  return int64_t{event.start} + event.duration;
}

// Some events, to be asked whether one of them has an id or overlaps another event.
class Crowd {
 public:
  void add(const Event_heard& event) {
    ids_.push_back(event.event_id);
    spans_.push_back({event.start, end_of(event)});
  }

  // After the last add().
  void sort() {
    std::sort(ids_.begin(), ids_.end());
    std::sort(spans_.begin(), spans_.end());
    int64_t latest = std::numeric_limits<int64_t>::min();
    for (Span& span : spans_)
      span.latest_end = latest = std::max(latest, span.end);
  }

  bool hides(const Event_heard& event) const {
    return std::binary_search(ids_.begin(), ids_.end(), event.event_id) || overlaps(event);
  }

 private:
  struct Span {
    int64_t start;
    int64_t end;
    int64_t latest_end = 0;  // of all up to this one
    bool operator<(const Span& other) const { return std::tie(start, end) < std::tie(other.start, other.end); }
  };

  // An event without duration overlaps what begins with it, and what runs at that time.
  bool overlaps(const Event_heard& event) const {
    const auto before = std::lower_bound(spans_.begin(), spans_.end(), event.start,
                                         [](const Span& span, int start) { return span.start < start; });
    if (before != spans_.end() && (before->start == event.start || before->start < end_of(event)))
      return true;
    return before != spans_.begin() && std::prev(before)->latest_end > event.start;
  }

  std::vector<int> ids_;
  std::vector<Span> spans_;
};

bool comes_first(const Event_heard* a, const Event_heard* b) {
  return std::tie(a->outdated, a->table_id, a->section, a->index) <
         std::tie(b->outdated, b->table_id, b->section, b->index);
}

bool starts_first(const Event_shown& a, const Event_shown& b) {
  return a.event->start < b.event->start;
}

bool same_start(const Event_shown& a, const Event_shown& b) {
  return a.event->start == b.event->start;
}

}  // namespace

std::vector<Event_shown> visible_events(const std::vector<Event_heard>& heard) {
  std::vector<const Event_heard*> ordered;
  ordered.reserve(heard.size());
  std::map<int, Crowd> current;  // by table
  for (const Event_heard& event : heard) {
    ordered.push_back(&event);
    if (!event.outdated)
      current[event.table_id].add(event);
  }
  std::sort(ordered.begin(), ordered.end(), comes_first);
  for (auto& [table_id, crowd] : current)
    crowd.sort();
  const auto replaced = [&](const Event_heard& event) {
    const auto newer = event.outdated ? current.find(event.table_id) : current.end();
    return newer != current.end() && newer->second.hides(event);
  };

  std::vector<Event_shown> shown;
  Crowd now_and_next;
  std::map<int, size_t> first_of_id;
  for (const Event_heard* event : ordered) {
    if (!event->present_following || replaced(*event) || !first_of_id.emplace(event->event_id, shown.size()).second)
      continue;
    shown.push_back({event, nullptr});
    now_and_next.add(*event);
  }
  now_and_next.sort();
  for (const Event_heard* event : ordered) {
    if (event->present_following || replaced(*event))
      continue;
    const auto same = first_of_id.find(event->event_id);
    if (same != first_of_id.end() && shown[same->second].also == nullptr)
      shown[same->second].also = event;
    if (!now_and_next.hides(*event))
      shown.push_back({event, nullptr});
  }
  // What was put in first is what counts.
  std::stable_sort(shown.begin(), shown.end(), starts_first);
  shown.erase(std::unique(shown.begin(), shown.end(), same_start), shown.end());
  return shown;
}
