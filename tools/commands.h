// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

namespace CLI {
class App;
}

// Each subcommand lives in a source of its own and adds itself, with its options and a callback that runs it. The
// callback stores its exit code in `*exit_code` and throws Failure (failure.h) for what ends the command.
void add_adapters(CLI::App& app, int* exit_code);
void add_scan(CLI::App& app, int* exit_code);
void add_check(CLI::App& app, int* exit_code);
void add_channels(CLI::App& app, int* exit_code);
void add_epg(CLI::App& app, int* exit_code);
void add_epg_update(CLI::App& epg, int* exit_code);
void add_guide(CLI::App& app, int* exit_code);
void add_play(CLI::App& app, int* exit_code);
void add_serve(CLI::App& app, int* exit_code);
void add_signal(CLI::App& app, int* exit_code);
void add_trace(CLI::App& app, int* exit_code);
void add_trace_convert(CLI::App& trace, int* exit_code);
void add_trace_demo(CLI::App& trace, int* exit_code);
void add_trace_record(CLI::App& trace, int* exit_code);
void add_watch(CLI::App& app, int* exit_code);
