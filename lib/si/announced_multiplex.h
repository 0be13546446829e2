// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// A multiplex that a NIT names (EN 300 468, 5.2.1): the frequency of a terrestrial or T2 delivery system descriptor
// (6.2.13.4, 6.4.6.3), or a further one of a frequency list (6.2.17) or cell frequency link (6.2.6).
struct Announced_multiplex {
  int original_network_id = 0;
  int transport_stream_id = 0;
  int system = 0;        // SYS_DVBT or SYS_DVBT2 (linux/dvb/frontend.h); 0: not said
  int freq = 0;          // Hz
  int bandwidth_hz = 0;  // 0: not said
  int pipe = -1;         // T2: plp_id; -1 otherwise
};
