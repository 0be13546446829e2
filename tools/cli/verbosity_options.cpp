// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/cli/verbosity_options.h"

#include "tools/cli/console.h"

void add_quiet_option(CLI::App* command) {
  command->add_flag_callback("-q,--quiet", console::be_quiet, "No progress: only results and failures");
}

void add_verbose_option(CLI::App* command, int* times) {
  command->add_flag("-v,--verbose", *times,
                    "Show what the library says: errors; repeated, up to five times, warnings, progress and traces");
}
