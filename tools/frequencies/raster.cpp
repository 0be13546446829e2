// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#include "tools/frequencies/raster.h"

#include <linux/dvb/frontend.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace {

constexpr Band NONE{};
constexpr Band VHF_7{177'500'000, 226'500'000, 7'000'000};   // channels 5 to 12
constexpr Band VHF_8{178'000'000, 226'000'000, 8'000'000};   // the seven of 174 to 230 MHz
constexpr Band UHF_48{474'000'000, 690'000'000, 8'000'000};  // channels 21 to 48: what mobile networks have left
constexpr Band UHF_60{474'000'000, 786'000'000, 8'000'000};
constexpr Band UHF_69{474'000'000, 858'000'000, 8'000'000};
constexpr Band UHF_AU{529'500'000, 690'500'000, 7'000'000};  // channels 28 to 51
constexpr Band UHF_TW{527'000'000, 605'000'000, 6'000'000};  // channels 23 to 36
constexpr Band UHF_6{473'000'000, 695'000'000, 6'000'000};   // channels 14 to 51

constexpr int SIXTH = 166'667;   // of a MHz: many receivers' tuning step
constexpr int EIGHTH = 125'000;  // of a MHz: Australia

using enum Systems;

constexpr Raster EUROPE{"", VHF_7, UHF_69, SIXTH, BOTH};

// By country. A band is left out where it is known to carry no television; what is in doubt is searched.
constexpr Raster RASTERS[] = {
    {"AD", NONE, UHF_48, SIXTH, BOTH},   // Andorra
    {"AE", VHF_7, UHF_48, SIXTH, BOTH},  // United Arab Emirates
    {"AL", NONE, UHF_60, SIXTH, BOTH},   // Albania
    {"AM", NONE, UHF_60, SIXTH, T2},     // Armenia
    {"AT", NONE, UHF_48, SIXTH, T2},     // Austria
    {"AU", VHF_7, UHF_AU, EIGHTH, T},    // Australia
    {"AX", VHF_7, UHF_48, SIXTH, BOTH},  // Åland
    {"AZ", NONE, UHF_60, SIXTH, BOTH},   // Azerbaijan
    {"BA", NONE, UHF_60, SIXTH, BOTH},   // Bosnia and Herzegovina
    {"BE", NONE, UHF_48, SIXTH, BOTH},   // Belgium
    {"BG", NONE, UHF_48, SIXTH, T},      // Bulgaria
    {"BY", VHF_8, UHF_60, SIXTH, BOTH},  // Belarus
    {"CH", NONE, UHF_48, SIXTH, BOTH},   // Switzerland
    {"CO", NONE, UHF_6, 0, T2},          // Colombia
    {"CY", NONE, UHF_48, SIXTH, BOTH},   // Cyprus
    {"CZ", NONE, UHF_48, SIXTH, T2},     // Czechia
    {"DE", NONE, UHF_48, SIXTH, T2},     // Germany
    {"DK", NONE, UHF_48, SIXTH, T2},     // Denmark
    {"EE", NONE, UHF_48, SIXTH, BOTH},   // Estonia
    {"ES", NONE, UHF_48, SIXTH, BOTH},   // Spain
    {"FI", VHF_7, UHF_48, SIXTH, BOTH},  // Finland
    {"FO", NONE, UHF_48, SIXTH, BOTH},   // Faroe Islands
    {"FR", NONE, UHF_48, SIXTH, BOTH},   // France
    {"GB", NONE, UHF_48, SIXTH, BOTH},   // United Kingdom
    {"GE", NONE, UHF_60, SIXTH, T2},     // Georgia
    {"GG", NONE, UHF_48, SIXTH, BOTH},   // Guernsey
    {"GH", VHF_7, UHF_48, SIXTH, T2},    // Ghana
    {"GI", NONE, UHF_48, SIXTH, BOTH},   // Gibraltar
    {"GL", NONE, UHF_60, SIXTH, BOTH},   // Greenland
    {"GR", NONE, UHF_48, SIXTH, BOTH},   // Greece
    {"HR", NONE, UHF_48, SIXTH, T2},     // Croatia
    {"HU", NONE, UHF_48, SIXTH, BOTH},   // Hungary
    {"ID", NONE, UHF_48, SIXTH, T2},     // Indonesia
    {"IE", NONE, UHF_48, SIXTH, T},      // Ireland
    {"IL", NONE, UHF_60, SIXTH, BOTH},   // Israel
    {"IM", NONE, UHF_48, SIXTH, BOTH},   // Isle of Man
    {"IN", VHF_7, UHF_48, SIXTH, BOTH},  // India
    {"IR", VHF_7, UHF_69, SIXTH, BOTH},  // Iran
    {"IS", VHF_7, UHF_48, SIXTH, BOTH},  // Iceland
    {"IT", VHF_7, UHF_48, SIXTH, BOTH},  // Italy
    {"JE", NONE, UHF_48, SIXTH, BOTH},   // Jersey
    {"KE", VHF_7, UHF_48, SIXTH, T2},    // Kenya
    {"KZ", VHF_8, UHF_60, SIXTH, T2},    // Kazakhstan
    {"LI", NONE, UHF_48, SIXTH, BOTH},   // Liechtenstein
    {"LT", NONE, UHF_48, SIXTH, BOTH},   // Lithuania
    {"LU", VHF_7, UHF_48, SIXTH, BOTH},  // Luxembourg
    {"LV", NONE, UHF_48, SIXTH, BOTH},   // Latvia
    {"MC", NONE, UHF_48, SIXTH, BOTH},   // Monaco
    {"MD", NONE, UHF_60, SIXTH, T2},     // Moldova
    {"ME", NONE, UHF_60, SIXTH, T2},     // Montenegro
    {"MK", NONE, UHF_60, SIXTH, BOTH},   // North Macedonia
    {"MT", NONE, UHF_48, SIXTH, BOTH},   // Malta
    {"MY", NONE, UHF_48, SIXTH, T2},     // Malaysia
    {"NG", VHF_7, UHF_48, SIXTH, BOTH},  // Nigeria
    {"NL", NONE, UHF_48, SIXTH, T2},     // Netherlands
    {"NO", NONE, UHF_48, SIXTH, BOTH},   // Norway
    {"NZ", NONE, UHF_48, SIXTH, T},      // New Zealand
    {"PA", NONE, UHF_6, 0, T},           // Panama
    {"PL", VHF_7, UHF_48, SIXTH, BOTH},  // Poland
    {"PT", NONE, UHF_48, SIXTH, T},      // Portugal
    {"RO", NONE, UHF_48, SIXTH, T2},     // Romania
    {"RS", NONE, UHF_48, SIXTH, T2},     // Serbia
    {"RU", VHF_8, UHF_60, SIXTH, T2},    // Russia
    {"SA", VHF_7, UHF_48, SIXTH, BOTH},  // Saudi Arabia
    {"SE", VHF_7, UHF_48, SIXTH, BOTH},  // Sweden
    {"SG", NONE, UHF_48, SIXTH, T2},     // Singapore
    {"SI", NONE, UHF_48, SIXTH, BOTH},   // Slovenia
    {"SK", NONE, UHF_48, SIXTH, BOTH},   // Slovakia
    {"SM", VHF_7, UHF_48, SIXTH, BOTH},  // San Marino
    {"TH", NONE, UHF_60, SIXTH, T2},     // Thailand
    {"TR", VHF_7, UHF_60, SIXTH, BOTH},  // Türkiye
    {"TW", NONE, UHF_TW, 0, T},          // Taiwan
    {"TZ", VHF_8, UHF_48, SIXTH, BOTH},  // Tanzania
    {"UA", VHF_8, UHF_60, SIXTH, BOTH},  // Ukraine
    {"UG", VHF_7, UHF_48, SIXTH, T2},    // Uganda
    {"UZ", VHF_8, UHF_60, SIXTH, BOTH},  // Uzbekistan
    {"VA", VHF_7, UHF_48, SIXTH, BOTH},  // Vatican
    {"VN", NONE, UHF_48, SIXTH, T2},     // Viet Nam
    {"XK", NONE, UHF_60, SIXTH, BOTH},   // Kosovo
    {"ZA", VHF_8, UHF_48, SIXTH, T2},    // South Africa
};
static_assert(std::is_sorted(std::begin(RASTERS), std::end(RASTERS),
                             [](const Raster& a, const Raster& b) { return a.country < b.country; }));

int only_system(Systems systems) {
  switch (systems) {
    case T:
      return SYS_DVBT;
    case T2:
      return SYS_DVBT2;
    case BOTH:
      break;
  }
  return SYS_UNDEFINED;
}

bool is_capital(char c) {
  return c >= 'A' && c <= 'Z';
}

}  // namespace

const Raster& raster_of(std::string_view country) {
  const std::string_view code = country == "UK" ? "GB" : country;
  const auto* const found =
      std::lower_bound(std::begin(RASTERS), std::end(RASTERS), code,
                       [](const Raster& raster, std::string_view c) { return raster.country < c; });
  return found != std::end(RASTERS) && found->country == code ? *found : EUROPE;
}

std::vector<Tuning_request> frequencies(const Raster& raster) {
  std::vector<Tuning_request> out;
  for (const Band& band : {raster.vhf, raster.uhf}) {
    for (int freq = band.first_hz; band.width_hz > 0 && freq <= band.last_hz; freq += band.width_hz) {
      Tuning_request request;
      request.freq = freq;
      request.system = only_system(raster.systems);
      request.bandwidth_hz = band.width_hz;
      out.push_back(request);
    }
  }
  return out;
}

std::string country_of_locale(std::string_view locale) {
  const size_t at = locale.find('_');
  if (at == std::string_view::npos || locale.size() < at + 3) {
    return "";
  }
  const std::string_view country = locale.substr(at + 1, 2);
  // Behind it stands nothing, an encoding or a variant: "de_DE", "de_DE.UTF-8", "de_DE@euro".
  const bool ends = locale.size() == at + 3 || locale[at + 3] == '.' || locale[at + 3] == '@';
  return ends && is_capital(country[0]) && is_capital(country[1]) ? std::string(country) : "";
}

std::string country_from_locale() {
  for (const char* const name : {"LC_ALL", "LC_MONETARY", "LC_ADDRESS", "LANG"}) {
    const char* const value = getenv(name);
    if (value == nullptr || *value == '\0') {
      continue;
    }
    std::string country = country_of_locale(value);
    if (!country.empty() || std::string_view(name) == "LC_ALL") {
      return country;  // LC_ALL overrules the others, also when it is "C".
    }
  }
  return "";
}
