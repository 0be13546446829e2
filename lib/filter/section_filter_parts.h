// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <list>
#include <mutex>

#include "base/wake_up.h"
#include "filter/demux.h"
#include "filter/filter_activity.h"
#include "filter/section_filter.h"

// What stands behind a Section_filter; not installed. The public part is for the library's other folders, the rest for
// Section_filter alone.
class Section_filter::Parts {
 public:
  explicit Parts(const char* device) : demux_(device) {}
  ~Parts();
  Parts(const Parts&) = delete;
  Parts& operator=(const Parts&) = delete;

  // Ends the wait_for_data() that is under way, or else the next one, at once and with 0 (with the number of filters
  // that have data, if some have). Any-thread.
  void wake() const { wake_up_.wake(); }

  // PID and frequency of `f`, read under the lock, because remove_all() may free the slot meanwhile: -1 and 0 then.
  // Any-thread.
  void get_tags(const dvb_filter_desc* f, int* pid, int* freq) const;

  // Who is told of readings and of filters that start and end; null for nobody. Keeps a copy of `*listener`. When this
  // returns, the listener before is not called any more. A reading is told only of a filter that has data. The listener
  // is called with the filters' lock held, so it must not call the object; it is also called by the destructor, for the
  // filters that still run. Any-thread.
  void set_activity(const Activity_listener* listener);

  // How many filters were given up since the last remove_all() because the device could not be opened. Any-thread.
  int dropped() const;

 private:
  friend class Section_filter;

  // The following need the mutex.
  dvb_filter_desc* add_slot();
  void free_slot(dvb_filter_desc* f);
  // Frees all slots that `matches` accepts; `announce` prints each before. Returns how many.
  template <typename Matches, typename Announce>
  int free_slots(Matches matches, Announce announce);
  bool open(dvb_filter_desc* f);
  void run(dvb_filter_desc* f);
  unsigned read_section(dvb_filter_desc* f, char* buf);

  mutable std::mutex mutex_;           // guards everything below but wake_up_
  std::list<dvb_filter_desc*> slots_;  // owned
  Demux demux_;
  Filter_activity activity_;
  Wake_up wake_up_;
  struct Counts {
    int max_fd = 0;           // highest handle of a running filter
    uint32_t loop_count = 0;  // calls of wait_for_data()
    int restarted = 0;
  };
  Counts counts_;
  int dropped_ = 0;
};
