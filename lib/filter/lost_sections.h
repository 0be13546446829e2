// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// Sections that filters on one PID lost since the last request was picked up.
struct Lost_sections {
  int pid = 0;
  int overflows = 0;   // the kernel's buffer was full; each lost one section or more
  int crc_errors = 0;  // broken on their way
};
