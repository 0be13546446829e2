// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <map>
#include <string>

// What `tv_grab_kelvo --configure` has asked, in the form that all grabbers of XMLTV keep it: lines "key=value", of
// channels that are not wanted "channel!ID", and comments behind "#".
struct Grabber_settings {
  std::string database;                  // empty: the default one
  std::string languages;                 // as `kelvo epg --lang` takes them; empty for any
  std::map<std::string, bool> channels;  // by channel_id(): wanted or not
};

// $HOME/.xmltv/tv_grab_kelvo.conf. Throws Failure where there is no home folder.
std::string default_settings_file();

// Throws Failure when it cannot be read, or has a line that is none of these, which it names.
Grabber_settings read_settings(const std::string& file);

// In place of the file, or not at all. `names` stand behind the ids, for people. Throws Failure.
void write_settings(const std::string& file, const Grabber_settings& settings,
                    const std::map<std::string, std::string>& names);
