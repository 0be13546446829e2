// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <string>

// One named thing of a trace: its place in its list is its id in the TDI file.
struct TDI_lookup {
  std::string name;
  int key;
};
