// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <list>
#include <memory>

#include "base/export.h"
#include "filter/dvb_filter_desc.h"

// Most bytes that a section has (ISO/IEC 13818-1, 2.4.4.11: section_length up to 4093); a caller's buffer for
// get_section_data() must hold that many.
inline constexpr int SECTION_BUF_SIZE = 4096;

// Handles of one demultiplexer device that are open at once, and failed opens that a filter survives.
inline constexpr int MAX_OPEN_DEMUX = 8;
inline constexpr int MAX_OPEN_RETRIES = 4;

// The section filters that a scan wants, mapped onto at most eight open handles of one Linux DVB demultiplexer.
//
// Kelvo creates one per adapter. Adding or removing a filter only changes the list; recalculate_filters(), called once
// a pass of the scan loop, opens handles and programs the device. Removing a filter keeps its handle open for the next
// one; handles are closed only when all eight are open.
//
// What surprises: a wanted filter that finds all eight handles taken waits, without a message, until one is free.
// A filter whose device cannot be opened is dropped at the fifth failure. Filters on PIDs below 0x21 are never
// restarted by check_feed_activation(). restart_all_filters() leaves filters stopped. A slot never leaves the list
// before the object ends, so a pointer to one stays good until then.
//
// Threads: each operation says *worker-only* (the thread that runs the scan loop) or *any-thread*. One mutex guards
// the list, the slots and the set of handles; only the wait itself runs without it. Handles are opened and closed by
// the worker alone, so the handles that it waits on stay open.
//
// Failures: no operation but wait_for_data() and get_section_data() can tell its caller of one. They are printed
// ("ERROR: " at verbosity 0, "WARNING: " at 1, others at 3 and 4), and the list is then as if the step that failed had
// succeeded, unless an operation says otherwise.
class KELVO_EXPORT Section_filter {
 public:
  // `device` is the demultiplexer's path. It is copied, up to 255 characters, and opened only when the first filter
  // starts, so a device that is missing is not noticed here.
  explicit Section_filter(const char* device);

  // Stops all filters, closes all handles and deletes the slots. Failures are printed.
  // REQUIRES: no other thread uses the object any more.
  ~Section_filter();

  Section_filter(const Section_filter&) = delete;
  Section_filter& operator=(const Section_filter&) = delete;

  // Wants a filter: `pid`, the first `len` bytes of `filter` under `mask` (byte 0 is the table id, byte 1 on are
  // section bytes 3 on, as the kernel counts), tagged with `freq` (Hz), `flags` of FILTER_FLAG_..., restarted when
  // `timeout_s` seconds pass without a first section. Both byte fields are copied; bytes beyond 16 are discarded with a
  // warning. Takes the first free slot, else appends one. Nothing checks whether the same filter is there already.
  // Returns 0. Any-thread.
  int addfilter(int pid, int freq, const unsigned char* filter, const unsigned char* mask, int len, int flags,
                int timeout_s);

  // The same for one table id, with the CRC checked by the demultiplexer and 2 seconds. Any-thread.
  int addfilter(int pid, int tid, int freq);

  // Frees every filter of this PID and table id. Prints an error unless there was exactly one (two programmes on one
  // PMT PID lose both filters with the first); the list is unchanged when there was none. Returns 0. Any-thread.
  int removefilter(int pid, int tid);

  // Frees every filter whose PID lies in [pid_lo, pid_hi]; of `pid` with a table id in [tid_lo, tid_hi]; tagged with
  // `freq` (Hz); or simply every one. None is no failure. Return 0. Any-thread.
  int remove_filter_pid_range(int pid_lo, int pid_hi);
  int remove_filter_range(int pid, int tid_lo, int tid_hi);
  int remove_filter_freq(int freq);
  void remove_all();

  // 1 if a filter of this PID (and table id) is in the list, in whatever state but free; else 0. Any-thread.
  int pid_in_list(int pid) const;
  int pid_tid_in_list(int pid, int tid) const;

  // 1 when no filter but those on PID 0x12 (EIT) and 0x14 (TDT, TOT) is wanted or running, 0 otherwise and for an empty
  // list. A list of free slots only answers 1. Any-thread.
  int eit_or_time_only_in_filter_list();

  // Opens handles for wanted filters, programs and starts them, and rebuilds the set that wait_for_data() waits on.
  // A filter whose handle does not open stays wanted, and is free after the fifth time; one that the device refuses
  // counts as running. Returns the highest handle in that set, 0 when nothing runs. Worker-only.
  int recalculate_filters();

  // Starts again every running filter on a PID of 0x21 or more that has received no section of right length within its
  // time, rounded down to whole seconds, and gives it the same time once more. Worker-only.
  void check_feed_activation();

  // Stops the running filters, keeping them; wants the stopped ones again; starts each running filter again and marks
  // it stopped, so that start_filters() programs it afresh. A filter whose ioctl fails keeps its state. Worker-only.
  void stop_filters();
  void start_filters();
  void restart_all_filters();

  // One line with every filter's state, PID and table id, printed at every verbosity. Worker-only.
  void print_filter_list() const;

  // All slots, free ones included, in order of creation. Owned by this object. Worker-only.
  std::list<dvb_filter_desc*>* flist();

  // Waits up to `timeout_ms` milliseconds until a running filter has data. Returns the number of ready filters, 0 when
  // there is none, and -1 with errno and no message on failure; the filters to be read are then undefined until the
  // next wait. Kelvo ends the wait early, with 0, when a request is waiting.
  // Worker-only, right after recalculate_filters().
  int wait_for_data(int timeout_ms);

  // Reads one section of `f` into `buf` (the caller's, at least SECTION_BUF_SIZE bytes; what the section does not fill
  // is zeroed). Returns its length in bytes, or 0 when there is none or it is of wrong length or CRC (printed): the
  // section is lost and `buf` of no use then. Reads each ready filter once per wait. When reading fails (printed; a
  // warning for an overflow of the kernel's buffer), the filter goes on. Worker-only.
  unsigned int get_section_data(dvb_filter_desc* f, char* buf);

  // CRC-32 of `len` bytes, continuing from `crc`, without final inversion. crc32_be is the one of MPEG sections:
  // started with 0xFFFFFFFF, it gives 0 over a good section with its CRC. crc32_le is the reflected companion.
  // Any-thread.
  static unsigned int crc32_be(unsigned int crc, const unsigned char* data, unsigned int len);
  static unsigned int crc32_le(unsigned int crc, const unsigned char* data, unsigned int len);

  // Stops `f` and marks its slot free; handle and timer stay. A free slot is left alone. A failing stop is printed, and
  // the slot is freed all the same.
  // REQUIRES: no other thread uses the object. (The removals above do the same under the lock.)
  void set_dvbfilter_reuse(dvb_filter_desc* f);

  class Parts;
  // For the library's own use; Parts is not installed.
  Parts& parts() const { return *parts_; }

 private:
  std::unique_ptr<Parts> parts_;
};
