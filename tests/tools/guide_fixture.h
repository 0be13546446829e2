// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "tools/command_fixture.h"

inline const std::string NO_ROOM = "no room for more events: the disk is full, or the guide is as large as it may be\n";

// A run that comes to nothing, and what it says.
struct Failing_case {
  const char* legend;
  Words options;  // of the adapter
  Words arguments;
  std::string err;  // DB and GUIDE stand for the files
  int exit_code = 1;
};

// Runs of the command on small multiplexes with a guide, made by softdvb-mux with all tables sent often. The time is
// virtual. For the streams it is 2026-03-01 18:00:00 UTC when they begin; they do not send it, so that a loop does not
// turn a clock back.
class Guide_fixture : public Command_fixture {
 protected:
  // 48 events of half an hour on the day of the streams, for service().
  static const std::string DAY_OF_EVENTS;

  // A television service with a channel number and a stream; `more` are further keys, a comma before each.
  static std::string service(int id, int lcn, const std::string& name, const std::string& more = "");
  // softdvb's options for a multiplex on so many MHz, made from softdvb-mux's `services`; `more` as above.
  static Words mux(const std::string& mhz, const std::string& services, const std::string& more = "");
  // And for playing it at so many times the speed.
  static Words at_speed(const std::string& speed, const Words& muxes);
  // Two multiplexes, 506 MHz with two services and 514 MHz with one, each with a day of events.
  static const Words& two_muxes();
  static Words network(const std::string& speed = "x10") { return at_speed(speed, two_muxes()); }

  // Runs the command with a control file, to which control() writes how the adapter is changed meanwhile.
  Words controlled(const Words& options, const Words& command) const;
  void control(const std::string& line) const;

  // Fills the channel list, and leaves no guide.
  void scan(const Words& options, const Words& freqs = {"506000000", "514000000"}) const;

  // Runs `command` as each case says, on a prepared database: it prints its one line and leaves the files as they are.
  void expect_failures(const Words& command, const std::vector<Failing_case>& cases) const;
};
