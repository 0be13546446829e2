// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include <CLI/CLI.hpp>

#include "tools/commands.h"

void add_trace(CLI::App& app, int* exit_code) {
  CLI::App* command = app.add_subcommand("trace", "Convert traces, or record one of a scan");
  command->require_subcommand(1);
  command->footer("'kelvo trace COMMAND --help' says more, with examples.");
  add_trace_convert(*command, exit_code);
  add_trace_record(*command, exit_code);
  add_trace_demo(*command, exit_code);
}
