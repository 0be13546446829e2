// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <string_view>

// Countries by the three letters of ISO 3166, as local time offsets name them, in capitals; empty where there is none.
namespace countries {

// From two or three letters, small or capital.
std::string by_letters(std::string_view letters);

// From the original_network_id of a terrestrial network: 0x2000 and the country's number (ETSI TS 101 162).
std::string by_network(int original_network_id);

// That of the system's zone: TZ, else where /etc/localtime leads, looked up in the list of zones of
// /usr/share/zoneinfo. None where the zone is not named after a place ("EET-2", "UTC") or the list is not there.
std::string by_system_zone();

}  // namespace countries
