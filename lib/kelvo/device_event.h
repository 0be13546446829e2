// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// What became of an adapter's device.
enum : int {
  DEVICE_GONE = 0,  // unplugged, or its driver lost it: what was asked for is answered with -1, filters are closed
  DEVICE_BACK = 1,  // opened again; the last request is begun anew
};

struct Device_event {
  int adapter = 0;
  int kind = DEVICE_GONE;
  int freq = 0;  // Hz, that was tuned, or is tuned again; 0 for none
};
