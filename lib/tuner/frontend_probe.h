// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <vector>

#include "tuner/device.h"
#include "tuner/reception.h"

// What frontends say about themselves, before they are tuned. Not installed.
namespace frontend_probe {

// The delivery systems that an open device receives, in the driver's order: DTV_ENUM_DELSYS, and where the driver does
// not answer that, the oldest of its type, DVB-T for a terrestrial one.
std::vector<int> systems(Device& device);

// DVB-T and DVB-T2 among them.
std::vector<int> terrestrial(const std::vector<int>& systems);

// True when the driver says that it misses its firmware, which only shows before the first tuning. Blocks while the
// driver loads it.
bool misses_firmware(Device& device);

}  // namespace frontend_probe
