// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <tuner/reception.h>

#include <string>
#include <string_view>
#include <vector>

// Where countries put their multiplexes: public band plans, as one table.

// Channels of equal width, by the centres of the first and the last one, in Hz. All 0: the country has none.
struct Band {
  int first_hz = 0;
  int last_hz = 0;
  int width_hz = 0;
};

// What its broadcasters send.
enum class Systems { T, T2, BOTH };

struct Raster {
  std::string_view country;  // ISO 3166-1 alpha-2; empty for the general European one
  Band vhf;
  Band uhf;
  int offset_hz = 0;  // that transmitters may be beside the centre of their channel; 0: they are not
  Systems systems = Systems::BOTH;
};

// The raster of a country in capitals ("UK" is taken for "GB"); the general European one, with an empty `country`, for
// others.
const Raster& raster_of(std::string_view country);

// Its channels, VHF first, ascending, each with width and, where there is only one, delivery system.
std::vector<Tuning_request> frequencies(const Raster& raster);

// "DE" of "de_DE.UTF-8" and the like; empty where a locale has no country ("C", "eo").
std::string country_of_locale(std::string_view locale);

// The country that the environment tells: of LC_ALL, of what money and addresses look like (LC_MONETARY, LC_ADDRESS),
// because people read messages in other countries' languages, then of LANG. Empty when none does.
std::string country_from_locale();
