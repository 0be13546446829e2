// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <linux/dvb/frontend.h>

#include <optional>

#include "tuner/reception.h"

class Turn;

// One call that tunes: frequency (with its offset), system, bandwidth and pipe, all said.
struct Attempt {
  int freq = 0;  // Hz
  int system = SYS_DVBT;
  int bandwidth_hz = 8000000;
  int pipe = -1;  // -1: no filter
  // The network's own parameters; without them the frontend's defaults.
  std::optional<dvb_frontend_parameters> stored{};
};

// What a driver says that it is tuned to.
struct Reported {
  int freq = 0;  // Hz; 0: it does not say
  int system = SYS_UNDEFINED;
  int bandwidth_hz = 0;  // 0: it does not say
  int modulation = -1;   // enum fe_modulation; -1: it does not say
};

// How a Device is tuned. Not installed. All operations are any-thread.
class Frontend {
 public:
  virtual ~Frontend() = default;

  // Whether the device says that it receives this frequency (Hz).
  virtual bool receives(unsigned freq) const = 0;

  // Begins to tune; false, with errno, when the device refuses. It then goes on as before. A `turn` that is over before
  // the device is free for the call tunes nothing, with ECANCELED, so that no tuning comes behind that of a later turn;
  // null for a tuning that is made in any case.
  virtual bool tune(const Attempt& attempt, const Turn* turn) = 0;

  // Of the tuning under way, as far as the driver tells.
  virtual Reported reported() = 0;
};
