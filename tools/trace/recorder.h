#pragma once

#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
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

// Listens to what the library says while it scans, in the place of standard error, and records what that means:
//   task "parse"      a pass of the worker's loop over the sections that have come
//   task "merge"      scan tables into the channel list
//   interrupt TS_IN0_DMA  a section is read from the demultiplexer
//   objects           the filters, "PAT", "NIT", "PMT 256" and so on, while the demultiplexer has them
//   events            the parsing of one section, by the name of its table
//   note "err"        an error, with how many there were
class Library_listener {
 public:
  // Throws Failure. Sets the library's verbosity, too.
  explicit Library_listener(Trace_recorder* recorder);
  // Records what was said up to now.
  ~Library_listener();
  Library_listener(const Library_listener&) = delete;
  Library_listener& operator=(const Library_listener&) = delete;

 private:
  void listen();
  void hear(std::string_view message);
  void end_section();
  void end_filter(unsigned pid);

  Trace_recorder& recorder_;
  int read_end_ = -1;
  int own_stderr_ = -1;
  bool reading_ = false;
  bool parsing_ = false;
  bool merging_ = false;
  std::string section_;                      // the name of the table that is being parsed
  std::map<unsigned, std::string> filters_;  // by PID
  int errors_ = 0;
  std::thread thread_;
};
