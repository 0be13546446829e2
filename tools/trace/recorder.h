// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <kelvo/kelvo.h>

// Records of the program's own doings, as the chip's trace buffer would hold them: stamped with a counter of 320 MHz
// that wraps every 13.4 seconds, so that something must be recorded at least that often. Any thread.
class Trace_recorder {
 public:
  void note(const char* name, int value);
  void start(unsigned type, unsigned id, const std::string& name = "");
  void stop(unsigned type, unsigned id, const std::string& name = "");

  // Four words a record.
  std::vector<unsigned> words() const;

 private:
  void add(unsigned cmd, unsigned type, unsigned id, const char* name, const int* value);

  mutable std::mutex mutex_;
  Timedoc timedoc_;  // packs names
  std::vector<unsigned> words_;
};

// Records what the library tells of its doings:
//   task "parse"      a pass of the worker's loop over the sections that have come
//   task "merge"      scan tables into the channel list
//   interrupt TS_IN0_DMA  a section is read from the demultiplexer
//   objects           the filters, "PAT", "NIT", "PMT 256" and so on, while the demultiplexer has one of that PID
//   events            the parsing of one section, by the name of its table
//   note "err"        an error, with how many there were
// Nothing of the library goes to standard error during its life. Made before the first object of the library and
// deleted after the last one.
class Library_listener {
 public:
  explicit Library_listener(Trace_recorder* recorder);
  ~Library_listener();
  Library_listener(const Library_listener&) = delete;
  Library_listener& operator=(const Library_listener&) = delete;

  // Before the first request.
  void listen_to(Kelvo* kelvo);

 private:
  static void on_message(void* self, int level, const char* text);
  static void on_activity(void* self, int kind, int value);
  void filter_started(int pid);
  void filter_ended(int pid);

  Trace_recorder& recorder_;
  std::mutex mutex_;            // guards what follows
  std::map<int, int> filters_;  // how many there are, by PID
  int errors_ = 0;
};
