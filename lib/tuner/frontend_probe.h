// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <vector>

#include "tuner/device.h"
#include "tuner/reception.h"

// What frontends say about themselves, before they are tuned. Not installed.
namespace frontend_probe {

// The DVB-T and DVB-T2 systems that an open device receives, in the driver's order: DTV_ENUM_DELSYS, and where the
// driver does not answer that, DVB-T for a terrestrial type.
std::vector<int> systems(Device& device);

// True when the driver says that it misses its firmware, which only shows before the first tuning. Blocks while the
// driver loads it.
bool misses_firmware(Device& device);

}  // namespace frontend_probe
