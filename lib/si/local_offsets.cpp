// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "si/local_offsets.h"

#include <time.h>

#include <algorithm>
#include <optional>

#include "si/countries.h"

namespace {

constexpr long SECONDS_A_MINUTE = 60;

// Minutes east of UTC that the system's zone has at this time.
std::optional<int> system_offset_min(int64_t utc) {
  if (!std::in_range<time_t>(utc))
    return std::nullopt;
  const auto seconds = static_cast<time_t>(utc);
  tm local{};
  tzset();  // otherwise a zone that was installed meanwhile is not seen
  if (localtime_r(&seconds, &local) == nullptr)
    return std::nullopt;
  return static_cast<int>(local.tm_gmtoff / SECONDS_A_MINUTE);
}

using Entries = std::vector<const Local_offset*>;

const Local_offset* of_region(const Entries& entries, std::optional<int> home) {
  const auto at_home = std::find_if(entries.begin(), entries.end(),
                                    [home](const Local_offset* entry) { return home && entry->offset_min == *home; });
  if (at_home != entries.end())
    return *at_home;
  return *std::min_element(entries.begin(), entries.end(),
                           [](const Local_offset* a, const Local_offset* b) { return a->region < b->region; });
}

}  // namespace

const Local_offset* Country_offset::choose(const std::vector<Local_offset>& offsets, int original_network_id,
                                           int64_t utc) const {
  const std::string home = countries::by_system_zone();
  const auto of = [&](const std::string& country) -> const Local_offset* {
    Entries entries;
    for (const Local_offset& entry : offsets)
      if (!country.empty() && countries::by_letters(entry.country) == country)
        entries.push_back(&entry);
    if (entries.empty())
      return nullptr;
    return of_region(entries, country == home ? system_offset_min(utc) : std::nullopt);
  };
  for (const std::string& country : {countries::by_letters(country_), countries::by_network(original_network_id), home})
    if (const Local_offset* entry = of(country))
      return entry;

  // Codes that are no country's ("EUR") count here, too, but none that is no text.
  const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  const bool one_country = std::all_of(offsets.begin(), offsets.end(), [&](const Local_offset& entry) {
    return entry.country == offsets.front().country;
  });
  if (offsets.empty() || !one_country || !std::all_of(offsets[0].country.begin(), offsets[0].country.end(), is_letter))
    return nullptr;
  Entries all;
  for (const Local_offset& entry : offsets)
    all.push_back(&entry);
  return of_region(all, std::nullopt);
}
