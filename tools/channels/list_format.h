// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "tools/database/channel_db.h"

// A channel and the name by which other programs find it.
struct List_entry {
  const Service* service = nullptr;
  std::string name;
};

// The channels with names that are different, whatever their letters' case, that no program's syntax takes apart, and
// that are the same in every format: a list of links by name goes with a list of channels. ':' becomes '|' as vdr
// writes it, ',' and ';' become '.', brackets parentheses, '@' "(at)". "#" and its row number stand behind the name of
// a channel that has the name of one before it; "Channel #7" is one without a name.
std::vector<List_entry> list_entries(const std::vector<Service>& services);

// What a format makes of them.
struct List_text {
  std::string text;
  std::vector<std::string> notes;  // what was left out and why, for people
};

struct List_options {
  std::string url;  // template of links, see channel_url(); empty: dvb://NAME
};

// "2 channels without a number left out: ..."
std::string without_number_note(size_t count);

// A format of channel lists, a source for each. REQUIRES of `write`: services were read with their streams.
struct List_format {
  const char* name;
  bool for_tuning;  // of channels that can be tuned to; else all that is known
  bool has_links;   // List_options::url is used
  List_text (*write)(const std::vector<Service>& services, const List_options& options);
};

// Those that `kelvo channels --format` knows besides its table.
const std::vector<List_format>& list_formats();

List_text write_vdr(const std::vector<Service>& services, const List_options& options);
List_text write_dvbv5(const std::vector<Service>& services, const List_options& options);
List_text write_zap(const std::vector<Service>& services, const List_options& options);
List_text write_m3u(const std::vector<Service>& services, const List_options& options);
List_text write_xspf(const std::vector<Service>& services, const List_options& options);
List_text write_csv(const std::vector<Service>& services, const List_options& options);
List_text write_json(const std::vector<Service>& services, const List_options& options);
