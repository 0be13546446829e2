// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "tuner/device.h"
#include "tuner/frontend.h"

// The calls of version 3: FE_SET_FRONTEND, for DVB-T alone. Not installed. What fails is printed with the device's
// path.
class Version3_frontend final : public Frontend {
 public:
  // `device` is not owned.
  explicit Version3_frontend(Device& device) : device_(device) {}

  // What is asked for without stored parameters: no inversion, no hierarchy, transmission mode 3, all else automatic.
  static dvb_frontend_parameters defaults(unsigned freq, int bandwidth_hz);

  bool receives(unsigned freq) const override { return device_.covers(freq); }
  bool tune(const Attempt& attempt, const Turn* turn) override;
  Reported reported() override;

 private:
  Device& device_;
};
