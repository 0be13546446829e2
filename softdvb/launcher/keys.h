// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

#include "softdvb/launcher/config.h"

// Everything that can be asked for, in one table. The options of the command line, the keys of a configuration file,
// their checks and the help come from it.
namespace softdvb {

struct Key {
  const char* name;  // of the option without its dashes
  const char* form;  // of its value, "" for a switch
  const char* help;
  // Checks VALUE and puts it into its field of the configuration or of the adapter that is being described. Throws
  // Usage_error and leaves the configuration as it was.
  void (*set)(Config& config, const Key& key, const std::string& value);
};

const std::vector<Key>& keys();

// Lines "key = value", "key" for switches, "[adapter N]" for a section, "#" comments. File names in it are relative
// to it. Throws std::runtime_error when it cannot be read, Usage_error with file and line when it is wrong; the lines
// before that one are in the configuration then.
void read_file(Config& config, const std::string& file);

}  // namespace softdvb
