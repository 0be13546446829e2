// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/database/stream_words.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

namespace {

// ETSI TS 101 162, CA_system_id: by the vendor's range, which is what most of these are, or one number.
constexpr struct {
  int first;
  int last;
  const char* name;
} CA_NAMES[] = {
    {0x0100, 0x01FF, "Mediaguard"}, {0x0500, 0x05FF, "Viaccess"},   {0x0600, 0x06FF, "Irdeto"},
    {0x0900, 0x09FF, "VideoGuard"}, {0x0B00, 0x0BFF, "Conax"},      {0x0D00, 0x0DFF, "CryptoWorks"},
    {0x0E00, 0x0EFF, "PowerVu"},    {0x1700, 0x17FF, "BetaCrypt"},  {0x1800, 0x18FF, "Nagravision"},
    {0x2600, 0x26FF, "BISS"},       {0x4AE0, 0x4AE1, "DRE-Crypt"},  {0x5501, 0x5501, "Griffin"},
    {0x5581, 0x5581, "BulCrypt"},   {0x5601, 0x5604, "Verimatrix"},
};

void add_once(std::vector<std::string>* texts, const std::string& text) {
  if (std::find(texts->begin(), texts->end(), text) == texts->end()) {
    texts->push_back(text);
  }
}

// All systems where they are known, else the one that each stream has.
std::vector<int> systems_of(const Service& service) {
  std::vector<int> all;
  for (const Service_ca& ca : service.ca) {
    all.push_back(ca.system);
  }
  if (all.empty()) {
    for (const Stream& stream : service.streams) {
      if (stream.ca_system != 0) {
        all.push_back(stream.ca_system);
      }
    }
  }
  return all;
}

std::string role_text(const Stream& stream, const Language_role& role) {
  if (stream.kind != "teletext" || role.page == 0) {
    return role.role;
  }
  return role.role.empty() ? std::to_string(role.page) : fmt::format("{} {}", role.role, role.page);
}

// "cze (index 100, subtitles 888)"
std::string language_text(const Stream& stream, const std::string& language) {
  std::vector<std::string> roles;
  for (const Language_role& role : stream.roles) {
    if (role.language == language && !role_text(stream, role).empty()) {
      add_once(&roles, role_text(stream, role));
    }
  }
  return roles.empty() ? language : fmt::format("{} ({})", language, fmt::join(roles, ", "));
}

}  // namespace

std::string ca_name(int system) {
  for (const auto& known : CA_NAMES) {
    if (system >= known.first && system <= known.last) {
      return known.name;
    }
  }
  return "";
}

std::vector<std::string> ca_numbers(const Service& service) {
  std::vector<std::string> out;
  for (const int system : systems_of(service)) {
    add_once(&out, fmt::format("0x{:04X}", system));
  }
  return out;
}

std::vector<std::string> ca_names(const Service& service) {
  std::vector<std::string> out;
  for (const int system : systems_of(service)) {
    const std::string name = ca_name(system);
    add_once(&out, name.empty() ? fmt::format("0x{:04X}", system) : name);
  }
  return out;
}

std::string stream_text(const Stream& stream) {
  std::string out = fmt::format("{} {}", stream.kind, stream.pid);
  if (stream.described && !stream.codec.empty()) {
    out += " " + stream.codec;
  }
  for (const std::string& language : stream.languages) {
    out += " " + language_text(stream, language);
  }
  return out;
}

std::string streams_text(const Service& service) {
  std::vector<std::string> texts;
  for (const Stream& stream : service.streams) {
    texts.push_back(stream_text(stream));
  }
  return fmt::format("{}", fmt::join(texts, ", "));
}
