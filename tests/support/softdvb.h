// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

namespace support {

struct Softdvb_run {
  int exit_code = -1;  // 128 + number for a signal
  std::string out;
  std::string err;
  std::string log;  // the adapters' log: "SECONDS PID TID CALL ARGUMENTS = RESULT [ERRNO]" lines
};

// Runs `softdvb OPTIONS --log ... -- COMMAND` in a folder of its own and waits for its end.
Softdvb_run run_softdvb(const std::vector<std::string>& options, const std::vector<std::string>& command);

// The launcher of this build.
std::string softdvb_launcher();

// Runs any command line, without adapters.
Softdvb_run run_program(const std::vector<std::string>& command);

// For programs that run under softdvb themselves. Each fails the calling test when there are no adapters.
// One control line, done when the call returns.
void softdvb_control(const std::string& line);
// 188-byte packets into the demultiplexers of this process, at once.
void softdvb_inject(int adapter, const std::vector<unsigned char>& packets);
// Pace "manual": plays the next packets of the tuned stream; returns how many there were.
long softdvb_play(int adapter, unsigned long packets);
// Whether this process runs with adapters.
bool under_softdvb();

}  // namespace support
