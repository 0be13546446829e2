// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// How a multiplex locked the last time: a row of the table tuned_multiplex. Not installed.
struct Stored_tuning {
  int freq = 0;          // what the multiplex is known by, Hz: `asked`, plus `pipe` if that is above 0
  int asked = 0;         // the frequency asked for, Hz
  int system = 0;        // SYS_DVBT or SYS_DVBT2 (linux/dvb/frontend.h)
  int pipe = -1;         // DVB-T2: 0 to 255; -1 for none
  int bandwidth_hz = 0;  // 0: not known
  int modulation = -1;   // enum fe_modulation; -1: not known
  int offset_hz = 0;     // frequency that the driver was given - `asked`
  int lock_ms = 0;

  bool operator==(const Stored_tuning&) const = default;
};
