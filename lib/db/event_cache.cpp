// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "db/event_cache.h"

#include <algorithm>
#include <cstdint>

#include "base/log.h"

bool cmp_epg_cache(const EPG_cache* a, const EPG_cache* b) {
  return a->start_epoch < b->start_epoch;
}

namespace sdbl {

namespace {

constexpr uintptr_t LOWEST_CACHE_ADDRESS = 65535;
constexpr unsigned LOOKUPS_PER_REPORT = 100;

// Puts a new event at its place, unless the very same one is there: the search never finds events without a duration,
// nor events that lie within others, and these would be remembered again and again.
void remember(Event_cache::Events* events, int ev_id, int start_epoch, int dur_sec) {
  const EPG_cache event{start_epoch, ev_id, dur_sec};
  const auto [first, last] = std::equal_range(events->begin(), events->end(), &event, cmp_epg_cache);
  const bool known = std::any_of(first, last, [&](const EPG_cache* other) {
    return other->ev_id == event.ev_id && other->dur_sec == event.dur_sec;
  });
  if (!known)
    events->insert(last, new EPG_cache(event));
}

}  // namespace

int Event_cache::search(const Events& events, int t) {
  int lo = 0;
  int hi = static_cast<int>(events.size()) - 1;
  while (lo <= hi) {
    const int middle = (lo + hi) / 2;
    const EPG_cache* event = events[static_cast<size_t>(middle)];
    if (event == nullptr) {
      KLOG(VERB_ERROR, "ERROR: ec is null");
      return -1;
    }
    if (event->start_epoch <= t && t < int64_t{event->start_epoch} + event->dur_sec)
      return middle;
    if (event->start_epoch >= t)
      hi = middle - 1;
    else
      lo = middle + 1;
  }
  return -1;
}

int Event_cache::lookup(Events* events, int ev_id, int start_epoch, int dur_sec, bool* changed, bool* overlap) {
  *changed = false;
  *overlap = false;
  KLOG(VERB_TRACE, "Lookup cache");
  // Deliberate: low addresses count as none.
  if (reinterpret_cast<uintptr_t>(events) < LOWEST_CACHE_ADDRESS) {
    KLOG(VERB_ERROR, "ERROR: EPG cache is unassigned %p\n", static_cast<void*>(events));
    return 0;
  }

  int match = 0;
  const int index = search(*events, start_epoch);
  if (index >= 0) {
    EPG_cache* found = (*events)[static_cast<size_t>(index)];
    if (found->start_epoch == start_epoch && found->dur_sec == dur_sec) {
      match = 1;
      *changed = found->ev_id != ev_id;
      found->ev_id = ev_id;
    } else {
      *overlap = true;
    }
  }
  KLOG(VERB_TRACE, "match is %x\n", static_cast<unsigned>(match));

  if (*overlap && (*events)[static_cast<size_t>(index)]->start_epoch == start_epoch) {
    delete (*events)[static_cast<size_t>(index)];
    events->erase(events->begin() + index);
  }
  if (match == 1) {
    ++hits_;
  } else {
    ++misses_;
    remember(events, ev_id, start_epoch, dur_sec);
    KLOG(VERB_TRACE, "epg cache entry inserted\n");
  }
  const unsigned hits = hits_;
  const unsigned misses = misses_;
  if ((hits + misses) % LOOKUPS_PER_REPORT == 0)
    KLOG(VERB_INFO, "Epg cache hit %d, miss %d\n", static_cast<int>(hits), static_cast<int>(misses));
  return match == 1 && !*changed ? 1 : 0;
}

void Event_cache::forget(Events* events, int start_epoch, int dur_sec) {
  const int index = search(*events, start_epoch);
  if (index < 0) {
    KLOG(VERB_ERROR, "ERROR: Nothing to delete in cache list for start_epoch %d\n", start_epoch);
    return;
  }
  const EPG_cache* found = (*events)[static_cast<size_t>(index)];
  if (found->start_epoch != start_epoch || found->dur_sec != dur_sec) {
    KLOG(VERB_PROGRESS, "No exact cache start_epoch: %d != %d,  dur_sec %d != %d\n", found->start_epoch, start_epoch,
         found->dur_sec, dur_sec);
    return;
  }
  delete found;
  events->erase(events->begin() + index);
}

void Event_cache::take_back(Events* events, int ev_id, int start_epoch, int dur_sec) {
  const EPG_cache event{start_epoch, ev_id, dur_sec};
  const auto [first, last] = std::equal_range(events->begin(), events->end(), &event, cmp_epg_cache);
  const auto known = std::find_if(first, last, [&](const EPG_cache* other) {
    return other->ev_id == event.ev_id && other->dur_sec == event.dur_sec;
  });
  if (known == last)
    return;
  delete *known;
  events->erase(known);
}

}  // namespace sdbl
