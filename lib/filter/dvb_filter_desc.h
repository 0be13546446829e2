// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

#include <time.h>

#include <cstdint>

// States of a filter slot.
enum : int32_t {
  FILTER_FREE = 0,     // no filter; the slot may still own an open handle, kept for the next one
  FILTER_WANTED = 1,   // to be programmed by the next recalculate_filters()
  FILTER_RUNNING = 2,  // programmed and started
  FILTER_STOPPED = 3,  // stopped by stop_filters(), kept for start_filters()
};

// Bits of dvb_filter_desc::flags.
enum : int32_t {
  FILTER_FLAG_ONESHOT = 1,   // the demultiplexer delivers one section
  FILTER_FLAG_SOFT_CRC = 2,  // get_section_data() checks the CRC
  FILTER_FLAG_HW_CRC = 4,    // the demultiplexer checks the CRC
};

// Length of a demultiplexer's section filter, in bytes.
inline constexpr int FILTER_LENGTH = 16;

// One filter slot. Allocated once and reused; owned by the Section_filter that lists it, whose mutex guards it.
struct dvb_filter_desc {
  int32_t pid;                    // -1 while the slot is free
  uint8_t filter[FILTER_LENGTH];  // byte 0 is the table id
  uint8_t mask[FILTER_LENGTH];
  int32_t flags;
  int32_t fd;            // open demux handle, -1 when none
  int32_t captured;      // sections of right length since the filter was added
  int32_t state;         // FILTER_...
  int32_t freq;          // the caller's tag: frequency in Hz that the filter belongs to
  int32_t open_retries;  // failed attempts to open a handle
  timer_t timer;         // runs from start to the time-out; never signals, only read back
  int32_t timeout_s;     // seconds within which a first section must arrive
  int32_t restarts;      // restarts because it did not
};
