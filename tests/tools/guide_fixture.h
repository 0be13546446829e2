// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "support/command.h"
#include "support/support.h"
#include "support/test.h"
#include "tools/guide_streams.h"

struct Failing_case;

// Runs of the command on two small multiplexes, 506 MHz with two services and 514 MHz with one, each with a day of 48
// events and all tables sent often. The time is virtual and begins at Guide_streams::NOW.
class Guide_fixture : public testing::Test {
 protected:
  using Words = std::vector<std::string>;

  static Words joined(Words a, const Words& b);
  // softdvb's options for the two multiplexes at so many times the speed.
  static Words network(const std::string& speed = "x10");
  // `kelvo COMMAND... --db DB` below softdvb.
  Words kelvo(const Words& options, const Words& command) const;
  // The same from a shell that writes down first how the adapter is changed while it runs; see control().
  Words controlled(const Words& options, const Words& command) const;
  void control(const std::string& line) const;

  // Fills the channel list.
  void scan(const Words& options, const Words& freqs = {"506000000", "514000000"}) const;
  // The first column of the first row.
  static std::string value(const std::string& file, const std::string& sql);
  // "ok" when both files are sound.
  std::string integrity() const;

  // Runs `command` as the case says, on a prepared database: it prints its one line and leaves the files as they are.
  void expect_failure(const Words& command, const Failing_case& c) const;

  support::Temp_dir dir_;
  std::string db_ = dir_.file("dvb.db");
  std::string guide_ = dir_.file("dvb_epg.db");
};

// A run that comes to nothing, and what it says.
struct Failing_case {
  const char* legend;
  std::vector<std::string> options;  // of the adapter
  std::vector<std::string> arguments;
  std::string err;  // DB and GUIDE stand for the files
  int exit_code = 1;
};

void PrintTo(const Failing_case& c, std::ostream* out);
