// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "tuner/device.h"
#include "tuner/frontend.h"

// The properties of DVBv5: FE_SET_PROPERTY, for DVB-T and DVB-T2. Not installed. Nothing is printed but traces.
class Property_frontend final : public Frontend {
 public:
  // `device` is not owned.
  explicit Property_frontend(Device& device) : device_(device) {}

  bool receives(unsigned freq) const override { return freq != 0 && device_.may_cover(freq); }
  // All that the attempt does not say is automatic, but for stored parameters of DVB-T.
  bool tune(const Attempt& attempt, const Turn* turn) override;
  Reported reported() override;

 private:
  Device& device_;
};
