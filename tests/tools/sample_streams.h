// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "tools/command_fixture.h"

// The sample network as this build makes it, once: the files of 474, 498 and 522 MHz.
inline const Words& sample_streams() {
  static const support::Temp_dir dir;
  static const Words made = [] {
    Words files;
    for (const std::string mhz : {"474", "498", "522"}) {
      files.push_back(dir.file(mhz + ".ts"));
      const Command_result run = run_command({SOFTDVB_MUX_COMMAND, KELVO_SAMPLES "/kuldnokk-" + mhz + ".json", "-o",
                                              files.back(), "--now", "2026-03-01T18:00:00Z"});
      EXPECT_EQ(run.exit_code, 0) << run.err;
    }
    return files;
  }();
  return made;
}
