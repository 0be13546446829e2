// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/channels/list_format.h"

#include <algorithm>
#include <cctype>
#include <set>

#include <fmt/format.h>

#include "tools/cli/text.h"
#include "tools/database/service_json.h"

namespace {

// Players take "@" for the end of a device's number, and a line that begins with "#" for a comment.
std::string safe_name(const std::string& name) {
  std::string out = name.empty() || name.front() == '#' ? "Channel " : "";
  for (const char c : name) {
    switch (c) {
      case ':':
        out += '|';
        break;
      case ';':
      case ',':
        out += '.';
        break;
      case '[':
        out += '(';
        break;
      case ']':
        out += ')';
        break;
      case '@':
        out += "(at)";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// Readers compare without regard to the case of ASCII letters, or with: different in both means different here.
std::string folded(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return c < 0x80 ? static_cast<char>(tolower(c)) : static_cast<char>(c); });
  return name;
}

}  // namespace

std::vector<List_entry> list_entries(const std::vector<Service>& services) {
  std::vector<List_entry> out;
  // libdvbv5 takes the first of these for the head of a multiplex without a name.
  std::set<std::string> taken{"channel"};
  for (const Service& service : services) {
    const std::string row = "#" + std::to_string(service.channel);
    std::string name = safe_name(service.name.empty() ? row : service.name);
    while (!taken.insert(folded(name)).second) {
      name += " " + row;
    }
    out.push_back({&service, name});
  }
  return out;
}

std::string without_number_note(size_t count) {
  return fmt::format("{} without a number left out, which {{number}} of --url wants; {{channel}} is there for all.",
                     counted(count, "channel"));
}

List_text write_json(const std::vector<Service>& services, const List_options& /*options*/) {
  return {channels_json(services).dump(2) + "\n", {}};
}

const std::vector<List_format>& list_formats() {
  static const std::vector<List_format> formats = {
      {"vdr", true, false, write_vdr},   {"dvbv5", true, false, write_dvbv5}, {"zap", true, false, write_zap},
      {"m3u", true, true, write_m3u},    {"xspf", true, true, write_xspf},    {"csv", false, false, write_csv},
      {"json", false, false, write_json}};
  return formats;
}
