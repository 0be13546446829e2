// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/select.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "filter/dvb_filter_desc.h"
#include "filter/filter_options.h"

// One demultiplexer device as filters see it: its handles, how many of them are open, and which of them have data. Not
// installed. Not locked, but for gone(): the mutex of the Section_filter that owns it guards it.
//
// Every failure is printed here, unless a line says otherwise. A device that is watched and has gone is told by gone()
// and one warning: no operation calls it any more or prints, and what would have failed counts as done.
class Demux {
 public:
  // Keeps up to 255 characters of the path. Opens nothing.
  explicit Demux(const char* device);

  // REQUIRES: nothing has been opened yet.
  void configure(const Filter_options& options) { options_ = options; }
  const Filter_options& options() const { return options_; }

  // True since the device was found to have gone, or set_gone(), until come_back(). Any-thread, all three.
  bool gone() const { return gone_; }
  void set_gone() { gone_ = true; }
  void come_back() { gone_ = false; }
  // Whether the device is there, asked by opening it for a moment; nothing is noted or printed.
  bool answers() const;

  const char* device() const { return device_; }
  int nr_opened() const { return nr_opened_; }
  // How often a filter was programmed since the beginning.
  int programmed() const { return programmed_; }

  // Opens a handle for `f`, which has none. False when that failed; `f` has no handle then.
  bool open(dvb_filter_desc& f);

  // Closes the handle of `f` and counts it off. False, with errno and no message, when the system does not close it;
  // `f` has lost it all the same.
  bool close(dvb_filter_desc& f);

  // Gives the device PID, bytes, mask and flags of `f` and starts it. False when either step failed, which does not
  // keep the other from being tried.
  bool program(const dvb_filter_desc& f);

  // Starts what is programmed on the handle of `f` once more; false, with errno and no message, when that failed.
  bool start(const dvb_filter_desc& f);
  // False when that failed.
  bool stop(const dvb_filter_desc& f);

  // Reads one section of `f`, which has data, into the `size` bytes at `buf`. The result and errno are those of read(),
  // without a message; 0 without one, too, when the device is watched and had nothing after all.
  int read(const dvb_filter_desc& f, void* buf, size_t size);
  // How long a wait for data lasts at least, in milliseconds: 0 unless the device keeps saying that there are data, and
  // has none.
  int pause_ms() const { return empty_reads_ != 0 ? EMPTY_PAUSE_MS : 0; }

  // The set of handles to wait for, or, after a wait, of those that have data: add one, take one out (true if it was
  // in), empty it.
  void watch(int handle);
  bool unwatch(int handle);
  void unwatch_all();
  const fd_set& read_set() const { return read_set_; }

 private:
  // On a device that is there, data that poll announces are read, or their overflow is told: one that has none every
  // time for so long and so often has gone, also where poll does not say it.
  static constexpr int EMPTY_READS = 20;
  static constexpr int EMPTY_S = 2;
  static constexpr int EMPTY_PAUSE_MS = 50;

  bool is_loss(int error) const;
  void note_gone(const char* how);
  void note_empty_read(int handle);
  void set_buffer(int handle);

  char device_[256];
  Filter_options options_;
  std::atomic<bool> gone_ = false;
  bool buffer_refused_ = false;  // that has been said
  int empty_reads_ = 0;          // in a row, of all handles
  int64_t empty_until_ns_ = 0;   // of CLOCK_MONOTONIC, when they will have been too many
  int nr_opened_ = 0;            // those of free slots included
  int programmed_ = 0;
  fd_set read_set_;
};
