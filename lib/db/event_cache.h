// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <atomic>
#include <vector>

#include "db/epg_cache.h"

namespace sdbl {

// What is known of a service's stored events, so that one that is stored already costs no query. The vectors belong to
// who collects the guide and are worker-only; the counters are any-thread.
class Event_cache {
 public:
  using Events = std::vector<EPG_cache*>;

  // The operations lookup_epg_cache and epg_cache_binary_search of Sdbl.
  int lookup(Events* events, int ev_id, int start_epoch, int dur_sec, bool* changed, bool* overlap);
  static int search(const Events& events, int t);

  // Takes a deleted event out, when it is the one found at its start; another one there, or none, is printed.
  static void forget(Events* events, int start_epoch, int dur_sec);
  // Takes out this very event, which lookup() has put in and which is not stored after all. Prints nothing.
  static void take_back(Events* events, int ev_id, int start_epoch, int dur_sec);

 private:
  std::atomic<unsigned> hits_{0};
  std::atomic<unsigned> misses_{0};
};

}  // namespace sdbl
