// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What a tuner is asked for, and what hosts are told about device, tuning and signal: plain values, copied. Delivery
// systems are numbers of enum fe_delivery_system (linux/dvb/frontend.h): SYS_DVBT, SYS_DVBT2, 0 for unknown.

// One frequency, and what is known of it.
struct Tuning_request {
  int freq = 0;          // Hz
  int system = 0;        // SYS_DVBT or SYS_DVBT2; 0: whichever is found
  int bandwidth_hz = 0;  // 0: 7 MHz below 300 MHz, else 8; 1712000, 5, 6, 7, 8 and 10 MHz
  int pipe = -1;         // DVB-T2's PLP (EN 302 755), 0 to 255; -1: no filter, then pipes 0 to 3
  int first_pat_ms = 0;  // how long to wait for the first PAT, up to 10000; 0: as the profile says
};

// How a tuning ended.
enum : int {
  TUNING_NONE = 0,         // none yet
  TUNING_LOCKED = 1,       // and, where the profile searches, a PAT has come
  TUNING_NO_SIGNAL = 2,    // no bit of the status was seen
  TUNING_NO_LOCK = 3,      // bits were seen, but no lock
  TUNING_NO_STREAM = 4,    // locked, but no PAT came
  TUNING_REFUSED = 5,      // the device does not receive the frequency, or not that system; `error` has its errno
  TUNING_CANCELLED = 6,    // by cancel_tuning(), or by another tuning
  TUNING_NO_DEVICE = 7,    // not open, or gone; `error` says why
  TUNING_NO_FIRMWARE = 8,  // the driver misses its firmware
};

// The last tuning of a tuner.
struct Tuning_result {
  int outcome = TUNING_NONE;
  int error = 0;         // errno of what failed; 0 for none
  int freq = 0;          // asked for, Hz
  int tuned_hz = 0;      // what the driver was given last: `freq`, or beside it
  int key = 0;           // what the multiplex is known by: `freq`, plus `pipe` if that is above 0
  int system = 0;        // found, or tried last
  int pipe = -1;         // asked for, or found by trying; -1: no filter
  int bandwidth_hz = 0;  // as reported, else as asked for
  int modulation = -1;   // enum fe_modulation as reported; -1 when the driver does not say
  int offset_hz = 0;     // reported frequency - freq, where the driver reports one within 500 kHz; else 0
  int reported_hz = 0;   // what the driver reports; 0 when it does not
  unsigned status = 0;   // every bit of fe_status_t that was seen
  int lock_ms = -1;      // from the call that tuned to the lock; -1 without one
  int took_ms = 0;       // the whole tuning
};

// A tuner's device.
struct Frontend_state {
  std::string path;  // of the frontend in use, or that was looked for
  std::string name;  // as the driver says; empty when it was not asked
  int error = 0;     // errno: of opening (EBUSY, EACCES, ENOENT ...), or ENODEV when it has gone
  bool firmware_missing = false;
  std::vector<int> systems;  // DVB-T and DVB-T2, as far as it receives them, in the driver's order
  int64_t lowest_hz = 0;     // 0: not known
  int64_t highest_hz = 0;
  std::vector<int> all_systems;  // all that the driver names, cable and satellite among them, in its order
};

// What a reading's number means.
enum : int {
  SCALE_ABSENT = 0,    // the device does not have it; `value` is 0 and means nothing
  SCALE_DECIBEL = 1,   // dB; strength: dBm
  SCALE_RELATIVE = 2,  // percent of the driver's range, 0 to 100
  SCALE_RATE = 3,      // errors a bit, or a block, since the reading before
  SCALE_DRIVER = 4,    // FE_READ_*, on a scale that only the driver knows
  SCALE_BOX = 5,       // the box's scales: see Tuner::fe_strength, fe_snr, fe_ber
};

struct Signal_value {
  int scale = SCALE_ABSENT;
  double value = 0;
};

// The signal as it was read last. Layers are for systems that send several (ISDB-T); DVB-T and T2 have none.
struct Signal_readings {
  int64_t age_ms = -1;  // since they were read; -1: never
  unsigned status = 0;  // bits of fe_status_t
  Signal_value strength;
  Signal_value snr;
  Signal_value pre_ber;       // bit errors before the inner code's correction
  Signal_value post_ber;      // and after it
  Signal_value block_errors;  // uncorrected blocks: a rate, or with SCALE_DRIVER their number
  std::vector<Signal_value> strength_layers;
  std::vector<Signal_value> snr_layers;
};
