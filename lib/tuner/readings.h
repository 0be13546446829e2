// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "tuner/reception.h"

// What a frontend receives: the numbers of Tuner's operations, and the values of Signal_readings. Not installed. All
// operations are any-thread; of two threads that read at the same time, the later one's value stays.
class Readings {
 public:
  virtual ~Readings() = default;

  // What the monitor reads once a pass. The operations below that do not read answer with it.
  struct Pass {
    bool signal;  // some bit of the status
    bool locked;
    int quality;  // 0 to 100
  };
  virtual Pass refresh() = 0;

  // What a host asks for. Hz; bits of fe_status_t; dB.
  virtual int freq() = 0;
  virtual int status() = 0;
  virtual float snr() = 0;

  // Nothing of what was read belongs to what is tuned from now on.
  virtual void begin_tuning() = 0;
  // So that hosts have readings from the lock on.
  virtual void tuning_has_locked() = 0;

  // Of a host that wants them read now.
  virtual void read_strength() = 0;
  virtual int read_ber_quality() = 0;

  // As last read, or cleared: usually 0 to 100, higher is better. No device access.
  virtual int strength() const = 0;
  virtual int ber_quality() const = 0;

  // Strength and BER quality count as 0; nothing is known of the rest.
  virtual void clear() = 0;

  // No device access.
  virtual Signal_readings signal() const = 0;
};
