// SPDX-FileCopyrightText: the libkelvo++ authors
// SPDX-License-Identifier: LGPL-2.1-or-later

#pragma once

// What an adapter's worker is doing, for hosts that draw or measure it. Beginnings and ends come in pairs.
enum : int {
  ACTIVITY_SECTIONS_BEGIN = 0,  // a pass over the filters that have data begins
  ACTIVITY_SECTIONS_END = 1,
  ACTIVITY_READ_BEGIN = 2,      // one section is read; value: PID of its filter
  ACTIVITY_READ_END = 3,        // value: length in bytes, 0 when there was none or it was thrown away
  ACTIVITY_PARSE_BEGIN = 4,     // one section is parsed; value: table id
  ACTIVITY_PARSE_END = 5,       // value: table id
  ACTIVITY_FILTER_STARTED = 6,  // the demultiplexer has a filter; value: its PID
  ACTIVITY_FILTER_ENDED = 7,    // a filter that was started is free again; value: its PID
  ACTIVITY_MERGE_BEGIN = 8,     // a finished scan goes into the channel list; value: frequency in Hz
  ACTIVITY_MERGE_END = 9,       // value: the merge's result bits
};

// Who is told. Set with Kelvo::set_activity_listener. Called on the thread that does the work (for a filter that a
// host's request takes away, the host's); a lock of the library may be held, so it must return at once and must not
// call the library. Null for nobody.
struct Activity_listener {
  void (*activity)(void* data, int kind, int value) = nullptr;
  void* data = nullptr;  // not owned

  void tell(int kind, int value) const {
    if (activity != nullptr)
      activity(data, kind, value);
  }
};
