// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <cstdint>

// One conditional-access entry of a channel: made by Sdbl::fill_pids_for_channel, owned (and deleted) by the caller.
struct CA_pid {
  int32_t es_pid;    // PID of the elementary stream
  int32_t ca_pid;    // PID of its entitlement control messages
  int32_t ca_sysid;  // CA_system_id
  int32_t user;      // 0; free for the caller
};
