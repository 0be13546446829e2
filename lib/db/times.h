// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

struct timespec;

// Dates, times and durations as decimal digits, four bits each; Sdbl's operations of the same names have the contracts.
// Any-thread.
namespace sdbl {

unsigned bin_to_bcd(unsigned value);
int bcd_to_int(unsigned bcd);
int ymd_hms_to_tzepoch(int ymd_bcd, int hms_bcd);
int usec_to_now(const timespec* start);

}  // namespace sdbl
