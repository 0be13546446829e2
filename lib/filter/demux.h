// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <sys/select.h>

#include "filter/dvb_filter_desc.h"

// One demultiplexer device as filters see it: its handles, how many of them are open, and which of them have data. Not
// installed. Not locked: the mutex of the Section_filter that owns it guards it.
//
// Every failure is printed here, unless a line says otherwise.
class Demux {
 public:
  // Keeps up to 255 characters of the path. Opens nothing.
  explicit Demux(const char* device);

  const char* device() const { return device_; }
  int nr_opened() const { return nr_opened_; }
  // How often a filter was programmed since the beginning.
  int programmed() const { return programmed_; }

  // Opens a handle for `f`, which has none. False when that failed; `f` has no handle then.
  bool open(dvb_filter_desc& f);

  // Closes the handle of `f` and counts it off. False, with errno and no message, when the system does not close it;
  // `f` has lost it all the same.
  bool close(dvb_filter_desc& f);

  // Gives the device PID, bytes, mask and flags of `f` and starts it. A failure of either step does not keep the other
  // from being tried.
  void program(const dvb_filter_desc& f);

  // Starts what is programmed on the handle of `f` once more; false, with errno and no message, when that failed.
  static bool start(const dvb_filter_desc& f);
  // False when that failed.
  static bool stop(const dvb_filter_desc& f);

  // The set of handles to wait for, or, after a wait, of those that have data: add one, take one out (true if it was
  // in), empty it.
  void watch(int handle);
  bool unwatch(int handle);
  void unwatch_all();
  const fd_set& read_set() const { return read_set_; }

 private:
  char device_[256];
  int nr_opened_ = 0;  // those of free slots included
  int programmed_ = 0;
  fd_set read_set_;
};
