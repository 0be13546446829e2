// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <tuner/reception.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// What the command line says of the frequencies; one of the four at most.
struct Scan_choice {
  std::vector<int> freqs;
  std::string band;                    // "vhf", "uhf", "all"
  std::optional<std::string> country;  // as it was written
  std::optional<std::string> table;    // a file or the name of a table
};

struct What_to_scan {
  std::vector<Tuning_request> requests;  // each once
  std::vector<std::string> lines;        // what people should know before it begins
  std::optional<int> offset_hz;          // of a country that was chosen: how far its transmitters may be off centre
};

// The frequencies that were chosen; without a choice, those of the locale's country. Where no adapter `receives_t2`,
// which is asked only if it matters, what a country sends in DVB-T2 alone is looked for in DVB-T. Throws Failure.
What_to_scan what_to_scan(const Scan_choice& choice, const std::function<bool()>& receives_t2);
