// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <kelvo/receiver_profile.h>

// How adapters are treated, alike in every command that uses one.
struct Receiver_options {
  std::string profile = "any";
  std::optional<double> lock_time;  // seconds
  bool set_clock = false;
  std::string charset;
  std::string country;  // whose local time counts; empty for the network's
  bool other = false;   // what is sent of other networks and multiplexes counts, too
};

// --profile and --lock-time. `options` outlives the parsing.
void add_receiver_options(CLI::App* command, Receiver_options* options);
// --set-clock, for commands that read the time tables of a broadcast.
void add_set_clock_option(CLI::App* command, Receiver_options* options);
// --charset, for commands that store or show texts of a broadcast.
void add_charset_option(CLI::App* command, Receiver_options* options);

// --country, for commands that read time tables and have no such option of their own.
void add_country_option(CLI::App* command, Receiver_options* options);

// --other, for commands that scan.
void add_other_option(CLI::App* command, Receiver_options* options);

// What the options come to, in the country of the locale: its transmitters may be beside their channel's centre. Throws
// Failure when they contradict each other.
Receiver_profile profile_of(const Receiver_options& options);
