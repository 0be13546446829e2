// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include "base/multiplex.h"
#include "base/types.h"

// What a section is about: one multiplex, received by one adapter, at one stage of its scan.
struct Place {
  int adapter;
  Multiplex multiplex;
  SCAN_STATE stage;
};
