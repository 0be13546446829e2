// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/scan/what_to_scan.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <tuple>

#include <fmt/format.h>

#include "tools/cli/bands.h"
#include "tools/cli/failure.h"
#include "tools/cli/text.h"
#include "tools/engine/engine.h"
#include "tools/frequencies/initial_scan_file.h"
#include "tools/frequencies/raster.h"

namespace {

std::string count_text(size_t count, const char* one, const char* many) {
  return fmt::format("{} {}", count, count == 1 ? one : many);
}

bool is_letter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// In capitals. Throws Failure.
std::string country_code(const std::string& text) {
  if (text.size() != 2 || !is_letter(text[0]) || !is_letter(text[1])) {
    throw Failure(fmt::format("--country {}: not a country; give its two letters, such as DE", text), EXIT_USAGE);
  }
  std::string out = text;
  for (char& c : out) {
    c = static_cast<char>(c & ~('a' - 'A'));
  }
  return out;
}

What_to_scan of_country(const std::optional<std::string>& given, const std::function<bool()>& receives_t2) {
  const std::string country = given ? country_code(*given) : country_from_locale();
  const Raster& raster = raster_of(country);
  What_to_scan out{frequencies(raster), {}, raster.offset_hz};
  const std::string count = count_text(out.requests.size(), "frequency", "frequencies");
  if (raster.country.empty()) {
    out.lines.push_back(country.empty()
                            ? fmt::format("{}, as in most of Europe; --country names a country", count)
                            : fmt::format("{}, as in most of Europe: nothing is known of {}{}", count, country,
                                          given ? "" : " (from the locale); --country names another country"));
  } else {
    out.lines.push_back(fmt::format("{} of {}{}", count, raster.country,
                                    given ? "" : " (from the locale); --country names another country"));
  }
  if (raster.systems == Systems::T2 && !receives_t2()) {
    out.lines.push_back(
        fmt::format("{} sends DVB-T2, which the adapter does not receive; DVB-T is looked for", raster.country));
    for (Tuning_request& request : out.requests) {
      request.system = 0;
    }
  }
  return out;
}

What_to_scan of_table(const std::string& table) {
  const std::string file = find_initial_scan_file(table, scan_table_folders());
  Initial_scan scan = read_initial_scan_file(file);
  What_to_scan out{std::move(scan.multiplexes), std::move(scan.remarks), std::nullopt};
  std::string line = fmt::format("{} of {}", count_text(out.requests.size(), "multiplex", "multiplexes"), file);
  if (scan.others > 0) {
    line += fmt::format("; {} passed over, of other systems",
                        count_text(static_cast<size_t>(scan.others), "entry", "entries"));
  }
  out.lines.push_back(clean_text(line));
  return out;
}

}  // namespace

What_to_scan what_to_scan(const Scan_choice& choice, const std::function<bool()>& receives_t2) {
  What_to_scan out;
  if (choice.table) {
    out = of_table(*choice.table);
  } else if (!choice.band.empty()) {
    out.requests = requests_for(band_frequencies(choice.band));
  } else if (!choice.freqs.empty()) {
    out.requests = requests_for(choice.freqs);
  } else {
    out = of_country(choice.country, receives_t2);
  }
  std::vector<Tuning_request> once;
  for (const Tuning_request& request : out.requests) {
    const bool known = std::any_of(once.begin(), once.end(), [&](const Tuning_request& other) {
      return std::tie(request.freq, request.system, request.pipe) == std::tie(other.freq, other.system, other.pipe);
    });
    if (!known) {
      once.push_back(request);
    }
  }
  out.requests = std::move(once);
  return out;
}
