// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/scan_report.h"

#include <algorithm>
#include <map>

#include <fmt/format.h>

#include "tools/cli/table.h"
#include "tools/cli/text.h"
#include "tools/engine/table_name.h"
#include "tools/engine/tuning_text.h"
#include "tools/scan/service_changes.h"

namespace {

// "NIT", "PMTs of 3 services", in the order in which they were missed.
std::vector<std::string> names_of(const std::vector<Missing_table>& missing) {
  const auto is_pmt = [](const Missing_table& table) { return table_name(table.table_id) == "PMT"; };
  const auto pmts = std::count_if(missing.begin(), missing.end(), is_pmt);
  std::vector<std::string> names;
  for (const Missing_table& table : missing) {
    std::string name = table_name(table.table_id);
    if (is_pmt(table)) {
      name = pmts == 1 ? "PMT of 1 service" : fmt::format("PMTs of {} services", pmts);
    } else if (name == "other") {
      name = fmt::format("table {}", table.table_id);
    }
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      names.push_back(std::move(name));
    }
  }
  return names;
}

// "locked; the SDT and the PMTs of 3 services did not come".
std::string missing_text(const Multiplex_result& result) {
  const std::vector<std::string> names = names_of(result.missing);
  if (names.empty()) {
    return "timed out: not all tables came";
  }
  const size_t last = names.size() - 1;
  return fmt::format("{}; the {}{}{} did not come", locked_text(result.tuning),
                     fmt::join(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(last), ", the "),
                     last == 0 ? "" : " and the ", names[last]);
}

}  // namespace

std::string outcome_text(const Multiplex_result& result) {
  switch (result.outcome) {
    case Outcome::LOCKED:
      return locked_text(result.tuning);
    case Outcome::TIMED_OUT:
      return missing_text(result);
    case Outcome::NO_DEMUX:
      return "the demultiplexer cannot be used";
    case Outcome::NO_STREAM:
      return "locked, no stream";
    case Outcome::NO_LOCK:
      return no_lock_text(result.tuning);
    case Outcome::OUT_OF_RANGE:
      return "out of the frontend's range";
    case Outcome::OTHER_SYSTEM:
      return "a system that the frontend does not receive";
    case Outcome::TIME_UP:
      return "not scanned: the time was up";
    case Outcome::DEVICE_GONE:
      return "not scanned: the adapter is gone";
    case Outcome::NOT_SCANNED:
      break;
  }
  return "not scanned: interrupted";
}

namespace {

std::string with_notes(const Multiplex_line& line) {
  std::string out = outcome_text(line.result);
  if (const std::string lost = lost_text(line.result.lost); !lost.empty()) {
    out += "; " + lost;
  }
  if (line.result.announced_by != 0) {
    out += "; announced by " + mhz(line.result.announced_by);
  }
  return line.note.empty() ? out : out + "; " + line.note;
}

bool has_services(Outcome outcome) {
  return outcome == Outcome::LOCKED || outcome == Outcome::TIMED_OUT;
}

// Without tuning there is no time to show, and 0.0 s would look like a measurement.
bool was_tuned(Outcome outcome) {
  return outcome != Outcome::OUT_OF_RANGE && outcome != Outcome::OTHER_SYSTEM && outcome != Outcome::NOT_SCANNED &&
         outcome != Outcome::TIME_UP && outcome != Outcome::DEVICE_GONE;
}

// A number on a scale that only the driver knows says something beside that of another multiplex; of a frequency
// without one it says nothing.
Signal_value shown(const Signal_value& value, Outcome outcome) {
  return value.scale == SCALE_DRIVER && !has_services(outcome) ? Signal_value{} : value;
}

// Frequencies that have nothing, of which there is no more to say than why.
constexpr size_t MANY = 4;

struct Nothing_there {
  size_t count = 0;
  int first_hz = 0;
  int last_hz = 0;
  double seconds = 0;
};
using Nothing = std::map<std::string, Nothing_there>;  // by reason

bool has_nothing(const Multiplex_line& line) {
  const Multiplex_result& result = line.result;
  // Where there is a signal, or the device has failed, people want to know at which frequency.
  const bool silent = result.outcome == Outcome::NO_LOCK &&
                      (result.tuning.outcome == TUNING_NO_SIGNAL || no_lock_text(result.tuning) == no_lock_text({}));
  return (silent || (!was_tuned(result.outcome) && !has_services(result.outcome))) &&
         with_notes(line) == outcome_text(result);
}

Nothing summed_up(const std::vector<Multiplex_line>& lines) {
  Nothing all;
  for (const Multiplex_line& line : lines) {
    if (!has_nothing(line)) {
      continue;
    }
    Nothing_there& there = all[outcome_text(line.result)];
    there.first_hz = there.count == 0 ? line.result.freq : there.first_hz;
    there.last_hz = line.result.freq;
    there.seconds += was_tuned(line.result.outcome) ? line.result.seconds : 0;
    ++there.count;
  }
  std::erase_if(all, [](const auto& one) { return one.second.count < MANY; });
  return all;
}

std::string from_to(const std::string& before, const std::string& after) {
  return before == after ? after : before + " -> " + after;
}

std::string change_text(const Changed_service& entry) {
  switch (entry.change) {
    case Change::NEW:
      return "new";
    case Change::BACK: {
      const std::vector<std::string> others = differences(*entry.before, *entry.service);
      return fmt::format("back{}{}", others.empty() ? "" : ", ", fmt::join(others, ", "));
    }
    case Change::CHANGED:
      return fmt::format("{}", fmt::join(differences(*entry.before, *entry.service), ", "));
    case Change::LOST:
      break;
  }
  return "lost";
}

}  // namespace

std::string multiplex_text(const Multiplex_line& line) {
  std::string out = outcome_text(line.result);
  if (has_services(line.result.outcome)) {
    out += ", " + counted(line.services, "service");
  }
  if (was_tuned(line.result.outcome)) {
    out += fmt::format(", {:.1f} s", line.result.seconds);
  }
  if (const std::string lost = lost_text(line.result.lost); !lost.empty()) {
    out += "; " + lost;
  }
  return out;
}

void print_report(FILE* out, std::vector<Multiplex_line> multiplexes, const std::vector<Service>& before,
                  const std::vector<Service>& after, bool wide) {
  std::sort(multiplexes.begin(), multiplexes.end(),
            [](const Multiplex_line& a, const Multiplex_line& b) { return a.result.freq < b.result.freq; });
  using enum Table::Align;
  using enum Table::Fit;
  Table lines({{"MULTIPLEX", RIGHT},
               {"ADAPTER", RIGHT, WHOLE, 5},
               {"SYSTEM", LEFT, WHOLE, 2},
               {"STRENGTH", RIGHT, WHOLE, 3},
               {"SNR", RIGHT, WHOLE, 1},
               {"SERVICES", RIGHT},
               {"TIME", RIGHT, WHOLE, 4},
               {"RESULT", LEFT, WORDS}},
              wide);
  const Nothing nothing = wide ? Nothing{} : summed_up(multiplexes);
  int found = 0;
  int services = 0;
  for (const Multiplex_line& line : multiplexes) {
    const Multiplex_result& result = line.result;
    const bool counted = has_services(result.outcome);
    const bool tuned = was_tuned(result.outcome);
    found += counted ? 1 : 0;
    services += counted ? line.services - line.doubles : 0;
    if (has_nothing(line) && nothing.contains(outcome_text(result))) {
      continue;
    }
    lines.add({mhz(result.freq), result.adapter < 0 ? "-" : std::to_string(result.adapter),
               tuned ? system_text(result.tuning) : "-",
               tuned ? strength_text(shown(result.signal.strength, result.outcome)) : "-",
               tuned ? snr_text(shown(result.signal.snr, result.outcome)) : "-",
               counted ? std::to_string(line.services) : "-", tuned ? fmt::format("{:.1f} s", result.seconds) : "-",
               with_notes(line)});
  }
  lines.print(out);
  for (const auto& [reason, there] : nothing) {
    fmt::print(out, "{}: {} frequencies from {} to {}{}\n", reason, there.count, mhz(there.first_hz),
               mhz(there.last_hz), there.seconds > 0 ? fmt::format(", {:.0f} s", there.seconds) : "");
  }

  const std::vector<Changed_service> changed = service_changes(before, after);
  Table table({{"CHANGE", LEFT, WORDS},
               {"LCN", RIGHT},
               {"NAME"},
               {"TYPE", LEFT, WHOLE, 2},
               {"PROVIDER", LEFT, WHOLE, 3},
               {"FREQUENCY", RIGHT, WHOLE, 1}},
              wide);
  int counts[4] = {};
  for (const Changed_service& entry : changed) {
    const Service& service = *entry.service;
    ++counts[static_cast<int>(entry.change)];
    const Service& before_it = entry.before != nullptr ? *entry.before : service;
    table.add({change_text(entry), from_to(lcn_text(before_it), lcn_text(service)),
               from_to(or_dash(before_it.name), or_dash(service.name)), type_text(service), or_dash(service.provider),
               from_to(mhz(before_it.freq), mhz(service.freq))});
  }
  if (!table.empty()) {
    fmt::print(out, "\n");
    table.print(out);
  }
  fmt::print(out, "{}{} of {} with a multiplex, {}: {} new, {} back, {} lost{}.\n", multiplexes.empty() ? "" : "\n",
             found, multiplexes.size() == 1 ? "1 frequency" : fmt::format("{} frequencies", multiplexes.size()),
             counted(services, "service"), counts[0], counts[1], counts[2],
             counts[3] == 0 ? "" : fmt::format(", {} changed", counts[3]));
}
