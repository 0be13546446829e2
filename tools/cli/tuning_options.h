// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <vector>

#include <CLI/CLI.hpp>

// The options that name adapters and frequencies, alike in every command that takes several of them. `adapters` and
// `freqs` outlive the parsing.
void add_adapters_option(CLI::App* command, std::vector<int>* adapters, const char* help);
CLI::Option* add_freqs_option(CLI::App* command, std::vector<int>* freqs);
