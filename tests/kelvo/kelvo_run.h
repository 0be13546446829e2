// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "kelvo/kelvo.h"
#include "support/softdvb.h"
#include "support/support.h"
#include "support/test.h"
#include "support/text.h"
#include "support/verbosity.h"

// What the callbacks and listeners of a Kelvo said, a line each, in the order in which they came; and places where a
// test can hold a thread of the library. Any-thread.
class Protocol {
 public:
  void add(const std::string& line);
  // All of it, lines that begin with one of `words` only (all without).
  std::string text(const std::vector<std::string>& words = {}) const;
  size_t count(const std::string& line) const;
  // Until `line` was said so many times; false after a minute of the machine's time without it.
  bool wait_for(const std::string& line, size_t times = 1);

  // What to do when a line is said, on the thread that says it, once. Before the line is said.
  void on(const std::string& line, std::function<void()> action);

 private:
  mutable std::mutex lock_;
  std::condition_variable said_;
  std::vector<std::string> lines_;
  std::vector<std::pair<std::string, std::function<void()>>> actions_;
};

// A gate at which a thread of the library waits for the test, and the test for the thread.
class Gate {
 public:
  // The library's thread: waits until it is let through.
  void pass();
  // The test: waits until the thread has come; false after a minute.
  bool wait_until_reached();
  void open();

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool reached_ = false;
  bool open_ = false;
};

// A Kelvo of adapter 0, connector 3 and type 1 under the software adapter, with all callbacks in a protocol:
//   "done NAME RESULT"      the answer to a request made with data(NAME)
//   "change CODE"
//   "end FREQ CHANNEL STAGE OUTCOME [merged CHANGES] [missing PID/TABLE...] [error CODE OPERATION]"
// The time of the tests is that of the adapter, which is faster.
class Kelvo_run : public testing::Test {
 protected:
  static constexpr int FREQ = 506000000;
  static constexpr int CONNECTOR = 3;
  static constexpr int TYPE = 1;

  void SetUp() override;
  void TearDown() override;

  void make(bool tuner = true);

  // The data of a request, so that its answer is told by name. Lives until the test ends.
  void* data(const std::string& name);
  static void done(void* data, int result);
  int request(const std::string& name, int freq = FREQ) { return kelvo_->tune_to_freq(freq, data(name), done); }
  // Requests that are accepted: waits for the answer; and the first of a Kelvo, which fills the channel list: 101 is
  // channel 1, 102 is 2, 103 is 3.
  void ask(const std::string& name, int result = 0);
  void make_and_ask(const std::string& name, int result = 0);

  // The adapter sends no section of these any more: "17/0x42" (PID and table).
  static void silence(std::initializer_list<const char*> tables);
  static constexpr char SDT[] = "17/0x42";
  static constexpr char PMT_OF_102[] = "272/0x02";
  static constexpr char PAT[] = "0/0x00";
  static constexpr char TOT[] = "20/0x73";

  int number_of(const std::string& sql);
  // Until the query answers other than 0.
  bool wait_for_sql(const std::string& sql);

  support::Verbosity quiet_{-1};
  support::Stderr_capture capture_;
  support::Temp_dir folder_;
  Protocol protocol_;
  std::unique_ptr<Sdbl> database_;
  std::unique_ptr<Kelvo> kelvo_;

 private:
  struct Named {
    Protocol* protocol;
    std::string name;
  };
  std::vector<std::unique_ptr<Named>> names_;
};

std::string line_of(const Scan_end& end);
