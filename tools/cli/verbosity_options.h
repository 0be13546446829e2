// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <CLI/CLI.hpp>

// --quiet: see console::report().
void add_quiet_option(CLI::App* command);

// --verbose, which counts: the verbosity of console::Quiet_library is one less than `*times`, which outlives the
// parsing.
void add_verbose_option(CLI::App* command, int* times);
