// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/service_changes.h"

#include <algorithm>
#include <map>
#include <tuple>

namespace {

// A service that the multiplex names but never described is stored as lost from the start, and is found later: that is
// no change that anybody sees.
bool is_lost(const Service& service) {
  return service.scan_state == 0 && service.row_status != 2;
}

}  // namespace

std::vector<std::string> differences(const Service& before, const Service& after) {
  std::vector<std::string> out;
  const auto add = [&out](bool differs, const char* text) {
    if (differs) {
      out.emplace_back(text);
    }
  };
  add(before.freq != after.freq, "moved");
  add(before.name != after.name, "renamed");
  add(before.lcn != after.lcn, "renumbered");
  add(before.scrambled != after.scrambled, after.scrambled ? "now scrambled" : "now in the clear");
  add(before.visible != after.visible, after.visible ? "shown" : "hidden");
  return out;
}

std::vector<Changed_service> service_changes(const std::vector<Service>& before, const std::vector<Service>& after) {
  // By row, which a service keeps when its name or number changes: that is not a loss and a find.
  std::map<int, const Service*> known;
  for (const Service& service : before) {
    known[service.channel] = &service;
  }
  std::vector<Changed_service> out;
  for (const Service& service : after) {
    const auto old = known.find(service.channel);
    if (old == known.end()) {
      // What another frequency brings as well was never there for anybody.
      if (!is_lost(service)) {
        out.push_back({Change::NEW, &service});
      }
    } else if (is_lost(*old->second) && service.scan_state == 1) {
      out.push_back({Change::BACK, &service, old->second});
    } else if (!is_lost(*old->second) && is_lost(service)) {
      out.push_back({Change::LOST, &service});
    } else if (!is_lost(service) && !differences(*old->second, service).empty()) {
      out.push_back({Change::CHANGED, &service, old->second});
    }
  }
  // By kind first, because people look for what is new.
  std::stable_sort(out.begin(), out.end(), [](const Changed_service& a, const Changed_service& b) {
    return std::tie(a.change, a.service->lcn, a.service->channel) <
           std::tie(b.change, b.service->lcn, b.service->channel);
  });
  return out;
}
