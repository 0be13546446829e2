// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// What the kernel says about an adapter's frontend.
struct Frontend_info {
  std::string name;
  unsigned lowest_hz = 0;  // 0: no limit known
  unsigned highest_hz = 0;

  bool receives(int freq) const {
    const auto hz = static_cast<unsigned>(freq);
    return (lowest_hz == 0 || hz >= lowest_hz) && (highest_hz == 0 || hz <= highest_hz);
  }
};

// Opens frontend and demultiplexer of the adapter and closes them again: the only way to know that they are there.
// Throws Failure when one is missing, in use, or not DVB-T.
Frontend_info check_adapter(int adapter);
