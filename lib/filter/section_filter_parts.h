// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <vector>

#include "base/mutex.h"
#include "base/wake_up.h"
#include "filter/demux.h"
#include "filter/filter_activity.h"
#include "filter/filter_options.h"
#include "filter/filter_turns.h"
#include "filter/lost_sections.h"
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

  // As Section_filter::get_section_data(), with PID and frequency of the filter that the section was read for. Asked
  // for afterwards they may be another filter's: a host that tunes frees the slot, which the next filter then takes.
  // Worker-only.
  struct Section {
    unsigned length = 0;  // 0 when there is none, or it is of no use; the rest says nothing then
    int pid = -1;
    int freq = 0;
  };
  Section read(dvb_filter_desc* f, char* buf);

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

  // The PIDs whose PMT was given up since the last call, or remove_all(). Any-thread.
  std::vector<int> take_given_up();

  // Replaces the options, which are those of Filter_options{} at first. Before-start: before the first filter.
  void configure(const Filter_options& options);

  // The flags of a filter that is added by hand, so that its CRC is checked where the others' are. Any-thread.
  int crc_flags() const;

  // Replaces the contents of `lost` by one entry for each PID that lost sections since the last forget_lost(), by PID.
  // Counted are overflows, wrong CRCs that are seen (those of filters with FILTER_FLAG_SOFT_CRC, which check_crc makes
  // of all that the library adds by table id) and sections of wrong length, as crc_errors, too. Any-thread.
  void lost(std::vector<Lost_sections>* lost) const;
  void forget_lost();
  // How often `pid` lost sections since the construction, in all. Any-thread.
  int losses(int pid) const;

  // Whether a running filter of a PID has a section that can be read without waiting. Worker-only.
  bool is_ready(int pid) const;

  // With watch_device: true since the device was found to have gone (a call says so, its node is
  // not there, or poll says that there are data and there are none), which is one warning. From then on wait_for_data()
  // waits for its time-out or wake(), nothing is opened, asked or read, and recalculate_filters() closes all handles,
  // without which the kernel does not let go of the device; filters that ran are wanted again. set_gone() says so
  // without a warning, for who knows it from elsewhere. Any-thread, both.
  bool device_gone() const { return demux_.gone(); }
  void set_gone();

  // Whether the device can be opened, or is only busy, while it counts as gone. Worker-only.
  bool device_answers() const;

  // Closes every handle and believes the device to be there: what was wanted or ran is opened by the next
  // recalculate_filters(). A stopped filter stays stopped. Worker-only.
  void close_all();

 private:
  friend class Section_filter;

  // The following need the mutex.
  dvb_filter_desc* add_slot();
  void free_slot(dvb_filter_desc* f);
  // Frees all slots that `matches` accepts; `announce` prints each before. Returns how many.
  template <typename Matches, typename Announce>
  int free_slots(Matches matches, Announce announce);
  bool open(dvb_filter_desc* f);
  // One that is refused stays wanted for as long as it is set again.
  void run(dvb_filter_desc* f);
  bool set(const dvb_filter_desc* f);
  bool is_set_later(const dvb_filter_desc* f, int64_t now_ms) const;
  // Of a wait for data, at most `timeout_ms`.
  int ms_until_set_again(int timeout_ms) const;
  void give_up_hopeless();
  // Hands the handles of filters whose turn is over to those that have none.
  void take_turns();
  void hand_over(dvb_filter_desc* from, dvb_filter_desc* to);
  unsigned read_section(dvb_filter_desc* f, char* buf);
  void close_handles();

  // Those since forget_lost(), and all.
  struct Loss {
    Lost_sections since;
    int all = 0;
  };
  Loss& loss_of(int pid);
  void count_overflow(int pid);
  void count_broken(int pid);

  // Guards everything below but wake_up_ and whether the device has gone.
  mutable Mutex mutex_{Lock_rank::ALONE, "filters"};
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
  Filter_turns turns_;
  struct Refusal {
    int times = 0;
    int64_t again_ms = 0;  // of monotonic_ms(), when it is set again
  };
  std::map<const dvb_filter_desc*, Refusal> refusals_;  // of filters that are set again
  std::vector<int> given_up_;                           // PIDs
  std::vector<Loss> losses_;                            // by PID
};
