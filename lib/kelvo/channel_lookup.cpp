// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "kelvo/channel_lookup.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "db/lookup.h"
#include "db/number_plan.h"
#include "db/sdbl.h"
#include "db/sdbl_parts.h"
#include "kelvo/stored_text.h"

namespace {

using sdbl::Named_channel;

bool comes_before(const Named_channel& left, const Named_channel& right) {
  const Listed_channel& a = left.channel;
  const Listed_channel& b = right.channel;
  const int kind_of_a = sdbl::kind_of(a.type), kind_of_b = sdbl::kind_of(b.type);
  if (a.number == -1 && b.number == -1)
    return std::tie(a.lost, a.hidden, kind_of_a, a.name, a.channel) <
           std::tie(b.lost, b.hidden, kind_of_b, b.name, b.channel);
  // As unsigned numbers, so that none is the last.
  return std::tuple(static_cast<unsigned>(a.number), a.lost, a.hidden, kind_of_a, a.channel) <
         std::tuple(static_cast<unsigned>(b.number), b.lost, b.hidden, kind_of_b, b.channel);
}

// All, in the order of the list and with texts to be shown.
bool read_all(const Sdbl* database, std::vector<Named_channel>* all) {
  const Sdbl::Parts& parts = database->parts();
  if (!sdbl::Lookup(parts.connection, parts.statements).channels(all))
    return false;
  Stored_text text;
  for (Named_channel& service : *all) {
    for (std::string* stored : {&service.channel.name, &service.channel.provider, &service.channel.network})
      *stored = text.shown(*stored);
    for (std::string& name : service.names)
      name = text.shown(name);
  }
  std::sort(all->begin(), all->end(), comes_before);
  return true;
}

template <typename Test>
std::vector<Listed_channel> those(const std::vector<Named_channel>& all, Test wanted) {
  std::vector<Listed_channel> out;
  for (const Named_channel& service : all)
    if (wanted(service))
      out.push_back(service.channel);
  return out;
}

}  // namespace

bool Channel_lookup::list(std::vector<Listed_channel>* channels, Which which) const {
  std::vector<Named_channel> all;
  if (!read_all(database_, &all))
    return false;
  *channels = those(all, [which](const Named_channel& service) {
    return which == ALL || (!service.channel.lost && !service.channel.hidden);
  });
  return true;
}

bool Channel_lookup::by_number(int number, std::vector<Listed_channel>* channels) const {
  std::vector<Named_channel> all;
  if (!read_all(database_, &all))
    return false;
  *channels =
      those(all, [number](const Named_channel& service) { return number > 0 && service.channel.number == number; });
  return true;
}

bool Channel_lookup::by_name(const std::string& name, std::vector<Listed_channel>* channels) const {
  std::vector<Named_channel> all;
  if (!read_all(database_, &all))
    return false;
  const std::string wanted = Stored_text::lower_case(name);
  const auto any_name = [&wanted](const Named_channel& service, bool whole) {
    const auto matches = [&](const std::string& other) {
      const std::string lower = Stored_text::lower_case(other);
      return !wanted.empty() && (whole ? lower == wanted : lower.find(wanted) != std::string::npos);
    };
    return matches(service.channel.name) || std::any_of(service.names.begin(), service.names.end(), matches);
  };
  std::vector<Listed_channel> found = those(all, [&](const Named_channel& service) { return any_name(service, true); });
  if (found.empty())
    found = those(all, [&](const Named_channel& service) { return any_name(service, false); });
  *channels = std::move(found);
  return true;
}
