// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/epg/grabber_settings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <fmt/format.h>

#include "tools/cli/failure.h"
#include "tools/cli/output_file.h"
#include "tools/database/channel_db.h"

namespace {

// Without the comment, and without blanks around it.
std::string trimmed(std::string line) {
  line.resize(std::min(line.find('#'), line.size()));
  line.resize(line.find_last_not_of(" \t\r") + 1);
  line.erase(0, line.find_first_not_of(" \t"));
  return line;
}

}  // namespace

std::string default_settings_file() {
  const char* home = getenv("HOME");
  if (home == nullptr || home[0] == '\0') {
    throw Failure("no home folder for the settings; name a file with --config-file");
  }
  return std::string(home) + "/.xmltv/tv_grab_kelvo.conf";
}

Grabber_settings read_settings(const std::string& file) {
  std::ifstream in(file);
  if (!in) {
    throw Failure(fmt::format("{}: {}; make it with 'tv_grab_kelvo --configure'", file, strerror(errno)));
  }
  Grabber_settings out;
  int number = 0;
  for (std::string whole; std::getline(in, whole);) {
    ++number;
    // A path may have a "#" in it.
    const std::string line = whole.starts_with("database=") ? whole : trimmed(whole);
    const size_t sign = line.find_first_of("=!");
    if (line.empty()) {
      continue;
    }
    const std::string key = line.substr(0, sign);
    const std::string value = sign == std::string::npos ? "" : line.substr(sign + 1);
    if (key == "channel" && !value.empty()) {
      out.channels[value] = line[sign] == '=';
    } else if (key == "database" && sign != std::string::npos) {
      out.database = value;
    } else if (key == "languages" && sign != std::string::npos) {
      out.languages = value;
    } else {
      throw Failure(
          fmt::format("{}:{}: not understood: {}; make it anew with 'tv_grab_kelvo --configure'", file, number, line));
    }
  }
  if (in.bad()) {
    throw Failure(fmt::format("{}: cannot be read", file));
  }
  return out;
}

void write_settings(const std::string& file, const Grabber_settings& settings,
                    const std::map<std::string, std::string>& names) {
  make_folders_for(file);
  Output_file out(file);
  out.write("# What tv_grab_kelvo(1) makes a guide of: channel=ID is wanted, channel!ID is not.\n");
  out.write("database=" + settings.database + "\n");
  out.write(settings.languages.empty() ? "#languages=est,eng\n" : "languages=" + settings.languages + "\n");
  for (const auto& [id, wanted] : settings.channels) {
    const auto name = names.find(id);
    out.write("channel" + std::string(wanted ? "=" : "!") + id + (name == names.end() ? "" : "  # " + name->second) +
              "\n");
  }
  out.finish();
}
