// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// PIDs of the tables, for the constants of the section classes (ISO/IEC 13818-1, 2.4.3.3; EN 300 468, 5.1.3).
enum PacketId {
  PID_PAT = 0x0000,
  PID_CAT = 0x0001,
  PID_TSDT = 0x0002,
  PID_NIT = 0x0010,
  PID_BAT = 0x0011,
  PID_SDT = 0x0011,
  PID_EIT = 0x0012,
  PID_RST = 0x0013,
  PID_TDT = 0x0014,
  PID_TOT = 0x0014,
  PID_RESERVED = 0x1FFF,
};
