// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/scan_json.h"

#include <algorithm>
#include <set>
#include <string>

#include "tools/database/service_json.h"
#include "tools/engine/tuning_text.h"
#include "tools/scan/service_changes.h"

namespace {

using Json = nlohmann::ordered_json;

Json or_null(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

bool has_multiplex(const Multiplex_line& line) {
  return line.result.outcome == Outcome::LOCKED || line.result.outcome == Outcome::TIMED_OUT;
}

Json to_json(const Multiplex_line& line) {
  const Multiplex_result& result = line.result;
  const bool found = has_multiplex(line);
  Json out;
  out["frequency"] = result.freq;
  out["adapter"] = result.adapter < 0 ? Json() : Json(result.adapter);
  out["found"] = found;
  out["complete"] = result.outcome == Outcome::LOCKED;
  out["result"] = outcome_text(result);
  out["system"] = found ? Json(system_text(result.tuning)) : Json();
  out["seconds"] = result.seconds;
  out["services"] = found ? Json(line.services) : Json();
  out["note"] = or_null(line.note);
  out["announced_by"] = result.announced_by == 0 ? Json() : Json(result.announced_by);
  out["missing"] = Json::array();
  for (const Missing_table& missing : result.missing) {
    out["missing"].push_back({{"pid", missing.pid},
                              {"table_id", missing.table_id},
                              {"service_id", missing.service_id < 0 ? Json() : Json(missing.service_id)}});
  }
  return out;
}

// What can change of a service.
Json values_of(const Service& service) {
  return {{"name", service.name},
          {"lcn", service.lcn == NO_LCN ? Json() : Json(service.lcn)},
          {"frequency", service.freq},
          {"scrambled", service.scrambled},
          {"visible", service.visible}};
}

Json to_json(const Changed_service& entry) {
  const char* const names[] = {"new", "back", "lost", "changed"};
  Json out;
  out["change"] = names[static_cast<int>(entry.change)];
  out["channel"] = entry.service->channel;
  out["service_id"] = entry.service->program_number;
  out["kinds"] = entry.before == nullptr ? std::vector<std::string>() : differences(*entry.before, *entry.service);
  out["old"] = entry.before == nullptr ? Json() : values_of(*entry.before);
  out["new"] = values_of(*entry.service);
  return out;
}

}  // namespace

Json scan_json(std::vector<Multiplex_line> multiplexes, const std::vector<Service>& before,
               const std::vector<Service>& after) {
  std::sort(multiplexes.begin(), multiplexes.end(),
            [](const Multiplex_line& a, const Multiplex_line& b) { return a.result.freq < b.result.freq; });
  Json out;
  std::set<int> found;
  out["multiplexes"] = Json::array();
  for (const Multiplex_line& line : multiplexes) {
    out["multiplexes"].push_back(to_json(line));
    if (has_multiplex(line)) {
      found.insert(line.result.freq);
    }
  }
  out["changes"] = Json::array();
  for (const Changed_service& change : service_changes(before, after)) {
    out["changes"].push_back(to_json(change));
  }
  out["channels"] = Json::array();
  for (const Service& service : after) {
    if (found.contains(service.freq)) {
      out["channels"].push_back(::to_json(service));
    }
  }
  return out;
}
