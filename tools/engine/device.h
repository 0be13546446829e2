// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <tuner/reception.h>

#include <algorithm>
#include <string>
#include <vector>

#include <kelvo/receiver_profile.h>

// The frontend of an adapter that is used, what the kernel says about it, and how it is treated.
struct Frontend_info {
  std::string path;
  std::string name;
  unsigned lowest_hz = 0;  // 0: no limit known
  unsigned highest_hz = 0;
  std::vector<int> systems;  // empty: not known
  Receiver_profile profile;

  bool receives(const Tuning_request& request) const {
    const auto hz = static_cast<unsigned>(request.freq);
    return (lowest_hz == 0 || hz >= lowest_hz) && (highest_hz == 0 || hz <= highest_hz) &&
           (request.system == 0 || has(request.system));
  }
  // Whether it may be able to receive a delivery system.
  bool has(int system) const {
    return systems.empty() || std::find(systems.begin(), systems.end(), system) != systems.end();
  }
};

// Whether there is an adapter to be used as the profile says. With Receiver_profile::box() frontend0 is opened as the
// library will open it, and closed again; else nothing is opened for writing, which costs some devices seconds: that
// another program has the frontend may then be known only when the library has tried (check_frontend). Throws Failure
// when it is missing, in use, or receives neither DVB-T nor DVB-T2.
Frontend_info check_adapter(int adapter, const Receiver_profile& profile);

// Throws Failure when the library could not open the frontend of `adapter`, or it has gone since.
void check_frontend(int adapter, const Frontend_state& state);
