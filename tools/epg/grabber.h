// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <optional>
#include <string>

// What `tv_grab_kelvo` is asked for. It follows the manners of XMLTV's grabbers, so that every program that knows one
// knows it; it makes no guide, but hands over the one that `kelvo epg update` has collected.
struct Grabber_options {
  std::optional<std::string> config_file;  // default_settings_file() without one
  std::optional<std::string> database;     // instead of the one in the settings
  std::string output = "-";
  std::optional<int> days;  // all that there are without it
  int offset = 0;           // the first day, from today
  bool quiet = false;
};

// The guide of the channels that the settings want, or of all where there are no settings in the default place: events
// that begin on one of the days, and with today those that still run from yesterday. Only channels with such events are
// named.
void grab(const Grabber_options& options);

// All channels, without events.
void list_channels(const Grabber_options& options);

// Asks for each channel whether it is wanted, on standard error and input, and writes the settings. What cannot be
// asked, because the input has ended, stays as it was; channels that are new are wanted unless they are hidden.
void configure(const Grabber_options& options);

// The same for programs that ask themselves: what there is to ask, as XML. `stage` is "start".
void print_questions(const Grabber_options& options, const std::string& stage);
