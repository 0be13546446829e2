// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>
#include <vector>

// Centre frequencies (Hz) of a band's channels, ascending: "vhf" (band III, channels 5 to 12, 7 MHz wide: 177.5 to
// 226.5 MHz), "uhf" (bands IV and V, channels 21 to 69, 8 MHz wide: 474 to 858 MHz) or "all". Many countries use UHF up
// to channel 48 (690 MHz) only; the channels above cost no more than the tries for lock.
std::vector<int> band_frequencies(const std::string& band);

// What a DVB-T frequency can be, in Hz; everything else is a slip (MHz or kHz given).
inline constexpr int LOWEST_FREQ = 30'000'000;
inline constexpr int HIGHEST_FREQ = 1'000'000'000;
